// A real baresip as the far phone: started on 127.0.0.1 with a free SIP
// port and a configuration in a temporary folder, driven and watched
// through its ctrl_tcp interface, recording what it hears, stopped when the
// object goes.
//
// How baresip 1.0.0 (Debian's baresip-core) behaves, found by trying it:
// - DTMF out ("sndcode"): RFC 4733 telephone-events only (payload type 101,
//   events 0-15 in its SDP), never SIP INFO, and not configurable per
//   account in this version; several digits go one after another. DTMF in:
//   RFC 4733 events and INFO with application/dtmf-relay ("Signal=5")
//   both raise CALL_DTMF_START with the digit as param, then
//   CALL_DTMF_END without one (for INFO after its Duration; INFO digits
//   closer together than that share one END). INFO with application/dtmf
//   is refused with 488.
// - Hold ("hold"/"resume"): a re-INVITE with a=sendonly, then a=sendrecv;
//   held, it answers recvonly. Neither side gets an event for it beyond
//   CALL_REMOTE_SDP; audioDirection() tells the current direction.
// - Blind transfer ("transfer URI"): REFER with Refer-To and no
//   Referred-By. The transferee gets TRANSFER (param: the target), dials it,
//   and sends NOTIFYs with sipfrag "100 Trying" then the final status; the
//   transferor hangs up after the final NOTIFY, its CALL_CLOSED saying
//   "Call transfered".
// - CALL_CLOSED reasons: "Connection reset by user" after its own hang-up,
//   "Connection reset by peer" after the far end's BYE or CANCEL, the
//   status line ("486 Rejected") when the far end refused, "end of file"
//   when its audio source ran out (aufile then ends the call), "Call
//   transfered" after a transfer. Rejecting an unanswered call ("hangup")
//   answers it 486 Rejected. Auto-answer answers 180 then 200 "Answering".
// - Recording: aufile has no player in this version, so the sndfile filter
//   writes the decoded audio of each call to recordings/dump-DATE-dec.wav
//   (8 kHz for G.711, 16-bit mono, a plain 44-byte header whose lengths
//   are filled in only when the call ends). It holds the frames decoded
//   from RTP, from the first packet on, without the silence before it. A
//   re-INVITE (hold, resume, either side) takes the filter out of the
//   receive path: a recording ends at the call's first re-INVITE.
// - Registration: REGISTERING, then REGISTER_OK ("200 OK") or
//   REGISTER_FAIL ("401 Unauthorized"); with a wrong password it sends
//   about 16 REGISTERs in two seconds before it gives up.
// - Its Contact's user part is the account's user plus its own suffix
//   ("bob-0x55d4...@127.0.0.1:P"). A TCP account appends ";transport=tcp"
//   to every URI it dials, even one that already has it (dial() drops the
//   caller's copy).
// - Recordings are named by the second the call's audio started: two calls
//   of one phone that start within the same second share one file.
// - Instant messages: "message TEXT" (the contact module) sends a MESSAGE
//   with text/plain to the current contact, the first in the contacts file
//   of a fresh configuration; it answers a challenge with the account's
//   password. A MESSAGE that arrives is answered 200 but raises no
//   ctrl_tcp event and leaves no line in its log: the SIP trace is the one
//   place that shows it.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sip/net/socket.h"
#include "support/peer_process.h"

namespace kelsip::test {

enum class BaresipTransport { Udp, Tcp };

struct BaresipOptions {
    std::string user = "bob";
    // The account's domain; empty: 127.0.0.1 and its own SIP port, the
    // account for direct calls (a call to contactUri() reaches it).
    std::string domain;
    // The digest password (the user name is `user`); empty: none.
    std::string password;
    // "127.0.0.1:P" of a registrar, which is also the outbound proxy for
    // every request; empty: no registration.
    std::string registrar;
    // The REGISTER interval in seconds.
    int registerSeconds = 600;
    // SIP over TCP instead of UDP, both to the registrar and in contactUri().
    BaresipTransport transport = BaresipTransport::Udp;
    // Off: an incoming call waits for accept() or hangup().
    bool autoAnswer = true;
    // baresip's names, in the order it offers them; only G.711 is loaded.
    std::string audioCodecs = "pcmu,pcma";
    // 16-bit mono WAV played into every call from its start; when it runs
    // out baresip ends the call, so it must outlast the call. Empty: 60 s of
    // silence.
    std::filesystem::path audioSource;
    // Every SIP message in log() (baresip -s); receivedMessages() and
    // messageAnswers() read it.
    bool sipTrace = true;
    // Its address book ("\"Alice\" <sip:alice@example.com>"); the first is
    // whom sendMessage() writes to. Empty: no contact module.
    std::vector<std::string> contacts;
};

// A MESSAGE that reached baresip, once however often it was sent.
struct BaresipMessage {
    std::string from;         // the From header's URI
    std::string contentType;
    std::string body;
};

// One event as baresip sent it; missing members are empty.
struct BaresipEvent {
    std::string type;  // CALL_INCOMING, CALL_ESTABLISHED, CALL_CLOSED, ...
    std::string param;
    std::string callId;
    std::string peerUri;
    std::string direction;  // "incoming" or "outgoing"
    std::string accountAor;
    std::string json;  // the whole event
};

class BaresipPeer : public PeerProcess {
public:
    BaresipPeer() : PeerProcess("baresip") {}
    // stop().
    ~BaresipPeer() override;
    // The folder holding its modules, or empty when they are not there.
    [[nodiscard]] static std::string findModules();

