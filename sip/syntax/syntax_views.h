// Allocation-free splitting of URIs, name-addrs and Via values into views of
// their text. The value types are built from these, and validation uses them
// directly, so both follow exactly the same rules.
#pragma once

#include <cstdint>
#include <string_view>

namespace kelsip {

enum class UriScheme { Sip, Sips, Tel };

struct UriView {
    UriScheme scheme = UriScheme::Sip;
    std::string_view schemeText;  // as written; the value type lower-cases it
    std::string_view user;        // for tel: the number
    std::string_view password;
    std::string_view host;
    uint16_t port = 0;
    std::string_view params;      // the text after the first ";", unsplit
    std::string_view headers;     // the text after "?"
};

struct NameAddrView {
    bool wildcard = false;
    std::string_view display;  // trimmed, still quoted and escaped
    UriView uri;
    std::string_view params;   // header parameters, unsplit
};

struct ViaView {
    std::string_view protocol;
    std::string_view version;
    std::string_view transport;
    std::string_view host;
    uint16_t port = 0;
    std::string_view params;
};

[[nodiscard]] bool splitUri(std::string_view text, UriView& out);
[[nodiscard]] bool splitNameAddr(std::string_view text, NameAddrView& out);
[[nodiscard]] bool splitVia(std::string_view text, ViaView& out);
// The same for any protocol name and version: the shape of a Via that a
// request of another SIP version can still be answered through.
[[nodiscard]] bool splitViaOfAnyVersion(std::string_view text, ViaView& out);

}  // namespace kelsip
