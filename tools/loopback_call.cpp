// The main job's call: two user agents on loopback, peer to peer. Alice
// calls Bob, Bob answers, Alice plays a generated clip, Bob records what he
// hears into a WAV file, Alice holds and resumes and sends DTMF, then hangs
// up. Prints the call's progress and media figures and checks that the
// recording holds the clip. Exit status 0 when it does.
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <numbers>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "media/session/media_session.h"
#include "sip/core/log.h"
#include "sip/ua/user_agent.h"
#include "tools/tool_phone.h"
#include "support/sound_card.h"
#include "support/wav.h"

using namespace std::chrono_literals;
using kelsip::CallInfo;
using kelsip::DtmfMethod;
using kelsip::MediaSession;
using kelsip::UserAgent;

namespace {

std::mutex printMutex;
void say(const std::string& who, const std::string& what) {
    const std::lock_guard lock(printMutex);
    std::printf("  %-5s %s\n", who.c_str(), what.c_str());
    std::fflush(stdout);
}

class Events final : public kelsip::UserAgentListener {
public:
    explicit Events(std::string name) : name_(std::move(name)) {}
    void onIncomingCall(const CallInfo& call) override {
        say(name_, "incoming call from " + call.remoteUri);
        incoming_ = call.id;
    }
    void onCallState(const CallInfo& call) override {
        say(name_, "call " + std::to_string(call.id) + " " + call.state +
                       (call.reason.empty() ? "" : " (" + std::to_string(call.statusCode) + " " + call.reason + ")"));
        const std::lock_guard lock(mutex_);
        state_ = call.state;
    }
    void onCallInfo(const CallInfo& call) override {
        say(name_, std::string("call ") + (call.onHold ? "on hold" : call.remoteHold ? "held by the far end" : "resumed"));
        remoteHold_ = call.remoteHold;
    }
    void onCallMedia(int, kelsip::CallMediaEvent, const std::string& detail) override { say(name_, "media " + detail); }
    void onDtmf(int, char digit, DtmfMethod method) override {
        say(name_, std::string("DTMF ") + digit + (method == DtmfMethod::Info ? " (INFO)" : " (RFC 4733)"));
        const std::lock_guard lock(mutex_);
        digits_ += digit;
    }
    [[nodiscard]] std::string state() {
        const std::lock_guard lock(mutex_);
        return state_;
    }
    [[nodiscard]] std::string digits() {
        const std::lock_guard lock(mutex_);
        return digits_;
    }
    std::atomic<int> incoming_{0};
    std::atomic<bool> remoteHold_{false};

private:
    std::string name_;
    std::mutex mutex_;
    std::string state_;
    std::string digits_;
};

using velmora_tools::waitUntil;

std::unique_ptr<UserAgent> startPhone() { return velmora_tools::startPhone(-1); }

void printFigures(const char* who, const kelsip::MediaStatistics& s) {
    std::printf("  %-5s %s pt %d ptime %u ms: sent %llu packets, received %llu, lost %lld, jitter %.2f ms, "
                "playout delay %.1f ms (target %.1f), concealed %.2f%%%s\n",
                who, s.codec.c_str(), s.payloadType, s.ptimeMs, static_cast<unsigned long long>(s.packetsSent),
                static_cast<unsigned long long>(s.packetsReceived), static_cast<long long>(s.packetsLost), s.jitterMs,
                s.playout.currentDelayMs, s.playout.targetDelayMs,
                s.playout.samplesPlayed ? 100.0 * static_cast<double>(s.playout.samplesConcealed) /
                                              static_cast<double>(s.playout.samplesPlayed)
                                        : 0.0,
                s.roundTripMs ? (", round trip " + std::to_string(*s.roundTripMs).substr(0, 4) + " ms").c_str() : "");
}

}  // namespace

