// The window's client object for screen readers: each painted control is a
// simple child element (child id = index + 1), a push button.
#include "app/win/accessible_win.h"

#include <oleacc.h>

#include <atomic>

namespace velphone {
namespace {

// COM interfaces have no virtual destructor; Release deletes the object
// through its own final type.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class PaintedControls final : public IAccessible {
public:
    PaintedControls(HWND window, AccessibleSource source) : window_(window), source_(std::move(source)) {}

    // IUnknown
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        if (!out) return E_POINTER;
        if (iid == __uuidof(IUnknown) || iid == __uuidof(IDispatch) || iid == __uuidof(IAccessible)) {
            *out = static_cast<IAccessible*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references_; }
    ULONG STDMETHODCALLTYPE Release() override {
        const ULONG left = --references_;
        if (left == 0) delete this;
        return left;
    }
    // IDispatch: not offered; screen readers use the IAccessible methods.
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
        if (count) *count = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
        return E_NOTIMPL;
    }

    // IAccessible
    HRESULT STDMETHODCALLTYPE get_accParent(IDispatch** parent) override {
        return AccessibleObjectFromWindow(window_, static_cast<DWORD>(OBJID_WINDOW), __uuidof(IDispatch),
                                          reinterpret_cast<void**>(parent));
    }
    HRESULT STDMETHODCALLTYPE get_accChildCount(long* count) override {
        *count = static_cast<long>(source_.controls().size());
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_accChild(VARIANT, IDispatch** child) override {
        *child = nullptr;
        return S_FALSE;  // simple elements, no objects of their own
    }
    HRESULT STDMETHODCALLTYPE get_accName(VARIANT child, BSTR* name) override {
        if (child.lVal == CHILDID_SELF) return text(L"Velmora Phone", name);
        const auto controls = source_.controls();
        if (!valid(child, controls.size())) return E_INVALIDARG;
        return text(controls[static_cast<size_t>(child.lVal - 1)].name.c_str(), name);
    }
    HRESULT STDMETHODCALLTYPE get_accValue(VARIANT, BSTR* value) override {
        *value = nullptr;
        return S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE get_accDescription(VARIANT, BSTR* description) override {
        *description = nullptr;
        return S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE get_accRole(VARIANT child, VARIANT* role) override {
        role->vt = VT_I4;
        role->lVal = child.lVal == CHILDID_SELF ? ROLE_SYSTEM_CLIENT : ROLE_SYSTEM_PUSHBUTTON;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_accState(VARIANT child, VARIANT* state) override {
        state->vt = VT_I4;
        state->lVal = STATE_SYSTEM_FOCUSABLE;
        if (child.lVal == CHILDID_SELF) return S_OK;
        const auto controls = source_.controls();
        if (!valid(child, controls.size())) return E_INVALIDARG;
        const AccessibleControl& control = controls[static_cast<size_t>(child.lVal - 1)];
        if (control.checked) state->lVal |= STATE_SYSTEM_PRESSED;
        if (control.disabled) state->lVal |= STATE_SYSTEM_UNAVAILABLE;
        if (source_.focused() == child.lVal - 1) state->lVal |= STATE_SYSTEM_FOCUSED;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_accHelp(VARIANT, BSTR* help) override {
        *help = nullptr;
        return S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE get_accHelpTopic(BSTR* file, VARIANT, long* topic) override {
        *file = nullptr;
        *topic = 0;
        return S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE get_accKeyboardShortcut(VARIANT, BSTR* shortcut) override {
        *shortcut = nullptr;
        return S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE get_accFocus(VARIANT* focus) override {
        const int index = source_.focused();
        focus->vt = index < 0 ? VT_EMPTY : VT_I4;
        if (index >= 0) focus->lVal = index + 1;
        return index < 0 ? S_FALSE : S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_accSelection(VARIANT* selection) override {
        selection->vt = VT_EMPTY;
        return S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE get_accDefaultAction(VARIANT child, BSTR* action) override {
        if (child.lVal == CHILDID_SELF) {
            *action = nullptr;
            return S_FALSE;
        }
        return text(L"Press", action);
    }
    HRESULT STDMETHODCALLTYPE accSelect(long, VARIANT) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE accLocation(long* left, long* top, long* width, long* height, VARIANT child) override {
        RECT rect{};
        if (child.lVal == CHILDID_SELF) {
            GetClientRect(window_, &rect);
        } else {
            const auto controls = source_.controls();
            if (!valid(child, controls.size())) return E_INVALIDARG;
            rect = controls[static_cast<size_t>(child.lVal - 1)].rect;
        }
        POINT origin{rect.left, rect.top};
        ClientToScreen(window_, &origin);
        *left = origin.x, *top = origin.y, *width = rect.right - rect.left, *height = rect.bottom - rect.top;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE accNavigate(long direction, VARIANT start, VARIANT* end) override {
        const long count = static_cast<long>(source_.controls().size());
        long next = 0;
        if (direction == NAVDIR_FIRSTCHILD && start.lVal == CHILDID_SELF) next = 1;
        if (direction == NAVDIR_LASTCHILD && start.lVal == CHILDID_SELF) next = count;
        if ((direction == NAVDIR_NEXT || direction == NAVDIR_DOWN) && start.lVal > 0) next = start.lVal + 1;
        if ((direction == NAVDIR_PREVIOUS || direction == NAVDIR_UP) && start.lVal > 0) next = start.lVal - 1;
        if (next < 1 || next > count) {
            end->vt = VT_EMPTY;
            return S_FALSE;
        }
        end->vt = VT_I4;
        end->lVal = next;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE accHitTest(long x, long y, VARIANT* child) override {
        POINT point{x, y};
        ScreenToClient(window_, &point);
        const auto controls = source_.controls();
        for (size_t i = 0; i < controls.size(); ++i) {
            if (PtInRect(&controls[i].rect, point)) {
                child->vt = VT_I4;
                child->lVal = static_cast<long>(i) + 1;
                return S_OK;
            }
        }
        child->vt = VT_I4;
        child->lVal = CHILDID_SELF;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE accDoDefaultAction(VARIANT child) override {
        if (!valid(child, source_.controls().size())) return E_INVALIDARG;
        source_.press(child.lVal - 1);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE put_accName(VARIANT, BSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE put_accValue(VARIANT, BSTR) override { return E_NOTIMPL; }

private:
    static bool valid(const VARIANT& child, size_t count) {
        return child.vt == VT_I4 && child.lVal >= 1 && static_cast<size_t>(child.lVal) <= count;
    }
    static HRESULT text(const wchar_t* value, BSTR* out) {
        *out = SysAllocString(value);
        return *out ? S_OK : E_OUTOFMEMORY;
    }

    HWND window_;
    AccessibleSource source_;
    std::atomic<ULONG> references_{1};
};
#pragma GCC diagnostic pop

}  // namespace

LRESULT answerAccessibleObject(HWND window, WPARAM wparam, LPARAM lparam, const AccessibleSource& source) {
    if (static_cast<LONG>(lparam) != static_cast<LONG>(OBJID_CLIENT)) return 0;
    auto* object = new PaintedControls(window, source);
    const LRESULT result = LresultFromObject(__uuidof(IAccessible), wparam, object);
    object->Release();
    return result;
}

void announceFocus(HWND window, int index) {
    NotifyWinEvent(EVENT_OBJECT_FOCUS, window, OBJID_CLIENT, index + 1);
}

}  // namespace velphone