    // Writes the configuration, starts baresip, connects to ctrl_tcp and
    // creates the account (registering starts then). On failure the reason
    // is in `error` and baresip's output in log().
    [[nodiscard]] bool start(const BaresipOptions& options, std::string* error);
    // "quit" (which hangs up its calls), then SIGTERM and SIGKILL if it
    // has not ended within two seconds. Safe to call again.
    void stop();

    // sip:user@domain, as it registers.
    [[nodiscard]] std::string aor() const;
    // sip:user@127.0.0.1:P, with ;transport=tcp over TCP: where a direct
    // call reaches it.
    [[nodiscard]] std::string contactUri() const;

    // Commands: true when baresip took them; its complaint in `error`.
    // They act on the current call (the last one set up).
    // A TCP account dials everything over TCP.
    [[nodiscard]] bool dial(std::string_view uri, std::string* error = nullptr);
    [[nodiscard]] bool accept(std::string* error = nullptr);
    // Ends the current call, or refuses it (486) while it rings.
    [[nodiscard]] bool hangup(std::string* error = nullptr);
    [[nodiscard]] bool hold(std::string* error = nullptr);
    [[nodiscard]] bool resume(std::string* error = nullptr);
    // Digits 0-9, *, #, A-D as RFC 4733 events.
    [[nodiscard]] bool sendDigits(std::string_view digits, std::string* error = nullptr);
    // Blind transfer of the current call: REFER to `uri`.
    [[nodiscard]] bool transfer(std::string_view uri, std::string* error = nullptr);
    // MESSAGE with `text` (text/plain) to the first of the options' contacts.
    [[nodiscard]] bool sendMessage(std::string_view text, std::string* error = nullptr);
    // Any ctrl_tcp command; the text it answered, or nothing when it
    // failed (its text then in `error`) or did not answer within 5 s.
    std::optional<std::string> command(std::string_view name, std::string_view params = {},
                                       std::string* error = nullptr);

    // The earliest event of one of `types` that no earlier wait returned,
    // waiting up to `timeout` for it.
    std::optional<BaresipEvent> waitForEvent(std::initializer_list<std::string_view> types,
                                             std::chrono::milliseconds timeout = std::chrono::seconds(5));
    std::optional<BaresipEvent> waitForEvent(std::string_view type,
                                             std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        return waitForEvent({type}, timeout);
    }
    // The next CALL_CLOSED's reason.
    std::optional<std::string> waitForClosed(std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // The next REGISTER_OK (true) or REGISTER_FAIL (false).
    std::optional<bool> waitForRegistration(std::chrono::milliseconds timeout = std::chrono::seconds(5));

    // Every event so far, in order.
    [[nodiscard]] std::vector<BaresipEvent> events();
    // The digits of every CALL_DTMF_START so far.
    [[nodiscard]] std::string receivedDigits();
    // The MESSAGEs that reached it so far, oldest first (needs sipTrace).
    [[nodiscard]] std::vector<BaresipMessage> receivedMessages() const;
    // The final answers to the MESSAGEs it sent ("407", "200"), each once,
    // in the order they came (needs sipTrace).
    [[nodiscard]] std::vector<int> messageAnswers() const;
    // The current call's audio direction ("sendrecv", "sendonly",
    // "recvonly", "inactive"); nothing without a call.
    [[nodiscard]] std::optional<std::string> audioDirection();

    // The decoded audio of each call so far, oldest first.
    [[nodiscard]] std::vector<std::filesystem::path> recordings() const;
    // A heading for printing the log: "baresip sip:bob@... on 127.0.0.1:P".
    [[nodiscard]] std::string name() const;

private:
    [[nodiscard]] std::string config(const std::string& modules, const std::filesystem::path& source) const;
    [[nodiscard]] std::string accountLine() const;
    [[nodiscard]] bool connectControl(std::chrono::milliseconds timeout);
    // Reads what baresip sent, waiting up to `timeoutMs` for the first
    // bytes; false once the connection is gone.
    bool pump(int timeoutMs);
    void take(std::string_view json);

    BaresipOptions options_;
    uint16_t controlPort_ = 0;
    net::Socket control_;
    std::string received_;
    std::vector<BaresipEvent> events_;
    std::vector<bool> taken_;
    struct Response {
        std::string token;
        bool ok = false;
        std::string data;
    };
    std::vector<Response> responses_;
    unsigned nextToken_ = 1;
};

}  // namespace kelsip::test
