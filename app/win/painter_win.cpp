// Direct2D drawing of the main window (being built).
#include "app/win/painter_win.h"

namespace velphone {

Theme systemTheme() { return Theme::Light; }

std::unique_ptr<Painter> Painter::create(std::string* error) {
    if (error) *error = "Direct2D is not available.";
    return nullptr;
}

}  // namespace velphone
