// The main window's drawing with Direct2D and DirectWrite. The render target
// runs at 96 DPI, so one DIP is one physical pixel: controls are drawn at the
// Layout's pixel rectangles, and every size of the design (padding, radius,
// line width, font) is scaled by dpi / 96 and rounded to whole pixels.
#include "app/win/painter_win.h"

#include <d2d1.h>
#include <wrl/client.h>
#include <d2d1helper.h>
#include <dwrite.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <utility>

#include "app/win/svg_path.h"

namespace velphone {
namespace {

// One COM reference, held by the platform's own smart pointer.
template <class T>
using Com = Microsoft::WRL::ComPtr<T>;

// A device loss: the render target has to be made again.
constexpr unsigned long kRecreateTarget = 0x8899000CUL;

// Colours as 0xRRGGBB.
struct Palette {
    std::uint32_t background;  // the page
    std::uint32_t surface;     // buttons, keys, the tab strip and the status line
    std::uint32_t border;
    std::uint32_t text;
    std::uint32_t muted;  // secondary text: key letters, unselected tabs, hints
    std::uint32_t accent;
    std::uint32_t onAccent;  // text and icons on an accent fill
    std::uint32_t field;     // the number field's inside
    std::uint32_t green;     // call
    std::uint32_t red;       // hang up, recording, muted audio
    std::uint32_t ring;      // a line with a call waiting to be taken
    std::uint32_t onRing;
};

constexpr Palette kLight{0xF3F4F7, 0xFFFFFF, 0xDCDFE5, 0x1E2329, 0x6B7280, 0x2F6FDE, 0xFFFFFF,
                         0xFFFFFF, 0x1E9E5A, 0xD9463E, 0xF2B33D, 0x2A1F05};
constexpr Palette kDark{0x1B1D21, 0x26292E, 0x373B42, 0xE7E9EC, 0x9AA1AB, 0x5B95F5, 0x0E1A2E,
                        0x202327, 0x3DBE78, 0xF06A62, 0xF2B33D, 0x2A1F05};

D2D1_COLOR_F color(std::uint32_t rgb, float alpha = 1.0f) {
    return D2D1::ColorF(rgb, alpha);
}

COLORREF colorRef(std::uint32_t rgb) {
    return static_cast<COLORREF>(((rgb >> 16) & 0xFFu) | (rgb & 0xFF00u) | ((rgb & 0xFFu) << 16));
}

bool is(const Hit& hit, Element element, int index = 0) { return hit.element == element && hit.index == index; }

Rect inset(Rect r, int dx, int dy) { return {r.left + dx, r.top + dy, r.right - dx, r.bottom - dy}; }
Rect inset(Rect r, int d) { return inset(r, d, d); }

D2D1_RECT_F rectF(const Rect& r) {
    return D2D1::RectF(static_cast<float>(r.left), static_cast<float>(r.top), static_cast<float>(r.right),
                       static_cast<float>(r.bottom));
}

// The letters under the keypad's digits, in kKeypadKeys order.
constexpr std::array<const wchar_t*, 12> kKeyLetters = {L"",    L"ABC", L"DEF",  L"GHI", L"JKL", L"MNO",
                                                        L"PQRS", L"TUV", L"WXYZ", L"",    L"+",   L""};
constexpr std::array<const wchar_t*, kTabs> kTabTexts = {L"Phone", L"Recent", L"Contacts", L"SIP Account"};

// The text styles, each made once per DPI.
enum Style { TabText, TabSelected, StatusText, Digit, Letters, LineText, AudioText, Badge, Hint, EmptyText, kStyles };
struct StyleSpec {
    bool mono;
    float size;  // at 96 DPI
    DWRITE_FONT_WEIGHT weight;
    bool wrap;
};
constexpr std::array<StyleSpec, kStyles> kStyleSpecs = {{
    {false, 12.0f, DWRITE_FONT_WEIGHT_NORMAL, false},
    {false, 12.0f, DWRITE_FONT_WEIGHT_SEMI_BOLD, false},
    {false, 12.0f, DWRITE_FONT_WEIGHT_NORMAL, false},
    {false, 24.0f, DWRITE_FONT_WEIGHT_NORMAL, false},
    {false, 9.0f, DWRITE_FONT_WEIGHT_SEMI_BOLD, false},
    {false, 12.0f, DWRITE_FONT_WEIGHT_NORMAL, false},
    {false, 11.5f, DWRITE_FONT_WEIGHT_SEMI_BOLD, false},
    {false, 8.0f, DWRITE_FONT_WEIGHT_BOLD, false},
    {true, 14.0f, DWRITE_FONT_WEIGHT_NORMAL, false},
    {false, 13.0f, DWRITE_FONT_WEIGHT_NORMAL, true},
}};

// The first of `names` the collection holds; empty when it holds none.
std::wstring firstPresent(IDWriteFontCollection* fonts, std::initializer_list<const wchar_t*> names) {
    for (const wchar_t* name : names) {
        UINT32 index = 0;
        BOOL exists = FALSE;
        if (SUCCEEDED(fonts->FindFamilyName(name, &index, &exists)) && exists) return name;
    }
    return {};
}

// The collection's first family, by its English name when it has one.
std::wstring firstFamily(IDWriteFontCollection* fonts) {
    Com<IDWriteFontFamily> family;
    Com<IDWriteLocalizedStrings> names;
    if (fonts->GetFontFamilyCount() == 0 || FAILED(fonts->GetFontFamily(0, family.ReleaseAndGetAddressOf())) ||
        FAILED(family->GetFamilyNames(names.ReleaseAndGetAddressOf())))
        return {};
    UINT32 index = 0, length = 0;
    BOOL exists = FALSE;
    if (FAILED(names->FindLocaleName(L"en-us", &index, &exists)) || !exists) index = 0;
    if (FAILED(names->GetStringLength(index, &length))) return {};
    std::wstring name(length + 1, L'\0');
    if (FAILED(names->GetString(index, name.data(), length + 1))) return {};
    name.resize(length);
    return name;
}

// A button's look: its fill, border, and the colour of what is drawn on it.
struct Face {
    D2D1_COLOR_F fill;
    D2D1_COLOR_F border;
    D2D1_COLOR_F ink;
    bool bordered = true;
};

class D2DPainter final : public Painter {
public:
    bool init() {
        if (FAILED(D2D1CreateFactory(D2D1_FACTORY_TYPE_SINGLE_THREADED, __uuidof(ID2D1Factory), nullptr,
                                     reinterpret_cast<void**>(factory_.ReleaseAndGetAddressOf()))) ||
            FAILED(DWriteCreateFactory(DWRITE_FACTORY_TYPE_SHARED, __uuidof(IDWriteFactory),
                                       reinterpret_cast<IUnknown**>(write_.ReleaseAndGetAddressOf()))))
            return false;
        chooseFamilies();
        for (int i = 0; i < kIconCount; ++i) icons_[static_cast<size_t>(i)] = makeIcon(static_cast<Icon>(i));
        return true;
    }

