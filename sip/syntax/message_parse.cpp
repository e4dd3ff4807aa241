// Parsing and validation of SIP messages received as text.
#include <algorithm>
#include <array>

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

// Cuts the next line off `rest`: up to LF, with one trailing CR dropped.
// `ended` tells whether the line was closed by an LF.
std::string_view nextLine(std::string_view& rest, bool& ended) {
    const size_t lf = rest.find('\n');
    std::string_view line = rest.substr(0, lf);
    ended = lf != std::string_view::npos;
    rest = ended ? rest.substr(lf + 1) : std::string_view();
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    return line;
}

}  // namespace

struct SipMessage::MandatoryHeaders {
    const HeaderField* from = nullptr;
    const HeaderField* to = nullptr;
    const HeaderField* callId = nullptr;
    const HeaderField* cseq = nullptr;
    const HeaderField* via = nullptr;
    const HeaderField* maxForwards = nullptr;
};

// Works on views of the input; only names, values and the body are copied.
class MessageParser {
public:
    MessageParser(SipMessage& m, std::string* error) : m_(m), error_(error) {}

    bool parse(std::string_view input) {
        if (input.empty()) return fail(error_, "empty message");
        size_t skip = 0;
        while (skip < input.size() && (input[skip] == '\r' || input[skip] == '\n')) ++skip;
        std::string_view rest = input.substr(skip);
        if (rest.empty()) return fail(error_, "missing start line");
        m_.headers_.reserve(32);  // a typical INVITE, list elements counted

        bool ended = false;
        const std::string_view start = nextLine(rest, ended);
        if (!(start.starts_with("SIP/") ? parseStatusLine(start) : parseRequestLine(start))) return false;

        // Without a blank line there is no body.
        std::string_view bodyText;
        while (ended) {
            const std::string_view line = nextLine(rest, ended);
            if (line.empty()) {
                bodyText = rest;
                break;
            }
            if ((line.front() == ' ' || line.front() == '\t') && havePending_) {
                fold(line);
            } else {
                if (havePending_ && !flush()) return false;
                pending_ = line;
                folded_.clear();
                isFolded_ = false;
                havePending_ = true;
            }
        }
        if (havePending_ && !flush()) return false;
        if (!takeBody(bodyText)) return false;
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
        if (line.substr(last + 1) != "SIP/2.0") return fail(error_, "unsupported SIP version");
        auto uri = SipUri::parse(line.substr(first + 1, last - first - 1));
        if (!uri) return fail(error_, "bad Request-URI");
        m_.isRequest = true;
        m_.method.assign(method);
        m_.requestUri = std::move(*uri);
        return true;
    }

    void fold(std::string_view continuation) {
        if (!isFolded_) {
            folded_.assign(pending_);
            isFolded_ = true;
        }
        folded_ += ' ';
        folded_ += text::trim(continuation);
    }

    bool flush() {
        havePending_ = false;
        const std::string_view line = isFolded_ ? std::string_view(folded_) : pending_;
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
            m_.appendCanonical(capitaliseHeaderWords(name), value);
        } else if (known->isList) {
            // The splitter hands out trimmed pieces: no second trim per element.
            text::forEachTopLevel(value, ',', [&](std::string_view element) { append(*known, element); });
        } else {
            append(*known, text::trim(value));
        }
        return true;
    }

    void append(const KnownHeader& known, std::string_view trimmedValue) {
        size_t& index = firstIndex_[static_cast<size_t>(known.id)];
        if (index == kNone) index = m_.headers_.size();
        m_.appendTrimmed(known.canonical, trimmedValue);
    }

    // Noted by index: the vector may still grow while the message is read.
    const HeaderField* first(HeaderId id) const {
        const size_t index = firstIndex_[static_cast<size_t>(id)];
        return index == kNone ? nullptr : &m_.headers_[index];
    }

    bool takeBody(std::string_view rest) {
        const HeaderField* length = first(HeaderId::ContentLength);
        if (length == nullptr) {
            m_.body.assign(rest);
            return true;
        }
        const auto n = parseHeaderInteger(length->value);
        if (!n || *n < 0) return fail(error_, "bad Content-Length");
        if (static_cast<uint64_t>(*n) > rest.size()) return fail(error_, "truncated body");
        m_.body.assign(rest.substr(0, static_cast<size_t>(*n)));
        return true;
    }

    SipMessage& m_;
    std::string* error_;
    std::string_view pending_;
    std::string folded_;
    bool isFolded_ = false;
    bool havePending_ = false;
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
    for (const HeaderField& h : headers_) {
        const std::string& n = h.name;
        if (found.from == nullptr && n == "From") found.from = &h;
        else if (found.to == nullptr && n == "To") found.to = &h;
        else if (found.callId == nullptr && n == "Call-ID") found.callId = &h;
        else if (found.cseq == nullptr && n == "CSeq") found.cseq = &h;
        else if (found.via == nullptr && n == "Via") found.via = &h;
        else if (found.maxForwards == nullptr && n == "Max-Forwards") found.maxForwards = &h;
    }
    return checkMandatory(found, error);
}

bool SipMessage::checkMandatory(const MandatoryHeaders& found, std::string* error) const {
    // Checked on views: a received message is validated without building
    // the address objects its reader may never ask for.
    auto isAddress = [](const HeaderField* h) {
        NameAddrView na;
        return h != nullptr && splitNameAddr(h->value, na) && !na.wildcard;
    };
    if (!isAddress(found.from)) return fail(error, "missing/invalid From");
    if (!isAddress(found.to)) return fail(error, "missing/invalid To");
    if (found.callId == nullptr || found.callId->value.empty()) return fail(error, "missing Call-ID");
    uint32_t number = 0;
    std::string_view seqMethod;
    if (found.cseq == nullptr || !splitCSeq(found.cseq->value, number, seqMethod)) {
        return fail(error, "missing/invalid CSeq");
    }
    ViaView topVia;
    if (found.via == nullptr || !splitVia(found.via->value, topVia)) return fail(error, "missing/invalid Via");
    if (isRequest) {
        if (seqMethod != method) return fail(error, "CSeq method does not match request method");
        if (found.maxForwards != nullptr && !parseHeaderInteger(found.maxForwards->value)) {
            return fail(error, "invalid Max-Forwards");
        }
    }
    return true;
}

}  // namespace kelsip
