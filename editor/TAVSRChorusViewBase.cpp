#include "editor/TAVSRChorusViewBase.h"

#include <array>
#include <cmath>
#include <numbers>

#include "editor/CairoShapes.h"
#include "kernel/SplitFrequencies.h"

namespace sr::editor {

namespace {

constexpr double kPi = std::numbers::pi;
double radians(double degrees) {
    return degrees * kPi / 180;
}

// The symbol frames the hotspots cover, in the knob symbol's own 116 x 104 units.
constexpr CGRect kKnobHotspot{42, 8, 68, 90};
constexpr CGRect kKnobControllerHotspot{4, 37, 36, 62};
// The knob's centre and the radii of its well, value ring and face.
constexpr CGPoint kKnobCentre{73.5, 44.5};
constexpr double kWellRadius = 29;
constexpr double kRingRadius = 25.6;
constexpr double kFaceRadius = 22.0;

// A path's interior as a hit test sees it, drawn as a thin outline.
void outline(cairo_t* cr, const CGRect& r, const UIColor& color) {
    if (r.isEmpty()) return;
    cairo_rectangle(cr, r.minX() + 0.5, r.minY() + 0.5, r.width() - 1, r.height() - 1);
    color.withAlpha(0.9).set(cr);
    cairo_set_line_width(cr, 1);
    cairo_stroke(cr);
}

// Screen angle (clockwise from +x, y down) of the value arc's end: value 0 is at the lower
// left, 1 at the lower right, a 270 degree sweep over the top. The knob angle of a value is
// 315 - 270 * value degrees, counted in a frame turned by 90 degrees.
double arcAngle(double value) {
    const double knobAngle = 315.0 - 270.0 * value;
    return radians(90.0 - knobAngle + 360.0);
}

} // namespace

CGRect TAVSRChorusViewBase::knobFrame(CGPoint centre, double width) {
    const double height = width * kKnobSymbol.height / kKnobSymbol.width;
    return {centre.x - width / 2, centre.y - height / 2, width, height};
}

CGRect TAVSRChorusViewBase::inKnobFrame(const CGRect& frame, const CGRect& r) {
    const double s = frame.width() / kKnobSymbol.width;
    return {frame.minX() + r.minX() * s, frame.minY() + r.minY() * s, r.width() * s,
            r.height() * s};
}

template <typename Draw>
void TAVSRChorusViewBase::heldScaled(cairo_t* cr, CGPoint centre, bool held, Draw draw) {
    cairo_save(cr);
    cairo_translate(cr, centre.x, centre.y);
    if (held) cairo_scale(cr, kHeldScale, kHeldScale);
    cairo_translate(cr, -centre.x, -centre.y);
    draw();
    cairo_restore(cr);
}

// ---- the whole panel -----------------------------------------------------------------------

void TAVSRChorusViewBase::drawMain(cairo_t* cr, const CGRect& frame, ResizingBehavior resizing) {
    cairo_save(cr);
    const CGRect fitted = apply(kCanvas, frame, resizing, viewScale);
    cairo_translate(cr, fitted.minX(), fitted.minY());
    cairo_scale(cr, fitted.width() / kCanvas.width(), fitted.height() / kCanvas.height());
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);

    // The plate: background, the split track, the display's glass and the titles, none of
    // which any other element overlaps.
    drawPlate(cr);
    drawSplitBar(cr);
    drawDisplay(cr);

    heldScaled(cr, kDryWetKnob, isKnobDryWetActive, [&] {
        drawSymbolKnobLarge(cr, knobFrame(kDryWetKnob, knob2Width), ResizingBehavior::aspectFit,
                            "dry/wet mix", controllerDryWet, valueDryWet, isKnobDryWetActive,
                            isControllerDryWetActive);
    });

    heldScaled(cr, {719, 328.1}, isButtonLFOActive, [&] {
        drawSymbolButton(cr, buttonFrame({719, 328.1}), ResizingBehavior::aspectFit,
                         isButtonLFOActive, "LFO", !isMainVisible);
    });
    heldScaled(cr, {633, 328.1}, isButtonMainActive, [&] {
        drawSymbolButton(cr, buttonFrame({633, 328.1}), ResizingBehavior::aspectFit,
                         isButtonMainActive, "MAIN", isMainVisible);
    });

    struct Knob {
        const char* name;
        int controller;
        double value;
        bool held, controllerHeld;
    };
    const Knob mainPage[5] = {
        {"depth", controllerDepth, valueDepth, isKnobDepthActive, isControllerDepthActive},
        {"delay", controllerDelay, valueDelay, isKnobDelayActive, isControllerDelayActive},
        {"feedback", controllerFeedback, valueFeedback, isKnobFeedbackActive,
         isControllerFeedbackActive},
        {"cross", controllerCross, valueCross, isKnobCrossActive, isControllerCrossActive},
        {"panning", controllerPanning, valuePanning, isKnobPanningActive,
         isControllerPanningActive}};
    const Knob lfoPage[5] = {
        {nullptr, 0, 0, false, false},
        {"frequency", controllerFrequency, valueFrequency, isKnobFrequencyActive,
         isControllerFrequencyActive},
        {"random", controllerRandomize, valueRandomize, isKnobRandomizeActive,
         isControllerRandomizeActive},
        {"shape", controllerShape, valueShape, isKnobShapeActive, isControllerShapeActive},
        {"stereo", controllerStereo, valueStereo, isKnobStereoActive, isControllerStereoActive}};
    const Knob* page = isMainVisible ? mainPage : lfoPage;
    // A held knob is drawn last, so its enlarged card lies over its neighbours.
    for (int pass = 0; pass < 2; ++pass)
        for (int i = 0; i < 5; ++i) {
            const Knob& k = page[i];
            if (!k.name || k.held != (pass == 1)) continue;
            const CGPoint centre{kKnobColumnX[i], kKnobRowY};
            heldScaled(cr, centre, k.held, [&] {
                drawSymbolKnobSmall(cr, knobFrame(centre, knob1Width), ResizingBehavior::aspectFit,
                                    k.name, k.controller, k.value, k.held, k.controllerHeld);
            });
        }
    text.drawLine(cr, isMainVisible ? "MAIN" : "LFO", PanelFont::condensedBlack, 17,
                  {593, 287, 166, 18}, TextAlign::center, colorContrast);

