// Protecting on send, checking on receive; refused packets are counted and
// logged once per burst, so a flood of forgeries cannot flood the log.
#include "media/srtp/srtp_transport.h"

#include "sip/core/log.h"

namespace kelsip {

namespace {
constexpr std::string_view kTag = "srtp";
}

std::unique_ptr<SrtpTransport> SrtpTransport::create(std::unique_ptr<MediaTransport> inner,
                                                     const srtp::CryptoAttribute& local,
                                                     const srtp::CryptoAttribute& remote, int call,
                                                     std::string* error) {
    // Our own packets carry no MKI: the key we announced had none.
    srtp::MasterKey ours = local.key;
    ours.mki.clear();
    auto out = srtp::Context::create(local.suite, ours);
    auto in = srtp::Context::create(remote.suite, remote.key);
    if (!inner || !out || !in) {
        if (error != nullptr) *error = "no srtp cipher";
        return nullptr;
    }
    return std::unique_ptr<SrtpTransport>(new SrtpTransport(std::move(inner), std::move(out), std::move(in), call));
}

SrtpTransport::SrtpTransport(std::unique_ptr<MediaTransport> inner, std::unique_ptr<srtp::Context> out,
                             std::unique_ptr<srtp::Context> in, int call)
    : inner_(std::move(inner)), call_(call), out_(std::move(out)), in_(std::move(in)) {}

SrtpTransport::~SrtpTransport() { inner_->detach(); }

bool SrtpTransport::setRemoteKey(const srtp::CryptoAttribute& remote) {
    auto in = srtp::Context::create(remote.suite, remote.key);
    if (!in) return false;
    std::lock_guard lock(receiveMutex_);
    in_ = std::move(in);
    return true;
}

SrtpTransportStats SrtpTransport::stats() const {
    return {sent_.load(), received_.load(), unauthentic_.load(), replayed_.load(), malformed_.load()};
}

bool SrtpTransport::send(Channel channel, std::span<const uint8_t> bytes) {
    std::lock_guard lock(sendMutex_);
    sendBuffer_.assign(bytes.begin(), bytes.end());
    const srtp::Status status =
        channel == Channel::Rtp ? out_->protectRtp(sendBuffer_) : out_->protectRtcp(sendBuffer_);
    if (status != srtp::Status::Ok) return false;
    ++sent_;
    return inner_->send(channel, sendBuffer_);
}

void SrtpTransport::attach(MediaTransport::Sink* sink) {
    sink_ = sink;
    inner_->attach(this);
}

void SrtpTransport::detach() {
    inner_->detach();
    sink_ = nullptr;
}

bool SrtpTransport::hasRtcp() const { return inner_->hasRtcp(); }

void SrtpTransport::close(std::span<const uint8_t> finalRtcp) {
    std::vector<uint8_t> bye(finalRtcp.begin(), finalRtcp.end());
    {
        std::lock_guard lock(sendMutex_);
        if (!bye.empty() && out_->protectRtcp(bye) != srtp::Status::Ok) bye.clear();
    }
    inner_->close(bye);
    sink_ = nullptr;
}

bool SrtpTransport::unprotect(Channel channel, std::span<const uint8_t> bytes) {
    receiveBuffer_.assign(bytes.begin(), bytes.end());
    const srtp::Status status =
        channel == Channel::Rtp ? in_->unprotectRtp(receiveBuffer_) : in_->unprotectRtcp(receiveBuffer_);
    if (status != srtp::Status::Ok) {
        refuse(status);
        return false;
    }
    burstLogged_ = false;
    ++received_;
    return true;
}

bool SrtpTransport::authentic(Channel channel, std::span<const uint8_t> bytes) {
    std::lock_guard lock(receiveMutex_);
    checkedData_ = bytes.data();
    checkedSize_ = bytes.size();
    checkedOk_ = unprotect(channel, bytes);
    return checkedOk_;
}

void SrtpTransport::onPacket(Channel channel, std::span<const uint8_t> bytes, int64_t arrivalUs) {
    MediaTransport::Sink* sink = nullptr;
    {
        std::lock_guard lock(receiveMutex_);
        // Judged a moment ago by `authentic` (an RTP session), or not at all
        // (a transport that does not ask).
        const bool judged = checkedData_ == bytes.data() && checkedSize_ == bytes.size();
        checkedData_ = nullptr;
        if (judged ? !checkedOk_ : !unprotect(channel, bytes)) return;
        sink = sink_;
    }
    // The buffer is only refilled from this same thread, so it stays put
    // while the session reads it.
    if (sink != nullptr) sink->onPacket(channel, receiveBuffer_, arrivalUs);
}

void SrtpTransport::onTick(int64_t nowUs) {
    if (sink_ != nullptr) sink_->onTick(nowUs);
}

void SrtpTransport::refuse(srtp::Status status) {
    switch (status) {
        case srtp::Status::Replayed: ++replayed_; break;
        case srtp::Status::Malformed: ++malformed_; break;
        default: ++unauthentic_; break;
    }
    if (burstLogged_) return;
    burstLogged_ = true;
    log::warn(kTag, "call " + std::to_string(call_) + ": dropping packets: " + std::string(srtp::toString(status)));
}

}  // namespace kelsip
