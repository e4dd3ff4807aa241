// TLS: certificate names per RFC 5922, the session engine against itself
// over memory, and a TLS stream transport carrying a message or refusing.
#include <gtest/gtest.h>

#include <mutex>

#include "sip/transport/stream_transport.h"
#include "sip/transport/tls_names.h"
#include "sip/transport/tls_session.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/test_certificates.h"
#include "support/wait.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

TEST(CertificateNamesTest, MatchOnlyTheSipDomainAsRfc5922Says) {
    const struct {
        CertificateNames names;
        const char* host;
        bool matches;
    } cases[] = {
        {{{"test.local"}, {}, {}, ""}, "TEST.local", true},
        {{{"test.local."}, {}, {}, ""}, "test.local", true},
        {{{}, {"sip:test.local"}, {}, ""}, "test.local", true},
        {{{}, {"sip:alice@test.local"}, {}, ""}, "test.local", false},  // names a user, not the domain
        {{{}, {"sips:test.local"}, {}, ""}, "test.local", false},
        {{{"*.local"}, {}, {}, ""}, "test.local", false},  // no wildcards
        {{{"other.local"}, {}, {}, "test.local"}, "test.local", false},  // CN ignored beside altNames
        {{{}, {}, {}, "test.local"}, "test.local", true},
        {{{"127.0.0.1"}, {}, {}, ""}, "127.0.0.1", false},  // an address needs an iPAddress entry
        {{{}, {}, {"::1"}, ""}, "[::1]", true},
        {{{"test.local"}, {}, {}, ""}, "", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.host);
        EXPECT_EQ(certificateMatches(c.names, c.host), c.matches);
    }
}

class TlsTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!tlsSupported()) GTEST_SKIP() << "no TLS in this build";
        std::string error;
        certificates = test::makeTestCertificates(folder.path(), &error);
        if (!certificates) GTEST_SKIP() << error;
    }
    std::unique_ptr<TlsEngine> engine(const test::CertificatePair* own, bool verify = true) {
        TlsContext context;
        context.verify = verify;
        context.caFile = certificates->ca.string();
        if (own != nullptr) {
            context.certificateFile = own->certificate.string();
            context.privateKeyFile = own->key.string();
        }
        std::string error;
        auto e = makeTlsEngine(context, &error);
        EXPECT_TRUE(e) << error;
        return e;
    }
    // Moves records both ways until neither side has anything to say.
    static void pump(TlsSession& client, TlsSession& server) {
        for (int round = 0; round < 20; ++round) {
            std::string toServer;
            std::string toClient;
            client.takeCiphertext(toServer);
            server.takeCiphertext(toClient);
            if (toServer.empty() && toClient.empty()) return;
            if (!toServer.empty()) (void)server.feed(toServer);
            if (!toClient.empty()) (void)client.feed(toClient);
        }
    }
    void TearDown() override { loop.stop(); }
    test::LogCapture logs;
    EventLoop loop;
    test::TempDir folder{"velmora-tls"};
    std::optional<test::TestCertificates> certificates;
};

TEST_F(TlsTest, ClientAcceptsOnlyATrustedCertificateForTheDomain) {
    const struct {
        const test::CertificatePair* served;
        bool verify;
        const char* error;  // empty: the session is established
    } cases[] = {
        {&certificates->server, true, ""},
        {&certificates->wrongName, true, "TLS certificate does not match host test.local"},
        {&certificates->selfSigned, true, "TLS certificate not trusted"},
        {&certificates->selfSigned, false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.served->certificate.filename().string() + (c.verify ? "" : " unverified"));
        auto serverEngine = engine(c.served);
        auto clientEngine = engine(nullptr, c.verify);
        ASSERT_TRUE(serverEngine && clientEngine);
        auto server = serverEngine->startSession(TlsRole::Server, {});
        auto client = clientEngine->startSession(TlsRole::Client, "test.local");
        ASSERT_TRUE(server && client);
        ASSERT_TRUE(client->write("REGISTER sip:test.local SIP/2.0\r\n"));  // held until verified
        pump(*client, *server);
        EXPECT_EQ(client->error(), c.error);
        EXPECT_EQ(client->established(), std::string_view(c.error).empty());
        std::string atServer;
        server->takePlaintext(atServer);
        if (!client->established()) {
            EXPECT_EQ(atServer, "");  // nothing left before the peer was proved
            continue;
        }
        EXPECT_EQ(atServer, "REGISTER sip:test.local SIP/2.0\r\n");
        ASSERT_TRUE(server->write("SIP/2.0 200 OK\r\n"));
        pump(*client, *server);
        std::string atClient;
        client->takePlaintext(atClient);
        EXPECT_EQ(atClient, "SIP/2.0 200 OK\r\n");
    }
}

