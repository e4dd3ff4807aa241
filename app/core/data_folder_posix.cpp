// The data folder on POSIX: under $XDG_DATA_HOME or ~/.local/share, private
// to its owner (mode 0700) because account.txt holds the password as text.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "app/core/platform_files.h"
#include "app/core/stores.h"

namespace velphone {

namespace fs = std::filesystem;

fs::path Stores::defaultFolder() {
    // The XDG rules ignore a relative XDG_DATA_HOME.
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    if (dataHome != nullptr && dataHome[0] == '/') return fs::path(dataHome) / "velmora-phone";
    const char* home = std::getenv("HOME");
    if (home == nullptr || home[0] == '\0') {
        const passwd* entry = ::getpwuid(::getuid());
        home = entry != nullptr ? entry->pw_dir : ".";
    }
    return fs::path(home) / ".local" / "share" / "velmora-phone";
}

namespace detail {

bool createPrivateFolder(const fs::path& folder, std::string* error) {
    std::error_code ec;
    if (folder.has_parent_path()) fs::create_directories(folder.parent_path(), ec);
    if (::mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        if (error) *error = "Cannot create " + pathText(folder) + ": " + std::generic_category().message(errno);
        return false;
    }
    struct stat info {};
    if (::stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        if (error) *error = pathText(folder) + " is not a folder";
        return false;
    }
    // A folder made earlier by hand or by an older version may be open to others.
    if ((info.st_mode & 07777) != S_IRWXU && ::chmod(folder.c_str(), S_IRWXU) != 0) {
        if (error) *error = "Cannot make " + pathText(folder) + " private: " + std::generic_category().message(errno);
        return false;
    }
    return true;
}

}  // namespace detail

}  // namespace velphone
