// The SIP message model: header access, typed accessors, serialisation and
// the building of responses.
#include "sip/syntax/message.h"

#include <limits>
#include <stdexcept>

#include "sip/syntax/address.h"
#include "sip/syntax/header_names.h"
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

SipMessage::NameKey SipMessage::keyOf(std::string_view name) {
    name = text::trim(name);
    const uint8_t known = knownHeaderIndex(name);
    if (known != kOtherHeader) return NameKey{known, {}};
    return NameKey{known, capitaliseHeaderWords(name)};
}

bool SipMessage::matches(const Entry& e, const NameKey& key) const {
    return e.known == key.known && (e.known != kOtherHeader || nameOf(e) == key.other);
}

std::string_view SipMessage::nameOf(const Entry& e) const {
    if (e.known != kOtherHeader) return knownHeaderAt(e.known).canonical;
    return {text_.data() + e.nameAt, e.nameSize};
}

template <typename F>
void SipMessage::forEachValue(const Entry& e, F&& f) const {
    if (e.several) {
        text::forEachTopLevel(valueOf(e), ',', f);
    } else {
        f(valueOf(e));
    }
}

void SipMessage::splitLists(const NameKey& key) {
    std::vector<Entry> split;
    split.reserve(entries_.size());
    for (const Entry& e : entries_) {
        if (!e.several || !matches(e, key)) {
            split.push_back(e);
            continue;
        }
        forEachValue(e, [&](std::string_view element) {
            Entry one = e;
            one.several = false;
            one.valueAt = static_cast<uint32_t>(element.data() - text_.data());
            one.valueSize = static_cast<uint32_t>(element.size());
            split.push_back(one);
        });
    }
    entries_ = std::move(split);
}

const SipMessage::Entry* SipMessage::find(const NameKey& key) const {
    for (const Entry& e : entries_) {
        if (matches(e, key)) return &e;
    }
    return nullptr;
}

uint32_t SipMessage::store(std::string_view bytes) {
    // Offsets are 32 bits wide; the parser refuses larger messages.
    if (text_.size() + bytes.size() > UINT32_MAX) throw std::length_error("SIP message text too large");
    const auto at = static_cast<uint32_t>(text_.size());
    text_ += bytes;
    return at;
}

void SipMessage::append(const NameKey& key, std::string_view trimmedValue) {
    Entry e;
    e.known = key.known;
    if (key.known == kOtherHeader) {
        e.nameAt = store(key.other);
        e.nameSize = static_cast<uint32_t>(key.other.size());
    }
    e.valueAt = store(trimmedValue);
    e.valueSize = static_cast<uint32_t>(trimmedValue.size());
    entries_.push_back(e);
}

void SipMessage::append(const SipMessage& from, const Entry& e) {
    NameKey key{e.known, {}};
    if (e.known == kOtherHeader) key.other = from.nameOf(e);
    append(key, from.valueOf(e));
    entries_.back().several = e.several;
}

void SipMessage::dropUnusedText() {
    // A message edited again and again would otherwise keep every value it
    // ever had.
    if (unusedText_ < 4096 || unusedText_ < text_.size() / 2) return;
    SipMessage fresh;
    fresh.entries_.reserve(entries_.size());
    for (const Entry& e : entries_) fresh.append(*this, e);
    text_ = std::move(fresh.text_);
    entries_ = std::move(fresh.entries_);
    unusedText_ = 0;
}

std::vector<HeaderField> SipMessage::headers() const {
    std::vector<HeaderField> all;
    all.reserve(entries_.size());
    for (const Entry& e : entries_) {
        forEachValue(e, [&](std::string_view v) { all.push_back(HeaderField{std::string(nameOf(e)), std::string(v)}); });
    }
    return all;
}

std::vector<std::string> SipMessage::headers(std::string_view name) const {
    const NameKey key = keyOf(name);
    std::vector<std::string> values;
    for (const Entry& e : entries_) {
        if (matches(e, key)) forEachValue(e, [&](std::string_view v) { values.emplace_back(v); });
    }
    return values;
}

std::optional<std::string_view> SipMessage::firstValue(const NameKey& key) const {
    std::optional<std::string_view> first;
    for (const Entry& e : entries_) {
        if (!matches(e, key)) continue;
        forEachValue(e, [&](std::string_view v) {
            if (!first) first = v;
        });
        if (first) break;
    }
    return first;
}

