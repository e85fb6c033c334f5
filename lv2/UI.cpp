// The LV2 editor: the panel in an X11 window embedded in the host's (or top-level), connected
// to the plug-in only through its ports and atom messages, as it may run in another process.
// Its own mirror of the parameter tree takes the host's port events and the plug-in's reports,
// and writes ports when the user moves a control, with ui:touch around a drag.
// Threading: every entry point is the host's UI thread.
#include <algorithm>
#include <bitset>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>

#include <lv2/atom/util.h>
#include <lv2/options/options.h>
#include <lv2/parameters/parameters.h>
#include <lv2/ui/ui.h>
#include <lv2/urid/urid.h>

#include "editor/AudioUnitViewController.h"
#include "editor/EditorAudioUnit.h"
#include "lv2/Features.h"
#include "lv2/PluginURIs.h"
#include "lv2/UIMessages.h"
#include "platform/PrintQueue.h"
#include "x11/PanelWindow.h"

namespace sr::lv2 {

namespace {

constexpr const char* kLogPrefix = "TAV SR Chorus (LV2 editor): ";

void log(std::string_view text) {
    LineBuilder<> line;
    line << kLogPrefix << text << "\n";
    debugprint(line.view());
}

// The host's ui:scaleFactor, kept to a sensible range; 1 when it gives none.
float scaleFactor(const LV2_Options_Option* options, LV2_URID_Map* map) {
    if (!options || !map) return 1.0f;
    const LV2_URID key = map->map(map->handle, LV2_UI__scaleFactor);
    const LV2_URID atomFloat = map->map(map->handle, LV2_ATOM__Float);
    for (const LV2_Options_Option* o = options; o->key; ++o)
        if (o->key == key && o->type == atomFloat && o->size == sizeof(float) && o->value) {
            const float scale = *static_cast<const float*>(o->value);
            if (std::isfinite(scale)) return std::clamp(scale, 0.5f, 4.0f);
        }
    return 1.0f;
}

// The host's param:sampleRate, or 0 when it gives none.
double hostSampleRate(const LV2_Options_Option* options, LV2_URID_Map* map) {
    if (!options || !map) return 0.0;
    const LV2_URID key = map->map(map->handle, LV2_PARAMETERS__sampleRate);
    const LV2_URID atomFloat = map->map(map->handle, LV2_ATOM__Float);
    const LV2_URID atomDouble = map->map(map->handle, LV2_ATOM__Double);
    for (const LV2_Options_Option* o = options; o->key; ++o) {
        if (o->key != key || !o->value) continue;
        if (o->type == atomFloat && o->size == sizeof(float))
            return *static_cast<const float*>(o->value);
        if (o->type == atomDouble && o->size == sizeof(double))
            return *static_cast<const double*>(o->value);
    }
    return 0.0;
}

} // namespace

class UI : public editor::ParameterWriter {
public:
    static UI* create(const char* bundlePath, LV2UI_Write_Function write, LV2UI_Controller host,
                      LV2UI_Widget* widget, const LV2_Feature* const* features);
    ~UI() override;

    void portEvent(std::uint32_t port, std::uint32_t size, std::uint32_t format,
                   const void* buffer);
    int idle();
    void resize(int width, int height) { window->resize(width, height); }

    void writeParameter(AUParameterAddress address, AUValue value) override;
    void beginGesture(AUParameterAddress address) override { touch(address, true); }
    void endGesture(AUParameterAddress address) override { touch(address, false); }

private:
    UI(const char* bundlePath, LV2UI_Write_Function write, LV2UI_Controller host, LV2_URID_Map* map,
       const LV2UI_Touch* touch, LogChannel::Sink logSink);
    void note(std::string_view text);
    void touch(AUParameterAddress address, bool grabbed);
    // An atom message on the plug-in's control input.
    void send(const LV2_Atom* message);

