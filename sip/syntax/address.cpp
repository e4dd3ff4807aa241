// Name-addr and Via values, and the host[:port] rule they share with URIs.
#include "sip/syntax/address.h"

#include "sip/syntax/host_port.h"
#include "sip/syntax/syntax_views.h"
#include "sip/syntax/text.h"

namespace kelsip {

using text::trim;

namespace {

bool isForbiddenHostByte(char c) {
    return c == ' ' || c == '\t' || c == '"' || c == '<' || c == '>' || c == '@';
}

// Removes one pair of surrounding double quotes and resolves backslash escapes.
std::string unquote(std::string_view s) {
    if (s.size() < 2 || s.front() != '"' || s.back() != '"') return std::string(s);
    s = s.substr(1, s.size() - 2);
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 1 < s.size()) ++i;
        out += s[i];
    }
    return out;
}

// Reads a token at the front of `s`, skipping white space on both sides.
std::string_view takeToken(std::string_view& s) {
    s = trim(s);
    size_t n = 0;
    while (n < s.size() && text::isTokenChar(s[n])) ++n;
    const std::string_view token = s.substr(0, n);
    s.remove_prefix(n);
    return token;
}

bool takeSlash(std::string_view& s) {
    s = trim(s);
    if (s.empty() || s.front() != '/') return false;
    s.remove_prefix(1);
    return true;
}

}  // namespace

bool splitHostPort(std::string_view s, std::string_view& host, uint16_t& port) {
    s = trim(s);
    if (s.empty()) return false;
    std::string_view rest;
    if (s.front() == '[') {
        const size_t close = s.find(']');
        if (close == std::string_view::npos || close == 1) return false;
        host = s.substr(0, close + 1);
        rest = s.substr(close + 1);
        if (!rest.empty() && rest.front() != ':') return false;
    } else {
        const size_t colon = s.find(':');
        host = s.substr(0, colon);
        if (colon != std::string_view::npos) rest = s.substr(colon);
    }
    if (host.empty()) return false;
    for (const char c : host) {
        if (isForbiddenHostByte(c)) return false;
    }
    uint32_t value = 0;
    if (!rest.empty()) {
        const std::string_view digits = rest.substr(1);
        if (digits.empty() || digits.size() > 5) return false;
        for (const char c : digits) {
            if (!text::isDigit(c)) return false;
            value = value * 10 + static_cast<uint32_t>(c - '0');
        }
        if (value < 1 || value > 65535) return false;
    }
    port = static_cast<uint16_t>(value);
    return true;
}

bool splitNameAddr(std::string_view s, NameAddrView& out) {
    out = NameAddrView{};
    s = trim(s);
    if (s == "*") {
        out.wildcard = true;
        return true;
    }
    std::string_view uriText;
    if (const size_t lt = text::findUnquoted(s, '<'); lt != std::string_view::npos) {
        const size_t gt = s.find('>', lt + 1);
        if (gt == std::string_view::npos) return false;
        out.display = trim(s.substr(0, lt));
        uriText = s.substr(lt + 1, gt - lt - 1);
        const std::string_view after = trim(s.substr(gt + 1));
        if (!after.empty()) {
            if (after.front() != ';') return false;
            out.params = after.substr(1);
        }
    } else {
        // Without angle brackets every ";" parameter belongs to the header.
        const size_t semi = s.find(';');
        uriText = s.substr(0, semi);
        if (semi != std::string_view::npos) out.params = s.substr(semi + 1);
    }
    // An open quote or "<" in the parameters would swallow whatever is
    // appended after them, such as the tag of a response.
    if (!text::isBalanced(out.params)) return false;
    return splitUri(uriText, out.uri);
}

std::optional<NameAddr> NameAddr::parse(std::string_view s) {
    NameAddrView v;
    if (!splitNameAddr(s, v)) return std::nullopt;
    NameAddr na;
    na.wildcard = v.wildcard;
    if (v.wildcard) return na;
    na.displayName = unquote(v.display);
    na.uri = SipUri::fromView(v.uri);
    na.params = parseParams(v.params);
    return na;
}

std::string NameAddr::toString() const {
    if (wildcard) return "*";
    std::string out;
    out.reserve(displayName.size() + 64);
    if (!displayName.empty()) {
        out += '"';
        for (const char c : displayName) {
            if (c == '"' || c == '\\') out += '\\';
            out += c;
        }
        out += "\" ";
    }
    out += '<';
    uri.appendTo(out);
    out += '>';
    appendParams(out, params);
    return out;
}

bool splitVia(std::string_view s, ViaView& out) {
    return splitViaOfAnyVersion(s, out) && text::iequals(out.protocol, "SIP") && out.version == "2.0";
}

bool splitViaOfAnyVersion(std::string_view s, ViaView& out) {
    out = ViaView{};
    s = trim(s);
    // A trailing comment, "(...)", carries nothing for the stack.
    if (!s.empty() && s.back() == ')') {
        const size_t open = s.rfind('(');
        if (open == std::string_view::npos) return false;
        s = trim(s.substr(0, open));
    }
    out.protocol = takeToken(s);
    if (out.protocol.empty() || !takeSlash(s)) return false;
    out.version = takeToken(s);
    if (out.version.empty() || !takeSlash(s)) return false;
    out.transport = takeToken(s);
    if (out.transport.empty()) return false;
    // The sent-by must be set off from the sent-protocol by white space.
    if (s.empty() || !text::isSpace(s.front())) return false;
    // Parentheses only ever open a comment; anywhere else they could not be
    // written back without being read as one.
    if (text::containsEither(s, '(', ')')) return false;
    const size_t semi = s.find(';');
    if (!splitHostPort(s.substr(0, semi), out.host, out.port)) return false;
    if (semi != std::string_view::npos) out.params = s.substr(semi + 1);
    return true;
}

std::optional<Via> Via::parse(std::string_view s) {
    ViaView v;
    if (!splitVia(s, v)) return std::nullopt;
    Via via;
    via.protocol.assign(v.protocol);
    via.version.assign(v.version);
    via.transport.assign(v.transport);
    for (char& c : via.transport) c = text::toUpper(c);  // transport names compare without case
    via.host.assign(v.host);
    via.port = v.port;
    via.params = parseParams(v.params);
    return via;
}

std::string Via::toString() const {
    std::string out;
    out.reserve(64 + host.size());
    out += protocol;
    out += '/';
    out += version;
    out += '/';
    out += transport;
    out += ' ';
    out += host;
    if (port != 0) {
        out += ':';
        out += std::to_string(port);
    }
    appendParams(out, params);
    return out;
}

bool isRfc3261Branch(std::string_view branch) { return branch.starts_with("z9hG4bK"); }

bool isRfc3261Branch(const Via& via) {
    const Param* p = findParam(via.params, "branch");
    return p != nullptr && isRfc3261Branch(std::string_view(p->value));
}

}  // namespace kelsip
