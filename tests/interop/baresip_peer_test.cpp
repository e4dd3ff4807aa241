// The baresip fixture against itself and Kamailio: two phones hear each
// other's tones and digits, refuse and cancel unanswered calls, hold,
// transfer, and register with digest authentication.
#include "support/baresip_peer.h"

#include <gtest/gtest.h>

#include <iostream>
#include <memory>

#include "interop/support/kamailio_server.h"
#include "support/temp_dir.h"
#include "support/wait.h"
#include "support/wav.h"

namespace kelsip::test {

static void PrintTo(BaresipTransport transport, std::ostream* out) {
    *out << (transport == BaresipTransport::Tcp ? "TCP" : "UDP");
}

namespace {

using namespace std::chrono_literals;

class BaresipPeerTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!BaresipPeer::supported()) GTEST_SKIP() << "baresip runs on Linux only";
    }

    void TearDown() override {
        if (!HasFailure()) return;
        for (const auto& k : kamailios_) std::cerr << "---- Kamailio on " << k->hostPort() << " ----\n" << k->log();
        for (const auto& peer : peers_) {
            std::cerr << "---- " << peer->name() << " ----\n" << peer->log() << "-- events --\n";
            for (const BaresipEvent& e : peer->events()) std::cerr << e.json << '\n';
        }
        std::cerr << "----\n";
    }

    // A phone playing `tone` hertz (0: silence) for longer than any test
    // call, so that its source never ends a call.
    BaresipPeer* startPeer(BaresipOptions options, double tone = 0) {
        if (tone > 0) {
            options.audioSource = files_.file(options.user + "-" + std::to_string(peers_.size()) + ".wav");
            const std::vector<Tone> steps = {{tone, 30.0}};
            EXPECT_TRUE(writeTones(options.audioSource, steps));
        }
        auto peer = std::make_unique<BaresipPeer>();
        std::string error;
        const bool started = peer->start(options, &error);
        peers_.push_back(std::move(peer));
        if (!started) {
            ADD_FAILURE() << options.user << ": " << error;
            return nullptr;
        }
        return peers_.back().get();
    }

    KamailioServer* startKamailio() {
        auto server = std::make_unique<KamailioServer>();
        std::string error;
        const bool started = server->start(KamailioOptions{}, &error);
        kamailios_.push_back(std::move(server));
        if (!started) {
            ADD_FAILURE() << error;
            return nullptr;
        }
        return kamailios_.back().get();
    }

    static BaresipOptions phone(const std::string& user, BaresipTransport transport = BaresipTransport::Udp) {
        BaresipOptions options;
        options.user = user;
        options.transport = transport;
        return options;
    }

    // Dials and waits until both ends have the call up.
    static void connect(BaresipPeer& caller, BaresipPeer& callee) {
        std::string error;
        ASSERT_TRUE(caller.dial(callee.contactUri(), &error)) << error;
        ASSERT_TRUE(caller.waitForEvent("CALL_ESTABLISHED"));
        ASSERT_TRUE(callee.waitForEvent("CALL_ESTABLISHED"));
    }

    // Seconds of audio in the peer's newest recording so far.
    static double recordedSeconds(const BaresipPeer& peer) {
        const auto files = peer.recordings();
        if (files.empty()) return 0.0;
        std::error_code ec;
        const auto size = std::filesystem::file_size(files.back(), ec);
        return ec || size < 44 ? 0.0 : static_cast<double>(size - 44) / 16000.0;
    }

    // The share of the recording's quarter-second blocks whose strongest
    // component is `frequency` and that hold little else.
    static double blocksHolding(const WavAudio& audio, double frequency) {
        const std::vector<int16_t> samples = audio.channel(0);
        const size_t block = audio.sampleRate / 4;
        size_t blocks = 0;
        size_t holding = 0;
        for (size_t at = 0; at + block <= samples.size(); at += block, ++blocks) {
            const std::span<const int16_t> b(samples.data() + at, block);
            if (std::abs(dominantFrequency(b, audio.sampleRate) - frequency) < 5.0 &&
                toneShare(b, frequency, audio.sampleRate) > 0.9) {
                ++holding;
            }
        }
        return blocks == 0 ? 0.0 : static_cast<double>(holding) / static_cast<double>(blocks);
    }