    // First made, last gone: everything below prints on it.
    LogChannel logChannel;
    LV2UI_Write_Function write;
    LV2UI_Controller host;
    const LV2UI_Touch* touchFeature;
    UIMessages messages;
    editor::AudioUnitMirror mirror;
    editor::AudioUnitViewController controller;
    std::unique_ptr<x11::PanelWindow> window;
    // The host's port values as it last told us (or we wrote them).
    std::array<float, kParameterCount> hostValues{};
    std::bitset<kParameterCount> hostKnown;
    // The input tap: opened once the window stands, its uiOn repeated while the editor lives.
    bool inputOpened = false;
    std::chrono::steady_clock::time_point nextUiOn;
};

UI::UI(const char* bundlePath, LV2UI_Write_Function w, LV2UI_Controller h, LV2_URID_Map* map,
       const LV2UI_Touch* t, LogChannel::Sink logSink)
    : logChannel(std::move(logSink)), write(w), host(h), touchFeature(t), messages(map),
      mirror(this), controller(&logChannel) {
    // The shipped presets lie in the bundle; the browser copies them where it lists them.
    if (bundlePath) controller.resourcesPath = bundlePath;
    controller.viewDidLoad();
    controller.setAudioUnit(&mirror);
    controller.mainQueue().drain(); // connects the panel to the mirror
}

UI* UI::create(const char* bundlePath, LV2UI_Write_Function write, LV2UI_Controller host,
               LV2UI_Widget* widget, const LV2_Feature* const* features) {
    auto* map = static_cast<LV2_URID_Map*>(const_cast<void*>(findFeature(features, LV2_URID__map)));
    const auto* options =
        static_cast<const LV2_Options_Option*>(findFeature(features, LV2_OPTIONS__options));
    const auto* touch = static_cast<const LV2UI_Touch*>(findFeature(features, LV2_UI__touch));
    const auto* hostResize =
        static_cast<const LV2UI_Resize*>(findFeature(features, LV2_UI__resize));
    const auto parent = reinterpret_cast<std::uintptr_t>(findFeature(features, LV2_UI__parent));
    if (!write) {
        log("ERROR: the host gave no write function; no editor");
        return nullptr;
    }
    std::unique_ptr<UI> ui(
        new UI(bundlePath, write, host, map, touch,
               hostLog(static_cast<const LV2_Log_Log*>(findFeature(features, LV2_LOG__log)), map)));
    if (!map) ui->note("WARNING: no urid:map from the host: values changed by MIDI will not show");
    const float scale = scaleFactor(options, map);
    const int width = int(std::lround(1024 * scale));
    const int height = int(std::lround(400 * scale));
    ui->window =
        std::make_unique<x11::PanelWindow>(ui->controller, parent, width, height, kPluginName);
    if (!ui->window->ok()) {
        ui->note("ERROR: " + ui->window->error() + "; no editor");
        return nullptr;
    }
    // Told even though it is not asked for: hosts that offer it size their frame by it.
    if (hostResize && hostResize->ui_resize)
        hostResize->ui_resize(hostResize->handle, width, height);
    *widget = reinterpret_cast<LV2UI_Widget>(ui->window->windowId());

    if (const double rate = hostSampleRate(options, map); rate > 0.0)
        ui->controller.setSampleRate(rate);
    // The plug-in reports every effective value; the host sends the ports' values itself.
    ui->send(ui->messages.requestValues());
    // And from now on it sends its input for the spectrum.
    ui->send(ui->messages.openInput());
    ui->inputOpened = true;
    ui->nextUiOn = std::chrono::steady_clock::now() +
                   std::chrono::milliseconds(std::int64_t(kUiOnRepeatSeconds * 1000));
    return ui.release();
}

UI::~UI() {
    // The plug-in stops copying its input at once (it would after a while by itself).
    if (inputOpened) send(messages.closeInput());
}

void UI::send(const LV2_Atom* message) {
    if (message)
        write(host, kMIDIIn, std::uint32_t(lv2_atom_total_size(message)), messages.eventTransfer(),
              message);
}

void UI::note(std::string_view text) {
    LineBuilder<> line;
    line << kLogPrefix << text << "\n";
    logChannel.debugprint(line.view());
}

void UI::writeParameter(AUParameterAddress address, AUValue value) {
    if (address >= kParameterCount) return;
    hostValues[address] = value;
    hostKnown.set(address);
    write(host, std::uint32_t(address), sizeof(float), 0, &value);
}

void UI::touch(AUParameterAddress address, bool grabbed) {
    if (touchFeature && touchFeature->touch && address < kParameterCount)
        touchFeature->touch(touchFeature->handle, std::uint32_t(address), grabbed);
}

void UI::portEvent(std::uint32_t port, std::uint32_t size, std::uint32_t format,
                   const void* buffer) {
    if (!buffer) return;
    if (format == 0 && port < kParameterCount && size == sizeof(float)) {
        float value;
        std::memcpy(&value, buffer, sizeof value);
        if (!std::isfinite(value)) return;
        hostValues[port] = value;
        hostKnown.set(port);
        mirror.receive(port, value);
        return;
    }
    if (port != kNotify || format == 0 || format != messages.eventTransfer()) return;
    if (const auto input = messages.inputSamples(buffer, size)) {
        controller.takeInput(input->samples, input->count, input->sampleRate);
        return;
    }
    const std::optional<UIMessages::ParameterValue> reported =
        messages.parameterValue(buffer, size);
    if (!reported) return;
    mirror.receive(reported->address, reported->value);
    // A value changed inside the plug-in (a MIDI controller, a restored state) goes to the
    // host's port too, so its value and automation follow; not while the user holds a control.
    const std::uint32_t a = reported->address;
    if (hostKnown.test(a) && hostValues[a] != reported->value && !controller.touchesLocked())
        writeParameter(a, reported->value);
}

int UI::idle() {
    const auto now = std::chrono::steady_clock::now();
    if (inputOpened && now >= nextUiOn) {
        send(messages.openInput());
        nextUiOn = now + std::chrono::milliseconds(std::int64_t(kUiOnRepeatSeconds * 1000));
    }
    window->idle();
    return window->closeRequested() || window->lost() ? 1 : 0;
}

namespace {

UI* self(LV2UI_Handle handle) {
    return static_cast<UI*>(handle);
}

LV2UI_Handle instantiate(const LV2UI_Descriptor*, const char* pluginURI, const char* bundlePath,
                         LV2UI_Write_Function write, LV2UI_Controller controller,
                         LV2UI_Widget* widget, const LV2_Feature* const* features) {
    if (!pluginURI || std::strcmp(pluginURI, kPluginURI) != 0) {
        log("ERROR: this editor belongs to another plug-in");
        return nullptr;
    }
    try {
        return UI::create(bundlePath, write, controller, widget, features);
    } catch (const std::exception& error) {
        log(std::string("ERROR: no editor: ") + error.what());
    } catch (...) {
        log("ERROR: no editor");
    }
    return nullptr;
}

void cleanup(LV2UI_Handle handle) {
    delete self(handle);
}

void portEvent(LV2UI_Handle handle, std::uint32_t port, std::uint32_t size, std::uint32_t format,
               const void* buffer) {
    self(handle)->portEvent(port, size, format, buffer);
}

int idle(LV2UI_Handle handle) {
    return self(handle)->idle();
}

const LV2UI_Idle_Interface idleInterface{idle};

const void* extensionData(const char* uri) {
    if (uri && std::strcmp(uri, LV2_UI__idleInterface) == 0) return &idleInterface;
    return nullptr;
}

const LV2UI_Descriptor descriptor{kUIURI, instantiate, cleanup, portEvent, extensionData};

} // namespace

} // namespace sr::lv2

extern "C" LV2_SYMBOL_EXPORT const LV2UI_Descriptor* lv2ui_descriptor(std::uint32_t index) {
    return index == 0 ? &sr::lv2::descriptor : nullptr;
}
