// Registration against real registrars: Kamailio over UDP and TCP (digest,
// refresh, un-registering, a wrong password), Kamailio found through DNS SRV
// behind a dead server, and SIPp for the answers Kamailio will not give on
// demand (423, 503, push support).
#include <gtest/gtest.h>

#include <mutex>

#include "interop/support/interop_test.h"
#include "sip/net/socket.h"
#include "sip/ua/user_agent.h"
#include "support/wait.h"

namespace kelsip {

// Test names and failure messages show the transport by name.
static void PrintTo(TransportKind kind, std::ostream* out) { *out << transportName(kind); }

namespace {

using namespace std::chrono_literals;
using test::KamailioOptions;

class StateRecorder : public UserAgentListener {
public:
    void onRegistrationState(int, RegistrationState state, int code, const std::string&) override {
        std::lock_guard lock(mutex_);
        states_.push_back(std::string(toString(state)) + " " + std::to_string(code));
    }
    std::vector<std::string> states() {
        std::lock_guard lock(mutex_);
        return states_;
    }

private:
    std::mutex mutex_;
    std::vector<std::string> states_;
};

class RegistrationInteropTest : public test::InteropTest {
protected:
    // A user agent on loopback in real time; `t1Ms` shortens UDP time-outs
    // (64 x T1) where a test waits for one.
    void startUserAgent(int64_t t1Ms = 500, std::vector<net::SocketAddress> dns = {}) {
        UserAgentConfig config = loopbackConfig(true, t1Ms);
        config.dnsServers = std::move(dns);
        ua = startLoopbackUserAgent(config, recorder);
        ASSERT_TRUE(ua);
    }

    int addLine(const std::string& domain, TransportKind transport = TransportKind::Udp, int expires = 3600,
                const std::string& password = "secret") {
        LineConfig line;
        line.user = "alice";
        line.password = password;
        line.domain = domain;
        line.transport = transport;
        line.expires = expires;
        line.reregisterOnFailure = false;
        return ua->addLine(line);
    }

    bool reaches(int line, RegistrationState state, std::chrono::milliseconds timeout = 5s) {
        return test::waitFor([&] { return ua->registrationState(line) == state; }, timeout);
    }

