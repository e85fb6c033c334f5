// The panel's control model, driven by scripted pointer input without a display: what each
// hotspot is, the drag law and its limits, the split-gap rules, controller fields, pages,
// bypass, the values the host sends, and the host controller's locking and gestures.
#include <gtest/gtest.h>

#include <cmath>

#include "EditorHarness.h"

namespace {

using sr::editor::CGPoint;
using sr::editor::CGRect;
using sr::editor::CGSize;
using sr::editor::PanelCursor;
using sr::editor::ResizingBehavior;
using sr::editor::TAVSRChorusViewBase;
using sr::test::EditorHarness;
using Base = TAVSRChorusViewBase;
using namespace sr;

struct HitRow {
    const char* mode;
    CGRect Base::*path;
};

// The hit-test table, typed from the panel's control sheet.
const HitRow kGroupA[] = {
    {"caption", &Base::hotspotCaptionPath},
    {"bypass", &Base::hotspotButtonBypassPath},
    {"presets", &Base::hotspotButtonPresetsPath},
    {"main", &Base::hotspotButtonMainPath},
    {"lfo", &Base::hotspotButtonLFOPath},
    {"display", &Base::hotspotDisplayPath},
    {"vSplitLP", &Base::dynamicHotspotLPPath},
    {"cSplitLP", &Base::hotspotControllerLPPath},
    {"vSplitHP", &Base::dynamicHotspotHPPath},
    {"cSplitHP", &Base::hotspotControllerHPPath},
    {"vSplitRange", &Base::dynamicHotspotRangePath},
    {"vDryWet", &Base::hotspotDryWetPath},
};
const HitRow kGroupB[] = {
    {"cDryWet", &Base::hotspotControllerDryWetPath},
    {"vDepth", &Base::hotspotKnobDepthPath},
    {"cDepth", &Base::hotspotControllerDepthPath},
    {"vDelay", &Base::hotspotKnobDelayPath},
    {"cDelay", &Base::hotspotControllerDelayPath},
    {"vFeedback", &Base::hotspotKnobFeedbackPath},
    {"cFeedback", &Base::hotspotControllerFeedbackPath},
    {"vCross", &Base::hotspotKnobCrossPath},
    {"cCross", &Base::hotspotControllerCrossPath},
    {"vPanning", &Base::hotspotKnobPanningPath},
    {"cPanning", &Base::hotspotControllerPanningPath},
};
const HitRow kGroupC[] = {
    {"vFrequency", &Base::hotspotKnobLFOFrequencyPath},
    {"cFrequency", &Base::hotspotControllerLFOFrequencyPath},
    {"vRandomize", &Base::hotspotKnobLFORandomPath},
    {"cRandomize", &Base::hotspotControllerLFORandomPath},
    {"vType", &Base::hotspotKnobLFOTypePath},
    {"cType", &Base::hotspotControllerLFOTypePath},
    {"vStereo", &Base::hotspotKnobLFOStereoPath},
    {"cStereo", &Base::hotspotControllerLFOStereoPath},
};

// Writes of one address, in order.
std::vector<float> writesTo(const EditorHarness& h, AUParameterAddress address) {
    std::vector<float> values;
    for (const auto& c : h.writer.writes())
        if (c.address == address) values.push_back(c.value);
    return values;
}

TEST(EditorPanel, EveryRowOfTheHitTableAtTheCentreOfItsHotspotOnBothPages) {
    for (const bool mainPage : {true, false}) {
        EditorHarness h;
        h.base().isMainVisible = mainPage;
        h.base().updateHotspots();
        for (const HitRow& row : kGroupA) {
            const CGRect path = h.base().*row.path;
            ASSERT_FALSE(path.isEmpty()) << row.mode;
            EXPECT_EQ(h.view().hotspotAt(h.viewPoint(path)), row.mode)
                << row.mode << (mainPage ? " (main page)" : " (LFO page)");
        }
        for (const HitRow& row :
             mainPage ? std::vector<HitRow>(std::begin(kGroupB), std::end(kGroupB))
                      : std::vector<HitRow>(std::begin(kGroupC), std::end(kGroupC))) {
            const CGRect path = h.base().*row.path;
            EXPECT_EQ(h.view().hotspotAt(h.viewPoint(path)), row.mode) << row.mode;
        }
    }
}

TEST(EditorPanel, DryWetControllerFieldIsFoundOnTheMainPageOnly) {
    EditorHarness h;
    h.base().isMainVisible = false;
    h.base().updateHotspots();
    // The field is drawn on both pages, but on the LFO page a press there finds nothing.
    EXPECT_EQ(h.view().hotspotAt(h.viewPoint(h.base().hotspotControllerDryWetPath)), "");
    EXPECT_EQ(h.view().hotspotAt(h.viewPoint(h.base().hotspotDryWetPath)), "vDryWet");
}

TEST(EditorPanel, PressOnNothingUnlocksTheHostAndChangesNothing) {
    EditorHarness h;
    h.controller.setTouchesLocked(true);
    const auto before = h.writer.calls.size();
    h.view().touchesBegan({1000, 390});
    EXPECT_EQ(h.view().hotspotMode, "");
    EXPECT_FALSE(h.controller.touchesLocked());
    h.view().touchesMoved({900, 200});
    h.view().touchesEnded({900, 200});
    EXPECT_EQ(h.writer.calls.size(), before);
}

TEST(EditorPanel, DragLawOnSplitHandlesAndKnobs) {
    EditorHarness h;
    h.hostSends(kFrequencySplitHP, 1.0f);
    h.hostSends(kFrequencySplitLP, 0.1f);
    // Up 500 view units at scale 1: f = 500 / 2 / 500 = 0.5.
    h.drag(h.viewPoint(h.base().dynamicHotspotLPPath), 0, -500);
    EXPECT_NEAR(h.base().valueSplitLP, 0.6, 1e-6);
    EXPECT_NEAR(writesTo(h, kFrequencySplitLP).back(), 0.6f, 1e-6);
    // 1000 units moves a split point by the whole range (here up to the gap below HP: the
    // move that would pass it is dropped, so LP stays where it was).
    h.hostSends(kFrequencySplitLP, 0.0f);
    h.drag(h.viewPoint(h.base().dynamicHotspotLPPath), 0, -1000);
    EXPECT_EQ(h.base().valueSplitLP, 0.0);
    h.hostSends(kFrequencySplitLP, 0.0f);
    h.hostSends(kFrequencySplitHP, 0.0f);
    h.hostSends(kFrequencySplitHP, 0.2f);
    h.drag(h.viewPoint(h.base().dynamicHotspotHPPath), 1000, 0); // right raises too
    EXPECT_EQ(h.base().valueSplitHP, 1.0);

    // The same 1000 units on a knob: f = 5, clamped to full scale.
    h.hostSends(kChorusDepth, 0.3f);
    h.drag(h.viewPoint(h.base().hotspotKnobDepthPath), 0, -1000);
    EXPECT_EQ(h.base().valueDepth, 1.0);
    EXPECT_EQ(writesTo(h, kChorusDepth).back(), 1.0f);
    h.drag(h.viewPoint(h.base().hotspotKnobDepthPath), 0, 1000);
    EXPECT_EQ(h.base().valueDepth, 0.0);
    // Both axes count: 30 up and 10 left is 20 up.
    h.hostSends(kChorusDelay, 0.5f);
    h.drag(h.viewPoint(h.base().hotspotKnobDelayPath), -10, -30);
    EXPECT_NEAR(h.base().valueDelay, 0.6, 1e-6);
}

TEST(EditorPanel, DragIsDividedByTheViewScaleTwice) {
    EditorHarness h(2048, 800); // view scale 2
    ASSERT_EQ(h.base().viewScale, (CGSize{2, 2}));
    h.hostSends(kChorusFeedback, 0.5f);
    // 40 view units up: 40 / 2 / 2 = 10 canvas units; f = 10 / 2 / 100 x 2 = 0.1.
    h.drag(h.viewPoint(h.base().hotspotKnobFeedbackPath), 0, -40);
    EXPECT_NEAR(h.base().valueFeedback, 0.6, 1e-6);
    // At scale 1 the same 40 units give 0.2.
    EditorHarness one;
    one.hostSends(kChorusFeedback, 0.5f);
    one.drag(one.viewPoint(one.base().hotspotKnobFeedbackPath), 0, -40);
    EXPECT_NEAR(one.base().valueFeedback, 0.7, 1e-6);
}

TEST(EditorPanel, SplitGapRules) {
    EditorHarness h;
    h.hostSends(kFrequencySplitLP, 0.2f);
    h.hostSends(kFrequencySplitHP, 0.5f);
    // LP up by 0.2 is fine; a move that would come within 0.05 of HP is dropped whole.
    const CGPoint lp = h.viewPoint(h.base().dynamicHotspotLPPath);
    h.view().touchesBegan(lp);
    h.view().touchesMoved({lp.x, lp.y - 200});
    EXPECT_NEAR(h.base().valueSplitLP, 0.4, 1e-6);
    h.view().touchesMoved({lp.x, lp.y - 280});
    EXPECT_NEAR(h.base().valueSplitLP, 0.4, 1e-6); // not snapped to 0.45
    h.view().touchesEnded({lp.x, lp.y - 280});
    EXPECT_EQ(writesTo(h, kFrequencySplitLP).size(), 1u);

    // HP down to within the gap of LP is dropped too.
    const CGPoint hp = h.viewPoint(h.base().dynamicHotspotHPPath);
    h.drag(hp, 0, 80); // 0.5 - 0.08 = 0.42 < 0.4 + 0.05
    EXPECT_NEAR(h.base().valueSplitHP, 0.5, 1e-6);
    EXPECT_TRUE(writesTo(h, kFrequencySplitHP).empty());

    // The range bar with LP already at the gap: pushing right moves only HP.
    h.hostSends(kFrequencySplitLP, 0.45f);
    h.hostSends(kFrequencySplitHP, 0.5f);
    h.writer.calls.clear();
    const CGPoint bar = h.viewPoint(h.base().dynamicHotspotRangePath);
    EXPECT_EQ(h.view().hotspotAt(bar), "vSplitRange");
    h.drag(bar, 0, -20); // f = -0.02
    EXPECT_NEAR(h.base().valueSplitLP, 0.45, 1e-6);
    EXPECT_NEAR(h.base().valueSplitHP, 0.52, 1e-6);
    EXPECT_TRUE(writesTo(h, kFrequencySplitLP).empty());
    EXPECT_EQ(writesTo(h, kFrequencySplitHP).size(), 1u);

    // With room, the bar moves both, each writing its own address.
    h.hostSends(kFrequencySplitLP, 0.2f);
    h.hostSends(kFrequencySplitHP, 0.6f);
    h.writer.calls.clear();
    h.drag(h.viewPoint(h.base().dynamicHotspotRangePath), 20, 0);
    EXPECT_NEAR(h.base().valueSplitLP, 0.22, 1e-6);
    EXPECT_NEAR(h.base().valueSplitHP, 0.62, 1e-6);
    EXPECT_EQ(writesTo(h, kFrequencySplitLP).size(), 1u);
    EXPECT_EQ(writesTo(h, kFrequencySplitHP).size(), 1u);
}

TEST(EditorPanel, ControllerFieldFromUnassignedStartsAtZero) {
    EditorHarness h;
    h.hostSends(19, -1.0f);
    EXPECT_EQ(h.base().controllerDepth, -1);
    const CGPoint field = h.viewPoint(h.base().hotspotControllerDepthPath);
    h.view().touchesBegan(field);
    EXPECT_TRUE(h.base().isControllerDepthActive);
    h.view().touchesMoved({field.x, field.y - 1}); // upward: 0 first, never -1
    EXPECT_EQ(h.base().controllerDepth, 0);
    h.view().touchesMoved({field.x, field.y + 30}); // downward stays at 0
    EXPECT_EQ(h.base().controllerDepth, 0);
    // 100 units: f = 0.5 from the saved -1/127, so 127 x 0.4921 = 62.5 -> 62.
    h.view().touchesMoved({field.x, field.y - 100});
    EXPECT_EQ(h.base().controllerDepth, 62);
    h.view().touchesEnded({field.x, field.y - 100});
    EXPECT_FALSE(h.base().isControllerDepthActive);
    EXPECT_EQ(writesTo(h, 19), (std::vector<float>{0, 0, 62}));
}

TEST(EditorPanel, DryWetControllerDragSendsAddress22) {
    EditorHarness h;
    h.hostSends(28, 24.0f);
    h.hostSends(22, 18.0f);
    // 20 up: 24 / 127 + 0.1 = 0.289, x 127 = 36.7 -> 36.
    h.drag(h.viewPoint(h.base().hotspotControllerDryWetPath), 0, -20);
    EXPECT_EQ(h.base().controllerDryWet, 36);
    EXPECT_EQ(h.base().controllerCross, 18);
    EXPECT_EQ(writesTo(h, 22), (std::vector<float>{36}));
    EXPECT_TRUE(writesTo(h, 28).empty());
}

TEST(EditorPanel, BothPageButtonsToggleThePage) {
    EditorHarness h;
    ASSERT_TRUE(h.base().isMainVisible);
    h.drag(h.viewPoint(h.base().hotspotButtonMainPath), 0, 0); // MAIN on the main page
    EXPECT_FALSE(h.base().isMainVisible);
    h.drag(h.viewPoint(h.base().hotspotButtonMainPath), 0, 0);
    EXPECT_TRUE(h.base().isMainVisible);
    h.drag(h.viewPoint(h.base().hotspotButtonLFOPath), 0, 0);
    EXPECT_FALSE(h.base().isMainVisible);
    h.drag(h.viewPoint(h.base().hotspotButtonLFOPath), 0, 0); // LFO on the LFO page
    EXPECT_TRUE(h.base().isMainVisible);
    EXPECT_TRUE(h.writer.writes().empty());
}

TEST(EditorPanel, BypassTogglesAndFollowsOnlyExactlyOne) {
    EditorHarness h;
    const CGPoint button = h.viewPoint(h.base().hotspotButtonBypassPath);
    h.view().touchesBegan(button);
    EXPECT_TRUE(h.base().isButtonBypassActive);
    EXPECT_TRUE(h.base().isBypassActive);
    h.view().touchesEnded(button);
    EXPECT_FALSE(h.base().isButtonBypassActive);
    h.drag(button, 0, 0);
    EXPECT_FALSE(h.base().isBypassActive);
    EXPECT_EQ(writesTo(h, kBypass), (std::vector<float>{1, 0}));

    h.view().setParameter(kBypass, 1.0f);
    EXPECT_TRUE(h.base().isBypassActive);
    h.view().setParameter(kBypass, 0.999f);
    EXPECT_FALSE(h.base().isBypassActive);
}

TEST(EditorPanel, PresetsButtonSendsOption1000) {
    EditorHarness h;
    int shown = 0;
    h.controller.showPresets = [&] { ++shown; };
    h.drag(h.viewPoint(h.base().hotspotButtonPresetsPath), 0, 0);
    EXPECT_EQ(shown, 1);
    EXPECT_TRUE(h.writer.writes().empty());
}

TEST(EditorPanel, HostValuesReachThePanelWithTheDisplayText) {
    EditorHarness h;
    h.hostSends(kChorusDepth, 0.5f);
    EXPECT_EQ(h.base().valueDepth, 0.5);
    EXPECT_EQ(h.base().textDisplay, "Chorus Depth\nfloat: 0.5 | midi: 63");
    h.hostSends(kFrequencySplitLP, 0.25f);
    EXPECT_EQ(h.base().textDisplay, "Frequency Split LP\nfloat: 0.25 | midi: 31");
    // Controller numbers truncate toward zero and leave the display alone.
    h.hostSends(20, 16.9f);
    EXPECT_EQ(h.base().controllerDelay, 16);
    EXPECT_EQ(h.base().textDisplay, "Frequency Split LP\nfloat: 0.25 | midi: 31");
    // Contrast: colours swap, and the host controller hears option 0.
    h.hostSends(kDisplayContrast, 1.0f);
    EXPECT_EQ(h.base().colorMain, sr::editor::UIColor::grey(1.0));
    EXPECT_EQ(h.base().colorContrast, sr::editor::UIColor::grey(0.0));
    EXPECT_EQ(h.controller.pluginFrame.contrast, 1.0f);
    // Without a unit to look the name up in, the display is emptied.
    sr::editor::TAVSRChorusView lone;
    lone.setParameter(kChorusDepth, 0.5f);
    EXPECT_EQ(lone.baseClass.textDisplay, "");
}

TEST(EditorPanel, HeldControlIsNotOverwrittenAndIsOneGesture) {
    EditorHarness h;
    h.hostSends(kChorusDepth, 0.3f);
    h.writer.calls.clear();
    const CGPoint knob = h.viewPoint(h.base().hotspotKnobDepthPath);
    h.view().touchesBegan(knob);
    EXPECT_TRUE(h.controller.touchesLocked());
    h.view().touchesMoved({knob.x, knob.y - 10});
    h.view().touchesMoved({knob.x, knob.y - 20});
    // The host reports another value meanwhile: held back while the knob is held.
    h.hostSends(kChorusDepth, 0.9f);
    EXPECT_NEAR(h.base().valueDepth, 0.4, 1e-6);
    h.view().touchesEnded({knob.x, knob.y - 20});
    EXPECT_FALSE(h.controller.touchesLocked());
    // begin, two writes, end
    ASSERT_EQ(h.writer.calls.size(), 4u);
    EXPECT_EQ(h.writer.calls[0].kind, 'b');
    EXPECT_EQ(h.writer.calls[1].kind, 'w');
    EXPECT_EQ(h.writer.calls[2].kind, 'w');
    EXPECT_EQ(h.writer.calls[3].kind, 'e');
    for (const auto& c : h.writer.calls) EXPECT_EQ(c.address, AUParameterAddress(kChorusDepth));
    // The next poll brings the panel up to date with the unit.
    h.controller.onTimer();
    EXPECT_NEAR(h.base().valueDepth, 0.9, 1e-6);
}

TEST(EditorPanel, TouchCancelKeepsTheModeAndUnlocks) {
    EditorHarness h;
    const CGPoint knob = h.viewPoint(h.base().hotspotKnobCrossPath);
    h.view().touchesBegan(knob);
    EXPECT_TRUE(h.base().isKnobCrossActive);
    h.view().touchesCancelled();
    EXPECT_FALSE(h.base().isKnobCrossActive);
    EXPECT_FALSE(h.controller.touchesLocked());
    EXPECT_EQ(h.view().hotspotMode, "vCross");
}

TEST(EditorPanel, ControlEventsOfAPress) {
    EditorHarness h;
    std::vector<unsigned> events;
    h.view().controlEvents = [&](unsigned e) { events.push_back(e); };
    h.drag(h.viewPoint(h.base().hotspotKnobPanningPath), 0, -5);
    EXPECT_EQ(events, (std::vector<unsigned>{1, 4096, 64}));
}

TEST(EditorPanel, OpeningWritesNothing) {
    EditorHarness h;
    h.hostSends(kChorusDepth, 0.7f);
    h.controller.onTimer();
    h.resize(800, 300);
    EXPECT_TRUE(h.writer.calls.empty());
}

TEST(ResizingRule, FitFillStretchCenterAndTheEdges) {
    const CGRect design{0, 0, 1024, 400};
    CGSize scale{7, 7};
    auto fit = [&](double w, double h, ResizingBehavior b = ResizingBehavior::aspectFit) {
        return sr::editor::applyResizing(b, design, {0, 0, w, h}, scale);
    };
    EXPECT_EQ(fit(2048, 400), (CGRect{512, 0, 1024, 400}));
    EXPECT_EQ(scale, (CGSize{1, 1}));
    EXPECT_EQ(fit(512, 400), (CGRect{0, 100, 512, 200}));
    EXPECT_EQ(scale, (CGSize{0.5, 0.5}));
    scale = {3, 3};
    EXPECT_EQ(fit(0, 0), design); // zero: design size, scale untouched
    EXPECT_EQ(scale, (CGSize{3, 3}));
    EXPECT_EQ(fit(1024, 400), design);
    EXPECT_EQ(scale, (CGSize{3, 3}));
    EXPECT_EQ(fit(512, 400, ResizingBehavior::aspectFill), (CGRect{-256, 0, 1024, 400}));
    EXPECT_EQ(fit(2048, 200, ResizingBehavior::stretch), (CGRect{0, 0, 2048, 200}));
    EXPECT_EQ(scale, (CGSize{2, 0.5}));
    EXPECT_EQ(fit(2048, 800, ResizingBehavior::center), (CGRect{512, 200, 1024, 400}));
    EXPECT_FALSE(sr::editor::resizingBehaviorFromRaw(4));
    EXPECT_EQ(sr::editor::resizingBehaviorFromRaw(2), ResizingBehavior::stretch);
}

TEST(ResizingRule, LetterboxedPanelTakesPointerPositionsInItsOwnUnits) {
    EditorHarness h(512, 400); // the panel is 512 x 200, 100 units down
    EXPECT_EQ(h.base().viewScale, (CGSize{0.5, 0.5}));
    EXPECT_EQ(h.view().frame, (CGRect{0, 100, 512, 200}));
    sr::editor::PanelPointer pointer(h.view());
    // Between the last small knob and the large one lies nothing.
    EXPECT_EQ(pointer.cursorAt(h.windowPoint({760, 220, 10, 10})), PanelCursor::arrow);
    const CGPoint depth = h.windowPoint(h.base().hotspotKnobDepthPath);
    EXPECT_EQ(pointer.cursorAt(depth), PanelCursor::dragVertical);
    EXPECT_EQ(
        h.view().hotspotAt({depth.x - h.view().frame.minX(), depth.y - h.view().frame.minY()}),
        "vDepth");
}

TEST(PanelPointer, DoubleClickResetsWheelStepsCursorHints) {
    EditorHarness h;
    sr::editor::PanelPointer pointer(h.view());
    h.hostSends(kChorusDepth, 0.9f);
    const CGPoint knob = h.windowPoint(h.base().hotspotKnobDepthPath);
    pointer.press(knob, 10.0);
    pointer.release(knob);
    pointer.press(knob, 10.2);
    EXPECT_FALSE(pointer.isDragging());
    EXPECT_NEAR(h.base().valueDepth, 0.33, 1e-6);
    EXPECT_NEAR(writesTo(h, kChorusDepth).back(), 0.33f, 1e-6);
    pointer.release(knob);
    // Too slow for a double click: a plain press.
    pointer.press(knob, 11.0);
    EXPECT_TRUE(pointer.isDragging());
    pointer.release(knob);

    // Wheel: a step of 1/127, Shift a tenth of that; controller fields by one.
    h.hostSends(kChorusDepth, 0.5f);
    pointer.wheel(knob, 1, false);
    EXPECT_NEAR(h.base().valueDepth, 0.5 + 1.0 / 127, 1e-6);
    pointer.wheel(knob, -2, true);
    EXPECT_NEAR(h.base().valueDepth, 0.5 + 1.0 / 127 - 2.0 / 1270, 1e-6);
    const CGPoint field = h.windowPoint(h.base().hotspotControllerDepthPath);
    h.hostSends(19, 15.0f);
    pointer.wheel(field, 3, false);
    EXPECT_EQ(h.base().controllerDepth, 18);
    EXPECT_EQ(writesTo(h, 19).back(), 18.0f);

    // A grab taken away mid-drag is a cancel: the value stays where the drag left it.
    pointer.press(knob, 20.0);
    pointer.motion({knob.x, knob.y - 10});
    pointer.grabLost();
    EXPECT_FALSE(h.controller.touchesLocked());
    EXPECT_FALSE(h.base().isKnobDepthActive);

    EXPECT_EQ(pointer.cursorAt(h.windowPoint(h.base().dynamicHotspotLPPath)),
              PanelCursor::dragHorizontal);
    EXPECT_EQ(pointer.cursorAt(h.windowPoint(h.base().hotspotButtonBypassPath)),
              PanelCursor::press);
    EXPECT_EQ(pointer.cursorAt({1020, 5}), PanelCursor::arrow);
}

} // namespace
