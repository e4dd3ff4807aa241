// Encrypted calls with baresip (SDES keys) through Kamailio: audio checked
// both ways by content, and the call's packets read off the loopback
// interface to prove no clear G.711 crossed it.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "interop/support/interop_test.h"
#include "media/codec/g711.h"
#include "media/rtp/rtp_session.h"
#include "media/session/media_session.h"
#include "media/srtp/srtp_transport.h"
#include "support/baresip_peer.h"
#include "support/process.h"
#include "support/sound_card.h"
#include "support/wav.h"

namespace kelsip {

namespace {

using namespace std::chrono_literals;
using test::waitFor;

constexpr double kOurTone = 440.0;
constexpr double kBaresipTone = 1000.0;
constexpr uint16_t kOurRtpMin = 52000;
constexpr uint16_t kOurRtpMax = 53999;

struct Datagram {
    uint16_t sourcePort = 0;
    uint16_t destinationPort = 0;
    std::vector<uint8_t> payload;
};

// The UDP datagrams of a pcap file tcpdump wrote (Ethernet or Linux cooked
// framing, IPv4).
std::vector<Datagram> readCapture(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    const std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<Datagram> out;
    if (file.size() < 24) return out;
    const auto le32 = [&](size_t at) {
        return uint32_t{file[at]} | uint32_t{file[at + 1]} << 8 | uint32_t{file[at + 2]} << 16 |
               uint32_t{file[at + 3]} << 24;
    };
    const uint32_t link = le32(20);
    const size_t framing = link == 1 ? 14 : link == 113 ? 16 : link == 276 ? 20 : 0;
    for (size_t at = 24; at + 16 <= file.size();) {
        const size_t captured = le32(at + 8);
        const size_t ip = at + 16 + framing;
        at += 16 + captured;
        if (framing == 0 || at > file.size() || ip + 20 > at || (file[ip] >> 4) != 4 || file[ip + 9] != 17) continue;
        const size_t udp = ip + 4 * size_t{static_cast<uint8_t>(file[ip] & 0x0f)};
        if (udp + 8 > at) continue;
        Datagram d;
        d.sourcePort = static_cast<uint16_t>(file[udp] << 8 | file[udp + 1]);
        d.destinationPort = static_cast<uint16_t>(file[udp + 2] << 8 | file[udp + 3]);
        d.payload.assign(file.begin() + static_cast<ptrdiff_t>(udp + 8), file.begin() + static_cast<ptrdiff_t>(at));
        out.push_back(std::move(d));
    }
    return out;
}

// tcpdump on the loopback interface for our RTP port range, until stopped.
class Capture {
public:
    bool start(const std::filesystem::path& file, const std::filesystem::path& log) {
        test::ProcessOptions options;
        options.program = test::Process::findProgram("tcpdump");
        if (options.program.empty()) return false;
        options.arguments = {"-i", "lo", "-n", "-U", "-s", "0", "-w", file.string(), "udp", "and", "portrange",
                             std::to_string(kOurRtpMin) + "-" + std::to_string(kOurRtpMax)};
        options.logFile = log;
        std::string error;
        return process_.start(options, &error) &&
               waitFor([&] { return process_.log().find("listening on") != std::string::npos; }, 5s);
    }
    void stop() { process_.stop(); }
    [[nodiscard]] std::string log() const { return process_.log(); }

private:
    test::Process process_;
};

// Who calls, with which of our policies and which baresip media encryption.
struct SrtpCase {
    const char* name;
    bool weCall;
    SrtpPolicy ours;
    const char* baresips;
};

class SrtpInteropTest : public test::InteropTest, public ::testing::WithParamInterface<SrtpCase> {
protected:
    void SetUp() override {
        InteropTest::SetUp();
        if (test::Process::findProgram("tcpdump").empty()) GTEST_SKIP() << "tcpdump is not installed";
    }
    void TearDown() override {
        card_.reset();
        capture_.stop();
        InteropTest::TearDown();
    }

    void startAll() {
        kamailio_ = startKamailio();
        ASSERT_TRUE(kamailio_);
        test::BaresipOptions options;
        options.password = "bobsecret";
        options.registrar = kamailio_->hostPort();
        options.audioSource = files_.file("bob.wav");
        options.mediaEncryption = GetParam().baresips;
        ASSERT_TRUE(test::writeTone(options.audioSource, kBaresipTone, 30.0));
        bob_ = start<test::BaresipPeer>(options);
        ASSERT_TRUE(bob_);
        ASSERT_TRUE(bob_->waitForEvent("REGISTER_OK"));
        UserAgentConfig config = loopbackConfig();
        config.rtpPortMin = kOurRtpMin;
        config.rtpPortMax = kOurRtpMax;
        ua_ = startUserAgent(config);
        ASSERT_TRUE(ua_);
        line_ = registerAlice(*ua_, *kamailio_, TransportKind::Udp, GetParam().ours);
        ASSERT_GT(line_, 0);
        ASSERT_TRUE(capture_.start(files_.file("call.pcap"), files_.file("tcpdump.log"))) << capture_.log();
    }

