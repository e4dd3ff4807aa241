// Whole-file writes and replacing moves on Windows: a ".tmp" file flushed
// with FlushFileBuffers, then MoveFileExW over the old one, write-through.
#include <windows.h>

#include <algorithm>

#include "app/core/platform_files.h"
#include "app/core/stores.h"

namespace velphone {

namespace {

void setError(std::string* error, const std::string& what, DWORD code) {
    if (error) *error = what + " (error " + std::to_string(code) + ")";
}

bool writeAll(HANDLE file, std::string_view content) {
    while (!content.empty()) {
        const auto chunk = static_cast<DWORD>(std::min<size_t>(content.size(), 1u << 30));
        DWORD written = 0;
        if (!WriteFile(file, content.data(), chunk, &written, nullptr)) return false;
        content.remove_prefix(written);
    }
    return true;
}

}  // namespace

bool writeFileAtomically(const std::filesystem::path& path, std::string_view content, std::string* error) {
    std::filesystem::path tmp = path;
    tmp += L".tmp";
    const HANDLE file =
        CreateFileW(tmp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        setError(error, "Cannot create " + detail::pathText(tmp), GetLastError());
        return false;
    }
    const bool written = writeAll(file, content) && FlushFileBuffers(file);
    const DWORD writeError = GetLastError();
    CloseHandle(file);
    if (!written) {
        setError(error, "Cannot write " + detail::pathText(tmp), writeError);
        DeleteFileW(tmp.c_str());
        return false;
    }
    if (!detail::replaceFile(tmp, path, error)) {
        DeleteFileW(tmp.c_str());
        return false;
    }
    return true;
}

namespace detail {

bool replaceFile(const std::filesystem::path& from, const std::filesystem::path& to, std::string* error) {
    if (MoveFileExW(from.c_str(), to.c_str(),
                    MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED | MOVEFILE_WRITE_THROUGH)) {
        return true;
    }
    setError(error, "Cannot replace " + pathText(to), GetLastError());
    return false;
}

}  // namespace detail

}  // namespace velphone
