// Canonical spelling of header names and the set of list-valued headers.
#include <array>
#include <string>

#include "sip/syntax/header_names.h"
#include "sip/syntax/message.h"
#include "sip/syntax/text.h"

namespace kelsip {

namespace {

constexpr bool kList = true;

// Every list-valued header, the irregular spellings and the names a call
// usually carries, ordered by length: a lookup only reads the names of its
// own length. "Reply-To" is a list on purpose: it carries name-addrs.
constexpr std::array kKnown = std::to_array<KnownHeader>({
    {"To", false, HeaderId::To},
    {"Via", kList, HeaderId::Via},
    {"From", false, HeaderId::From},
    {"CSeq", false, HeaderId::CSeq},
    {"Path", kList},
    {"Date"},
    {"RAck"},
    {"RSeq"},
    {"Allow", kList},
    {"Route", kList},
    {"Event"},
    {"Accept", kList},
    {"Server"},
    {"Reason"},
    {"Min-SE"},
    {"Contact", kList},
    {"Call-ID", false, HeaderId::CallId},
    {"Require", kList},
    {"Expires"},
    {"Subject"},
    {"Warning"},
    {"Privacy"},
    {"Reply-To", kList},
    {"Refer-To"},
    {"Priority"},
    {"SIP-ETag"},
    {"Identity"},
    {"Supported", kList},
    {"Call-Info", kList},
    {"Timestamp"},
    {"User-Agent"},
    {"Alert-Info", kList},
    {"Error-Info", kList},
    {"Unsupported", kList},
    {"In-Reply-To", kList},
    {"Min-Expires"},
    {"Referred-By"},
    {"Retry-After"},
    {"Content-Type"},
    {"Max-Forwards", false, HeaderId::MaxForwards},
    {"Record-Route", kList},
    {"Allow-Events", kList},
    {"MIME-Version"},
    {"Organization"},
    {"SIP-If-Match"},
    {"Proxy-Require", kList},
    {"Service-Route", kList},
    {"Authorization"},
    {"Content-Length", false, HeaderId::ContentLength},
    {"Accept-Contact"},
    {"Reject-Contact"},
    {"Accept-Encoding", kList},
    {"Accept-Language", kList},
    {"Session-Expires"},
    {"Content-Encoding", kList},
    {"Content-Language", kList},
    {"WWW-Authenticate"},
    {"Proxy-Authenticate"},
    {"Subscription-State"},
    {"Proxy-Authorization"},
    {"Request-Disposition"},
    {"Content-Disposition"},
    {"Authentication-Info"},
    {"P-Asserted-Identity"},
});

// Spellings that the capitalising rule would not produce.
constexpr std::array<std::string_view, 9> kIrregular{"Call-ID", "CSeq",   "WWW-Authenticate", "MIME-Version", "RAck",
                                                     "RSeq",    "Min-SE", "SIP-ETag",         "SIP-If-Match"};

struct Compact {
    char letter;
    std::string_view canonical;
};

constexpr std::array<Compact, 19> kCompactForms{{
    {'i', "Call-ID"},        {'m', "Contact"},         {'e', "Content-Encoding"}, {'l', "Content-Length"},
    {'c', "Content-Type"},   {'f', "From"},            {'s', "Subject"},          {'k', "Supported"},
    {'t', "To"},             {'v', "Via"},             {'o', "Event"},            {'r', "Refer-To"},
    {'u', "Allow-Events"},   {'b', "Referred-By"},     {'x', "Session-Expires"},  {'a', "Accept-Contact"},
    {'j', "Reject-Contact"}, {'d', "Request-Disposition"}, {'y', "Identity"},
}};

constexpr size_t kLongest = 19;

constexpr bool isCapitalised(std::string_view name) {
    bool wordStart = true;
    for (const char c : name) {
        if (c != (wordStart ? text::toUpper(c) : text::toLower(c))) return false;
        wordStart = (c == '-');
    }
    return true;
}

constexpr bool isIrregular(std::string_view name) {
    for (const std::string_view s : kIrregular) {
        if (s == name) return true;
    }
    return false;
}

constexpr size_t indexOf(std::string_view canonical) {
    for (size_t i = 0; i < kKnown.size(); ++i) {
        if (kKnown[i].canonical == canonical) return i;
    }
    return kKnown.size();
}

// A lookup answers with the table's spelling; that must be what the naming
// rules give for the name, and each length's names must stand together.
constexpr bool tableIsConsistent() {
    for (size_t i = 0; i < kKnown.size(); ++i) {
        const std::string_view name = kKnown[i].canonical;
        if (name.size() < 2 || name.size() > kLongest) return false;
        if (i > 0 && name.size() < kKnown[i - 1].canonical.size()) return false;
        if (!isIrregular(name) && !isCapitalised(name)) return false;
        if (indexOf(name) != i) return false;
    }
    for (const std::string_view s : kIrregular) {
        if (indexOf(s) == kKnown.size()) return false;
    }
    for (const Compact& c : kCompactForms) {
        if (indexOf(c.canonical) == kKnown.size()) return false;
    }
    return true;
}
static_assert(tableIsConsistent());

// kFirstOfLength[n] up to kFirstOfLength[n + 1] are the entries n bytes long.
constexpr std::array<uint8_t, kLongest + 2> kFirstOfLength = [] {
    std::array<uint8_t, kLongest + 2> first{};
    for (size_t n = 0; n <= kLongest + 1; ++n) {
        size_t i = 0;
        while (i < kKnown.size() && kKnown[i].canonical.size() < n) ++i;
        first[n] = static_cast<uint8_t>(i);
    }
    return first;
}();

// Compact letter 'a' + n -> its entry, or kKnown.size() for letters without one.
constexpr std::array<uint8_t, 26> kCompactEntry = [] {
    std::array<uint8_t, 26> entry{};
    entry.fill(static_cast<uint8_t>(kKnown.size()));
    for (const Compact& c : kCompactForms) {
        entry[static_cast<size_t>(c.letter - 'a')] = static_cast<uint8_t>(indexOf(c.canonical));
    }
    return entry;
}();

}  // namespace

const KnownHeader* findKnownHeader(std::string_view name) {
    if (name.empty()) return nullptr;
    if (name.size() == 1) {
        const char c = text::toLower(name.front());
        if (c < 'a' || c > 'z') return nullptr;
        const size_t i = kCompactEntry[static_cast<size_t>(c - 'a')];
        return i < kKnown.size() ? &kKnown[i] : nullptr;
    }
    if (name.size() > kLongest) return nullptr;
    const char first = text::toLower(name.front());
    for (size_t i = kFirstOfLength[name.size()]; i < kFirstOfLength[name.size() + 1]; ++i) {
        const std::string_view known = kKnown[i].canonical;
        if (text::toLower(known.front()) != first) continue;
        // Most names arrive in their canonical spelling: compare bytes first.
        size_t k = 1;
        while (k < name.size() && (name[k] == known[k] || text::toLower(name[k]) == text::toLower(known[k]))) ++k;
        if (k == name.size()) return &kKnown[i];
    }
    return nullptr;
}

std::string capitaliseHeaderWords(std::string_view name) {
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

std::string canonicalHeaderName(std::string_view name) {
    name = text::trim(name);
    if (const KnownHeader* known = findKnownHeader(name)) return std::string(known->canonical);
    return capitaliseHeaderWords(name);
}

}  // namespace kelsip
