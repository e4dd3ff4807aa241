// The window phone: one window over the phone core. It shows what the core
// holds, sends the user's actions to it, and is the thread on which the
// core's events are applied.
#pragma once

#include <windows.h>

#include <memory>
#include <string>

#include "app/win/command_line.h"

namespace velphone {

inline constexpr wchar_t kWindowClass[] = L"VelmoraPhoneWindow";
inline constexpr wchar_t kWindowTitle[] = L"Velmora Phone";
inline constexpr wchar_t kInstanceMutex[] = L"Local\\VelmoraPhone.SingleInstance";
// Posted to the running phone by a second start: show yourself.
inline constexpr UINT kShowMessage = WM_APP + 1;
// WM_COPYDATA's tag for a second start's command line (UTF-8 arguments,
// each ended by a NUL).
inline constexpr ULONG_PTR kCommandLineData = 0x56504C31;  // "VPL1"

class App {
public:
    // Builds the window, the tray icon and the core, and starts the core as
    // stored. Null, with the reason, when the window cannot be made; the
    // reason is "Direct2D is not available." when drawing cannot start.
    static std::unique_ptr<App> create(HINSTANCE instance, const WindowOptions& options, std::string* error);
    virtual ~App() = default;
    // The message loop; returns the exit code.
    virtual int run() = 0;
};

}  // namespace velphone
