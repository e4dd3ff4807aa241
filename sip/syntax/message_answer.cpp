// Answers to requests the parser refused. They are built from the raw lines,
// since any header may be the fault: only the ones a response carries are
// read, each as it was written.
#include <cstdint>
#include <vector>

#include "sip/syntax/header_names.h"
#include "sip/syntax/message.h"
#include "sip/syntax/syntax_views.h"
#include "sip/syntax/text.h"

namespace kelsip {

namespace {

// The status a parse error calls for; 0 for the faults that leave no
// request to answer or nowhere to send the answer.
int statusFor(std::string_view error) {
    if (error == "unsupported SIP version") return 505;
    if (error == "unsupported Request-URI scheme") return 416;
    for (const std::string_view none : {"empty message", "missing start line", "bad request line", "bad method",
                                        "missing/invalid Via", "message too large"}) {
        if (error == none) return 0;
    }
    return 400;
}

// The parser's error, capitalised, names the fault of a 400; a text of any
// other shape is not repeated to the sender.
std::string reasonFor(int status, std::string_view error) {
    if (status == 505) return "Version Not Supported";
    if (status == 416) return "Unsupported URI Scheme";
    constexpr std::string_view kPlain = "Bad Request";
    if (error.empty() || error.size() > 48) return std::string(kPlain);
    std::string reason;
    bool wordStart = true;
    for (const char c : error) {
        if (!text::isAlnum(c) && c != ' ' && c != '-' && c != '/') return std::string(kPlain);
        reason += wordStart ? text::toUpper(c) : c;
        wordStart = c == ' ' || c == '/';
    }
    return reason;
}

// One header as written: its line (continuations joined, surrounding white
// space dropped) and its value.
struct RawHeader {
    std::string line;
    std::string_view value() const {
        const size_t colon = line.find(':');
        return text::trim(std::string_view(line).substr(colon + 1));
    }
};

struct RawRequest {
    std::vector<RawHeader> vias;
    std::optional<RawHeader> from, to, callId, cseq;
};

// Cuts the next line off `rest`, without its line break.
std::string_view takeLine(std::string_view& rest) {
    const size_t lf = rest.find('\n');
    std::string_view line = rest.substr(0, lf);
    rest = lf == std::string_view::npos ? std::string_view() : rest.substr(lf + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    return line;
}

// A request line by its outline: a method, and a SIP version at the end.
// An ACK is never answered.
bool looksLikeRequest(std::string_view start) {
    const size_t space = start.find(' ');
    const std::string_view method = start.substr(0, space);
    if (space == std::string_view::npos || method.empty() || method == "ACK") return false;
    for (const char c : method) {
        if (!text::isTokenChar(c)) return false;
    }
    start = text::trim(start);
    const std::string_view version = start.substr(start.find_last_of(" \t") + 1);
    return version.size() > 4 && text::iequals(version.substr(0, 4), "SIP/");
}

RawRequest readRaw(std::string_view rest) {
    RawRequest raw;
    std::string_view line = takeLine(rest);
    while (!line.empty()) {
        RawHeader header{std::string(text::trim(line))};
        line = takeLine(rest);
        while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) {
            header.line += ' ';
            header.line += text::trim(line);
            line = takeLine(rest);
        }
        const size_t colon = header.line.find(':');
        if (colon == std::string::npos) continue;
        const KnownHeader* known = findKnownHeader(text::trim(std::string_view(header.line).substr(0, colon)));
        if (known == nullptr) continue;
        std::optional<RawHeader>* once = nullptr;
        switch (known->id) {
            case HeaderId::Via: raw.vias.push_back(std::move(header)); continue;
            case HeaderId::From: once = &raw.from; break;
            case HeaderId::To: once = &raw.to; break;
            case HeaderId::CallId: once = &raw.callId; break;
            case HeaderId::CSeq: once = &raw.cseq; break;
            default: continue;
        }
        if (!*once) *once = std::move(header);
    }
    return raw;
}

// The value of a ";name=value" parameter in unsplit parameter text.
std::string_view paramIn(std::string_view params, std::string_view name) {
    std::string_view found;
    text::forEachTopLevel(params, ';', [&](std::string_view p) {
        const size_t eq = p.find('=');
        if (found.empty() && eq != std::string_view::npos && text::iequals(text::trim(p.substr(0, eq)), name)) {
            found = text::trim(p.substr(eq + 1));
        }
    });
    return found;
}

// Derived from the request alone, so that a retransmission gets the same
// answer: FNV-1a over Call-ID, CSeq and the top Via's branch.
std::string toTagFor(const RawRequest& raw, std::string_view branch) {
    uint64_t hash = 0xcbf29ce484222325ULL;
    const auto mix = [&](std::string_view bytes) {
        for (const char c : bytes) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3ULL;
        hash = (hash ^ 0xFFU) * 0x100000001b3ULL;
    };
    mix(raw.callId ? raw.callId->value() : std::string_view());
    mix(raw.cseq ? raw.cseq->value() : std::string_view());
    mix(branch);
    static constexpr char kHex[] = "0123456789abcdef";
    std::string tag;
    for (int shift = 60; shift >= 0; shift -= 4) tag += kHex[(hash >> shift) & 0xFU];
    return tag;
}

}  // namespace

std::optional<MalformedAnswer> answerMalformedRequest(std::string_view bytes, std::string_view error) {
    const int status = statusFor(error);
    if (status == 0) return std::nullopt;
    while (!bytes.empty() && (bytes.front() == '\r' || bytes.front() == '\n')) bytes.remove_prefix(1);
    if (!looksLikeRequest(takeLine(bytes))) return std::nullopt;
    const RawRequest raw = readRaw(bytes);
    if (raw.vias.empty()) return std::nullopt;
    std::string_view topVia;
    text::forEachTopLevel(raw.vias.front().value(), ',', [&](std::string_view v) {
        if (topVia.empty()) topVia = v;
    });
    ViaView via;
    if (!splitViaOfAnyVersion(topVia, via)) return std::nullopt;

    MalformedAnswer answer{status, "SIP/2.0 " + std::to_string(status) + ' ' + reasonFor(status, error) + "\r\n"};
    std::string& out = answer.response;
    const auto copy = [&](const std::optional<RawHeader>& h) {
        if (h) out += h->line + "\r\n";
    };
    for (const RawHeader& v : raw.vias) out += v.line + "\r\n";
    copy(raw.from);
    if (raw.to) {
        out += raw.to->line;
        NameAddrView to;
        if (!splitNameAddr(raw.to->value(), to) || paramIn(to.params, "tag").empty()) {
            out += ";tag=" + toTagFor(raw, paramIn(via.params, "branch"));
        }
        out += "\r\n";
    }
    copy(raw.callId);
    copy(raw.cseq);
    out += "Content-Length: 0\r\n\r\n";
    return answer;
}

}  // namespace kelsip
