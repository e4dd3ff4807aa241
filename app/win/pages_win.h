// The pages that hold native controls: the SIP account form and the two
// lists (recent calls, contacts) with the contact form. They sit in the
// window's page area, between the tabs and the status line.
#pragma once

#include <windows.h>

#include <filesystem>
#include <string>
#include <vector>

#include "app/core/phone_core.h"
#include "app/win/layout.h"

namespace velphone {

// What a page asks of the window.
class PageHost {
public:
    virtual ~PageHost() = default;
    virtual PhoneCore& core() = 0;
    virtual void dialFromPage(const std::string& number) = 0;
    virtual void registerLinkHandlers() = 0;
    [[nodiscard]] virtual std::filesystem::path recordingsFolder() const = 0;
};

class FormPage {
public:
    FormPage(HWND parent, PageHost& host) : parent_(parent), host_(host) {}
    virtual ~FormPage() = default;
    FormPage(const FormPage&) = delete;
    FormPage& operator=(const FormPage&) = delete;

    void show(bool visible);
    [[nodiscard]] bool visible() const { return visible_; }
    // Places the controls for the layout's DPI and gives them the font.
    void place(const Layout& layout, HFONT font);
    // WM_COMMAND, WM_NOTIFY and WM_CONTEXTMENU from the page's controls;
    // true when handled.
    virtual bool command(int id, int code) = 0;
    virtual bool notify(const NMHDR&) { return false; }
    virtual bool contextMenu(HWND, POINT) { return false; }
    // WM_HSCROLL from a trackbar of the page.
    virtual bool scrolled(HWND) { return false; }
    // The core changed: the page shows its new state.
    virtual void refresh() = 0;
    // A list page's text when its list is empty; nothing otherwise.
    [[nodiscard]] virtual std::wstring emptyText() const { return {}; }

protected:
    // A control at a 96-DPI rectangle of the page (x and y from the page's
    // top-left corner, which is just under the tabs).
    HWND add(const wchar_t* windowClass, const wchar_t* text, DWORD style, int id, int x, int y, int width,
             int height, DWORD extendedStyle = 0);
    void setPlaced(HWND control, int x, int y, int width, int height);
    // Controls shown or hidden on their own within the page (a form in place of a list).
    void showControl(HWND control, bool shown);
    [[nodiscard]] int px(int designPixels) const { return MulDiv(designPixels, layout_.dpi, 96); }

    HWND parent_;
    PageHost& host_;
    Layout layout_ = compute(96);

private:
    struct Placed {
        HWND control;
        int x, y, width, height;
        bool shown = true;
    };
    std::vector<Placed> controls_;
    bool visible_ = false;
};

class AccountPage final : public FormPage {
public:
    AccountPage(HWND parent, PageHost& host);
    bool command(int id, int code) override;
    bool scrolled(HWND control) override;
    void refresh() override;

private:
    void load();
    // Swaps the phone's switches for the encryption and NAT settings; they
    // are stored when swapped back and on Start.
    void showPrivacy(bool shown);
    void savePrivacy();
    HWND user_, password_, domain_, authUser_, proxy_, stun_, transport_, voicemail_;
    HWND start_, audioTest_, sipLog_, closeToTray_, micLevel_, message_;
    HWND privacy_, srtp_, ice_, turnServer_, turnUser_, turnPassword_;
    std::vector<HWND> switches_, privacyControls_;
    bool privacyShown_ = false;
    Account shown_;
};

class BookPage final : public FormPage {
public:
    enum class Kind { Recent, Contacts };
    BookPage(HWND parent, PageHost& host, Kind kind);
    bool command(int id, int code) override;
    bool notify(const NMHDR& header) override;
    bool contextMenu(HWND control, POINT at) override;
    void refresh() override;
    [[nodiscard]] std::wstring emptyText() const override;

private:
    void fill();
    void activate(int row);
    void openForm(int contact);  // -1: a new contact
    void closeForm();
    [[nodiscard]] int selectedRow() const;
    // The recording made during a call of the log, or nothing.
    [[nodiscard]] std::wstring recordingOf(const CallLogEntry& entry) const;

    Kind kind_;
    HWND list_, button_;
    HWND formTitle_, nameLabel_, name_, numberLabel_, number_, save_, cancel_;
    int editing_ = -2;  // -2: no form; -1: a new contact; else the contact's index
    std::vector<Contact> contactsShown_;
    std::vector<CallLogEntry> callsShown_;
    std::vector<std::wstring> recordings_;  // sorted file names in the Recordings folder
    bool filled_ = false;
};

}  // namespace velphone