    // The call up on both sides, whoever called.
    int connect() {
        if (GetParam().weCall) {
            const int call = ua_->makeCall(line_, "bob");
            EXPECT_TRUE(waitFor([&] { return events->now().lastCall[call].state == "Connected"; }, 5s));
            EXPECT_TRUE(bob_->waitForEvent("CALL_ESTABLISHED"));
            return call;
        }
        std::string error;
        EXPECT_TRUE(bob_->command("dial", "sip:alice@" + kamailio_->hostPort(), &error)) << error;
        EXPECT_TRUE(waitFor([&] { return !events->now().incoming.empty(); }, 5s));
        if (events->now().incoming.empty()) return 0;
        const int call = events->now().incoming[0].id;
        EXPECT_TRUE(ua_->answerCall(call));
        EXPECT_TRUE(bob_->waitForEvent("CALL_ESTABLISHED"));
        return call;
    }

    bool weHearBob() {
        const auto played = card_->played();
        if (played.size() < 800) return false;
        const std::span<const int16_t> block(played.end() - 800, played.end());
        return test::rms(block) > 1000.0 && std::abs(test::dominantFrequency(block, 8000, 100.0, 3000.0) - kBaresipTone) < 50.0;
    }

    // Bob's recording carries our tone in most quarter seconds of its first second and a half.
    void expectBobHeardUs() {
        ASSERT_TRUE(waitFor([&] {
            const auto files = bob_->recordings();
            const auto audio = files.empty() ? std::nullopt : test::readWav(files.back());
            return audio && audio->seconds() >= 1.5;
        }, 5s));
        const auto audio = test::readWav(bob_->recordings().back());
        ASSERT_TRUE(audio);
        size_t blocks = 0, ours = 0;
        for (size_t at = 0; at + 2000 <= 12000; at += 2000, ++blocks) {
            ours += test::toneShare(std::span<const int16_t>(audio->samples.data() + at, 2000), kOurTone, 8000) > 0.9;
        }
        EXPECT_GE(ours * 10, blocks * 8);
    }

    // Every G.711 packet either way on the call's port `ourPort` is 12 + 160 +
    // 10 bytes (the 80-bit tag), and its payload read as G.711 carries neither
    // side's tone. Other tests' calls in the captured range are left out.
    void expectNoClearAudioOnTheWire(uint16_t ourPort) {
        capture_.stop();
        const auto datagrams = readCapture(files_.file("call.pcap"));
        size_t fromUs = 0, toUs = 0, clear = 0, wrongSize = 0;
        for (const Datagram& d : datagrams) {
            const auto& p = d.payload;
            const bool ours = d.sourcePort == ourPort;
            if (!ours && d.destinationPort != ourPort) continue;
            if (p.size() < 12 || (p[0] >> 6) != 2 || (p[1] & 0x7f) > 8 || (p[1] >= 200 && p[1] <= 204)) continue;
            (ours ? fromUs : toUs)++;
            wrongSize += p.size() != 12 + 160 + 10;
            std::vector<int16_t> samples;
            for (size_t i = 12; i < std::min<size_t>(p.size(), 172); ++i) samples.push_back(ulawToLinear(p[i]));
            clear += test::toneShare(samples, ours ? kOurTone : kBaresipTone, 8000) > 0.5;
        }
        EXPECT_GE(fromUs, 25u);
        EXPECT_GE(toUs, 25u);
        EXPECT_EQ(wrongSize, 0u);
        EXPECT_EQ(clear, 0u) << "packets whose payload is our or baresip's tone in the clear";
    }

    test::KamailioServer* kamailio_ = nullptr;
    test::BaresipPeer* bob_ = nullptr;
    std::unique_ptr<UserAgent> ua_;
    int line_ = 0;
    std::unique_ptr<test::SoundCard> card_;
    Capture capture_;

private:
    test::TempDir files_{"velmora-srtp"};
};

TEST_P(SrtpInteropTest, AudioCrossesEncryptedBothWays) {
    ASSERT_NO_FATAL_FAILURE(startAll());
    const int call = connect();
    ASSERT_GT(call, 0);
    ASSERT_TRUE(ua_->callMedia(call));
    EXPECT_TRUE(waitFor([&] {
        const auto media = events->now().media[call];
        return std::find(media.begin(), media.end(), CallMediaEvent::SecureActive) != media.end();
    }, 5s));
    card_ = std::make_unique<test::SoundCard>(ua_->callMedia(call), test::sine(kOurTone));
    EXPECT_TRUE(waitFor([&] { return weHearBob(); }, 5s));
    ASSERT_NO_FATAL_FAILURE(expectBobHeardUs());
    auto* srtp = dynamic_cast<SrtpTransport*>(&ua_->callMedia(call)->transport());
    ASSERT_NE(srtp, nullptr);
    EXPECT_EQ(srtp->stats().unauthentic, 0u);
    EXPECT_EQ(srtp->stats().replayed, 0u);
    const auto* rtp = dynamic_cast<RtpSession*>(&srtp->inner());
    ASSERT_NE(rtp, nullptr);
    const uint16_t ourPort = rtp->localPort();
    ASSERT_TRUE(ua_->hangupCall(call));
    EXPECT_TRUE(bob_->waitForClosed());
    expectNoClearAudioOnTheWire(ourPort);
}

INSTANTIATE_TEST_SUITE_P(
    Calls, SrtpInteropTest,
    ::testing::Values(SrtpCase{"WeRequireBaresipMandates", true, SrtpPolicy::Required, "srtp-mand"},
                      SrtpCase{"BaresipOffersBestEffortWeOffer", false, SrtpPolicy::Offered, "srtp"},
                      SrtpCase{"BaresipMandatesWeAreOff", false, SrtpPolicy::Off, "srtp-mand"}),
    [](const ::testing::TestParamInfo<SrtpCase>& param) { return std::string(param.param.name); });

}  // namespace
}  // namespace kelsip
