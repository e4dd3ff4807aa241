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

// "reply-to" is in the list on purpose: a Reply-To carries name-addrs.
constexpr std::array<std::string_view, 22> kCommaLists{
    "via",           "contact",          "route",          "record-route", "allow",      "supported",
    "require",       "proxy-require",    "unsupported",    "accept",       "accept-encoding",
    "accept-language", "allow-events",   "content-encoding", "in-reply-to", "path",      "service-route",
    "content-language", "alert-info",    "call-info",      "error-info",   "reply-to",
};

}  // namespace

std::string canonicalHeaderName(std::string_view name) {
    name = text::trim(name);
    if (name.size() == 1) {
        const char c = text::toLower(name.front());
        for (const Spelling& s : kCompactForms) {
            if (s.lower.front() == c) return std::string(s.canonical);
        }
    } else {
        for (const Spelling& s : kIrregular) {
            if (text::iequals(s.lower, name)) return std::string(s.canonical);
        }
    }
    std::string out(name);
    bool wordStart = true;
    for (char& c : out) {
        c = wordStart ? text::toUpper(c) : text::toLower(c);
        wordStart = (c == '-');
    }
    return out;
}

bool isCommaListHeader(std::string_view canonicalName) {
    for (std::string_view n : kCommaLists) {
        if (text::iequals(n, canonicalName)) return true;
    }
    return false;
}

}  // namespace kelsip
