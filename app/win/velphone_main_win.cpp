// velphone.exe: one instance per user session. A second start hands its
// command line (a sip:, tel: or callto: URL to dial) to the running phone,
// brings it forward and quits.
#include <windows.h>

#include <objbase.h>
#include <commctrl.h>
#include <shellapi.h>

#include <string>
#include <vector>

#include "app/win/app_win.h"
#include "app/win/text_win.h"

namespace {

using velphone::utf8;
using velphone::wide;

// Gives the running phone our arguments and the right to take the foreground.
void forwardToRunningPhone(const std::vector<std::string>& args) {
    HWND running = nullptr;
    // The first instance may still be making its window.
    for (int attempt = 0; attempt < 50 && !running; ++attempt) {
        running = FindWindowW(velphone::kWindowClass, nullptr);
        if (!running) Sleep(100);
    }
    if (!running) return;
    DWORD process = 0;
    GetWindowThreadProcessId(running, &process);
    AllowSetForegroundWindow(process);
    std::string payload;
    for (const auto& arg : args) payload += arg + '\0';
    if (!payload.empty()) {
        COPYDATASTRUCT data{velphone::kCommandLineData, static_cast<DWORD>(payload.size()), payload.data()};
        DWORD_PTR result = 0;
        SendMessageTimeoutW(running, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&data), SMTO_ABORTIFHUNG, 5000,
                            &result);
    }
    PostMessageW(running, velphone::kShowMessage, 0, 0);
}

}  // namespace

int WINAPI wWinMain(HINSTANCE instance, HINSTANCE, PWSTR, int) {
    int argc = 0;
    wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    std::vector<std::string> args;
    for (int i = 1; argv && i < argc; ++i) args.push_back(utf8(argv[i]));
    if (argv) LocalFree(argv);

    HANDLE mutex = CreateMutexW(nullptr, FALSE, velphone::kInstanceMutex);
    if (mutex && GetLastError() == ERROR_ALREADY_EXISTS) {
        forwardToRunningPhone(args);
        CloseHandle(mutex);
        return 0;
    }

    std::string error;
    const auto options = velphone::parseWindowArguments(args, &error);
    if (!options) {
        MessageBoxW(nullptr, wide("velphone: " + error).c_str(), velphone::kWindowTitle, MB_ICONERROR | MB_OK);
        return 2;
    }

    const HRESULT com = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    INITCOMMONCONTROLSEX controls{sizeof(INITCOMMONCONTROLSEX), ICC_STANDARD_CLASSES | ICC_LISTVIEW_CLASSES | ICC_BAR_CLASSES};
    InitCommonControlsEx(&controls);

    int code = 1;
    if (auto app = velphone::App::create(instance, *options, &error)) {
        code = app->run();
    } else {
        MessageBoxW(nullptr, wide(error).c_str(), velphone::kWindowTitle, MB_ICONERROR | MB_OK);
    }
    if (SUCCEEDED(com)) CoUninitialize();
    if (mutex) CloseHandle(mutex);
    return code;
}
