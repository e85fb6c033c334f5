// A panel as the LV2 editor hosts it, without a window: a mirror whose writes are recorded, a
// host controller, its panel at 1024 x 400 (view scale 1), and pointer helpers.
#pragma once

#include <string>
#include <vector>

#include "editor/AudioUnitViewController.h"
#include "editor/EditorAudioUnit.h"
#include "editor/PanelImage.h"
#include "editor/PanelPointer.h"

namespace sr::test {

struct RecordingWriter : editor::ParameterWriter {
    struct Call {
        char kind; // 'w' write, 'b' gesture begin, 'e' gesture end
        AUParameterAddress address;
        AUValue value;
    };
    std::vector<Call> calls;

    void writeParameter(AUParameterAddress a, AUValue v) override { calls.push_back({'w', a, v}); }
    void beginGesture(AUParameterAddress a) override { calls.push_back({'b', a, 0}); }
    void endGesture(AUParameterAddress a) override { calls.push_back({'e', a, 0}); }

    std::vector<Call> writes() const {
        std::vector<Call> w;
        for (const Call& c : calls)
            if (c.kind == 'w') w.push_back(c);
        return w;
    }
};

class EditorHarness {
public:
    explicit EditorHarness(double width = 1024, double height = 400) : mirror(&writer) {
        // Never the user's own folders: the browser creates its preset folders when opened.
        controller.documentsPath = std::string(SR_TEST_TMP) + "/editor-documents/";
        controller.homePath = std::string(SR_TEST_TMP) + "/editor-home/";
        controller.viewDidLoad();
        controller.setAudioUnit(&mirror);
        controller.mainQueue().drain();
        controller.onTimer();
        resize(width, height);
    }

    // The view at a new size, drawn once so the panel's scale follows it, as a window does.
    void resize(double width, double height) {
        cairo_surface_t* s = editor::drawPanelImage(controller, int(width), int(height));
        cairo_surface_destroy(s);
    }
    // A value the plug-in reports, delivered as the host's idle call would.
    void hostSends(AUParameterAddress address, float value) {
        mirror.receive(address, value);
        controller.mainQueue().drain();
    }
    editor::TAVSRChorusView& view() { return controller.pluginView; }
    editor::TAVSRChorusViewBase& base() { return controller.pluginView.baseClass; }

    // The centre of a canvas rectangle, in the view's coordinates.
    editor::CGPoint viewPoint(const editor::CGRect& canvasRect) {
        base().updateHotspots(); // the paths that follow the split points, for the current state
        const editor::CGSize s = base().viewScale;
        const editor::CGRect canvas = canvasRect;
        return {canvas.midX() * s.width, canvas.midY() * s.height};
    }
    // The same in the window's coordinates.
    editor::CGPoint windowPoint(const editor::CGRect& canvas) {
        const editor::CGPoint p = viewPoint(canvas);
        return {view().frame.minX() + p.x, view().frame.minY() + p.y};
    }
    // Press at a point, move by (dx, dy) view units, release there.
    void drag(editor::CGPoint from, double dx, double dy) {
        view().touchesBegan(from);
        view().touchesMoved({from.x + dx, from.y + dy});
        view().touchesEnded({from.x + dx, from.y + dy});
    }

    RecordingWriter writer;
    editor::AudioUnitMirror mirror;
    editor::AudioUnitViewController controller;
};

} // namespace sr::test