    void attach(HWND window) override {
        window_ = window;
        dropTarget();
    }
    // The DC target is bound to the client rectangle at every paint.
    void resize(int, int) override {}
    // The text formats follow the DPI of the layout being painted.
    void setDpi(int) override {}
    void setTheme(Theme theme) override { theme_ = theme; }
    Theme theme() const override { return theme_; }

    COLORREF background() const override { return colorRef(palette().background); }
    COLORREF foreground() const override { return colorRef(palette().text); }
    COLORREF fieldBackground() const override { return colorRef(palette().field); }
    std::wstring textFamily() const override { return textFamily_; }
    std::wstring numberFamily() const override { return numberFamily_; }

    void paint(const PhoneView& view, const Layout& layout) override {
        if (!window_ || !makeTarget()) return;
        // Drawn into the window's DC, which leaves out the native child
        // controls (the window clips its children), so they stay visible.
        RECT client{};
        GetClientRect(window_, &client);
        HDC dc = GetDC(window_);
        if (!dc) return;
        if (FAILED(target_->BindDC(dc, &client))) {
            ReleaseDC(window_, dc);
            return;
        }
        makeFormats(layout.dpi);
        scale_ = static_cast<float>(layout.dpi) / 96.0f;
        target_->BeginDraw();
        target_->SetTransform(D2D1::Matrix3x2F::Identity());
        target_->Clear(color(palette().background));
        drawTabs(view, layout);
        if (view.tab == Tab::Phone) {
            drawNumberField(view, layout.numberField);
            for (int i = 0; i < 2; ++i) drawLine(view, i, layout.lines[static_cast<size_t>(i)]);
            for (int i = 0; i < 12; ++i) drawKey(view, i, layout.keys[static_cast<size_t>(i)]);
            for (int i = 0; i < kToolButtons; ++i) drawTool(view, i, layout.tools[static_cast<size_t>(i)]);
            drawAudio(view, Element::Microphone, layout.microphone);
            drawAudio(view, Element::Speaker, layout.speaker);
        } else if (!view.emptyText.empty()) {
            const Rect page{0, layout.tabs[0].bottom, layout.client.width, layout.status.top};
            text(view.emptyText, rectF(inset(page, px(24.0f), px(16.0f))), EmptyText, color(palette().muted),
                 DWRITE_TEXT_ALIGNMENT_CENTER);
        }
        drawStatus(view, layout.status);
        const bool lost = static_cast<unsigned long>(target_->EndDraw()) == kRecreateTarget;
        ReleaseDC(window_, dc);
        if (lost) {
            dropTarget();
            InvalidateRect(window_, nullptr, FALSE);
        }
    }

private:
    const Palette& palette() const { return theme_ == Theme::Dark ? kDark : kLight; }

