// The panel's drawing object: everything the panel shows (values, controller numbers, held
// flags, page, display text, colours), drawn with Cairo and Pango onto a 1024 x 400 design
// canvas mapped onto any view, and the clickable regions (hotspots) in canvas units that the
// control model hit-tests. Knows no window system and no plug-in format.
// Threading: one thread, the one that owns the view.
#pragma once

#include <cairo.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "editor/Color.h"
#include "editor/PanelText.h"
#include "editor/ResizingBehavior.h"
#include "editor/SpectrumDisplay.h"
#include "editor/SplitAxis.h"

namespace sr::editor {

class TAVSRChorusViewBase {
public:
    using ResizingBehavior = editor::ResizingBehavior;

    TAVSRChorusViewBase() = default;
    ~TAVSRChorusViewBase();
    TAVSRChorusViewBase(const TAVSRChorusViewBase&) = delete;
    TAVSRChorusViewBase& operator=(const TAVSRChorusViewBase&) = delete;

    static constexpr CGRect kCanvas{0, 0, 1024, 400};
    // The small and large knob symbols' own frame, and the widths they are drawn at.
    static constexpr CGSize kKnobSymbol{116, 104};
    static constexpr int kNOB1_WIDTH = 108;
    static constexpr int kNOB2_WIDTH = 120;
    // Split point 0 and 1 on the canvas.
    static constexpr double kSplitLeft = 54;
    static constexpr double kSplitWidth = 919;
    // Centres of the small knobs (one y, five x) and of the large one.
    static constexpr double kKnobRowY = 229;
    static constexpr double kKnobColumnX[5] = {122, 249, 376, 503, 630};
    static constexpr CGPoint kDryWetKnob{919, 264};
    static constexpr double kHeldScale = 1.2;

    UIColor colorEmphasize{0.884, 0.37, 0.181, 1.0};
    UIColor colorMain = UIColor::grey(0.93);
    UIColor colorContrast = UIColor::grey(0.141);
    UIColor colorGrey = UIColor::grey(0.458, 0.323);
    UIColor colorOverlay{0.397, 0.885, 0.121, 0.058};
    UIColor colorHotspots{0.652, 0.8, 0.32, 0.176};
    int knob1Width = kNOB1_WIDTH;
    int knob2Width = kNOB2_WIDTH;

    bool isMainVisible = true;
    bool isBypassActive = false;

    bool isButtonBypassActive = false, isButtonPresetsActive = false, isButtonMainActive = false,
         isButtonLFOActive = false, isRangeActive = false, isHandleLeftActive = false,
         isHandleRightActive = false, isKnobDryWetActive = false, isKnobFrequencyActive = false,
         isKnobRandomizeActive = false, isKnobShapeActive = false, isKnobStereoActive = false,
         isKnobDepthActive = false, isKnobDelayActive = false, isKnobFeedbackActive = false,
         isKnobCrossActive = false, isKnobPanningActive = false;
    bool isControllerLPActive = false, isControllerHPActive = false,
         isControllerDryWetActive = false, isControllerFrequencyActive = false,
         isControllerRandomizeActive = false, isControllerShapeActive = false,
         isControllerStereoActive = false, isControllerDepthActive = false,
         isControllerDelayActive = false, isControllerFeedbackActive = false,
         isControllerCrossActive = false, isControllerPanningActive = false;

    int controllerLP = -1, controllerHP = -1, controllerDryWet = -1, controllerFrequency = -1,
        controllerRandomize = -1, controllerShape = -1, controllerStereo = -1, controllerDepth = -1,
        controllerDelay = -1, controllerFeedback = -1, controllerCross = -1, controllerPanning = -1;

    double valueDryWet = 1.0, valueFrequency = 1.0, valueRandomize = 1.0, valueShape = 1.0,
           valueStereo = 1.0, valueDepth = 1.0, valueDelay = 1.0, valueFeedback = 1.0,
           valueCross = 1.0, valuePanning = 1.0;
    double valueSplitLP = 0.0;
    double valueSplitHP = 1.0;

    std::string textDisplay = "display\n000";

    // Hotspots, in canvas units: the ones that move with the split points, then the fixed ones.
    CGRect dynamicHotspotLPPath, dynamicHotspotRangePath, dynamicHotspotHPPath;
    CGRect hotspotCaptionPath, hotspotButtonBypassPath, hotspotButtonPresetsPath,
        hotspotButtonMainPath, hotspotButtonLFOPath, hotspotDisplayPath, hotspotControllerLPPath,
        hotspotControllerHPPath, hotspotDryWetPath, hotspotControllerDryWetPath,
        hotspotKnobDepthPath, hotspotControllerDepthPath, hotspotKnobDelayPath,
        hotspotControllerDelayPath, hotspotKnobFeedbackPath, hotspotControllerFeedbackPath,
        hotspotKnobCrossPath, hotspotControllerCrossPath, hotspotKnobPanningPath,
        hotspotControllerPanningPath, hotspotKnobLFOFrequencyPath,
        hotspotControllerLFOFrequencyPath, hotspotKnobLFORandomPath, hotspotControllerLFORandomPath,
        hotspotKnobLFOTypePath, hotspotControllerLFOTypePath, hotspotKnobLFOStereoPath,
        hotspotControllerLFOStereoPath;

