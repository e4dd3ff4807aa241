// The pages with native controls: the SIP account form, recent calls and
// contacts. The window paints around them; they take its font and colours.
#include "app/win/pages_win.h"

#include <commctrl.h>
#include <shellapi.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <system_error>

#include "app/core/local_time.h"
#include "app/win/text_win.h"

namespace velphone {
namespace {

enum : int {
    kUser = 200, kPassword, kDomain, kAuthUser, kProxy, kStun, kTransport, kVoicemail,
    kStart, kAudioTest, kSipLog, kCloseToTray, kMicLevel, kLinks, kMessage,
    kPrivacy, kSrtp, kIce, kTurnServer, kTurnUser, kTurnPassword,
    kList = 300, kListButton, kFormName, kFormNumber, kFormSave, kFormCancel,
    kMenuCall = 400, kMenuEdit, kMenuDelete, kMenuAddContact,
};

constexpr const wchar_t* kTransports[] = {L"UDP", L"TCP", L"TLS"};
constexpr const char* kTransportValues[] = {"udp", "tcp", "tls"};
constexpr const wchar_t* kSrtpChoices[] = {L"Off", L"When the other side can", L"Always (refuse clear calls)"};
constexpr const char* kSrtpValues[] = {"off", "offered", "required"};

std::string trimmed(const std::wstring& text) {
    std::string value = utf8(text);
    const size_t first = value.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    return value.substr(first, value.find_last_not_of(" \t") - first + 1);
}

// "call_%Y%m%d_%H%M%S" of a moment in local time, as recordings are named.
std::wstring recordingStamp(int64_t when) {
    std::tm parts{};
    if (!platformLocalTime(static_cast<std::time_t>(when), parts)) return {};
    wchar_t text[32];
    wcsftime(text, 32, L"call_%Y%m%d_%H%M%S", &parts);
    return text;
}

}  // namespace

// ---- FormPage -----------------------------------------------------------

HWND FormPage::add(const wchar_t* windowClass, const wchar_t* text, DWORD style, int id, int x, int y, int width,
                   int height, DWORD extendedStyle) {
    HWND control = CreateWindowExW(extendedStyle, windowClass, text, WS_CHILD | style, 0, 0, 0, 0, parent_,
                                   reinterpret_cast<HMENU>(static_cast<INT_PTR>(id)),
                                   reinterpret_cast<HINSTANCE>(GetWindowLongPtrW(parent_, GWLP_HINSTANCE)), nullptr);
    controls_.push_back({control, x, y, width, height});
    return control;
}

void FormPage::setPlaced(HWND control, int x, int y, int width, int height) {
    for (auto& placed : controls_) {
        if (placed.control != control) continue;
        placed.x = x, placed.y = y, placed.width = width, placed.height = height;
        SetWindowPos(control, nullptr, px(x), layout_.tabs[0].bottom + px(y), px(width), px(height),
                     SWP_NOZORDER | SWP_NOACTIVATE);
    }
}

void FormPage::showControl(HWND control, bool shown) {
    for (auto& placed : controls_) {
        if (placed.control == control) placed.shown = shown;
    }
    ShowWindow(control, shown && visible_ ? SW_SHOW : SW_HIDE);
}

void FormPage::show(bool visible) {
    visible_ = visible;
    for (const auto& placed : controls_) ShowWindow(placed.control, visible && placed.shown ? SW_SHOW : SW_HIDE);
    if (visible) refresh();
}

void FormPage::place(const Layout& layout, HFONT font) {
    layout_ = layout;
    for (const auto& placed : controls_) {
        SendMessageW(placed.control, WM_SETFONT, reinterpret_cast<WPARAM>(font), FALSE);
        SetWindowPos(placed.control, nullptr, px(placed.x), layout_.tabs[0].bottom + px(placed.y), px(placed.width),
                     px(placed.height), SWP_NOZORDER | SWP_NOACTIVATE);
    }
}

// ---- AccountPage --------------------------------------------------------

AccountPage::AccountPage(HWND parent, PageHost& host) : FormPage(parent, host) {
    constexpr DWORD field = WS_TABSTOP | WS_BORDER | ES_AUTOHSCROLL;
    add(L"STATIC", L"Enter the account from your SIP provider or PBX.", SS_LEFT, -1, 10, 10, 300, 20);
    const struct {
        const wchar_t* label;
        HWND* control;
        int id;
        DWORD style;
    } rows[] = {
        {L"User name", &user_, kUser, field},
        {L"Password", &password_, kPassword, field | ES_PASSWORD},
        {L"Domain", &domain_, kDomain, field},
        {L"Auth user", &authUser_, kAuthUser, field},
        {L"Proxy", &proxy_, kProxy, field},
        {L"STUN server", &stun_, kStun, field},
        {L"Transport", &transport_, kTransport, WS_TABSTOP | CBS_DROPDOWNLIST | WS_VSCROLL},
        {L"Voicemail", &voicemail_, kVoicemail, field},
    };
    int y = 36;
    for (const auto& row : rows) {
        add(L"STATIC", row.label, SS_LEFT | SS_CENTERIMAGE, -1, 10, y, 96, 24);
        const bool combo = row.id == kTransport;
        *row.control = add(combo ? WC_COMBOBOXW : L"EDIT", L"", row.style, row.id, 110, y, 200, combo ? 120 : 24);
        y += 30;
    }
    for (const wchar_t* name : kTransports)
        SendMessageW(transport_, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(name));
    SendMessageW(domain_, EM_SETCUEBANNER, TRUE, reinterpret_cast<LPARAM>(L"empty: peer to peer"));
    SendMessageW(authUser_, EM_SETCUEBANNER, TRUE, reinterpret_cast<LPARAM>(L"optional"));
    SendMessageW(proxy_, EM_SETCUEBANNER, TRUE, reinterpret_cast<LPARAM>(L"optional"));
    SendMessageW(stun_, EM_SETCUEBANNER, TRUE, reinterpret_cast<LPARAM>(L"optional"));
    start_ = add(L"BUTTON", L"Start", WS_TABSTOP | BS_DEFPUSHBUTTON, kStart, 10, y + 4, 145, 30);
    audioTest_ = add(L"BUTTON", L"Audio test", WS_TABSTOP, kAudioTest, 165, y + 4, 145, 30);
    y += 44;
    // The page's lower part shows either the phone's own switches or the
    // account's encryption and NAT settings; one button swaps them.
    sipLog_ = add(L"BUTTON", L"All SIP messages; up to 2 x 5 MB.", WS_TABSTOP | BS_AUTOCHECKBOX, kSipLog, 10, y, 300,
                  24);
    closeToTray_ = add(L"BUTTON", L"Keep running in the tray when closed", WS_TABSTOP | BS_AUTOCHECKBOX,
                       kCloseToTray, 10, y + 26, 300, 24);
    const HWND micLabel = add(L"STATIC", L"Microphone", SS_LEFT | SS_CENTERIMAGE, -1, 10, y + 54, 96, 26);
    micLevel_ = add(TRACKBAR_CLASSW, L"Microphone level", WS_TABSTOP | TBS_HORZ | TBS_NOTICKS, kMicLevel, 106, y + 54,
                    204, 26);
    SendMessageW(micLevel_, TBM_SETRANGE, FALSE, MAKELPARAM(0, 100));
    const HWND links = add(L"BUTTON", L"Open sip:, tel: and callto: links here", WS_TABSTOP, kLinks, 10, y + 86, 300, 28);
    switches_ = {sipLog_, closeToTray_, micLabel, micLevel_, links};

    const HWND srtpLabel = add(L"STATIC", L"Encryption", SS_LEFT | SS_CENTERIMAGE, -1, 10, y, 96, 24);
    srtp_ = add(WC_COMBOBOXW, L"", WS_TABSTOP | CBS_DROPDOWNLIST | WS_VSCROLL, kSrtp, 110, y, 200, 100);
    for (const wchar_t* name : kSrtpChoices) SendMessageW(srtp_, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(name));
    ice_ = add(L"BUTTON", L"ICE: find a media path through NAT", WS_TABSTOP | BS_AUTOCHECKBOX, kIce, 10, y + 28, 300,
               24);
    const HWND turnLabel = add(L"STATIC", L"TURN relay", SS_LEFT | SS_CENTERIMAGE, -1, 10, y + 56, 96, 24);
    turnServer_ = add(L"EDIT", L"", field, kTurnServer, 110, y + 56, 200, 24);
    turnUser_ = add(L"EDIT", L"", field, kTurnUser, 110, y + 84, 96, 24);
    turnPassword_ = add(L"EDIT", L"", field | ES_PASSWORD, kTurnPassword, 214, y + 84, 96, 24);
    SendMessageW(turnServer_, EM_SETCUEBANNER, TRUE, reinterpret_cast<LPARAM>(L"optional: ip[:port]"));
    SendMessageW(turnUser_, EM_SETCUEBANNER, TRUE, reinterpret_cast<LPARAM>(L"user"));
    SendMessageW(turnPassword_, EM_SETCUEBANNER, TRUE, reinterpret_cast<LPARAM>(L"password"));
    privacyControls_ = {srtpLabel, srtp_, ice_, turnLabel, turnServer_, turnUser_, turnPassword_};
    for (HWND control : privacyControls_) showControl(control, false);

    privacy_ = add(L"BUTTON", L"Encryption and NAT...", WS_TABSTOP, kPrivacy, 10, y + 120, 300, 28);
    message_ = add(L"STATIC", L"", SS_LEFT, kMessage, 10, y + 154, 300, 26);
    load();
}

void AccountPage::showPrivacy(bool shown) {
    if (!shown && privacyShown_) savePrivacy();
    privacyShown_ = shown;
    for (HWND control : switches_) showControl(control, !shown);
    for (HWND control : privacyControls_) showControl(control, shown);
    SetWindowTextW(privacy_, shown ? L"Done" : L"Encryption and NAT...");
}

void AccountPage::savePrivacy() {
    PhoneCore& core = host_.core();
    const LRESULT srtp = SendMessageW(srtp_, CB_GETCURSEL, 0, 0);
    (void)core.setSrtp(kSrtpValues[srtp >= 0 && srtp < 3 ? srtp : 0]);
    core.setIce(SendMessageW(ice_, BM_GETCHECK, 0, 0) == BST_CHECKED, trimmed(windowText(turnServer_)),
                trimmed(windowText(turnUser_)), utf8(windowText(turnPassword_)));
}

void AccountPage::load() {
    const PhoneCore& core = host_.core();
    shown_ = core.account();
    SetWindowTextW(user_, wide(shown_.user).c_str());
    SetWindowTextW(password_, wide(shown_.password).c_str());
    SetWindowTextW(domain_, wide(shown_.domain).c_str());
    SetWindowTextW(authUser_, wide(shown_.authUser).c_str());
    SetWindowTextW(proxy_, wide(shown_.proxy).c_str());
    SetWindowTextW(stun_, wide(shown_.stun).c_str());
    SetWindowTextW(voicemail_, wide(shown_.voicemail).c_str());
    WPARAM transport = 0;
    for (WPARAM i = 0; i < 3; ++i)
        if (shown_.transport == kTransportValues[i]) transport = i;
    SendMessageW(transport_, CB_SETCURSEL, transport, 0);
    SendMessageW(micLevel_, TBM_SETPOS, TRUE, core.settings().micLevel);
    const Settings& settings = core.settings();
    WPARAM srtp = 0;
    for (WPARAM i = 0; i < 3; ++i)
        if (settings.srtp == kSrtpValues[i]) srtp = i;
    SendMessageW(srtp_, CB_SETCURSEL, srtp, 0);
    SendMessageW(ice_, BM_SETCHECK, settings.ice ? BST_CHECKED : BST_UNCHECKED, 0);
    SetWindowTextW(turnServer_, wide(settings.turnServer).c_str());
    SetWindowTextW(turnUser_, wide(settings.turnUser).c_str());
    SetWindowTextW(turnPassword_, wide(settings.turnPassword).c_str());
}

void AccountPage::refresh() {
    const PhoneCore& core = host_.core();
    // The form keeps what is being typed; it reloads when the stored account
    // changed underneath (a start from elsewhere).
    if (!(core.account() == shown_)) load();
    SetWindowTextW(audioTest_, core.audioTest() ? L"Stop audio test" : L"Audio test");
    SendMessageW(sipLog_, BM_SETCHECK, core.settings().logToFile ? BST_CHECKED : BST_UNCHECKED, 0);
    SendMessageW(closeToTray_, BM_SETCHECK, core.settings().closeToTray ? BST_CHECKED : BST_UNCHECKED, 0);
}

bool AccountPage::command(int id, int code) {
    PhoneCore& core = host_.core();
    switch (id) {
        case kStart: {
            Account account;
            account.user = trimmed(windowText(user_));
            account.password = utf8(windowText(password_));
            account.domain = trimmed(windowText(domain_));
            account.authUser = trimmed(windowText(authUser_));
            account.proxy = trimmed(windowText(proxy_));
            account.stun = trimmed(windowText(stun_));
            account.voicemail = trimmed(windowText(voicemail_));
            const LRESULT transport = SendMessageW(transport_, CB_GETCURSEL, 0, 0);
            account.transport = kTransportValues[transport >= 0 && transport < 3 ? transport : 0];
            if (account.user.empty()) {
                SetWindowTextW(message_, L"Please enter the user name.");
                SetFocus(user_);
                return true;
            }
            SetWindowTextW(message_, L"");
            // Encryption and NAT choices apply from this start on.
            savePrivacy();
            shown_ = account;
            if (!core.start(account)) SetWindowTextW(message_, wide(core.statusText()).c_str());
            return true;
        }
        case kAudioTest: core.setAudioTest(!core.audioTest()); return true;
        case kSipLog:
            if (code == BN_CLICKED) core.setLogToFile(SendMessageW(sipLog_, BM_GETCHECK, 0, 0) == BST_CHECKED);
            return true;
        case kCloseToTray:
            if (code == BN_CLICKED)
                core.setCloseToTray(SendMessageW(closeToTray_, BM_GETCHECK, 0, 0) == BST_CHECKED);
            return true;
        case kLinks: host_.registerLinkHandlers(); return true;
        case kPrivacy: showPrivacy(!privacyShown_); return true;
        default: return false;
    }
}

bool AccountPage::scrolled(HWND control) {
    if (control != micLevel_) return false;
    host_.core().setMicLevel(static_cast<int>(SendMessageW(micLevel_, TBM_GETPOS, 0, 0)));
    return true;
}

// ---- BookPage -----------------------------------------------------------

BookPage::BookPage(HWND parent, PageHost& host, Kind kind) : FormPage(parent, host), kind_(kind) {
    list_ = add(WC_LISTVIEWW, kind == Kind::Recent ? L"Recent" : L"Contacts",
                WS_TABSTOP | LVS_REPORT | LVS_SINGLESEL | LVS_SHOWSELALWAYS | LVS_NOSORTHEADER, kList, 10, 8, 300,
                446, WS_EX_CLIENTEDGE);
    ListView_SetExtendedListViewStyle(list_, LVS_EX_FULLROWSELECT | LVS_EX_DOUBLEBUFFER);
    const struct {
        const wchar_t* title;
        int width;
    } recentColumns[] = {{L"When", 84}, {L"Who", 146}, {L"Length", 66}},
      contactColumns[] = {{L"Name", 140}, {L"Number or SIP address", 156}};
    const auto& columns = kind == Kind::Recent ? std::vector(std::begin(recentColumns), std::end(recentColumns))
                                               : std::vector(std::begin(contactColumns), std::end(contactColumns));
    for (size_t i = 0; i < columns.size(); ++i) {
        LVCOLUMNW column{};
        column.mask = LVCF_TEXT | LVCF_WIDTH;
        column.pszText = const_cast<wchar_t*>(columns[i].title);
        column.cx = columns[i].width;
        ListView_InsertColumn(list_, static_cast<int>(i), &column);
    }
    button_ = add(L"BUTTON", kind == Kind::Recent ? L"Clear" : L"+ Add contact", WS_TABSTOP, kListButton,
                  kind == Kind::Recent ? 210 : 170, 462, kind == Kind::Recent ? 100 : 140, 30);
    formTitle_ = add(L"STATIC", L"New contact", SS_LEFT, -1, 10, 12, 300, 24);
    nameLabel_ = add(L"STATIC", L"Name", SS_LEFT, -1, 10, 44, 300, 20);
    name_ = add(L"EDIT", L"", WS_TABSTOP | WS_BORDER | ES_AUTOHSCROLL, kFormName, 10, 66, 300, 24);
    numberLabel_ = add(L"STATIC", L"Number or SIP address", SS_LEFT, -1, 10, 100, 300, 20);
    number_ = add(L"EDIT", L"", WS_TABSTOP | WS_BORDER | ES_AUTOHSCROLL, kFormNumber, 10, 122, 300, 24);
    save_ = add(L"BUTTON", L"Save", WS_TABSTOP | BS_DEFPUSHBUTTON, kFormSave, 110, 160, 95, 30);
    cancel_ = add(L"BUTTON", L"Cancel", WS_TABSTOP, kFormCancel, 215, 160, 95, 30);
    for (HWND control : {formTitle_, nameLabel_, name_, numberLabel_, number_, save_, cancel_})
        showControl(control, false);
    if (kind == Kind::Contacts) showControl(list_, false);
}

std::wstring BookPage::emptyText() const {
    if (editing_ != -2) return {};
    if (kind_ == Kind::Recent) return callsShown_.empty() ? L"No calls yet." : L"";
    return contactsShown_.empty() ? L"No contacts yet.\nClick \"+ Add contact\", or right-click a recent call." : L"";
}

void BookPage::refresh() {
    const PhoneCore& core = host_.core();
    const bool changed = kind_ == Kind::Recent ? !(core.callLog() == callsShown_)
                                               : !(core.contacts() == contactsShown_);
    if (changed || !filled_) fill();
}

void BookPage::fill() {
    const PhoneCore& core = host_.core();
    filled_ = true;
    ListView_DeleteAllItems(list_);
    const auto addRow = [&](int row, const std::vector<std::wstring>& cells) {
        LVITEMW item{};
        item.mask = LVIF_TEXT;
        item.iItem = row;
        item.pszText = const_cast<wchar_t*>(cells[0].c_str());
        ListView_InsertItem(list_, &item);
        for (size_t i = 1; i < cells.size(); ++i)
            ListView_SetItemText(list_, row, static_cast<int>(i), const_cast<wchar_t*>(cells[i].c_str()));
    };
    if (kind_ == Kind::Recent) {
        callsShown_ = core.callLog();
        recordings_.clear();
        std::error_code error;
        for (const auto& file : std::filesystem::directory_iterator(host_.recordingsFolder(), error))
            recordings_.push_back(file.path().filename().wstring());
        std::sort(recordings_.begin(), recordings_.end());
        // Newest first.
        const int64_t now = static_cast<int64_t>(std::time(nullptr));
        for (size_t i = callsShown_.size(); i-- > 0;) {
            const CallLogEntry& call = callsShown_[i];
            std::wstring who = wide(call.name.empty() ? call.number : call.name + " (" + call.number + ")");
            who = (call.kind == CallKind::Missed ? L"\u2716 " : call.kind == CallKind::Incoming ? L"\u2199 " : L"\u2197 ") +
                  who;
            std::wstring length = call.kind == CallKind::Missed ? L"missed" : wide(formatDuration(call.duration));
            if (!recordingOf(call).empty()) length += L" \u25CF";
            addRow(static_cast<int>(callsShown_.size() - 1 - i), {wide(formatListTime(call.start, now)), who, length});
        }
    } else {
        contactsShown_ = core.contacts();
        for (size_t i = 0; i < contactsShown_.size(); ++i)
            addRow(static_cast<int>(i), {wide(contactsShown_[i].name), wide(contactsShown_[i].number)});
    }
    const bool empty = kind_ == Kind::Recent ? callsShown_.empty() : contactsShown_.empty();
    if (editing_ == -2) showControl(list_, !empty);
    InvalidateRect(parent_, nullptr, FALSE);
}

std::wstring BookPage::recordingOf(const CallLogEntry& entry) const {
    if (entry.kind == CallKind::Missed) return {};
    // Recordings are named by the moment they started, which lies within
    // the call (a little slack for the seconds the clocks straddle).
    const std::wstring from = recordingStamp(entry.start), to = recordingStamp(entry.start + entry.duration + 2);
    if (from.empty() || to.empty()) return {};
    const auto it = std::lower_bound(recordings_.begin(), recordings_.end(), from);
    if (it == recordings_.end() || *it > to + L".wav") return {};
    return *it;
}

int BookPage::selectedRow() const { return ListView_GetNextItem(list_, -1, LVNI_SELECTED); }

// A row's index into the core's list: recent calls are shown newest first.
void BookPage::activate(int row) {
    if (row < 0) return;
    if (kind_ == Kind::Contacts) {
        if (static_cast<size_t>(row) < contactsShown_.size()) host_.dialFromPage(contactsShown_[static_cast<size_t>(row)].number);
        return;
    }
    const size_t index = callsShown_.size() - 1 - static_cast<size_t>(row);
    if (static_cast<size_t>(row) >= callsShown_.size()) return;
    const CallLogEntry& call = callsShown_[index];
    const std::wstring recording = recordingOf(call);
    if (recording.empty()) {
        host_.dialFromPage(call.number);
        return;
    }
    // A call that was recorded plays its recording.
    const auto path = host_.recordingsFolder() / recording;
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        host_.core().showStatus("The recording file is gone.");
        return;
    }
    const auto result = reinterpret_cast<INT_PTR>(
        ShellExecuteW(parent_, L"open", path.wstring().c_str(), nullptr, nullptr, SW_SHOWNORMAL));
    if (result <= 32) host_.core().showStatus("Cannot play the recording.");
}

