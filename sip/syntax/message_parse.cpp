// Parsing and validation of SIP messages received as text.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

#include "sip/syntax/address.h"
#include "sip/syntax/header_names.h"
#include "sip/syntax/message.h"
#include "sip/syntax/syntax_views.h"
#include "sip/syntax/text.h"

namespace kelsip {

namespace {

bool fail(std::string* error, const char* text) {
    if (error != nullptr) *error = text;
    return false;
}

bool isToken(std::string_view s) {
    for (const char c : s) {
        if (!text::isTokenChar(c)) return false;
    }
    return !s.empty();
}

// A URI scheme by its syntax: a letter, then letters, digits, "+", "-", ".".
bool isScheme(std::string_view s) {
    if (s.empty() || !text::isAlpha(s.front())) return false;
    for (const char c : s) {
        if (!text::isAlnum(c) && c != '+' && c != '-' && c != '.') return false;
    }
    return true;
}

// The error for a second header of a name that must appear once, by HeaderId;
// nullptr for the names that may repeat.
constexpr std::array<const char*, kTrackedHeaderCount> kRepeated{
    nullptr,  // Other
    nullptr,  // Via
    "repeated From header",
    "repeated To header",
    "repeated Call-ID header",
    "repeated CSeq header",
    "repeated Max-Forwards header",
    "repeated Content-Length header",
};
static_assert(static_cast<size_t>(HeaderId::ContentLength) + 1 == kTrackedHeaderCount);

}  // namespace

struct SipMessage::MandatoryHeaders {
    const Entry* from = nullptr;
    const Entry* to = nullptr;
    const Entry* callId = nullptr;
    const Entry* cseq = nullptr;
    const Entry* via = nullptr;
    const Entry* maxForwards = nullptr;
};

// Reads a message in one pass over one copy of it: the message keeps the
// copy, and each header pair is a pair of offsets into it.
class MessageParser {
public:
    MessageParser(SipMessage& m, std::string* error) : m_(m), error_(error) {}

    bool parse(std::string_view input) {
        if (input.empty()) return fail(error_, "empty message");
        size_t skip = 0;
        while (skip < input.size() && (input[skip] == '\r' || input[skip] == '\n')) ++skip;
        input.remove_prefix(skip);
        if (input.empty()) return fail(error_, "missing start line");
        if (input.size() >= UINT32_MAX) return fail(error_, "message too large");

        const size_t startEnd = input.find('\n');
        std::string_view start = input.substr(0, startEnd);
        if (!start.empty() && start.back() == '\r') start.remove_suffix(1);
        if (!(start.starts_with("SIP/") ? parseStatusLine(start) : parseRequestLine(start))) return false;
        if (startEnd != std::string_view::npos) {
            m_.text_.assign(input.substr(startEnd + 1));
            m_.entries_.reserve(40);  // a phone's INVITE, list elements counted
            if (!readHeaders()) return false;
        }
        if (!takeBody()) return false;
        SipMessage::MandatoryHeaders found;
        found.from = first(HeaderId::From);
        found.to = first(HeaderId::To);
        found.callId = first(HeaderId::CallId);
        found.cseq = first(HeaderId::CSeq);
        found.via = first(HeaderId::Via);
        found.maxForwards = first(HeaderId::MaxForwards);
        return m_.checkMandatory(found, error_);
    }

private:
    bool parseStatusLine(std::string_view line) {
        const size_t sp1 = line.find(' ');
        if (sp1 == std::string_view::npos) return fail(error_, "bad status line");
        if (line.substr(0, sp1) != "SIP/2.0") return fail(error_, "unsupported SIP version");
        const size_t sp2 = line.find(' ', sp1 + 1);
        const std::string_view code = line.substr(sp1 + 1, sp2 == std::string_view::npos ? std::string_view::npos
                                                                                          : sp2 - sp1 - 1);
        if (code.size() != 3 || !std::all_of(code.begin(), code.end(), text::isDigit)) {
            return fail(error_, "bad status code");
        }
        const int value = (code[0] - '0') * 100 + (code[1] - '0') * 10 + (code[2] - '0');
        if (value < 100 || value > 699) return fail(error_, "bad status code");
        m_.isRequest = false;
        m_.statusCode = value;
        if (sp2 != std::string_view::npos) m_.reason.assign(line.substr(sp2 + 1));
        return true;
    }

