// Parsing and validation of SIP messages received as text.
#include <algorithm>

#include "sip/address.h"
#include "sip/header_names.h"
#include "sip/message.h"
#include "sip/syntax_views.h"
#include "sip/text.h"

namespace kelsip {

namespace {

bool fail(std::string* error, const char* text) {
    if (error != nullptr) *error = text;
    return false;
}

bool isToken(std::string_view s) { return !s.empty() && std::all_of(s.begin(), s.end(), text::isTokenChar); }

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
        return m_.validate(error_);
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
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos) return fail(error_, "malformed header line");
        const std::string_view name = text::trim(line.substr(0, colon));
        if (!isToken(name)) return fail(error_, "bad header name");
        std::string canonical = canonicalHeaderName(name);
        const std::string_view value = line.substr(colon + 1);
        if (isCommaListHeader(canonical)) {
            // The splitter hands out trimmed pieces: no second trim per element.
            text::forEachTopLevel(value, ',', [&](std::string_view element) { m_.appendTrimmed(canonical, element); });
        } else {
            m_.appendCanonical(std::move(canonical), value);
        }
        return true;
    }

    bool takeBody(std::string_view rest) {
        const HeaderField* length = m_.find("Content-Length");
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
};

std::optional<SipMessage> SipMessage::parse(std::string_view input, std::string* error) {
    std::optional<SipMessage> m(std::in_place);
    MessageParser parser(*m, error);
    if (!parser.parse(input)) m.reset();
    return m;
}

bool SipMessage::validate(std::string* error) const {
    // One pass finds the first of each header the check needs.
    const HeaderField* from = nullptr;
    const HeaderField* to = nullptr;
    const HeaderField* id = nullptr;
    const HeaderField* via = nullptr;
    const HeaderField* maxForwards = nullptr;
    for (const HeaderField& h : headers_) {
        const std::string& n = h.name;
        if (from == nullptr && n == "From") from = &h;
        else if (to == nullptr && n == "To") to = &h;
        else if (id == nullptr && n == "Call-ID") id = &h;
        else if (via == nullptr && n == "Via") via = &h;
        else if (maxForwards == nullptr && n == "Max-Forwards") maxForwards = &h;
    }
    // Checked on views: a received message is validated without building
    // the address objects its reader may never ask for.
    auto isAddress = [](const HeaderField* h) {
        NameAddrView na;
        return h != nullptr && splitNameAddr(h->value, na) && !na.wildcard;
    };
    if (!isAddress(from)) return fail(error, "missing/invalid From");
    if (!isAddress(to)) return fail(error, "missing/invalid To");
    if (id == nullptr || id->value.empty()) return fail(error, "missing Call-ID");
    const auto seq = cseq();
    if (!seq) return fail(error, "missing/invalid CSeq");
    ViaView topVia;
    if (via == nullptr || !splitVia(via->value, topVia)) return fail(error, "missing/invalid Via");
    if (isRequest) {
        if (seq->method != method) return fail(error, "CSeq method does not match request method");
        if (maxForwards != nullptr && !parseHeaderInteger(maxForwards->value)) {
            return fail(error, "invalid Max-Forwards");
        }
    }
    return true;
}

}  // namespace kelsip
