// The softphone engine: the stack's user agent joined to a sound device,
// with call recording, the audio loopback test and the voicemail box, all
// reported to one listener.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/audio/audio_device.h"

namespace kelsoftphone {

// Where a field says "not applied yet", the stack has no such setting yet;
// the record keeps its place so that its layout does not change when it does.
struct SoftphoneConfig {
    std::string bindAddress = "0.0.0.0";
    uint16_t sipPort = 5060;  // UDP and TCP; 0 lets the system choose
    uint16_t tlsPort = 5061;
    bool enableUdp = true;
    bool enableTcp = true;
    // TLS listens on tlsPort when enabled, and whenever the account's
    // transport is TLS (3).
    bool enableTls = false;
    // Further trusted CAs (PEM) for servers' certificates, beside the
    // system's store: a private PBX's own CA.
    std::string tlsCaFile;
    // The account; start() fills these from its arguments.
    std::string user;
    std::string password;
    std::string domain;  // empty: peer to peer, no registration
    std::string authUser;
    std::string proxy;
    // "host" or "host:port" (3478): asked from the SIP socket for our public address.
    std::string stunServer;
    std::string voicemailNumber;
    int32_t transport = 1;  // 1 UDP, 2 TCP, 3 TLS
    std::string displayName;
    // RFC 5626 keep-alives on the registration's flow; 0: none.
    int32_t keepAliveSeconds = 30;
    std::string instanceId;         // "urn:uuid:..."; empty: made up at start
    std::string userAgent = "Velmora Networks SIP SDK v5.0";
    int32_t t1Ms = 500;
    int32_t t2Ms = 4000;
    int32_t t4Ms = 5000;
    int32_t enable100rel = 1;
    // The stack runs G.711 (PCMU, PCMA); names it does not run are skipped.
    std::vector<std::string> codecs{"PCMU", "PCMA", "G729", "GSM"};
    int32_t dtmfMethod = 0;  // 0 RFC 4733 events, 1 SIP INFO
    int32_t ptimeMs = 20;
    int32_t srtpPolicy = 0;  // 0 off, 1 offered, 2 required (see kelsip::SrtpPolicy)
    int32_t noAnswerTimeoutSeconds = 120;
    bool sessionTimers = true;
    bool telephoneEvent = true;
    int32_t sessionExpires = 1800;
    int32_t minSessionExpires = 90;
    bool ice = false;          // ICE for the calls' media, with the STUN server and the TURN server below
    bool rport = true;         // always on in the stack
    bool reregisterOnFailure = true;
    bool symmetricRtp = true;  // always on in the stack
    int32_t telephoneEventPayloadType = 101;
    // Ask the sound device for the system's communications processing
    // (echo cancellation, noise suppression) where it offers it.
    int32_t echoCancellation = 1;
    int32_t noiseSuppression = 1;
    int32_t minSubscriptionExpires = 60;
    int32_t registerExpires = 3600;
    std::vector<std::string> mediaTypes{"audio"};
    std::vector<std::string> dnsServers;  // "host" or "host:port"; empty: the system's
    int32_t jitterMaxDelayMs = 1000;
    int32_t audioBufferMs = 20;  // what the sound device buffers per direction
    // The audio test plays back what it heard this much later (1600 samples).
    int32_t audioTestPrerollMs = 200;
    int32_t jitterMinDelayMs = 6;
    int32_t voicemailSubscribeExpires = 300;
    uint16_t rtpPortMin = 10000;
    uint16_t rtpPortMax = 15000;
    bool unregisterOnShutdown = true;
    // A connected call that hears no RTP or RTCP this long is hung up; 0: never.
    int32_t mediaTimeoutSeconds = 30;
    // The TURN server for ICE ("ip[:port]", 3478 by default) and its long-term credentials.
    std::string turnServer;
    std::string turnUser;
    std::string turnPassword;
};

// Event codes of the flat interface; SoftphoneListener's slots map to them.
enum SoftphoneEventCode : int32_t {
    kEventRegistration = 1,
    kEventIncomingCall = 2,
    kEventCallState = 3,
    kEventCallMedia = 4,
    kEventDtmf = 5,
    kEventMessage = 6,
    kEventStackReserved = 7,
    kEventSubscription = 8,
    kEventTransfer = 9,
    kEventAudioState = 10,
    kEventAudioError = 11,
    kEventVoicemail = 12,
    kEventRecordingFinished = 13,
};

// A call's state as event 3 reports it (field a).
enum class EngineCallState : int32_t {
    Calling = 1,
    Proceeding = 2,
    Ringing = 3,
    Incoming = 4,
    Connected = 5,
    OnHold = 6,      // we hold it
    HeldByPeer = 7,  // the far end holds it
    Disconnecting = 8,
    Terminated = 9,
};

// Media flags of event 4 (field c).
enum : int32_t { kMediaSecure = 1, kMediaRunning = 2, kMediaFailed = 4 };

// "line" in call events and operations is the call's number in the stack;
// in registration events it is the account's line. Every slot runs on an
// engine thread (the stack's loop, the audio control thread, or the caller
// of stopRecording); keep it short and hand work to the application thread.
class SoftphoneListener {
public:
    virtual ~SoftphoneListener() = default;
    virtual void onRegistrationState(int /*line*/, int /*state*/, int /*statusCode*/, const std::string& /*reason*/) {}
    virtual void onIncomingCall(int /*line*/, const std::string& /*remote*/, const std::string& /*displayName*/) {}
    // `incoming` is 1 for a call we were offered; `remote` its address.
    virtual void onCallState(int /*line*/, EngineCallState /*state*/, int /*statusCode*/, int /*incoming*/,
                             const std::string& /*remote*/, const std::string& /*reason*/) {}
    virtual void onCallMedia(int /*line*/, int /*flags*/, const std::string& /*detail*/) {}
    virtual void onDtmf(int /*line*/, char /*digit*/) {}
    virtual void onMessage(const std::string& /*from*/, const std::string& /*body*/, const std::string& /*contentType*/) {}
    virtual void onStackReserved() {}  // forwarded; the stack never sends it
    // A subscription's state: `active` for "active", its number, event, target and state text.
    virtual void onSubscription(bool /*active*/, int /*statusCode*/, int /*subscription*/, const std::string& /*event*/,
                                const std::string& /*target*/, const std::string& /*state*/) {}
    virtual void onTransferProgress(int /*line*/, int /*statusCode*/) {}
    virtual void onAudioError(const std::string& /*text*/) {}
    // The sound device started (with its description) or stopped.
    virtual void onAudioState(bool /*running*/, const std::string& /*description*/) {}
    virtual void onVoicemail(bool /*waiting*/, int /*newCount*/, int /*oldCount*/, const std::string& /*account*/) {}
    virtual void onRecordingFinished(bool /*ok*/, const std::string& /*path*/) {}
};

// Transport flags of start().
enum class AccountTransport : int32_t { Udp = 1, Tcp = 2, Tls = 3 };

struct SoftphoneAccount {
    std::string user;
    std::string password;
    std::string domain;
    std::string authUser;
    std::string proxy;
    std::string stunServer;
    std::string voicemailNumber;
    AccountTransport transport = AccountTransport::Udp;
};

class SoftphoneEngine {
public:
    // On the system's sound device.
    SoftphoneEngine(SoftphoneConfig config, std::shared_ptr<SoftphoneListener> listener);
    // On a virtual device that takes the microphone from `source` and gives
    // the loudspeaker to `sink`.
    SoftphoneEngine(SoftphoneConfig config, std::shared_ptr<SoftphoneListener> listener, SampleSource source,
                    SampleSink sink);
    // On any device (tests).
    SoftphoneEngine(SoftphoneConfig config, std::shared_ptr<SoftphoneListener> listener,
                    std::shared_ptr<AudioDevice> device);
    // Un-registers (waiting up to 3000 ms), finishes a recording, stops the
    // sound and the stack.
    ~SoftphoneEngine();
    SoftphoneEngine(const SoftphoneEngine&) = delete;
    SoftphoneEngine& operator=(const SoftphoneEngine&) = delete;