    bool parseRequestLine(std::string_view line) {
        const size_t first = line.find(' ');
        const size_t last = line.rfind(' ');
        if (first == std::string_view::npos || first == last) return fail(error_, "bad request line");
        const std::string_view method = line.substr(0, first);
        if (!isToken(method)) return fail(error_, "bad method");
        if (text::isSpace(line.back())) return fail(error_, "extra spaces in request line");
        if (line.substr(last + 1) != "SIP/2.0") return fail(error_, "unsupported SIP version");
        const std::string_view uriText = line.substr(first + 1, last - first - 1);
        if (!uriText.empty() && (text::isSpace(uriText.front()) || text::isSpace(uriText.back()))) {
            return fail(error_, "extra spaces in request line");
        }
        if (text::containsEither(uriText, ' ', '\t')) return fail(error_, "bad Request-URI");
        auto uri = SipUri::parse(uriText);
        if (!uri) {
            const std::string_view scheme = uriText.substr(0, uriText.find(':'));
            const bool understood = text::iequals(scheme, "sip") || text::iequals(scheme, "sips") ||
                                    text::iequals(scheme, "tel");
            if (scheme.size() < uriText.size() && isScheme(scheme) && !understood) {
                return fail(error_, "unsupported Request-URI scheme");
            }
            return fail(error_, "bad Request-URI");
        }
        m_.isRequest = true;
        m_.method.assign(method);
        m_.requestUri = std::move(*uri);
        return true;
    }

    // Every line up to the blank one, or to the end when there is none.
    bool readHeaders() {
        char* const text = m_.text_.data();
        const size_t end = m_.text_.size();
        size_t pos = 0;
        while (pos < end) {
            size_t next = 0;
            const size_t stop = lineEnd(pos, next);
            if (stop == pos) {
                bodyAt_ = next;
                return true;
            }
            // Continuation lines join the header with one space each. The
            // joined text is never longer than the lines it came from, so it
            // is written over them, in place.
            size_t valueEnd = stop;
            while (next < end && (text[next] == ' ' || text[next] == '\t')) {
                size_t after = 0;
                const size_t more = lineEnd(next, after);
                const std::string_view piece = text::trim(std::string_view(text + next, more - next));
                text[valueEnd++] = ' ';
                std::memmove(text + valueEnd, piece.data(), piece.size());
                valueEnd += piece.size();
                next = after;
            }
            if (!readHeader(pos, valueEnd)) return false;
            pos = next;
        }
        bodyAt_ = end;
        return true;
    }

    // The end of the line at `pos` without its CR, and in `next` where the
    // following line starts.
    size_t lineEnd(size_t pos, size_t& next) const {
        const std::string& text = m_.text_;
        size_t lf = text.find('\n', pos);
        if (lf == std::string::npos) lf = text.size();
        next = lf < text.size() ? lf + 1 : lf;
        return lf > pos && text[lf - 1] == '\r' ? lf - 1 : lf;
    }

    bool readHeader(size_t from, size_t to) {
        char* const text = m_.text_.data();
        const std::string_view line(text + from, to - from);
        // Usually the name runs straight up to the colon; white space around
        // it, or a fault, takes the longer way.
        size_t colon = 0;
        while (colon < line.size() && text::isTokenChar(line[colon])) ++colon;
        std::string_view name = line.substr(0, colon);
        if (colon == 0 || colon == line.size() || line[colon] != ':') {
            colon = line.find(':');
            if (colon == std::string_view::npos) return fail(error_, "malformed header line");
            name = text::trim(line.substr(0, colon));
            if (!isToken(name)) return fail(error_, "bad header name");
        }
        const std::string_view value = line.substr(colon + 1);
        const KnownHeader* known = findKnownHeader(name);
        if (known == nullptr) {
            capitaliseHeaderWords(text + (name.data() - text), name.size());
            return add(nullptr, name, text::trim(value));
        }
        if (known->isList) {
            // A line of several elements stays whole until it is read, except
            // for Via: the top one is checked now.
            if (known->id != HeaderId::Via && value.find(',') != std::string_view::npos) {
                add(known, name, text::trim(value));
                m_.entries_.back().several = true;
                return true;
            }
            // The splitter hands out trimmed pieces: no second trim per element.
            text::forEachTopLevel(value, ',', [&](std::string_view element) { add(known, name, element); });
            return true;
        }
        return add(known, name, text::trim(value));
    }

