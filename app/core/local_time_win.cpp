// Local time on Windows.
#include "app/core/local_time.h"

namespace velphone {

bool platformLocalTime(std::time_t when, std::tm& parts) { return ::localtime_s(&parts, &when) == 0; }

}  // namespace velphone
