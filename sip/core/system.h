// Small operating-system services the stack needs outside networking.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

namespace kelsip::platform {

// The calling thread's number as the operating system knows it.
[[nodiscard]] uint64_t currentThreadNumber();

// Broken-down local time of a calendar time; false if it cannot be had.
[[nodiscard]] bool toLocalTime(std::time_t when, std::tm& out);

// Fills `out` with cryptographically secure random bytes; false on failure.
[[nodiscard]] bool secureRandom(void* out, size_t size);

// Gives the memory the allocator holds free back to the system, so that
// what a burst of calls took does not stay with the process after it.
void releaseFreeMemory();

}  // namespace kelsip::platform
