// Text forms of IPv4 and IPv6 addresses, parsed and written without the
// operating system so that every platform reads and prints them alike.
#include "sip/net/socket_address.h"

#include <algorithm>
#include <cstdio>

namespace kelsip::net {

namespace {

bool parseV4(std::string_view s, uint8_t* out) {
    int part = 0;
    size_t i = 0;
    while (part < 4) {
        if (i >= s.size() || s[i] < '0' || s[i] > '9') return false;
        unsigned value = 0;
        size_t digits = 0;
        while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
            value = value * 10 + static_cast<unsigned>(s[i] - '0');
            ++i;
            if (++digits > 3 || value > 255) return false;
        }
        // A leading zero would mean octal to some readers; refuse the ambiguity.
        if (digits > 1 && s[i - digits] == '0') return false;
        out[part++] = static_cast<uint8_t>(value);
        if (part < 4) {
            if (i >= s.size() || s[i] != '.') return false;
            ++i;
        }
    }
    return i == s.size();
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool parseV6(std::string_view s, uint8_t* out) {
    uint16_t groups[8] = {};
    int count = 0;
    int gap = -1;  // index in `groups` where "::" stands
    size_t i = 0;
    if (s.starts_with("::")) {
        gap = 0;
        i = 2;
        if (i == s.size()) {
            std::fill(out, out + 16, uint8_t{0});
            return true;
        }
    } else if (s.starts_with(":")) {
        return false;
    }
    while (i < s.size()) {
        if (count == 8) return false;
        // An embedded IPv4 address ends the text and fills two groups.
        const size_t nextColon = s.find(':', i);
        if (nextColon == std::string_view::npos && s.find('.', i) != std::string_view::npos) {
            uint8_t v4[4];
            if (count > 6 || !parseV4(s.substr(i), v4)) return false;
            groups[count++] = static_cast<uint16_t>(v4[0] << 8 | v4[1]);
            groups[count++] = static_cast<uint16_t>(v4[2] << 8 | v4[3]);
            i = s.size();
            break;
        }
        unsigned value = 0;
        size_t digits = 0;
        while (i < s.size() && hexValue(s[i]) >= 0) {
            value = value << 4 | static_cast<unsigned>(hexValue(s[i]));
            ++i;
            if (++digits > 4) return false;
        }
        if (digits == 0) return false;
        groups[count++] = static_cast<uint16_t>(value);
        if (i == s.size()) break;
        if (s[i] != ':') return false;
        ++i;
        if (i < s.size() && s[i] == ':') {
            if (gap >= 0) return false;
            gap = count;
            ++i;
            if (i == s.size()) break;
        } else if (i == s.size()) {
            return false;  // a trailing single ":"
        }
    }
    if (gap < 0 && count != 8) return false;
    if (gap >= 0 && count > 7) return false;
    uint16_t full[8] = {};
    if (gap < 0) {
        std::copy(groups, groups + 8, full);
    } else {
        const int tail = count - gap;
        std::copy(groups, groups + gap, full);
        std::copy(groups + gap, groups + count, full + (8 - tail));
    }
    for (int g = 0; g < 8; ++g) {
        out[2 * g] = static_cast<uint8_t>(full[g] >> 8);
        out[2 * g + 1] = static_cast<uint8_t>(full[g] & 0xFF);
    }
    return true;
}

}  // namespace

std::optional<SocketAddress> SocketAddress::parse(std::string_view ip, uint16_t port) {
    if (ip.size() >= 2 && ip.front() == '[' && ip.back() == ']') ip = ip.substr(1, ip.size() - 2);
    SocketAddress a;
    a.port_ = port;
    if (ip.find(':') == std::string_view::npos) {
        a.family_ = AddressFamily::V4;
        if (!parseV4(ip, a.bytes_.data())) return std::nullopt;
    } else {
        a.family_ = AddressFamily::V6;
        // A zone ("fe80::1%eth0") is refused: nothing in the stack is scoped to an interface.
        if (!parseV6(ip, a.bytes_.data())) return std::nullopt;
    }
    return a;
}

std::optional<SocketAddress> SocketAddress::parseWithPort(std::string_view text) {
    size_t colon = std::string_view::npos;
    std::string_view ip;
    if (text.starts_with("[")) {
        const size_t close = text.find(']');
        if (close == std::string_view::npos || close + 1 >= text.size() || text[close + 1] != ':') return std::nullopt;
        ip = text.substr(0, close + 1);
        colon = close + 1;
    } else {
        colon = text.rfind(':');
        if (colon == std::string_view::npos || text.find(':') != colon) return std::nullopt;
        ip = text.substr(0, colon);
    }
    const std::string_view portText = text.substr(colon + 1);
    if (portText.empty() || portText.size() > 5) return std::nullopt;
    unsigned port = 0;
    for (const char c : portText) {
        if (c < '0' || c > '9') return std::nullopt;
        port = port * 10 + static_cast<unsigned>(c - '0');
    }
    if (port > 65535) return std::nullopt;
    return parse(ip, static_cast<uint16_t>(port));
}

SocketAddress SocketAddress::v4(const std::array<uint8_t, 4>& b, uint16_t port) {
    SocketAddress a;
    a.family_ = AddressFamily::V4;
    std::copy(b.begin(), b.end(), a.bytes_.begin());
    a.port_ = port;
    return a;
}

SocketAddress SocketAddress::v6(const std::array<uint8_t, 16>& b, uint16_t port) {
    SocketAddress a;
    a.family_ = AddressFamily::V6;
    a.bytes_ = b;
    a.port_ = port;
    return a;
}

SocketAddress SocketAddress::any(AddressFamily family, uint16_t port) {
    return family == AddressFamily::V4 ? v4({0, 0, 0, 0}, port) : v6({}, port);
}

SocketAddress SocketAddress::loopback(AddressFamily family, uint16_t port) {
    if (family == AddressFamily::V4) return v4({127, 0, 0, 1}, port);
    std::array<uint8_t, 16> b{};
    b[15] = 1;
    return v6(b, port);
}

bool SocketAddress::isAny() const {
    for (size_t i = 0; i < byteCount(); ++i) {
        if (bytes_[i] != 0) return false;
    }
    return true;
}

bool SocketAddress::isLoopback() const {
    if (isV4()) return bytes_[0] == 127;
    for (size_t i = 0; i < 15; ++i) {
        if (bytes_[i] != 0) return false;
    }
    return bytes_[15] == 1;
}

bool SocketAddress::isLinkLocal() const {
    if (isV4()) return bytes_[0] == 169 && bytes_[1] == 254;
    return bytes_[0] == 0xFE && (bytes_[1] & 0xC0) == 0x80;
}

std::string SocketAddress::ip() const {
    char buf[64];
    if (isV4()) {
        std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", bytes_[0], bytes_[1], bytes_[2], bytes_[3]);
        return buf;
    }
    const bool mappedV4 = std::all_of(bytes_.begin(), bytes_.begin() + 10, [](uint8_t b) { return b == 0; }) &&
                          bytes_[10] == 0xFF && bytes_[11] == 0xFF;
    if (mappedV4) {
        std::snprintf(buf, sizeof buf, "::ffff:%u.%u.%u.%u", bytes_[12], bytes_[13], bytes_[14], bytes_[15]);
        return buf;
    }
    uint16_t g[8];
    for (size_t i = 0; i < 8; ++i) g[i] = static_cast<uint16_t>(bytes_[2 * i] << 8 | bytes_[2 * i + 1]);
    // RFC 5952: the longest run of two or more zero groups becomes "::"
    // (the first such run on a tie); hex digits in lower case.
    int bestStart = -1;
    int bestLen = 0;
    for (int i = 0; i < 8;) {
        if (g[i] != 0) {
            ++i;
            continue;
        }
        int j = i;
        while (j < 8 && g[j] == 0) ++j;
        if (j - i > bestLen && j - i >= 2) {
            bestStart = i;
            bestLen = j - i;
        }
        i = j;
    }
    std::string out;
    for (int i = 0; i < 8; ++i) {
        if (i == bestStart) {
            out += "::";
            i += bestLen - 1;
            continue;
        }
        if (!out.empty() && out.back() != ':') out += ':';
        std::snprintf(buf, sizeof buf, "%x", g[i]);
        out += buf;
    }
    return out;
}

std::string SocketAddress::host() const { return isV6() ? "[" + ip() + "]" : ip(); }

std::string SocketAddress::toString() const { return host() + ":" + std::to_string(port_); }

}  // namespace kelsip::net
