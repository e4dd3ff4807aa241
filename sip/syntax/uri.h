// SIP, SIPS and tel URIs: the parsed form, its text form, comparison and parameters.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelsip {

struct UriView;

// One ";name" or ";name=value" parameter of a URI, a name-addr or a Via.
struct Param {
    std::string name;   // case kept as received
    std::string value;
    bool hasValue = false;  // "=" and a value were present

    friend bool operator==(const Param&, const Param&) = default;
};

using ParamList = std::vector<Param>;

// Parameter helpers shared by URIs, name-addrs and Via values. Names compare
// without regard to case.
[[nodiscard]] const Param* findParam(const ParamList& params, std::string_view name);
// The value of a parameter; an empty string for a parameter without "=".
[[nodiscard]] std::optional<std::string> paramValue(const ParamList& params, std::string_view name);
// Replaces the first parameter of that name in place (keeping its position) or appends it.
void setParam(ParamList& params, std::string_view name, std::string_view value);
// Sets a parameter that carries no value (";lr").
void setFlagParam(ParamList& params, std::string_view name);
void removeParam(ParamList& params, std::string_view name);
// Splits ";a=1;b" (the text after the first ";") into parameters.
[[nodiscard]] ParamList parseParams(std::string_view text);
void appendParams(std::string& out, const ParamList& params);

class SipUri {
public:
    std::string scheme = "sip";  // lower-case: "sip", "sips" or "tel"
    std::string user;            // for "tel": the number
    std::string password;
    std::string host;            // an IPv6 reference keeps its brackets
    uint16_t port = 0;           // 0: no port given
    ParamList params;
    std::string headers;         // raw text after "?"

    // Empty when the text is not a sip, sips or tel URI by the stack's rules.
    [[nodiscard]] static std::optional<SipUri> parse(std::string_view text);
    [[nodiscard]] static SipUri fromView(const UriView& view);
    [[nodiscard]] std::string toString() const;
    void appendTo(std::string& out) const;

    [[nodiscard]] std::optional<std::string> param(std::string_view name) const {
        return paramValue(params, name);
    }
    [[nodiscard]] bool hasParam(std::string_view name) const { return findParam(params, name) != nullptr; }
    void setParam(std::string_view name, std::string_view value) { kelsip::setParam(params, name, value); }
    void setFlagParam(std::string_view name) { kelsip::setFlagParam(params, name); }
    void removeParam(std::string_view name) { kelsip::removeParam(params, name); }

    // RFC 3261 comparison: user and password byte for byte, host without
    // regard to case, port as a number, then the parameter rules. The header
    // string takes no part.
    friend bool operator==(const SipUri& a, const SipUri& b);
};

// Percent-escapes a user part typed by a person ("a b#c" -> "a%20b%23c").
[[nodiscard]] std::string escapeUriUser(std::string_view text);

}  // namespace kelsip
