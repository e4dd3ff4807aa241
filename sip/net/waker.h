// Wakes a thread blocked in the poll routine from another thread.
#pragma once

#include "sip/net/socket.h"

namespace kelsip::net {

// A loopback datagram socket that sends to itself: polling it for reading
// lets any thread end another thread's wait by calling `wake`.
class Waker {
public:
    Waker();
    [[nodiscard]] bool valid() const { return socket_.valid(); }
    [[nodiscard]] NativeSocket native() const { return socket_.native(); }
    void wake();
    // Reads every pending wake-up so that the next poll waits again.
    void drain();

private:
    Socket socket_;
    SocketAddress self_;
};

}  // namespace kelsip::net
