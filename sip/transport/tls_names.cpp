// Matching a certificate's names against the SIP domain (RFC 5922).
#include "sip/transport/tls_names.h"

#include <algorithm>
#include <array>

#include "sip/net/socket_address.h"
#include "sip/syntax/text.h"

namespace kelsip {

namespace {

// A trailing dot names the same domain.
std::string_view withoutDot(std::string_view name) {
    if (!name.empty() && name.back() == '.') name.remove_suffix(1);
    return name;
}

bool sameName(std::string_view a, std::string_view b) {
    return !a.empty() && text::iequals(withoutDot(a), withoutDot(b));
}

}  // namespace

std::string addressEntryText(const unsigned char* bytes, size_t length) {
    if (length == 4) {
        std::array<uint8_t, 4> b{};
        std::copy_n(bytes, 4, b.begin());
        return net::SocketAddress::v4(b, 0).ip();
    }
    if (length == 16) {
        std::array<uint8_t, 16> b{};
        std::copy_n(bytes, 16, b.begin());
        return net::SocketAddress::v6(b, 0).ip();
    }
    return {};
}

bool certificateMatches(const CertificateNames& names, std::string_view host) {
    std::string_view bare = host;
    if (bare.size() >= 2 && bare.front() == '[' && bare.back() == ']') bare = bare.substr(1, bare.size() - 2);
    if (bare.empty()) return false;
    if (const auto literal = net::SocketAddress::parse(std::string(bare), 0)) {
        for (const std::string& ip : names.ips) {
            const auto entry = net::SocketAddress::parse(ip, 0);
            if (entry && entry->ip() == literal->ip()) return true;
        }
        return false;
    }
    for (const std::string& uri : names.uris) {
        // Only the bare "sip:domain" form names a domain; anything with a
        // user part or parameters names something else.
        if (uri.size() > 4 && text::iequals(std::string_view(uri).substr(0, 4), "sip:") &&
            sameName(std::string_view(uri).substr(4), bare)) {
            return true;
        }
    }
    for (const std::string& dns : names.dns) {
        if (sameName(dns, bare)) return true;
    }
    const bool anyAltName = !names.dns.empty() || !names.uris.empty() || !names.ips.empty();
    return !anyAltName && sameName(names.commonName, bare);
}

}  // namespace kelsip
