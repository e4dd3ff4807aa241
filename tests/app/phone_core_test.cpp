// The phone core: engine event sequences and the status and line texts,
// notifications and call-log entries they must produce; then two cores on
// virtual sound devices calling each other through real engines.
#include <gtest/gtest.h>

#include <fstream>
#include <mutex>

#include "app/core/phone_core.h"
#include "engine/sdk/velmora_sdk.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace velphone {
namespace {

using namespace std::chrono_literals;
using kelsip::test::waitFor;

// Runs posted tasks on the test's thread when asked; a clock the test sets.
struct TestPlatform final : PhonePlatform {
    void post(std::function<void()> task) override {
        const std::lock_guard lock(mutex);
        tasks.push_back(std::move(task));
    }
    void changed() override {}
    void notify(const std::string& title, const std::string& text) override { notices.push_back(title + ": " + text); }
    int64_t nowMs() const override { return now; }
    int64_t wallSeconds() const override { return wall; }
    void runTasks() {
        std::vector<std::function<void()>> ready;
        {
            const std::lock_guard lock(mutex);
            ready.swap(tasks);
        }
        for (auto& t : ready) t();
    }
    std::mutex mutex;
    std::vector<std::function<void()>> tasks;
    std::vector<std::string> notices;
    int64_t now = 1000;
    int64_t wall = 1'700'000'000;
};

using E = PhoneCore::Event;

struct Step {
    E event;
    std::string status;  // expected status text after it ("" = unchanged check skipped)
    std::string line1;   // expected text of line 1
};

TEST(PhoneCoreEvents, SequencesGiveTheirTexts) {
    struct Case {
        const char* name;
        bool dnd;
        std::vector<Step> steps;
        std::vector<std::string> notices;
        std::vector<CallKind> log;
    };
    const E offer{VELMORA_EVENT_INCOMING_CALL, 5, 0, 0, 0, 0, "sip:bob@example.com", "Bob", ""};
    const Case cases[] = {
        {"registration",
         false,
         {{{1, 1, 1, 0, 0, 0, "", "", ""}, "Registering", ""},
          {{1, 1, 2, 200, 0, 0, "OK", "", ""}, "\u25CF Registered", ""},
          {{1, 1, 4, 403, 0, 0, "Forbidden", "", ""}, "Registration failed: Forbidden", ""},
          {{1, 1, 3, 0, 0, 0, "", "", ""}, "Un-registering...", ""},
          {{1, 1, 0, 0, 0, 0, "", "", ""}, "Not registered", ""}},
         {},
         {}},
        {"missed call",
         false,
         {{offer, "", "Incoming call from Bob <sip:bob@example.com>"},
          {{3, 5, VELMORA_CALL_TERMINATED, 487, 1, 0, "sip:bob@example.com", "Request Terminated", ""},
           "Call ended: Request Terminated", "Call ended: Request Terminated"}},
         {"Incoming call: Bob <sip:bob@example.com>", "Missed call: Bob"},
         {CallKind::Missed}},
        {"answered, secured, held both ways, ended",
         false,
         {{offer, "", "Incoming call from Bob <sip:bob@example.com>"},
          {{3, 5, VELMORA_CALL_CONNECTED, 200, 1, 0, "", "OK", ""}, "", "Talking"},
          {{4, 5, 0, 0, VELMORA_MEDIA_SECURE | VELMORA_MEDIA_RUNNING, 0, "PCMU/8000", "", ""}, "", "Talking SRTP"},
          {{3, 5, VELMORA_CALL_ON_HOLD, 200, 1, 0, "", "", ""}, "", "On hold"},
          {{3, 5, VELMORA_CALL_HELD_BY_PEER, 200, 1, 0, "", "", ""}, "", "Held by peer"},
          {{3, 5, VELMORA_CALL_DISCONNECTING, 200, 1, 0, "", "", ""}, "", "Ending"},
          {{3, 5, VELMORA_CALL_TERMINATED, 200, 1, 0, "", "", ""}, "Call ended", "Call ended"}},
         {"Incoming call: Bob <sip:bob@example.com>"},
         {CallKind::Incoming}},
        {"do not disturb", true, {{offer, "Do not disturb: rejected", ""}}, {}, {}},
        {"both lines busy",
         false,
         {{offer, "", "Incoming call from Bob <sip:bob@example.com>"},
          {{2, 6, 0, 0, 0, 0, "sip:carol@example.com", "", ""}, "", "Incoming call from Bob <sip:bob@example.com>"},
          {{2, 7, 0, 0, 0, 0, "sip:dave@example.com", "", ""}, "Both lines busy: rejected",
           "Incoming call from Bob <sip:bob@example.com>"},
          // The rejected call's own end is not news and logs nothing.
          {{3, 7, VELMORA_CALL_TERMINATED, 486, 1, 0, "", "Busy Here", ""}, "Both lines busy: rejected",
           "Incoming call from Bob <sip:bob@example.com>"}},
         {"Incoming call: Bob <sip:bob@example.com>", "Incoming call: sip:carol@example.com"},
         {}},
        {"the other events",
         false,
         {{{5, 5, 0, 0, 0, '7', "", "", ""}, "DTMF received: 7", ""},
          {{9, 5, 0, 100, 0, 0, "", "", ""}, "Transferring... (100)", ""},
          {{9, 5, 0, 202, 0, 0, "", "", ""}, "Transfer completed", ""},
          {{9, 5, 0, 486, 0, 0, "", "", ""}, "Transfer failed (486)", ""},
          {{11, -1, 0, 0, 0, 0, "capture cannot open", "", ""}, "Audio error: capture cannot open", ""},
          {{12, -1, 2, 8, 1, 0, "sip:box@example.com", "", ""}, "Voicemail: 2 new, 8 old", ""},
          {{13, -1, 1, 0, 0, 0, "/tmp/call.wav", "", ""}, "Recording saved", ""},
          {{6, -1, 0, 0, 0, 0, "sip:carol@example.com", "lunch?", "text/plain"}, "Message from sip:carol@example.com: lunch?", ""}},
         {"Message from sip:carol@example.com: lunch?"},
         {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        kelsip::test::TempDir dir;
        TestPlatform platform;
        PhoneCore core(platform, Stores(dir.path()));
        ASSERT_TRUE(core.load());
        if (c.dnd) core.setDoNotDisturb(true);
        platform.now += PhoneCore::kStatusMs;  // past the switch's own message
        for (const Step& step : c.steps) {
            platform.wall += 5;
            core.apply(step.event);
            if (!step.status.empty()) {
                EXPECT_EQ(core.statusText(), step.status) << "after event " << step.event.type;
            }
            EXPECT_EQ(core.lines()[0].text, step.line1) << "after event " << step.event.type;
        }
        EXPECT_EQ(platform.notices, c.notices);
        std::vector<CallKind> kinds;
        for (const auto& entry : core.callLog()) kinds.push_back(entry.kind);
        EXPECT_EQ(kinds, c.log);
    }
}

TEST(PhoneCoreEvents, StatusMessagesLastFourSecondsAndTheLogKeepsTheCall) {
    kelsip::test::TempDir dir;
    TestPlatform platform;
    {
        PhoneCore core(platform, Stores(dir.path()));
        ASSERT_TRUE(core.load());
        core.apply({1, 1, 2, 200, 0, 0, "OK", "", ""});
        core.apply({5, 5, 0, 0, 0, '#', "", "", ""});
        platform.now += 3999;
        EXPECT_EQ(core.statusText(), "DTMF received: #");
        platform.now += 1;
        EXPECT_EQ(core.statusText(), "\u25CF Registered");

        core.apply({2, 9, 0, 0, 0, 0, "sip:bob@example.com", "", ""});
        core.apply({3, 9, VELMORA_CALL_CONNECTED, 200, 1, 0, "", "", ""});
        platform.wall += 3725;
        core.apply({3, 9, VELMORA_CALL_TERMINATED, 200, 1, 0, "", "Remote hangup", ""});
    }
    // Saved at exit, read back by the next core.
    PhoneCore again(platform, Stores(dir.path()));
    ASSERT_TRUE(again.load());
    ASSERT_EQ(again.callLog().size(), 1U);
    const CallLogEntry& entry = again.callLog()[0];
    EXPECT_EQ(entry.number, "sip:bob@example.com");
    EXPECT_EQ(entry.duration, 3725);
    EXPECT_EQ(entry.outcome, "Remote hangup");
    EXPECT_EQ(formatDuration(entry.duration), "1:02:05");
}

TEST(PhoneCoreText, DialingListTimesAndDurations) {
    const std::pair<const char*, const char*> dialed[] = {
        {" 0049 (30) 1234-567 ", "0049301234-567"}, {"*97#", "*97#"}, {"abc", ""}, {"", ""},
        {"sip:bob@example.com", "sip:bob@example.com"}, {" bob@127.0.0.1:5062 ", "bob@127.0.0.1:5062"},
        {"bob@example.com\r\nX: y", ""}};
    for (const auto& [typed, kept] : dialed) EXPECT_EQ(dialable(typed), kept) << typed;
    EXPECT_EQ(formatDuration(59), "00:59");
    EXPECT_EQ(formatDuration(3599), "59:59");
    EXPECT_EQ(formatDuration(3600), "1:00:00");
    const int64_t now = 1'700'000'000;
    EXPECT_EQ(formatListTime(now - 86400, now), "Yesterday");
    EXPECT_EQ(formatListTime(now - 10 * 86400, now).size(), 10U);  // a date
    EXPECT_EQ(formatListTime(now, now).size(), 5U);                 // hh:mm
}

TEST(PhoneCoreEvents, DialingNeedsANumberAndAStartedPhone) {
    kelsip::test::TempDir dir;
    TestPlatform platform;
    PhoneCore core(platform, Stores(dir.path()));
    ASSERT_TRUE(core.load());
    core.dial("hello");
    EXPECT_EQ(core.statusText(), "Type a number first");
    core.dial("123");
    EXPECT_EQ(core.statusText(), "Not started: click Options and Start");
    EXPECT_EQ(core.lines()[0].text, "Cannot call");
    EXPECT_EQ(core.settings().lastDialed, "123");
    core.setRecording(true);
    EXPECT_EQ(core.statusText(), "Not started: click Options and Start") << "no engine, no change";
    EXPECT_FALSE(core.start(Account{}));
    EXPECT_EQ(core.statusText(), "Enter a user name");

    core.setLogToFile(true);
    EXPECT_EQ(core.statusText(), "SIP log: saving to Logs\\sip-log.txt");
    EXPECT_TRUE(std::filesystem::exists(dir.path() / "Logs" / "sip-log.txt"));
    core.setLogToFile(false);
    EXPECT_EQ(core.statusText(), "SIP log: stopped");
    std::filesystem::remove_all(dir.path() / "Logs");
    std::ofstream(dir.path() / "Logs") << "a file where the folder should be";
    core.setLogToFile(true);
    EXPECT_EQ(core.statusText(), "Cannot write the SIP log");
    EXPECT_FALSE(core.settings().logToFile);
}

// Two cores with real engines on virtual sound devices, peer to peer.
TEST(PhoneCoreCalls, TwoPhonesCallHoldRecordAndLogTheCall) {
    kelsip::test::TempDir dir;
    TestPlatform alicePlatform, bobPlatform;
    EngineSetup setup;
    setup.bindAddress = "127.0.0.1";
    setup.sipPort = 0;
    setup.virtualDevice = true;
    PhoneCore alice(alicePlatform, Stores(dir.path() / "alice"), setup);
    PhoneCore bob(bobPlatform, Stores(dir.path() / "bob"), setup);
    ASSERT_TRUE(alice.load());
    ASSERT_TRUE(bob.load());
    bob.setAutoAnswer(true);
    ASSERT_TRUE(alice.start(Account{"alice", "", "", "", "", "", "", ""}));
    ASSERT_TRUE(bob.start(Account{"bob", "", "", "", "", "", "", ""}));
    const std::string prefix = "Ready (peer to peer): ";
    ASSERT_EQ(bob.registrationText().rfind(prefix, 0), 0U);
    const auto until = [&](const std::function<bool()>& condition) {
        return waitFor([&] {
            alicePlatform.runTasks();
            bobPlatform.runTasks();
            return condition();
        }, 10s);
    };

    alice.dial(bob.registrationText().substr(prefix.size()));
    ASSERT_TRUE(until([&] { return alice.lines()[0].text == "Talking" && bob.lines()[0].text == "Talking"; }));
    alice.hold();
    ASSERT_TRUE(until([&] { return alice.lines()[0].text == "On hold" && bob.lines()[0].text == "Held by peer"; }));
    alice.resume();
    ASSERT_TRUE(until([&] { return alice.lines()[0].text == "Talking"; }));
    alice.sendDtmf('5');
    ASSERT_TRUE(until([&] { return bob.statusText() == "DTMF received: 5"; }));
    alice.setRecording(true);
    EXPECT_EQ(alice.statusText().rfind("Recording to call_", 0), 0U) << alice.statusText();
    alice.setRecording(false);
    ASSERT_TRUE(until([&] { return alice.statusText() == "Recording saved"; }));
    alice.hangup();
    ASSERT_TRUE(until([&] { return !alice.callLog().empty() && !bob.callLog().empty(); }));
    EXPECT_EQ(alice.callLog()[0].kind, CallKind::Outgoing);
    EXPECT_EQ(bob.callLog()[0].kind, CallKind::Incoming);
    EXPECT_EQ(bob.lines()[0].text, "Call ended: Remote hangup");
    size_t recordings = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path() / "alice" / "Recordings")) {
        recordings += entry.path().extension() == ".wav";
    }
    EXPECT_EQ(recordings, 1U);
}

}  // namespace
}  // namespace velphone
