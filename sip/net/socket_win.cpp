// Sockets on Windows: Winsock 2, WSAPoll and GetAdaptersAddresses.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
#include <mstcpip.h>
#include <mswsock.h>
#include <windows.h>

#include <mutex>

#include "sip/net/socket.h"
#include "sip/net/sockaddr_convert.h"

namespace kelsip::net {

namespace {

SOCKET sock(NativeSocket s) { return static_cast<SOCKET>(s); }

void startWinsock() {
    static std::once_flag once;
    std::call_once(once, [] {
        WSADATA data;
        ::WSAStartup(MAKEWORD(2, 2), &data);
    });
}

IoResult ioResult(int n) {
    IoResult r;
    if (n != SOCKET_ERROR) {
        r.status = IoResult::Status::Ok;
        r.bytes = static_cast<size_t>(n);
        return r;
    }
    const int error = ::WSAGetLastError();
    if (error == WSAEWOULDBLOCK || error == WSAEINTR) {
        r.status = IoResult::Status::WouldBlock;
    } else if (error == WSAECONNRESET || error == WSAECONNABORTED) {
        r.status = IoResult::Status::Closed;
    } else {
        r.status = IoResult::Status::Failed;
        r.error = error;
    }
    return r;
}

int clampSize(size_t size) { return size > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(size); }

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
    startWinsock();
    const int domain = family == AddressFamily::V4 ? AF_INET : AF_INET6;
    const SOCKET s = type == SocketType::Udp ? ::socket(domain, SOCK_DGRAM, IPPROTO_UDP)
                                             : ::socket(domain, SOCK_STREAM, IPPROTO_TCP);
    if (s == INVALID_SOCKET) return Socket();
    if (family == AddressFamily::V6) {
        const DWORD on = 1;
        ::setsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<const char*>(&on), sizeof on);
    }
    if (type == SocketType::Udp) {
        // Without this an ICMP "port unreachable" for an earlier datagram
        // makes the next receive fail, which would stop a receive loop.
        BOOL report = FALSE;
        DWORD returned = 0;
        ::WSAIoctl(s, SIO_UDP_CONNRESET, &report, sizeof report, nullptr, 0, &returned, nullptr, nullptr);
    }
    return Socket(static_cast<NativeSocket>(s), family);
}

void Socket::close() {
    if (handle_ != kInvalidSocket) {
        ::closesocket(sock(handle_));
        handle_ = kInvalidSocket;
    }
}

bool Socket::setNonBlocking(bool on) {
    u_long mode = on ? 1 : 0;
    return ::ioctlsocket(sock(handle_), static_cast<long>(FIONBIO), &mode) == 0;
}

bool Socket::setReuseAddress(bool on) {
    // SO_REUSEADDR on Windows lets another socket steal a bound port; the
    // exclusive option is what other systems mean by not reusing.
    (void)on;
    return true;
}

bool Socket::setBufferSizes(int bytes) {
    const char* v = reinterpret_cast<const char*>(&bytes);
    return ::setsockopt(sock(handle_), SOL_SOCKET, SO_RCVBUF, v, sizeof bytes) == 0 &&
           ::setsockopt(sock(handle_), SOL_SOCKET, SO_SNDBUF, v, sizeof bytes) == 0;
}

bool Socket::setNoDelay(bool on) {
    const BOOL v = on ? TRUE : FALSE;
    return ::setsockopt(sock(handle_), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&v), sizeof v) == 0;
}

bool Socket::bind(const SocketAddress& address) {
    sockaddr_storage sa;
    const int len = detail::toSockaddr(address, sa);
    return ::bind(sock(handle_), reinterpret_cast<const sockaddr*>(&sa), len) == 0;
}

bool Socket::listen(int backlog) { return ::listen(sock(handle_), backlog) == 0; }

std::optional<Socket> Socket::accept(SocketAddress* peer) {
    sockaddr_storage sa{};
    int len = sizeof sa;
    const SOCKET s = ::accept(sock(handle_), reinterpret_cast<sockaddr*>(&sa), &len);
    if (s == INVALID_SOCKET) return std::nullopt;
    if (peer != nullptr) {
        if (auto a = detail::fromSockaddr(sa)) *peer = *a;
    }
    return Socket(static_cast<NativeSocket>(s), family_);
}

ConnectStatus Socket::connect(const SocketAddress& address) {
    sockaddr_storage sa;
    const int len = detail::toSockaddr(address, sa);
    if (::connect(sock(handle_), reinterpret_cast<const sockaddr*>(&sa), len) == 0) return ConnectStatus::Connected;
    const int error = ::WSAGetLastError();
    return error == WSAEWOULDBLOCK || error == WSAEINPROGRESS ? ConnectStatus::InProgress : ConnectStatus::Failed;
}

int Socket::connectResult() const {
    int error = 0;
    int len = sizeof error;
    if (::getsockopt(sock(handle_), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &len) != 0) {
        return ::WSAGetLastError();
    }
    return error;
}

