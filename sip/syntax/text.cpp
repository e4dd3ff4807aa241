// Byte-level text helpers shared by the SIP parsers.
#include "sip/syntax/text.h"

namespace kelsip::text {

std::vector<std::string_view> splitTopLevel(std::string_view s, char sep) {
    std::vector<std::string_view> pieces;
    forEachTopLevel(s, sep, [&](std::string_view p) { pieces.push_back(p); });
    return pieces;
}

bool isBalanced(std::string_view s) {
    Nesting nesting;
    for (size_t i = 0; i < s.size(); ++i) (void)nesting.topLevel(s, i);
    return !nesting.quoted && nesting.depth == 0;
}

size_t findUnquoted(std::string_view s, char c) {
    // Usually no quote comes before the byte sought.
    const size_t first = s.find(c);
    if (first == std::string_view::npos || s.substr(0, first).find('"') == std::string_view::npos) return first;
    bool quoted = false;
    for (size_t i = 0; i < s.size(); ++i) {
        const char b = s[i];
        if (quoted) {
            if (b == '\\') ++i;
            else if (b == '"') quoted = false;
        } else if (b == '"') {
            quoted = true;
        } else if (b == c) {
            return i;
        }
    }
    return std::string_view::npos;
}

}  // namespace kelsip::text
