// Staying reachable, in virtual time against a scripted registrar: the address it saw us from,
// keep-alives over UDP and TCP with their recovery, a NAT rebinding, and the host's address changing.
#include <gtest/gtest.h>

#include "sip/net/stun_message.h"
#include "sip/syntax/address.h"
#include "support/virtual_user_agent.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

class ReachabilityTest : public test::VirtualUserAgentTest {
protected:
    explicit ReachabilityTest(const std::function<void(UserAgentConfig&)>& adjust = {})
        : VirtualUserAgentTest([&](UserAgentConfig& config) {
              config.networkPollMs = 0;
              if (adjust) adjust(config);
          }) {}
    // The line registers with the peer; its 200 carries `extra` header lines.
    int registered(const std::string& extra = "") {
        const int line = addLine(peer.hostPort());
        EXPECT_TRUE(ua->registerLine(line));
        const auto reg = peer.expect("REGISTER", pump);
        EXPECT_TRUE(reg);
        if (reg) answer(*reg, 200, extra + "Expires: 3600\r\n");
        EXPECT_TRUE(settle([&] { return ua->registrationState(line) == RegistrationState::Registered; }));
        return line;
    }
    // Virtual time moves on in 100 ms steps until a STUN request comes:
    // how long that took, or nothing within `limit`.
    std::optional<int64_t> nextStun(std::chrono::milliseconds limit, stun::Message* out = nullptr) {
        const int64_t start = clock->nowNs();
        for (int64_t t = 0; t <= limit.count(); t += 100) {
            if (auto got = peer.expectStun(pump, 2ms)) {
                if (out != nullptr) *out = *stun::parse(got->first);
                return (clock->nowNs() - start) / 1'000'000;
            }
            advance(100ms);
        }
        return std::nullopt;
    }
    [[nodiscard]] bool logged(const std::string& part) const {
        for (const std::string& l : logs.lines()) {
            if (l.find(part) != std::string::npos) return true;
        }
        return false;
    }
    // The peer answers a Binding request with `mapped` as our address.
    void answerStun(const stun::Message& request, const net::SocketAddress& mapped) {
        stun::Message ok = stun::Message::responseTo(request, stun::Class::Success);
        ok.addXorAddress(stun::attr::kXorMappedAddress, mapped);
        const auto bytes = stun::encode(ok);
        peer.send(std::string(bytes.begin(), bytes.end()), ua->localAddress(TransportKind::Udp));
        pump();
    }
    static std::string contacts(const SipMessage& m) {
        std::string all;
        for (const std::string& c : m.headers("Contact")) all += (all.empty() ? "" : ", ") + c;
        return all;
    }
};

TEST_F(ReachabilityTest, TheRegistrarsViewInViaReplacesTheContactOnlyWhenItIsNotOurOwn) {
    const struct {
        const char* name;
        std::string received;
        std::string rport;
        bool registersAgain;
    } cases[] = {
        {"behind a NAT", "192.0.2.7", "40000", true},
        {"no NAT", "127.0.0.1", std::to_string(ua->localAddress(TransportKind::Udp).port()), false},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int line = addLine(peer.hostPort(), "user" + std::to_string(++n));
        ASSERT_TRUE(ua->registerLine(line));
        auto reg = peer.expect("REGISTER", pump);
        ASSERT_TRUE(reg);
        const std::string own = *reg->contact();
        auto via = *Via::parse(reg->vias().front());
        via.setParam("received", c.received);
        via.setParam("rport", c.rport);
        SipMessage ok = makeResponse(*reg, 200, "", "peer");
        ok.replaceHeader("Via", 0, via.toString());
        ok.addHeader("Contact", own + ";expires=3600");
        peer.send(ok.toString(), ua->localAddress(TransportKind::Udp));
        if (!c.registersAgain) {
            EXPECT_TRUE(peer.quiet("REGISTER", pump, 100ms));
            continue;
        }
        reg = peer.expect("REGISTER", pump);
        ASSERT_TRUE(reg);
        const std::string seen = c.received + ":" + c.rport;
        EXPECT_NE(reg->vias().front().find("SIP/2.0/UDP " + seen + ";"), std::string::npos) << reg->vias().front();
        const std::string stale = own.substr(0, own.find('>') + 1) + ";expires=0";
        EXPECT_EQ(contacts(*reg), "<sip:user" + std::to_string(n) + "@" + seen +
                                      ">;+sip.instance=\"<" + own.substr(own.find("urn:")) + ", " + stale);
        // Registered at the public address, the line stays there.
        via = *Via::parse(reg->vias().front());
        via.setParam("received", c.received);
        via.setParam("rport", c.rport);
        ok = makeResponse(*reg, 200, "", "peer");
        ok.replaceHeader("Via", 0, via.toString());
        peer.send(ok.toString(), ua->localAddress(TransportKind::Udp));
        EXPECT_TRUE(peer.quiet("REGISTER", pump, 100ms));
        EXPECT_EQ(ua->registrationState(line), RegistrationState::Registered);
    }
}

