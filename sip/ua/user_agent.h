// The SIP stack's public face: lines with their registrations, the listener
// that hears about them, and the value records that cross the interface.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sip/core/clock.h"
#include "sip/net/socket_address.h"
#include "media/session/jitter_buffer.h"
#include "sip/ua/body/presence.h"
#include "sip/transport/sip_target.h"
#include "sip/transport/tls_session.h"
#include "sip/transaction/transaction.h"

namespace kelsip {

class EventLoop;
class MediaSession;

enum class RegistrationState { Unregistered = 0, Registering = 1, Registered = 2, Unregistering = 3, Failed = 4 };
// "Unregistered", "Registering", "Registered", "Unregistering", "Failed".
[[nodiscard]] std::string_view toString(RegistrationState state);

enum class DtmfMethod { Rfc4733, Info };

// RFC 8599 push notification parameters a line registers with.
struct PushParams {
    std::string provider;  // pn-provider, e.g. "apns", "fcm"
    std::string param;     // pn-param
    std::string prid;      // pn-prid: the device's token
    [[nodiscard]] bool set() const { return !provider.empty() && !prid.empty(); }
};

// What the registrar said about push in its last 2xx.
struct PushSupport {
    bool announced = false;          // a Feature-Caps "+sip.pns" was present
    std::string providers;           // its value, e.g. "apns"
    int refreshBeforeExpiry = 0;     // "+sip.pnsreg" seconds, 0 when absent
};

// Whether a line's calls encrypt their media (SRTP with SDES keys).
// Offered: crypto attributes on an RTP/AVP offer, so a peer without SRTP
// still answers in the clear; Required: an RTP/SAVP offer, and a call
// without agreed keys does not start.
enum class SrtpPolicy { Off, Offered, Required };
// "off", "offered", "required".
[[nodiscard]] std::string_view toString(SrtpPolicy policy);
[[nodiscard]] std::optional<SrtpPolicy> srtpPolicyFromName(std::string_view name);

struct LineConfig {
    std::string user;            // the user part of the address of record
    std::string authUser;        // authentication name; empty: `user`
    std::string password;
    std::string displayName;
    // The registrar's domain; empty for a line that only calls peer to peer.
    std::string domain;
    // Where requests go first ("sip:proxy.example.com;lr"); empty: the domain.
    std::string outboundProxy;
    TransportKind transport = TransportKind::Udp;
    int expires = 3600;          // seconds asked for in REGISTER
    bool reregisterOnFailure = true;  // retry 60 s after a failed registration
    PushParams push;
    // A STUN server ("host" or "host:port", port 3478 by default) asked from
    // the SIP socket for our public address; empty: none, the registrar's
    // Via "received"/"rport" still tell it.
    std::string stunServer;
    SrtpPolicy srtp = SrtpPolicy::Off;
    // ICE for the calls' media (RFC 8445): candidates from this host, from
    // the STUN server above and from a TURN server ("ip[:port]", 3478 when
    // no port) with its long-term credentials. A far end without ICE still
    // gets plain RTP.
    bool ice = false;
    std::string turnServer;
    std::string turnUser;
    std::string turnPassword;
};

struct LineInfo {
    int id = 0;
    RegistrationState state = RegistrationState::Unregistered;
    int statusCode = 0;
    std::string reason;
    int expires = 0;             // what was granted (or asked for while registering)
    PushSupport push;
};

// Calls, subscriptions and presence come with their own layers; their
// records are declared here because the listener carries them.
struct CallInfo {
    int id = 0;
    int line = 0;
    std::string state;           // "Calling", "Proceeding", "Ringing", "Incoming", "Connected", ...
    std::string remoteUri;
    std::string remoteDisplayName;
    bool incoming = false;
    bool onHold = false;
    bool remoteHold = false;
    int statusCode = 0;
    std::string reason;
};

struct SubscriptionInfo {
    int id = 0;
    int line = 0;
    std::string event;           // "message-summary", "presence", "dialog"
    std::string target;
    // "subscribing" (no NOTIFY yet), "pending", "active", "terminated".
    std::string state;
    std::string reason;          // why it ended (or was renewed): "timeout", "rejected", ...
    int statusCode = 0;          // the failure answer to a SUBSCRIBE, when there was one
    int expires = 0;             // seconds granted
};

// A SUBSCRIBE from someone who wants our presence. The listener may set
// `accept` to false; the request is then refused with 403.
struct WatcherRequest {
    int line = 0;
    std::string watcher;         // the subscriber's address (From)
    std::string event;           // "presence"
    bool accept = true;
};

enum class CallMediaEvent { Started, SecureActive, Failed };

// Every callback runs on the event-loop thread. A callback must not wait for
// the user agent in a way that needs the loop (see UserAgent).
class UserAgentListener {
public:
    virtual ~UserAgentListener() = default;
    virtual void onRegistrationState(int /*line*/, RegistrationState /*state*/, int /*statusCode*/,
                                     const std::string& /*reason*/) {}
    virtual void onIncomingCall(const CallInfo& /*call*/) {}
    virtual void onCallState(const CallInfo& /*call*/) {}
    virtual void onCallMedia(int /*call*/, CallMediaEvent /*event*/, const std::string& /*detail*/) {}
    virtual void onCallInfo(const CallInfo& /*call*/) {}
    virtual void onDtmf(int /*call*/, char /*digit*/, DtmfMethod /*method*/) {}
    virtual void onTransferProgress(int /*call*/, int /*statusCode*/, const std::string& /*reason*/) {}
    virtual void onReserved() {}  // never called
    virtual void onSubscriptionState(const SubscriptionInfo& /*subscription*/) {}
    virtual void onNotifyState(int /*subscription*/, const std::string& /*subscriptionState*/) {}
    virtual void onNotifyContent(int /*subscription*/, const std::string& /*contentType*/,
                                 const std::string& /*body*/) {}
    // Subscription 0: an unsolicited NOTIFY (message waiting from the registrar).
    virtual void onSubscriptionBody(int /*subscription*/, const std::string& /*event*/, const std::string& /*body*/) {}
    virtual void onWatcherRequest(WatcherRequest& /*request*/) {}
    virtual void onMessage(int /*line*/, const std::string& /*from*/, const std::string& /*contentType*/,
                           const std::string& /*body*/) {}
    virtual void onMessageResult(int /*message*/, int /*statusCode*/, const std::string& /*reason*/) {}
};

// What the user agent holds at a moment: for diagnostics and load tests.
struct UserAgentLoad {
    size_t calls = 0;
    size_t serverTransactions = 0;
    size_t clientTransactions = 0;
    size_t rtpWorkers = 0;  // threads polling RTP sockets
};

struct UserAgentConfig {
    // Port 0 lets the system choose. A transport whose port is -1 is not opened.
    std::string bindAddress = "0.0.0.0";
    int udpPort = 5060;
    int tcpPort = 5060;
    int tlsPort = 5061;
    // TLS: servers' certificates are checked against the system's store and
    // `tls.caFile`, and must name the SIP domain (RFC 5922). A TLS transport
    // that cannot start is logged ("TLS transport disabled: ...") and the
    // others go on.
    TlsContext tls;
    std::string userAgent = "Velmora Networks SIP SDK v5.0";
    // "urn:uuid:..." identifying this installation (RFC 5626); empty: made up at start.
    std::string instanceId;
    TransactionTimers timers;
    bool enable100rel = true;
    // DNS servers with their ports; empty: the system's.
    std::vector<net::SocketAddress> dnsServers;
    // Calls. The RTP ports are handed out in even/odd pairs from this range.
    uint16_t rtpPortMin = 16384;
    uint16_t rtpPortMax = 32767;
    // An outgoing call nobody answers is cancelled after this long.
    int64_t noAnswerTimeoutMs = 120000;
    // Two lines of a desk phone, each with a call and one on hold or being transferred.
    int maxCalls = 4;
    // An incoming call nobody answers ends with 487 after this long, or
    // sooner when its INVITE's Expires says so.
    int64_t ringingTimeoutMs = 120000;
    // A connected call that receives no RTP or RTCP for this long, while the
    // far end is meant to be sending, is hung up ("Media timeout"). 0: never.
    int64_t mediaTimeoutMs = 30000;
    // RFC 5626 keep-alives on a registered line's flow (a STUN binding over
    // UDP, a double CRLF over streams), this often; a registrar's Flow-Timer
    // overrides it. 0: none.
    int keepAliveSeconds = 30;
    // A keep-alive unanswered this long means the flow has failed.
    int64_t keepAliveAnswerMs = 10000;
    // The host's addresses are looked at this often for a network change or
    // a resume from sleep; 0: never.
    int64_t networkPollMs = 3000;
    // Where the host's addresses come from; empty: the system's interfaces.
    std::function<std::vector<net::SocketAddress>()> localAddressSource;
    // Wall-clock milliseconds; running ahead of the loop's clock between two
    // looks means the host slept. Empty: the system's clock.
    std::function<int64_t()> wallClockMs;
    // Overload: beyond these limits a new call, or any new request, is
    // answered 503 with Retry-After at once. maxCalls answers 486 first, so
    // on a phone the limits only guard; a test server raises maxCalls and
    // sizes these to what the machine serves.
    int maxCallsInProgress = 64;
    size_t maxServerTransactions = 8192;
    int overloadRetryAfterSeconds = 5;
    // Session timers (RFC 4028): the interval we ask for, and the shortest
    // we accept (a shorter one gets 422).
    int sessionExpires = 1800;
    int minSessionExpires = 90;
    // Offer RFC 4733 telephone-event; DTMF by INFO works either way.
    bool telephoneEvent = true;
    // The calls' playout buffers.
    JitterBufferConfig jitter;
    // Subscriptions: the shortest expiry we grant a watcher (a shorter one
    // gets 423) and the longest; a MESSAGE body above the limit gets 413.
    int minSubscriptionExpires = 60;
    int maxSubscriptionExpires = 3600;
    size_t maxMessageBody = 16384;
    // The loop's clock; null: the system's. With a manual clock the loop gets
    // no thread of its own: the owner drives it (see UserAgent::eventLoop).
    std::shared_ptr<Clock> clock;
};

class UserAgent {
public:
    explicit UserAgent(UserAgentConfig config = {});
    // Shuts down (without waiting for un-REGISTER answers) if still running.
    ~UserAgent();
    UserAgent(const UserAgent&) = delete;
    UserAgent& operator=(const UserAgent&) = delete;