    drawSplitController(cr, {64, 104.88, 28, 27.5}, controllerLP, isControllerLPActive);
    drawSplitController(cr, {933, 106, 28, 27.5}, controllerHP, isControllerHPActive);

    heldScaled(cr, {940, 59}, isButtonPresetsActive, [&] {
        drawSymbolButton(cr, buttonFrame({940, 59}), ResizingBehavior::aspectFit,
                         isButtonPresetsActive, "Presets", false);
    });
    heldScaled(cr, {343, 59}, isButtonBypassActive, [&] {
        drawSymbolButton(cr, buttonFrame({343, 59}), ResizingBehavior::aspectFit,
                         isButtonBypassActive, "Bypass", isBypassActive);
    });

    drawSymbolHotspots(cr, kCanvas, ResizingBehavior::aspectFit);
    updateHotspots();
    if (showHotspots)
        for (const CGRect* r :
             {&dynamicHotspotLPPath, &dynamicHotspotRangePath, &dynamicHotspotHPPath})
            outline(cr, *r, colorEmphasize);
    cairo_restore(cr);
}

void TAVSRChorusViewBase::drawBackground(cairo_t* cr) {
    const CGRect panel = kCanvas.insetBy(2, 2);
    roundedRect(cr, panel, 6);
    // The plate's colour with a faint top light, in one pass: it reads as a surface.
    cairo_pattern_t* plate = cairo_pattern_create_linear(0, 0, 0, 400);
    colorMain.mixed(UIColor::white(), 0.035).addStop(plate, 0);
    colorMain.addStop(plate, 0.45);
    colorMain.mixed(UIColor::black(), 0.06).addStop(plate, 1);
    cairo_set_source(cr, plate);
    cairo_fill_preserve(cr);
    cairo_pattern_destroy(plate);
    UIColor::systemGray().set(cr);
    cairo_set_line_width(cr, 4);
    cairo_stroke(cr);

    // Grooves between the title row, the range section and the controls.
    cairo_set_line_width(cr, 1);
    for (const double y : {81.5, 176.5}) {
        colorContrast.withAlpha(0.14).set(cr);
        cairo_move_to(cr, 24, y);
        cairo_line_to(cr, 1000, y);
        cairo_stroke(cr);
        colorMain.mixed(UIColor::white(), 0.5).withAlpha(0.10).set(cr);
        cairo_move_to(cr, 24, y + 1);
        cairo_line_to(cr, 1000, y + 1);
        cairo_stroke(cr);
    }

    // Four screws hold the plate.
    for (const CGPoint p :
         {CGPoint{13, 13}, CGPoint{1011, 13}, CGPoint{13, 387}, CGPoint{1011, 387}}) {
        circle(cr, p.x, p.y, 4.2);
        cairo_pattern_t* head = cairo_pattern_create_linear(p.x - 4, p.y - 4, p.x + 4, p.y + 4);
        colorMain.mixed(UIColor::white(), 0.35).addStop(head, 0);
        colorMain.mixed(UIColor::black(), 0.35).addStop(head, 1);
        cairo_set_source(cr, head);
        cairo_fill_preserve(cr);
        cairo_pattern_destroy(head);
        colorContrast.withAlpha(0.35).set(cr);
        cairo_set_line_width(cr, 0.6);
        cairo_stroke(cr);
        cairo_move_to(cr, p.x - 2.6, p.y + 1.5);
        cairo_line_to(cr, p.x + 2.6, p.y - 1.5);
        colorContrast.withAlpha(0.45).set(cr);
        cairo_set_line_width(cr, 1);
        cairo_stroke(cr);
    }
}

const SplitAxis& TAVSRChorusViewBase::splitAxis() {
    axis.update(valueSplitLP, valueSplitHP, sampleRate);
    return axis;
}

