// The window phone: the window, its tray icon and notifications, the phone
// page's painted controls and the keyboard, over the phone core. The core's
// events arrive on engine threads and are applied here, on the window's thread.
#include "app/win/app_win.h"

#include <commctrl.h>
#include <dwmapi.h>
#include <shellapi.h>
#include <shlobj.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

#include "app/cli/wav_file.h"
#include "app/core/phone_core.h"
#include "app/win/accessible_win.h"
#include "app/win/layout.h"
#include "app/win/pages_win.h"
#include "app/win/painter_win.h"
#include "app/win/resources/resource_ids.h"
#include "app/win/text_win.h"

namespace velphone {
namespace {

constexpr UINT kTaskMessage = WM_APP + 2;  // tasks posted from engine threads
constexpr UINT kTrayMessage = WM_APP + 3;  // the tray icon's mouse messages
constexpr UINT_PTR kCallTimer = 1;         // repaints the call's duration every second
constexpr UINT_PTR kStatusTimer = 2;       // repaints when a status message has run out
constexpr UINT kTrayId = 1;
constexpr int kNumberField = 100;
constexpr int kMenuOpen = 1, kMenuExit = 2, kMenuAutoAnswer = 3, kMenuDoNotDisturb = 4;
constexpr wchar_t kBalloon[] = L"The phone keeps running here. Right-click the icon to exit.";
constexpr const wchar_t* kToolTips[kToolButtons] = {
    L"Dial / redial / answer", L"Hang up", L"Hold / unhold", L"Transfer to the number typed", L"Record the call",
    L"Voicemail (click to call it)", L"Auto answer, Do not disturb", L"Call logs and phone book",
    L"Options (SIP account)"};
enum ToolIndex { kDial, kHangUp, kHold, kTransfer, kRecord, kVoicemail, kDoNotDisturb, kList, kOptions };

// The signed client coordinates of a mouse message.
int xOf(LPARAM lparam) { return static_cast<short>(LOWORD(lparam)); }
int yOf(LPARAM lparam) { return static_cast<short>(HIWORD(lparam)); }

bool live(LineState state) { return state == LineState::Talking || state == LineState::OnHold || state == LineState::HeldByPeer; }

// Sound from and to WAV files instead of a sound card (--play, --record-heard).
struct FileSound {
    std::vector<int16_t> playing;
    std::atomic<size_t> playAt{0};
    std::mutex heardMutex;
    std::vector<int16_t> heard;
};

class WindowApp final : public App, public PhonePlatform, public PageHost {
public:
    WindowApp(HINSTANCE instance, WindowOptions options) : instance_(instance), options_(std::move(options)) {}
    ~WindowApp() override;

    bool create(std::string* error);
    int run() override;

    // PhonePlatform
    void post(std::function<void()> task) override;
    void changed() override;
    void notify(const std::string& title, const std::string& text) override;
    // PageHost
    PhoneCore& core() override { return *core_; }
    void dialFromPage(const std::string& number) override;
    void registerLinkHandlers() override;
    [[nodiscard]] std::filesystem::path recordingsFolder() const override { return stores().recordingsFolder(); }

private:
    static LRESULT CALLBACK windowProc(HWND window, UINT message, WPARAM wparam, LPARAM lparam);
    static LRESULT CALLBACK numberProc(HWND edit, UINT message, WPARAM wparam, LPARAM lparam, UINT_PTR, DWORD_PTR app);
    LRESULT handle(UINT message, WPARAM wparam, LPARAM lparam);
    [[nodiscard]] Stores stores() const;

    void applyDpi(int dpi);
    void applyTheme();
    void addTrayIcon();
    void balloon(const std::wstring& title, const std::wstring& text);
    void showWindow();
    void quit();
    void runTasks();
    [[nodiscard]] PhoneView view() const;
    void showTab(Tab tab);
    FormPage* page() const;

    void activate(const Hit& hit);
    void pressKey(char key);
    void dialKey();
    void hangUpKey();
    void holdKey();
    void transferKey();
    void lineClicked(int index);
    void doNotDisturbMenu();
    void moveFocus(bool backwards);
    // The painted controls in Tab order (the tabs, then on the phone page its
    // lines, keypad, tool buttons, microphone and speaker), and their names.
    [[nodiscard]] std::vector<Hit> paintedControls() const;
    [[nodiscard]] AccessibleControl describe(const Hit& hit) const;
    void handleArguments(const std::vector<std::string>& args);
    [[nodiscard]] int lineWith(bool (*test)(LineState)) const;
    [[nodiscard]] std::string typedNumber() const { return utf8(windowText(number_)); }

    HINSTANCE instance_;
    WindowOptions options_;
    HWND window_ = nullptr;
    HWND number_ = nullptr;
    HWND tooltip_ = nullptr;
    HFONT font_ = nullptr;
    HFONT numberFont_ = nullptr;
    HBRUSH background_ = nullptr;
    HBRUSH field_ = nullptr;
    UINT taskbarCreated_ = 0;
    bool trayAdded_ = false;
    bool balloonShown_ = false;
    bool quitting_ = false;
    std::unique_ptr<Painter> painter_;
    Layout layout_ = compute(96);
    Tab tab_ = Tab::Phone;
    Hit hot_, pressed_, focused_;
    bool transferArmed_ = false;
    std::unique_ptr<PhoneCore> core_;
    std::unique_ptr<AccountPage> account_;
    std::unique_ptr<BookPage> recent_, contacts_;
    FileSound sound_;

