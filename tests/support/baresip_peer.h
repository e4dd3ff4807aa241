// A real baresip as the far phone: started on 127.0.0.1 with a free SIP
// port and a configuration in a temporary folder, driven and watched
// through its ctrl_tcp interface, recording what it hears.
//
// How baresip 1.0.0 (Debian's baresip-core) behaves, found by trying it:
// - DTMF out ("sndcode") only as RFC 4733 events; in, both RFC 4733 and
//   INFO application/dtmf-relay raise CALL_DTMF_START with the digit.
// - Hold: a re-INVITE with a=sendonly; no event, "audio_debug" shows the
//   direction. Blind transfer: REFER, NOTIFYs of the new call's progress.
// - CALL_CLOSED reasons: "Connection reset by user" after its own hang-up,
//   "Connection reset by peer" after the far end's BYE or CANCEL; "hangup"
//   while it rings answers 486. A source file that runs out ends the call.
// - aufile has no player here: the sndfile filter writes each call's decoded
//   audio to recordings/dump-DATE-dec.wav (8 kHz mono, 44-byte header,
//   lengths filled in at the end). The call's first re-INVITE ends it.
// - A MESSAGE raises no event: its SIP trace (-s, in the log) shows it.
#pragma once

#include <chrono>
#include <filesystem>
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
    std::string domain;      // the account's domain; empty: its own address
    std::string password;    // digest password; empty: none
    std::string registrar;   // "127.0.0.1:P", also the outbound proxy; empty: no registration
    BaresipTransport transport = BaresipTransport::Udp;
    bool autoAnswer = true;
    std::filesystem::path audioSource;  // mono WAV played into calls; empty: silence
    std::vector<std::string> contacts;  // address book; "message" writes to the first
};

// A MESSAGE that reached baresip, once however often it was sent.
struct BaresipMessage {
    std::string from;  // the From URI
    std::string contentType;
    std::string body;
};

struct BaresipEvent {
    std::string type;  // CALL_INCOMING, CALL_ESTABLISHED, CALL_CLOSED, ...
    std::string param;
    std::string json;
};

class BaresipPeer : public PeerProcess {
public:
    BaresipPeer() : PeerProcess("baresip") {}
    // Writes the configuration, starts baresip, connects to ctrl_tcp and adds
    // the account (registration starts then). On failure the reason is in
    // `error` and baresip's output in log().
    [[nodiscard]] bool start(const BaresipOptions& options, std::string* error);

    [[nodiscard]] std::string aor() const;
    [[nodiscard]] std::string name() const { return "baresip " + aor() + " on " + hostPort(); }

    // A ctrl_tcp command ("dial", "accept", "hangup", "sndcode", "message");
    // the text it answered, or nothing when it refused or did not answer in
    // 5 s (the reason then in `error`).
    std::optional<std::string> command(std::string_view name, std::string_view params = {},
                                       std::string* error = nullptr);
    // The earliest event of the type that no earlier wait returned.
    std::optional<BaresipEvent> waitForEvent(std::string_view type,
                                             std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // The next CALL_CLOSED's reason.
    std::optional<std::string> waitForClosed();
    // True on REGISTER_OK, false on REGISTER_FAIL.
    std::optional<bool> waitForRegistration();

    [[nodiscard]] std::vector<BaresipEvent> events();
    // The digits of every CALL_DTMF_START so far.
    [[nodiscard]] std::string receivedDigits();
    [[nodiscard]] std::vector<BaresipMessage> receivedMessages() const;
    // The final answers to the MESSAGEs it sent, each once, in order.
    [[nodiscard]] std::vector<int> messageAnswers() const;
    // The current call's audio direction ("sendrecv", "recvonly", ...).
    [[nodiscard]] std::optional<std::string> audioDirection();
    // The decoded audio of each call so far, oldest first.
    [[nodiscard]] std::vector<std::filesystem::path> recordings() const;

private:
    bool pump(int timeoutMs);

    BaresipOptions options_;
    uint16_t controlPort_ = 0;
    net::Socket control_;
    std::string received_;
    std::vector<BaresipEvent> events_;
    std::vector<bool> handed_;
    std::vector<std::pair<std::string, std::string>> responses_;  // token, JSON
    unsigned nextToken_ = 1;
};

}  // namespace kelsip::test
