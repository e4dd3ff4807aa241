// A TURN client over UDP (RFC 8656): one allocation on one server with the
// long-term credential mechanism, kept alive by Refresh, with permissions
// and channels for the peers it relays to, and the unwrapping of what the
// server relays back (Data indications and ChannelData).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "media/ice/stun_transactions.h"
#include "sip/net/socket_address.h"
#include "sip/net/stun_message.h"

namespace kelsip::ice {

struct TurnServerOptions {
    net::SocketAddress server;
    std::string username;
    std::string password;
    uint32_t lifetimeSeconds = 600;  // asked for; the server's answer rules
};

class TurnClient {
public:
    enum class State : uint8_t { Idle, Allocating, Allocated, Failed, Released };
    // Puts a datagram on the wire to the server, from the client's base.
    using SendToServer = std::function<void(std::span<const uint8_t> bytes)>;
    struct Received {
        net::SocketAddress peer;
        std::vector<uint8_t> data;
    };

    TurnClient(TurnServerOptions options, SendToServer send, StunRetransmitOptions retransmit = {});
    TurnClient(const TurnClient&) = delete;
    TurnClient& operator=(const TurnClient&) = delete;

    // Asks for the allocation; `done(true)` once it is there, `done(false)`
    // when the server refused or never answered.
    void allocate(int64_t nowUs, std::function<void(bool)> done);
    // Refresh with lifetime 0: the server frees the relayed address.
    void release(int64_t nowUs);

    [[nodiscard]] State state() const { return state_; }
    [[nodiscard]] static std::string_view toString(State state);
    [[nodiscard]] const std::optional<net::SocketAddress>& relayed() const { return relayed_; }
    [[nodiscard]] const std::optional<net::SocketAddress>& mapped() const { return mapped_; }
    [[nodiscard]] const net::SocketAddress& server() const { return options_.server; }

    // Relays `bytes` to `peer`: as ChannelData once a channel is bound, else
    // in a Send indication. The first datagram to a new peer address asks
    // for its permission and waits (with a few others) until it is there.
    bool sendTo(const net::SocketAddress& peer, std::span<const uint8_t> bytes, int64_t nowUs);
    // Binds a channel to `peer` (also installing its permission).
    void bindChannel(const net::SocketAddress& peer, int64_t nowUs);
    [[nodiscard]] bool channelBound(const net::SocketAddress& peer) const;
    [[nodiscard]] bool hasPermission(const net::SocketAddress& peer) const;

    // A datagram from the server. Responses are consumed (nothing returned);
    // a Data indication or ChannelData gives what the peer sent.
    [[nodiscard]] std::optional<Received> receive(std::span<const uint8_t> bytes, int64_t nowUs);
    // Resends, refreshes of the allocation, permissions and channels.
    void tick(int64_t nowUs);

    // ChannelData starts with 0x40..0x4F (RFC 7983).
    [[nodiscard]] static bool isChannelData(std::span<const uint8_t> bytes);

private:
    using Reply = std::function<void(const stun::Message* response)>;
    struct Permission {
        bool installed = false;
        bool asking = false;
        int64_t refreshAtUs = 0;
        std::vector<std::pair<net::SocketAddress, std::vector<uint8_t>>> waiting;
    };
    struct Channel {
        uint16_t number = 0;
        bool bound = false;
        bool asking = false;
        int64_t refreshAtUs = 0;
    };

    // Sends an authenticated request, answering 401 and 438 by itself.
    void request(stun::Method method, std::vector<stun::Attribute> payload, int64_t nowUs, Reply reply,
                 int retries = 2);
    void askPermission(const std::string& ip, const net::SocketAddress& peer, int64_t nowUs);
    void askChannel(const net::SocketAddress& peer, int64_t nowUs);
    void refresh(uint32_t lifetime, int64_t nowUs);
    void sendIndication(const net::SocketAddress& peer, std::span<const uint8_t> bytes);
    void fail(const char* why);

    TurnServerOptions options_;
    SendToServer send_;
    StunRetransmitOptions retransmit_;
    StunTransactions transactions_;
    State state_ = State::Idle;
    std::function<void(bool)> allocated_;
    std::string realm_;
    std::string nonce_;
    std::vector<uint8_t> key_;  // MD5(username:realm:password) once the realm is known
    std::optional<net::SocketAddress> relayed_;
    std::optional<net::SocketAddress> mapped_;
    int64_t refreshAtUs_ = 0;
    int64_t nowUs_ = 0;
    std::map<std::string, Permission> permissions_;  // by peer IP
    std::map<net::SocketAddress, Channel> channels_;
    uint16_t nextChannel_ = 0x4000;
};

}  // namespace kelsip::ice
