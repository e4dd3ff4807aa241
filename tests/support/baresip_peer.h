// A real baresip as the far phone: started on 127.0.0.1 with a free SIP
// port and a configuration in a temporary folder, driven and watched
// through its ctrl_tcp interface, recording what it hears. How version
// 1.0.0 behaves is in docs/interop.md.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sip/net/socket.h"
#include "sip/transport/sip_target.h"
#include "support/peer_process.h"

namespace kelsip::test {

struct BaresipOptions {
    std::string user = "bob";
    std::string password;
    std::string registrar;  // "127.0.0.1:P": the account's domain, registrar and outbound proxy
    TransportKind transport = TransportKind::Udp;
    bool autoAnswer = true;
    std::filesystem::path audioSource;  // mono WAV played into calls; empty: silence
    std::vector<std::string> contacts;  // address book; "message" writes to the first
    // The account's mediaenc ("srtp": RTP/AVP with crypto lines, "srtp-mand":
    // RTP/SAVP); empty: media in the clear.
    std::string mediaEncryption = {};
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
};

class BaresipPeer : public PeerProcess {
public:
    BaresipPeer() : PeerProcess("baresip") {}
    // Ready once ctrl_tcp is connected and the account (registering) added;
    // on failure the reason is in `error` and baresip's output in log().
    [[nodiscard]] bool start(const BaresipOptions& options, std::string* error);

    [[nodiscard]] std::string aor() const;

    // A ctrl_tcp command ("dial", "hangup", "sndcode", "message"): its answer, or
    // nothing when it refused or did not answer in 5 s (the reason then in `error`).
    std::optional<std::string> command(std::string_view name, std::string_view params = {},
                                       std::string* error = nullptr);
    // The earliest event of the type that no earlier wait returned.
    std::optional<BaresipEvent> waitForEvent(std::string_view type,
                                             std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // The next CALL_CLOSED's reason.
    std::optional<std::string> waitForClosed();

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