void BookPage::openForm(int contact) {
    editing_ = contact;
    const bool edit = contact >= 0 && static_cast<size_t>(contact) < contactsShown_.size();
    SetWindowTextW(formTitle_, edit ? L"Edit contact" : L"New contact");
    SetWindowTextW(name_, edit ? wide(contactsShown_[static_cast<size_t>(contact)].name).c_str() : L"");
    SetWindowTextW(number_, edit ? wide(contactsShown_[static_cast<size_t>(contact)].number).c_str() : L"");
    showControl(list_, false);
    showControl(button_, false);
    for (HWND control : {formTitle_, nameLabel_, name_, numberLabel_, number_, save_, cancel_})
        showControl(control, true);
    SetFocus(name_);
    InvalidateRect(parent_, nullptr, FALSE);
}

void BookPage::closeForm() {
    editing_ = -2;
    for (HWND control : {formTitle_, nameLabel_, name_, numberLabel_, number_, save_, cancel_})
        showControl(control, false);
    showControl(button_, true);
    showControl(list_, !contactsShown_.empty());
    InvalidateRect(parent_, nullptr, FALSE);
}

bool BookPage::command(int id, int) {
    PhoneCore& core = host_.core();
    const int row = selectedRow();
    switch (id) {
        case kListButton:
            if (kind_ == Kind::Contacts) {
                openForm(-1);
            } else if (!callsShown_.empty() &&
                       MessageBoxW(parent_, L"Delete all recent calls? Recordings are kept.", L"Velmora Phone",
                                   MB_YESNO | MB_ICONQUESTION) == IDYES) {
                core.clearCallLog();
            }
            return true;
        case kFormSave: {
            const Contact contact{trimmed(windowText(name_)), trimmed(windowText(number_))};
            if (contact.number.empty()) {
                SetFocus(number_);
                return true;
            }
            if (editing_ >= 0) {
                (void)core.editContact(static_cast<size_t>(editing_), contact);
            } else {
                core.addContact(contact);
            }
            closeForm();
            return true;
        }
        case kFormCancel: closeForm(); return true;
        case kMenuCall:
            if (kind_ == Kind::Contacts) {
                activate(row);
            } else if (row >= 0 && static_cast<size_t>(row) < callsShown_.size()) {
                host_.dialFromPage(callsShown_[callsShown_.size() - 1 - static_cast<size_t>(row)].number);
            }
            return true;
        case kMenuEdit: openForm(row); return true;
        case kMenuDelete:
            if (row >= 0) {
                if (kind_ == Kind::Contacts) {
                    (void)core.removeContact(static_cast<size_t>(row));
                } else {
                    (void)core.removeCallLogEntry(callsShown_.size() - 1 - static_cast<size_t>(row));
                }
            }
            return true;
        case kMenuAddContact:
            if (row >= 0 && static_cast<size_t>(row) < callsShown_.size()) {
                const CallLogEntry& call = callsShown_[callsShown_.size() - 1 - static_cast<size_t>(row)];
                core.addContact({call.name.empty() ? call.number : call.name, call.number});
                core.showStatus("Added to contacts: " + (call.name.empty() ? call.number : call.name));
            }
            return true;
        default: return false;
    }
}

