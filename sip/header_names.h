// Header-name knowledge inside the message code: which names carry
// comma-separated lists.
#pragma once

#include <string_view>

namespace kelsip {

// True for a header name in canonical spelling whose value is split at top-level commas
// into one pair per element.
[[nodiscard]] bool isCommaListHeader(std::string_view canonicalName);

}  // namespace kelsip
