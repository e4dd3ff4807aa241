// The presence document (PIDF with the RPID activity) that PUBLISH and the
// NOTIFYs to our watchers carry, and the content types of the event packages.
#pragma once

#include <string>
#include <string_view>

namespace kelsip {

inline constexpr std::string_view kPidfContentType = "application/pidf+xml";
inline constexpr std::string_view kMessageSummaryContentType = "application/simple-message-summary";
inline constexpr std::string_view kDialogInfoContentType = "application/dialog-info+xml";

// What the user publishes about themself.
struct PresenceStatus {
    bool open = true;        // the tuple's basic status: "open" or "closed"
    std::string note;        // free text; may be empty
    std::string activity;    // an RPID activity name ("away", "on-the-phone"); may be empty
    std::string contact;     // the address published in the tuple; may be empty
};

// The five XML special characters as entity references.
[[nodiscard]] std::string xmlEscape(std::string_view text);

// The PIDF document of `status` for `entity` (the line's own address).
[[nodiscard]] std::string buildPresenceDocument(std::string_view entity, const PresenceStatus& status);

}  // namespace kelsip
