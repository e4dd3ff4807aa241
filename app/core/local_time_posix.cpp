// Local time on POSIX systems.
#include "app/core/local_time.h"

namespace velphone {

bool platformLocalTime(std::time_t when, std::tm& parts) { return ::localtime_r(&when, &parts) != nullptr; }

}  // namespace velphone
