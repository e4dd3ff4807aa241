// Sockets on POSIX systems: BSD sockets, poll and getifaddrs.
#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sip/net/socket.h"
#include "sip/net/sockaddr_convert.h"

namespace kelsip::net {

namespace {

int fd(NativeSocket s) { return static_cast<int>(s); }
const sockaddr* raw(const detail::SystemAddress& a) { return reinterpret_cast<const sockaddr*>(a.bytes); }
sockaddr* raw(detail::SystemAddress& a) { return reinterpret_cast<sockaddr*>(a.bytes); }

}  // namespace

namespace detail {

SystemAddress toSystem(const SocketAddress& address) { return toSockaddr(address); }
std::optional<SocketAddress> fromSystem(const SystemAddress& address) { return fromSockaddr(address); }

int lastError() { return errno; }

IoResult::Status ioFailure(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR ? IoResult::Status::WouldBlock
                                                                       : IoResult::Status::Failed;
}

bool connectPending(int error) { return error == EINPROGRESS || error == EINTR; }

SocketFailure openFailure(int error) {
    if (error == EAGAIN || error == EWOULDBLOCK || error == EINTR) return SocketFailure::NothingWaiting;
    if (error == EMFILE || error == ENFILE) return SocketFailure::OutOfDescriptors;
    if (error == ENOBUFS || error == ENOMEM) return SocketFailure::OutOfMemory;
    return SocketFailure::Other;
}

int bindSocket(NativeSocket s, const SystemAddress& address) {
    return ::bind(fd(s), raw(address), static_cast<socklen_t>(address.length));
}

int connectSocket(NativeSocket s, const SystemAddress& address) {
    return ::connect(fd(s), raw(address), static_cast<socklen_t>(address.length));
}

NativeSocket acceptSocket(NativeSocket s, SystemAddress& peer) {
    socklen_t len = sizeof peer.bytes;
    const int accepted = ::accept4(fd(s), raw(peer), &len, SOCK_CLOEXEC);
    peer.length = static_cast<int>(len);
    return accepted < 0 ? kInvalidSocket : accepted;
}

int socketName(NativeSocket s, bool peer, SystemAddress& out) {
    socklen_t len = sizeof out.bytes;
    const int r = peer ? ::getpeername(fd(s), raw(out), &len) : ::getsockname(fd(s), raw(out), &len);
    out.length = static_cast<int>(len);
    return r;
}

long long sendBytes(NativeSocket s, const void* data, size_t size, const SystemAddress* to) {
    if (to == nullptr) return ::send(fd(s), data, size, MSG_NOSIGNAL);
    return ::sendto(fd(s), data, size, MSG_NOSIGNAL, raw(*to), static_cast<socklen_t>(to->length));
}

long long receiveBytes(NativeSocket s, void* data, size_t capacity, SystemAddress* from) {
    if (from == nullptr) return ::recv(fd(s), data, capacity, 0);
    socklen_t len = sizeof from->bytes;
    const ssize_t n = ::recvfrom(fd(s), data, capacity, 0, raw(*from), &len);
    from->length = static_cast<int>(len);
    return n;
}

}  // namespace detail

Socket Socket::open(AddressFamily family, SocketType type, SocketFailure* failure) {
    const int domain = family == AddressFamily::V4 ? AF_INET : AF_INET6;
    const int kind = (type == SocketType::Udp ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC;
    const int s = ::socket(domain, kind, 0);
    if (failure != nullptr) *failure = s < 0 ? detail::openFailure(errno) : SocketFailure::None;
    if (s < 0) return Socket();
    if (family == AddressFamily::V6) {
        const int on = 1;
        ::setsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    return Socket(s, family);
}

void Socket::close() {
    if (handle_ != kInvalidSocket) {
        ::close(fd(handle_));
        handle_ = kInvalidSocket;
    }
}

bool Socket::setNonBlocking(bool on) {
    const int flags = ::fcntl(fd(handle_), F_GETFL, 0);
    if (flags < 0) return false;
    return ::fcntl(fd(handle_), F_SETFL, on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK)) == 0;
}

bool Socket::setReuseAddress(bool on) {
    const int v = on ? 1 : 0;
    return ::setsockopt(fd(handle_), SOL_SOCKET, SO_REUSEADDR, &v, sizeof v) == 0;
}

bool Socket::setBufferSizes(int bytes) {
    return ::setsockopt(fd(handle_), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes) == 0 &&
           ::setsockopt(fd(handle_), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes) == 0;
}

bool Socket::setNoDelay(bool on) {
    const int v = on ? 1 : 0;
    return ::setsockopt(fd(handle_), IPPROTO_TCP, TCP_NODELAY, &v, sizeof v) == 0;
}

bool Socket::setKeepAlive(int idleSeconds, int intervalSeconds, int probes) {
    const int on = 1;
    return ::setsockopt(fd(handle_), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) == 0 &&
           ::setsockopt(fd(handle_), IPPROTO_TCP, TCP_KEEPIDLE, &idleSeconds, sizeof idleSeconds) == 0 &&
           ::setsockopt(fd(handle_), IPPROTO_TCP, TCP_KEEPINTVL, &intervalSeconds, sizeof intervalSeconds) == 0 &&
           ::setsockopt(fd(handle_), IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes) == 0;
}

bool Socket::listen(int backlog) { return ::listen(fd(handle_), backlog) == 0; }

int Socket::connectResult() const {
    int error = 0;
    socklen_t len = sizeof error;
    if (::getsockopt(fd(handle_), SOL_SOCKET, SO_ERROR, &error, &len) != 0) return errno;
    return error;
}

int poll(std::span<PollEntry> entries, int timeoutMs) {
    std::vector<pollfd> fds(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        fds[i].fd = fd(entries[i].socket);
        fds[i].events = static_cast<short>((entries[i].wantRead ? POLLIN | POLLPRI : 0) |
                                           (entries[i].wantWrite ? POLLOUT : 0));
        fds[i].revents = 0;
    }
    int n = 0;
    do {
        n = ::poll(fds.data(), fds.size(), timeoutMs);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return -1;
    for (size_t i = 0; i < entries.size(); ++i) {
        const short ev = fds[i].revents;
        entries[i].readable = (ev & (POLLIN | POLLPRI)) != 0;
        entries[i].writable = (ev & POLLOUT) != 0;
        entries[i].error = (ev & (POLLERR | POLLHUP | POLLNVAL)) != 0;
    }
    return n;
}

std::vector<LocalInterfaceAddress> localAddresses() {
    std::vector<LocalInterfaceAddress> out;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return out;
    for (const ifaddrs* i = list; i != nullptr; i = i->ifa_next) {
        if (i->ifa_addr == nullptr) continue;
        const int family = i->ifa_addr->sa_family;
        if (family != AF_INET && family != AF_INET6) continue;
        sockaddr_storage sa{};
        std::memcpy(&sa, i->ifa_addr, family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
        auto address = detail::fromSockaddr(sa);
        if (!address) continue;
        out.push_back(LocalInterfaceAddress{i->ifa_name != nullptr ? i->ifa_name : "", *address,
                                            (i->ifa_flags & IFF_UP) != 0, (i->ifa_flags & IFF_LOOPBACK) != 0});
    }
    ::freeifaddrs(list);
    return out;
}

std::string errorText(int error) { return std::strerror(error); }

}  // namespace kelsip::net