void TAVSRChorusViewBase::drawSpectrum(cairo_t* cr) {
    if (!spectrum.visible()) return;
    spectrum.follow(splitAxis());
    constexpr double top = 90, bottom = 161;
    constexpr int columns = SpectrumDisplay::kColumns;
    auto y = [](float db) {
        const double t = (db - SpectrumDisplay::kBottomDb) /
                         (SpectrumDisplay::kTopDb - SpectrumDisplay::kBottomDb);
        return bottom - (bottom - top) * std::clamp(t, 0.0, 1.0);
    };
    cairo_save(cr);
    // A plain rectangle clips cheaply; the curves are drawn with bevelled joins, which cost a
    // fraction of round ones over 920 points.
    cairo_rectangle(cr, kSplitLeft, top, kSplitWidth, bottom - top);
    cairo_clip(cr);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_BEVEL);
    // A curve through every other column (the louder of each pair: the columns are smoothed
    // already, and half the points halve the cost of filling and stroking it).
    auto curve = [&](auto level) {
        cairo_move_to(cr, SpectrumDisplay::kLeft, y(level(0)));
        for (int c = 2; c < columns; c += 2)
            cairo_line_to(cr, SpectrumDisplay::kLeft + c, y(std::max(level(c - 1), level(c))));
        cairo_line_to(cr, SpectrumDisplay::kLeft + columns - 1, y(level(columns - 1)));
    };
    auto area = [&](auto level, const UIColor& high, const UIColor& foot, const UIColor& edge,
                    double width) {
        curve(level);
        cairo_line_to(cr, SpectrumDisplay::kLeft + columns - 1, bottom + 1);
        cairo_line_to(cr, SpectrumDisplay::kLeft, bottom + 1);
        cairo_close_path(cr);
        cairo_pattern_t* fill = cairo_pattern_create_linear(0, 90, 0, bottom);
        high.addStop(fill, 0);
        foot.addStop(fill, 1);
        cairo_set_source(cr, fill);
        cairo_fill(cr);
        cairo_pattern_destroy(fill);
        // The edge as a ribbon `width` wide around the curve, filled: Cairo fills a polygon
        // of 1840 points in a fraction of the time it strokes a line of 920.
        std::array<CGPoint, columns> at;
        for (int c = 0; c < columns; ++c)
            at[std::size_t(c)] = {SpectrumDisplay::kLeft + c, y(level(c))};
        std::array<CGPoint, columns> offset;
        for (int c = 0; c < columns; ++c) {
            const CGPoint& a = at[std::size_t(std::max(c - 1, 0))];
            const CGPoint& b = at[std::size_t(std::min(c + 1, columns - 1))];
            const double dx = b.x - a.x, dy = b.y - a.y;
            const double length = std::max(std::hypot(dx, dy), 1e-9);
            offset[std::size_t(c)] = {-dy / length * width / 2, dx / length * width / 2};
        }
        cairo_move_to(cr, at[0].x + offset[0].x, at[0].y + offset[0].y);
        for (int c = 1; c < columns; ++c)
            cairo_line_to(cr, at[std::size_t(c)].x + offset[std::size_t(c)].x,
                          at[std::size_t(c)].y + offset[std::size_t(c)].y);
        for (int c = columns - 1; c >= 0; --c)
            cairo_line_to(cr, at[std::size_t(c)].x - offset[std::size_t(c)].x,
                          at[std::size_t(c)].y - offset[std::size_t(c)].y);
        cairo_close_path(cr);
        edge.set(cr);
        cairo_fill(cr);
    };
    // The whole input, quietly; over it the part the chorus gets, in the accent colour.
    area([this](int c) { return spectrum.input(c); }, colorContrast.withAlpha(0.30),
         colorContrast.withAlpha(0.04), colorContrast.withAlpha(0.55), 1.0);
    const UIColor band = colorEmphasize.mixed(UIColor::white(), 0.25);
    area([this](int c) { return spectrum.band(c); }, band.withAlpha(0.7), band.withAlpha(0.0),
         band.mixed(UIColor::white(), 0.35), 1.2);
    cairo_restore(cr);
}

void TAVSRChorusViewBase::drawSplitFrequencies(cairo_t* cr, double lp, double hp) {
    const SplitAxis& a = splitAxis();
    char lower[16], upper[16];
    formatHz(a.lowerHz(), lower, sizeof lower);
    formatHz(a.upperHz(), upper, sizeof upper);
    constexpr double size = 10, height = 12, top = 164, gap = 6, pad = 5;
    const double w1 = text.measure(lower, PanelFont::condensedBlack, size).width + 2 * pad;
    const double w2 = text.measure(upper, PanelFont::condensedBlack, size).width + 2 * pad;
    // Centred under the handles, pushed apart where they would touch, kept on the plate.
    double c1 = lp, c2 = hp;
    if (c1 + w1 / 2 + gap > c2 - w2 / 2) {
        const double middle = (lp + hp) / 2;
        c1 = middle - gap / 2 - w1 / 2;
        c2 = middle + gap / 2 + w2 / 2;
    }
    const double shift = std::max(0.0, 12 - (c1 - w1 / 2)) - std::max(0.0, c2 + w2 / 2 - 1012);
    c1 += shift;
    c2 += shift;
    for (const auto& [label, centre, width, held] :
         {std::tuple{lower, c1, w1, isHandleLeftActive}, {upper, c2, w2, isHandleRightActive}}) {
        const CGRect box{centre - width / 2, top, width, height};
        roundedRect(cr, box, 3);
        colorMain.mixed(UIColor::black(), 0.25).set(cr);
        cairo_fill_preserve(cr);
        (held ? colorEmphasize : colorContrast.withAlpha(0.5)).set(cr);
        cairo_set_line_width(cr, held ? 1.0 : 0.5);
        cairo_stroke(cr);
        text.drawLine(cr, label, PanelFont::condensedBlack, size, box, TextAlign::center,
                      held ? colorEmphasize : colorContrast);
    }
}

