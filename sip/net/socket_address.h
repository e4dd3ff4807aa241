// IPv4 and IPv6 socket addresses held portably: the bytes, the family, the port.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelsip::net {

enum class AddressFamily { V4, V6 };

class SocketAddress {
public:
    SocketAddress() = default;  // 0.0.0.0:0

    // A numeric address: "192.0.2.1", "2001:db8::1" or "[2001:db8::1]"; no names.
    [[nodiscard]] static std::optional<SocketAddress> parse(std::string_view ip, uint16_t port = 0);
    // "192.0.2.1:5060" or "[2001:db8::1]:5060"; the port is required.
    [[nodiscard]] static std::optional<SocketAddress> parseWithPort(std::string_view text);
    [[nodiscard]] static SocketAddress v4(const std::array<uint8_t, 4>& bytes, uint16_t port);
    [[nodiscard]] static SocketAddress v6(const std::array<uint8_t, 16>& bytes, uint16_t port);
    [[nodiscard]] static SocketAddress any(AddressFamily family, uint16_t port = 0);
    [[nodiscard]] static SocketAddress loopback(AddressFamily family, uint16_t port = 0);

    [[nodiscard]] AddressFamily family() const { return family_; }
    [[nodiscard]] bool isV4() const { return family_ == AddressFamily::V4; }
    [[nodiscard]] bool isV6() const { return family_ == AddressFamily::V6; }
    [[nodiscard]] uint16_t port() const { return port_; }
    void setPort(uint16_t port) { port_ = port; }
    // 4 bytes for IPv4, 16 for IPv6, network order.
    [[nodiscard]] const uint8_t* bytes() const { return bytes_.data(); }
    [[nodiscard]] size_t byteCount() const { return isV4() ? 4 : 16; }

    [[nodiscard]] bool isAny() const;
    [[nodiscard]] bool isLoopback() const;
    [[nodiscard]] bool isLinkLocal() const;

    // The address alone, IPv6 without brackets and in RFC 5952 form.
    [[nodiscard]] std::string ip() const;
    // The address as a SIP host: IPv6 in brackets.
    [[nodiscard]] std::string host() const;
    // "192.0.2.1:5060", "[2001:db8::1]:5060".
    [[nodiscard]] std::string toString() const;

    friend bool operator==(const SocketAddress&, const SocketAddress&) = default;
    friend auto operator<=>(const SocketAddress&, const SocketAddress&) = default;

private:
    AddressFamily family_ = AddressFamily::V4;
    std::array<uint8_t, 16> bytes_{};
    uint16_t port_ = 0;
};

}  // namespace kelsip::net