TEST_F(TlsTest, ToleratesSplitRecordsAndFailsOnGarbage) {
    auto serverEngine = engine(&certificates->server);
    auto clientEngine = engine(nullptr);
    ASSERT_TRUE(serverEngine && clientEngine);
    auto server = serverEngine->startSession(TlsRole::Server, {});
    auto client = clientEngine->startSession(TlsRole::Client, "test.local");
    pump(*client, *server);
    ASSERT_TRUE(client->established() && server->established());

    // A record cut in two arrives whole once its second half does.
    ASSERT_TRUE(client->write("OPTIONS sip:test.local SIP/2.0\r\n"));
    std::string record;
    client->takeCiphertext(record);
    ASSERT_GT(record.size(), 10U);
    std::string plain;
    ASSERT_TRUE(server->feed(record.substr(0, 7)));
    server->takePlaintext(plain);
    EXPECT_EQ(plain, "");
    ASSERT_TRUE(server->feed(record.substr(7)));
    server->takePlaintext(plain);
    EXPECT_EQ(plain, "OPTIONS sip:test.local SIP/2.0\r\n");

    // A tampered record ends the session; so does garbage instead of a handshake.
    ASSERT_TRUE(client->write("OPTIONS sip:test.local SIP/2.0\r\n"));
    record.clear();
    client->takeCiphertext(record);
    record[record.size() - 3] = static_cast<char>(record[record.size() - 3] ^ 0x5a);
    EXPECT_FALSE(server->feed(record));
    EXPECT_EQ(server->error(), "TLS record error");
    EXPECT_FALSE(server->feed("more"));

    auto fresh = clientEngine->startSession(TlsRole::Client, "test.local");
    EXPECT_FALSE(fresh->feed("SIP/2.0 200 OK\r\nContent-Length: 0\r\n\r\n"));
    EXPECT_EQ(fresh->error().rfind("TLS handshake failed: ", 0), 0U) << fresh->error();
}

TEST_F(TlsTest, TransportCarriesMessagesAndReportsARefusedCertificate) {
    const auto transport = [&](const test::CertificatePair* own) {
        StreamTransportConfig config;
        config.kind = TransportKind::Tls;
        config.bindAddress = net::SocketAddress::loopback(net::AddressFamily::V4);
        config.tls = TlsContext{true, certificates->ca.string(), own ? own->certificate.string() : "",
                                own ? own->key.string() : ""};
        std::string error;
        auto t = StreamTransport::create(loop, config, &error);
        EXPECT_TRUE(t) << error;
        return t;
    };
    loop.start();
    auto server = transport(&certificates->server);
    auto client = transport(nullptr);
    ASSERT_TRUE(server && client);
    std::mutex mutex;
    std::vector<std::string> received;
    std::vector<std::string> failures;
    server->setReceiveHandler([&](SipMessage m, const SipTarget&) {
        std::lock_guard lock(mutex);
        received.push_back(m.method);
    });
    client->setErrorHandler([&](const SipTarget&, const std::string& reason) {
        std::lock_guard lock(mutex);
        failures.push_back(reason);
    });
    ASSERT_TRUE(server->open(nullptr) && client->open(nullptr));
    const std::string options =
        "OPTIONS sip:test.local SIP/2.0\r\nVia: SIP/2.0/TLS 127.0.0.1;branch=z9hG4bK1\r\nFrom: <sip:a@test.local>;tag=1"
        "\r\nTo: <sip:test.local>\r\nCall-ID: t1\r\nCSeq: 1 OPTIONS\r\nContent-Length: 0\r\n\r\n";
    // The first target proves its name; the second asks for another name
    // at the same address, gets a connection of its own, and is refused.
    ASSERT_TRUE(client->send(options, SipTarget{TransportKind::Tls, server->localAddress(), 0, "test.local"}));
    EXPECT_TRUE(test::waitFor([&] { std::lock_guard lock(mutex); return received.size() == 1; }, 5s));
    ASSERT_TRUE(client->send(options, SipTarget{TransportKind::Tls, server->localAddress(), 0, "other.local"}));
    EXPECT_TRUE(test::waitFor([&] { std::lock_guard lock(mutex); return failures.size() == 1; }, 5s));
    std::lock_guard lock(mutex);
    EXPECT_EQ(failures, std::vector<std::string>{"TLS certificate does not match host other.local"});
    EXPECT_EQ(received.size(), 1U);
    EXPECT_TRUE(logs.has("TLS connection #2 to " + server->localAddress().toString() +
                         " closed: TLS certificate does not match host other.local"));
}

TEST(TlsTransportTest, RefusesWithoutAContext) {
    EventLoop loop;
    StreamTransportConfig config;
    config.kind = TransportKind::Tls;
    std::string error;
    EXPECT_FALSE(StreamTransport::create(loop, config, &error));
    EXPECT_EQ(error, tlsSupported() ? kTlsNeedsContext : kTlsNotCompiled);
}

}  // namespace
}  // namespace kelsip