bool BookPage::notify(const NMHDR& header) {
    if (header.hwndFrom != list_) return false;
    if (header.code == NM_DBLCLK || header.code == NM_RETURN) {
        activate(selectedRow());
        return true;
    }
    return false;
}

bool BookPage::contextMenu(HWND control, POINT at) {
    if (control != list_) return false;
    int row = selectedRow();
    if (at.x == -1 && at.y == -1) {
        // From the keyboard: at the selected row.
        RECT rect{};
        ListView_GetItemRect(list_, row < 0 ? 0 : row, &rect, LVIR_LABEL);
        at = {rect.left, rect.bottom};
        ClientToScreen(list_, &at);
    } else {
        LVHITTESTINFO hit{};
        hit.pt = at;
        ScreenToClient(list_, &hit.pt);
        row = ListView_HitTest(list_, &hit);
        if (row >= 0) ListView_SetItemState(list_, row, LVIS_SELECTED | LVIS_FOCUSED, LVIS_SELECTED | LVIS_FOCUSED);
    }
    if (row < 0) return true;
    HMENU menu = CreatePopupMenu();
    AppendMenuW(menu, MF_STRING, kMenuCall, L"Call");
    if (kind_ == Kind::Contacts) {
        AppendMenuW(menu, MF_STRING, kMenuEdit, L"Edit");
        AppendMenuW(menu, MF_STRING, kMenuDelete, L"Delete");
    } else {
        AppendMenuW(menu, MF_STRING, kMenuAddContact, L"Add to contacts");
        AppendMenuW(menu, MF_STRING, kMenuDelete, L"Delete from list");
    }
    const int chosen = TrackPopupMenu(menu, TPM_RETURNCMD | TPM_RIGHTBUTTON, at.x, at.y, 0, parent_, nullptr);
    DestroyMenu(menu);
    if (chosen != 0) command(chosen, 0);
    return true;
}

}  // namespace velphone
