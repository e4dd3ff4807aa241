// TURN client: the Allocate exchange with its long-term credentials,
// refreshes, permissions, channels and the relayed data both ways.
#include "media/ice/turn_client.h"

#include <utility>

#include "sip/auth/md5.h"
#include "sip/core/log.h"

namespace kelsip::ice {

namespace {

constexpr std::string_view kTag = "turn";
constexpr int64_t kSecondUs = 1000000;
// Permissions last 300 s and channels 600 s on the server (RFC 8656 9, 12).
constexpr int64_t kPermissionRefreshUs = 240 * kSecondUs;
constexpr int64_t kChannelRefreshUs = 540 * kSecondUs;
constexpr size_t kMaxWaiting = 8;
constexpr uint32_t kRequestedUdp = 17u << 24;

stun::Attribute peerAttribute(const net::SocketAddress& peer) {
    stun::Message scratch;
    scratch.addXorAddress(stun::attr::kXorPeerAddress, peer);
    // Masked with a zero transaction id here; `request` masks it again
    // with the real one.
    return scratch.attributes.front();
}

}  // namespace

TurnClient::TurnClient(TurnServerOptions options, SendToServer send, StunRetransmitOptions retransmit)
    : options_(std::move(options)), send_(std::move(send)), retransmit_(retransmit) {}

std::string_view TurnClient::toString(State state) {
    switch (state) {
        case State::Idle: return "idle";
        case State::Allocating: return "allocating";
        case State::Allocated: return "allocated";
        case State::Failed: return "failed";
        case State::Released: return "released";
    }
    return "idle";
}

bool TurnClient::isChannelData(std::span<const uint8_t> bytes) {
    return bytes.size() >= 4 && bytes[0] >= 0x40 && bytes[0] <= 0x4F;
}

void TurnClient::fail(const char* why) {
    log::warn(kTag, std::string("allocation on ") + options_.server.toString() + " failed: " + why);
    const bool wasAllocating = state_ == State::Allocating;
    state_ = State::Failed;
    if (wasAllocating && allocated_) {
        auto done = std::move(allocated_);
        done(false);
    }
}

void TurnClient::request(stun::Method method, std::vector<stun::Attribute> payload, int64_t nowUs, Reply reply,
                         int retries) {
    stun::Message m = stun::Message::request(method);
    for (const auto& a : payload) {
        // XOR addresses depend on the transaction id for IPv6: re-encode.
        if (a.type == stun::attr::kXorPeerAddress) {
            stun::Message probe;
            probe.attributes.push_back(a);
            probe.transaction = {};
            if (const auto peer = probe.address(stun::attr::kXorPeerAddress)) {
                m.addXorAddress(a.type, *peer);
                continue;
            }
        }
        m.attributes.push_back(a);
    }
    stun::EncodeOptions encode;
    if (!key_.empty()) {
        m.addText(stun::attr::kUsername, options_.username);
        m.addText(stun::attr::kRealm, realm_);
        m.addText(stun::attr::kNonce, nonce_);
        encode.integrityKey = key_;
    }
    auto bytes = stun::encode(m, encode);
    if (bytes.empty()) {
        reply(nullptr);
        return;
    }
    auto onDone = [this, method, payload = std::move(payload), reply = std::move(reply), retries](
                      const stun::Message* response, std::span<const uint8_t> raw) mutable {
        if (response && response->messageClass == stun::Class::Error) {
            const auto error = response->errorCode();
            const auto realm = response->text(stun::attr::kRealm);
            const auto nonce = response->text(stun::attr::kNonce);
            const int code = error ? error->code : 0;
            // 401: the challenge (or new credentials); 438: the nonce went stale.
            if ((code == 401 || code == 438) && nonce && retries > 0 && (code == 438 || realm)) {
                if (realm && *realm != realm_) {
                    realm_ = *realm;
                    Md5 md5;
                    md5.update(options_.username + ':' + realm_ + ':' + options_.password);
                    const auto digest = md5.finish();
                    key_.assign(digest.begin(), digest.end());
                } else if (code == 401 && !key_.empty() && *nonce == nonce_) {
                    reply(response);  // the same challenge again: the password is wrong
                    return;
                }
                nonce_ = *nonce;
                request(method, std::move(payload), nowUs_, std::move(reply), retries - 1);
                return;
            }
        }
        if (response && !key_.empty() && !stun::checkIntegrity(raw, key_)) {
            log::warn(kTag, "response without valid integrity ignored");
            reply(nullptr);
            return;
        }
        reply(response);
    };
    const auto id = m.transaction;
    transactions_.start(id, std::move(bytes), send_, std::move(onDone), nowUs, retransmit_);
}

void TurnClient::allocate(int64_t nowUs, std::function<void(bool)> done) {
    nowUs_ = nowUs;
    state_ = State::Allocating;
    allocated_ = std::move(done);
    stun::Message payload;
    payload.addUint32(stun::attr::kRequestedTransport, kRequestedUdp);
    payload.addUint32(stun::attr::kLifetime, options_.lifetimeSeconds);
    request(stun::Method::Allocate, payload.attributes, nowUs, [this](const stun::Message* response) {
        if (!response) return fail("no answer");
        if (response->messageClass != stun::Class::Success) {
            const auto error = response->errorCode();
            log::warn(kTag, "allocate refused: " + (error ? std::to_string(error->code) + ' ' + error->reason : "?"));
            return fail("refused");
        }
        relayed_ = response->address(stun::attr::kXorRelayedAddress);
        mapped_ = response->address(stun::attr::kXorMappedAddress);
        if (!relayed_) return fail("no relayed address");
        const uint32_t lifetime = response->uint32(stun::attr::kLifetime).value_or(options_.lifetimeSeconds);
        const int64_t lifetimeUs = int64_t{lifetime} * kSecondUs;
        refreshAtUs_ = nowUs_ + (lifetime > 120 ? lifetimeUs - 60 * kSecondUs : lifetimeUs / 2);
        state_ = State::Allocated;
        log::info(kTag, "relayed address " + relayed_->toString() + " on " + options_.server.toString());
        if (allocated_) {
            auto doneNow = std::move(allocated_);
            doneNow(true);
        }
    });
}

void TurnClient::refresh(uint32_t lifetime, int64_t nowUs) {
    stun::Message payload;
    payload.addUint32(stun::attr::kLifetime, lifetime);
    request(stun::Method::Refresh, payload.attributes, nowUs, [this, lifetime](const stun::Message* response) {
        if (lifetime == 0) return;
        if (!response || response->messageClass != stun::Class::Success) return fail("refresh refused");
        const uint32_t granted = response->uint32(stun::attr::kLifetime).value_or(lifetime);
        const int64_t grantedUs = int64_t{granted} * kSecondUs;
        refreshAtUs_ = nowUs_ + (granted > 120 ? grantedUs - 60 * kSecondUs : grantedUs / 2);
    });
}

void TurnClient::release(int64_t nowUs) {
    nowUs_ = nowUs;
    if (state_ != State::Allocated) return;
    state_ = State::Released;
    permissions_.clear();
    channels_.clear();
    refresh(0, nowUs);
}

void TurnClient::askPermission(const std::string& ip, const net::SocketAddress& peer, int64_t nowUs) {
    permissions_[ip].asking = true;
    request(stun::Method::CreatePermission, {peerAttribute(peer)}, nowUs, [this, ip](const stun::Message* response) {
        const auto it = permissions_.find(ip);
        if (it == permissions_.end()) return;
        Permission& p = it->second;
        p.asking = false;
        if (!response || response->messageClass != stun::Class::Success) {
            log::warn(kTag, "permission for " + ip + " refused");
            permissions_.erase(it);
            return;
        }
        p.installed = true;
        p.refreshAtUs = nowUs_ + kPermissionRefreshUs;
        auto waiting = std::move(p.waiting);
        for (const auto& [to, data] : waiting) sendTo(to, data, nowUs_);
    });
}

void TurnClient::askChannel(const net::SocketAddress& peer, int64_t nowUs) {
    Channel& channel = channels_[peer];
    if (channel.number == 0) {
        if (nextChannel_ > 0x4FFF) return;
        channel.number = nextChannel_++;
    }
    channel.asking = true;
    stun::Message payload;
    payload.addUint32(stun::attr::kChannelNumber, uint32_t{channel.number} << 16);
    payload.attributes.push_back(peerAttribute(peer));
    request(stun::Method::ChannelBind, payload.attributes, nowUs, [this, peer](const stun::Message* response) {
        const auto it = channels_.find(peer);
        if (it == channels_.end()) return;
        it->second.asking = false;
        if (!response || response->messageClass != stun::Class::Success) {
            log::warn(kTag, "channel for " + peer.toString() + " refused");
            channels_.erase(it);
            return;
        }
        it->second.bound = true;
        it->second.refreshAtUs = nowUs_ + kChannelRefreshUs;
        // A bound channel installs the permission too.
        Permission& p = permissions_[peer.ip()];
        p.installed = true;
        p.refreshAtUs = nowUs_ + kPermissionRefreshUs;
    });
}

void TurnClient::bindChannel(const net::SocketAddress& peer, int64_t nowUs) {
    nowUs_ = nowUs;
    if (state_ != State::Allocated) return;
    const auto it = channels_.find(peer);
    if (it != channels_.end() && (it->second.bound || it->second.asking)) return;
    askChannel(peer, nowUs);
}

bool TurnClient::channelBound(const net::SocketAddress& peer) const {
    const auto it = channels_.find(peer);
    return it != channels_.end() && it->second.bound;
}

bool TurnClient::hasPermission(const net::SocketAddress& peer) const {
    const auto it = permissions_.find(peer.ip());
    return it != permissions_.end() && it->second.installed;
}

void TurnClient::sendIndication(const net::SocketAddress& peer, std::span<const uint8_t> bytes) {
    stun::Message m = stun::Message::request(stun::Method::Send);
    m.messageClass = stun::Class::Indication;
    m.addXorAddress(stun::attr::kXorPeerAddress, peer);
    m.add(stun::attr::kData, bytes);
    const auto wire = stun::encode(m);
    if (!wire.empty()) send_(wire);
}

bool TurnClient::sendTo(const net::SocketAddress& peer, std::span<const uint8_t> bytes, int64_t nowUs) {
    nowUs_ = nowUs;
    if (state_ != State::Allocated || bytes.size() > 0xFFFF) return false;
    const auto channel = channels_.find(peer);
    if (channel != channels_.end() && channel->second.bound) {
        std::vector<uint8_t> wire(4 + bytes.size());
        wire[0] = static_cast<uint8_t>(channel->second.number >> 8);
        wire[1] = static_cast<uint8_t>(channel->second.number);
        wire[2] = static_cast<uint8_t>(bytes.size() >> 8);
        wire[3] = static_cast<uint8_t>(bytes.size());
        std::copy(bytes.begin(), bytes.end(), wire.begin() + 4);
        send_(wire);
        return true;
    }
    const std::string ip = peer.ip();
    Permission& p = permissions_[ip];
    if (p.installed) {
        sendIndication(peer, bytes);
        return true;
    }
    if (p.waiting.size() < kMaxWaiting) p.waiting.emplace_back(peer, std::vector<uint8_t>(bytes.begin(), bytes.end()));
    if (!p.asking) askPermission(ip, peer, nowUs);
    return true;
}

std::optional<TurnClient::Received> TurnClient::receive(std::span<const uint8_t> bytes, int64_t nowUs) {
    nowUs_ = nowUs;
    if (isChannelData(bytes)) {
        const uint16_t number = static_cast<uint16_t>((bytes[0] << 8) | bytes[1]);
        const size_t length = static_cast<size_t>((bytes[2] << 8) | bytes[3]);
        if (length > bytes.size() - 4) {
            log::warn(kTag, "truncated channel data");
            return std::nullopt;
        }
        for (const auto& [peer, channel] : channels_) {
            if (channel.bound && channel.number == number) {
                return Received{peer, std::vector<uint8_t>(bytes.begin() + 4, bytes.begin() + 4 + static_cast<long>(length))};
            }
        }
        log::warn(kTag, "channel data on an unknown channel");
        return std::nullopt;
    }
    std::string error;
    const auto message = stun::parse(bytes, &error);
    if (!message) {
        log::warn(kTag, error);
        return std::nullopt;
    }
    if (message->messageClass == stun::Class::Indication && message->method == stun::Method::Data) {
        const auto peer = message->address(stun::attr::kXorPeerAddress);
        const auto* data = message->find(stun::attr::kData);
        if (!peer || !data) {
            log::warn(kTag, "data indication without peer or data");
            return std::nullopt;
        }
        return Received{*peer, data->value};
    }
    if (!transactions_.onResponse(*message, bytes)) log::debug(kTag, "stray " + stun::describe(*message));
    return std::nullopt;
}

void TurnClient::tick(int64_t nowUs) {
    nowUs_ = nowUs;
    transactions_.tick(nowUs);
    if (state_ != State::Allocated) return;
    if (nowUs >= refreshAtUs_) {
        // Not again until this one is answered (or fails the allocation).
        refreshAtUs_ = nowUs + 3600 * kSecondUs;
        refresh(options_.lifetimeSeconds, nowUs);
    }
    for (auto& [ip, p] : permissions_) {
        if (p.installed && !p.asking && nowUs >= p.refreshAtUs) {
            const auto peer = net::SocketAddress::parse(ip);
            if (peer) askPermission(ip, *peer, nowUs);
        }
    }
    for (auto& [peer, channel] : channels_) {
        if (channel.bound && !channel.asking && nowUs >= channel.refreshAtUs) askChannel(peer, nowUs);
    }
}

}  // namespace kelsip::ice
