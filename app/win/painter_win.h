// The main window's drawing: Direct2D and DirectWrite over the window's client
// area. Everything on the phone page (tabs, number field frame, lines, keypad,
// tool buttons, audio buttons, status line) is painted here from a PhoneView;
// the other pages hold native controls and get the tabs, the status line and
// their empty-list text painted around them.
#pragma once

#include <windows.h>

#include <memory>
#include <string>

#include "app/win/icons.h"
#include "app/win/layout.h"

namespace velphone {

enum class Theme { Light, Dark };

// The Windows setting "choose your app mode" (light when it cannot be read).
[[nodiscard]] Theme systemTheme();

// What one line button shows.
struct LineView {
    std::wstring text;  // "Line 1", "Line 1: Talking 00:42", "Line 2: bob (click"
    Icon icon = Icon::LineIdle;
    bool waiting = false;  // a call waits to be taken: drawn to stand out
    bool active = false;   // the line at hand
};

// Everything the painter shows; built by the window from the phone core.
struct PhoneView {
    Tab tab = Tab::Phone;
    LineView lines[2];
    bool numberEmpty = true;  // the number field is empty: the hint "Dial key redials" shows
    bool recording = false;
    bool voicemailWaiting = false;
    bool doNotDisturb = false;
    bool autoAnswer = false;
    bool microphoneMuted = false;  // the button shows "MIC OFF"
    bool speakerMuted = false;     // the button shows "SPK OFF"
    bool inCall = false;           // hang up, hold, transfer and record are live
    std::wstring status;
    std::wstring emptyText;  // Recent or Contacts with an empty list: drawn in the page area
    Hit hot;                 // the control under the mouse
    Hit pressed;             // the control held down
    Hit focused;             // the control with the keyboard focus (drawn with a focus ring)
};

class Painter {
public:
    // The Direct2D and DirectWrite factories; null, with the reason in
    // `error`, when either cannot be created.
    static std::unique_ptr<Painter> create(std::string* error);
    virtual ~Painter() = default;

    // Binds to the window (the render target is made on first paint and
    // remade after a device loss).
    virtual void attach(HWND window) = 0;
    virtual void resize(int width, int height) = 0;
    virtual void setDpi(int dpi) = 0;
    virtual void setTheme(Theme theme) = 0;
    [[nodiscard]] virtual Theme theme() const = 0;
    // Paints the whole client area; call between BeginPaint and EndPaint.
    virtual void paint(const PhoneView& view, const Layout& layout) = 0;

    // Colours for the native controls on the pages, so they match the theme.
    [[nodiscard]] virtual COLORREF background() const = 0;
    [[nodiscard]] virtual COLORREF foreground() const = 0;
    [[nodiscard]] virtual COLORREF fieldBackground() const = 0;
    // The family the window's text is drawn in ("Segoe UI" when present,
    // else the first that exists of a fallback list), and the number field's
    // ("Consolas", else a fixed-pitch fallback). Never empty.
    [[nodiscard]] virtual std::wstring textFamily() const = 0;
    [[nodiscard]] virtual std::wstring numberFamily() const = 0;
};

}  // namespace velphone
