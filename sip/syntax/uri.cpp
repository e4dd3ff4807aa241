// SIP, SIPS and tel URIs: parsing, text form, comparison and parameter lists.
#include "sip/syntax/uri.h"

#include <algorithm>

#include "sip/syntax/host_port.h"
#include "sip/syntax/syntax_views.h"
#include "sip/syntax/text.h"

namespace kelsip {

using text::iequals;
using text::trim;

const Param* findParam(const ParamList& params, std::string_view name) {
    for (const Param& p : params) {
        if (iequals(p.name, name)) return &p;
    }
    return nullptr;
}

std::optional<std::string> paramValue(const ParamList& params, std::string_view name) {
    if (const Param* p = findParam(params, name)) return p->value;
    return std::nullopt;
}

void setParam(ParamList& params, std::string_view name, std::string_view value) {
    for (Param& p : params) {
        if (iequals(p.name, name)) {
            p.value.assign(value);
            p.hasValue = true;
            return;
        }
    }
    params.push_back(Param{std::string(name), std::string(value), true});
}

void setFlagParam(ParamList& params, std::string_view name) {
    for (Param& p : params) {
        if (iequals(p.name, name)) {
            p.value.clear();
            p.hasValue = false;
            return;
        }
    }
    params.push_back(Param{std::string(name), std::string(), false});
}

void removeParam(ParamList& params, std::string_view name) {
    std::erase_if(params, [&](const Param& p) { return iequals(p.name, name); });
}

ParamList parseParams(std::string_view s) {
    ParamList params;
    text::forEachTopLevel(s, ';', [&](std::string_view piece) {
        const size_t eq = piece.find('=');
        if (eq == std::string_view::npos) {
            params.push_back(Param{std::string(piece), std::string(), false});
        } else {
            params.push_back(Param{std::string(trim(piece.substr(0, eq))), std::string(trim(piece.substr(eq + 1))), true});
        }
    });
    return params;
}

void appendParams(std::string& out, const ParamList& params) {
    for (const Param& p : params) {
        out += ';';
        out += p.name;
        if (p.hasValue) {
            out += '=';
            out += p.value;
        }
    }
}

namespace {

// Angle brackets cannot survive inside "<...>" of a name-addr, so a URI part
// that holds one could never be written back; such a URI is refused.
bool hasAngle(std::string_view s) { return text::containsEither(s, '<', '>'); }

bool splitTel(std::string_view rest, UriView& uri) {
    const size_t semi = rest.find(';');
    uri.user = rest.substr(0, semi);
    // A tel URI without a number names nobody; refuse it rather than dial nothing.
    if (uri.user.empty() || hasAngle(uri.user)) return false;
    if (semi != std::string_view::npos) uri.params = rest.substr(semi + 1);
    return true;
}

bool splitSip(std::string_view rest, UriView& uri) {
    if (const size_t q = rest.find('?'); q != std::string_view::npos) {
        uri.headers = rest.substr(q + 1);
        if (hasAngle(uri.headers)) return false;
        rest = rest.substr(0, q);
    }
    if (const size_t at = rest.rfind('@'); at != std::string_view::npos) {
        const std::string_view userinfo = rest.substr(0, at);
        const size_t colon = userinfo.find(':');
        uri.user = userinfo.substr(0, colon);
        if (uri.user.empty() || hasAngle(userinfo)) return false;
        if (colon != std::string_view::npos) uri.password = userinfo.substr(colon + 1);
        rest = rest.substr(at + 1);
    }
    const size_t semi = rest.find(';');
    if (!splitHostPort(rest.substr(0, semi), uri.host, uri.port)) return false;
    if (semi != std::string_view::npos) uri.params = rest.substr(semi + 1);
    return true;
}

bool paramsEqual(const SipUri& a, const SipUri& b) {
    // These must match when either side carries them.
    for (std::string_view name : {"user", "ttl", "method", "maddr", "transport"}) {
        const Param* pa = findParam(a.params, name);
        const Param* pb = findParam(b.params, name);
        if (pa == nullptr && pb == nullptr) continue;
        if (pa == nullptr || pb == nullptr || !iequals(pa->value, pb->value)) return false;
    }
    // Any other parameter matters only when both sides carry it. A repeated
    // name is compared by its first occurrence on both sides, as every
    // lookup reads it.
    for (const Param& pa : a.params) {
        if (findParam(a.params, pa.name) != &pa) continue;
        if (const Param* pb = findParam(b.params, pa.name); pb != nullptr && !iequals(pa.value, pb->value)) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool splitUri(std::string_view s, UriView& out) {
    out = UriView{};
    const size_t colon = s.find(':');
    if (colon == std::string_view::npos || colon == 0) return false;
    out.schemeText = s.substr(0, colon);
    const std::string_view rest = s.substr(colon + 1);
    if (iequals(out.schemeText, "sip")) {
        out.scheme = UriScheme::Sip;
        return splitSip(rest, out);
    }
    if (iequals(out.schemeText, "sips")) {
        out.scheme = UriScheme::Sips;
        return splitSip(rest, out);
    }
    if (iequals(out.schemeText, "tel")) {
        out.scheme = UriScheme::Tel;
        return splitTel(rest, out);
    }
    return false;
}

SipUri SipUri::fromView(const UriView& v) {
    SipUri uri;
    uri.scheme = text::lower(v.schemeText);
    uri.user.assign(v.user);
    uri.password.assign(v.password);
    uri.host.assign(v.host);
    uri.port = v.port;
    uri.params = parseParams(v.params);
    uri.headers.assign(v.headers);
    return uri;
}

std::optional<SipUri> SipUri::parse(std::string_view s) {
    UriView v;
    if (!splitUri(s, v)) return std::nullopt;
    return fromView(v);
}

void SipUri::appendTo(std::string& out) const {
    out += scheme;
    out += ':';
    if (scheme == "tel") {
        out += user;
    } else {
        if (!user.empty()) {
            out += user;
            if (!password.empty()) {
                out += ':';
                out += password;
            }
            out += '@';
        }
        out += host;
        if (port != 0) {
            out += ':';
            out += std::to_string(port);
        }
    }
    appendParams(out, params);
    if (!headers.empty()) {
        out += '?';
        out += headers;
    }
}

std::string SipUri::toString() const {
    std::string out;
    out.reserve(scheme.size() + user.size() + host.size() + 32);
    appendTo(out);
    return out;
}

bool operator==(const SipUri& a, const SipUri& b) {
    return iequals(a.scheme, b.scheme) && a.user == b.user && a.password == b.password && iequals(a.host, b.host) &&
           a.port == b.port && paramsEqual(a, b);
}

std::string escapeUriUser(std::string_view s) {
    static constexpr std::string_view kKept = "-_.!~*'()[]/:&+$";
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(s.size());
    for (const char c : s) {
        if (text::isAlnum(c) || kKept.find(c) != std::string_view::npos) {
            out += c;
        } else {
            const auto b = static_cast<unsigned char>(c);
            out += '%';
            out += kHex[b >> 4];
            out += kHex[b & 0x0F];
        }
    }
    return out;
}

}  // namespace kelsip
