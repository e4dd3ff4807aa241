// The window phone's command line: a number or URL to dial, and the options
// that let tests and scripts give it a data folder and file-backed sound.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velphone {

struct WindowOptions {
    std::string dial;         // what to dial, already made dialable; empty: nothing
    std::string dataFolder;   // --data DIR
    std::string play;         // --play FILE.wav: the microphone is this file, looped
    std::string recordHeard;  // --record-heard FILE: what the loudspeaker plays, written at exit
    std::string bind;         // --bind ADDRESS
    int port = -1;            // --port N; -1: the default
    bool minimized = false;   // --minimized: start in the tray (start with Windows)
    bool exitRunning = false; // --exit: the running phone un-registers and quits (installers use it)
};

// The target of a "sip:", "sips:", "tel:" or "callto:" URL (the scheme is
// case-blind), as the phone dials it: a sip/sips URL stays a SIP address
// (without URI parameters' leading "sip:" doubled), tel keeps its number
// without visual separators or parameters, callto drops its "//". Empty when
// `url` is none of these or has nothing to dial.
[[nodiscard]] std::string dialFromUrl(const std::string& url);

// Parses the arguments after the program name. An argument that is not an
// option is a URL or a plain number to dial. Nullopt, with the reason, for an
// unknown option or one without its value.
[[nodiscard]] std::optional<WindowOptions> parseWindowArguments(const std::vector<std::string>& args,
                                                                std::string* error);

}  // namespace velphone
