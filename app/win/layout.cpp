// The main window's layout: its 96-DPI design and the scaling of every edge to the monitor's DPI.
#include "app/win/layout.h"

#include <cmath>

namespace velphone {
namespace {

// The design at 96 DPI, in device-independent pixels: a compact phone, one
// column of controls with a 10-pixel margin (content 10..310).
constexpr double kWidth = 320, kHeight = 560;
constexpr double kMargin = 10, kContentRight = 310;
constexpr double kTabBottom = 32;
constexpr double kNumberTop = 40, kNumberBottom = 84;
constexpr double kLinesTop = 92, kLinesBottom = 128;
constexpr double kKeypadTop = 136, kKeyHeight = 72, kKeyWidth = 100;
constexpr double kToolsTop = 432, kToolsBottom = 472;
constexpr double kAudioTop = 480, kAudioBottom = 520;
constexpr double kStatusTop = 532;
// Two buttons side by side leave this much between them.
constexpr double kPairGap = 8;
constexpr double kPairSplit = (kMargin + kContentRight) / 2;

struct Scaler {
    int dpi;
    // Rounding half up, one edge at a time: the same design edge always
    // lands on the same pixel, whichever rectangle asks.
    int operator()(double edge) const { return static_cast<int>(std::floor(edge * dpi / 96.0 + 0.5)); }
    Rect rect(double left, double top, double right, double bottom) const {
        return {(*this)(left), (*this)(top), (*this)(right), (*this)(bottom)};
    }
};

}  // namespace

Size clientSize(int dpi) {
    const Scaler px{dpi < 1 ? 96 : dpi};
    return {px(kWidth), px(kHeight)};
}

Layout compute(int dpi) {
    if (dpi < 1) dpi = 96;
    const Scaler px{dpi};
    Layout layout;
    layout.dpi = dpi;
    layout.client = clientSize(dpi);
    for (int i = 0; i < kTabs; ++i)
        layout.tabs[static_cast<size_t>(i)] = px.rect(kWidth * i / kTabs, 0, kWidth * (i + 1) / kTabs, kTabBottom);
    layout.numberField = px.rect(kMargin, kNumberTop, kContentRight, kNumberBottom);
    layout.lines = {px.rect(kMargin, kLinesTop, kPairSplit - kPairGap / 2, kLinesBottom),
                    px.rect(kPairSplit + kPairGap / 2, kLinesTop, kContentRight, kLinesBottom)};
    for (int i = 0; i < 12; ++i) {
        const double left = kMargin + (i % 3) * kKeyWidth, top = kKeypadTop + (i / 3) * kKeyHeight;
        layout.keys[static_cast<size_t>(i)] = px.rect(left, top, left + kKeyWidth, top + kKeyHeight);
    }
    const double toolWidth = (kContentRight - kMargin) / kToolButtons;
    for (int i = 0; i < kToolButtons; ++i)
        layout.tools[static_cast<size_t>(i)] =
            px.rect(kMargin + i * toolWidth, kToolsTop, kMargin + (i + 1) * toolWidth, kToolsBottom);
    layout.microphone = px.rect(kMargin, kAudioTop, kPairSplit - kPairGap / 2, kAudioBottom);
    layout.speaker = px.rect(kPairSplit + kPairGap / 2, kAudioTop, kContentRight, kAudioBottom);
    layout.status = px.rect(0, kStatusTop, kWidth, kHeight);
    return layout;
}

Hit Layout::hitTest(int x, int y) const {
    const auto inAny = [&](const auto& rects, Element element) -> Hit {
        for (size_t i = 0; i < rects.size(); ++i)
            if (rects[i].contains(x, y)) return {element, static_cast<int>(i)};
        return {};
    };
    if (Hit hit = inAny(tabs, Element::Tab); hit.element != Element::None) return hit;
    if (Hit hit = inAny(lines, Element::Line); hit.element != Element::None) return hit;
    if (Hit hit = inAny(keys, Element::Key); hit.element != Element::None) {
        hit.key = kKeypadKeys[static_cast<size_t>(hit.index)];
        return hit;
    }
    if (Hit hit = inAny(tools, Element::Tool); hit.element != Element::None) return hit;
    if (numberField.contains(x, y)) return {Element::NumberField};
    if (microphone.contains(x, y)) return {Element::Microphone};
    if (speaker.contains(x, y)) return {Element::Speaker};
    if (status.contains(x, y)) return {Element::Status};
    return {};
}

}  // namespace velphone
