// Batched receive on Linux: recvmmsg fills up to a batch of slots in one
// call, and says which datagrams did not fit.
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstring>

#include "media/rtp/rtp_receive_batch.h"

namespace kelsip {

namespace {

net::SocketAddress fromSystem(const sockaddr_storage& in) {
    if (in.ss_family == AF_INET6) {
        sockaddr_in6 sin6{};
        std::memcpy(&sin6, &in, sizeof sin6);
        std::array<uint8_t, 16> bytes{};
        std::memcpy(bytes.data(), &sin6.sin6_addr, bytes.size());
        return net::SocketAddress::v6(bytes, ntohs(sin6.sin6_port));
    }
    sockaddr_in sin{};
    std::memcpy(&sin, &in, sizeof sin);
    std::array<uint8_t, 4> bytes{};
    std::memcpy(bytes.data(), &sin.sin_addr, bytes.size());
    return net::SocketAddress::v4(bytes, ntohs(sin.sin_port));
}

}  // namespace

RtpReceiveBatch::RtpReceiveBatch() : storage_(kCapacity * kDatagramBytes) {}

size_t RtpReceiveBatch::capacity() { return kCapacity; }

size_t RtpReceiveBatch::receive(net::Socket& socket) {
    std::array<mmsghdr, kCapacity> messages{};
    std::array<iovec, kCapacity> slots{};
    std::array<sockaddr_storage, kCapacity> sources{};
    for (size_t i = 0; i < kCapacity; ++i) {
        slots[i] = {storage_.data() + i * kDatagramBytes, kDatagramBytes};
        messages[i].msg_hdr.msg_iov = &slots[i];
        messages[i].msg_hdr.msg_iovlen = 1;
        messages[i].msg_hdr.msg_name = &sources[i];
        messages[i].msg_hdr.msg_namelen = sizeof sources[i];
    }
    const int n = ::recvmmsg(static_cast<int>(socket.native()), messages.data(), kCapacity, MSG_DONTWAIT, nullptr);
    const size_t read = n > 0 ? static_cast<size_t>(n) : 0;
    kept_ = 0;
    for (size_t i = 0; i < read; ++i) {
        if ((messages[i].msg_hdr.msg_flags & MSG_TRUNC) != 0) continue;
        datagrams_[kept_++] = {{storage_.data() + i * kDatagramBytes, messages[i].msg_len}, fromSystem(sources[i])};
    }
    return read;
}

}  // namespace kelsip