    // A design length at 96 DPI in whole pixels at the current DPI, at least one.
    int px(float dips) const {
        const int pixels = static_cast<int>(std::lround(dips * scale_));
        return pixels < 1 ? 1 : pixels;
    }

    void chooseFamilies() {
        Com<IDWriteFontCollection> fonts;
        if (SUCCEEDED(write_->GetSystemFontCollection(fonts.ReleaseAndGetAddressOf(), FALSE))) {
            textFamily_ = firstPresent(fonts.Get(), {L"Segoe UI", L"Tahoma", L"Arial", L"DejaVu Sans",
                                                     L"Liberation Sans", L"Noto Sans"});
            if (textFamily_.empty()) textFamily_ = firstFamily(fonts.Get());
            numberFamily_ = firstPresent(fonts.Get(), {L"Consolas", L"Lucida Console", L"Courier New",
                                                       L"DejaVu Sans Mono", L"Liberation Mono", L"Noto Sans Mono"});
        }
        if (textFamily_.empty()) textFamily_ = L"Segoe UI";
        if (numberFamily_.empty()) numberFamily_ = textFamily_;
    }

    // An icon's drawing as a geometry in its 24x24 box; null when it cannot be made.
    Com<ID2D1PathGeometry> makeIcon(Icon icon) {
        Com<ID2D1PathGeometry> geometry;
        Com<ID2D1GeometrySink> sink;
        const std::optional<Path> path = parseSvgPath(iconPath(icon));
        if (!path || FAILED(factory_->CreatePathGeometry(geometry.ReleaseAndGetAddressOf())) || FAILED(geometry->Open(sink.ReleaseAndGetAddressOf())))
            return {};
        sink->SetFillMode(D2D1_FILL_MODE_WINDING);
        const auto point = [](const PathPoint& p) {
            return D2D1::Point2F(static_cast<float>(p.x), static_cast<float>(p.y));
        };
        bool open = false;
        for (const PathCommand& command : *path) {
            switch (command.op) {
                case PathOp::MoveTo:
                    if (open) sink->EndFigure(D2D1_FIGURE_END_OPEN);
                    sink->BeginFigure(point(command.p[0]), D2D1_FIGURE_BEGIN_FILLED);
                    open = true;
                    break;
                case PathOp::LineTo:
                    if (open) sink->AddLine(point(command.p[0]));
                    break;
                case PathOp::CubicTo:
                    if (open)
                        sink->AddBezier(
                            D2D1::BezierSegment(point(command.p[0]), point(command.p[1]), point(command.p[2])));
                    break;
                case PathOp::Close:
                    if (open) sink->EndFigure(D2D1_FIGURE_END_CLOSED);
                    open = false;
                    break;
            }
        }
        if (open) sink->EndFigure(D2D1_FIGURE_END_OPEN);
        if (FAILED(sink->Close())) return {};
        return geometry;
    }

