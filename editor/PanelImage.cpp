#include "editor/PanelImage.h"

#include <stdexcept>

#include "platform/AtomicFile.h"

namespace sr::editor {

cairo_surface_t* drawPanelImage(AudioUnitViewController& controller, int width, int height) {
    if (width <= 0 || height <= 0 || width > 16384 || height > 16384) return nullptr;
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height);
    if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) {
        cairo_surface_destroy(surface);
        return nullptr;
    }
    cairo_t* cr = cairo_create(surface);
    controller.draw(cr, {0, 0, double(width), double(height)});
    cairo_destroy(cr);
    cairo_surface_flush(surface);
    return surface;
}

void writePanelPNG(AudioUnitViewController& controller, const std::string& path, int width,
                   int height) {
    cairo_surface_t* surface = drawPanelImage(controller, width, height);
    if (!surface)
        throw std::runtime_error("cannot draw a panel of " + std::to_string(width) + " x " +
                                 std::to_string(height) + " pixels (1 to 16384 each way)");
    std::string png;
    const cairo_status_t status = cairo_surface_write_to_png_stream(
        surface,
        [](void* closure, const unsigned char* data, unsigned int length) {
            static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data), length);
            return CAIRO_STATUS_SUCCESS;
        },
        &png);
    cairo_surface_destroy(surface);
    if (status != CAIRO_STATUS_SUCCESS)
        throw std::runtime_error(std::string("cannot encode the panel as PNG: ") +
                                 cairo_status_to_string(status));
    writeFileAtomically(path, png);
}

PanelSnapshot::PanelSnapshot(const float* values, LogChannel* log) : controller_(log) {
    for (std::size_t a = 0; a < kParameterCount; ++a) mirror.receive(a, values[a]);
    controller_.viewDidLoad();
    controller_.setAudioUnit(&mirror);
    controller_.mainQueue().drain();
    controller_.onTimer();
    controller_.mainQueue().drain();
}

} // namespace sr::editor
