// Thread numbers, local time and secure random bytes on POSIX systems.
#include <malloc.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "sip/core/system.h"

namespace kelsip::platform {

uint64_t currentThreadNumber() { return static_cast<uint64_t>(::syscall(SYS_gettid)); }

bool toLocalTime(std::time_t when, std::tm& out) { return ::localtime_r(&when, &out) != nullptr; }

bool secureRandom(void* out, size_t size) {
    auto* p = static_cast<unsigned char*>(out);
    while (size > 0) {
        const ssize_t n = ::getrandom(p, size, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// glibc keeps freed memory in each thread's arena; trimming returns the
// free pages of every arena, not only the top of the main heap.
void releaseFreeMemory() { (void)::malloc_trim(0); }

}  // namespace kelsip::platform
