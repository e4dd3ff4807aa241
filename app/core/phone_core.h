// The phone's model between the engine and a front end (the window, or the
// terminal): the two lines, the status texts, dialing, recording, the audio
// test, voicemail, do-not-disturb, auto answer and the call log. It reaches
// the engine only through the flat C interface, and the front end only
// through PhonePlatform. All its state is touched on the front end's thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "app/core/stores.h"

struct velmora_engine;
struct velmora_event;

namespace velphone {

class PhonePlatform {
public:
    virtual ~PhonePlatform() = default;
    // Runs `task` on the front end's thread; called from engine threads.
    virtual void post(std::function<void()> task) = 0;
    // Something the front end shows has changed.
    virtual void changed() = 0;
    // A notification the user should see even when the phone is hidden.
    virtual void notify(const std::string& title, const std::string& text) = 0;
    // A monotonic clock in ms (status expiry) and the wall clock in seconds
    // since 1970 (the call log); tests set both.
    [[nodiscard]] virtual int64_t nowMs() const;
    [[nodiscard]] virtual int64_t wallSeconds() const;
};

enum class EngineState { NotStarted, Starting, Running };

enum class LineState { Idle, Ringing, Calling, Talking, OnHold, HeldByPeer, Ending };

struct PhoneLine {
    LineState state = LineState::Idle;
    int call = 0;  // the engine's line (call number); 0 when idle
    std::string number;
    std::string name;
    bool incoming = false;
    bool answered = false;
    int64_t started = 0;    // wall seconds the call was placed or offered
    int64_t connected = 0;  // wall seconds it was answered; 0 before
    bool secure = false;    // media flags from the engine
    bool mediaRunning = false;
    bool mediaFailed = false;
    std::string text;  // "Calling", "Talking", "Call ended: Busy Here", ...
};

struct VoicemailStatus {
    bool waiting = false;
    int newCount = 0;
    int oldCount = 0;
    std::string account;
};

// How the core makes its engine: on the system's sound device by default;
// the terminal front end can give a virtual device fed from files.
struct EngineSetup {
    std::string bindAddress = "0.0.0.0";
    int sipPort = 5060;  // 0: any free port
    // When set, the engine runs on a virtual device with these functions.
    std::function<void(int16_t*, size_t)> microphone;
    std::function<void(const int16_t*, size_t)> loudspeaker;
    bool virtualDevice = false;
};

class PhoneCore {
public:
    static constexpr int kLines = 2;
    static constexpr int64_t kStatusMs = 4000;

    PhoneCore(PhonePlatform& platform, Stores stores, EngineSetup setup = {});
    // Stops the engine (un-registering) and saves the stores.
    ~PhoneCore();
    PhoneCore(const PhoneCore&) = delete;
    PhoneCore& operator=(const PhoneCore&) = delete;

    // Reads the stores. False, with the reason, when the data folder cannot
    // be made; the core then runs on defaults and saves nothing.
    [[nodiscard]] bool load(std::string* error = nullptr);
    // Starts (or restarts) the engine with `account`, which is stored.
    [[nodiscard]] bool start(const Account& account);
    // Stops the engine and saves the stores.
    void exit();

    // The engine's event callback: copies the record and posts it to the
    // front end's thread, where apply() runs.
    static void deliverEvent(const velmora_event* event, void* core);
    void deliverEvent(int type, int line, int a, int b, int c, char ch, const char* s1, const char* s2,
                      const char* s3);

    // Operations for the front end. A line index is 0 or 1; -1 means the
    // line at hand (the ringing one to answer, the talking one otherwise).
    void dial(const std::string& typed);
    void answer(int lineIndex = -1);
    void reject(int lineIndex = -1);
    void hangup(int lineIndex = -1);
    void hold(int lineIndex = -1);
    void resume(int lineIndex = -1);
    void transfer(const std::string& target, int lineIndex = -1);
    void sendDtmf(char digit, int lineIndex = -1);
    void sendMessage(const std::string& target, const std::string& text);
    void setRecording(bool on);
    void setAudioTest(bool on);
    void callVoicemail();
    void setMicrophoneMuted(bool on);
    void setSpeakerMuted(bool on);
    void setMicLevel(int level);
    void setDoNotDisturb(bool on);
    void setAutoAnswer(bool on);
    void setLogToFile(bool on);
    void setCloseToTray(bool on);
    // "off", "offered" or "required"; false for another word. Takes effect
    // at the next start.
    bool setSrtp(std::string_view policy);
    // ICE for the next start, with a TURN server ("" for none); kept in the settings.
    void setIce(bool on, const std::string& turnServer, const std::string& turnUser, const std::string& turnPassword);
    // Contacts; indexes into contacts().
    void addContact(const Contact& contact);
    bool editContact(size_t index, const Contact& contact);
    bool removeContact(size_t index);
    // The call log; indexes into callLog(). Recordings stay on disk.
    bool removeCallLogEntry(size_t index);
    void clearCallLog();
    // A message in the status line for kStatusMs (the front end's refusals).
    void showStatus(const std::string& text) { setStatus(text); }

