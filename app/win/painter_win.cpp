// Interim drawing: plain boxes and text through a DC render target, until the full painter lands.
#include "app/win/painter_win.h"
#include <d2d1.h>
#include <dwrite.h>
namespace velphone {
Theme systemTheme() { return Theme::Light; }
namespace {
class P final : public Painter {
public:
  ID2D1Factory* f = nullptr; IDWriteFactory* dw = nullptr; ID2D1DCRenderTarget* rt = nullptr; HWND w = nullptr; IDWriteTextFormat* tf = nullptr;
  void attach(HWND h) override { w = h; }
  void resize(int, int) override { if (rt) { rt->Release(); rt = nullptr; } }
  void setDpi(int) override {}
  void setTheme(Theme) override {}
  Theme theme() const override { return Theme::Light; }
  void paint(const PhoneView& v, const Layout& l) override {
    if (!rt) { auto props = D2D1::RenderTargetProperties(D2D1_RENDER_TARGET_TYPE_DEFAULT, D2D1::PixelFormat(DXGI_FORMAT_B8G8R8A8_UNORM, D2D1_ALPHA_MODE_IGNORE), 96, 96); f->CreateDCRenderTarget(&props, &rt); }
    RECT cr; GetClientRect(w, &cr); HDC dc = GetDC(w); rt->BindDC(dc, &cr);
    if (!tf) dw->CreateTextFormat(L"DejaVu Sans", nullptr, DWRITE_FONT_WEIGHT_NORMAL, DWRITE_FONT_STYLE_NORMAL, DWRITE_FONT_STRETCH_NORMAL, 12, L"en-us", &tf);
    rt->BeginDraw(); rt->Clear(D2D1::ColorF(0.95f,0.95f,0.95f));
    ID2D1SolidColorBrush* b; rt->CreateSolidColorBrush(D2D1::ColorF(0.1f,0.1f,0.1f), &b);
    auto text = [&](const std::wstring& t, const Rect& r) { rt->DrawRectangle(D2D1::RectF(static_cast<float>(r.left), static_cast<float>(r.top), static_cast<float>(r.right), static_cast<float>(r.bottom)), b); rt->DrawText(t.c_str(), static_cast<UINT32>(t.size()), tf, D2D1::RectF(static_cast<float>(r.left+2), static_cast<float>(r.top+2), static_cast<float>(r.right), static_cast<float>(r.bottom)), b); };
    const wchar_t* tabs[] = {L"Phone", L"Recent", L"Contacts", L"SIP Account"};
    for (int i = 0; i < 4; ++i) text(tabs[i], l.tabs[static_cast<size_t>(i)]);
    if (v.tab == Tab::Phone) { text(v.lines[0].text, l.lines[0]); text(v.lines[1].text, l.lines[1]);
      for (size_t i = 0; i < 12; ++i) text(std::wstring(1, static_cast<wchar_t>(kKeypadKeys[i])), l.keys[i]);
      for (size_t i = 0; i < 9; ++i) text(std::to_wstring(i), l.tools[i]);
      text(v.microphoneMuted ? L"MIC OFF" : L"MIC", l.microphone); text(v.speakerMuted ? L"SPK OFF" : L"SPK", l.speaker); }
    else if (!v.emptyText.empty()) text(v.emptyText, Rect{10, 100, 310, 200});
    text(v.status, l.status);
    b->Release(); if (rt->EndDraw() == static_cast<HRESULT>(D2DERR_RECREATE_TARGET)) { rt->Release(); rt = nullptr; } ReleaseDC(w, dc);
  }
  COLORREF background() const override { return RGB(242,242,242); }
  COLORREF foreground() const override { return RGB(20,20,20); }
  COLORREF fieldBackground() const override { return RGB(255,255,255); }
  std::wstring textFamily() const override { return L"DejaVu Sans"; }
  std::wstring numberFamily() const override { return L"DejaVu Sans Mono"; }
};
}
std::unique_ptr<Painter> Painter::create(std::string*) {
  auto p = std::make_unique<P>();
  D2D1CreateFactory(D2D1_FACTORY_TYPE_SINGLE_THREADED, &p->f);
  DWriteCreateFactory(DWRITE_FACTORY_TYPE_SHARED, __uuidof(IDWriteFactory), reinterpret_cast<IUnknown**>(&p->dw));
  return p;
}
}
