// The pool of RTP port pairs shared by all RTP sessions: an even RTP port and
// the odd RTCP port after it, both bound before the pair is handed out.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>

#include "sip/net/socket.h"
#include "sip/net/socket_address.h"

namespace kelsip {

class RtpPortAllocator {
public:
    // Shared by the allocator and every session holding a port from it, so a
    // session can give its port back whatever outlives what.
    struct Pool {
        std::mutex mutex;
        uint16_t minPort = 0;
        uint16_t maxPort = 0;
        uint16_t nextPort = 0;  // where the next search starts
        std::set<uint16_t> inUse;
    };

    struct PortPair {
        net::Socket rtp;
        net::Socket rtcp;
        uint16_t port = 0;  // the RTP port; RTCP is on port + 1
    };

    RtpPortAllocator(uint16_t minPort, uint16_t maxPort);

    [[nodiscard]] const std::shared_ptr<Pool>& pool() const { return pool_; }

    // Binds both sockets on `local` (its port is ignored); nothing when every
    // pair in the range is in use or cannot be bound, or when no socket can be
    // opened at all (logged with what ran out: descriptors or memory).
    [[nodiscard]] std::optional<PortPair> allocate(const net::SocketAddress& local) const {
        return allocate(*pool_, local);
    }
    void release(uint16_t port) const { release(*pool_, port); }

    [[nodiscard]] static std::optional<PortPair> allocate(Pool& pool, const net::SocketAddress& local);
    static void release(Pool& pool, uint16_t port);

private:
    std::shared_ptr<Pool> pool_;
};

}  // namespace kelsip