void TAVSRChorusViewBase::drawSplitBar(cairo_t* cr) {
    const double lp = splitX(valueSplitLP);
    const double hp = splitX(valueSplitHP);
    drawSpectrum(cr);

    const UIColor emphasis70 = colorEmphasize.withAlpha(0.7);
    // The layer only as large as the bar and its outline.
    cairo_save(cr);
    cairo_rectangle(cr, lp - 4, 86, hp - lp + 8, 79);
    cairo_clip(cr);
    cairo_push_group(cr);
    roundedRect(cr, {lp, 90, hp - lp, 71}, 6);
    (isRangeActive ? colorEmphasize : emphasis70).set(cr);
    cairo_fill_preserve(cr);
    // Light from above on the bar.
    cairo_pattern_t* sheen = cairo_pattern_create_linear(0, 90, 0, 161);
    UIColor::white().withAlpha(0.22).addStop(sheen, 0);
    UIColor::white().withAlpha(0.0).addStop(sheen, 0.5);
    UIColor::black().withAlpha(0.12).addStop(sheen, 1);
    cairo_set_source(cr, sheen);
    cairo_fill_preserve(cr);
    cairo_pattern_destroy(sheen);
    colorContrast.set(cr);
    cairo_set_line_width(cr, 4);
    cairo_stroke(cr);
    cairo_pop_group_to_source(cr);
    cairo_paint_with_alpha(cr, 0.7);
    cairo_restore(cr);

    if (hp - lp > 70) {
        const CGRect caption{lp, 90, hp - lp, 71};
        // Over a spectrum, a soft shade under the caption keeps it legible.
        if (spectrum.visible())
            for (const auto& [dx, dy] : {std::pair{0.0, 1.0}, {0.8, 0.0}, {-0.8, 0.0}, {0.0, -0.8}})
                text.drawLine(
                    cr, "selective range", PanelFont::helveticaNeue, 11,
                    {caption.minX() + dx, caption.minY() + dy, caption.width(), caption.height()},
                    TextAlign::center, UIColor::black().withAlpha(0.45));
        text.drawLine(cr, "selective range", PanelFont::helveticaNeue, 11, caption,
                      TextAlign::center, UIColor::white());
    }

    heldScaled(cr, {lp, 126}, isHandleLeftActive, [&] {
        drawSymbolHandleLeft(cr, {lp - 13, 126 - 33, 26, 66}, ResizingBehavior::aspectFit);
    });
    heldScaled(cr, {hp, 127}, isHandleRightActive, [&] {
        drawSymbolHandleRight(cr, {hp - 13, 127 - 33, 26, 66}, ResizingBehavior::aspectFit);
    });
    drawSplitFrequencies(cr, lp, hp);
}

// The display's glass, and its text (drawDisplay): the glass is part of the plate.
void TAVSRChorusViewBase::drawDisplayGlass(cairo_t* cr) {
    cairo_save(cr);
    cairo_translate(cr, 50.72, 329.43);
    cairo_scale(cr, 1.1, 1.1);
    const CGRect box{-1.72, -25.43, 441, 50};
    recessedGlass(cr, box, 6, colorGrey, box.height() / 4);
    cairo_restore(cr);
}

void TAVSRChorusViewBase::drawDisplay(cairo_t* cr) {
    cairo_save(cr);
    cairo_translate(cr, 50.72, 329.43);
    cairo_scale(cr, 1.1, 1.1);
    const CGRect box{-1.72, -25.43, 441, 50};
    const CGRect inner{box.minX() + 14, box.minY() + 10, box.width() - 28, box.height() - 14};
    text.drawBlock(cr, textDisplay, PanelFont::helveticaNeueMedium, 11, inner, colorContrast);
    cairo_restore(cr);
}

void TAVSRChorusViewBase::drawTrack(cairo_t* cr) {
    // The track the handles run on, with a tick every tenth of the range.
    cairo_set_line_width(cr, 1);
    colorContrast.withAlpha(0.22).set(cr);
    cairo_move_to(cr, kSplitLeft, 125.5);
    cairo_line_to(cr, kSplitLeft + kSplitWidth, 125.5);
    cairo_stroke(cr);
    for (int i = 0; i <= 10; ++i) {
        const double x = std::round(splitX(i / 10.0)) + 0.5;
        const double len = (i % 5 == 0) ? 6 : 3.5;
        cairo_move_to(cr, x, 166);
        cairo_line_to(cr, x, 166 + len);
        cairo_stroke(cr);
    }
}

void TAVSRChorusViewBase::drawPlate(cairo_t* cr) {
    // Everything that changes only with the colours or the scale is drawn once and kept.
    paintLayer(cr, kCanvas, "plate", [this](cairo_t* pc) {
        drawBackground(pc);
        drawTrack(pc);
        drawDisplayGlass(pc);
        drawTitles(pc);
    });
}

void TAVSRChorusViewBase::drawTitles(cairo_t* cr) {
    text.drawLine(cr, "MIDI CONTROLLED - SELECTIVE FREQUENCY RANGE AUDIO PROCESSORS",
                  PanelFont::helveticaNeueMedium, 10, {400, 52, 483, 14}, TextAlign::center,
                  colorContrast);
    const double seriesWidth = text.measure("TAV SR SERIES ", PanelFont::condensedBlack, 24).width;
    text.drawLine(cr, "TAV SR SERIES", PanelFont::condensedBlack, 24, {46, 47, 240, 24},
                  TextAlign::left, colorContrast);
    text.drawLine(cr, "CHORUS", PanelFont::condensedBlack, 24, {46 + seriesWidth, 47, 160, 24},
                  TextAlign::left, colorEmphasize);
}