    std::mutex tasksMutex_;
    std::deque<std::function<void()>> tasks_;
};

WindowApp::~WindowApp() {
    if (trayAdded_) {
        NOTIFYICONDATAW data{};
        data.cbSize = sizeof data;
        data.hWnd = window_;
        data.uID = kTrayId;
        Shell_NotifyIconW(NIM_DELETE, &data);
    }
    for (HGDIOBJ object : {static_cast<HGDIOBJ>(font_), static_cast<HGDIOBJ>(numberFont_),
                           static_cast<HGDIOBJ>(background_), static_cast<HGDIOBJ>(field_)})
        if (object) DeleteObject(object);
}

Stores WindowApp::stores() const {
    return Stores(options_.dataFolder.empty() ? Stores::defaultFolder() : std::filesystem::path(wide(options_.dataFolder)));
}

bool WindowApp::create(std::string* error) {
    WNDCLASSEXW windowClass{};
    windowClass.cbSize = sizeof windowClass;
    windowClass.lpfnWndProc = windowProc;
    windowClass.hInstance = instance_;
    windowClass.lpszClassName = kWindowClass;
    windowClass.hCursor = LoadCursorW(nullptr, IDC_ARROW);
    windowClass.hIcon = LoadIconW(instance_, MAKEINTRESOURCEW(IDI_VELPHONE));
    if (!windowClass.hIcon) windowClass.hIcon = LoadIconW(nullptr, IDI_APPLICATION);
    // The small icon (title bar, tray) from its own drawn frame, not a shrunken large one.
    windowClass.hIconSm = static_cast<HICON>(LoadImageW(instance_, MAKEINTRESOURCEW(IDI_VELPHONE), IMAGE_ICON,
                                                        GetSystemMetrics(SM_CXSMICON), GetSystemMetrics(SM_CYSMICON),
                                                        LR_DEFAULTCOLOR));
    if (!windowClass.hIconSm) windowClass.hIconSm = windowClass.hIcon;
    RegisterClassExW(&windowClass);
    taskbarCreated_ = RegisterWindowMessageW(L"TaskbarCreated");

    const int systemDpi = static_cast<int>(GetDpiForSystem());
    const DWORD style = WS_OVERLAPPED | WS_CAPTION | WS_SYSMENU | WS_MINIMIZEBOX | WS_CLIPCHILDREN;
    const Size client = clientSize(systemDpi);
    RECT frame{0, 0, client.width, client.height};
    AdjustWindowRectExForDpi(&frame, style, FALSE, 0, static_cast<UINT>(systemDpi));
    window_ = CreateWindowExW(0, kWindowClass, kWindowTitle, style, CW_USEDEFAULT, CW_USEDEFAULT,
                              frame.right - frame.left, frame.bottom - frame.top, nullptr, nullptr, instance_, this);
    if (!window_) {
        if (error) *error = "Cannot create the window.";
        return false;
    }
    addTrayIcon();

    painter_ = Painter::create(error);
    if (!painter_) {
        if (error) *error = "Direct2D is not available.";
        return false;
    }
    painter_->attach(window_);

    // The sound: the system's device, or files for tests and scripts.
    EngineSetup setup;
    if (!options_.bind.empty()) setup.bindAddress = options_.bind;
    if (options_.port >= 0) setup.sipPort = options_.port;
    if (!options_.play.empty()) {
        auto samples = readWav8k(std::filesystem::path(wide(options_.play)), error);
        if (!samples) return false;
        sound_.playing = std::move(*samples);
        setup.virtualDevice = true;
        setup.microphone = [this](int16_t* buffer, size_t count) {
            for (size_t i = 0; i < count; ++i) buffer[i] = sound_.playing[sound_.playAt++ % sound_.playing.size()];
        };
    }
    if (!options_.recordHeard.empty()) {
        setup.virtualDevice = true;
        setup.loudspeaker = [this](const int16_t* samples, size_t count) {
            const std::lock_guard lock(sound_.heardMutex);
            sound_.heard.insert(sound_.heard.end(), samples, samples + count);
        };
    }
    core_ = std::make_unique<PhoneCore>(*this, stores(), std::move(setup));
    std::string folderError;
    const bool loaded = core_->load(&folderError);

    number_ = CreateWindowExW(0, L"EDIT", L"", WS_CHILD | WS_VISIBLE | WS_TABSTOP | ES_AUTOHSCROLL, 0, 0,
                              0, 0, window_, reinterpret_cast<HMENU>(static_cast<INT_PTR>(kNumberField)), instance_,
                              nullptr);
    SendMessageW(number_, EM_SETCUEBANNER, TRUE, reinterpret_cast<LPARAM>(L"Dial key redials"));
    SetWindowSubclass(number_, numberProc, 1, reinterpret_cast<DWORD_PTR>(this));
    account_ = std::make_unique<AccountPage>(window_, *this);
    recent_ = std::make_unique<BookPage>(window_, *this, BookPage::Kind::Recent);
    contacts_ = std::make_unique<BookPage>(window_, *this, BookPage::Kind::Contacts);

    tooltip_ = CreateWindowExW(WS_EX_TOPMOST, TOOLTIPS_CLASSW, nullptr, WS_POPUP | TTS_ALWAYSTIP | TTS_NOPREFIX,
                               CW_USEDEFAULT, CW_USEDEFAULT, CW_USEDEFAULT, CW_USEDEFAULT, window_, nullptr, instance_,
                               nullptr);
    for (UINT_PTR i = 0; i < kToolButtons; ++i) {
        TOOLINFOW tool{};
        tool.cbSize = sizeof tool;
        tool.uFlags = TTF_SUBCLASS;
        tool.hwnd = window_;
        tool.uId = i + 1;
        tool.lpszText = const_cast<wchar_t*>(kToolTips[i]);
        SendMessageW(tooltip_, TTM_ADDTOOLW, 0, reinterpret_cast<LPARAM>(&tool));
    }

    applyDpi(static_cast<int>(GetDpiForWindow(window_)));
    applyTheme();
    showTab(Tab::Phone);
    if (!loaded) core_->showStatus("Cannot use the data folder: " + folderError);

    const Account account = core_->account();
    if (core_->settings().phoneOn && !account.user.empty()) (void)core_->start(account);
    if (!options_.minimized) {
        ShowWindow(window_, SW_SHOW);
        UpdateWindow(window_);
    }
    if (!options_.dial.empty()) dialFromPage(options_.dial);
    return true;
}

int WindowApp::run() {
    MSG message;
    while (GetMessageW(&message, nullptr, 0, 0) > 0) {
        // The form pages move between their fields with Tab; the phone page
        // runs its own focus through the painted controls.
        if (tab_ != Tab::Phone && IsDialogMessageW(window_, &message)) continue;
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
    return 0;
}

void WindowApp::post(std::function<void()> task) {
    {
        const std::lock_guard lock(tasksMutex_);
        tasks_.push_back(std::move(task));
    }
    PostMessageW(window_, kTaskMessage, 0, 0);
}

void WindowApp::runTasks() {
    std::deque<std::function<void()>> tasks;
    {
        const std::lock_guard lock(tasksMutex_);
        tasks.swap(tasks_);
    }
    for (auto& task : tasks) task();
}

void WindowApp::changed() {
    if (!window_ || !core_) return;
    bool callRunning = false;
    for (const auto& line : core_->lines()) callRunning = callRunning || line.state != LineState::Idle;
    if (callRunning) {
        SetTimer(window_, kCallTimer, 1000, nullptr);
    } else {
        KillTimer(window_, kCallTimer);
        transferArmed_ = false;
    }
    // A status message lasts PhoneCore::kStatusMs; the registration text
    // shows again after it.
    SetTimer(window_, kStatusTimer, static_cast<UINT>(PhoneCore::kStatusMs + 100), nullptr);
    if (FormPage* shown = page()) shown->refresh();
    InvalidateRect(window_, nullptr, FALSE);
}

void WindowApp::notify(const std::string& title, const std::string& text) {
    if (title == "Incoming call") {
        // Restored if minimised or hidden, brought to the front, and its
        // taskbar button flashed until the user looks.
        showWindow();
        FLASHWINFO flash{sizeof flash, window_, FLASHW_ALL | FLASHW_TIMERNOFG, 0, 0};
        FlashWindowEx(&flash);
    }
    if (GetForegroundWindow() != window_ || !IsWindowVisible(window_)) balloon(wide(title), wide(text));
}

void WindowApp::addTrayIcon() {
    NOTIFYICONDATAW data{};
    data.cbSize = sizeof data;
    data.hWnd = window_;
    data.uID = kTrayId;
    data.uFlags = NIF_ICON | NIF_MESSAGE | NIF_TIP;
    data.uCallbackMessage = kTrayMessage;
    data.hIcon = reinterpret_cast<HICON>(GetClassLongPtrW(window_, GCLP_HICONSM));
    wcsncpy(data.szTip, kWindowTitle, ARRAYSIZE(data.szTip) - 1);
    trayAdded_ = Shell_NotifyIconW(NIM_ADD, &data) != FALSE;
}

void WindowApp::balloon(const std::wstring& title, const std::wstring& text) {
    if (!trayAdded_) return;
    NOTIFYICONDATAW data{};
    data.cbSize = sizeof data;
    data.hWnd = window_;
    data.uID = kTrayId;
    data.uFlags = NIF_INFO;
    data.dwInfoFlags = NIIF_INFO;
    wcsncpy(data.szInfoTitle, title.c_str(), ARRAYSIZE(data.szInfoTitle) - 1);
    wcsncpy(data.szInfo, text.c_str(), ARRAYSIZE(data.szInfo) - 1);
    Shell_NotifyIconW(NIM_MODIFY, &data);
}

void WindowApp::showWindow() {
    if (IsIconic(window_)) {
        ShowWindow(window_, SW_RESTORE);
    } else if (!IsWindowVisible(window_)) {
        ShowWindow(window_, SW_SHOW);
    }
    SetForegroundWindow(window_);
}

// Un-registers (the core waits a bounded time for the registrar), keeps
// what the loudspeaker played when asked to, and closes the window.
void WindowApp::quit() {
    if (quitting_) return;
    quitting_ = true;
    ShowWindow(window_, SW_HIDE);
    core_->exit();
    if (!options_.recordHeard.empty()) {
        const std::lock_guard lock(sound_.heardMutex);
        std::string error;
        if (!writeWav8k(std::filesystem::path(wide(options_.recordHeard)), sound_.heard, &error))
            MessageBoxW(nullptr, wide(error).c_str(), kWindowTitle, MB_ICONERROR | MB_OK);
    }
    DestroyWindow(window_);
}

void WindowApp::applyDpi(int dpi) {
    layout_ = compute(dpi);
    painter_->setDpi(dpi);
    if (font_) DeleteObject(font_);
    if (numberFont_) DeleteObject(numberFont_);
    font_ = CreateFontW(-MulDiv(9, dpi, 72), 0, 0, 0, FW_NORMAL, FALSE, FALSE, FALSE, DEFAULT_CHARSET,
                        OUT_DEFAULT_PRECIS, CLIP_DEFAULT_PRECIS, CLEARTYPE_QUALITY, DEFAULT_PITCH,
                        painter_->textFamily().c_str());
    numberFont_ = CreateFontW(-MulDiv(16, dpi, 72), 0, 0, 0, FW_NORMAL, FALSE, FALSE, FALSE, DEFAULT_CHARSET,
                              OUT_DEFAULT_PRECIS, CLIP_DEFAULT_PRECIS, CLEARTYPE_QUALITY, FIXED_PITCH,
                              painter_->numberFamily().c_str());
    // The edit sits inside the painted frame of the number field.
    const Rect& field = layout_.numberField;
    const int inset = MulDiv(6, dpi, 96);
    const int height = MulDiv(28, dpi, 96);
    SetWindowPos(number_, nullptr, field.left + inset, field.top + (field.height() - height) / 2,
                 field.width() - 2 * inset, height, SWP_NOZORDER | SWP_NOACTIVATE);
    SendMessageW(number_, WM_SETFONT, reinterpret_cast<WPARAM>(numberFont_), TRUE);
    for (FormPage* form : {static_cast<FormPage*>(account_.get()), static_cast<FormPage*>(recent_.get()),
                           static_cast<FormPage*>(contacts_.get())})
        form->place(layout_, font_);
    for (UINT_PTR i = 0; i < kToolButtons; ++i) {
        const Rect& rect = layout_.tools[i];
        TOOLINFOW tool{};
        tool.cbSize = sizeof tool;
        tool.hwnd = window_;
        tool.uId = i + 1;
        tool.rect = {rect.left, rect.top, rect.right, rect.bottom};
        SendMessageW(tooltip_, TTM_NEWTOOLRECTW, 0, reinterpret_cast<LPARAM>(&tool));
    }
    RECT client{};
    GetClientRect(window_, &client);
    painter_->resize(client.right, client.bottom);
    InvalidateRect(window_, nullptr, TRUE);
}

// Light or dark as Windows is set; the title bar, the painted controls and
// the native ones follow.
void WindowApp::applyTheme() {
    const Theme theme = systemTheme();
    painter_->setTheme(theme);
    const BOOL dark = theme == Theme::Dark;
    DwmSetWindowAttribute(window_, 20 /* DWMWA_USE_IMMERSIVE_DARK_MODE */, &dark, sizeof dark);
    if (background_) DeleteObject(background_);
    if (field_) DeleteObject(field_);
    background_ = CreateSolidBrush(painter_->background());
    field_ = CreateSolidBrush(painter_->fieldBackground());
    EnumChildWindows(
        window_,
        [](HWND child, LPARAM app) -> BOOL {
            wchar_t name[32] = {};
            GetClassNameW(child, name, 32);
            if (lstrcmpiW(name, WC_LISTVIEWW) == 0) {
                const auto* self = reinterpret_cast<const WindowApp*>(app);
                ListView_SetBkColor(child, self->painter_->fieldBackground());
                ListView_SetTextBkColor(child, self->painter_->fieldBackground());
                ListView_SetTextColor(child, self->painter_->foreground());
            }
            InvalidateRect(child, nullptr, TRUE);
            return TRUE;
        },
        reinterpret_cast<LPARAM>(this));
    InvalidateRect(window_, nullptr, TRUE);
}

FormPage* WindowApp::page() const {
    switch (tab_) {
        case Tab::Recent: return recent_.get();
        case Tab::Contacts: return contacts_.get();
        case Tab::Options: return account_.get();
        default: return nullptr;
    }
}

void WindowApp::showTab(Tab tab) {
    tab_ = tab;
    ShowWindow(number_, tab == Tab::Phone ? SW_SHOW : SW_HIDE);
    account_->show(tab == Tab::Options);
    recent_->show(tab == Tab::Recent);
    contacts_->show(tab == Tab::Contacts);
    if (tab == Tab::Recent) core_->clearMissedCalls();
    if (tab == Tab::Phone) SetFocus(number_);
    focused_ = {};
    InvalidateRect(window_, nullptr, FALSE);
}

PhoneView WindowApp::view() const {
    PhoneView view;
    view.tab = tab_;
    const int64_t now = wallSeconds();
    for (size_t i = 0; i < PhoneCore::kLines; ++i) {
        const PhoneLine& line = core_->lines()[i];
        LineView& shown = view.lines[i];
        // Idle: "Line N". Busy: the state (with the call's duration) over the
        // other party, without "sip:"; a waiting call asks to be clicked.
        std::string text = "Line " + std::to_string(i + 1);
        shown.waiting = line.state == LineState::Ringing && line.incoming;
        if (line.state != LineState::Idle) {
            const std::string who = line.name.empty() ? line.number : line.name;
            const std::string shownWho = who.rfind("sip:", 0) == 0 ? who.substr(4) : who;
            text = shown.waiting ? "(click to take it)" : line.text;
            if (line.connected > 0 && live(line.state)) text += " " + formatDuration(now - line.connected);
            if (!shownWho.empty()) text += "\n" + shownWho;
        }
        shown.text = wide(text);
        shown.icon = line.state == LineState::Ringing || line.state == LineState::Calling ? Icon::LineRinging
                     : line.state == LineState::Talking                                    ? Icon::LineTalking
                     : line.state == LineState::OnHold || line.state == LineState::HeldByPeer ? Icon::LineOnHold
                                                                                              : Icon::LineIdle;
        shown.active = line.state == LineState::Talking;
        view.inCall = view.inCall || live(line.state);
    }
    view.numberEmpty = GetWindowTextLengthW(number_) == 0;
    view.recording = core_->recording();
    view.voicemailWaiting = core_->voicemail().waiting || core_->voicemail().newCount > 0;
    view.doNotDisturb = core_->doNotDisturb();
    view.autoAnswer = core_->settings().autoAnswer;
    view.microphoneMuted = core_->microphoneMuted();
    view.speakerMuted = core_->speakerMuted();
    view.status = wide(core_->statusText());
    if (const FormPage* shown = page()) view.emptyText = shown->emptyText();
    view.hot = hot_;
    view.pressed = pressed_;
    view.focused = GetFocus() == number_ ? Hit{Element::NumberField} : focused_;
    return view;
}

int WindowApp::lineWith(bool (*test)(LineState)) const {
    // The talking line first, then any the test accepts.
    const auto& lines = core_->lines();
    for (int i = 0; i < PhoneCore::kLines; ++i)
        if (lines[static_cast<size_t>(i)].state == LineState::Talking && test(LineState::Talking)) return i;
    for (int i = 0; i < PhoneCore::kLines; ++i)
        if (test(lines[static_cast<size_t>(i)].state)) return i;
    return -1;
}

void WindowApp::activate(const Hit& hit) {
    switch (hit.element) {
        case Element::Tab: showTab(static_cast<Tab>(hit.index)); break;
        case Element::Line: lineClicked(hit.index); break;
        case Element::Key: pressKey(hit.key); break;
        case Element::NumberField: SetFocus(number_); break;
        case Element::Microphone: core_->setMicrophoneMuted(!core_->microphoneMuted()); break;
        case Element::Speaker: core_->setSpeakerMuted(!core_->speakerMuted()); break;
        case Element::Tool:
            switch (hit.index) {
                case kDial: dialKey(); break;
                case kHangUp: hangUpKey(); break;
                case kHold: holdKey(); break;
                case kTransfer: transferKey(); break;
                case kRecord: core_->setRecording(!core_->recording()); break;
                case kVoicemail:
                    if (core_->account().voicemail.empty()) {
                        core_->showStatus("Set the voicemail number under Options");
                    } else {
                        core_->callVoicemail();
                    }
                    break;
                case kDoNotDisturb: doNotDisturbMenu(); break;
                case kList: showTab(Tab::Recent); break;
                case kOptions: showTab(Tab::Options); break;
                default: break;
            }
            break;
        default: break;
    }
    InvalidateRect(window_, nullptr, FALSE);
}

// A key of the keypad: a DTMF digit during a call, else a character of the
// number (also while a transfer target is being typed).
void WindowApp::pressKey(char key) {
    if (!transferArmed_ && lineWith([](LineState s) { return s == LineState::Talking; }) >= 0) {
        core_->sendDtmf(key);
        return;
    }
    const wchar_t text[2] = {static_cast<wchar_t>(key), 0};
    const int end = GetWindowTextLengthW(number_);
    SendMessageW(number_, EM_SETSEL, static_cast<WPARAM>(end), end);
    SendMessageW(number_, EM_REPLACESEL, TRUE, reinterpret_cast<LPARAM>(text));
}

void WindowApp::dialFromPage(const std::string& number) {
    showTab(Tab::Phone);
    SetWindowTextW(number_, wide(number).c_str());
    dialKey();
}

// Answers a waiting call; else dials the number typed; else redials.
void WindowApp::dialKey() {
    const auto& lines = core_->lines();
    for (int i = 0; i < PhoneCore::kLines; ++i) {
        if (lines[static_cast<size_t>(i)].state == LineState::Ringing && lines[static_cast<size_t>(i)].incoming) {
            core_->answer(i);
            return;
        }
    }
    std::string number = typedNumber();
    if (number.empty()) number = core_->settings().lastDialed;
    if (lines[0].state != LineState::Idle && lines[1].state != LineState::Idle) {
        core_->showStatus("Both lines are busy");
        return;
    }
    core_->dial(number);
    if (!dialable(number).empty()) SetWindowTextW(number_, L"");
}

void WindowApp::hangUpKey() {
    if (transferArmed_) {
        transferArmed_ = false;
        core_->showStatus("Transfer cancelled");
        return;
    }
    core_->hangup(-1);
}

void WindowApp::holdKey() {
    const int line = lineWith([](LineState s) { return s == LineState::Talking || s == LineState::OnHold; });
    if (line < 0) {
        core_->showStatus("Hold works during a call");
        return;
    }
    if (core_->lines()[static_cast<size_t>(line)].state == LineState::OnHold) {
        core_->resume(line);
    } else {
        core_->hold(line);
    }
}

// The first press asks for the target; the second, with a number typed,
// transfers the call at hand there.
void WindowApp::transferKey() {
    const int line = lineWith(live);
    if (line < 0) {
        transferArmed_ = false;
        core_->showStatus("Transfer works during a call");
        return;
    }
    if (!transferArmed_) {
        transferArmed_ = true;
        SetWindowTextW(number_, L"");
        SetFocus(number_);
        core_->showStatus("Type the number, then press Transfer again (Hang up cancels)");
        return;
    }
    const std::string target = dialable(typedNumber());
    if (target.empty()) {
        core_->showStatus("Type the number to transfer to");
        return;
    }
    transferArmed_ = false;
    SetWindowTextW(number_, L"");
    core_->transfer(target, line);
    core_->showStatus("Transferring to " + target);
}

// A waiting call is taken; a held call is taken back (the other one goes on hold).
void WindowApp::lineClicked(int index) {
    const auto& lines = core_->lines();
    const PhoneLine& line = lines[static_cast<size_t>(index)];
    const PhoneLine& other = lines[static_cast<size_t>(1 - index)];
    if (line.state == LineState::Ringing && line.incoming) {
        if (other.state == LineState::Talking) core_->hold(1 - index);
        core_->answer(index);
    } else if (line.state == LineState::OnHold) {
        if (other.state == LineState::Talking) core_->hold(1 - index);
        core_->resume(index);
    }
}

void WindowApp::doNotDisturbMenu() {
    HMENU menu = CreatePopupMenu();
    AppendMenuW(menu, static_cast<UINT>(MF_STRING | (core_->settings().autoAnswer ? MF_CHECKED : 0)), kMenuAutoAnswer, L"Auto answer");
    AppendMenuW(menu, static_cast<UINT>(MF_STRING | (core_->doNotDisturb() ? MF_CHECKED : 0)), kMenuDoNotDisturb, L"Do not disturb");
    const Rect& button = layout_.tools[kDoNotDisturb];
    POINT at{button.left, button.bottom};
    ClientToScreen(window_, &at);
    const int chosen = TrackPopupMenu(menu, TPM_RETURNCMD | TPM_LEFTBUTTON, at.x, at.y, 0, window_, nullptr);
    DestroyMenu(menu);
    if (chosen == kMenuAutoAnswer) core_->setAutoAnswer(!core_->settings().autoAnswer);
    if (chosen == kMenuDoNotDisturb) core_->setDoNotDisturb(!core_->doNotDisturb());
}

std::vector<Hit> WindowApp::paintedControls() const {
    std::vector<Hit> order;
    for (int i = 0; i < kTabs; ++i) order.push_back({Element::Tab, i});
    if (tab_ != Tab::Phone) return order;
    for (int i = 0; i < 2; ++i) order.push_back({Element::Line, i});
    for (int i = 0; i < 12; ++i) order.push_back({Element::Key, i, kKeypadKeys[static_cast<size_t>(i)]});
    for (int i = 0; i < kToolButtons; ++i) order.push_back({Element::Tool, i});
    order.push_back({Element::Microphone});
    order.push_back({Element::Speaker});
    return order;
}

AccessibleControl WindowApp::describe(const Hit& hit) const {
    static constexpr const wchar_t* kTabNames[kTabs] = {L"Phone", L"Recent", L"Contacts", L"SIP Account"};
    const auto at = [](const Rect& r) { return RECT{r.left, r.top, r.right, r.bottom}; };
    const auto index = static_cast<size_t>(hit.index);
    switch (hit.element) {
        case Element::Tab: return {kTabNames[index], at(layout_.tabs[index]), tab_ == static_cast<Tab>(hit.index)};
        case Element::Line: {
            std::wstring name = view().lines[index].text;
            if (name.rfind(L"Line ", 0) != 0) name = L"Line " + std::to_wstring(index + 1) + L": " + name;
            std::replace(name.begin(), name.end(), L'\n', L' ');
            return {name, at(layout_.lines[index])};
        }
        case Element::Key: return {std::wstring(1, static_cast<wchar_t>(hit.key)), at(layout_.keys[index])};
        case Element::Tool: {
            const bool checked = (hit.index == kRecord && core_->recording()) ||
                                 (hit.index == kDoNotDisturb && (core_->doNotDisturb() || core_->settings().autoAnswer));
            return {kToolTips[index], at(layout_.tools[index]), checked};
        }
        case Element::Microphone:
            return {core_->microphoneMuted() ? L"MIC OFF" : L"Microphone", at(layout_.microphone), core_->microphoneMuted()};
        case Element::Speaker:
            return {core_->speakerMuted() ? L"SPK OFF" : L"Speaker", at(layout_.speaker), core_->speakerMuted()};
        default: return {};
    }
}

// Tab through the number field and the painted controls, and round again.
void WindowApp::moveFocus(bool backwards) {
    std::vector<Hit> order = paintedControls();
    order.insert(order.begin() + kTabs, Hit{Element::NumberField});
    size_t at = 0;
    const Hit current = GetFocus() == number_ ? Hit{Element::NumberField} : focused_;
    for (size_t i = 0; i < order.size(); ++i)
        if (order[i] == current) at = i;
    at = (at + (backwards ? order.size() - 1 : 1)) % order.size();
    focused_ = order[at];
    if (focused_.element == Element::NumberField) {
        focused_ = {};
        SetFocus(number_);
    } else {
        SetFocus(window_);
        announceFocus(window_, static_cast<int>(at > kTabs ? at - 1 : at));
    }
    InvalidateRect(window_, nullptr, FALSE);
}

void WindowApp::handleArguments(const std::vector<std::string>& args) {
    std::string error;
    const auto options = parseWindowArguments(args, &error);
    if (!options) {
        core_->showStatus(error);
        return;
    }
    if (options->exitRunning) {
        quit();
        return;
    }
    showWindow();
    if (!options->dial.empty()) dialFromPage(options->dial);
}

// sip:, tel: and callto: links open this phone: per user, no administrator rights.
void WindowApp::registerLinkHandlers() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring command = L"\"" + std::wstring(path) + L"\" \"%1\"";
    const std::wstring icon = L"\"" + std::wstring(path) + L"\",0";
    bool ok = true;
    for (const wchar_t* scheme : {L"sip", L"tel", L"callto"}) {
        const std::wstring key = std::wstring(L"Software\\Classes\\") + scheme;
        const std::wstring description = std::wstring(L"URL:") + scheme + L" (Velmora Phone)";
        const struct {
            std::wstring subkey, name, value;
        } values[] = {{key, L"", description},
                      {key, L"URL Protocol", L""},
                      {key + L"\\DefaultIcon", L"", icon},
                      {key + L"\\shell\\open\\command", L"", command}};
        for (const auto& value : values) {
            ok = ok && RegSetKeyValueW(HKEY_CURRENT_USER, value.subkey.c_str(), value.name.empty() ? nullptr : value.name.c_str(),
                                       REG_SZ, value.value.c_str(),
                                       static_cast<DWORD>((value.value.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS;
        }
    }
    SHChangeNotify(SHCNE_ASSOCCHANGED, SHCNF_IDLIST, nullptr, nullptr);
    core_->showStatus(ok ? "sip:, tel: and callto: links now open Velmora Phone" : "Cannot register the link handlers");
}

LRESULT CALLBACK WindowApp::numberProc(HWND edit, UINT message, WPARAM wparam, LPARAM lparam, UINT_PTR,
                                       DWORD_PTR data) {
    auto* app = reinterpret_cast<WindowApp*>(data);
    if (message == WM_GETDLGCODE) return DLGC_WANTALLKEYS | DefSubclassProc(edit, message, wparam, lparam);
    if (message == WM_KEYDOWN) {
        switch (wparam) {
            case VK_RETURN: app->dialKey(); return 0;
            case VK_ESCAPE: app->hangUpKey(); return 0;
            case VK_TAB: app->moveFocus(GetKeyState(VK_SHIFT) < 0); return 0;
            default: break;
        }
    }
    if (message == WM_CHAR) {
        if (wparam == L'\r' || wparam == 27 || wparam == L'\t') return 0;
        // Digits typed during a call go out as DTMF, as the keypad's do.
        const auto key = static_cast<char>(wparam);
        if (wparam < 128 && kKeypadKeys.find(key) != std::string_view::npos && !app->transferArmed_ &&
            app->lineWith([](LineState s) { return s == LineState::Talking; }) >= 0) {
            app->core_->sendDtmf(key);
            return 0;
        }
    }
    const LRESULT result = DefSubclassProc(edit, message, wparam, lparam);
    if (message == WM_CHAR || message == WM_KEYDOWN) InvalidateRect(app->window_, nullptr, FALSE);
    return result;
}

LRESULT CALLBACK WindowApp::windowProc(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    if (message == WM_NCCREATE) {
        auto* app = static_cast<WindowApp*>(reinterpret_cast<CREATESTRUCTW*>(lparam)->lpCreateParams);
        app->window_ = window;
        SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(app));
    }
    auto* app = reinterpret_cast<WindowApp*>(GetWindowLongPtrW(window, GWLP_USERDATA));
    if (!app || !app->core_) return DefWindowProcW(window, message, wparam, lparam);
    return app->handle(message, wparam, lparam);
}

LRESULT WindowApp::handle(UINT message, WPARAM wparam, LPARAM lparam) {
    if (message == taskbarCreated_ && taskbarCreated_ != 0) {
        // The shell restarted: our tray icon went with it.
        addTrayIcon();
        return 0;
    }
    switch (message) {
        case kTaskMessage: runTasks(); return 0;
        case kShowMessage: showWindow(); return 0;
        case WM_COPYDATA: {
            const auto* data = reinterpret_cast<const COPYDATASTRUCT*>(lparam);
            if (!data || data->dwData != kCommandLineData) return FALSE;
            std::vector<std::string> args;
            const char* bytes = static_cast<const char*>(data->lpData);
            std::string current;
            for (DWORD i = 0; i < data->cbData; ++i) {
                if (bytes[i] == '\0') {
                    args.push_back(current);
                    current.clear();
                } else {
                    current += bytes[i];
                }
            }
            // Handled after the sender has been answered: quitting or dialing
            // must not keep the second start waiting.
            post([this, args] { handleArguments(args); });
            return TRUE;
        }
        case kTrayMessage:
            switch (LOWORD(lparam)) {
                case WM_LBUTTONUP:
                case WM_LBUTTONDBLCLK: showWindow(); break;
                case WM_RBUTTONUP:
                case WM_CONTEXTMENU: {
                    HMENU menu = CreatePopupMenu();
                    AppendMenuW(menu, MF_STRING, kMenuOpen, L"open");
                    AppendMenuW(menu, MF_SEPARATOR, 0, nullptr);
                    AppendMenuW(menu, MF_STRING, kMenuExit, L"Exit (un-register and quit)");
                    SetMenuDefaultItem(menu, kMenuOpen, FALSE);
                    POINT at{};
                    GetCursorPos(&at);
                    SetForegroundWindow(window_);
                    const int chosen =
                        TrackPopupMenu(menu, TPM_RETURNCMD | TPM_RIGHTBUTTON, at.x, at.y, 0, window_, nullptr);
                    DestroyMenu(menu);
                    if (chosen == kMenuOpen) showWindow();
                    if (chosen == kMenuExit) quit();
                    break;
                }
                default: break;
            }
            return 0;
        case WM_CLOSE:
            if (core_->settings().closeToTray && trayAdded_) {
                ShowWindow(window_, SW_HIDE);
                if (!balloonShown_) balloon(kWindowTitle, kBalloon);
                balloonShown_ = true;
            } else {
                quit();
            }
            return 0;
        case WM_GETOBJECT: {
            AccessibleSource source;
            source.controls = [this] {
                std::vector<AccessibleControl> controls;
                for (const Hit& hit : paintedControls()) controls.push_back(describe(hit));
                return controls;
            };
            source.press = [this](int index) {
                const auto order = paintedControls();
                if (index >= 0 && static_cast<size_t>(index) < order.size()) activate(order[static_cast<size_t>(index)]);
            };
            source.focused = [this] {
                const auto order = paintedControls();
                for (size_t i = 0; i < order.size(); ++i)
                    if (order[i] == focused_) return static_cast<int>(i);
                return -1;
            };
            if (const LRESULT answer = answerAccessibleObject(window_, wparam, lparam, source)) return answer;
            break;
        }
        case WM_QUERYENDSESSION: return TRUE;
        case WM_ENDSESSION:
            if (wparam) quit();
            return 0;
        case WM_DESTROY: PostQuitMessage(0); return 0;
        case WM_DPICHANGED: {
            const auto* suggested = reinterpret_cast<const RECT*>(lparam);
            SetWindowPos(window_, nullptr, suggested->left, suggested->top, suggested->right - suggested->left,
                         suggested->bottom - suggested->top, SWP_NOZORDER | SWP_NOACTIVATE);
            applyDpi(HIWORD(wparam));
            return 0;
        }
        case WM_SETTINGCHANGE:
            if (lparam && lstrcmpW(reinterpret_cast<const wchar_t*>(lparam), L"ImmersiveColorSet") == 0) applyTheme();
            return 0;
        case WM_SIZE:
            painter_->resize(LOWORD(lparam), HIWORD(lparam));
            return 0;
        case WM_ERASEBKGND: return 1;
        case WM_PAINT: {
            PAINTSTRUCT paint;
            BeginPaint(window_, &paint);
            painter_->paint(view(), layout_);
            EndPaint(window_, &paint);
            return 0;
        }
        case WM_TIMER:
            if (wparam == kStatusTimer) KillTimer(window_, kStatusTimer);
            InvalidateRect(window_, nullptr, FALSE);
            return 0;
        case WM_MOUSEMOVE: {
            const Hit hit = layout_.hitTest(xOf(lparam), yOf(lparam));
            if (!(hit == hot_)) {
                hot_ = hit;
                TRACKMOUSEEVENT track{sizeof track, TME_LEAVE, window_, 0};
                TrackMouseEvent(&track);
                InvalidateRect(window_, nullptr, FALSE);
            }
            return 0;
        }
        case WM_MOUSELEAVE:
            hot_ = {};
            InvalidateRect(window_, nullptr, FALSE);
            return 0;
        case WM_LBUTTONDOWN: {
            pressed_ = layout_.hitTest(xOf(lparam), yOf(lparam));
            if (tab_ != Tab::Phone && pressed_.element != Element::Tab) pressed_ = {};
            if (pressed_.element != Element::None) SetCapture(window_);
            InvalidateRect(window_, nullptr, FALSE);
            return 0;
        }
        case WM_LBUTTONUP: {
            const Hit hit = layout_.hitTest(xOf(lparam), yOf(lparam));
            const Hit pressed = pressed_;
            pressed_ = {};
            ReleaseCapture();
            if (pressed.element != Element::None && hit == pressed) activate(hit);
            InvalidateRect(window_, nullptr, FALSE);
            return 0;
        }
        case WM_KEYDOWN:
            switch (wparam) {
                case VK_TAB:
                    if (tab_ == Tab::Phone) moveFocus(GetKeyState(VK_SHIFT) < 0);
                    return 0;
                case VK_RETURN:
                case VK_SPACE:
                    if (focused_.element != Element::None) {
                        activate(focused_);
                    } else if (wparam == VK_RETURN) {
                        dialKey();
                    }
                    return 0;
                case VK_ESCAPE: hangUpKey(); return 0;
                case VK_BACK:
                    SetFocus(number_);
                    SendMessageW(number_, WM_CHAR, VK_BACK, 0);
                    return 0;
                default: break;
            }
            break;
        case WM_CHAR:
            if (wparam < 128 && kKeypadKeys.find(static_cast<char>(wparam)) != std::string_view::npos) {
                if (tab_ != Tab::Phone) showTab(Tab::Phone);
                pressKey(static_cast<char>(wparam));
                return 0;
            }
            break;
        case WM_COMMAND:
            if (LOWORD(wparam) == IDOK && tab_ == Tab::Phone) {
                dialKey();
                return 0;
            }
            if (FormPage* shown = page()) {
                if (shown->command(LOWORD(wparam), HIWORD(wparam))) return 0;
            }
            if (LOWORD(wparam) == kNumberField && HIWORD(wparam) == EN_CHANGE) InvalidateRect(window_, nullptr, FALSE);
            return 0;
        case WM_NOTIFY:
            if (FormPage* shown = page()) {
                if (shown->notify(*reinterpret_cast<const NMHDR*>(lparam))) return 0;
            }
            break;
        case WM_CONTEXTMENU:
            if (FormPage* shown = page()) {
                if (shown->contextMenu(reinterpret_cast<HWND>(wparam), {xOf(lparam), yOf(lparam)}))
                    return 0;
            }
            break;
        case WM_HSCROLL:
            if (FormPage* shown = page()) shown->scrolled(reinterpret_cast<HWND>(lparam));
            return 0;
        case WM_CTLCOLORSTATIC:
        case WM_CTLCOLORBTN:
        case WM_CTLCOLOREDIT:
        case WM_CTLCOLORLISTBOX: {
            HDC dc = reinterpret_cast<HDC>(wparam);
            const bool field = message == WM_CTLCOLOREDIT || message == WM_CTLCOLORLISTBOX;
            SetTextColor(dc, painter_->foreground());
            SetBkColor(dc, field ? painter_->fieldBackground() : painter_->background());
            return reinterpret_cast<LRESULT>(field ? field_ : background_);
        }
        default: break;
    }
    return DefWindowProcW(window_, message, wparam, lparam);
}

}  // namespace

std::unique_ptr<App> App::create(HINSTANCE instance, const WindowOptions& options, std::string* error) {
    auto app = std::make_unique<WindowApp>(instance, options);
    if (!app->create(error)) return nullptr;
    return app;
}

}  // namespace velphone
