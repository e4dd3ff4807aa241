// The few file operations the stores need that differ between Windows and
// POSIX; each has a *_win.cpp and a *_posix.cpp implementation.
#pragma once

#include <filesystem>
#include <string>

namespace velphone::detail {

// A path as UTF-8 for messages; string() may fail on names the narrow
// code page cannot hold.
inline std::string pathText(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

// Creates `folder` (and missing parents) readable by its owner only where
// modes exist; an existing folder is narrowed to that. False with the reason.
[[nodiscard]] bool createPrivateFolder(const std::filesystem::path& folder, std::string* error);

// Moves `from` over `to`, replacing it; false with the reason.
[[nodiscard]] bool replaceFile(const std::filesystem::path& from, const std::filesystem::path& to,
                               std::string* error);

// Whether a stored password in `file` is exposed and should be written
// again: plain text on Windows, a file others may read elsewhere.
[[nodiscard]] bool storedPasswordExposed(const std::filesystem::path& file, const std::string& stored);

}  // namespace velphone::detail