// ---- controller fields ----------------------------------------------------------------------

void TAVSRChorusViewBase::drawControllerField(cairo_t* cr, const CGRect& box,
                                              const CGRect& labelBox, double triangleX, double upY,
                                              double downY, int number, bool active,
                                              FieldParts parts) {
    const UIColor& accent = active ? colorEmphasize : colorContrast;
    if (parts != FieldParts::live) {
        roundedRect(cr, box, 3);
        colorMain.mixed(UIColor::black(), 0.18).set(cr);
        cairo_fill_preserve(cr);
        colorContrast.set(cr);
        cairo_set_line_width(cr, 0.5);
        cairo_stroke(cr);

        roundedRect(cr, labelBox, 3);
        cairo_stroke(cr);
        text.drawLine(cr, "MIDI", PanelFont::condensedBlack, 10, labelBox, TextAlign::center,
                      colorContrast);

        // Light grey arrows above and below: the field is dragged up and down.
        UIColor::grey(0.78).set(cr);
        cairo_set_line_width(cr, 2.5);
        triangle(cr, triangleX, upY, 3.36, 2.37, 0);
        cairo_fill_preserve(cr);
        cairo_stroke(cr);
        triangle(cr, triangleX, downY, 3.36, -2.37, 0);
        cairo_fill_preserve(cr);
        cairo_stroke(cr);
    }
    if (parts != FieldParts::fixed) {
        if (active) {
            roundedRect(cr, box, 3);
            colorEmphasize.set(cr);
            cairo_set_line_width(cr, 1.0);
            cairo_stroke(cr);
        }
        text.drawLine(cr, std::to_string(number), PanelFont::condensedBlack, 11, box,
                      TextAlign::center, accent);
    }
}

void TAVSRChorusViewBase::drawSplitController(cairo_t* cr, const CGRect& box, int number,
                                              bool active) {
    drawControllerField(cr, box, {box.minX(), box.maxY(), 28, 14}, box.minX() + 14,
                        box.minY() - 4.5, box.maxY() + 18.5, number, active, FieldParts::all);
}

// ---- knobs ----------------------------------------------------------------------------------

void TAVSRChorusViewBase::drawSymbolKnobSmall(cairo_t* cr, const CGRect& frame,
                                              ResizingBehavior resizing,
                                              const std::string& parameterName, int controller,
                                              double value, bool isAlternate,
                                              bool isControllerActive) {
    drawKnob(cr, frame, resizing, parameterName, controller, value, isAlternate, isControllerActive,
             false);
}

void TAVSRChorusViewBase::drawSymbolKnobLarge(cairo_t* cr, const CGRect& frame,
                                              ResizingBehavior resizing,
                                              const std::string& parameterName, int controller,
                                              double value, bool isAlternate,
                                              bool isControllerActive) {
    drawKnob(cr, frame, resizing, parameterName, controller, value, isAlternate, isControllerActive,
             true);
}

TAVSRChorusViewBase::~TAVSRChorusViewBase() {
    for (Layer& layer : layers) cairo_surface_destroy(layer.surface);
}

void TAVSRChorusViewBase::paintLayer(cairo_t* cr, const CGRect& rect, const std::string& tag,
                                     const std::function<void(cairo_t*)>& draw) {
    cairo_matrix_t m;
    cairo_get_matrix(cr, &m);
    double x0 = rect.minX(), y0 = rect.minY(), x1 = rect.maxX(), y1 = rect.maxY();
    cairo_user_to_device(cr, &x0, &y0);
    cairo_user_to_device(cr, &x1, &y1);
    const double left = std::floor(std::min(x0, x1)), top = std::floor(std::min(y0, y1));
    const int width = std::max(1, int(std::ceil(std::max(x0, x1)) - left));
    const int height = std::max(1, int(std::ceil(std::max(y0, y1)) - top));
    LayerKey key{tag,  colorMain, colorContrast, colorEmphasize, colorGrey,
                 m.xx, m.yy,      m.x0 - left,   m.y0 - top};
    cairo_surface_t* surface = nullptr;
    for (const Layer& layer : layers)
        if (layer.key == key) surface = layer.surface;
    if (!surface) {
        surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height);
        cairo_t* lc = cairo_create(surface);
        cairo_matrix_t local = m;
        local.x0 -= left;
        local.y0 -= top;
        cairo_set_matrix(lc, &local);
        cairo_set_line_join(lc, CAIRO_LINE_JOIN_ROUND);
        draw(lc);
        cairo_destroy(lc);
        if (layers.size() >= kLayerCacheSize) {
            cairo_surface_destroy(layers.front().surface);
            layers.erase(layers.begin());
        }
        layers.push_back({std::move(key), surface});
    }
    cairo_save(cr);
    cairo_identity_matrix(cr);
    cairo_set_source_surface(cr, surface, left, top);
    cairo_paint(cr);
    cairo_restore(cr);
}

