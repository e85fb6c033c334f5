// Check 15: the editor, live. On an Xvfb display of its own, the bundle's UI is opened as hosts
// open it: four instances at once (two embedded in a parent window, two top-level), opened and
// closed again and again at scale factors 1, 1.5 and 2. Opening writes no port; the window has
// the default size for the scale and size hints a host may resize freely; a drag on a knob is
// one touch gesture around its writes; an idle editor costs next to no CPU.
#include "validate/Check.h"
#include "validate/Elf.h"
#include "validate/Host.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <lilv/lilv.h>
#include <lv2/atom/atom.h>
#include <lv2/options/options.h>
#include <lv2/ui/ui.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <memory>
#include <thread>

extern char** environ;

namespace sr::validate {

namespace {

// An Xvfb server of our own for the check's lifetime, stopped by its PID.
class PrivateDisplay {
public:
    PrivateDisplay() {
        for (int n = 300 + int(getpid() % 400); n < 1000 && !pid; ++n) {
            if (access(("/tmp/.X" + std::to_string(n) + "-lock").c_str(), F_OK) == 0) continue;
            name = ":" + std::to_string(n);
            const char* argv[] = {"Xvfb",         name.c_str(), "-screen", "0",
                                  "2400x1200x24", "-nolisten",  "tcp",     nullptr};
            posix_spawn_file_actions_t actions;
            posix_spawn_file_actions_init(&actions);
            posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
            posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
            pid_t child = 0;
            if (posix_spawnp(&child, "Xvfb", &actions, nullptr, const_cast<char**>(argv),
                             environ) == 0)
                pid = child;
            posix_spawn_file_actions_destroy(&actions);
            if (!pid) return;
            for (int i = 0; i < 100 && !display; ++i) {
                display = XOpenDisplay(name.c_str());
                if (!display) std::this_thread::sleep_for(std::chrono::milliseconds(50));
                int status = 0;
                if (!display && waitpid(pid, &status, WNOHANG) == pid) {
                    pid = 0; // lost the race for this number: try the next
                    break;
                }
            }
        }
        if (display) {
            const char* old = std::getenv("DISPLAY");
            if (old) previous = old;
            hadPrevious = old != nullptr;
            setenv("DISPLAY", name.c_str(), 1);
        }
    }
    ~PrivateDisplay() {
        if (display) XCloseDisplay(display);
        if (hadPrevious)
            setenv("DISPLAY", previous.c_str(), 1);
        else
            unsetenv("DISPLAY");
        if (pid) {
            kill(pid, SIGTERM);
            int status = 0;
            waitpid(pid, &status, 0);
        }
    }
    Display* display = nullptr;
    std::string name;

private:
    pid_t pid = 0;
    std::string previous;
    bool hadPrevious = false;
};

// One editor as a host holds it: what it wrote, touched and asked for.
struct Editor {
    struct Write {
        std::uint32_t port, size, protocol;
        float value;
    };
    std::vector<Write> writes;
    std::vector<std::pair<std::uint32_t, bool>> touches;
    int resizedWidth = 0, resizedHeight = 0;
    LV2UI_Handle handle = nullptr;
    Window widget = 0;
    Window parent = 0;
    // Features the editor keeps using after it opened.
    LV2UI_Touch touchFeature{this, touch};
    LV2UI_Resize resizeFeature{this, resize};