    std::shared_ptr<StateRecorder> recorder = std::make_shared<StateRecorder>();
    std::unique_ptr<UserAgent> ua;
};

// Kamailio over each transport the line can choose.
class KamailioRegistrationTest : public RegistrationInteropTest,
                                 public ::testing::WithParamInterface<TransportKind> {};

INSTANTIATE_TEST_SUITE_P(Transports, KamailioRegistrationTest, ::testing::Values(TransportKind::Udp, TransportKind::Tcp),
                         [](const auto& p) { return std::string(transportName(p.param)); });

TEST_P(KamailioRegistrationTest, RegistersWithDigestRefreshesAndUnregisters) {
    KamailioOptions options;
    options.minExpires = 2;
    auto* kamailio = startKamailio(options);
    ASSERT_TRUE(kamailio);
    startUserAgent();
    const int line = addLine(kamailio->hostPort(), GetParam(), 4);
    ASSERT_TRUE(ua->registerLine(line));

    ASSERT_TRUE(reaches(line, RegistrationState::Registered));
    EXPECT_EQ(ua->lineInfo(line)->expires, 4);
    // Kamailio logs the binding after it has answered.
    EXPECT_TRUE(test::waitFor([&] { return kamailio->bindingsSaved("alice") == 1; }, 2s));
    // Kamailio challenged first: the binding needed the digest.
    EXPECT_EQ(kamailio->requestsSeen("REGISTER", "alice"), 2);
    EXPECT_EQ(kamailio->optionsTo("alice"), 200) << "Kamailio holds no binding that reaches the user agent";

    // A 4 s binding is refreshed every 2 s; two refreshes carry it past the
    // first expiry, and the line never leaves Registered on the way.
    ASSERT_TRUE(test::waitFor([&] { return kamailio->bindingsSaved("alice") >= 3; }, 7s))
        << kamailio->bindingsSaved("alice") << " bindings saved";
    EXPECT_EQ(kamailio->optionsTo("alice"), 200) << "the binding lapsed despite the refreshes";
    EXPECT_EQ(ua->registrationState(line), RegistrationState::Registered);

    ASSERT_TRUE(ua->unregisterLine(line));
    ASSERT_TRUE(reaches(line, RegistrationState::Unregistered));
    EXPECT_EQ(kamailio->optionsTo("alice"), 404) << "the binding is still there after un-registering";
    EXPECT_EQ(recorder->states(), (std::vector<std::string>{"Registering 0", "Registered 200", "Unregistering 0",
                                                            "Unregistered 200"}));
}

TEST_P(KamailioRegistrationTest, AWrongPasswordFailsWithoutHammeringTheRegistrar) {
    auto* kamailio = startKamailio();
    ASSERT_TRUE(kamailio);
    startUserAgent();
    const int line = addLine(kamailio->hostPort(), GetParam(), 3600, "not-the-password");
    ASSERT_TRUE(ua->registerLine(line));

    ASSERT_TRUE(reaches(line, RegistrationState::Failed));
    const int code = ua->lineInfo(line)->statusCode;
    EXPECT_TRUE(code == 401 || code == 403) << code;
    const int seen = kamailio->requestsSeen("REGISTER", "alice");
    EXPECT_GE(seen, 2);
    EXPECT_LE(seen, 3);
    // Nothing more follows the failure.
    EXPECT_FALSE(test::waitFor([&] { return kamailio->requestsSeen("REGISTER", "alice") > seen; }, 1s));
    EXPECT_EQ(kamailio->bindingsSaved("alice"), 0);
    EXPECT_EQ(kamailio->optionsTo("alice"), 404);
}

TEST_F(RegistrationInteropTest, ARefreshAnswersTheChallengeOfAnExpiredNonce) {
    KamailioOptions options;
    options.minExpires = 2;
    options.nonceExpires = 1;
    auto* kamailio = startKamailio(options);
    ASSERT_TRUE(kamailio);
    startUserAgent();
    const int line = addLine(kamailio->hostPort(), TransportKind::Udp, 4);
    ASSERT_TRUE(ua->registerLine(line));
    ASSERT_TRUE(reaches(line, RegistrationState::Registered));

    // Each refresh comes after the nonce has expired: Kamailio challenges
    // it as stale and the line answers at once.
    ASSERT_TRUE(test::waitFor([&] { return kamailio->bindingsSaved("alice") >= 3; }, 7s))
        << kamailio->bindingsSaved("alice") << " bindings saved";
    EXPECT_GE(kamailio->requestsSeen("REGISTER", "alice"), 6);
    EXPECT_EQ(recorder->states(), (std::vector<std::string>{"Registering 0", "Registered 200"}));
    EXPECT_EQ(kamailio->optionsTo("alice"), 200);
    ASSERT_TRUE(ua->unregisterLine(line));
    ASSERT_TRUE(reaches(line, RegistrationState::Unregistered));
}

TEST_F(RegistrationInteropTest, ShutdownWithdrawsTheBindingAndWaitsForTheAnswer) {
    auto* kamailio = startKamailio();
    ASSERT_TRUE(kamailio);
    startUserAgent();
    const int line = addLine(kamailio->hostPort(), TransportKind::Udp, 3600);
    ASSERT_TRUE(ua->registerLine(line));
    ASSERT_TRUE(reaches(line, RegistrationState::Registered));
    // The answer to the un-REGISTER races the shutdown itself: run under the
    // thread sanitizer, this is what keeps the two apart.
    ua->shutdown(3s);
    EXPECT_TRUE(logs().has("line " + std::to_string(line) + ": un-registering before shutdown"));
    EXPECT_FALSE(logs().has("no answer to the un-REGISTER within"));
    EXPECT_EQ(kamailio->optionsTo("alice"), 404);
}

TEST_F(RegistrationInteropTest, TwoDevicesOnOneAccountEachKeepTheirOwnExpiry) {
    auto* kamailio = startKamailio();
    ASSERT_TRUE(kamailio);
    startUserAgent();
    const int first = addLine(kamailio->hostPort(), TransportKind::Udp, 3600);
    ASSERT_TRUE(ua->registerLine(first));
    ASSERT_TRUE(reaches(first, RegistrationState::Registered));

    UserAgentConfig config;
    config.bindAddress = "127.0.0.1";
    config.udpPort = 0;
    config.tcpPort = -1;
    UserAgent other(config);
    ASSERT_TRUE(other.start());
    LineConfig c;
    c.user = "alice";
    c.password = "secret";
    c.domain = kamailio->hostPort();
    c.expires = 120;
    const int second = other.addLine(c);
    ASSERT_TRUE(other.registerLine(second));
    ASSERT_TRUE(test::waitFor([&] { return other.registrationState(second) == RegistrationState::Registered; }, 5s));

    // Kamailio's 200 lists both bindings, the other device's first; each
    // device reads its own.
    EXPECT_EQ(other.lineInfo(second)->expires, 120);
    EXPECT_EQ(ua->lineInfo(first)->expires, 3600);
    ASSERT_TRUE(other.unregisterLine(second));
    ASSERT_TRUE(test::waitFor([&] { return other.registrationState(second) == RegistrationState::Unregistered; }, 5s));
    // Withdrawing one device's binding leaves the other's.
    EXPECT_EQ(kamailio->optionsTo("alice"), 200);
    ASSERT_TRUE(ua->unregisterLine(first));
    ASSERT_TRUE(reaches(first, RegistrationState::Unregistered));
}

TEST_F(RegistrationInteropTest, FailsOverToTheNextSrvTargetWhenTheFirstNeverAnswers) {
    // The first target is a socket that swallows everything.
    net::Socket deadServer = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    ASSERT_TRUE(deadServer.bind(net::SocketAddress::loopback(net::AddressFamily::V4)));
    ASSERT_TRUE(deadServer.setNonBlocking(true));
    const uint16_t deadPort = deadServer.localAddress()->port();

    KamailioOptions options;
    options.domains = {"reg.test"};
    auto* kamailio = startKamailio(options);
    ASSERT_TRUE(kamailio);
    auto* dns = startDnsmasq({
        "srv-host=_sip._udp.reg.test,dead.reg.test," + std::to_string(deadPort) + ",10,0",
        "srv-host=_sip._udp.reg.test,kamailio.reg.test," + std::to_string(kamailio->port()) + ",20,0",
        "host-record=dead.reg.test,127.0.0.1",
        "host-record=kamailio.reg.test,127.0.0.1",
    });
    ASSERT_TRUE(dns);
    // REGISTER times out after 64 x 50 ms = 3.2 s at the dead server.
    startUserAgent(50, {dns->address()});
    const int line = addLine("reg.test");
    ASSERT_TRUE(ua->registerLine(line));

    ASSERT_TRUE(logs().waitForLine("line " + std::to_string(line) + ": trying next server UDP " +
                                       kamailio->hostPort(), 6s));
    ASSERT_TRUE(reaches(line, RegistrationState::Registered));
    char buffer[4096];
    net::SocketAddress from;
    const auto swallowed = deadServer.receiveFrom(buffer, sizeof buffer, from);
    ASSERT_TRUE(swallowed.ok()) << "the dead server was never tried";
    EXPECT_EQ(std::string_view(buffer, swallowed.bytes).substr(0, 21), "REGISTER sip:reg.test");
    EXPECT_EQ(kamailio->optionsTo("alice", "reg.test"), 200);

    // The binding is withdrawn where it was made.
    ASSERT_TRUE(ua->unregisterLine(line));
    ASSERT_TRUE(reaches(line, RegistrationState::Unregistered));
    EXPECT_EQ(kamailio->optionsTo("alice", "reg.test"), 404);
}

TEST_F(RegistrationInteropTest, FollowsMinExpiresFromA423) {
    auto* sipp = startSipp("register_423_then_200.xml");
    ASSERT_TRUE(sipp);
    startUserAgent();
    const int line = addLine(sipp->hostPort(), TransportKind::Udp, 600);
    ASSERT_TRUE(ua->registerLine(line));

    ASSERT_TRUE(reaches(line, RegistrationState::Registered));
    EXPECT_EQ(ua->lineInfo(line)->expires, 1800);
    // SIPp fails the call unless the second REGISTER asked for 1800 s.
    EXPECT_EQ(sipp->waitForExit(5s), 0);
    EXPECT_EQ(recorder->states(), (std::vector<std::string>{"Registering 0", "Registered 200"}));
}

TEST_F(RegistrationInteropTest, FailsOverToTheNextSrvTargetAfterA503) {
    auto* unavailable = startSipp("register_503.xml");
    auto* available = startSipp("register_200.xml");
    ASSERT_TRUE(unavailable && available);
    auto* dns = startDnsmasq({
        "srv-host=_sip._udp.reg.test,busy.reg.test," + std::to_string(unavailable->port()) + ",10,0",
        "srv-host=_sip._udp.reg.test,spare.reg.test," + std::to_string(available->port()) + ",20,0",
        "host-record=busy.reg.test,127.0.0.1",
        "host-record=spare.reg.test,127.0.0.1",
    });
    ASSERT_TRUE(dns);
    startUserAgent(500, {dns->address()});
    const int line = addLine("reg.test");
    ASSERT_TRUE(ua->registerLine(line));

    ASSERT_TRUE(reaches(line, RegistrationState::Registered));
    EXPECT_TRUE(logs().has("line " + std::to_string(line) + ": trying next server UDP " + available->hostPort()));
    EXPECT_EQ(ua->lineInfo(line)->expires, 300);
    EXPECT_EQ(unavailable->waitForExit(5s), 0);
    EXPECT_EQ(available->waitForExit(5s), 0);
}

TEST_F(RegistrationInteropTest, RegistersPushParametersAndReadsTheRegistrarsPushSupport) {
    auto* sipp = startSipp("register_push.xml");
    ASSERT_TRUE(sipp);
    startUserAgent();
    const int line = addLine(sipp->hostPort());
    ASSERT_TRUE(ua->setPush(line, PushParams{"apns", "", "device-token-0001"}));
    ASSERT_TRUE(ua->registerLine(line));

    ASSERT_TRUE(reaches(line, RegistrationState::Registered));
    const PushSupport push = ua->pushSupport(line);
    EXPECT_TRUE(push.announced);
    EXPECT_EQ(push.providers, "apns");
    EXPECT_EQ(push.refreshBeforeExpiry, 121);
    // SIPp fails the call unless the REGISTER carried the push parameters.
    EXPECT_EQ(sipp->waitForExit(5s), 0);
    EXPECT_NE(sipp->messages().find(";pn-prid=device-token-0001"), std::string::npos);
}

}  // namespace
}  // namespace kelsip