void TAVSRChorusViewBase::drawKnobFaceShape(cairo_t* cr, double cx, double cy, double r,
                                            bool large) {
    // Shadow under the cap: a soft dark falloff, offset down.
    cairo_pattern_t* shadow =
        cairo_pattern_create_radial(cx, cy + 2.5, r * 0.7, cx, cy + 2.5, r + 5);
    UIColor::black().withAlpha(0.55).addStop(shadow, 0);
    UIColor::black().withAlpha(0.0).addStop(shadow, 1);
    circle(cr, cx, cy + 2.5, r + 5);
    cairo_set_source(cr, shadow);
    cairo_fill(cr);
    cairo_pattern_destroy(shadow);

    // The cap: a dome in the panel's colour, lit from the top left.
    const UIColor top = colorMain.mixed(UIColor::white(), 0.42);
    const UIColor bottom = colorMain.mixed(UIColor::black(), 0.55);
    cairo_pattern_t* dome =
        cairo_pattern_create_radial(cx - r * 0.35, cy - r * 0.45, r * 0.1, cx, cy, r * 1.15);
    top.addStop(dome, 0);
    colorMain.addStop(dome, 0.55);
    bottom.addStop(dome, 1);
    circle(cr, cx, cy, r);
    cairo_set_source(cr, dome);
    cairo_fill(cr);
    cairo_pattern_destroy(dome);

    // Knurled skirt: fine grooves around the edge.
    const int grooves = large ? 48 : 40;
    cairo_set_line_width(cr, 0.7);
    for (int i = 0; i < grooves; ++i) {
        const double a = 2 * kPi * i / grooves;
        const double c = std::cos(a), s = std::sin(a);
        cairo_move_to(cr, cx + c * (r - 2.6), cy + s * (r - 2.6));
        cairo_line_to(cr, cx + c * (r - 0.4), cy + s * (r - 0.4));
    }
    colorMain.mixed(UIColor::black(), 0.6).withAlpha(0.7).set(cr);
    cairo_stroke(cr);

    // Top plate inside the skirt, and the rim's light and dark edges.
    const double plate = r - 3.4;
    cairo_pattern_t* face = cairo_pattern_create_linear(cx, cy - plate, cx, cy + plate);
    colorMain.mixed(UIColor::white(), 0.22).addStop(face, 0);
    colorMain.mixed(UIColor::black(), 0.18).addStop(face, 1);
    circle(cr, cx, cy, plate);
    cairo_set_source(cr, face);
    cairo_fill_preserve(cr);
    cairo_pattern_destroy(face);
    cairo_set_line_width(cr, 0.6);
    cairo_pattern_t* edge = cairo_pattern_create_linear(cx, cy - plate, cx, cy + plate);
    UIColor::white().withAlpha(0.30).addStop(edge, 0);
    UIColor::black().withAlpha(0.30).addStop(edge, 1);
    cairo_set_source(cr, edge);
    cairo_stroke(cr);
    cairo_pattern_destroy(edge);
    circle(cr, cx, cy, r);
    UIColor::black().withAlpha(0.6).set(cr);
    cairo_set_line_width(cr, 0.8);
    cairo_stroke(cr);
}

void TAVSRChorusViewBase::drawKnob(cairo_t* cr, const CGRect& frame, ResizingBehavior resizing,
                                   const std::string& name, int controller, double value,
                                   bool isAlternate, bool isControllerActive, bool large) {
    CGSize symbolScale;
    const CGRect own{0, 0, kKnobSymbol.width, kKnobSymbol.height};
    const CGRect fitted = apply(own, frame, resizing, symbolScale);
    cairo_save(cr);
    cairo_translate(cr, fitted.minX(), fitted.minY());
    cairo_scale(cr, fitted.width() / own.width(), fitted.height() / own.height());

    // What does not move with the value is drawn once per look and kept: card, well, the
    // ring's track, the face (it never turns: the ring carries the value), the field's frame
    // and labels, the caption.
    paintLayer(cr, own, std::string(large ? "knob2:" : "knob1:") + name, [&](cairo_t* kc) {
        // 1. Card.
        roundedRect(kc, {1.25, 1.25, 114, 102}, 6);
        cairo_pattern_t* card = cairo_pattern_create_linear(0, 0, 0, 104);
        colorMain.mixed(UIColor::white(), 0.05).addStop(card, 0);
        colorMain.mixed(UIColor::black(), 0.07).addStop(card, 1);
        cairo_set_source(kc, card);
        cairo_fill_preserve(kc);
        cairo_pattern_destroy(card);
        colorContrast.set(kc);
        cairo_set_line_width(kc, 0.5);
        cairo_stroke(kc);
        // 2. Well.
        circle(kc, 73.75, 44.25, kWellRadius);
        colorMain.mixed(UIColor::black(), 0.12).set(kc);
        cairo_fill_preserve(kc);
        UIColor::black().set(kc);
        cairo_set_line_width(kc, 3);
        cairo_stroke(kc);
        // The ring's whole travel, faintly.
        cairo_set_line_cap(kc, CAIRO_LINE_CAP_ROUND);
        cairo_set_line_width(kc, 2.5);
        cairo_new_sub_path(kc);
        cairo_arc(kc, kKnobCentre.x, kKnobCentre.y, kRingRadius, arcAngle(0.0), arcAngle(1.0));
        colorContrast.withAlpha(0.16).set(kc);
        cairo_stroke(kc);
        cairo_set_line_cap(kc, CAIRO_LINE_CAP_BUTT);
        // 3. Face.
        drawKnobFaceShape(kc, kKnobCentre.x, kKnobCentre.y, kFaceRadius, large);
        // 5. The controller field's frame, label and arrows.
        drawControllerField(kc, {9, 48, 28, 27.5}, {9, 75.5, 28, 14}, 23, 43.5, 94, 0, false,
                            FieldParts::fixed);
        // 6. Caption.
        const CGRect caption{43.75, 80.25, 60, 14};
        roundedRect(kc, caption, 3);
        colorContrast.set(kc);
        cairo_set_line_width(kc, 0.5);
        cairo_stroke(kc);
        text.drawLine(kc, name, PanelFont::helveticaNeue, 9, caption, TextAlign::center,
                      colorContrast);
    });

    // 4. The value on the ring, in the accent colour, and a lit dot on the face's edge.
    const double a0 = arcAngle(0.0);
    const double a = arcAngle(std::clamp(value, 0.0, 1.0));
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_width(cr, 2.5);
    cairo_new_sub_path(cr);
    cairo_arc(cr, kKnobCentre.x, kKnobCentre.y, kRingRadius, a0, std::max(a, a0 + 1e-3));
    colorEmphasize.set(cr);
    cairo_stroke(cr);
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_BUTT);
    const double dx = std::cos(a), dy = std::sin(a);
    circle(cr, kKnobCentre.x + dx * (kFaceRadius - 5.2), kKnobCentre.y + dy * (kFaceRadius - 5.2),
           1.6);
    colorEmphasize.set(cr);
    cairo_fill(cr);
    if (isAlternate) {
        circle(cr, kKnobCentre.x, kKnobCentre.y, kRingRadius + 2.2);
        colorEmphasize.withAlpha(0.35).set(cr);
        cairo_set_line_width(cr, 1);
        cairo_stroke(cr);
    }
    // 5. The controller number (and the field's frame while it is held).
    drawControllerField(cr, {9, 48, 28, 27.5}, {9, 75.5, 28, 14}, 23, 43.5, 94, controller,
                        isControllerActive, FieldParts::live);

    // 7. Value, 0..98, on the cap.
    const long shown = std::lround(std::clamp(value, 0.0, 1.0) * 98);
    text.drawLine(cr, std::to_string(shown), PanelFont::system, 8,
                  {kKnobCentre.x - 15, kKnobCentre.y - 6, 30, 12}, TextAlign::center,
                  colorContrast);
    cairo_restore(cr);
}

