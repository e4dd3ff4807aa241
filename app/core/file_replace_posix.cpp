// Whole-file writes and replacing moves on POSIX: a 0600 ".tmp" file,
// fsync, rename, then fsync of the folder so the rename itself is durable.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "app/core/platform_files.h"
#include "app/core/stores.h"

namespace velphone {

namespace {

void setError(std::string* error, const std::string& what, int code) {
    if (error) *error = what + ": " + std::generic_category().message(code);
}

bool writeAll(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = ::write(fd, content.data(), content.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        content.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

// Without this a crash right after rename() may still come back with the
// old directory entry on some file systems.
void syncFolder(const std::filesystem::path& folder) {
    const int fd = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

}  // namespace

bool writeFileAtomically(const std::filesystem::path& path, std::string_view content, std::string* error) {
    std::filesystem::path tmp = path;
    tmp += ".tmp";
    // A .tmp left by an interrupted write may carry another mode; O_EXCL on
    // a fresh name makes sure the file is private from its first byte.
    if (::unlink(tmp.c_str()) != 0 && errno != ENOENT) {
        setError(error, "Cannot replace " + detail::pathText(tmp), errno);
        return false;
    }
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0) {
        setError(error, "Cannot create " + detail::pathText(tmp), errno);
        return false;
    }
    const bool written = writeAll(fd, content) && ::fsync(fd) == 0;
    const int writeErrno = errno;
    const bool closed = ::close(fd) == 0;
    if (!written || !closed) {
        setError(error, "Cannot write " + detail::pathText(tmp), written ? errno : writeErrno);
        ::unlink(tmp.c_str());
        return false;
    }
    if (!detail::replaceFile(tmp, path, error)) {
        ::unlink(tmp.c_str());
        return false;
    }
    syncFolder(path.parent_path());
    return true;
}

namespace detail {

bool replaceFile(const std::filesystem::path& from, const std::filesystem::path& to, std::string* error) {
    if (::rename(from.c_str(), to.c_str()) == 0) return true;
    setError(error, "Cannot replace " + pathText(to), errno);
    return false;
}

}  // namespace detail

}  // namespace velphone