    // The host's sample rate: the split points' frequencies and the spectrum's axis follow it.
    double sampleRate = 48000.0;
    // The input's spectrum behind the split bar; nothing shows until it has levels.
    SpectrumDisplay spectrum;
    // The bar's frequency axis for the current split values and rate.
    const SplitAxis& splitAxis();

    // Design canvas to view, as the last drawing (or the owner) set it.
    CGSize viewScale{1, 1};
    // Outlines every hotspot over the panel (for finding one's way around the layout).
    bool showHotspots = false;

    static CGRect apply(const CGRect& rect, const CGRect& target, ResizingBehavior behavior,
                        CGSize& scale) {
        return applyResizing(behavior, rect, target, scale);
    }

    // Nothing runs in the background; kept for hosts that stop a panel before closing it.
    void stop() {}
    // The whole panel into `frame` (view units), letterboxed by the resizing rule.
    void drawMain(cairo_t* cr, const CGRect& frame,
                  ResizingBehavior resizing = ResizingBehavior::aspectFit);
    void drawSymbolKnobSmall(cairo_t* cr, const CGRect& frame, ResizingBehavior resizing,
                             const std::string& parameterName, int controller, double value,
                             bool isAlternate, bool isControllerActive);
    void drawSymbolKnobLarge(cairo_t* cr, const CGRect& frame, ResizingBehavior resizing,
                             const std::string& parameterName, int controller, double value,
                             bool isAlternate, bool isControllerActive);
    void drawSymbolHandleLeft(cairo_t* cr, const CGRect& frame, ResizingBehavior resizing);
    void drawSymbolHandleRight(cairo_t* cr, const CGRect& frame, ResizingBehavior resizing);
    void drawSymbolButton(cairo_t* cr, const CGRect& frame, ResizingBehavior resizing,
                          bool isActive, const std::string& label, bool isSelected);
    // Builds the fixed hotspot paths (and outlines them when showHotspots is set).
    void drawSymbolHotspots(cairo_t* cr, const CGRect& frame, ResizingBehavior resizing);
    float getScalingFactor() const { return float(viewScale.width); }

    // Every hotspot for the current state, as a drawing would leave them; the control model
    // calls it before hit-testing so that a press never meets paths older than the state.
    void updateHotspots();

    // Canvas geometry the drawing and the hotspots share.
    static double splitX(double value) { return kSplitLeft + kSplitWidth * value; }
    static CGRect knobFrame(CGPoint centre, double width);
    // Where a symbol of the knob frame `frame` puts a rectangle of its own 116 x 104 frame.
    static CGRect inKnobFrame(const CGRect& frame, const CGRect& symbolRect);
    static CGRect buttonFrame(CGPoint centre) { return {centre.x - 40, centre.y - 14, 80, 28}; }

private:
    void drawBackground(cairo_t* cr);
    void drawSplitBar(cairo_t* cr);
    void drawSpectrum(cairo_t* cr);
    // Each split point's frequency, under its handle.
    void drawSplitFrequencies(cairo_t* cr, double lp, double hp);
    void drawPlate(cairo_t* cr);
    void drawTrack(cairo_t* cr);
    void drawDisplayGlass(cairo_t* cr);
    void drawDisplay(cairo_t* cr);
    void drawTitles(cairo_t* cr);
    void drawSplitController(cairo_t* cr, const CGRect& box, int number, bool active);
    // A field's frame, label and arrows stay; its number (and held frame) change.
    enum class FieldParts { all, fixed, live };
    void drawControllerField(cairo_t* cr, const CGRect& box, const CGRect& labelBox,
                             double triangleX, double upY, double downY, int number, bool active,
                             FieldParts parts);
    void drawKnob(cairo_t* cr, const CGRect& frame, ResizingBehavior resizing,
                  const std::string& name, int controller, double value, bool isAlternate,
                  bool isControllerActive, bool large);
    void drawHandle(cairo_t* cr, const CGRect& frame, ResizingBehavior resizing, bool right);
    void drawKnobFaceShape(cairo_t* cr, double cx, double cy, double radius, bool large);
    // Runs `draw` around `centre`, 1.2 times larger while `held`.
    template <typename Draw>
    void heldScaled(cairo_t* cr, CGPoint centre, bool held, Draw draw);

    PanelText text;
    SplitAxis axis;
    // Draws `rect` (user units) with `draw` into an image once per tag, colours, scale and
    // position within a pixel, and paints that image: for what changes only with those.
    void paintLayer(cairo_t* cr, const CGRect& rect, const std::string& tag,
                    const std::function<void(cairo_t*)>& draw);
    struct LayerKey {
        std::string tag;
        UIColor main, contrast, emphasize, grey;
        double xx, yy, x0, y0;
        bool operator==(const LayerKey&) const = default;
    };
    struct Layer {
        LayerKey key;
        cairo_surface_t* surface;
    };
    static constexpr std::size_t kLayerCacheSize = 32;
    std::vector<Layer> layers;
};

} // namespace sr::editor