    bool makeTarget() {
        if (target_) return true;
        // A DC target: a window target would paint over the child controls
        // on some systems (Wine's among them).
        const D2D1_RENDER_TARGET_PROPERTIES properties = D2D1::RenderTargetProperties(
            D2D1_RENDER_TARGET_TYPE_DEFAULT, D2D1::PixelFormat(DXGI_FORMAT_B8G8R8A8_UNORM, D2D1_ALPHA_MODE_IGNORE),
            96.0f, 96.0f);
        if (FAILED(factory_->CreateDCRenderTarget(&properties, target_.ReleaseAndGetAddressOf())) ||
            FAILED(target_->CreateSolidColorBrush(color(0), brush_.ReleaseAndGetAddressOf()))) {
            dropTarget();
            return false;
        }
        return true;
    }

    void dropTarget() {
        brush_.Reset();
        target_.Reset();
    }

    // A style whose format cannot be made draws no text; the rest of the window still draws.
    void makeFormats(int dpi) {
        if (formatsDpi_ == dpi) return;
        formatsDpi_ = dpi;
        const float scale = static_cast<float>(dpi) / 96.0f;
        for (size_t i = 0; i < kStyles; ++i) {
            const StyleSpec& style = kStyleSpecs[i];
            Com<IDWriteTextFormat>& format = formats_[i];
            if (FAILED(write_->CreateTextFormat((style.mono ? numberFamily_ : textFamily_).c_str(), nullptr,
                                                style.weight, DWRITE_FONT_STYLE_NORMAL, DWRITE_FONT_STRETCH_NORMAL,
                                                style.size * scale, L"en-us", format.ReleaseAndGetAddressOf())))
                continue;
            format->SetWordWrapping(style.wrap ? DWRITE_WORD_WRAPPING_WRAP : DWRITE_WORD_WRAPPING_NO_WRAP);
            format->SetParagraphAlignment(DWRITE_PARAGRAPH_ALIGNMENT_CENTER);
            Com<IDWriteInlineObject> ellipsis;
            const DWRITE_TRIMMING trimming{DWRITE_TRIMMING_GRANULARITY_CHARACTER, 0, 0};
            if (!style.wrap && SUCCEEDED(write_->CreateEllipsisTrimmingSign(format.Get(), ellipsis.ReleaseAndGetAddressOf())))
                format->SetTrimming(&trimming, ellipsis.Get());
        }
    }

    // --- primitives ---

    ID2D1SolidColorBrush* brush(const D2D1_COLOR_F& c) {
        brush_->SetColor(c);
        return brush_.Get();
    }

    void fill(const Rect& r, const D2D1_COLOR_F& c) { target_->FillRectangle(rectF(r), brush(c)); }

    void fillRound(const Rect& r, float radius, const D2D1_COLOR_F& c) {
        target_->FillRoundedRectangle(D2D1::RoundedRect(rectF(r), radius, radius), brush(c));
    }

    // A border of whole pixels lying just inside r.
    void strokeRound(const Rect& r, float radius, int width, const D2D1_COLOR_F& c) {
        const float half = static_cast<float>(width) / 2.0f;
        D2D1_RECT_F box = rectF(r);
        box = D2D1::RectF(box.left + half, box.top + half, box.right - half, box.bottom - half);
        target_->DrawRoundedRectangle(D2D1::RoundedRect(box, radius - half, radius - half), brush(c),
                                      static_cast<float>(width));
    }

    void text(std::wstring_view s, const D2D1_RECT_F& box, Style style, const D2D1_COLOR_F& c,
              DWRITE_TEXT_ALIGNMENT align = DWRITE_TEXT_ALIGNMENT_CENTER) {
        IDWriteTextFormat* format = formats_[static_cast<size_t>(style)].Get();
        if (!format) return;
        format->SetTextAlignment(align);
        target_->DrawText(s.data(), static_cast<UINT32>(s.size()), format, box, brush(c),
                          D2D1_DRAW_TEXT_OPTIONS_CLIP);
    }