int main(int argc, char** argv) {
    const std::filesystem::path out = argc > 1 ? argv[1] : "bob-heard.wav";
    kelsip::log::setLevel(kelsip::LogLevel::Warn);

    // The clip: 2.5 s of a tone gliding from 300 to 1500 Hz with a second
    // voice an octave and a bit above, so that every stretch of it differs
    // from every other and can be found in the recording.
    std::vector<int16_t> clip(20000);
    double phase = 0;
    for (size_t i = 0; i < clip.size(); ++i) {
        const double t = static_cast<double>(i) / 8000.0;
        phase += 2 * std::numbers::pi * (300.0 + 480.0 * t) / 8000.0;
        clip[i] = static_cast<int16_t>(7000 * std::sin(phase) + 2500 * std::sin(2.1 * phase));
    }

    auto alice = startPhone();
    auto bob = startPhone();
    if (!alice || !bob) return 1;
    auto aliceEvents = std::make_shared<Events>("alice");
    auto bobEvents = std::make_shared<Events>("bob");
    alice->setListener(aliceEvents);
    bob->setListener(bobEvents);
    kelsip::LineConfig line;
    line.user = "alice";
    const int aliceLine = alice->addLine(line);
    line.user = "bob";
    (void)bob->addLine(line);
    const std::string bobUri = "sip:bob@" + bob->localAddress(kelsip::TransportKind::Udp).toString();

    std::printf("Alice (%s) calls Bob (%s), peer to peer:\n",
                alice->localAddress(kelsip::TransportKind::Udp).toString().c_str(), bobUri.c_str());
    const int a = alice->makeCall(aliceLine, bobUri);
    if (a < 1 || !waitUntil([&] { return bobEvents->incoming_ > 0; }, 5s)) {
        std::printf("demo: Bob never heard the call\n");
        return 1;
    }
    const int b = bobEvents->incoming_;
    if (!bob->answerCall(b) || !waitUntil([&] { return aliceEvents->state() == "Connected"; }, 5s)) {
        std::printf("demo: the call did not connect\n");
        return 1;
    }

    std::vector<int16_t> heard;
    {
        // Half a second of quiet first, as when someone picks up and then
        // speaks: the playout buffer settles its delay meanwhile.
        std::vector<int16_t> source(4000, 0);
        source.insert(source.end(), clip.begin(), clip.end());
        kelsip::test::SoundCard aliceCard(alice->callMedia(a), [&source](uint64_t n) {
            return n < source.size() ? source[n] : int16_t{0};
        });
        kelsip::test::SoundCard bobCard(bob->callMedia(b), nullptr);
        say("alice", "plays a 2.5 s clip (a glide from 300 to 1500 Hz)");
        (void)waitUntil([&] { return aliceCard.captured() >= source.size(); }, 10s);
        std::this_thread::sleep_for(300ms);  // the clip's tail crosses the network and the playout buffer
        say("alice", "puts the call on hold");
        (void)alice->holdCall(a);
        (void)waitUntil([&] { return bobEvents->remoteHold_.load(); }, 5s);
        std::this_thread::sleep_for(500ms);
        (void)alice->unholdCall(a);
        (void)waitUntil([&] { return !bobEvents->remoteHold_.load(); }, 5s);
        say("alice", "sends DTMF 1234#");
        (void)alice->sendDtmf(a, "1234#", DtmfMethod::Rfc4733);
        (void)waitUntil([&] { return bobEvents->digits().size() >= 5; }, 5s);
        heard = bobCard.played();
        std::printf("Media figures:\n");
        printFigures("alice", alice->callMedia(a)->statistics());
        printFigures("bob", bob->callMedia(b)->statistics());
    }
    (void)alice->hangupCall(a);
    (void)waitUntil([&] { return bobEvents->state() == "Terminated" && aliceEvents->state() == "Terminated"; }, 5s);

    kelsip::test::WavAudio audio;
    audio.samples = heard;
    std::string error;
    if (!kelsip::test::writeWav(out, audio, &error)) {
        std::printf("demo: cannot write %s: %s\n", out.string().c_str(), error.c_str());
        return 1;
    }
    // The playout buffer may shorten or lengthen its delay by a few samples
    // while the clip plays (it does so where the audio is quietest, but a
    // glide is never quiet), so the clip is found piece by piece: each 0.1 s
    // of it near where the previous piece was. The recording holds the clip
    // when nine pieces in ten match closely.
    const size_t piece = 800;
    const auto first = kelsip::test::bestCorrelation(heard, std::span<const int16_t>(clip).first(piece));
    size_t at = first.offset;
    size_t pieces = 1;
    size_t matched = first.value > 0.9 ? 1 : 0;
    for (size_t from = piece; from + piece <= clip.size(); from += piece) {
        const size_t lo = at + piece > 200 ? at + piece - 200 : 0;
        if (lo + piece > heard.size()) break;
        const auto window = std::span<const int16_t>(heard).subspan(lo, std::min<size_t>(piece + 400, heard.size() - lo));
        const auto m = kelsip::test::bestCorrelation(window, std::span<const int16_t>(clip).subspan(from, piece));
        ++pieces;
        matched += m.value > 0.9 ? 1 : 0;
        at = lo + m.offset;
    }
    const size_t expected = clip.size() / piece;
    std::printf("Bob's recording: %s (%.1f s)\n", std::filesystem::absolute(out).string().c_str(), audio.seconds());
    std::printf("The clip starts %.3f s into it; %zu of its %zu pieces of 0.1 s match the recording closely\n",
                static_cast<double>(first.offset) / 8000.0, matched, expected);
    const bool ok = pieces == expected && matched * 10 >= expected * 9 && bobEvents->digits() == "1234#";
    std::printf(ok ? "OK: the recording holds the clip and the digits arrived\n"
                   : "demo: the recording does not hold the clip, or digits went missing\n");
    return ok ? 0 : 1;
}
