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
const sockaddr* raw(const detail::SystemAddress& a) { return reinterpret_cast<const sockaddr*>(a.bytes); }
sockaddr* raw(detail::SystemAddress& a) { return reinterpret_cast<sockaddr*>(a.bytes); }
int clampSize(size_t size) { return size > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(size); }

void startWinsock() {
    static std::once_flag once;
    std::call_once(once, [] {
        WSADATA data;
        ::WSAStartup(MAKEWORD(2, 2), &data);
    });
}

}  // namespace

namespace detail {

SystemAddress toSystem(const SocketAddress& address) { return toSockaddr(address); }
std::optional<SocketAddress> fromSystem(const SystemAddress& address) { return fromSockaddr(address); }

int lastError() { return ::WSAGetLastError(); }

IoResult::Status ioFailure(int error) {
    if (error == WSAEWOULDBLOCK || error == WSAEINTR) return IoResult::Status::WouldBlock;
    if (error == WSAECONNRESET || error == WSAECONNABORTED) return IoResult::Status::Closed;
    return IoResult::Status::Failed;
}

bool connectPending(int error) { return error == WSAEWOULDBLOCK || error == WSAEINPROGRESS; }

SocketFailure openFailure(int error) {
    if (error == WSAEWOULDBLOCK || error == WSAEINTR) return SocketFailure::NothingWaiting;
    if (error == WSAEMFILE) return SocketFailure::OutOfDescriptors;
    if (error == WSAENOBUFS) return SocketFailure::OutOfMemory;
    return SocketFailure::Other;
}

int bindSocket(NativeSocket s, const SystemAddress& address) { return ::bind(sock(s), raw(address), address.length); }

int connectSocket(NativeSocket s, const SystemAddress& address) {
    return ::connect(sock(s), raw(address), address.length);
}

NativeSocket acceptSocket(NativeSocket s, SystemAddress& peer) {
    peer.length = sizeof peer.bytes;
    const SOCKET accepted = ::accept(sock(s), raw(peer), &peer.length);
    return accepted == INVALID_SOCKET ? kInvalidSocket : static_cast<NativeSocket>(accepted);
}

int socketName(NativeSocket s, bool peer, SystemAddress& out) {
    out.length = sizeof out.bytes;
    return peer ? ::getpeername(sock(s), raw(out), &out.length) : ::getsockname(sock(s), raw(out), &out.length);
}

long long sendBytes(NativeSocket s, const void* data, size_t size, const SystemAddress* to) {
    const char* bytes = static_cast<const char*>(data);
    if (to == nullptr) return ::send(sock(s), bytes, clampSize(size), 0);
    return ::sendto(sock(s), bytes, clampSize(size), 0, raw(*to), to->length);
}

long long receiveBytes(NativeSocket s, void* data, size_t capacity, SystemAddress* from) {
    char* bytes = static_cast<char*>(data);
    int n = 0;
    if (from == nullptr) {
        n = ::recv(sock(s), bytes, clampSize(capacity), 0);
    } else {
        from->length = sizeof from->bytes;
        n = ::recvfrom(sock(s), bytes, clampSize(capacity), 0, raw(*from), &from->length);
    }
    // Winsock fails a datagram longer than the buffer; it arrived cut.
    if (n == SOCKET_ERROR && ::WSAGetLastError() == WSAEMSGSIZE) return clampSize(capacity);
    return n == SOCKET_ERROR ? -1 : n;
}

}  // namespace detail

Socket Socket::open(AddressFamily family, SocketType type, SocketFailure* failure) {
    startWinsock();
    const int domain = family == AddressFamily::V4 ? AF_INET : AF_INET6;
    const SOCKET s = type == SocketType::Udp ? ::socket(domain, SOCK_DGRAM, IPPROTO_UDP)
                                             : ::socket(domain, SOCK_STREAM, IPPROTO_TCP);
    if (failure != nullptr) {
        *failure = s == INVALID_SOCKET ? detail::openFailure(::WSAGetLastError()) : SocketFailure::None;
    }
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

bool Socket::setKeepAlive(int idleSeconds, int intervalSeconds, int probes) {
    // The probe count is the system's own; the times go in milliseconds.
    (void)probes;
    tcp_keepalive values{1, static_cast<ULONG>(idleSeconds) * 1000, static_cast<ULONG>(intervalSeconds) * 1000};
    DWORD returned = 0;
    return ::WSAIoctl(sock(handle_), SIO_KEEPALIVE_VALS, &values, sizeof values, nullptr, 0, &returned, nullptr,
                      nullptr) == 0;
}

bool Socket::listen(int backlog) { return ::listen(sock(handle_), backlog) == 0; }

int Socket::connectResult() const {
    int error = 0;
    int len = sizeof error;
    if (::getsockopt(sock(handle_), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &len) != 0) {
        return ::WSAGetLastError();
    }
    return error;
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