    float textWidth(std::wstring_view s, Style style) {
        Com<IDWriteTextLayout> layout;
        DWRITE_TEXT_METRICS metrics{};
        if (!formats_[static_cast<size_t>(style)] ||
            FAILED(write_->CreateTextLayout(s.data(), static_cast<UINT32>(s.size()),
                                            formats_[static_cast<size_t>(style)].Get(), 10000.0f, 1000.0f,
                                            layout.ReleaseAndGetAddressOf())) ||
            FAILED(layout->GetMetrics(&metrics)))
            return 0.0f;
        return metrics.widthIncludingTrailingWhitespace;
    }

    // The icon at `size` pixels with its box's top left corner at (x, y).
    void icon(Icon which, int x, int y, int size, const D2D1_COLOR_F& c) {
        ID2D1PathGeometry* geometry = icons_[static_cast<size_t>(which)].Get();
        if (!geometry) return;
        const float k = static_cast<float>(size) / 24.0f;
        target_->SetTransform(D2D1::Matrix3x2F::Scale(k, k) *
                              D2D1::Matrix3x2F::Translation(static_cast<float>(x), static_cast<float>(y)));
        target_->FillGeometry(geometry, brush(c));
        target_->SetTransform(D2D1::Matrix3x2F::Identity());
    }

    void iconCentred(Icon which, const Rect& r, int size, const D2D1_COLOR_F& c) {
        icon(which, r.left + (r.width() - size) / 2, r.top + (r.height() - size) / 2, size, c);
    }

    // A button's body: its face, a shade while under the mouse or held, and
    // the focus ring.
    void button(const PhoneView& view, Element element, int index, const Rect& r, float radius, const Face& face,
                bool live = true) {
        const Palette& p = palette();
        fillRound(r, radius, face.fill);
        if (live && is(view.pressed, element, index))
            fillRound(r, radius, color(p.text, 0.12f));
        else if (live && is(view.hot, element, index))
            fillRound(r, radius, color(p.text, 0.06f));
        if (is(view.focused, element, index))
            strokeRound(r, radius, px(2.0f), color(p.accent));
        else if (face.bordered)
            strokeRound(r, radius, px(1.0f), face.border);
    }

    Face plainFace() const {
        const Palette& p = palette();
        return {color(p.surface), color(p.border), color(p.text), true};
    }

    // --- the window's parts ---

    void drawTabs(const PhoneView& view, const Layout& layout) {
        const Palette& p = palette();
        const Rect strip{0, 0, layout.client.width, layout.tabs[0].bottom};
        fill(strip, color(p.surface));
        fill({strip.left, strip.bottom - px(1.0f), strip.right, strip.bottom}, color(p.border));
        for (int i = 0; i < kTabs; ++i) {
            const Rect& r = layout.tabs[static_cast<size_t>(i)];
            const bool selected = static_cast<int>(view.tab) == i;
            if (is(view.pressed, Element::Tab, i))
                fill(r, color(p.text, 0.10f));
            else if (is(view.hot, Element::Tab, i) && !selected)
                fill(r, color(p.text, 0.05f));
            // The selected tab's text is bold when it fits (fonts wider than Segoe UI may not).
            const std::wstring_view label = kTabTexts[static_cast<size_t>(i)];
            const Rect box = inset(r, px(3.0f), 0);
            const bool bold = selected && textWidth(label, TabSelected) <= static_cast<float>(box.width());
            text(label, rectF(box), bold ? TabSelected : TabText, color(selected ? p.accent : p.muted));
            if (selected) {
                const int bar = px(3.0f), margin = px(14.0f);
                fillRound({r.left + margin, r.bottom - bar, r.right - margin, r.bottom}, 1.5f * scale_,
                          color(p.accent));
            }
            if (is(view.focused, Element::Tab, i)) strokeRound(inset(r, px(3.0f)), 4.0f * scale_, px(2.0f), color(p.accent));
        }
    }

