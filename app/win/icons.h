// The window's icons: one path in a 24x24 box for each tool button, audio button and line state.
#pragma once

#include <array>
#include <string_view>

#include "app/win/layout.h"

namespace velphone {

enum class Icon {
    List,
    Options,
    Record,
    Voicemail,
    DoNotDisturb,
    Call,
    HangUp,
    Hold,
    Transfer,
    Microphone,
    MicrophoneOff,
    Speaker,
    SpeakerOff,
    LineIdle,
    LineRinging,
    LineTalking,
    LineOnHold,
};
inline constexpr int kIconCount = static_cast<int>(Icon::LineOnHold) + 1;

// The tool buttons' icons, left to right.
inline constexpr std::array<Icon, kToolButtons> kToolIcons = {
    Icon::Call, Icon::HangUp, Icon::Hold, Icon::Transfer, Icon::Record,
    Icon::Voicemail, Icon::DoNotDisturb, Icon::List, Icon::Options,
};

// SVG path data for parseSvgPath, to be filled with the winding rule: holes
// run against their outline, and shapes that overlap (a stroke through a
// struck-out icon) run the same way, so the overlap stays filled.
std::string_view iconPath(Icon icon);

}  // namespace velphone