std::optional<std::string> SipMessage::header(std::string_view name) const {
    if (const auto v = firstValue(keyOf(name))) return std::string(*v);
    return std::nullopt;
}

bool SipMessage::hasHeader(std::string_view name) const { return firstValue(keyOf(name)).has_value(); }

void SipMessage::addHeader(std::string_view name, std::string_view value) { append(keyOf(name), text::trim(value)); }

void SipMessage::removeHeader(std::string_view name) {
    const NameKey key = keyOf(name);
    std::erase_if(entries_, [&](const Entry& e) {
        if (!matches(e, key)) return false;
        unusedText_ += e.valueSize + e.nameSize;
        return true;
    });
    dropUnusedText();
}

void SipMessage::setHeader(std::string_view name, std::string_view value) {
    removeHeader(name);
    addHeader(name, value);
}

bool SipMessage::replaceHeader(std::string_view name, size_t index, std::string_view value) {
    const NameKey key = keyOf(name);
    splitLists(key);
    for (Entry& e : entries_) {
        if (!matches(e, key)) continue;
        if (index-- == 0) {
            const std::string_view trimmed = text::trim(value);
            unusedText_ += e.valueSize;
            e.valueAt = store(trimmed);
            e.valueSize = static_cast<uint32_t>(trimmed.size());
            dropUnusedText();
            return true;
        }
    }
    return false;
}

std::string SipMessage::callId() const {
    const Entry* e = find("Call-ID");
    return e != nullptr ? std::string(valueOf(*e)) : std::string();
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
    const Entry* e = find("CSeq");
    uint32_t number = 0;
    std::string_view name;
    if (e == nullptr || !splitCSeq(valueOf(*e), number, name)) return std::nullopt;
    return CSeq{number, std::string(name)};
}

namespace {

std::string tagOf(std::string_view value) {
    auto na = NameAddr::parse(value);
    if (!na) return {};
    return na->param("tag").value_or(std::string());
}

}  // namespace

std::string SipMessage::fromTag() const {
    const Entry* e = find("From");
    return e != nullptr ? tagOf(valueOf(*e)) : std::string();
}

std::string SipMessage::toTag() const {
    const Entry* e = find("To");
    return e != nullptr ? tagOf(valueOf(*e)) : std::string();
}

std::optional<int64_t> SipMessage::maxForwards() const {
    const Entry* e = find("Max-Forwards");
    return e != nullptr ? parseHeaderInteger(valueOf(*e)) : std::nullopt;
}

std::optional<int64_t> SipMessage::expires() const {
    const Entry* e = find("Expires");
    return e != nullptr ? parseHeaderInteger(valueOf(*e)) : std::nullopt;
}

std::optional<std::string> SipMessage::contact() const {
    return header("Contact");
}

std::optional<std::string> SipMessage::contentType() const {
    if (const Entry* e = find("Content-Type")) return std::string(valueOf(*e));
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
    static const uint8_t contentLength = knownHeaderIndex("Content-Length");
    for (const Entry& e : entries_) {
        // The length always comes from the body, once, last.
        if (e.known == contentLength) continue;
        out += nameOf(e);
        out += ": ";
        out += valueOf(e);
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
    r.entries_.reserve(request.entries_.size());
    const SipMessage::NameKey via = SipMessage::keyOf("Via");
    for (const SipMessage::Entry& e : request.entries_) {
        if (request.matches(e, via)) r.append(request, e);
    }
    if (const SipMessage::Entry* from = request.find("From")) r.append(request, *from);
    if (const SipMessage::Entry* to = request.find("To")) {
        std::string value(request.valueOf(*to));
        if (code != 100 && !toTag.empty() && tagOf(value).empty()) {
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
        r.append(SipMessage::keyOf("To"), value);
    }
    if (const SipMessage::Entry* id = request.find("Call-ID")) r.append(request, *id);
    if (const SipMessage::Entry* cseq = request.find("CSeq")) r.append(request, *cseq);
    if (code >= 101 && code <= 299) {
        const SipMessage::NameKey recordRoute = SipMessage::keyOf("Record-Route");
        for (const SipMessage::Entry& e : request.entries_) {
            if (request.matches(e, recordRoute)) r.append(request, e);
        }
    }
    if (const SipMessage::Entry* ts = request.find("Timestamp")) r.append(request, *ts);
    return r;
}

}  // namespace kelsip
