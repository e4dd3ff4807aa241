// What every part of the user agent shares: configuration, loop, transports,
// transactions, DNS, the listener, and the helpers that build and send.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "media/rtp/rtp_io_service.h"
#include "media/rtp/rtp_port_allocator.h"
#include "sip/auth/digest.h"
#include "sip/core/event_loop.h"
#include "sip/dns/dns_client.h"
#include "sip/dns/server_location.h"
#include "sip/transaction/transaction.h"
#include "sip/transport/stream_transport.h"
#include "sip/transport/udp_transport.h"
#include "sip/ua/dialog.h"
#include "sip/ua/line.h"
#include "sip/ua/user_agent.h"

namespace kelsip {

// The methods we take, as Allow headers list them.
inline constexpr std::string_view kUserAgentAllow =
    "INVITE, ACK, CANCEL, BYE, OPTIONS, INFO, NOTIFY, PRACK, UPDATE, REFER, SUBSCRIBE, MESSAGE";

// Seconds after a granted expiry at which a registration, subscription or
// publication is refreshed: 30 s ahead, or halfway for short ones.
inline int64_t refreshAfterSeconds(int64_t granted) {
    if (granted >= 61) return granted - 30;
    const int64_t half = granted / 2;
    return half < 2 ? 1 : half;
}

// The expiry a 423 asks for: its Min-Expires when that is a positive number,
// capped to what an int holds.
inline std::optional<int> minExpiresOf(const SipMessage& response) {
    const auto minExpires = parseHeaderInteger(response.header("Min-Expires").value_or(""));
    if (!minExpires || *minExpires <= 0) return std::nullopt;
    return static_cast<int>(std::min<int64_t>(*minExpires, INT32_MAX));
}

// The option tags of every Require header, trimmed.
[[nodiscard]] std::vector<std::string> requiredTags(const SipMessage& request);
// The Require tags we do not support ("100rel", "replaces" and "timer" we
// do), comma-separated; empty when there are none.
[[nodiscard]] std::string unsupportedRequirements(const SipMessage& request);

// Owned by UserAgent::Impl and touched only on the loop thread; every part
// of the user agent holds a reference to it.
class UaContext {
public:
    explicit UaContext(UserAgentConfig config);

    [[nodiscard]] net::SocketAddress localAddress(TransportKind kind) const;
    bool sendText(std::string_view text, const SipTarget& target);
    // Via and Contact name the line's public address when it has one.
    [[nodiscard]] std::string viaFor(const SipTarget& target, const Line* line = nullptr) const;
    [[nodiscard]] std::string contactHost(const SipTarget& target, const Line* line = nullptr) const;
    // Our own address toward `target`, with our transport's port.
    [[nodiscard]] net::SocketAddress ownAddressToward(const SipTarget& target) const;
    // The host address the system sends from toward `destination`; one of
    // `hostAddresses` when the route names none of them (port 0).
    [[nodiscard]] std::optional<net::SocketAddress> sourceAddressToward(const net::SocketAddress& destination) const;
    [[nodiscard]] std::string randomToken(size_t length);
    // Signs `request` with the account's credentials for `challenge`; each
    // signed request counts one more use of the nonce.
    static void addCredentials(SipMessage& request, const LineConfig& account, const DigestChallenge& challenge,
                               DigestRequest& digest);
    // Requests within any dialog, a call's or a subscription's.
    [[nodiscard]] SipMessage buildDialogRequest(Dialog& dialog, std::string_view method, const SipTarget& target);
    [[nodiscard]] static SipTarget dialogTarget(const Dialog& dialog, const SipTarget& fallback);
    // A sips Contact when the request is for a sips URI (RFC 3261 8.1.1.8).
    [[nodiscard]] std::string contactUri(const Line* line, const SipTarget& target, bool sips = false) const;
    // The name each located target's certificate must carry: the SIP domain
    // of the URI it was found for. A URI with an address (an outbound
    // proxy given by IP) stands for the line's domain.
    static void nameTargets(std::vector<SipTarget>& targets, const SipUri& uri, const std::string& domain);
    // The `transport` parameter that makes the lookup honour the account's choice.
    [[nodiscard]] static std::string_view transportParam(TransportKind kind);
    [[nodiscard]] std::string addressOfRecord(const Line& line, const SipTarget& toward) const;
    // The PIDF document of a line's presence, its entity as seen from `toward`.
    [[nodiscard]] std::string presenceDocument(const Line& line, const SipTarget& toward) const;
    // A bare user within the line's domain; "user@host" gets the scheme.
    [[nodiscard]] static std::optional<SipUri> completeTarget(const Line& line, const std::string& target);
    void respond(const std::string& key, const SipMessage& request, int code, std::string_view reason = {},
                 const std::vector<std::pair<std::string, std::string>>& extra = {});
    // With no call and no transaction left, what a burst of them took
    // (media sessions, buffers, answers kept for repeats) goes back to the
    // system rather than staying with the process. Calls tell it when their
    // last one is gone; the transaction layer when its last one is.
    std::function<size_t()> liveCalls;
    void releaseMemoryIfIdle() const;

    UserAgentConfig config;
    std::unique_ptr<EventLoop> loop;
    std::unique_ptr<UdpTransport> udp;
    std::unique_ptr<StreamTransport> tcp;
    std::unique_ptr<StreamTransport> tls;
    std::unique_ptr<SipTransactionLayer> transactions;
    std::unique_ptr<dns::DnsClient> dns;
    std::unique_ptr<dns::ServerLocator> locator;
    std::shared_ptr<RtpIoService> rtpIo;
    std::unique_ptr<RtpPortAllocator> rtpPorts;
    std::shared_ptr<UserAgentListener> listener;
    std::mt19937 random;
    // The host's addresses at the last look; empty before the first.
    std::vector<net::SocketAddress> hostAddresses;
    bool started = false;
};

}  // namespace kelsip
