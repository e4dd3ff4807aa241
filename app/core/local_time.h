// The local time of a moment, the same way on every platform.
#pragma once

#include <ctime>

namespace velphone {

// False when the moment cannot be expressed (out of the platform's range).
[[nodiscard]] bool platformLocalTime(std::time_t when, std::tm& parts);

}  // namespace velphone
