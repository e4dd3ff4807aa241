// Registration against Kamailio over UDP and TCP, SRV failover with dnsmasq,
// and SIPp for the answers Kamailio will not give on demand (423, 503, push).
#include <gtest/gtest.h>

#include "interop/support/interop_test.h"
#include "sip/net/socket.h"

namespace kelsip {

namespace {

using namespace std::chrono_literals;
using test::KamailioOptions;
using test::waitFor;

class RegistrationInteropTest : public test::InteropTest {
protected:
    void startAlice(int64_t t1Ms = 500, std::vector<net::SocketAddress> dns = {}) {
        ua = startUserAgent(loopbackConfig(true, t1Ms, std::move(dns)));
        ASSERT_TRUE(ua);
    }
    bool reaches(int line, RegistrationState state, std::chrono::milliseconds timeout = 5s) {
        return waitFor([&] { return ua->registrationState(line) == state; }, timeout);
    }

    std::unique_ptr<UserAgent> ua;
};

class KamailioRegistrationTest : public RegistrationInteropTest, public ::testing::WithParamInterface<TransportKind> {};

INSTANTIATE_TEST_SUITE_P(Transports, KamailioRegistrationTest, test::kBothTransports,
                         ::testing::PrintToStringParamName());

TEST_P(KamailioRegistrationTest, RegistersWithDigestRefreshesAndUnregisters) {
    KamailioOptions options;
    options.minExpires = 2;
    options.nonceExpires = 1;
    auto* kamailio = startKamailio(options);
    ASSERT_TRUE(kamailio);
    startAlice();
    const int line = addAlice(*ua, kamailio->hostPort(), GetParam(), 4);
    ASSERT_TRUE(ua->registerLine(line));

    ASSERT_TRUE(reaches(line, RegistrationState::Registered));
    EXPECT_EQ(ua->lineInfo(line)->expires, 4);
    // Challenged first; Kamailio logs the binding after it has answered.
    EXPECT_TRUE(waitFor([&] { return kamailio->bindingsSaved("alice") == 1; }, 2s));
    EXPECT_EQ(kamailio->requestsSeen("REGISTER", "alice"), 2);
    EXPECT_EQ(kamailio->optionsTo("alice"), 200) << "Kamailio holds no binding that reaches the user agent";
    // Refreshed every 2 s past the first expiry, never leaving Registered;
    // each refresh is challenged as stale and answered at once.
    ASSERT_TRUE(waitFor([&] { return kamailio->bindingsSaved("alice") >= 3; }, 7s));
    EXPECT_GE(kamailio->requestsSeen("REGISTER", "alice"), 6);
    EXPECT_EQ(kamailio->optionsTo("alice"), 200) << "the binding lapsed despite the refreshes";

    ASSERT_TRUE(ua->unregisterLine(line));
    ASSERT_TRUE(reaches(line, RegistrationState::Unregistered));
    EXPECT_EQ(kamailio->optionsTo("alice"), 404) << "the binding is still there after un-registering";
    EXPECT_EQ(events->now().registrations,
              (std::vector<std::string>{"Registering 0", "Registered 200", "Unregistering 0", "Unregistered 200"}));
}

TEST_P(KamailioRegistrationTest, AWrongPasswordFailsWithoutHammeringTheRegistrar) {
    auto* kamailio = startKamailio();
    ASSERT_TRUE(kamailio);
    startAlice();
    const int line = addAlice(*ua, kamailio->hostPort(), GetParam(), 3600, "not-the-password");
    ASSERT_TRUE(ua->registerLine(line));

    ASSERT_TRUE(reaches(line, RegistrationState::Failed));
    EXPECT_TRUE(ua->lineInfo(line)->statusCode == 401 || ua->lineInfo(line)->statusCode == 403);
    const int seen = kamailio->requestsSeen("REGISTER", "alice");
    EXPECT_GE(seen, 2);
    EXPECT_LE(seen, 3);
    EXPECT_FALSE(waitFor([&] { return kamailio->requestsSeen("REGISTER", "alice") > seen; }, 1s));
    EXPECT_EQ(kamailio->optionsTo("alice"), 404);
}

TEST_F(RegistrationInteropTest, TwoDevicesKeepTheirOwnExpiryAndShutdownWithdrawsOnlyItsOwn) {
    auto* kamailio = startKamailio();
    ASSERT_TRUE(kamailio);
    startAlice();
    const int first = addAlice(*ua, kamailio->hostPort());
    ASSERT_TRUE(ua->registerLine(first));
    ASSERT_TRUE(reaches(first, RegistrationState::Registered));

    UserAgent other(loopbackConfig(false));
    ASSERT_TRUE(other.start());
    const int second = addAlice(other, kamailio->hostPort(), TransportKind::Udp, 120);
    ASSERT_TRUE(other.registerLine(second));
    ASSERT_TRUE(waitFor([&] { return other.registrationState(second) == RegistrationState::Registered; }, 5s));
    // Kamailio's 200 lists both bindings, the other device's first.
    EXPECT_EQ(other.lineInfo(second)->expires, 120);
    EXPECT_EQ(ua->lineInfo(first)->expires, 3600);

    // Shutdown withdraws the binding and waits for the answer, which races
    // the shutdown itself (the thread sanitizer watches this).
    ua->shutdown(3s);
    EXPECT_TRUE(logs().has("line " + std::to_string(first) + ": un-registering before shutdown"));
    EXPECT_FALSE(logs().has("no answer to the un-REGISTER within"));
    EXPECT_EQ(kamailio->optionsTo("alice"), 200) << "the other device's binding went too";
    ASSERT_TRUE(other.unregisterLine(second));
    ASSERT_TRUE(waitFor([&] { return other.registrationState(second) == RegistrationState::Unregistered; }, 5s));
    EXPECT_EQ(kamailio->optionsTo("alice"), 404);
}

TEST_F(RegistrationInteropTest, FailsOverToTheNextSrvTargetWhenTheFirstNeverAnswers) {
    net::Socket dead = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    ASSERT_TRUE(dead.bind(net::SocketAddress::loopback(net::AddressFamily::V4)));
    ASSERT_TRUE(dead.setNonBlocking(true));
    KamailioOptions options;
    options.domains = {"reg.test"};
    auto* kamailio = startKamailio(options);
    ASSERT_TRUE(kamailio);
    auto* dns = startSrv("reg.test", {dead.localAddress()->port(), kamailio->port()});
    ASSERT_TRUE(dns);
    startAlice(50, {dns->address()});  // gives up on the dead server after 3.2 s
    const int line = addAlice(*ua, "reg.test");
    ASSERT_TRUE(ua->registerLine(line));

    ASSERT_TRUE(logs().waitForLine("line " + std::to_string(line) + ": trying next server UDP " + kamailio->hostPort(), 6s));
    ASSERT_TRUE(reaches(line, RegistrationState::Registered));
    char buffer[4096];
    net::SocketAddress from;
    const auto swallowed = dead.receiveFrom(buffer, sizeof buffer, from);
    ASSERT_TRUE(swallowed.ok()) << "the dead server was never tried";
    EXPECT_TRUE(std::string_view(buffer, swallowed.bytes).starts_with("REGISTER sip:reg.test"));
    EXPECT_EQ(kamailio->optionsTo("alice", "reg.test"), 200);
    // Withdrawn where it was made.
    ASSERT_TRUE(ua->unregisterLine(line));
    ASSERT_TRUE(reaches(line, RegistrationState::Unregistered));
    EXPECT_EQ(kamailio->optionsTo("alice", "reg.test"), 404);
}

TEST_F(RegistrationInteropTest, FollowsA423AndFailsOverAfterA503AndReadsPushSupport) {
    // Each SIPp registrar fails its call unless the REGISTER carried what it checks.
    struct Case {
        const char* what;
        std::vector<const char*> scenarios;  // SRV targets in priority order, or one registrar
        int expires;
    };
    const Case cases[] = {
        {"423: asks again for the Min-Expires", {"register_423_then_200.xml"}, 1800},
        {"503: the next SRV target at once", {"register_503.xml", "register_200.xml"}, 300},
        {"push parameters and the registrar's push support", {"register_push.xml"}, 600},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<test::SippRunner*> sipps;
        std::vector<uint16_t> ports;
        for (const char* scenario : c.scenarios) {
            sipps.push_back(startSipp(scenario));
            ASSERT_TRUE(sipps.back());
            ports.push_back(sipps.back()->port());
        }
        auto* dns = sipps.size() > 1 ? startSrv("reg.test", ports) : nullptr;
        startAlice(500, dns ? std::vector{dns->address()} : std::vector<net::SocketAddress>{});
        const int line = addAlice(*ua, dns ? "reg.test" : sipps[0]->hostPort(), TransportKind::Udp, 600);
        const bool push = std::string_view(c.scenarios[0]) == "register_push.xml";
        if (push) {
            ASSERT_TRUE(ua->setPush(line, PushParams{"apns", "", "device-token-0001"}));
        }
        ASSERT_TRUE(ua->registerLine(line));

        ASSERT_TRUE(reaches(line, RegistrationState::Registered));
        EXPECT_EQ(ua->lineInfo(line)->expires, c.expires);
        for (auto* sipp : sipps) EXPECT_EQ(sipp->waitForExit(5s), 0);
        if (dns) {
            EXPECT_TRUE(logs().has("line " + std::to_string(line) + ": trying next server UDP " + sipps[1]->hostPort()));
        }
        if (push) {
            EXPECT_TRUE(ua->pushSupport(line).announced);
            EXPECT_EQ(ua->pushSupport(line).providers, "apns");
            EXPECT_EQ(ua->pushSupport(line).refreshBeforeExpiry, 121);
            EXPECT_NE(sipps[0]->messages().find(";pn-prid=device-token-0001"), std::string::npos);
        }
        ua->shutdown(0ms);
        ua.reset();
    }
}

}  // namespace
}  // namespace kelsip
