// Reading an RTP worker's datagram sockets in batches: one system call takes
// every datagram waiting, up to a batch, where the system has such a call.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "sip/net/socket.h"
#include "sip/net/socket_address.h"

namespace kelsip {

class RtpReceiveBatch {
public:
    // Datagrams a batch holds where the system reads several in one call
    // (recvmmsg on Linux); elsewhere a read takes one.
    static constexpr size_t kCapacity = 16;
    // The longest datagram taken; a longer one is read and dropped. Audio
    // packets are a few hundred bytes; this is room for any that fits a
    // network's frame.
    static constexpr size_t kDatagramBytes = 2048;

    struct Datagram {
        std::span<const uint8_t> bytes;
        net::SocketAddress from;
    };

    RtpReceiveBatch();

    // Reads what waits on the non-blocking `socket`, at most `capacity()`
    // datagrams, in one system call. Returns how many were read, the
    // dropped ones too: 0 when nothing waited or the read failed.
    size_t receive(net::Socket& socket);
    // What the last `receive` kept, in arrival order.
    [[nodiscard]] std::span<const Datagram> datagrams() const { return std::span(datagrams_).first(kept_); }

    // How many datagrams one `receive` can return here. A read that returns
    // fewer emptied the socket; a read of one cannot tell, so where a read
    // takes one datagram a socket is read once per poll that finds it ready.
    [[nodiscard]] static size_t capacity();

private:
    std::vector<uint8_t> storage_;  // kCapacity slots of kDatagramBytes
    std::array<Datagram, kCapacity> datagrams_;
    size_t kept_ = 0;
};

}  // namespace kelsip