private:
    TempDir files_{"velmora-baresip-audio"};
    std::vector<std::unique_ptr<KamailioServer>> kamailios_;
    std::vector<std::unique_ptr<BaresipPeer>> peers_;
};

class BaresipCallTest : public BaresipPeerTest, public ::testing::WithParamInterface<BaresipTransport> {};

TEST_P(BaresipCallTest, EachPhoneHearsTheOthersToneAndDigits) {
    BaresipPeer* alice = startPeer(phone("alice", GetParam()), 440);
    BaresipPeer* bob = startPeer(phone("bob", GetParam()), 1000);
    ASSERT_TRUE(alice && bob);
    connect(*alice, *bob);

    std::string error;
    ASSERT_TRUE(alice->sendDigits("19#", &error)) << error;
    ASSERT_TRUE(bob->sendDigits("*0D", &error)) << error;
    EXPECT_TRUE(waitFor([&] { return bob->receivedDigits() == "19#" && alice->receivedDigits() == "*0D"; }, 5s))
        << "bob got '" << bob->receivedDigits() << "', alice got '" << alice->receivedDigits() << "'";

    // A second and a half of each tone crossed the call.
    ASSERT_TRUE(waitFor([&] { return recordedSeconds(*alice) >= 1.5 && recordedSeconds(*bob) >= 1.5; }, 10s));
    ASSERT_TRUE(alice->hangup(&error)) << error;
    EXPECT_EQ(alice->waitForClosed(), "Connection reset by user");
    EXPECT_EQ(bob->waitForClosed(), "Connection reset by peer");

    for (auto [listener, heard, notHeard] : {std::tuple{alice, 1000.0, 440.0}, std::tuple{bob, 440.0, 1000.0}}) {
        SCOPED_TRACE(listener->name());
        ASSERT_EQ(listener->recordings().size(), 1u);
        const auto audio = readWav(listener->recordings().front(), &error);
        ASSERT_TRUE(audio) << error;
        EXPECT_EQ(audio->sampleRate, 8000u);
        EXPECT_EQ(audio->channels, 1u);
        EXPECT_GE(audio->seconds(), 1.5);
        EXPECT_GE(blocksHolding(*audio, heard), 0.9);
        EXPECT_EQ(blocksHolding(*audio, notHeard), 0.0);
    }
}

INSTANTIATE_TEST_SUITE_P(Transports, BaresipCallTest,
                         ::testing::Values(BaresipTransport::Udp, BaresipTransport::Tcp),
                         [](const auto& param) { return param.param == BaresipTransport::Tcp ? "TCP" : "UDP"; });

TEST_F(BaresipPeerTest, AnUnansweredCallIsRefusedOrCancelledWithItsReason) {
    BaresipOptions manual = phone("carol");
    manual.autoAnswer = false;
    BaresipPeer* carol = startPeer(manual);
    BaresipPeer* alice = startPeer(phone("alice"));
    ASSERT_TRUE(carol && alice);
    std::string error;

    // Refused by the callee while it rings.
    ASSERT_TRUE(alice->dial(carol->contactUri(), &error)) << error;
    const auto incoming = carol->waitForEvent("CALL_INCOMING");
    ASSERT_TRUE(incoming);
    EXPECT_EQ(incoming->peerUri, alice->aor());
    ASSERT_TRUE(alice->waitForEvent("CALL_RINGING"));
    ASSERT_TRUE(carol->hangup(&error)) << error;
    EXPECT_EQ(alice->waitForClosed(), "486 Rejected");
    EXPECT_EQ(carol->waitForClosed(), "Connection reset by user");

    // Given up by the caller before an answer.
    ASSERT_TRUE(alice->dial(carol->contactUri(), &error)) << error;
    ASSERT_TRUE(carol->waitForEvent("CALL_INCOMING"));
    ASSERT_TRUE(alice->waitForEvent("CALL_RINGING"));
    ASSERT_TRUE(alice->hangup(&error)) << error;
    EXPECT_EQ(carol->waitForClosed(), "Connection reset by peer");
    EXPECT_EQ(alice->waitForClosed(), "Connection reset by user");

    // Neither call was ever up.
    for (BaresipPeer* peer : {alice, carol}) {
        for (const BaresipEvent& e : peer->events()) EXPECT_NE(e.type, "CALL_ESTABLISHED") << peer->name();
    }
}

