// What a call's media session sends through and hears from: an RTP session on
// real sockets, or a simulated network in tests.
#pragma once

#include <cstdint>
#include <span>

namespace kelsip {

class MediaTransport {
public:
    enum class Channel : uint8_t { Rtp, Rtcp };

    // Called on the transport's own thread (an RTP worker, or the simulator's
    // driver). `arrivalUs` and `nowUs` are microseconds on one monotonic scale.
    class Sink {
    public:
        virtual ~Sink() = default;
        virtual void onPacket(Channel channel, std::span<const uint8_t> bytes, int64_t arrivalUs) = 0;
        // Asked before a datagram may latch the remote source: whether it is
        // genuine beyond its looks (an SRTP layer authenticates it here, so
        // no forgery moves the source). When the datagram is then admitted,
        // `onPacket` follows at once on the same thread with the same bytes.
        virtual bool authentic(Channel channel, std::span<const uint8_t> bytes) {
            (void)channel;
            (void)bytes;
            return true;
        }
        // Regularly, whether or not anything arrived: RTCP timing hangs on it.
        virtual void onTick(int64_t nowUs) { (void)nowUs; }
    };

    virtual ~MediaTransport() = default;

    // Never blocks; false when the packet could not be handed to the network
    // (no remote yet, no RTCP socket, a send error).
    virtual bool send(Channel channel, std::span<const uint8_t> bytes) = 0;
    // Packets and ticks go to `sink` until `detach` returns; after that no
    // callback is running or will run, so the sink may be destroyed.
    virtual void attach(Sink* sink) = 0;
    virtual void detach() = 0;
    [[nodiscard]] virtual bool hasRtcp() const = 0;
    // Ends the transport: detaches, sends `finalRtcp` when there is an RTCP
    // channel and it is not empty, and gives up the sockets and ports.
    virtual void close(std::span<const uint8_t> finalRtcp) = 0;
};

}  // namespace kelsip
