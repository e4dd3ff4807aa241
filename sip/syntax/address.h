// Name-addr values (From, To, Contact, Route, Record-Route) and Via values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sip/syntax/uri.h"

namespace kelsip {

struct NameAddr {
    std::string displayName;  // unquoted and unescaped
    SipUri uri;
    ParamList params;         // header parameters: "tag", "expires", ...
    bool wildcard = false;    // "Contact: *"; nothing else is set then

    [[nodiscard]] static std::optional<NameAddr> parse(std::string_view text);
    [[nodiscard]] std::string toString() const;

    [[nodiscard]] std::optional<std::string> param(std::string_view name) const {
        return paramValue(params, name);
    }
    void setParam(std::string_view name, std::string_view value) { kelsip::setParam(params, name, value); }
    void removeParam(std::string_view name) { kelsip::removeParam(params, name); }
};

struct Via {
    std::string protocol = "SIP";
    std::string version = "2.0";
    std::string transport;  // "UDP", "TCP", "TLS", ...
    std::string host;       // an IPv6 reference keeps its brackets
    uint16_t port = 0;      // 0: no port given
    ParamList params;       // "branch", "received", "rport", "maddr", ...

    [[nodiscard]] static std::optional<Via> parse(std::string_view text);
    // "SIP/2.0/" transport, one space, host-port, parameters.
    [[nodiscard]] std::string toString() const;

    [[nodiscard]] std::optional<std::string> param(std::string_view name) const {
        return paramValue(params, name);
    }
    [[nodiscard]] bool hasParam(std::string_view name) const { return findParam(params, name) != nullptr; }
    void setParam(std::string_view name, std::string_view value) { kelsip::setParam(params, name, value); }
    void removeParam(std::string_view name) { kelsip::removeParam(params, name); }
    [[nodiscard]] std::string branch() const { return param("branch").value_or(std::string()); }
};

// True when the Via's branch carries the RFC 3261 magic cookie "z9hG4bK".
[[nodiscard]] bool isRfc3261Branch(std::string_view branch);
[[nodiscard]] bool isRfc3261Branch(const Via& via);

}  // namespace kelsip
