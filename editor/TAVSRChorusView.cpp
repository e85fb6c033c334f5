#include "editor/TAVSRChorusView.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "editor/AudioUnitViewController.h"
#include "kernel/ParameterTable.h"
#include "platform/PrintQueue.h"

namespace sr::editor {

namespace {

using Base = TAVSRChorusViewBase;

enum class Kind {
    none,
    bypass,
    presets,
    pageMain,
    pageLFO,
    knob,
    controller,
    splitLP,
    splitHP,
    range
};

// The shortest text that reads back as the same float ("0.5", "0.33").
std::string shortest(float value) {
    char text[32];
    const auto r = std::to_chars(text, text + sizeof text, value);
    return std::string(text, r.ptr);
}

} // namespace

struct TAVSRChorusView::Control {
    const char* mode;
    CGRect Base::*path;
    bool Base::*held;
    Kind kind;
    std::int64_t address;            // what a drag writes
    double Base::*value = nullptr;   // knobs and split points
    int Base::*controller = nullptr; // controller fields
    std::int64_t parameter = -1;     // the parameter the control shows (for its default)
};

namespace {

// The hit-test order: group A always, then group B on the main page or group C on the LFO
// page. "cDryWet" writes address 22 and is only found on the main page; both are kept as the
// panel has always behaved.
// clang-format off
const TAVSRChorusView::Control kGroupA[] = {
    {"caption", &Base::hotspotCaptionPath, nullptr, Kind::none, -1},
    {"bypass", &Base::hotspotButtonBypassPath, &Base::isButtonBypassActive, Kind::bypass, 1},
    {"presets", &Base::hotspotButtonPresetsPath, &Base::isButtonPresetsActive, Kind::presets, -1},
    {"main", &Base::hotspotButtonMainPath, &Base::isButtonMainActive, Kind::pageMain, -1},
    {"lfo", &Base::hotspotButtonLFOPath, &Base::isButtonLFOActive, Kind::pageLFO, -1},
    {"display", &Base::hotspotDisplayPath, nullptr, Kind::none, -1},
    {"vSplitLP", &Base::dynamicHotspotLPPath, &Base::isHandleLeftActive, Kind::splitLP, 5, &Base::valueSplitLP, nullptr, 5},
    {"cSplitLP", &Base::hotspotControllerLPPath, &Base::isControllerLPActive, Kind::controller, 17, nullptr, &Base::controllerLP, 17},
    {"vSplitHP", &Base::dynamicHotspotHPPath, &Base::isHandleRightActive, Kind::splitHP, 6, &Base::valueSplitHP, nullptr, 6},
    {"cSplitHP", &Base::hotspotControllerHPPath, &Base::isControllerHPActive, Kind::controller, 18, nullptr, &Base::controllerHP, 18},
    {"vSplitRange", &Base::dynamicHotspotRangePath, &Base::isRangeActive, Kind::range, 5, &Base::valueSplitLP, nullptr, -1},
    {"vDryWet", &Base::hotspotDryWetPath, &Base::isKnobDryWetActive, Kind::knob, 16, &Base::valueDryWet, nullptr, 16},
};
const TAVSRChorusView::Control kGroupB[] = {
    {"cDryWet", &Base::hotspotControllerDryWetPath, &Base::isControllerDryWetActive, Kind::controller, 22, nullptr, &Base::controllerDryWet, 28},
    {"vDepth", &Base::hotspotKnobDepthPath, &Base::isKnobDepthActive, Kind::knob, 7, &Base::valueDepth, nullptr, 7},
    {"cDepth", &Base::hotspotControllerDepthPath, &Base::isControllerDepthActive, Kind::controller, 19, nullptr, &Base::controllerDepth, 19},
    {"vDelay", &Base::hotspotKnobDelayPath, &Base::isKnobDelayActive, Kind::knob, 8, &Base::valueDelay, nullptr, 8},
    {"cDelay", &Base::hotspotControllerDelayPath, &Base::isControllerDelayActive, Kind::controller, 20, nullptr, &Base::controllerDelay, 20},
    {"vFeedback", &Base::hotspotKnobFeedbackPath, &Base::isKnobFeedbackActive, Kind::knob, 9, &Base::valueFeedback, nullptr, 9},
    {"cFeedback", &Base::hotspotControllerFeedbackPath, &Base::isControllerFeedbackActive, Kind::controller, 21, nullptr, &Base::controllerFeedback, 21},
    {"vCross", &Base::hotspotKnobCrossPath, &Base::isKnobCrossActive, Kind::knob, 10, &Base::valueCross, nullptr, 10},
    {"cCross", &Base::hotspotControllerCrossPath, &Base::isControllerCrossActive, Kind::controller, 22, nullptr, &Base::controllerCross, 22},
    {"vPanning", &Base::hotspotKnobPanningPath, &Base::isKnobPanningActive, Kind::knob, 11, &Base::valuePanning, nullptr, 11},
    {"cPanning", &Base::hotspotControllerPanningPath, &Base::isControllerPanningActive, Kind::controller, 23, nullptr, &Base::controllerPanning, 23},
};
const TAVSRChorusView::Control kGroupC[] = {
    {"vFrequency", &Base::hotspotKnobLFOFrequencyPath, &Base::isKnobFrequencyActive, Kind::knob, 12, &Base::valueFrequency, nullptr, 12},
    {"cFrequency", &Base::hotspotControllerLFOFrequencyPath, &Base::isControllerFrequencyActive, Kind::controller, 24, nullptr, &Base::controllerFrequency, 24},
    {"vRandomize", &Base::hotspotKnobLFORandomPath, &Base::isKnobRandomizeActive, Kind::knob, 13, &Base::valueRandomize, nullptr, 13},
    {"cRandomize", &Base::hotspotControllerLFORandomPath, &Base::isControllerRandomizeActive, Kind::controller, 25, nullptr, &Base::controllerRandomize, 25},
    {"vType", &Base::hotspotKnobLFOTypePath, &Base::isKnobShapeActive, Kind::knob, 14, &Base::valueShape, nullptr, 14},
    {"cType", &Base::hotspotControllerLFOTypePath, &Base::isControllerShapeActive, Kind::controller, 26, nullptr, &Base::controllerShape, 26},
    {"vStereo", &Base::hotspotKnobLFOStereoPath, &Base::isKnobStereoActive, Kind::knob, 15, &Base::valueStereo, nullptr, 15},
    {"cStereo", &Base::hotspotControllerLFOStereoPath, &Base::isControllerStereoActive, Kind::controller, 27, nullptr, &Base::controllerStereo, 27},
};
// clang-format on

// The panel field of each parameter address that shows a value, and of each controller.
constexpr double Base::*kValueFields[] = {
    &Base::valueSplitLP,   &Base::valueSplitHP, &Base::valueDepth,   &Base::valueDelay,
    &Base::valueFeedback,  &Base::valueCross,   &Base::valuePanning, &Base::valueFrequency,
    &Base::valueRandomize, &Base::valueShape,   &Base::valueStereo,  &Base::valueDryWet};
constexpr int Base::*kControllerFields[] = {
    &Base::controllerLP,      &Base::controllerHP,        &Base::controllerDepth,
    &Base::controllerDelay,   &Base::controllerFeedback,  &Base::controllerCross,
    &Base::controllerPanning, &Base::controllerFrequency, &Base::controllerRandomize,
    &Base::controllerShape,   &Base::controllerStereo,    &Base::controllerDryWet};

template <std::size_t N>
const TAVSRChorusView::Control* find(const TAVSRChorusView::Control (&rows)[N],
                                     const std::string& mode) {
    for (const auto& row : rows)
        if (mode == row.mode) return &row;
    return nullptr;
}

} // namespace

TAVSRChorusView::TAVSRChorusView() = default;

const TAVSRChorusView::Control* TAVSRChorusView::control(const std::string& mode) {
    if (mode.empty()) return nullptr;
    if (const Control* c = find(kGroupA, mode)) return c;
    if (const Control* c = find(kGroupB, mode)) return c;
    return find(kGroupC, mode);
}

LogChannel& TAVSRChorusView::log() const {
    return viewController ? viewController->log() : standardLog();
}

EditorAudioUnit* TAVSRChorusView::audioUnit() const {
    return viewController ? viewController->audioUnit() : nullptr;
}

void TAVSRChorusView::setNeedsDisplay() {
    dirty = true;
    if (needsDisplay) needsDisplay();
}

void TAVSRChorusView::emit(unsigned events) {
    if (controlEvents) controlEvents(events);
}

void TAVSRChorusView::setTouchesLocked(bool locked) {
    if (viewController) viewController->setTouchesLocked(locked);
}

void TAVSRChorusView::send(std::int64_t address, float value) {
    if (!delegate) {
        LineBuilder<> line;
        line << "TAVSRChorusView : ERROR: no delegate to set parameter " << address << "\n";
        log().debugprint(line.view());
        return;
    }
    delegate->onTAVSRChorusViewParameter(address, value);
}

// ---- values from the host -------------------------------------------------------------------

void TAVSRChorusView::setParameter(std::int64_t address, float value) {
    if (address == std::int64_t(kDisplayContrast)) {
        setContrast(value);
        if (delegate) delegate->onTAVSRChorusViewOption(kOptionContrast, value);
    } else if (address == std::int64_t(kBypass)) {
        baseClass.isBypassActive = value == 1.0f;
    } else if (address >= std::int64_t(kFrequencySplitLP) &&
               address <= std::int64_t(kChorusDryWet)) {
        baseClass.*kValueFields[address - kFrequencySplitLP] = value;
        updateDisplay(address);
    } else if (address >= std::int64_t(kFirstControllerAddress) &&
               address < std::int64_t(kParameterCount)) {
        if (std::isfinite(value)) {
            // Controller numbers are whole numbers from -1 to 127; truncated toward zero.
            const float v = std::clamp(value, -1.0f, 127.0f);
            baseClass.*kControllerFields[address - kFirstControllerAddress] = int(v);
        } else {
            log().debugprint(
                "TAVSRChorusView : ERROR: a non-finite controller number is ignored\n");
        }
    }
    LineBuilder<> line;
    line << "editor received parameter : address:" << address << ", value:" << shortest(value)
         << "\n";
    // One line per value: a trace, which hosts that keep levels usually hide.
    log().trace(line.view());
    setNeedsDisplay();
}

void TAVSRChorusView::updateDisplay(std::int64_t address) {
    baseClass.textDisplay.clear();
    EditorAudioUnit* unit = audioUnit();
    AUParameterTree* tree = unit ? unit->parameterTree() : nullptr;
    AUParameter* parameter =
        tree && address >= 0 ? tree->parameterWithAddress(AUParameterAddress(address)) : nullptr;
    if (parameter) {
        const float value = parameter->value();
        const double midi = std::clamp(double(value) * 127.0, -1.0e9, 1.0e9);
        baseClass.textDisplay = parameter->displayName() + "\nfloat: " + shortest(value) +
                                " | midi: " + std::to_string(long(midi));
    }
    setNeedsDisplay();
}

void TAVSRChorusView::setContrast(double contrast) {
    baseClass.colorContrast = UIColor::grey(1.0 - contrast);
    baseClass.colorMain = UIColor::grey(contrast);
    setNeedsDisplay();
}

// ---- touches --------------------------------------------------------------------------------

void TAVSRChorusView::setHotspotMode(CGPoint location) {
    baseClass.updateHotspots();
    hotspotMode.clear();
    for (const Control& row : kGroupA)
        if (hitTest(location, baseClass.*row.path)) {
            hotspotMode = row.mode;
            break;
        }
    auto testGroup = [&](const auto& rows) {
        for (const Control& row : rows)
            if (hitTest(location, baseClass.*row.path)) {
                hotspotMode = row.mode;
                return;
            }
    };
    if (baseClass.isMainVisible)
        testGroup(kGroupB);
    else
        testGroup(kGroupC);
}

void TAVSRChorusView::touchesBegan(CGPoint location) {
    if (!viewController) return;
    const CGSize scale = baseClass.viewScale;
    startLocation = {location.x / scale.width, location.y / scale.height};
    setHotspotMode(startLocation);
    setTouchesLocked(!hotspotMode.empty());

    if (const Control* c = control(hotspotMode)) {
        if (c->held) baseClass.*c->held = true;
        switch (c->kind) {
        case Kind::bypass:
            baseClass.isBypassActive = !baseClass.isBypassActive;
            send(kBypass, baseClass.isBypassActive ? 1.0f : 0.0f);
            break;
        case Kind::presets:
            if (delegate) delegate->onTAVSRChorusViewOption(kOptionPresets, 1.0f);
            break;
        case Kind::pageMain:
        case Kind::pageLFO:
            // Both page buttons toggle; neither forces its own page.
            baseClass.isMainVisible = !baseClass.isMainVisible;
            break;
        case Kind::knob:
        case Kind::splitLP:
        case Kind::splitHP:
            savedValue = baseClass.*c->value;
            break;
        case Kind::range:
            savedValue = baseClass.valueSplitLP;
            savedValue2 = baseClass.valueSplitHP;
            break;
        case Kind::controller:
            savedValue = double(baseClass.*c->controller) / 127.0;
            break;
        case Kind::none:
            break;
        }
    }
    setNeedsDisplay();
    emit(UIControlEventTouchDown);
}

void TAVSRChorusView::applyValue(const Control& c, double value, double value2) {
    Base& b = baseClass;
    switch (c.kind) {
    case Kind::knob:
        b.*c.value = value;
        send(c.address, float(value));
        break;
    case Kind::controller: {
        const int number = int(127.0 * value);
        b.*c.controller = number;
        send(c.address, float(number));
        break;
    }
    case Kind::splitLP:
        // A move that would bring the split points closer than the gap is dropped whole.
        if (value > b.valueSplitHP - kMinimumSplitGap) break;
        b.valueSplitLP = value;
        send(kFrequencySplitLP, float(value));
        break;
    case Kind::splitHP:
        if (b.valueSplitLP + kMinimumSplitGap > value) break;
        b.valueSplitHP = value;
        send(kFrequencySplitHP, float(value));
        break;
    case Kind::range:
        // Each half is checked on its own, HP against the LP this move may have set.
        if (!(value > b.valueSplitHP - kMinimumSplitGap)) {
            b.valueSplitLP = value;
            send(kFrequencySplitLP, float(value));
        }
        if (!(b.valueSplitLP + kMinimumSplitGap > value2)) {
            b.valueSplitHP = value2;
            send(kFrequencySplitHP, float(value2));
        }
        break;
    default:
        break;
    }
}

void TAVSRChorusView::touchesMoved(CGPoint location) {
    if (!viewController || !delegate || hotspotMode.empty()) return;
    const CGSize scale = baseClass.viewScale;
    const double lx = location.x / scale.width;
    const double ly = location.y / scale.height;
    // The division by viewScale is applied twice: a larger view moves values more slowly.
    const double dx = ((lx - startLocation.x) / scale.width) * scaler;
    const double dy = ((ly - startLocation.y) / scale.height) * scaler;
    const double delta = dy - dx;

    const Control* c = control(hotspotMode);
    if (c && c->kind != Kind::none && c->kind != Kind::bypass && c->kind != Kind::presets &&
        c->kind != Kind::pageMain && c->kind != Kind::pageLFO) {
        const bool split =
            c->kind == Kind::splitLP || c->kind == Kind::splitHP || c->kind == Kind::range;
        const float k = split ? kSplitDivisor : kKnobDivisor;
        float f = float(delta) / 2.0f / k * baseClass.getScalingFactor();
        f = std::clamp(f, -1.0f, 1.0f);
        auto clamp01 = [](double v) { return v < 0 ? 0.0 : (v >= 1 ? 1.0 : v); };
        applyValue(*c, clamp01(savedValue - double(f)), clamp01(savedValue2 - double(f)));
    }
    setNeedsDisplay();
    emit(UIControlEventValueChanged);
}

void TAVSRChorusView::touchesEnded(CGPoint) {
    if (const Control* c = control(hotspotMode); c && c->held) baseClass.*c->held = false;
    hotspotMode.clear();
    setTouchesLocked(false);
    setNeedsDisplay();
    emit(bounds.contains(startLocation) ? UIControlEventTouchUpInside
                                        : UIControlEventTouchUpOutside);
}

void TAVSRChorusView::touchesCancelled() {
    setTouchesLocked(false);
    if (const Control* c = control(hotspotMode); c && c->held) baseClass.*c->held = false;
    setNeedsDisplay();
}

// ---- desktop extras -------------------------------------------------------------------------

std::string TAVSRChorusView::hotspotAt(CGPoint location) {
    const std::string saved = hotspotMode;
    const CGSize scale = baseClass.viewScale;
    setHotspotMode({location.x / scale.width, location.y / scale.height});
    std::string found;
    found.swap(hotspotMode);
    hotspotMode = saved;
    return found;
}

PanelCursor TAVSRChorusView::cursorAt(CGPoint location) {
    const Control* c = control(hotspotAt(location));
    if (!c) return PanelCursor::arrow;
    switch (c->kind) {
    case Kind::bypass:
    case Kind::presets:
    case Kind::pageMain:
    case Kind::pageLFO:
        return PanelCursor::press;
    case Kind::splitLP:
    case Kind::splitHP:
    case Kind::range:
        return PanelCursor::dragHorizontal;
    case Kind::knob:
    case Kind::controller:
        return PanelCursor::dragVertical;
    case Kind::none:
        break;
    }
    return PanelCursor::arrow;
}

bool TAVSRChorusView::resetToDefault(const std::string& mode) {
    const Control* c = control(mode);
    if (!c || c->parameter < 0 || !viewController || !delegate) return false;
    const ParameterInfo& p = kParameterTable[std::size_t(c->parameter)];
    setTouchesLocked(true);
    if (c->kind == Kind::controller) {
        const int number = int(p.defaultValue);
        baseClass.*c->controller = number;
        send(c->parameter, float(number));
    } else if (c->kind == Kind::knob) {
        baseClass.*c->value = p.defaultValue;
        send(c->parameter, p.defaultValue);
    } else {
        // A split point goes back to its default only where the gap allows it.
        applyValue(*c, p.defaultValue, p.defaultValue);
    }
    setTouchesLocked(false);
    setNeedsDisplay();
    return true;
}

bool TAVSRChorusView::nudge(const std::string& mode, int steps, bool fine) {
    const Control* c = control(mode);
    if (!c || steps == 0 || !viewController || !delegate) return false;
    const double step = double(steps) / (fine ? 1270.0 : 127.0);
    auto clamp01 = [](double v) { return std::clamp(v, 0.0, 1.0); };
    setTouchesLocked(true);
    switch (c->kind) {
    case Kind::knob:
    case Kind::splitLP:
    case Kind::splitHP:
        applyValue(*c, clamp01(baseClass.*c->value + step), 0);
        break;
    case Kind::range:
        applyValue(*c, clamp01(baseClass.valueSplitLP + step),
                   clamp01(baseClass.valueSplitHP + step));
        break;
    case Kind::controller: {
        const int number = std::clamp(baseClass.*c->controller + steps, 0, 127);
        baseClass.*c->controller = number;
        send(c->address, float(number));
        break;
    }
    default:
        setTouchesLocked(false);
        return false;
    }
    setTouchesLocked(false);
    setNeedsDisplay();
    return true;
}

} // namespace sr::editor
