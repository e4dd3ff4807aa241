// Stored passwords on POSIX: plain text, kept private by account.txt's mode
// (0600) inside the data folder's (0700).
#include <sys/stat.h>

#include "app/core/platform_files.h"
#include "app/core/stores.h"

namespace velphone {

std::optional<std::string> protectPassword(const std::string& plain) { return plain; }

std::optional<std::string> unprotectPassword(const std::string& stored) {
    // A value protected on Windows cannot be opened here; taking it as the
    // password would send garbage to the registrar.
    if (stored.starts_with("dpapi:")) return std::nullopt;
    return stored;
}

namespace detail {

bool storedPasswordExposed(const std::filesystem::path& file, const std::string& stored) {
    if (stored.empty()) return false;
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) return true;
    return (info.st_mode & (S_IRWXG | S_IRWXO)) != 0;
}

}  // namespace detail

}  // namespace velphone
