// The data folder on Windows: "Velmora Phone" in the roaming application
// data folder. Its access list is inherited from the user's profile.
#include <windows.h>
#include <knownfolders.h>
#include <shlobj.h>

#include <system_error>

#include "app/core/platform_files.h"
#include "app/core/stores.h"

namespace velphone {

namespace fs = std::filesystem;

fs::path Stores::defaultFolder() {
    PWSTR roaming = nullptr;
    fs::path folder;
    if (SUCCEEDED(SHGetKnownFolderPath(FOLDERID_RoamingAppData, 0, nullptr, &roaming))) folder = roaming;
    CoTaskMemFree(roaming);
    if (folder.empty()) {
        // Only a broken profile gets here; the folder beside the program still works.
        std::error_code ec;
        folder = fs::current_path(ec);
    }
    return folder / L"Velmora Phone";
}

namespace detail {

bool createPrivateFolder(const fs::path& folder, std::string* error) {
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (!ec && fs::is_directory(folder, ec)) return true;
    if (error) *error = "Cannot create " + pathText(folder) + ": " + ec.message();
    return false;
}

}  // namespace detail

}  // namespace velphone