std::optional<SocketAddress> Socket::localAddress() const {
    sockaddr_storage sa{};
    int len = sizeof sa;
    if (::getsockname(sock(handle_), reinterpret_cast<sockaddr*>(&sa), &len) != 0) return std::nullopt;
    return detail::fromSockaddr(sa);
}

std::optional<SocketAddress> Socket::peerAddress() const {
    sockaddr_storage sa{};
    int len = sizeof sa;
    if (::getpeername(sock(handle_), reinterpret_cast<sockaddr*>(&sa), &len) != 0) return std::nullopt;
    return detail::fromSockaddr(sa);
}

IoResult Socket::sendTo(const void* data, size_t size, const SocketAddress& to) {
    sockaddr_storage sa;
    const int len = detail::toSockaddr(to, sa);
    return ioResult(::sendto(sock(handle_), static_cast<const char*>(data), clampSize(size), 0,
                             reinterpret_cast<const sockaddr*>(&sa), len));
}

IoResult Socket::receiveFrom(void* data, size_t capacity, SocketAddress& from) {
    sockaddr_storage sa{};
    int len = sizeof sa;
    IoResult r = ioResult(
        ::recvfrom(sock(handle_), static_cast<char*>(data), clampSize(capacity), 0, reinterpret_cast<sockaddr*>(&sa), &len));
    // A datagram larger than the buffer arrives cut; it still counts as read.
    if (r.status == IoResult::Status::Failed && r.error == WSAEMSGSIZE) {
        r.status = IoResult::Status::Ok;
        r.bytes = capacity;
        r.error = 0;
    }
    if (r.ok()) {
        if (auto a = detail::fromSockaddr(sa)) from = *a;
    }
    return r;
}

IoResult Socket::send(const void* data, size_t size) {
    return ioResult(::send(sock(handle_), static_cast<const char*>(data), clampSize(size), 0));
}

IoResult Socket::receive(void* data, size_t capacity) {
    IoResult r = ioResult(::recv(sock(handle_), static_cast<char*>(data), clampSize(capacity), 0));
    if (r.ok() && r.bytes == 0 && capacity > 0) r.status = IoResult::Status::Closed;
    return r;
}

int poll(std::span<PollEntry> entries, int timeoutMs) {
    std::vector<WSAPOLLFD> fds(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        fds[i].fd = sock(entries[i].socket);
        fds[i].events = static_cast<SHORT>((entries[i].wantRead ? POLLRDNORM : 0) | (entries[i].wantWrite ? POLLWRNORM : 0));
        fds[i].revents = 0;
    }
    const int n = ::WSAPoll(fds.data(), static_cast<ULONG>(fds.size()), timeoutMs);
    if (n == SOCKET_ERROR) return -1;
    for (size_t i = 0; i < entries.size(); ++i) {
        const SHORT ev = fds[i].revents;
        entries[i].readable = (ev & (POLLRDNORM | POLLRDBAND | POLLPRI)) != 0;
        entries[i].writable = (ev & POLLWRNORM) != 0;
        entries[i].error = (ev & (POLLERR | POLLHUP | POLLNVAL)) != 0;
    }
    return n;
}

std::vector<LocalInterfaceAddress> localAddresses() {
    startWinsock();
    std::vector<LocalInterfaceAddress> out;
    ULONG size = 16 * 1024;
    std::vector<unsigned char> buffer;
    ULONG result = ERROR_BUFFER_OVERFLOW;
    for (int attempt = 0; attempt < 3 && result == ERROR_BUFFER_OVERFLOW; ++attempt) {
        buffer.resize(size);
        result = ::GetAdaptersAddresses(AF_UNSPEC, GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER,
                                        nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()), &size);
    }
    if (result != NO_ERROR) return out;
    for (auto* a = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()); a != nullptr; a = a->Next) {
        for (auto* u = a->FirstUnicastAddress; u != nullptr; u = u->Next) {
            const sockaddr* raw = u->Address.lpSockaddr;
            if (raw == nullptr || (raw->sa_family != AF_INET && raw->sa_family != AF_INET6)) continue;
            sockaddr_storage sa{};
            std::memcpy(&sa, raw, static_cast<size_t>(u->Address.iSockaddrLength));
            auto address = detail::fromSockaddr(sa);
            if (!address) continue;
            out.push_back(LocalInterfaceAddress{a->AdapterName != nullptr ? a->AdapterName : "", *address,
                                                a->OperStatus == IfOperStatusUp,
                                                a->IfType == IF_TYPE_SOFTWARE_LOOPBACK});
        }
    }
    return out;
}

std::string errorText(int error) {
    char text[256] = {};
    const DWORD n = ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                     static_cast<DWORD>(error), 0, text, sizeof text, nullptr);
    std::string out(text, n);
    while (!out.empty() && (out.back() == '\r' || out.back() == '\n' || out.back() == ' ')) out.pop_back();
    return out.empty() ? "error " + std::to_string(error) : out;
}

}  // namespace kelsip::net
