// The panel drawn into an image, without any display: for the renderer, the tests and the
// benchmarks.
#pragma once

#include <cairo.h>

#include <string>

#include "editor/AudioUnitViewController.h"

namespace sr::editor {

// An ARGB32 image surface of the given size with the controller's frame and panel drawn into
// it; the caller destroys it. Null when the size is not drawable (0 or beyond 16384).
cairo_surface_t* drawPanelImage(AudioUnitViewController& controller, int width, int height);

// The same, written as a PNG file (atomically: whole or not at all). Throws std::runtime_error
// with the reason when it cannot.
void writePanelPNG(AudioUnitViewController& controller, const std::string& path, int width,
                   int height);

// A controller for a unit whose values are `values` (29 of them, by address), connected and
// refreshed as a host would have it after opening the panel; its log lines go to `log`
// (standard output without one).
class PanelSnapshot {
public:
    explicit PanelSnapshot(const float* values, LogChannel* log = nullptr);
    AudioUnitViewController& controller() { return controller_; }

private:
    AudioUnitMirror mirror;
    AudioUnitViewController controller_;
};

} // namespace sr::editor
