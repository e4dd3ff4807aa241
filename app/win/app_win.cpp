// The window phone (being built): the window and its message loop.
#include "app/win/app_win.h"

namespace velphone {
namespace {

LRESULT CALLBACK windowProc(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    if (message == WM_DESTROY) {
        PostQuitMessage(0);
        return 0;
    }
    return DefWindowProcW(window, message, wparam, lparam);
}

class WindowApp final : public App {
public:
    int run() override {
        MSG msg;
        while (GetMessageW(&msg, nullptr, 0, 0) > 0) {
            TranslateMessage(&msg);
            DispatchMessageW(&msg);
        }
        return 0;
    }
    HWND window = nullptr;
};

}  // namespace

std::unique_ptr<App> App::create(HINSTANCE instance, const WindowOptions&, std::string*) {
    WNDCLASSW wc{};
    wc.lpfnWndProc = windowProc;
    wc.hInstance = instance;
    wc.lpszClassName = kWindowClass;
    wc.hCursor = LoadCursorW(nullptr, IDC_ARROW);
    RegisterClassW(&wc);
    auto app = std::make_unique<WindowApp>();
    app->window = CreateWindowW(kWindowClass, kWindowTitle, WS_OVERLAPPEDWINDOW | WS_VISIBLE, CW_USEDEFAULT,
                                CW_USEDEFAULT, 336, 600, nullptr, nullptr, instance, nullptr);
    return app;
}

}  // namespace velphone