    static void write(LV2UI_Controller c, std::uint32_t port, std::uint32_t size,
                      std::uint32_t protocol, const void* buffer) {
        auto* self = static_cast<Editor*>(c);
        float v = 0;
        if (protocol == 0 && size == sizeof(float)) std::memcpy(&v, buffer, sizeof v);
        self->writes.push_back({port, size, protocol, v});
    }
    static void touch(LV2UI_Feature_Handle h, std::uint32_t port, bool grabbed) {
        static_cast<Editor*>(h)->touches.emplace_back(port, grabbed);
    }
    static int resize(LV2UI_Feature_Handle h, int w, int hh) {
        auto* self = static_cast<Editor*>(h);
        self->resizedWidth = w;
        self->resizedHeight = hh;
        return 0;
    }
    std::size_t controlWrites() const {
        std::size_t n = 0;
        for (const Write& w : writes) n += w.protocol == 0;
        return n;
    }
};

struct UiLibrary {
    void* library = nullptr;
    const LV2UI_Descriptor* descriptor = nullptr;
    const LV2UI_Idle_Interface* idle = nullptr;
    ~UiLibrary() {
        if (library) dlclose(library);
    }
};

double processSeconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

} // namespace

Result checkUi(const Context& ctx) {
    Result result;
    World& world = World::get(ctx.bundle);
    LilvUIs* uis = lilv_plugin_get_uis(world.plugin);
    const LilvUI* ui = nullptr;
    LILV_FOREACH(uis, i, uis) {
        ui = lilv_uis_get(uis, i);
        break;
    }
    if (!ui) {
        lilv_uis_free(uis);
        result.skipped = true;
        result.figure = "no UI declared in the bundle: nothing to open";
        return result;
    }
    const std::string uiURI = lilv_node_as_uri(lilv_ui_get_uri(ui));
    const std::string binary = filePath(lilv_ui_get_binary_uri(ui));
    const std::string bundle = filePath(lilv_ui_get_bundle_uri(ui));
    lilv_uis_free(uis);

    // The binary shows hosts its descriptor and nothing else.
    const elf::Image image = elf::read(binary);
    if (!image.ok()) {
        result.fail(image.error);
        return result;
    }
    const auto exported = elf::exportedNames(image);
    if (exported != std::vector<std::string>{"lv2ui_descriptor"}) {
        std::string list;
        for (const auto& e : exported) list += (list.empty() ? "" : ", ") + e;
        result.fail("the UI binary exports " + (list.empty() ? std::string("nothing") : list) +
                    ", not lv2ui_descriptor only");
    }

    PrivateDisplay x;
    if (!x.display) {
        result.fail("no Xvfb display could be started (scripts/install-deps.sh installs xvfb)");
        return result;
    }
    UiLibrary lib;
    lib.library = dlopen(binary.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!lib.library) {
        result.fail(std::string("dlopen: ") + dlerror());
        return result;
    }
    using DescriptorFunction = const LV2UI_Descriptor* (*)(std::uint32_t);
    const auto entry = reinterpret_cast<DescriptorFunction>(dlsym(lib.library, "lv2ui_descriptor"));
    for (std::uint32_t i = 0; entry && (lib.descriptor = entry(i)); ++i)
        if (lib.descriptor->URI && uiURI == lib.descriptor->URI) break;
    if (!lib.descriptor) {
        result.fail("the UI binary has no descriptor for <" + uiURI + ">");
        return result;
    }
    lib.idle = lib.descriptor->extension_data
                   ? static_cast<const LV2UI_Idle_Interface*>(
                         lib.descriptor->extension_data(LV2_UI__idleInterface))
                   : nullptr;
    if (!lib.idle || !lib.idle->idle) {
        result.fail("the UI offers no idle interface");
        return result;
    }

    const LV2_URID atomFloat = world.urid(LV2_ATOM__Float);
    const LV2_URID scaleKey = world.urid(LV2_UI__scaleFactor);
    const LV2_URID eventTransfer = world.urid(LV2_ATOM__eventTransfer);
    const Window root = DefaultRootWindow(x.display);

    // Opens one editor at a scale; embedded in a parent window of ours or top-level.
    auto open = [&](Editor& e, float& scale, bool embedded) {
        if (embedded) {
            e.parent = XCreateSimpleWindow(x.display, root, 0, 0, 2200, 1000, 0, 0, 0);
            XMapWindow(x.display, e.parent);
            XSync(x.display, False);
        }
        static const LV2_Options_Option kEnd{LV2_OPTIONS_INSTANCE, 0, 0, 0, 0, nullptr};
        const LV2_Options_Option options[] = {
            {LV2_OPTIONS_INSTANCE, 0, scaleKey, sizeof(float), atomFloat, &scale}, kEnd};
        const LV2_Feature mapFeature{LV2_URID__map, &world.map};
        const LV2_Feature optionsFeature{LV2_OPTIONS__options,
                                         const_cast<void*>(static_cast<const void*>(options))};
        const LV2_Feature touchFeature{LV2_UI__touch, &e.touchFeature};
        const LV2_Feature resizeFeature{LV2_UI__resize, &e.resizeFeature};
        const LV2_Feature idleFeature{LV2_UI__idleInterface, nullptr};
        const LV2_Feature parentFeature{LV2_UI__parent, reinterpret_cast<void*>(e.parent)};
        std::vector<const LV2_Feature*> features = {&mapFeature, &optionsFeature, &touchFeature,
                                                    &resizeFeature, &idleFeature};
        if (embedded) features.push_back(&parentFeature);
        features.push_back(nullptr);
        LV2UI_Widget widget = nullptr;
        e.handle = lib.descriptor->instantiate(lib.descriptor, world.uri.c_str(), bundle.c_str(),
                                               Editor::write, &e, &widget, features.data());
        e.widget = Window(reinterpret_cast<std::uintptr_t>(widget));
        if (!e.handle) return;
        // A host tells a new editor every control port's value.
        for (const ControlPort& p : world.controls)
            lib.descriptor->port_event(e.handle, p.index, sizeof(float), 0, &p.defaultValue);
    };
    auto idleAll = [&](std::vector<std::unique_ptr<Editor>>& editors, int times) {
        for (int t = 0; t < times; ++t) {
            for (auto& e : editors)
                if (e->handle) lib.idle->idle(e->handle);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    };
    auto close = [&](Editor& e) {
        if (e.handle) lib.descriptor->cleanup(e.handle);
        e.handle = nullptr;
        if (e.parent) XDestroyWindow(x.display, e.parent);
        e.parent = 0;
        XSync(x.display, False);
    };

    const int cycles = 20;
    int opened = 0;
    std::size_t portWrites = 0;
    for (float scale : {1.0f, 1.5f, 2.0f}) {
        const int width = int(std::lround(1024 * scale)), height = int(std::lround(400 * scale));
        for (int cycle = 0; cycle < cycles; ++cycle) {
            std::vector<std::unique_ptr<Editor>> editors;
            for (int k = 0; k < 4; ++k) {
                editors.push_back(std::make_unique<Editor>());
                open(*editors.back(), scale, k % 2 == 0);
                if (!editors.back()->handle) {
                    result.fail(format("instance %d at scale %.1f did not open", k, scale));
                    return result;
                }
                ++opened;
            }
            idleAll(editors, 4);
            for (auto& e : editors) {
                portWrites += e->controlWrites();
                if (cycle > 0) continue;
                XWindowAttributes a;
                if (!e->widget || !XGetWindowAttributes(x.display, e->widget, &a)) {
                    result.fail(format("no window at scale %.1f", scale));
                    continue;
                }
                if (a.width != width || a.height != height)
                    result.fail(format("the window is %dx%d at scale %.1f, not %dx%d", a.width,
                                       a.height, scale, width, height));
                if (e->resizedWidth != width || e->resizedHeight != height)
                    result.fail(format("ui:resize was told %dx%d at scale %.1f, not %dx%d",
                                       e->resizedWidth, e->resizedHeight, scale, width, height));
                XSizeHints hints{};
                long supplied = 0;
                if (XGetWMNormalHints(x.display, e->widget, &hints, &supplied)) {
                    if ((hints.flags & PMaxSize) && (hints.flags & PMinSize) &&
                        hints.max_width == hints.min_width && hints.max_height == hints.min_height)
                        result.fail("the size hints fix the window's size");
                    if (hints.flags & PAspect) result.fail("the size hints lock the aspect");
                }
                bool requested = false;
                for (const Editor::Write& w : e->writes)
                    requested |= w.protocol == eventTransfer && w.port == *world.midiIn;
                if (!requested) result.fail("the editor did not ask the plug-in for its values");
            }
            // Close in another order than opened, so each close leaves others running.
            for (int k : {2, 0, 3, 1}) close(*editors[std::size_t(k)]);
        }
    }
    if (portWrites)
        result.fail(format("%zu control port writes while opening editors", portWrites));

    // A drag on the depth knob: one gesture around its writes.
    Editor drag;
    float one = 1.0f;
    open(drag, one, false);
    auto send = [&](int type, int px, int py) {
        XEvent ev{};
        if (type == MotionNotify) {
            ev.xmotion.type = MotionNotify;
            ev.xmotion.display = x.display;
            ev.xmotion.window = drag.widget;
            ev.xmotion.root = root;
            ev.xmotion.x = ev.xmotion.x_root = px;
            ev.xmotion.y = ev.xmotion.y_root = py;
            ev.xmotion.state = Button1Mask;
            ev.xmotion.same_screen = True;
        } else {
            ev.xbutton.type = type;
            ev.xbutton.display = x.display;
            ev.xbutton.window = drag.widget;
            ev.xbutton.root = root;
            ev.xbutton.x = ev.xbutton.x_root = px;
            ev.xbutton.y = ev.xbutton.y_root = py;
            ev.xbutton.button = Button1;
            ev.xbutton.same_screen = True;
        }
        XSendEvent(x.display, drag.widget, False, 0, &ev);
        XSync(x.display, False);
        for (int t = 0; t < 3; ++t) {
            lib.idle->idle(drag.handle);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    };
    std::string dragFigure = "no drag";
    if (drag.handle) {
        for (int t = 0; t < 5; ++t) lib.idle->idle(drag.handle);
        send(ButtonPress, 137, 222);
        send(MotionNotify, 137, 212);
        send(MotionNotify, 137, 202);
        send(ButtonRelease, 137, 202);
        std::size_t depthWrites = 0;
        float last = 0;
        for (const Editor::Write& w : drag.writes)
            if (w.protocol == 0 && w.port == 7) {
                ++depthWrites;
                last = w.value;
            }
        const bool gesture = drag.touches.size() == 2 && drag.touches[0] == std::pair(7u, true) &&
                             drag.touches[1] == std::pair(7u, false);
        if (depthWrites == 0) result.fail("a drag on the depth knob wrote nothing");
        if (!gesture) result.fail("a drag on the depth knob was not one touch gesture on port 7");
        // 20 units up at scale 1: 20 / 2 / 100 = +0.1.
        if (std::fabs(last - 0.43f) > 0.011f)
            result.fail(format("the drag left depth at %.3f, not 0.43", double(last)));
        dragFigure = format("a 20-unit drag on depth: %zu writes inside one touch gesture, "
                            "0.33 -> %.2f",
                            depthWrites, double(last));

        // Idle: the host's idle calls at 30 Hz with nothing changing.
        const double seconds = ctx.full ? 10.0 : 3.0;
        const double cpu0 = processSeconds();
        const auto start = std::chrono::steady_clock::now();
        while (std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() <
               seconds) {
            lib.idle->idle(drag.handle);
            std::this_thread::sleep_for(std::chrono::microseconds(33333));
        }
        const double cpu = processSeconds() - cpu0;
        const double percent = 100.0 * cpu / seconds;
        if (percent > 1.0)
            result.fail(format("an idle editor used %.2f %% of a core (at most 1 %%)", percent));
        dragFigure += format("; idle %.2f %% of a core over %.0f s", percent, seconds);
        close(drag);
    }

    result.figure = format("%d editors opened and closed (4 at a time, %d times at scale 1, 1.5 "
                           "and 2, half embedded); %zu port writes on opening; default size and "
                           "free size hints; %s",
                           opened, cycles, portWrites, dragFigure.c_str());
    return result;
}

} // namespace sr::validate