TEST_F(BaresipPeerTest, HoldsResumesAndTransfersBlind) {
    BaresipPeer* alice = startPeer(phone("alice"));
    BaresipPeer* bob = startPeer(phone("bob"));
    BaresipPeer* carol = startPeer(phone("carol"));
    ASSERT_TRUE(alice && bob && carol);
    connect(*alice, *bob);
    std::string error;

    // The callee turns with the offer, the caller only with the answer.
    auto directions = [&](const char* atAlice, const char* atBob) {
        return waitFor([&] { return alice->audioDirection() == atAlice && bob->audioDirection() == atBob; }, 5s);
    };
    ASSERT_TRUE(alice->hold(&error)) << error;
    EXPECT_TRUE(directions("sendonly", "recvonly"))
        << alice->audioDirection().value_or("no call") << " / " << bob->audioDirection().value_or("no call");
    ASSERT_TRUE(alice->resume(&error)) << error;
    EXPECT_TRUE(directions("sendrecv", "sendrecv"))
        << alice->audioDirection().value_or("no call") << " / " << bob->audioDirection().value_or("no call");

    ASSERT_TRUE(bob->transfer(carol->contactUri(), &error)) << error;
    const auto referred = alice->waitForEvent("TRANSFER");
    ASSERT_TRUE(referred);
    EXPECT_EQ(referred->param, carol->contactUri());
    const auto toCarol = alice->waitForEvent("CALL_ESTABLISHED");
    ASSERT_TRUE(toCarol);
    EXPECT_EQ(toCarol->peerUri, carol->contactUri());
    ASSERT_TRUE(carol->waitForEvent("CALL_ESTABLISHED"));
    EXPECT_EQ(bob->waitForClosed(), "Call transfered");
    EXPECT_EQ(alice->waitForClosed(), "Connection reset by peer");  // bob's BYE after the transfer
}

TEST_F(BaresipPeerTest, RegistersWithDigestAndCallsThroughTheProxy) {
    KamailioServer* kamailio = startKamailio();
    ASSERT_TRUE(kamailio);
    auto account = [&](const std::string& user, const std::string& password, BaresipTransport transport) {
        BaresipOptions options = phone(user, transport);
        options.domain = kamailio->hostPort();
        options.registrar = kamailio->hostPort();
        options.password = password;
        return options;
    };
    BaresipPeer* alice = startPeer(account("alice", "secret", BaresipTransport::Udp), 440);
    BaresipPeer* bob = startPeer(account("bob", "bobsecret", BaresipTransport::Tcp), 1000);
    BaresipPeer* intruder = startPeer(account("bob", "wrong", BaresipTransport::Udp));
    ASSERT_TRUE(alice && bob && intruder);
    EXPECT_EQ(alice->waitForRegistration(), true);
    EXPECT_EQ(bob->waitForRegistration(), true);
    EXPECT_EQ(intruder->waitForRegistration(), false);
    EXPECT_TRUE(test::waitFor([&] { return kamailio->bindingsSaved("alice") == 1; }, 2s));  // logged after the 200

    // Kamailio challenges the INVITE and finds bob's TCP binding.
    std::string error;
    ASSERT_TRUE(alice->dial(bob->aor(), &error)) << error;
    ASSERT_TRUE(alice->waitForEvent("CALL_ESTABLISHED"));
    const auto atBob = bob->waitForEvent("CALL_ESTABLISHED");
    ASSERT_TRUE(atBob);
    EXPECT_EQ(atBob->peerUri, alice->aor());
    EXPECT_EQ(kamailio->requestsSeen("INVITE", "alice"), 2);
    ASSERT_TRUE(bob->hangup(&error)) << error;
    EXPECT_EQ(alice->waitForClosed(), "Connection reset by peer");
}

}  // namespace
}  // namespace kelsip::test