    // Opens the transports and starts the loop. False, with a fixed text,
    // when no transport could be opened ("no SIP transport could be started").
    [[nodiscard]] bool start(std::string* error = nullptr);
    // Un-registers every registered line ("un-registering before shutdown"),
    // ends the subscriptions and removes the published presence, waits up
    // to `wait` for the answers to all of them, then stops everything. False
    // when an un-REGISTER was still unanswered at the end of the wait.
    bool shutdown(std::chrono::milliseconds wait = std::chrono::milliseconds(3000));

    [[nodiscard]] int addLine(const LineConfig& config);
    [[nodiscard]] bool removeLine(int line);
    [[nodiscard]] bool registerLine(int line);
    [[nodiscard]] bool unregisterLine(int line);
    [[nodiscard]] RegistrationState registrationState(int line);
    [[nodiscard]] std::optional<LineInfo> lineInfo(int line);
    [[nodiscard]] std::vector<int> lines();
    [[nodiscard]] bool setPush(int line, const PushParams& push);
    [[nodiscard]] PushSupport pushSupport(int line);

    // Calls. `target` is a SIP URI, "user@host", or a user of the line's domain.
    [[nodiscard]] int makeCall(int line, const std::string& target);
    [[nodiscard]] bool answerCall(int call);
    [[nodiscard]] bool rejectCall(int call, int statusCode);
    [[nodiscard]] bool hangupCall(int call);
    [[nodiscard]] bool holdCall(int call);
    [[nodiscard]] bool unholdCall(int call);
    [[nodiscard]] bool sendDtmf(int call, const std::string& digits, DtmfMethod method);
    // REFER the far end to `target` (blind), or to the far end of `otherCall`
    // with Replaces (attended). Progress arrives on onTransferProgress.
    [[nodiscard]] bool transferCall(int call, const std::string& target);
    [[nodiscard]] bool transferCallAttended(int call, int otherCall);
    [[nodiscard]] std::vector<CallInfo> calls();
    [[nodiscard]] std::optional<CallInfo> callInfo(int call);
    // The call's media, for the sound device's threads; null before it starts.
    [[nodiscard]] std::shared_ptr<MediaSession> callMedia(int call);

