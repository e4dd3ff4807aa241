// Thread numbers, local time and secure random bytes on Windows.
#include <windows.h>
#include <bcrypt.h>

#include "sip/core/system.h"

namespace kelsip::platform {

uint64_t currentThreadNumber() { return ::GetCurrentThreadId(); }

bool toLocalTime(std::time_t when, std::tm& out) { return ::localtime_s(&out, &when) == 0; }

bool secureRandom(void* out, size_t size) {
    auto* p = static_cast<unsigned char*>(out);
    while (size > 0) {
        const ULONG chunk = size > 0x10000000 ? 0x10000000UL : static_cast<ULONG>(size);
        if (!BCRYPT_SUCCESS(::BCryptGenRandom(nullptr, p, chunk, BCRYPT_USE_SYSTEM_PREFERRED_RNG))) return false;
        p += chunk;
        size -= chunk;
    }
    return true;
}

void releaseFreeMemory() { (void)::HeapCompact(::GetProcessHeap(), 0); }

}  // namespace kelsip::platform
