// The phone core: starting the engine with an account, the operations of
// the front end, and the stores it keeps up to date.
#include "app/core/phone_core.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <sstream>

#include "app/core/local_time.h"
#include "engine/sdk/velmora_sdk.h"

namespace velphone {

int64_t PhonePlatform::nowMs() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int64_t PhonePlatform::wallSeconds() const {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

namespace {

int transportFlag(const std::string& transport) {
    std::string t = transport;
    std::transform(t.begin(), t.end(), t.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (t == "tcp") return VELMORA_TRANSPORT_TCP;
    if (t == "tls") return VELMORA_TRANSPORT_TLS;
    return VELMORA_TRANSPORT_UDP;
}

std::string localTime(int64_t when, const char* format) {
    const std::time_t t = static_cast<std::time_t>(when);
    std::tm parts{};
    if (!platformLocalTime(t, parts)) return {};
    std::ostringstream text;
    text << std::put_time(&parts, format);
    return text.str();
}

}  // namespace

std::string dialable(const std::string& typed) {
    const auto first = typed.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    const std::string trimmed = typed.substr(first, typed.find_last_not_of(" \t") - first + 1);
    // An address is dialed as it stands (a link, a pasted URI, a user at a
    // host); only what cannot go into a request line is refused.
    if (trimmed.find('@') != std::string::npos || trimmed.rfind("sip:", 0) == 0 || trimmed.rfind("sips:", 0) == 0) {
        const bool clean = std::none_of(trimmed.begin(), trimmed.end(), [](char c) {
            return static_cast<unsigned char>(c) <= 0x20 || c == 0x7f;
        });
        return clean ? trimmed : std::string();
    }
    std::string number;
    for (const char c : trimmed) {
        if (std::isdigit(static_cast<unsigned char>(c)) || std::string_view("+*#._-").find(c) != std::string_view::npos) {
            number += c;
        }
    }
    return number;
}

std::string formatListTime(int64_t when, int64_t now) {
    const std::string day = localTime(when, "%Y-%m-%d");
    if (day == localTime(now, "%Y-%m-%d")) return localTime(when, "%H:%M");
    if (day == localTime(now - 86400, "%Y-%m-%d")) return "Yesterday";
    return day;
}

std::string formatDuration(int64_t seconds) {
    if (seconds < 0) seconds = 0;
    char text[32];
    if (seconds >= 3600) {
        std::snprintf(text, sizeof text, "%d:%02d:%02d", static_cast<int>(seconds / 3600),
                      static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
    } else {
        std::snprintf(text, sizeof text, "%02d:%02d", static_cast<int>(seconds / 60), static_cast<int>(seconds % 60));
    }
    return text;
}

PhoneCore::PhoneCore(PhonePlatform& platform, Stores stores, EngineSetup setup)
    : platform_(platform), stores_(std::move(stores)), setup_(std::move(setup)) {}

PhoneCore::~PhoneCore() { exit(); }

bool PhoneCore::load(std::string* error) {
    storesReady_ = stores_.prepare(error);
    std::string warning;
    account_ = stores_.loadAccount(&warning);
    settings_ = stores_.loadSettings(&warning);
    contacts_ = stores_.loadContacts(&warning);
    callLog_ = stores_.loadCallLog(&warning);
    if (!warning.empty()) setStatus(warning);
    if (storesReady_ && stores_.passwordNeedsProtecting()) (void)stores_.saveAccount(account_);
    if (settings_.logToFile) setLogToFile(true);
    return storesReady_;
}

void PhoneCore::setStatus(const std::string& text) {
    message_ = text;
    messageUntil_ = platform_.nowMs() + kStatusMs;
    platform_.changed();
}

std::string PhoneCore::statusText() const {
    if (!message_.empty() && platform_.nowMs() < messageUntil_) return message_;
    return registrationText_;
}

bool PhoneCore::start(const Account& account) {
    if (const auto problem = validateAccount(account)) {
        setStatus(*problem);
        return false;
    }
    const bool restarting = engine_ != nullptr;
    setStatus(restarting ? "Restarting with the new account..." : "Starting...");
    stopEngine();
    account_ = account;
    if (storesReady_) (void)stores_.saveAccount(account_);
    engineState_ = EngineState::Starting;
    registrationText_ = "Starting...";

    velmora_config config;
    velmora_config_init(&config);
    config.bind_address = setup_.bindAddress.c_str();
    config.sip_port = static_cast<uint16_t>(setup_.sipPort);
    config.srtp_policy = settings_.srtp == "required" ? 2 : settings_.srtp == "offered" ? 1 : 0;
    config.ice = settings_.ice ? 1 : 0;
    config.turn_server = settings_.turnServer.c_str();
    config.turn_user = settings_.turnUser.c_str();
    config.turn_password = settings_.turnPassword.c_str();
    if (setup_.virtualDevice) {
        engine_ = velmora_create_virtual(
            &config, &PhoneCore::deliverEvent, this,
            [](int16_t* buffer, size_t count, void* self) {
                auto* core = static_cast<PhoneCore*>(self);
                if (core->setup_.microphone) {
                    core->setup_.microphone(buffer, count);
                } else {
                    std::fill_n(buffer, count, int16_t{0});
                }
            },
            [](const int16_t* samples, size_t count, void* self) {
                auto* core = static_cast<PhoneCore*>(self);
                if (core->setup_.loudspeaker) core->setup_.loudspeaker(samples, count);
            },
            this);
    } else {
        engine_ = velmora_create(&config, &PhoneCore::deliverEvent, this);
    }
    const bool ok = engine_ != nullptr &&
                    velmora_start(engine_, account_.user.c_str(), account_.password.c_str(), account_.domain.c_str(),
                                  account_.authUser.c_str(), account_.proxy.c_str(), account_.stun.c_str(),
                                  account_.voicemail.c_str(), transportFlag(account_.transport)) == 1;
    if (!ok) {
        stopEngine();
        registrationText_ = "Not started: click Options and Start";
        setStatus("Start failed: check the account (Options)");
        return false;
    }
    engineState_ = EngineState::Running;
    settings_.phoneOn = true;
    saveSettings();
    if (account_.domain.empty()) {
        char address[256] = "";
        (void)velmora_local_address(engine_, address, sizeof address);
        registrationText_ = std::string("Ready (peer to peer): ") + address;
    } else {
        registrationText_ = "Registering";
        if (!account_.voicemail.empty()) (void)velmora_subscribe_voicemail(engine_);
    }
    platform_.changed();
    return true;
}

void PhoneCore::stopEngine() {
    if (engine_ == nullptr) return;
    velmora_engine* engine = engine_;
    engine_ = nullptr;
    velmora_destroy(engine);  // un-registers, waiting at most 3 s
    // Events of this engine still queued for the front end find the
    // generation moved on and are dropped. No engine thread is left to
    // read the pointer while it changes.
    generation_ = std::make_shared<int>(*generation_ + 1);
    engineState_ = EngineState::NotStarted;
    recording_ = false;
    audioTest_ = false;
    for (auto& line : lines_) line = PhoneLine{};
}

void PhoneCore::exit() {
    stopEngine();
    if (sipLog_) {
        velmora_set_log(nullptr, nullptr, 2);
        sipLog_.reset();
    }
    if (!storesReady_) return;
    saveSettings();
    saveContacts();
    saveCallLog();
}

void PhoneCore::saveSettings() {
    if (storesReady_) (void)stores_.saveSettings(settings_);
}
void PhoneCore::saveContacts() {
    if (storesReady_) (void)stores_.saveContacts(contacts_);
}
void PhoneCore::saveCallLog() {
    if (storesReady_) (void)stores_.saveCallLog(callLog_);
}

int PhoneCore::lineOf(int call) const {
    for (int i = 0; i < kLines; ++i) {
        if (lines_[static_cast<size_t>(i)].call == call && call != 0) return i;
    }
    return -1;
}

int PhoneCore::freeLine() const {
    for (int i = 0; i < kLines; ++i) {
        if (lines_[static_cast<size_t>(i)].state == LineState::Idle) return i;
    }
    return -1;
}

int PhoneCore::lineAtHand(bool ringing) const {
    for (int i = 0; i < kLines; ++i) {
        const LineState s = lines_[static_cast<size_t>(i)].state;
        if (ringing ? s == LineState::Ringing : (s == LineState::Talking || s == LineState::Calling)) return i;
    }
    for (int i = 0; i < kLines; ++i) {
        if (lines_[static_cast<size_t>(i)].state != LineState::Idle) return i;
    }
    return -1;
}

int PhoneCore::callAt(int lineIndex, bool ringing) const {
    const int index = lineIndex >= 0 && lineIndex < kLines ? lineIndex : lineAtHand(ringing);
    return index < 0 ? 0 : lines_[static_cast<size_t>(index)].call;
}

void PhoneCore::dial(const std::string& typed) {
    const std::string number = dialable(typed);
    if (number.empty()) {
        setStatus("Type a number first");
        return;
    }
    settings_.lastDialed = number;
    saveSettings();
    if (engine_ == nullptr || engineState_ != EngineState::Running) {
        setStatus("Not started: click Options and Start");
        if (lines_[0].state == LineState::Idle) lines_[0].text = "Cannot call";
        platform_.changed();
        return;
    }
    const int index = freeLine();
    if (index < 0) {
        setStatus("Both lines busy");
        return;
    }
    const int call = velmora_call(engine_, number.c_str());
    PhoneLine& line = lines_[static_cast<size_t>(index)];
    if (call <= 0) {
        line.text = "Cannot call";
        setStatus("Cannot call " + number);
        return;
    }
    line = PhoneLine{};
    line.state = LineState::Calling;
    line.call = call;
    line.number = number;
    line.started = platform_.wallSeconds();
    line.text = "Calling";
    platform_.changed();
}

void PhoneCore::answer(int lineIndex) {
    if (engine_ != nullptr) (void)velmora_answer(engine_, callAt(lineIndex, true));
}

void PhoneCore::reject(int lineIndex) {
    if (engine_ != nullptr) (void)velmora_reject(engine_, callAt(lineIndex, true));
}

void PhoneCore::hangup(int lineIndex) {
    if (engine_ != nullptr) (void)velmora_hangup(engine_, callAt(lineIndex, false));
}

void PhoneCore::hold(int lineIndex) {
    if (engine_ != nullptr) (void)velmora_hold(engine_, callAt(lineIndex, false));
}

void PhoneCore::resume(int lineIndex) {
    if (engine_ == nullptr) return;
    int call = 0;
    if (lineIndex >= 0 && lineIndex < kLines) {
        call = lines_[static_cast<size_t>(lineIndex)].call;
    } else {
        for (const auto& line : lines_) {
            if (line.state == LineState::OnHold) call = line.call;
        }
    }
    (void)velmora_resume(engine_, call);
}

void PhoneCore::transfer(const std::string& target, int lineIndex) {
    const std::string to = dialable(target);
    if (to.empty()) {
        setStatus("Type a number first");
        return;
    }
    if (engine_ == nullptr || velmora_transfer(engine_, callAt(lineIndex, false), to.c_str()) != 1) {
        setStatus("Cannot transfer");
    }
}

void PhoneCore::sendDtmf(char digit, int lineIndex) {
    if (engine_ != nullptr) (void)velmora_send_dtmf(engine_, callAt(lineIndex, false), digit);
}

void PhoneCore::sendMessage(const std::string& target, const std::string& text) {
    const std::string to = dialable(target);
    if (engine_ == nullptr || to.empty() || velmora_send_message(engine_, to.c_str(), text.c_str(), "") <= 0) {
        setStatus("Cannot send the message");
        return;
    }
    setStatus("Message sent to " + to);
}

void PhoneCore::setRecording(bool on) {
    if (engine_ == nullptr) return;
    if (!on) {
        if (recording_) (void)velmora_stop_recording(engine_);
        recording_ = false;
        platform_.changed();
        return;
    }
    const bool inCall = std::any_of(lines_.begin(), lines_.end(), [](const PhoneLine& l) {
        return l.state == LineState::Talking || l.state == LineState::OnHold || l.state == LineState::HeldByPeer;
    });
    if (!inCall) {
        setStatus("Recording works during a call");
        return;
    }
    std::string error;
    if (!storesReady_ && !stores_.prepare(&error)) {
        setStatus("Cannot start recording");
        return;
    }
    const std::string name = "call_" + localTime(platform_.wallSeconds(), "%Y%m%d_%H%M%S") + ".wav";
    const std::string path = (stores_.recordingsFolder() / name).string();
    if (velmora_start_recording(engine_, path.c_str()) != 1) {
        setStatus("Cannot start recording");
        return;
    }
    recording_ = true;
    setStatus("Recording to " + name);
}

void PhoneCore::setAudioTest(bool on) {
    if (engine_ == nullptr) {
        setStatus("Not started: click Options and Start");
        return;
    }
    if (on && std::any_of(lines_.begin(), lines_.end(), [](const PhoneLine& l) { return l.state != LineState::Idle; })) {
        // The loopback would take the microphone from the call.
        setStatus("Audio test: not during a call");
        return;
    }
    (void)velmora_audio_test(engine_, on ? 1 : 0);
    audioTest_ = on;
    setStatus(on ? "Audio test: speak to hear yourself" : "Audio test off");
}

void PhoneCore::callVoicemail() {
    if (account_.voicemail.empty()) {
        setStatus("No voicemail number: set one in Options");
        return;
    }
    dial(account_.voicemail);
}

void PhoneCore::setMicrophoneMuted(bool on) {
    micMuted_ = on;
    if (engine_ != nullptr) (void)velmora_mute_microphone(engine_, on ? 1 : 0);
    platform_.changed();
}

void PhoneCore::setSpeakerMuted(bool on) {
    speakerMuted_ = on;
    if (engine_ != nullptr) (void)velmora_mute_speaker(engine_, on ? 1 : 0);
    platform_.changed();
}

void PhoneCore::setMicLevel(int level) {
    settings_.micLevel = std::clamp(level, 0, 100);
    if (engine_ != nullptr) (void)velmora_set_microphone_level(engine_, settings_.micLevel);
    saveSettings();
    platform_.changed();
}

void PhoneCore::setDoNotDisturb(bool on) {
    doNotDisturb_ = on;
    setStatus(on ? "Do not disturb: on" : "Do not disturb: off");
}

void PhoneCore::setAutoAnswer(bool on) {
    settings_.autoAnswer = on;
    saveSettings();
    platform_.changed();
}

bool PhoneCore::setSrtp(std::string_view policy) {
    if (policy != "off" && policy != "offered" && policy != "required") return false;
    settings_.srtp = std::string(policy);
    saveSettings();
    return true;
}

void PhoneCore::setIce(bool on, const std::string& turnServer, const std::string& turnUser,
                       const std::string& turnPassword) {
    settings_.ice = on;
    settings_.turnServer = turnServer;
    settings_.turnUser = turnUser;
    settings_.turnPassword = turnPassword;
    saveSettings();
}

void PhoneCore::setCloseToTray(bool on) {
    settings_.closeToTray = on;
    saveSettings();
}

void PhoneCore::setLogToFile(bool on) {
    settings_.logToFile = on;
    saveSettings();
    if (!on) {
        if (sipLog_) {
            velmora_set_log(nullptr, nullptr, 2);
            sipLog_.reset();
            setStatus("SIP log: stopped");
        }
        return;
    }
    auto file = std::make_unique<SipLogFile>(stores_.logsFolder());
    if (!storesReady_ || !file->open()) {
        settings_.logToFile = false;
        setStatus("Cannot write the SIP log");
        return;
    }
    sipLog_ = std::move(file);
    velmora_set_log(
        [](int level, const char* component, const char* text, void* log) {
            // "2026-11-25 09:15:02.047 [2] [transport] ...": local time, level, component.
            const auto now = std::chrono::system_clock::now();
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
            char millis[8];
            std::snprintf(millis, sizeof millis, ".%03d", static_cast<int>(ms % 1000));
            static_cast<SipLogFile*>(log)->write(localTime(ms / 1000, "%Y-%m-%d %H:%M:%S") + millis + " [" +
                                                 std::to_string(level) + "] [" + component + "] " + text);
        },
        sipLog_.get(), 1);
    setStatus("SIP log: saving to Logs\\sip-log.txt");
}

void PhoneCore::addContact(const Contact& contact) {
    contacts_.push_back(contact);
    saveContacts();
    platform_.changed();
}

bool PhoneCore::editContact(size_t index, const Contact& contact) {
    if (index >= contacts_.size()) return false;
    contacts_[index] = contact;
    saveContacts();
    platform_.changed();
    return true;
}

bool PhoneCore::removeContact(size_t index) {
    if (index >= contacts_.size()) return false;
    contacts_.erase(contacts_.begin() + static_cast<std::ptrdiff_t>(index));
    saveContacts();
    platform_.changed();
    return true;
}

bool PhoneCore::removeCallLogEntry(size_t index) {
    if (index >= callLog_.size()) return false;
    callLog_.erase(callLog_.begin() + static_cast<std::ptrdiff_t>(index));
    saveCallLog();
    platform_.changed();
    return true;
}

void PhoneCore::clearCallLog() {
    callLog_.clear();
    saveCallLog();
    platform_.changed();
}

}  // namespace velphone