    // False, with the reason logged, when the account is unusable or no
    // transport opens. A started engine is stopped first.
    [[nodiscard]] bool start(const SoftphoneAccount& account);
    void stop();
    [[nodiscard]] bool started() const;

    // Calls. A line below 1 means the call at hand: the ringing one for
    // answer and reject, the active one otherwise. Returns the new call's
    // line, or 0.
    [[nodiscard]] int call(const std::string& number);
    [[nodiscard]] bool answer(int line);
    [[nodiscard]] bool reject(int line);  // 486 Busy Here
    [[nodiscard]] bool hangup(int line);
    [[nodiscard]] bool hold(int line);
    [[nodiscard]] bool resume(int line);
    [[nodiscard]] bool sendDtmf(int line, char digit);
    [[nodiscard]] bool transfer(int line, const std::string& target);
    [[nodiscard]] int sendMessage(const std::string& target, const std::string& body, const std::string& contentType);

    void muteMicrophone(bool on);
    void muteSpeaker(bool on);
    // 0..100; 50 is unity gain, 100 doubles the level, 0 silences.
    void setMicrophoneLevel(int level);
    void setMicrophoneGain(float gain);
    void audioTest(bool on);

    [[nodiscard]] bool startRecording(const std::string& path);
    void stopRecording();
    [[nodiscard]] bool subscribeVoicemail();

    // The account's address ("sip:alice@example.com", or the local
    // transport's address for a peer-to-peer account); empty before start.
    [[nodiscard]] std::string localAddress() const;
    [[nodiscard]] std::string audioDescription() const;

    class Impl;

private:
    std::shared_ptr<Impl> impl_;
};

}  // namespace kelsoftphone