// ---- handles and buttons ----------------------------------------------------------------------

void TAVSRChorusViewBase::drawSymbolHandleLeft(cairo_t* cr, const CGRect& frame,
                                               ResizingBehavior resizing) {
    drawHandle(cr, frame, resizing, false);
}

void TAVSRChorusViewBase::drawSymbolHandleRight(cairo_t* cr, const CGRect& frame,
                                                ResizingBehavior resizing) {
    drawHandle(cr, frame, resizing, true);
}

// The left handle, or its mirror image: the accent arrow points into the range bar.
void TAVSRChorusViewBase::drawHandle(cairo_t* cr, const CGRect& frame, ResizingBehavior resizing,
                                     bool right) {
    CGSize symbolScale;
    const CGRect own{0, 0, 26, 66};
    const CGRect fitted = apply(own, frame, resizing, symbolScale);
    cairo_save(cr);
    cairo_translate(cr, fitted.minX(), fitted.minY());
    cairo_scale(cr, fitted.width() / 26, fitted.height() / 66);
    const double y = right ? 32.5 : 33.5;
    // The edge itself: a grip bar on the split point.
    roundedRect(cr, {10, 4, 6, 58}, 3);
    colorMain.mixed(UIColor::white(), 0.12).set(cr);
    cairo_fill_preserve(cr);
    colorContrast.set(cr);
    cairo_set_line_width(cr, 1);
    cairo_stroke(cr);
    for (const double groove : {-6.5, -2.5, 1.5, 5.5}) {
        cairo_move_to(cr, 11.5, y + groove);
        cairo_line_to(cr, 14.5, y + groove);
    }
    colorContrast.withAlpha(0.6).set(cr);
    cairo_set_line_width(cr, 0.8);
    cairo_stroke(cr);
    cairo_set_line_width(cr, 3.5);
    colorEmphasize.set(cr);
    triangle(cr, right ? 7 : 19, y, 7.36, 2.5, right ? -90 : 90);
    cairo_fill_preserve(cr);
    cairo_stroke(cr);
    colorContrast.set(cr);
    triangle(cr, right ? 19 : 7, y, 7.36, 2.5, right ? 90 : -90);
    cairo_fill_preserve(cr);
    cairo_set_line_width(cr, 2);
    cairo_stroke(cr);
    cairo_restore(cr);
}

