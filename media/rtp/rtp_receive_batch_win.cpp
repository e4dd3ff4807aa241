// Receive on Windows: Winsock has no call that reads several datagrams, so a
// batch is one datagram read through the portable socket.
#include "media/rtp/rtp_receive_batch.h"

namespace kelsip {

// One byte more than a datagram may have: a longer one fills it, and is dropped.
RtpReceiveBatch::RtpReceiveBatch() : storage_(kDatagramBytes + 1) {}

size_t RtpReceiveBatch::capacity() { return 1; }

size_t RtpReceiveBatch::receive(net::Socket& socket) {
    net::SocketAddress from;
    const net::IoResult r = socket.receiveFrom(storage_.data(), storage_.size(), from);
    kept_ = r.ok() && r.bytes <= kDatagramBytes ? 1 : 0;
    if (kept_ == 1) datagrams_[0] = {{storage_.data(), r.bytes}, from};
    return r.ok() ? 1 : 0;
}

}  // namespace kelsip
