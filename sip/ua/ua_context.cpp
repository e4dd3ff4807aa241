// The user agent's shared context: the instance and random tokens, the
// addresses we name, and the requests and answers every part builds.
#include "sip/ua/ua_context.h"

#include "sip/core/system.h"
#include "sip/syntax/address.h"
#include "sip/syntax/text.h"

namespace kelsip {

namespace {

std::string makeInstanceId() {
    uint8_t b[16];
    if (!platform::secureRandom(b, sizeof b)) std::fill(std::begin(b), std::end(b), uint8_t{0x5a});
    b[6] = static_cast<uint8_t>((b[6] & 0x0F) | 0x40);  // RFC 4122 version 4
    b[8] = static_cast<uint8_t>((b[8] & 0x3F) | 0x80);
    char text[64];
    std::snprintf(text, sizeof text, "urn:uuid:%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                  b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
    return text;
}

}  // namespace

std::vector<std::string> requiredTags(const SipMessage& request) {
    std::vector<std::string> tags;
    for (const std::string& value : request.headers("Require")) {
        text::forEachTopLevel(value, ',', [&](std::string_view item) {
            const auto t = text::trim(item);
            if (!t.empty()) tags.emplace_back(t);
        });
    }
    return tags;
}

std::string unsupportedRequirements(const SipMessage& request) {
    std::string unsupported;
    for (const std::string& tag : requiredTags(request)) {
        if (tag == "100rel" || tag == "replaces" || tag == "timer") continue;
        unsupported += (unsupported.empty() ? "" : ", ") + tag;
    }
    return unsupported;
}

UaContext::UaContext(UserAgentConfig c) : config(std::move(c)), loop(std::make_unique<EventLoop>(config.clock)) {
    uint32_t seed = 0;
    if (!platform::secureRandom(&seed, sizeof seed)) seed = static_cast<uint32_t>(std::random_device{}());
    random.seed(seed);
    if (config.instanceId.empty()) config.instanceId = makeInstanceId();
}

net::SocketAddress UaContext::localAddress(TransportKind kind) const {
    if (kind == TransportKind::Udp && udp) return udp->localAddress();
    if (kind == TransportKind::Tcp && tcp) return tcp->localAddress();
    if (kind == TransportKind::Tls && tls) return tls->localAddress();
    return {};
}

bool UaContext::sendText(std::string_view text, const SipTarget& target) {
    SipTransport* transport = nullptr;
    if (target.kind == TransportKind::Udp) transport = udp.get();
    if (target.kind == TransportKind::Tcp) transport = tcp.get();
    if (target.kind == TransportKind::Tls) transport = tls.get();
    return transport != nullptr && transport->send(text, target);
}

std::string UaContext::randomToken(size_t length) {
    static constexpr std::string_view kAlphabet = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::uniform_int_distribution<size_t> pick(0, kAlphabet.size() - 1);
    std::string out;
    for (size_t i = 0; i < length; ++i) out += kAlphabet[pick(random)];
    return out;
}

void UaContext::addCredentials(SipMessage& request, const LineConfig& account, const DigestChallenge& challenge,
                                     DigestRequest& digest) {
    digest.username = account.authUser.empty() ? account.user : account.authUser;
    digest.password = account.password;
    digest.method = request.method;
    digest.uri = request.requestUri.toString();
    ++digest.nonceCount;
    request.addHeader(authorizationHeaderName(challenge), buildAuthorization(challenge, digest));
}

std::optional<net::SocketAddress> UaContext::sourceAddressToward(const net::SocketAddress& destination) const {
    auto toward = net::localAddressToward(destination);
    if (hostAddresses.empty()) return toward;
    if (toward && std::find(hostAddresses.begin(), hostAddresses.end(), *toward) != hostAddresses.end()) return toward;
    // The routing table lags behind the interfaces (or a test names them):
    // an address the host still has beats one it gave up.
    for (const net::SocketAddress& a : hostAddresses) {
        if (a.family() == destination.family() && a.isLoopback() == destination.isLoopback()) return a;
    }
    return toward;
}

net::SocketAddress UaContext::ownAddressToward(const SipTarget& target) const {
    // The address the system would send from towards this target, with the
    // port our transport of that kind listens on.
    net::SocketAddress local = localAddress(target.kind);
    if (local.isAny()) {
        if (const auto toward = sourceAddressToward(target.address)) {
            const uint16_t port = local.port();
            local = *toward;
            local.setPort(port);
        }
    }
    return local;
}

std::string UaContext::contactHost(const SipTarget& target, const Line* line) const {
    if (line != nullptr && line->publicAddress && line->config.transport == target.kind) {
        return line->publicAddress->toString();
    }
    return ownAddressToward(target).toString();
}

std::string UaContext::viaFor(const SipTarget& target, const Line* line) const {
    return "SIP/2.0/" + std::string(transportName(target.kind)) + " " + contactHost(target, line) + ";rport";
}

SipTarget UaContext::dialogTarget(const Dialog& dialog, const SipTarget& fallback) {
    // The first route, else the remote target, when it names an address
    // directly; otherwise where the request that made the dialog went.
    std::optional<SipUri> next;
    if (!dialog.routeSet.empty()) {
        if (const auto na = NameAddr::parse(dialog.routeSet.front())) next = na->uri;
    } else {
        next = dialog.remoteTarget;
    }
    if (next) {
        const auto transport = next->param("transport");
        TransportKind kind = TransportKind::Udp;
        if (next->scheme == "sips" || (transport && text::iequals(*transport, "tls"))) {
            kind = TransportKind::Tls;
        } else if (transport && text::iequals(*transport, "tcp")) {
            kind = TransportKind::Tcp;
        }
        if (const auto address = net::SocketAddress::parse(next->host, next->port ? next->port : defaultPort(kind))) {
            // Over TLS the flow the dialog began on carries it on (the
            // transport reuses a connection to that address); a new one
            // is checked against the name the dialog was reached by.
            return SipTarget{kind, *address, 0, kind == TransportKind::Tls ? fallback.host : std::string()};
        }
    }
    return fallback;
}

SipMessage UaContext::buildDialogRequest(Dialog& dialog, std::string_view method, const SipTarget& target) {
    SipMessage m;
    m.isRequest = true;
    m.method = std::string(method);
    m.requestUri = dialog.remoteTarget;
    m.addHeader("Via", viaFor(target));
    m.addHeader("Max-Forwards", "70");
    for (const std::string& route : dialog.routeSet) m.addHeader("Route", route);
    m.addHeader("From", dialog.localUri + ";tag=" + dialog.localTag);
    m.addHeader("To", dialog.remoteUri + (dialog.remoteTag.empty() ? "" : ";tag=" + dialog.remoteTag));
    m.addHeader("Call-ID", dialog.callId);
    // ACK keeps the INVITE's number; everything else takes the next one.
    const uint32_t cseq = method == "ACK" ? dialog.localCseq : ++dialog.localCseq;
    m.addHeader("CSeq", std::to_string(cseq) + " " + std::string(method));
    return m;
}

std::string UaContext::contactUri(const Line* line, const SipTarget& target, bool sips) const {
    const std::string user = line != nullptr ? escapeUriUser(line->config.user) : "kelsip";
    if (sips && target.kind == TransportKind::Tls) return "<sips:" + user + "@" + contactHost(target, line) + ">";
    std::string contact = "<sip:" + user + "@" + contactHost(target, line);
    if (target.kind == TransportKind::Tcp) contact += ";transport=tcp";
    if (target.kind == TransportKind::Tls) contact += ";transport=tls";
    return contact + ">";
}

void UaContext::nameTargets(std::vector<SipTarget>& targets, const SipUri& uri, const std::string& domain) {
    const bool literal = net::SocketAddress::parse(uri.host).has_value();
    const std::string& name = literal && !domain.empty() ? domain : uri.host;
    for (SipTarget& t : targets) t.host = name;
}

std::string_view UaContext::transportParam(TransportKind kind) {
    switch (kind) {
        case TransportKind::Udp: return "udp";
        case TransportKind::Tcp: return "tcp";
        case TransportKind::Tls: return "tls";
    }
    return "udp";
}

std::string UaContext::addressOfRecord(const Line& line, const SipTarget& toward) const {
    // A line without a domain (peer to peer) is known by where it listens.
    const std::string host = line.config.domain.empty() ? contactHost(toward) : line.config.domain;
    return "sip:" + escapeUriUser(line.config.user) + "@" + host;
}

void UaContext::respond(const std::string& key, const SipMessage& request, int code, std::string_view reason,
                              const std::vector<std::pair<std::string, std::string>>& extra) {
    SipMessage answer = makeResponse(request, code, reason, request.toTag().empty() ? randomToken(10) : "");
    for (const auto& [name, value] : extra) answer.addHeader(name, value);
    answer.addHeader("Server", config.userAgent);
    (void)transactions->sendResponse(key, answer);
}

void UaContext::releaseMemoryIfIdle() const {
    if (transactions && (transactions->clientCount() > 0 || transactions->serverCount() > 0)) return;
    if (liveCalls && liveCalls() > 0) return;
    platform::releaseFreeMemory();
}

std::optional<SipUri> UaContext::completeTarget(const Line& line, const std::string& target) {
    std::string text = target;
    if (text.rfind("sip:", 0) != 0 && text.rfind("sips:", 0) != 0 && text.rfind("tel:", 0) != 0) {
        text = "sip:" + (text.find('@') == std::string::npos ? escapeUriUser(text) + "@" + line.config.domain : text);
    }
    return SipUri::parse(text);
}

std::string UaContext::presenceDocument(const Line& line, const SipTarget& toward) const {
    return buildPresenceDocument(addressOfRecord(line, toward), line.presence);
}

}  // namespace kelsip
