// Byte-level text helpers shared by the SIP parsers; ASCII only, locale free.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kelsip::text {

constexpr char toLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
constexpr char toUpper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }
constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
constexpr bool isAlnum(char c) { return isAlpha(c) || isDigit(c); }
// Space, tab, LF, VT, FF and CR.
constexpr bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

namespace detail {
constexpr bool computeTokenChar(unsigned char c) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
    switch (c) {
        case '-': case '.': case '!': case '%': case '*': case '_': case '+': case '`': case '\'': case '~':
            return true;
        default:
            return false;
    }
}
struct TokenTable {
    bool isToken[256] = {};
    constexpr TokenTable() {
        for (int c = 0; c < 256; ++c) isToken[c] = computeTokenChar(static_cast<unsigned char>(c));
    }
};
inline constexpr TokenTable kTokenTable{};
}  // namespace detail

// RFC 3261 token characters: letters, digits and "-.!%*_+`'~".
constexpr bool isTokenChar(char c) { return detail::kTokenTable.isToken[static_cast<unsigned char>(c)]; }

constexpr std::string_view trim(std::string_view s) {
    while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
    return s;
}

constexpr bool iequals(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (toLower(a[i]) != toLower(b[i])) return false;
    }
    return true;
}

inline std::string lower(std::string_view s) {
    std::string out(s);
    for (char& c : out) c = toLower(c);
    return out;
}

// True when `s` holds `a` or `b`. A plain loop: the library's
// find_first_of searches once per byte for a set, which is far slower here.
constexpr bool containsEither(std::string_view s, char a, char b) {
    for (const char c : s) {
        if (c == a || c == b) return true;
    }
    return false;
}

// Index of the first `a` or `b` in `s`, or npos.
constexpr size_t findEither(std::string_view s, char a, char b) {
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == a || s[i] == b) return i;
    }
    return std::string_view::npos;
}

// Tracks double quotes (a backslash inside them escapes the next byte) and
// angle brackets while a value is read byte by byte.
struct Nesting {
    bool quoted = false;
    int depth = 0;

    // Reads s[i] (and, for an escape, the byte after it, advancing `i`).
    // True when s[i] is an ordinary byte outside quotes and brackets.
    constexpr bool topLevel(std::string_view s, size_t& i) {
        const char c = s[i];
        if (quoted) {
            if (c == '\\') ++i;
            else if (c == '"') quoted = false;
            return false;
        }
        if (c == '"') {
            quoted = true;
        } else if (c == '<') {
            ++depth;
        } else if (c == '>') {
            if (depth > 0) --depth;
        } else {
            return depth == 0;
        }
        return false;
    }
};

// Splits at `sep` outside double quotes and angle brackets; pieces are
// trimmed and empty ones dropped.
std::vector<std::string_view> splitTopLevel(std::string_view s, char sep);

// Calls `piece` for each top-level piece, without collecting them.
template <typename F>
void forEachTopLevel(std::string_view s, char sep, F&& piece) {
    // Most values hold no separator at all: one piece, no quote tracking.
    if (s.find(sep) == std::string_view::npos) {
        if (auto p = trim(s); !p.empty()) piece(p);
        return;
    }
    // Without quotes or "<" nothing can hide a separator: split at each one.
    if (s.find('"') == std::string_view::npos && s.find('<') == std::string_view::npos) {
        size_t start = 0;
        for (;;) {
            const size_t end = s.find(sep, start);
            if (auto p = trim(s.substr(start, end - start)); !p.empty()) piece(p);
            if (end == std::string_view::npos) return;
            start = end + 1;
        }
    }
    Nesting nesting;
    size_t start = 0;
    for (size_t i = 0; i < s.size(); ++i) {
        if (nesting.topLevel(s, i) && s[i] == sep) {
            if (auto p = trim(s.substr(start, i - start)); !p.empty()) piece(p);
            start = i + 1;
        }
    }
    if (start <= s.size()) {
        if (auto p = trim(s.substr(start)); !p.empty()) piece(p);
    }
}

// True when every double quote is closed and every "<" outside quotes is
// matched by a ">": a separator appended after such text stays visible.
bool isBalanced(std::string_view s);

// Index of the first `c` outside double quotes, or npos.
size_t findUnquoted(std::string_view s, char c);

}  // namespace kelsip::text