    void drawStatus(const PhoneView& view, const Rect& r) {
        const Palette& p = palette();
        fill(r, color(p.surface));
        fill({r.left, r.top, r.right, r.top + px(1.0f)}, color(p.border));
        text(view.status, rectF(inset(r, px(12.0f), 0)), StatusText, color(p.muted), DWRITE_TEXT_ALIGNMENT_LEADING);
    }

    void drawNumberField(const PhoneView& view, const Rect& r) {
        const Palette& p = palette();
        const float radius = 8.0f * scale_;
        fillRound(r, radius, color(p.field));
        const bool focused = view.focused.element == Element::NumberField;
        if (focused)
            strokeRound(r, radius, px(2.0f), color(p.accent));
        else
            strokeRound(r, radius, px(1.0f), view.hot.element == Element::NumberField ? color(p.muted) : color(p.border));
        if (view.numberEmpty) text(L"Dial key redials", rectF(inset(r, px(12.0f), 0)), Hint, color(p.muted, 0.8f));
    }

    void drawLine(const PhoneView& view, int index, const Rect& r) {
        const Palette& p = palette();
        const LineView& line = view.lines[index];
        Face face = plainFace();
        if (line.waiting) {
            face = {color(p.ring), color(p.ring), color(p.onRing), false};
        } else if (line.active) {
            face.fill = color(p.accent, theme_ == Theme::Dark ? 0.22f : 0.12f);
            face.border = color(p.accent);
            face.ink = color(theme_ == Theme::Dark ? p.text : p.accent);
        }
        if (line.active && !line.waiting) fillRound(r, 8.0f * scale_, color(p.surface));
        button(view, Element::Line, index, r, 8.0f * scale_, face);
        const int size = px(18.0f), left = r.left + px(10.0f);
        icon(line.icon, left, r.top + (r.height() - size) / 2, size,
             line.active && !line.waiting ? color(p.accent) : face.ink);
        const Rect label{left + size + px(8.0f), r.top, r.right - px(8.0f), r.bottom};
        text(line.text, rectF(label), LineText, face.ink,
             DWRITE_TEXT_ALIGNMENT_LEADING);
    }

    void drawKey(const PhoneView& view, int index, const Rect& cell) {
        const Palette& p = palette();
        const Rect r = inset(cell, px(3.0f));
        button(view, Element::Key, index, r, 10.0f * scale_, plainFace());
        const wchar_t digit[2] = {static_cast<wchar_t>(kKeypadKeys[static_cast<size_t>(index)]), 0};
        const int h = r.height();
        // The digits of a row share one line whether or not letters sit under them.
        const Rect digitBox{r.left, r.top + h * 8 / 100, r.right, r.top + h * 66 / 100};
        const Rect lettersBox{r.left, r.top + h * 60 / 100, r.right, r.top + h * 88 / 100};
        text(digit, rectF(digitBox), Digit, color(p.text));
        text(kKeyLetters[static_cast<size_t>(index)], rectF(lettersBox), Letters, color(p.muted));
    }

