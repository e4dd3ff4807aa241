// The engine's inside: the user agent and its listener slots, the audio
// control thread with the device callbacks, the recorder and the audio test.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "engine/record/wav_recorder.h"
#include "engine/softphone_engine.h"
#include "sip/ua/user_agent.h"

namespace kelsip {
class MediaSession;
}

namespace kelsoftphone {

inline constexpr const char* kEngineTag = "Softphone";
inline constexpr int kMediaRate = 8000;
inline constexpr size_t kLoopbackBound = 16000;  // 2 s at 8000 Hz

class SoftphoneEngine::Impl : public kelsip::UserAgentListener, public std::enable_shared_from_this<Impl> {
public:
    Impl(SoftphoneConfig config, std::shared_ptr<SoftphoneListener> listener, std::shared_ptr<AudioDevice> device);
    ~Impl() override;

    // Threads start here, not in the constructor: they need shared_from_this.
    void launch();
    void shutdown();

    bool start(const SoftphoneAccount& account);
    void stop();
    bool started() const;

    int call(const std::string& number);
    bool answer(int line);
    bool reject(int line);
    bool hangup(int line);
    bool hold(int line);
    bool resume(int line);
    bool sendDtmf(int line, char digit);
    bool transfer(int line, const std::string& target);
    int sendMessage(const std::string& target, const std::string& body, const std::string& contentType);

    void muteMicrophone(bool on) { micMuted_ = on; }
    void muteSpeaker(bool on) { speakerMuted_ = on; }
    void setMicrophoneGain(float gain) { gain_ = gain; }
    void audioTest(bool on);

    bool startRecording(const std::string& path);
    void stopRecording();
    bool subscribeVoicemail();

    std::string localAddress() const;
    std::string audioDescription() const;

    // The stack's listener slots (event-loop thread).
    void onRegistrationState(int line, kelsip::RegistrationState state, int statusCode,
                             const std::string& reason) override;
    void onIncomingCall(const kelsip::CallInfo& call) override;
    void onCallState(const kelsip::CallInfo& call) override;
    void onCallMedia(int call, kelsip::CallMediaEvent event, const std::string& detail) override;
    void onCallInfo(const kelsip::CallInfo& call) override;
    void onDtmf(int call, char digit, kelsip::DtmfMethod method) override;
    void onTransferProgress(int call, int statusCode, const std::string& reason) override;
    void onReserved() override;
    void onSubscriptionState(const kelsip::SubscriptionInfo& subscription) override;
    void onSubscriptionBody(int subscription, const std::string& event, const std::string& body) override;
    void onMessage(int line, const std::string& from, const std::string& contentType, const std::string& body) override;

    // The device's threads.
    void onCapture(const int16_t* samples, size_t count);
    void onPlayout(int16_t* out, size_t count);

    // The voicemail box's summary body (public for the stack slot and tests).
    void takeMessageSummary(const std::string& body);

private:
    // What the engine knows of a call, on the loop thread.
    struct CallTrack {
        kelsip::CallInfo info;
        int mediaFlags = 0;  // kMediaSecure | kMediaRunning | kMediaFailed
        EngineCallState reported = EngineCallState::Terminated;  // last state told to the listener
        uint64_t order = 0;  // when it last became the talking call
    };

    std::shared_ptr<kelsip::UserAgent> agent() const;
    int resolveLine(int line, bool ringing) const;
    void trackCall(const kelsip::CallInfo& call);
    void reportCall(const kelsip::CallInfo& call);
    void chooseActiveCall();
    void setActiveMedia(int call, std::shared_ptr<kelsip::MediaSession> media);
    std::shared_ptr<kelsip::MediaSession> activeMedia() const;
    std::shared_ptr<WavRecorder> activeRecorder() const;

    void audioControlLoop();
    void wakeAudio();

    const SoftphoneConfig baseConfig_;
    const std::shared_ptr<SoftphoneListener> listener_;
    std::shared_ptr<AudioDevice> device_;

    // The stack: replaced by start, released by stop. Operations copy the
    // pointer under the mutex so that stop on another thread cannot pull it
    // from under them.
    mutable std::mutex agentMutex_;
    std::shared_ptr<kelsip::UserAgent> agent_;
    SoftphoneConfig config_;
    int line_ = 0;
    std::string address_;

    // Loop thread only.
    std::map<int, CallTrack> calls_;
    uint64_t callOrder_ = 0;
    std::atomic<int> activeCall_{0};

    // Audio control thread.
    std::mutex controlMutex_;
    std::condition_variable control_;
    bool shuttingDown_ = false;
    bool audioWanted_ = false;
    bool audioRunning_ = false;
    std::atomic<bool> deviceFailureReported_{false};
    uint64_t controlGeneration_ = 0;  // bumped by every wake
    std::thread audioThread_;
    mutable std::mutex descriptionMutex_;
    std::string description_;

    mutable std::mutex mediaMutex_;
    std::shared_ptr<kelsip::MediaSession> media_;

    mutable std::mutex recorderMutex_;
    std::shared_ptr<WavRecorder> recorder_;
    std::string recorderPath_;

    std::mutex loopbackMutex_;
    std::deque<int16_t> loopback_;
    std::atomic<bool> audioTest_{false};
    size_t prerollSamples_ = 1600;

    std::atomic<bool> micMuted_{false};
    std::atomic<bool> speakerMuted_{false};
    std::atomic<float> gain_{1.0f};
    std::vector<int16_t> gained_;  // capture thread's work buffer

    mutable std::mutex voicemailMutex_;
    std::string voicemailAccount_;
};

}  // namespace kelsoftphone
