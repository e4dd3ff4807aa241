// SIP over TLS against Kamailio's tls module, with a CA the test makes:
// registration with digest and calls both ways through the proxy, and the servers
// whose certificates the phone must refuse.
#include <gtest/gtest.h>

#include "interop/support/interop_test.h"
#include "support/temp_dir.h"
#include "support/test_certificates.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;
using test::waitFor;

class TlsInteropTest : public test::InteropTest {
protected:
    void SetUp() override {
        InteropTest::SetUp();
        if (IsSkipped()) return;
        std::string error;
        certificates = test::makeTestCertificates(folder.path(), &error);
        ASSERT_TRUE(certificates) << error;
    }
    test::KamailioServer* kamailioPresenting(const test::CertificatePair& served) {
        test::KamailioOptions options;
        options.domains = {"test.local"};
        options.tlsCertificate = served.certificate.string();
        options.tlsKey = served.key.string();
        return startKamailio(options);
    }
    // Alice of test.local over TLS, Kamailio as outbound proxy by address:
    // its certificate must name test.local.
    int addTlsAlice(UserAgent& ua, const test::KamailioServer& kamailio) {
        LineConfig line = alice("test.local", TransportKind::Tls);
        line.outboundProxy = "sip:127.0.0.1:" + std::to_string(kamailio.tlsPort()) + ";transport=tls";
        return ua.addLine(line);
    }
    UserAgentConfig tlsConfig() const {
        UserAgentConfig config = loopbackConfig();
        config.tlsPort = 0;
        config.tls.caFile = certificates->ca.string();
        return config;
    }

    test::TempDir folder{"velmora-tls-ca"};
    std::optional<test::TestCertificates> certificates;
};

TEST_F(TlsInteropTest, RegistersWithDigestAndCallsBothWaysThroughTheProxy) {
    auto* kamailio = kamailioPresenting(certificates->server);
    ASSERT_TRUE(kamailio);
    // Alice has a certificate of her own, so that Kamailio can open a TLS
    // connection to her for bob's call.
    UserAgentConfig config = tlsConfig();
    config.tls.certificateFile = certificates->server.certificate.string();
    config.tls.privateKeyFile = certificates->server.key.string();
    auto ua = startUserAgent(config);
    ASSERT_TRUE(ua);
    const int line = addTlsAlice(*ua, *kamailio);
    ASSERT_TRUE(ua->registerLine(line));
    ASSERT_TRUE(waitFor([&] { return ua->registrationState(line) == RegistrationState::Registered; }, 5s))
        << ua->lineInfo(line)->reason;
    EXPECT_TRUE(waitFor([&] { return kamailio->bindingsSaved("alice") == 1; }, 2s));
    EXPECT_NE(kamailio->log().find("request REGISTER from alice via tls:"), std::string::npos);
    EXPECT_TRUE(logs().has("TLS connection #1 with 127.0.0.1:" + std::to_string(kamailio->tlsPort()) +
                           " established, certificate valid for test.local"));

    // Bob on TCP answers; the call's requests and answers on Alice's side all
    // use the one verified connection.
    UserAgentConfig bobConfig = loopbackConfig();
    bobConfig.rtpPortMin = 55000;
    bobConfig.rtpPortMax = 55999;
    auto bobEvents = std::make_shared<test::Recorder>();
    UserAgent bob(bobConfig);
    ASSERT_TRUE(bob.start());
    bob.setListener(bobEvents);
    LineConfig bobLine;
    bobLine.user = "bob";
    bobLine.password = "bobsecret";
    bobLine.domain = "test.local";
    bobLine.outboundProxy = "sip:" + kamailio->hostPort() + ";transport=tcp";
    bobLine.transport = TransportKind::Tcp;
    const int bobId = bob.addLine(bobLine);
    ASSERT_TRUE(bob.registerLine(bobId));
    ASSERT_TRUE(waitFor([&] { return bob.registrationState(bobId) == RegistrationState::Registered; }, 5s));

    const int call = ua->makeCall(line, "bob");
    ASSERT_GT(call, 0);
    ASSERT_TRUE(waitFor([&] { return !bobEvents->now().incoming.empty(); }, 5s));
    ASSERT_TRUE(bob.answerCall(bobEvents->now().incoming[0].id));
    ASSERT_TRUE(waitFor([&] { return events->now().callState(call) == "Connected"; }, 5s));
    EXPECT_EQ(kamailio->requestsSeen("INVITE", "alice"), 2);  // challenged, then with credentials
    ASSERT_TRUE(ua->hangupCall(call));
    EXPECT_TRUE(waitFor([&] { return bob.calls().empty() && ua->calls().empty(); }, 5s));
    EXPECT_TRUE(logs().has("opening TLS connection #1 to 127.0.0.1:" + std::to_string(kamailio->tlsPort()) +
                           " for test.local"));
    EXPECT_FALSE(logs().has("opening TLS connection #2"));

    // Bob calls back: Kamailio reaches Alice's TLS Contact, she answers, he hangs up.
    const int back = bob.makeCall(bobId, "alice");
    ASSERT_GT(back, 0);
    ASSERT_TRUE(waitFor([&] { return !events->now().incoming.empty(); }, 5s));
    EXPECT_TRUE(logs().has("accepted TLS connection #"));
    ASSERT_TRUE(ua->answerCall(events->now().incoming[0].id));
    ASSERT_TRUE(waitFor([&] { return bobEvents->now().callState(back) == "Connected"; }, 5s));
    ASSERT_TRUE(bob.hangupCall(back));
    EXPECT_TRUE(waitFor([&] { return bob.calls().empty() && ua->calls().empty(); }, 5s));
}

TEST_F(TlsInteropTest, RefusesAServerWhoseCertificateIsForAnotherNameOrUntrusted) {
    const struct {
        const test::CertificatePair* served;
        const char* reason;
    } cases[] = {
        {&certificates->wrongName, "TLS certificate does not match host test.local"},
        {&certificates->selfSigned, "TLS certificate not trusted"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        auto* kamailio = kamailioPresenting(*c.served);
        ASSERT_TRUE(kamailio);
        auto ua = startUserAgent(tlsConfig());
        ASSERT_TRUE(ua);
        const int line = addTlsAlice(*ua, *kamailio);
        ASSERT_TRUE(ua->registerLine(line));
        ASSERT_TRUE(waitFor([&] { return ua->registrationState(line) == RegistrationState::Failed; }, 5s));
        EXPECT_EQ(ua->lineInfo(line)->reason, c.reason);
        EXPECT_EQ(kamailio->requestsSeen("REGISTER", "alice"), 0);
        EXPECT_TRUE(logs().has("TLS connection #1 to 127.0.0.1:" + std::to_string(kamailio->tlsPort()) +
                               " closed: " + c.reason));
    }
}

}  // namespace
}  // namespace kelsip