TEST_F(ReachabilityTest, UdpKeepAlivesFollowTheFlowTimerAndARebindingRegistersTheNewContact) {
    registered("Flow-Timer: 20\r\n");
    const net::SocketAddress us = ua->localAddress(TransportKind::Udp);
    stun::Message ping;
    EXPECT_EQ(nextStun(21s, &ping), 20000);
    EXPECT_EQ(ping.method, stun::Method::Binding);
    answerStun(ping, us);  // the registrar sees our own address: nothing to do
    EXPECT_TRUE(peer.quiet("REGISTER", pump, 50ms));
    EXPECT_EQ(nextStun(21s, &ping), 20000);
    const auto rebound = *net::SocketAddress::parseWithPort("192.0.2.50:40000");
    answerStun(ping, rebound);
    const auto reg = peer.expect("REGISTER", pump);
    ASSERT_TRUE(reg);
    EXPECT_EQ(reg->contact()->find("<sip:alice@192.0.2.50:40000>"), 0U) << *reg->contact();
    EXPECT_NE(contacts(*reg).find("<sip:alice@" + us.toString() + ">;expires=0"), std::string::npos);
}

TEST_F(ReachabilityTest, AnUnansweredStunKeepAliveRegistersAgainOnlyOnceTheRegistrarSpokeStun) {
    registered();
    // The first goes unanswered, resent at 0.5, 1.5, 3.5 and 7.5 s: a
    // registrar that never spoke STUN proves nothing by its silence.
    std::vector<int64_t> sent;
    int64_t at = 0;
    while (auto wait = nextStun(sent.empty() ? 31s : 12s)) sent.push_back(at += *wait);
    EXPECT_EQ(sent, (std::vector<int64_t>{30000, 30500, 31500, 33500, 37500}));
    EXPECT_TRUE(peer.quiet("REGISTER", pump, 50ms));
    stun::Message ping;
    ASSERT_TRUE(nextStun(20s, &ping));
    answerStun(ping, ua->localAddress(TransportKind::Udp));
    // Now the next one's silence is a failed flow: registering again at
    // once, 10 s after it went.
    ASSERT_EQ(nextStun(31s), 30000);
    std::optional<SipMessage> again;
    const int64_t from = clock->nowNs();
    for (int s = 0; s <= 10 && !again; ++s) {
        again = peer.expect("REGISTER", pump, 2ms);
        if (!again) advance(1s);
    }
    ASSERT_TRUE(again);
    EXPECT_EQ((clock->nowNs() - from) / 1'000'000, 10000);
    EXPECT_TRUE(logged("failed: stun keep-alive unanswered"));
}

// A registrar over TCP in the test: accepts, reads and answers on loopback.
class TcpRegistrar {
public:
    TcpRegistrar() {
        listener_ = net::Socket::open(net::AddressFamily::V4, net::SocketType::Tcp);
        (void)listener_.setReuseAddress(true);
        (void)listener_.bind(net::SocketAddress::loopback(net::AddressFamily::V4));
        (void)listener_.listen(4);
        (void)listener_.setNonBlocking(true);
    }
    [[nodiscard]] std::string hostPort() const { return listener_.localAddress()->toString(); }
    // Pumps until a connection was accepted and `bytes` hold what `done` wants; false on time-out or close.
    bool read(const test::ScriptedPeer::Pump& pump, const std::function<bool(const std::string&)>& done,
              std::chrono::milliseconds limit = 5s) {
        return test::waitFor(
            [&] {
                pump();
                if (auto s = listener_.accept(nullptr)) {
                    (void)s->setNonBlocking(true);
                    connection_ = std::move(*s);
                    in_.clear();
                }
                char buf[4096];
                if (connection_.valid()) {
                    const auto r = connection_.receive(buf, sizeof buf);
                    if (r.ok()) in_.append(buf, r.bytes);
                    if (r.status == net::IoResult::Status::Closed) {
                        connection_.close();
                        closed_ = true;
                    }
                }
                return done(in_);
            },
            limit);
    }
    std::optional<SipMessage> expectRegister(const test::ScriptedPeer::Pump& pump) {
        size_t used = 0;
        std::optional<std::string> whole;
        if (!read(pump, [&](const std::string& in) {
                const auto m = frameStreamMessage(in, used);
                if (m) whole = std::string(*m);
                return m.has_value();
            })) {
            return std::nullopt;
        }
        in_.erase(0, used);
        return SipMessage::parse(*whole);
    }
    void send(const std::string& text) { (void)connection_.send(text.data(), text.size()); }
    std::string take() { return std::exchange(in_, {}); }
    bool closedSince() { return std::exchange(closed_, false); }

private:
    net::Socket listener_;
    net::Socket connection_;
    std::string in_;
    bool closed_ = false;
};

class StreamReachabilityTest : public ReachabilityTest {
protected:
    StreamReachabilityTest() : ReachabilityTest([](UserAgentConfig& c) { c.tcpPort = 0; }) {}
};

