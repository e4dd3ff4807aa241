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
// usually carries. "Reply-To" is a list on purpose: it carries name-addrs.
constexpr std::array kListed = std::to_array<KnownHeader>({
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

constexpr std::array kKnown = [] {
    auto table = kListed;
    for (size_t i = 0; i < table.size(); ++i) table[i].index = static_cast<uint8_t>(i);
    return table;
}();

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
// rules give for the name, and each name must be listed once.
constexpr bool tableIsConsistent() {
    for (size_t i = 0; i < kKnown.size(); ++i) {
        const std::string_view name = kKnown[i].canonical;
        if (name.size() < 2 || name.size() > kLongest) return false;
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
static_assert(kKnown.size() < kOtherHeader);

// Names longer than one byte are found by their length and first letter,
// in any letter case: at most two names share both, so a lookup reads one
// cell and compares at most two names.
constexpr size_t kLetters = 26;

constexpr size_t cellOf(std::string_view name) {
    return (name.size() - 2) * kLetters + static_cast<size_t>(text::toLower(name.front()) - 'a');
}

using Cell = std::array<uint8_t, 2>;

constexpr std::array<Cell, (kLongest - 1) * kLetters> kCells = [] {
    std::array<Cell, (kLongest - 1) * kLetters> cells{};
    for (Cell& c : cells) c.fill(kOtherHeader);
    for (const KnownHeader& k : kKnown) {
        Cell& c = cells[cellOf(k.canonical)];
        c[c[0] == kOtherHeader ? 0 : 1] = k.index;
    }
    return cells;
}();

constexpr bool cellsHoldEveryName() {
    for (const KnownHeader& k : kKnown) {
        const Cell& c = kCells[cellOf(k.canonical)];
        if (c[0] != k.index && c[1] != k.index) return false;
    }
    return true;
}
static_assert(cellsHoldEveryName());

// Compares a name with a canonical spelling of the same length. Most names
// arrive in that spelling: bytes compare equal before any case folding.
bool sameName(std::string_view name, std::string_view known) {
    for (size_t k = 0; k < name.size(); ++k) {
        if (name[k] != known[k] && text::toLower(name[k]) != text::toLower(known[k])) return false;
    }
    return true;
}

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
    if (name.size() > kLongest || !text::isAlpha(name.front())) return nullptr;
    for (const uint8_t i : kCells[cellOf(name)]) {
        if (i == kOtherHeader) return nullptr;
        if (sameName(name, kKnown[i].canonical)) return &kKnown[i];
    }
    return nullptr;
}

uint8_t knownHeaderIndex(std::string_view name) {
    const KnownHeader* known = findKnownHeader(name);
    return known != nullptr ? known->index : kOtherHeader;
}

const KnownHeader& knownHeaderAt(uint8_t index) { return kKnown.at(index); }

void capitaliseHeaderWords(char* name, size_t size) {
    bool wordStart = true;
    for (size_t i = 0; i < size; ++i) {
        name[i] = wordStart ? text::toUpper(name[i]) : text::toLower(name[i]);
        wordStart = (name[i] == '-');
    }
}

std::string capitaliseHeaderWords(std::string_view name) {
    std::string out(name);
    capitaliseHeaderWords(out.data(), out.size());
    return out;
}

std::string canonicalHeaderName(std::string_view name) {
    name = text::trim(name);
    if (const KnownHeader* known = findKnownHeader(name)) return std::string(known->canonical);
    return capitaliseHeaderWords(name);
}

}  // namespace kelsip
