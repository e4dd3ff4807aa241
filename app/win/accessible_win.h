// Screen-reader access to the controls the window paints itself: the window's
// client object lists them as push buttons with their names and places, and
// their default action presses them.
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

namespace velphone {

struct AccessibleControl {
    std::wstring name;
    RECT rect{};  // client coordinates
    bool checked = false;
    bool disabled = false;
};

struct AccessibleSource {
    std::function<std::vector<AccessibleControl>()> controls;
    std::function<void(int index)> press;
    std::function<int()> focused;  // the focused control's index, or -1
};

// The answer to WM_GETOBJECT for OBJID_CLIENT (0 for any other object).
LRESULT answerAccessibleObject(HWND window, WPARAM wparam, LPARAM lparam, const AccessibleSource& source);

// Tells screen readers that the painted control `index` took the focus.
void announceFocus(HWND window, int index);

}  // namespace velphone