    // Page-mode instant message; the result arrives on onMessageResult
    // under the returned id. An empty content type sends "text/plain".
    [[nodiscard]] int sendMessage(int line, const std::string& target, const std::string& body,
                                  const std::string& contentType);

    // A subscription to `event` at `target` ("message-summary" at the
    // voicemail server, "presence" of a contact), kept refreshed until
    // `unsubscribe`. `expires` 0 asks for the package's usual period.
    [[nodiscard]] int subscribe(int line, const std::string& target, const std::string& event, int expires);
    [[nodiscard]] bool unsubscribe(int subscription);
    [[nodiscard]] std::optional<SubscriptionInfo> subscriptionInfo(int subscription);

    // Publishes the user's presence (PUBLISH to the line's domain when it
    // has one) and tells every watcher of the line.
    [[nodiscard]] bool setPresence(int line, const PresenceStatus& status);
    [[nodiscard]] std::vector<std::string> presenceWatchers(int line);

    void setListener(std::shared_ptr<UserAgentListener> listener);

    // Where the transports listen (after start); port 0 when not open.
    [[nodiscard]] net::SocketAddress localAddress(TransportKind kind);
    [[nodiscard]] UserAgentLoad load();
    // The stack's loop: for a user agent on a manual clock, the owner runs it.
    [[nodiscard]] EventLoop& eventLoop();

    class Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace kelsip
