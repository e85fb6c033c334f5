// The window side of a build without the panel: the app runs headless, as with --no-ui.
#include "app/AppWindow.h"

namespace sr::app {

std::unique_ptr<AppWindow> createAppWindow(AppContext&, std::string& whyNot) {
    whyNot = "the panel is not available in this build";
    return nullptr;
}

} // namespace sr::app
