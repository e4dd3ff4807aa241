// What Socket does alike on every platform, over the system calls of
// socket_system.h, and services built on the portable socket calls alone.
#include "sip/net/socket.h"
#include "sip/net/socket_system.h"

namespace kelsip::net {

namespace {

// A send's or receive's outcome; reads the error at once on failure.
IoResult ioResult(long long n) {
    IoResult r;
    if (n >= 0) {
        r.status = IoResult::Status::Ok;
        r.bytes = static_cast<size_t>(n);
        return r;
    }
    const int error = detail::lastError();
    r.status = detail::ioFailure(error);
    if (r.status == IoResult::Status::Failed) r.error = error;
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

bool Socket::bind(const SocketAddress& address) { return detail::bindSocket(handle_, detail::toSystem(address)) == 0; }

std::string_view failureText(SocketFailure failure) {
    switch (failure) {
        case SocketFailure::None: return "no failure";
        case SocketFailure::NothingWaiting: return "nothing waiting";
        case SocketFailure::OutOfDescriptors: return "out of file descriptors";
        case SocketFailure::OutOfMemory: return "out of socket memory";
        case SocketFailure::Other: break;
    }
    return "socket error";
}

std::optional<Socket> Socket::accept(SocketAddress* peer, SocketFailure* failure) {
    detail::SystemAddress from;
    const NativeSocket s = detail::acceptSocket(handle_, from);
    if (failure != nullptr) {
        *failure = s == kInvalidSocket ? detail::openFailure(detail::lastError()) : SocketFailure::None;
    }
    if (s == kInvalidSocket) return std::nullopt;
    if (peer != nullptr) {
        if (auto a = detail::fromSystem(from)) *peer = *a;
    }
    return Socket(s, family_);
}

ConnectStatus Socket::connect(const SocketAddress& address) {
    if (detail::connectSocket(handle_, detail::toSystem(address)) == 0) return ConnectStatus::Connected;
    return detail::connectPending(detail::lastError()) ? ConnectStatus::InProgress : ConnectStatus::Failed;
}

std::optional<SocketAddress> Socket::localAddress() const {
    detail::SystemAddress sa;
    if (detail::socketName(handle_, false, sa) != 0) return std::nullopt;
    return detail::fromSystem(sa);
}

std::optional<SocketAddress> Socket::peerAddress() const {
    detail::SystemAddress sa;
    if (detail::socketName(handle_, true, sa) != 0) return std::nullopt;
    return detail::fromSystem(sa);
}

IoResult Socket::sendTo(const void* data, size_t size, const SocketAddress& to) {
    const detail::SystemAddress sa = detail::toSystem(to);
    return ioResult(detail::sendBytes(handle_, data, size, &sa));
}

IoResult Socket::receiveFrom(void* data, size_t capacity, SocketAddress& from) {
    detail::SystemAddress sa;
    const IoResult r = ioResult(detail::receiveBytes(handle_, data, capacity, &sa));
    if (r.ok()) {
        if (auto a = detail::fromSystem(sa)) from = *a;
    }
    return r;
}

IoResult Socket::send(const void* data, size_t size) { return ioResult(detail::sendBytes(handle_, data, size, nullptr)); }

IoResult Socket::receive(void* data, size_t capacity) {
    IoResult r = ioResult(detail::receiveBytes(handle_, data, capacity, nullptr));
    if (r.ok() && r.bytes == 0 && capacity > 0) r.status = IoResult::Status::Closed;
    return r;
}

std::optional<SocketAddress> localAddressToward(const SocketAddress& destination) {
    Socket probe = Socket::open(destination.family(), SocketType::Udp);
    if (!probe.valid()) return std::nullopt;
    // Connecting a datagram socket sends nothing; it only makes the system
    // pick the route and so the source address.
    SocketAddress target = destination;
    if (target.port() == 0) target.setPort(9);
    if (probe.connect(target) != ConnectStatus::Connected) return std::nullopt;
    auto local = probe.localAddress();
    if (local) local->setPort(0);
    return local;
}

}  // namespace kelsip::net
