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

IoResult ioResult(ssize_t n) {
    IoResult r;
    if (n >= 0) {
        r.status = IoResult::Status::Ok;
        r.bytes = static_cast<size_t>(n);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
        r.status = IoResult::Status::WouldBlock;
    } else {
        r.status = IoResult::Status::Failed;
        r.error = errno;
    }
    return r;
}

}  // namespace

Socket::~Socket() { close(); }

Socket::Socket(Socket&& other) noexcept : handle_(other.handle_), family_(other.family_) {
    other.handle_ = kInvalidSocket;
}

Socket& Socket::operator=(Socket&& other) noexcept {
    if (this != &other) {
        close();
        handle_ = other.handle_;
        family_ = other.family_;
        other.handle_ = kInvalidSocket;
    }
    return *this;
}

Socket Socket::open(AddressFamily family, SocketType type) {
    const int domain = family == AddressFamily::V4 ? AF_INET : AF_INET6;
    const int kind = (type == SocketType::Udp ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC;
    const int s = ::socket(domain, kind, 0);
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

bool Socket::bind(const SocketAddress& address) {
    sockaddr_storage sa;
    const socklen_t len = detail::toSockaddr(address, sa);
    return ::bind(fd(handle_), reinterpret_cast<const sockaddr*>(&sa), len) == 0;
}

bool Socket::listen(int backlog) { return ::listen(fd(handle_), backlog) == 0; }

std::optional<Socket> Socket::accept(SocketAddress* peer) {
    sockaddr_storage sa{};
    socklen_t len = sizeof sa;
    const int s = ::accept4(fd(handle_), reinterpret_cast<sockaddr*>(&sa), &len, SOCK_CLOEXEC);
    if (s < 0) return std::nullopt;
    if (peer != nullptr) {
        if (auto a = detail::fromSockaddr(sa)) *peer = *a;
    }
    return Socket(s, family_);
}

ConnectStatus Socket::connect(const SocketAddress& address) {
    sockaddr_storage sa;
    const socklen_t len = detail::toSockaddr(address, sa);
    if (::connect(fd(handle_), reinterpret_cast<const sockaddr*>(&sa), len) == 0) return ConnectStatus::Connected;
    return errno == EINPROGRESS || errno == EINTR ? ConnectStatus::InProgress : ConnectStatus::Failed;
}

int Socket::connectResult() const {
    int error = 0;
    socklen_t len = sizeof error;
    if (::getsockopt(fd(handle_), SOL_SOCKET, SO_ERROR, &error, &len) != 0) return errno;
    return error;
}

std::optional<SocketAddress> Socket::localAddress() const {
    sockaddr_storage sa{};
    socklen_t len = sizeof sa;
    if (::getsockname(fd(handle_), reinterpret_cast<sockaddr*>(&sa), &len) != 0) return std::nullopt;
    return detail::fromSockaddr(sa);
}

std::optional<SocketAddress> Socket::peerAddress() const {
    sockaddr_storage sa{};
    socklen_t len = sizeof sa;
    if (::getpeername(fd(handle_), reinterpret_cast<sockaddr*>(&sa), &len) != 0) return std::nullopt;
    return detail::fromSockaddr(sa);
}

IoResult Socket::sendTo(const void* data, size_t size, const SocketAddress& to) {
    sockaddr_storage sa;
    const socklen_t len = detail::toSockaddr(to, sa);
    return ioResult(::sendto(fd(handle_), data, size, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&sa), len));
}

IoResult Socket::receiveFrom(void* data, size_t capacity, SocketAddress& from) {
    sockaddr_storage sa{};
    socklen_t len = sizeof sa;
    IoResult r = ioResult(::recvfrom(fd(handle_), data, capacity, 0, reinterpret_cast<sockaddr*>(&sa), &len));
    if (r.ok()) {
        if (auto a = detail::fromSockaddr(sa)) from = *a;
    }
    return r;
}

IoResult Socket::send(const void* data, size_t size) { return ioResult(::send(fd(handle_), data, size, MSG_NOSIGNAL)); }

IoResult Socket::receive(void* data, size_t capacity) {
    IoResult r = ioResult(::recv(fd(handle_), data, capacity, 0));
    if (r.ok() && r.bytes == 0 && capacity > 0) r.status = IoResult::Status::Closed;
    return r;
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