void TAVSRChorusViewBase::drawSymbolButton(cairo_t* cr, const CGRect& frame,
                                           ResizingBehavior resizing, bool isActive,
                                           const std::string& label, bool isSelected) {
    CGSize symbolScale;
    const CGRect own{0, 0, 80, 28};
    const CGRect fitted = apply(own, frame, resizing, symbolScale);
    cairo_save(cr);
    cairo_translate(cr, fitted.minX(), fitted.minY());
    cairo_scale(cr, fitted.width() / 80, fitted.height() / 28);
    const CGRect box{0.5, 0.5, 79, 27};
    // A soft drop under the key, gone while it is pressed.
    if (!isActive) {
        roundedRect(cr, {box.minX(), box.minY() + 1.2, box.width(), box.height()}, 3);
        UIColor::black().withAlpha(0.28).set(cr);
        cairo_fill(cr);
    }
    roundedRect(cr, box, 3);
    colorMain.set(cr);
    cairo_fill_preserve(cr);
    cairo_pattern_t* key = cairo_pattern_create_linear(0, 0, 0, 28);
    (isActive ? UIColor::black().withAlpha(0.10) : UIColor::white().withAlpha(0.10))
        .addStop(key, 0);
    (isActive ? UIColor::white().withAlpha(0.03) : UIColor::black().withAlpha(0.10))
        .addStop(key, 1);
    cairo_set_source(cr, key);
    cairo_fill_preserve(cr);
    cairo_pattern_destroy(key);
    (isActive ? colorEmphasize : colorContrast).set(cr);
    cairo_set_line_width(cr, isActive ? 1.2 : 0.5);
    cairo_stroke(cr);
    // An on button shows a lit strip along its foot.
    if (isSelected) {
        roundedRect(cr, {22, 22.2, 36, 2.2}, 1.1);
        colorEmphasize.set(cr);
        cairo_fill(cr);
    }
    text.drawLine(cr, label, PanelFont::condensedBlack, 12, {0, 0, 80, 27}, TextAlign::center,
                  isSelected ? colorEmphasize : colorContrast);
    cairo_restore(cr);
}

// ---- hotspots -------------------------------------------------------------------------------

void TAVSRChorusViewBase::drawSymbolHotspots(cairo_t* cr, const CGRect&, ResizingBehavior) {
    updateHotspots();
    if (!showHotspots) return;
    for (const CGRect* r : {&hotspotCaptionPath,          &hotspotButtonBypassPath,
                            &hotspotButtonPresetsPath,    &hotspotButtonMainPath,
                            &hotspotButtonLFOPath,        &hotspotDisplayPath,
                            &hotspotControllerLPPath,     &hotspotControllerHPPath,
                            &hotspotDryWetPath,           &hotspotControllerDryWetPath,
                            &hotspotKnobDepthPath,        &hotspotControllerDepthPath,
                            &hotspotKnobDelayPath,        &hotspotControllerDelayPath,
                            &hotspotKnobFeedbackPath,     &hotspotControllerFeedbackPath,
                            &hotspotKnobCrossPath,        &hotspotControllerCrossPath,
                            &hotspotKnobPanningPath,      &hotspotControllerPanningPath,
                            &hotspotKnobLFOFrequencyPath, &hotspotControllerLFOFrequencyPath,
                            &hotspotKnobLFORandomPath,    &hotspotControllerLFORandomPath,
                            &hotspotKnobLFOTypePath,      &hotspotControllerLFOTypePath,
                            &hotspotKnobLFOStereoPath,    &hotspotControllerLFOStereoPath}) {
        if (r->isEmpty()) continue;
        cairo_rectangle(cr, r->minX(), r->minY(), r->width(), r->height());
        colorOverlay.set(cr);
        cairo_fill(cr);
        outline(cr, *r, colorHotspots);
    }
}

void TAVSRChorusViewBase::updateHotspots() {
    hotspotCaptionPath = {40, 40, 250, 38};
    hotspotButtonBypassPath = buttonFrame({343, 59});
    hotspotButtonPresetsPath = buttonFrame({940, 59});
    hotspotButtonMainPath = buttonFrame({633, 328.1});
    hotspotButtonLFOPath = buttonFrame({719, 328.1});
    hotspotDisplayPath = {48.83, 301.46, 485.1, 55};
    hotspotControllerLPPath = {60, 96, 36, 60};
    hotspotControllerHPPath = {929, 97, 36, 60};

    const CGRect large = knobFrame(kDryWetKnob, knob2Width);
    hotspotDryWetPath = inKnobFrame(large, kKnobHotspot);
    hotspotControllerDryWetPath = inKnobFrame(large, kKnobControllerHotspot);

    CGRect knobs[5], fields[5];
    for (int i = 0; i < 5; ++i) {
        const CGRect f = knobFrame({kKnobColumnX[i], kKnobRowY}, knob1Width);
        knobs[i] = inKnobFrame(f, kKnobHotspot);
        fields[i] = inKnobFrame(f, kKnobControllerHotspot);
    }
    hotspotKnobDepthPath = knobs[0];
    hotspotControllerDepthPath = fields[0];
    hotspotKnobDelayPath = knobs[1];
    hotspotControllerDelayPath = fields[1];
    hotspotKnobFeedbackPath = knobs[2];
    hotspotControllerFeedbackPath = fields[2];
    hotspotKnobCrossPath = knobs[3];
    hotspotControllerCrossPath = fields[3];
    hotspotKnobPanningPath = knobs[4];
    hotspotControllerPanningPath = fields[4];
    hotspotKnobLFOFrequencyPath = knobs[1];
    hotspotControllerLFOFrequencyPath = fields[1];
    hotspotKnobLFORandomPath = knobs[2];
    hotspotControllerLFORandomPath = fields[2];
    hotspotKnobLFOTypePath = knobs[3];
    hotspotControllerLFOTypePath = fields[3];
    hotspotKnobLFOStereoPath = knobs[4];
    hotspotControllerLFOStereoPath = fields[4];

    const double lp = splitX(valueSplitLP);
    const double hp = splitX(valueSplitHP);
    dynamicHotspotLPPath = {lp - 17.2, 86, 34, 80};
    dynamicHotspotHPPath = {hp - 17.2, 86, 34, 80};
    const double left = lp + 16.8, right = hp - 17.2;
    dynamicHotspotRangePath = right > left ? CGRect{left, 90, right - left, 71} : CGRectZero;
}

} // namespace sr::editor
