// The main window's layout at any DPI: where each control sits, in physical pixels, and what a point hits.
#pragma once

#include <array>
#include <string_view>

namespace velphone {

// Half-open in both directions: right and bottom belong to the neighbour.
struct Rect {
    int left = 0;
    int top = 0;
    int right = 0;
    int bottom = 0;
    int width() const { return right - left; }
    int height() const { return bottom - top; }
    bool contains(int x, int y) const { return x >= left && x < right && y >= top && y < bottom; }
    bool operator==(const Rect&) const = default;
};

struct Size {
    int width = 0;
    int height = 0;
    bool operator==(const Size&) const = default;
};

// The keypad's keys, row by row.
inline constexpr std::string_view kKeypadKeys = "123456789*0#";
inline constexpr int kToolButtons = 9;
enum class Tab { Phone, Recent, Contacts, Options };
inline constexpr int kTabs = 4;

enum class Element { None, Tab, NumberField, Line, Key, Tool, Microphone, Speaker, Status };

struct Hit {
    Element element = Element::None;
    int index = 0;  // tab, line (0 for line 1), key or tool button
    char key = 0;   // the keypad key's character
    bool operator==(const Hit&) const = default;
};

struct Layout {
    int dpi = 96;
    Size client;
    std::array<Rect, kTabs> tabs;
    Rect numberField;
    std::array<Rect, 2> lines;
    std::array<Rect, 12> keys;  // in kKeypadKeys order
    std::array<Rect, kToolButtons> tools;
    Rect microphone;
    Rect speaker;
    Rect status;

    // Physical pixels in the client area; outside every control is Element::None.
    Hit hitTest(int x, int y) const;
};

// The window's client size at a DPI (96 = 100 %).
Size clientSize(int dpi);

// Every edge is a 96-DPI edge scaled by dpi / 96 and rounded on its own, so
// controls that share an edge at 96 DPI share it exactly at any DPI, and
// rounding never opens a gap or an overlap. A DPI below 1 counts as 96.
Layout compute(int dpi);

}  // namespace velphone
