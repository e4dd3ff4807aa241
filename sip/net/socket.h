// Portable sockets: UDP and TCP, non-blocking I/O, the shared poll routine,
// the host's own addresses and the choice of a local address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sip/net/socket_address.h"

namespace kelsip::net {

// The operating system's socket handle, widened to fit both platforms.
using NativeSocket = intptr_t;
inline constexpr NativeSocket kInvalidSocket = -1;

enum class SocketType { Udp, Tcp };

struct IoResult {
    enum class Status { Ok, WouldBlock, Closed, Failed };
    Status status = Status::Failed;
    size_t bytes = 0;
    int error = 0;  // the system's error number when Failed

    [[nodiscard]] bool ok() const { return status == Status::Ok; }
};

enum class ConnectStatus { Connected, InProgress, Failed };

// Why no socket came from an open or an accept. The two kinds of exhaustion
// pass by themselves once sockets are closed elsewhere; a caller backs off.
enum class SocketFailure { None, NothingWaiting, OutOfDescriptors, OutOfMemory, Other };
// What to log: "out of file descriptors", "out of socket memory", ...
[[nodiscard]] std::string_view failureText(SocketFailure failure);
[[nodiscard]] inline bool isExhaustion(SocketFailure failure) {
    return failure == SocketFailure::OutOfDescriptors || failure == SocketFailure::OutOfMemory;
}

// One socket, owned: closed when destroyed. Move-only.
class Socket {
public:
    Socket() = default;
    ~Socket();
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    // An invalid socket on failure, `failure` (when given) telling why.
    // IPv6 sockets are IPv6-only.
    [[nodiscard]] static Socket open(AddressFamily family, SocketType type, SocketFailure* failure = nullptr);

    [[nodiscard]] bool valid() const { return handle_ != kInvalidSocket; }
    [[nodiscard]] NativeSocket native() const { return handle_; }
    void close();

    [[nodiscard]] bool setNonBlocking(bool on);
    [[nodiscard]] bool setReuseAddress(bool on);
    [[nodiscard]] bool setBufferSizes(int bytes);
    [[nodiscard]] bool setNoDelay(bool on);
    // TCP keep-alive on: the first probe after `idleSeconds` without traffic,
    // then one every `intervalSeconds`; the connection fails after `probes`
    // unanswered ones (Windows keeps its own count of 10).
    [[nodiscard]] bool setKeepAlive(int idleSeconds, int intervalSeconds, int probes);

    [[nodiscard]] bool bind(const SocketAddress& address);
    [[nodiscard]] bool listen(int backlog);
    // A non-blocking accept: nothing when no connection is waiting
    // (NothingWaiting) or none could be taken (`failure` tells why).
    [[nodiscard]] std::optional<Socket> accept(SocketAddress* peer, SocketFailure* failure = nullptr);
    // On a non-blocking socket usually InProgress; `connectResult` then tells
    // the outcome once the socket polls writable.
    [[nodiscard]] ConnectStatus connect(const SocketAddress& address);
    // 0 when the connect succeeded, else the system's error number.
    [[nodiscard]] int connectResult() const;

    [[nodiscard]] std::optional<SocketAddress> localAddress() const;
    [[nodiscard]] std::optional<SocketAddress> peerAddress() const;

    IoResult sendTo(const void* data, size_t size, const SocketAddress& to);
    IoResult receiveFrom(void* data, size_t capacity, SocketAddress& from);
    IoResult send(const void* data, size_t size);
    IoResult receive(void* data, size_t capacity);

private:
    explicit Socket(NativeSocket handle, AddressFamily family) : handle_(handle), family_(family) {}

    NativeSocket handle_ = kInvalidSocket;
    AddressFamily family_ = AddressFamily::V4;
};

// One entry of the shared poll routine.
struct PollEntry {
    NativeSocket socket = kInvalidSocket;
    bool wantRead = false;
    bool wantWrite = false;
    // Results.
    bool readable = false;  // normal or priority data, or a connection waiting
    bool writable = false;
    bool error = false;     // error, hang-up or an invalid socket
};

// Waits up to `timeoutMs` (-1: no limit) for any entry to become ready.
// Returns the number of ready entries, 0 on time-out, -1 on failure.
int poll(std::span<PollEntry> entries, int timeoutMs);

struct LocalInterfaceAddress {
    std::string interfaceName;
    SocketAddress address;  // port 0
    bool up = true;
    bool loopback = false;
};

// The host's own addresses, from the operating system.
[[nodiscard]] std::vector<LocalInterfaceAddress> localAddresses();

// The local address the host would use to reach `destination` (no packet is
// sent: a UDP socket is connected and asked for its own address).
[[nodiscard]] std::optional<SocketAddress> localAddressToward(const SocketAddress& destination);

// The system's last socket error number, as a readable text.
[[nodiscard]] std::string errorText(int error);

}  // namespace kelsip::net