    void drawTool(const PhoneView& view, int index, const Rect& cell) {
        const Palette& p = palette();
        const Icon which = kToolIcons[static_cast<size_t>(index)];
        const Rect r = inset(cell, px(2.0f), 0);
        Face face = plainFace();
        bool live = true;
        switch (which) {
            case Icon::Call: face.ink = color(p.green); break;
            case Icon::HangUp: face.ink = color(p.red); [[fallthrough]];
            case Icon::Hold:
            case Icon::Transfer: live = view.inCall; break;
            case Icon::Record:
                live = view.inCall || view.recording;
                if (view.recording) face = {color(p.red), color(p.red), color(0xFFFFFF), false};
                break;
            case Icon::Voicemail:
                if (view.voicemailWaiting) face.ink = color(p.accent);
                break;
            case Icon::DoNotDisturb:
                if (view.doNotDisturb) face = {color(p.accent), color(p.accent), color(p.onAccent), false};
                break;
            default: break;
        }
        if (!live) face.ink.a = 0.32f;
        button(view, Element::Tool, index, r, 6.0f * scale_, face, live);
        iconCentred(which, r, px(20.0f), face.ink);
        const int dot = px(7.0f), edge = px(4.0f);
        if (which == Icon::Voicemail && view.voicemailWaiting)
            fillRound({r.right - edge - dot, r.top + edge, r.right - edge, r.top + edge + dot},
                      static_cast<float>(dot) / 2.0f, color(p.red));
        if (which == Icon::DoNotDisturb && view.autoAnswer) {
            // Auto-answer: a small "A" in the corner.
            const int size = px(12.0f);
            const Rect badge{r.right - edge / 2 - size, r.bottom - edge / 2 - size, r.right - edge / 2,
                             r.bottom - edge / 2};
            const bool onAccent = view.doNotDisturb;
            // A rim in the button's colour keeps the badge apart from the moon.
            fillRound(inset(badge, -px(1.0f)), static_cast<float>(size) / 2.0f + static_cast<float>(px(1.0f)),
                      view.doNotDisturb ? face.fill : color(p.surface));
            fillRound(badge, static_cast<float>(size) / 2.0f, color(onAccent ? p.onAccent : p.accent));
            text(L"A", rectF(badge), Badge, color(onAccent ? p.accent : p.onAccent));
        }
    }

    void drawAudio(const PhoneView& view, Element element, const Rect& r) {
        const Palette& p = palette();
        const bool microphone = element == Element::Microphone;
        const bool muted = microphone ? view.microphoneMuted : view.speakerMuted;
        Face face = plainFace();
        if (muted) {
            fillRound(r, 8.0f * scale_, color(p.surface));
            face = {color(p.red, theme_ == Theme::Dark ? 0.20f : 0.10f), color(p.red, 0.55f), color(p.red), true};
        }
        button(view, element, 0, r, 8.0f * scale_, face);
        const Icon which = microphone ? (muted ? Icon::MicrophoneOff : Icon::Microphone)
                                      : (muted ? Icon::SpeakerOff : Icon::Speaker);
        const std::wstring_view label =
            microphone ? (muted ? L"MIC OFF" : L"MIC") : (muted ? L"SPK OFF" : L"SPK");
        // Icon and text as one group, centred.
        const int size = px(20.0f), gap = px(6.0f);
        const int width = static_cast<int>(std::ceil(textWidth(label, AudioText)));
        const int left = r.left + (r.width() - size - gap - width) / 2;
        icon(which, left, r.top + (r.height() - size) / 2, size, face.ink);
        const Rect box{left + size + gap, r.top, left + size + gap + width + px(2.0f), r.bottom};
        text(label, rectF(box), AudioText, face.ink, DWRITE_TEXT_ALIGNMENT_LEADING);
    }

    Com<ID2D1Factory> factory_;
    Com<IDWriteFactory> write_;
    std::array<Com<ID2D1PathGeometry>, kIconCount> icons_;
    std::array<Com<IDWriteTextFormat>, kStyles> formats_;
    int formatsDpi_ = 0;
    HWND window_ = nullptr;
    Com<ID2D1DCRenderTarget> target_;
    Com<ID2D1SolidColorBrush> brush_;
    float scale_ = 1.0f;
    Theme theme_ = Theme::Light;
    std::wstring textFamily_;
    std::wstring numberFamily_;
};

}  // namespace

Theme systemTheme() {
    DWORD light = 1, size = sizeof(light);
    if (RegGetValueW(HKEY_CURRENT_USER, L"Software\\Microsoft\\Windows\\CurrentVersion\\Themes\\Personalize",
                     L"AppsUseLightTheme", RRF_RT_REG_DWORD, nullptr, &light, &size) == ERROR_SUCCESS &&
        light == 0)
        return Theme::Dark;
    return Theme::Light;
}

std::unique_ptr<Painter> Painter::create(std::string* error) {
    auto painter = std::make_unique<D2DPainter>();
    if (!painter->init()) {
        if (error) *error = "Direct2D is not available.";
        return nullptr;
    }
    return painter;
}

}  // namespace velphone