    // What the front end shows.
    [[nodiscard]] EngineState engineState() const { return engineState_; }
    // The temporary message while it lasts, else the registration text.
    [[nodiscard]] std::string statusText() const;
    [[nodiscard]] const std::string& registrationText() const { return registrationText_; }
    [[nodiscard]] const std::array<PhoneLine, kLines>& lines() const { return lines_; }
    [[nodiscard]] const VoicemailStatus& voicemail() const { return voicemail_; }
    [[nodiscard]] const std::vector<Contact>& contacts() const { return contacts_; }
    [[nodiscard]] const std::vector<CallLogEntry>& callLog() const { return callLog_; }
    [[nodiscard]] const Account& account() const { return account_; }
    [[nodiscard]] const Settings& settings() const { return settings_; }
    [[nodiscard]] bool doNotDisturb() const { return doNotDisturb_; }
    [[nodiscard]] bool recording() const { return recording_; }
    [[nodiscard]] bool audioTest() const { return audioTest_; }
    [[nodiscard]] bool microphoneMuted() const { return micMuted_; }
    [[nodiscard]] bool speakerMuted() const { return speakerMuted_; }
    [[nodiscard]] int missedCalls() const { return missedCalls_; }
    void clearMissedCalls() { missedCalls_ = 0; }

    // Applies one engine event; public for the tests' tables.
    struct Event {
        int type = 0, line = -1, a = 0, b = 0, c = 0;
        char ch = 0;
        std::string s1, s2, s3;
    };
    void apply(const Event& event);

private:
    void setStatus(const std::string& text);
    void stopEngine();
    void saveSettings();
    void saveContacts();
    void saveCallLog();
    [[nodiscard]] int lineOf(int call) const;
    [[nodiscard]] int freeLine() const;
    [[nodiscard]] int lineAtHand(bool ringing) const;
    [[nodiscard]] int callAt(int lineIndex, bool ringing) const;
    void applyRegistration(const Event& e);
    void applyIncoming(const Event& e);
    void applyCallState(const Event& e);
    void endCall(PhoneLine& line, const Event& e);

    PhonePlatform& platform_;
    Stores stores_;
    EngineSetup setup_;
    bool storesReady_ = false;
    velmora_engine* engine_ = nullptr;
    EngineState engineState_ = EngineState::NotStarted;
    // Bumped per engine: events of an engine already destroyed are dropped.
    std::shared_ptr<int> generation_ = std::make_shared<int>(0);

    Account account_;
    Settings settings_;
    std::vector<Contact> contacts_;
    std::vector<CallLogEntry> callLog_;
    std::array<PhoneLine, kLines> lines_;
    VoicemailStatus voicemail_;
    std::string registrationText_ = "Not started: click Options and Start";
    std::string message_;
    int64_t messageUntil_ = 0;
    bool doNotDisturb_ = false;
    bool recording_ = false;
    bool audioTest_ = false;
    bool micMuted_ = false;
    bool speakerMuted_ = false;
    int missedCalls_ = 0;
    std::unique_ptr<SipLogFile> sipLog_;
};

// "%H:%M" for a time today, "Yesterday" for one the day before, else the
// date "%Y-%m-%d" (local time).
[[nodiscard]] std::string formatListTime(int64_t when, int64_t now);
// "%d:%02d:%02d" from an hour on, else "%02d:%02d".
[[nodiscard]] std::string formatDuration(int64_t seconds);
// What dialing keeps of the typed text: digits and "+*#._-" for a number;
// a SIP address (with "@", or "sip:"/"sips:") is kept whole, trimmed.
[[nodiscard]] std::string dialable(const std::string& typed);

}  // namespace velphone
