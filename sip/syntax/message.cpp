// The SIP message model: header access, typed accessors, serialisation and
// the building of responses.
#include "sip/syntax/message.h"

#include <limits>

#include "sip/syntax/address.h"
#include "sip/syntax/text.h"

namespace kelsip {

std::optional<int64_t> parseHeaderInteger(std::string_view s) {
    s = text::trim(s);
    bool negative = false;
    if (!s.empty() && s.front() == '-') {
        negative = true;
        s.remove_prefix(1);
    }
    if (s.empty()) return std::nullopt;
    // Accumulate towards the negative side so that INT64_MIN stays readable.
    int64_t value = 0;
    constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
    for (const char c : s) {
        if (!text::isDigit(c)) return std::nullopt;
        const int digit = c - '0';
        if (value < (kMin + digit) / 10) return std::nullopt;
        value = value * 10 - digit;
    }
    if (negative) return value;
    if (value == kMin) return std::nullopt;
    return -value;
}

namespace {

// Converts into a pair right in the vector's storage when emplaced, so the
// strings are built once where they stay: neither assigned into empty ones
// nor moved from a temporary (measurably faster for a parse of many pairs).
template <typename Name>
struct PairBuilder {
    Name& name;  // moved from when it is a string
    std::string_view value;

    operator HeaderField() const { return HeaderField{std::string(std::move(name)), std::string(value)}; }
};

}  // namespace

void SipMessage::appendCanonical(std::string name, std::string_view value) {
    headers_.emplace_back(PairBuilder<std::string>{name, text::trim(value)});
}

void SipMessage::appendTrimmed(std::string_view name, std::string_view value) {
    headers_.emplace_back(PairBuilder<std::string_view>{name, value});
}

// Stored names are canonical, so a canonical name is found byte for byte.
const HeaderField* SipMessage::find(std::string_view canonical) const {
    for (const HeaderField& h : headers_) {
        if (h.name == canonical) return &h;
    }
    return nullptr;
}

std::vector<std::string> SipMessage::headers(std::string_view name) const {
    const std::string canonical = canonicalHeaderName(name);
    std::vector<std::string> values;
    for (const HeaderField& h : headers_) {
        if (h.name == canonical) values.push_back(h.value);
    }
    return values;
}

std::optional<std::string> SipMessage::header(std::string_view name) const {
    if (const HeaderField* h = find(canonicalHeaderName(name))) return h->value;
    return std::nullopt;
}

bool SipMessage::hasHeader(std::string_view name) const { return find(canonicalHeaderName(name)) != nullptr; }

void SipMessage::addHeader(std::string_view name, std::string_view value) {
    appendCanonical(canonicalHeaderName(name), value);
}

void SipMessage::removeHeader(std::string_view name) {
    const std::string canonical = canonicalHeaderName(name);
    std::erase_if(headers_, [&](const HeaderField& h) { return h.name == canonical; });
}

void SipMessage::setHeader(std::string_view name, std::string_view value) {
    removeHeader(name);
    addHeader(name, value);
}

bool SipMessage::replaceHeader(std::string_view name, size_t index, std::string_view value) {
    const std::string canonical = canonicalHeaderName(name);
    for (HeaderField& h : headers_) {
        if (h.name != canonical) continue;
        if (index-- == 0) {
            h.value.assign(text::trim(value));
            return true;
        }
    }
    return false;
}

std::string SipMessage::callId() const {
    const HeaderField* h = find("Call-ID");
    return h != nullptr ? h->value : std::string();
}

bool SipMessage::splitCSeq(std::string_view value, uint32_t& number, std::string_view& seqMethod) {
    const std::string_view v = text::trim(value);
    const size_t gap = text::findEither(v, ' ', '\t');
    if (gap == std::string_view::npos) return false;
    const auto n = parseHeaderInteger(v.substr(0, gap));
    const std::string_view name = text::trim(v.substr(gap));
    if (!n || *n < 0 || *n >= 2147483648LL || name.empty()) return false;
    for (const char c : name) {
        if (!text::isTokenChar(c)) return false;
    }
    number = static_cast<uint32_t>(*n);
    seqMethod = name;
    return true;
}

std::optional<CSeq> SipMessage::cseq() const {
    const HeaderField* h = find("CSeq");
    uint32_t number = 0;
    std::string_view name;
    if (h == nullptr || !splitCSeq(h->value, number, name)) return std::nullopt;
    return CSeq{number, std::string(name)};
}

namespace {

std::string tagOf(const HeaderField* h) {
    if (h == nullptr) return {};
    auto na = NameAddr::parse(h->value);
    if (!na) return {};
    return na->param("tag").value_or(std::string());
}

}  // namespace

std::string SipMessage::fromTag() const { return tagOf(find("From")); }
std::string SipMessage::toTag() const { return tagOf(find("To")); }

std::optional<int64_t> SipMessage::maxForwards() const {
    const HeaderField* h = find("Max-Forwards");
    return h != nullptr ? parseHeaderInteger(h->value) : std::nullopt;
}

std::optional<int64_t> SipMessage::expires() const {
    const HeaderField* h = find("Expires");
    return h != nullptr ? parseHeaderInteger(h->value) : std::nullopt;
}

std::optional<std::string> SipMessage::contact() const {
    if (const HeaderField* h = find("Contact")) return h->value;
    return std::nullopt;
}

std::optional<std::string> SipMessage::contentType() const {
    if (const HeaderField* h = find("Content-Type")) return h->value;
    return std::nullopt;
}

std::string SipMessage::toString() const {
    std::string out;
    out.reserve(body.size() + 512);
    if (isRequest) {
        out += method;
        out += ' ';
        requestUri.appendTo(out);
        out += " SIP/2.0\r\n";
    } else {
        out += "SIP/2.0 ";
        out += std::to_string(statusCode);
        out += ' ';
        out += reason;
        out += "\r\n";
    }
    for (const HeaderField& h : headers_) {
        // The length always comes from the body, once, last.
        if (h.name == "Content-Length") continue;
        out += h.name;
        out += ": ";
        out += h.value;
        out += "\r\n";
    }
    out += "Content-Length: ";
    out += std::to_string(body.size());
    out += "\r\n\r\n";
    out += body;
    return out;
}

SipMessage makeResponse(const SipMessage& request, int code, std::string_view reason, std::string_view toTag) {
    SipMessage r;
    r.isRequest = false;
    r.statusCode = code;
    r.reason = reason.empty() ? std::string(reasonPhrase(code)) : std::string(reason);
    for (const HeaderField& h : request.headers()) {
        if (h.name == "Via") r.appendCanonical(h.name, h.value);
    }
    if (const HeaderField* from = request.find("From")) r.appendCanonical(from->name, from->value);
    if (const HeaderField* to = request.find("To")) {
        std::string value = to->value;
        if (code != 100 && !toTag.empty() && tagOf(to).empty()) {
            auto na = NameAddr::parse(value);
            if (na && na->param("tag")) {
                // A ";tag" without a value would shadow the one we add: replace it.
                na->setParam("tag", toTag);
                value = na->toString();
            } else {
                value += ";tag=";
                value += toTag;
            }
        }
        r.appendCanonical(to->name, value);
    }
    if (const HeaderField* id = request.find("Call-ID")) r.appendCanonical(id->name, id->value);
    if (const HeaderField* cseq = request.find("CSeq")) r.appendCanonical(cseq->name, cseq->value);
    if (code >= 101 && code <= 299) {
        for (const HeaderField& h : request.headers()) {
            if (h.name == "Record-Route") r.appendCanonical(h.name, h.value);
        }
    }
    if (const HeaderField* ts = request.find("Timestamp")) r.appendCanonical(ts->name, ts->value);
    return r;
}

}  // namespace kelsip
