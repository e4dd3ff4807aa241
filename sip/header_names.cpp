// Canonical spelling of header names and the set of list-valued headers.
#include <array>
#include <string>

#include "sip/header_names.h"
#include "sip/message.h"
#include "sip/text.h"

namespace kelsip {

namespace {

struct Spelling {
    std::string_view lower;
    std::string_view canonical;
};

constexpr std::array<Spelling, 19> kCompactForms{{
    {"i", "Call-ID"},         {"m", "Contact"},        {"e", "Content-Encoding"}, {"l", "Content-Length"},
    {"c", "Content-Type"},    {"f", "From"},           {"s", "Subject"},          {"k", "Supported"},
    {"t", "To"},              {"v", "Via"},            {"o", "Event"},            {"r", "Refer-To"},
    {"u", "Allow-Events"},    {"b", "Referred-By"},    {"x", "Session-Expires"},  {"a", "Accept-Contact"},
    {"j", "Reject-Contact"},  {"d", "Request-Disposition"}, {"y", "Identity"},
}};

constexpr std::array<Spelling, 6> kIrregular{{
    {"call-id", "Call-ID"},
    {"cseq", "CSeq"},
    {"www-authenticate", "WWW-Authenticate"},
    {"mime-version", "MIME-Version"},
    {"rack", "RAck"},
    {"rseq", "RSeq"},
}};

}  // namespace

namespace {

std::string_view compactSpelling(char c) {
    for (const Spelling& s : kCompactForms) {
        if (s.lower.front() == c) return s.canonical;
    }
    return {};
}

std::string_view irregularSpelling(std::string_view name) {
    // Every irregular name is 4, 7, 12 or 16 bytes long; skip the rest cheaply.
    if (name.size() != 4 && name.size() != 7 && name.size() != 12 && name.size() != 16) return {};
    for (const Spelling& s : kIrregular) {
        if (text::iequals(s.lower, name)) return s.canonical;
    }
    return {};
}

}  // namespace

std::string canonicalHeaderName(std::string_view name) {
    name = text::trim(name);
    const std::string_view table =
        name.size() == 1 ? compactSpelling(text::toLower(name.front())) : irregularSpelling(name);
    if (!table.empty()) return std::string(table);
    // Most names arrive already in canonical spelling: copy them as they are.
    bool wordStart = true;
    size_t i = 0;
    for (; i < name.size(); ++i) {
        const char c = name[i];
        if (c != (wordStart ? text::toUpper(c) : text::toLower(c))) break;
        wordStart = (c == '-');
    }
    std::string out(name);
    for (; i < out.size(); ++i) {
        out[i] = wordStart ? text::toUpper(out[i]) : text::toLower(out[i]);
        wordStart = (out[i] == '-');
    }
    return out;
}

// The 22 list-valued headers, picked by length first because this runs for
// every received header. "Reply-To" is in the set on purpose: it carries
// name-addrs.
bool isCommaListHeader(std::string_view n) {
    switch (n.size()) {
        case 3: return n == "Via";
        case 4: return n == "Path";
        case 5: return n == "Allow" || n == "Route";
        case 6: return n == "Accept";
        case 7: return n == "Contact" || n == "Require";
        case 8: return n == "Reply-To";
        case 9: return n == "Supported" || n == "Call-Info";
        case 10: return n == "Alert-Info" || n == "Error-Info";
        case 11: return n == "Unsupported" || n == "In-Reply-To";
        case 12: return n == "Record-Route" || n == "Allow-Events";
        case 13: return n == "Proxy-Require" || n == "Service-Route";
        case 15: return n == "Accept-Encoding" || n == "Accept-Language";
        case 16: return n == "Content-Encoding" || n == "Content-Language";
        default: return false;
    }
}

}  // namespace kelsip