    // `known` is nullptr for a name outside the table.
    bool add(const KnownHeader* known, std::string_view name, std::string_view trimmedValue) {
        const char* const text = m_.text_.data();
        SipMessage::Entry e;
        if (known == nullptr) {
            e.known = kOtherHeader;
            e.nameAt = static_cast<uint32_t>(name.data() - text);
            e.nameSize = static_cast<uint32_t>(name.size());
        } else {
            e.known = known->index;
            size_t& index = firstIndex_[static_cast<size_t>(known->id)];
            if (index != kNone && kRepeated[static_cast<size_t>(known->id)] != nullptr) {
                return fail(error_, kRepeated[static_cast<size_t>(known->id)]);
            }
            if (index == kNone) index = m_.entries_.size();
        }
        e.valueAt = static_cast<uint32_t>(trimmedValue.data() - text);
        e.valueSize = static_cast<uint32_t>(trimmedValue.size());
        m_.entries_.push_back(e);
        return true;
    }

    // Noted by index: the vector may still grow while the message is read.
    const SipMessage::Entry* first(HeaderId id) const {
        const size_t index = firstIndex_[static_cast<size_t>(id)];
        return index == kNone ? nullptr : &m_.entries_[index];
    }

    bool takeBody() {
        const std::string_view rest = std::string_view(m_.text_).substr(bodyAt_);
        const SipMessage::Entry* length = first(HeaderId::ContentLength);
        size_t size = rest.size();
        if (length != nullptr) {
            const auto n = parseHeaderInteger(m_.valueOf(*length));
            if (!n || *n < 0) return fail(error_, "bad Content-Length");
            if (static_cast<uint64_t>(*n) > rest.size()) return fail(error_, "truncated body");
            size = static_cast<size_t>(*n);
        }
        m_.body.assign(rest.substr(0, size));
        // The body's bytes stay as room for headers added later, unless they
        // are many.
        m_.text_.resize(bodyAt_);
        if (rest.size() > 1024) m_.text_.shrink_to_fit();
        return true;
    }

    SipMessage& m_;
    std::string* error_;
    size_t bodyAt_ = 0;
    static constexpr size_t kNone = static_cast<size_t>(-1);
    std::array<size_t, kTrackedHeaderCount> firstIndex_ = [] {
        std::array<size_t, kTrackedHeaderCount> none{};
        none.fill(kNone);
        return none;
    }();
};

std::optional<SipMessage> SipMessage::parse(std::string_view input, std::string* error) {
    std::optional<SipMessage> m(std::in_place);
    MessageParser parser(*m, error);
    if (!parser.parse(input)) m.reset();
    return m;
}

bool SipMessage::validate(std::string* error) const {
    // One pass finds the first of each header the check needs.
    MandatoryHeaders found;
    for (const Entry& e : entries_) {
        if (e.known == kOtherHeader) continue;
        const Entry** slot = nullptr;
        switch (knownHeaderAt(e.known).id) {
            case HeaderId::From: slot = &found.from; break;
            case HeaderId::To: slot = &found.to; break;
            case HeaderId::CallId: slot = &found.callId; break;
            case HeaderId::CSeq: slot = &found.cseq; break;
            case HeaderId::Via: slot = &found.via; break;
            case HeaderId::MaxForwards: slot = &found.maxForwards; break;
            default: continue;
        }
        if (*slot == nullptr) *slot = &e;
    }
    return checkMandatory(found, error);
}

bool SipMessage::checkMandatory(const MandatoryHeaders& found, std::string* error) const {
    // Checked on views: a received message is validated without building
    // the address objects its reader may never ask for.
    auto isAddress = [this](const Entry* e) {
        NameAddrView na;
        return e != nullptr && splitNameAddr(valueOf(*e), na) && !na.wildcard;
    };
    if (!isAddress(found.from)) return fail(error, "missing/invalid From");
    if (!isAddress(found.to)) return fail(error, "missing/invalid To");
    if (found.callId == nullptr || found.callId->valueSize == 0) return fail(error, "missing Call-ID");
    uint32_t number = 0;
    std::string_view seqMethod;
    if (found.cseq == nullptr || !splitCSeq(valueOf(*found.cseq), number, seqMethod)) {
        return fail(error, "missing/invalid CSeq");
    }
    ViaView topVia;
    if (found.via == nullptr || !splitVia(valueOf(*found.via), topVia)) return fail(error, "missing/invalid Via");
    if (isRequest) {
        if (seqMethod != method) return fail(error, "CSeq method does not match request method");
        if (found.maxForwards != nullptr && !parseHeaderInteger(valueOf(*found.maxForwards))) {
            return fail(error, "invalid Max-Forwards");
        }
    }
    return true;
}

}  // namespace kelsip
