// The "message-summary" event body (RFC 3842): message-waiting state of a
// voicemail box, written and read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelsip {

struct MessageSummary {
    bool messagesWaiting = false;
    std::string messageAccount;  // may be empty
    uint32_t newMessages = 0;
    uint32_t oldMessages = 0;
    uint32_t urgentNew = 0;
    uint32_t urgentOld = 0;
};

// The body as we send it: "Messages-Waiting", "Message-Account" when set,
// and "Voice-Message", each line ending in CRLF.
[[nodiscard]] std::string buildMessageSummary(const MessageSummary& summary);

// Reads a received body. Empty result, with a fixed text in `error`, when
// the body is not a message summary.
[[nodiscard]] std::optional<MessageSummary> parseMessageSummary(std::string_view body, std::string* error = nullptr);

}  // namespace kelsip