TEST_F(StreamReachabilityTest, APingWithoutPongRegistersAgainOverANewConnection) {
    TcpRegistrar registrar;
    LineConfig config;
    config.user = "alice";
    config.domain = registrar.hostPort();
    config.transport = TransportKind::Tcp;
    const int line = ua->addLine(config);
    ASSERT_TRUE(ua->registerLine(line));
    auto reg = registrar.expectRegister(pump);
    ASSERT_TRUE(reg);
    registrar.send(makeResponse(*reg, 200, "", "r").toString());
    ASSERT_TRUE(settle([&] { return ua->registrationState(line) == RegistrationState::Registered; }));
    const auto pingWithin = [&](std::chrono::seconds limit) -> std::optional<int64_t> {
        for (int64_t s = 0; s <= limit.count(); ++s) {
            if (registrar.read(pump, [](const std::string& in) { return in == "\r\n\r\n"; }, 5ms)) {
                registrar.take();
                return s;
            }
            advance(1s);
        }
        return std::nullopt;
    };
    // Answered: the flow stands and the pings go on every 30 s.
    EXPECT_EQ(pingWithin(31s), 30);
    registrar.send("\r\n");
    ASSERT_TRUE(settle([&] { return logs.has("line 1: pong from"); }));
    EXPECT_EQ(pingWithin(31s), 30);
    // Unanswered: 10 s later that connection is dropped and a new one registers.
    advance(9s);
    EXPECT_FALSE(registrar.read(pump, [&](const std::string&) { return registrar.closedSince(); }, 20ms));
    advance(1s);
    reg = registrar.expectRegister(pump);
    ASSERT_TRUE(reg);
    EXPECT_TRUE(logged("failed: no pong within 10000 ms"));
}

TEST_F(ReachabilityTest, AnAddressChangeRegistersAgainAndReoffersTheCallFromTheNewAddress) {
    auto addresses = std::make_shared<std::vector<net::SocketAddress>>(
        std::vector<net::SocketAddress>{*net::SocketAddress::parse("127.0.0.1")});
    auto wallMs = std::make_shared<int64_t>(1'000'000);
    VirtualUserAgentTest::ua.reset();
    UserAgentConfig config;
    config.bindAddress = "0.0.0.0";
    config.udpPort = 0;
    config.tcpPort = -1;
    config.clock = clock;
    config.networkPollMs = 3000;
    config.localAddressSource = [addresses] { return *addresses; };
    config.wallClockMs = [wallMs, this] { return *wallMs + clock->nowNs() / 1'000'000; };
    ua = std::make_unique<UserAgent>(config);
    ASSERT_TRUE(ua->start());
    const int line = registered();
    const int call = ua->makeCall(line, "sip:bob@" + peer.hostPort());
    auto invite = peer.expect("INVITE", pump);
    ASSERT_TRUE(invite);
    EXPECT_NE(invite->body.find("c=IN IP4 127.0.0.1"), std::string::npos);
    const auto answerInvite = [&](const SipMessage& inv) {
        SipMessage ok = makeResponse(inv, 200, "", "bob");
        ok.addHeader("Contact", "<sip:bob@" + peer.hostPort() + ">");
        ok.addHeader("Content-Type", "application/sdp");
        ok.body = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio 40000 RTP/AVP 0\r\n";
        peer.send(ok.toString(), *net::SocketAddress::parseWithPort("127.0.0.1:" +
                                                                    std::to_string(ua->localAddress(TransportKind::Udp).port())));
        EXPECT_TRUE(peer.expect("ACK", pump));
    };
    answerInvite(*invite);
    ASSERT_TRUE(settle([&] { return ua->callInfo(call) && ua->callInfo(call)->state == "Connected"; }));
    const std::string port = std::to_string(ua->localAddress(TransportKind::Udp).port());

    *addresses = {*net::SocketAddress::parse("127.0.0.2")};
    advance(3s);
    auto reg = peer.expect("REGISTER", pump);
    ASSERT_TRUE(reg);
    EXPECT_EQ(contacts(*reg).find("<sip:alice@127.0.0.2:" + port + ">"), 0U) << contacts(*reg);
    EXPECT_NE(contacts(*reg).find("<sip:alice@127.0.0.1:" + port + ">;expires=0"), std::string::npos);
    invite = peer.expect("INVITE", pump);
    ASSERT_TRUE(invite);
    EXPECT_NE(invite->body.find("c=IN IP4 127.0.0.2"), std::string::npos) << invite->body;
    EXPECT_EQ(invite->contact(), "<sip:alice@127.0.0.2:" + port + ">");
    answer(*reg, 200, "Expires: 3600\r\n");
    answerInvite(*invite);

    // Waking from sleep: the wall clock ran a minute ahead of the loop's. Same addresses, same round.
    *wallMs += 60000;
    advance(3s);
    EXPECT_TRUE(peer.expect("REGISTER", pump));
    EXPECT_TRUE(peer.expect("INVITE", pump));
    EXPECT_TRUE(logs.has("resumed after about 60 s asleep"));
}

}  // namespace
}  // namespace kelsip
