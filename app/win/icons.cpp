// The icons' drawings: simple geometry inside a 24x24 box.
#include "app/win/icons.h"

namespace velphone {

std::string_view iconPath(Icon icon) {
    switch (icon) {
        case Icon::List:  // a bulleted list
            return "M3,13h2v-2H3v2zm0,4h2v-2H3v2zm0,-8h2V7H3v2zm4,4h14v-2H7v2zm0,4h14v-2H7v2zM7,7v2h14V7H7z";
        case Icon::Options:  // a gear: eight teeth round a hole
            return "M10.03,4.66L10.26,2.15A10,10 0 0,1 13.74,2.15L13.97,4.66A7.6,7.6 0 0,1 15.8,5.42L17.74,3.81"
                   "A10,10 0 0,1 20.19,6.26L18.58,8.2A7.6,7.6 0 0,1 19.34,10.03L21.85,10.26"
                   "A10,10 0 0,1 21.85,13.74L19.34,13.97A7.6,7.6 0 0,1 18.58,15.8L20.19,17.74"
                   "A10,10 0 0,1 17.74,20.19L15.8,18.58A7.6,7.6 0 0,1 13.97,19.34L13.74,21.85"
                   "A10,10 0 0,1 10.26,21.85L10.03,19.34A7.6,7.6 0 0,1 8.2,18.58L6.26,20.19"
                   "A10,10 0 0,1 3.81,17.74L5.42,15.8A7.6,7.6 0 0,1 4.66,13.97L2.15,13.74"
                   "A10,10 0 0,1 2.15,10.26L4.66,10.03A7.6,7.6 0 0,1 5.42,8.2L3.81,6.26A10,10 0 0,1 6.26,3.81L8.2,5.42"
                   "A7.6,7.6 0 0,1 10.03,4.66zM15.2,12A3.2,3.2 0 1,0 8.8,12A3.2,3.2 0 1,0 15.2,12z";
        case Icon::Record:  // a dot in a ring
            return "M22,12A10,10 0 1,1 2,12A10,10 0 1,1 22,12zM20.5,12A8.5,8.5 0 1,0 3.5,12A8.5,8.5 0 1,0 20.5,12z"
                   "M18,12A6,6 0 1,1 6,12A6,6 0 1,1 18,12z";
        case Icon::Voicemail:  // two rings joined along their bottoms
            return "M6.5,16.5A4.5,4.5 0 1,1 10.24,14.5H13.76A4.5,4.5 0 1,1 17.5,16.5z"
                   "M9,12A2.5,2.5 0 1,0 4,12A2.5,2.5 0 1,0 9,12zM20,12A2.5,2.5 0 1,0 15,12A2.5,2.5 0 1,0 20,12z";
        case Icon::DoNotDisturb:  // a crescent moon (auto-answer off, do not disturb)
            return "M10.02,3.72A9,9 0 1,0 20.94,13.55A7.5,7.5 0 0,1 10.02,3.72z";
        case Icon::Call:  // a tilted handset with two sound arcs
            return "M18.89,16.43L16.62,18.69A9.07,9.07 0 0,1 5.31,7.38L7.57,5.11L10.4,7.94L8.42,9.92"
                   "A4.26,4.26 0 0,0 14.08,15.58L16.06,13.6z"
                   "M13.82,4.02A7.6,7.6 0 0,1 19.98,10.18L18.41,10.46A6,6 0 0,0 13.54,5.59z"
                   "M14.38,0.86A10.8,10.8 0 0,1 23.14,9.62L21.56,9.9A9.2,9.2 0 0,0 14.1,2.44z";
        case Icon::HangUp:  // the handset lying face down
            return "M2,17L2,13A11.33,11.33 0 0,1 22,13L22,17L17,17L17,13.5A5.32,5.32 0 0,0 7,13.5L7,17z";
        case Icon::Hold:  // two bars
            return "M7,5h3.5v14H7zm6.5,0H17v14h-3.5z";
        case Icon::Transfer:  // an arrow to the right
            return "M3,10.5h11V6l7,6-7,6v-4.5H3z";
        case Icon::Microphone:  // a capsule on a stand
            return "M9,5a3,3 0 0,1 6,0v6a3,3 0 0,1 -6,0zM5,11h2a5,5 0 0,0 10,0h2a7,7 0 0,1 -14,0zM11,18h2v3h-2z"
                   "M7,21h10v2H7z";
        case Icon::MicrophoneOff:  // the microphone struck through
            return "M9,5a3,3 0 0,1 6,0v6a3,3 0 0,1 -6,0zM5,11h2a5,5 0 0,0 10,0h2a7,7 0 0,1 -14,0zM11,18h2v3h-2z"
                   "M7,21h10v2H7zM3.4,2L22,20.6L20.6,22L2,3.4z";
        case Icon::Speaker:  // a cone with two sound arcs
            return "M3,9h4l5,-5v16l-5,-5H3zM15.54,8.46A5,5 0 0,1 15.54,15.54L14.47,14.47A3.5,3.5 0 0,0 14.47,9.53z"
                   "M17.66,6.34A8,8 0 0,1 17.66,17.66L16.6,16.6A6.5,6.5 0 0,0 16.6,7.4z";
        case Icon::SpeakerOff:  // the cone with a cross
            return "M3,9h4l5,-5v16l-5,-5H3z"
                   "M19.98,8.89L21.11,10.02L19.13,12L21.11,13.98L19.98,15.11L18,13.13L16.02,15.11L14.89,13.98L16.87,12"
                   "L14.89,10.02L16.02,8.89L18,10.87z";
        case Icon::LineIdle:  // an empty ring
            return "M19,12A7,7 0 1,1 5,12A7,7 0 1,1 19,12zM17,12A5,5 0 1,0 7,12A5,5 0 1,0 17,12z";
        case Icon::LineRinging:  // a bell
            return "M6,10a6,6 0 0,1 12,0v5l2,2v1H4v-1l2,-2zM10,19h4a2,2 0 0,1 -4,0zM11,2.5h2V4.1h-2z";
        case Icon::LineTalking:  // a dot with sound arcs on both sides
            return "M15,12A3,3 0 1,1 9,12A3,3 0 1,1 15,12z"
                   "M16.98,7.82A6.5,6.5 0 0,1 16.98,16.18L15.83,15.21A5,5 0 0,0 15.83,8.79z"
                   "M19.28,5.89A9.5,9.5 0 0,1 19.28,18.11L18.13,17.14A8,8 0 0,0 18.13,6.86z"
                   "M7.02,16.18A6.5,6.5 0 0,1 7.02,7.82L8.17,8.79A5,5 0 0,0 8.17,15.21z"
                   "M4.72,18.11A9.5,9.5 0 0,1 4.72,5.89L5.87,6.86A8,8 0 0,0 5.87,17.14z";
        case Icon::LineOnHold:  // two bars in a ring
            return "M22,12A10,10 0 1,1 2,12A10,10 0 1,1 22,12zM20.2,12A8.2,8.2 0 1,0 3.8,12A8.2,8.2 0 1,0 20.2,12z"
                   "M8.5,8h2.5v8H8.5zM13,8h2.5v8H13z";
    }
    return {};
}

}  // namespace velphone
