#include "editor/PanelText.h"

#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>

namespace sr::editor {

namespace {

PangoFontDescription* describe(PanelFont font, double size) {
    const char* families = "Liberation Sans,DejaVu Sans";
    PangoWeight weight = PANGO_WEIGHT_NORMAL;
    PangoStretch stretch = PANGO_STRETCH_NORMAL;
    switch (font) {
    case PanelFont::helveticaNeue:
    case PanelFont::system:
        break;
    case PanelFont::helveticaNeueMedium:
        weight = PANGO_WEIGHT_MEDIUM;
        break;
    case PanelFont::condensedBlack:
        families = "Liberation Sans Narrow,DejaVu Sans Condensed,DejaVu Sans";
        weight = PANGO_WEIGHT_BOLD;
        stretch = PANGO_STRETCH_CONDENSED;
        break;
    }
    PangoFontDescription* d = pango_font_description_new();
    pango_font_description_set_family(d, families);
    pango_font_description_set_weight(d, weight);
    pango_font_description_set_stretch(d, stretch);
    // Sizes are in canvas units, which is what the panel's point sizes are.
    pango_font_description_set_absolute_size(d, size * PANGO_SCALE);
    return d;
}

std::string key(std::string_view text, PanelFont font, double size) {
    std::string k = std::to_string(int(font)) + "/" + std::to_string(size) + "/";
    k.append(text);
    return k;
}

} // namespace

PanelText::PanelText() {
    context = pango_font_map_create_context(pango_cairo_font_map_get_default());
    // Unhinted metrics: the layout is the same at every scale, and Cairo renders the outlines
    // at the scale they are drawn, so text is as sharp at 3x as at 1x; slight hinting keeps
    // small text crisp vertically.
    cairo_font_options_t* options = cairo_font_options_create();
    cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_GRAY);
    cairo_font_options_set_hint_style(options, CAIRO_HINT_STYLE_SLIGHT);
    cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_OFF);
    pango_cairo_context_set_font_options(context, options);
    cairo_font_options_destroy(options);
    pango_context_set_round_glyph_positions(context, FALSE);
}

PanelText::~PanelText() {
    for (auto& [k, l] : layouts) g_object_unref(l);
    g_object_unref(context);
}

double PanelText::legibleSize(cairo_t* cr, double size) {
    double dx = 1, dy = 0;
    cairo_user_to_device_distance(cr, &dx, &dy);
    const double scale = std::hypot(dx, dy);
    return scale > 0 && size * scale < kMinimumPixels ? kMinimumPixels / scale : size;
}

PangoLayout* PanelText::layout(std::string_view text, PanelFont font, double size, double width,
                               bool elide, TextAlign align) {
    std::string k = key(text, font, size);
    if (width > 0)
        k = std::to_string(width) + (elide ? "e" : "w") + std::to_string(int(align)) + "/" + k;
    if (auto it = layouts.find(k); it != layouts.end()) return it->second;
    if (layouts.size() >= kCapacity) {
        for (auto& [old, l] : layouts) g_object_unref(l);
        layouts.clear();
    }
    PangoLayout* l = pango_layout_new(context);
    PangoFontDescription* d = describe(font, size);
    pango_layout_set_font_description(l, d);
    pango_font_description_free(d);
    pango_layout_set_text(l, text.data(), int(text.size()));
    if (width > 0) {
        pango_layout_set_width(l, int(width * PANGO_SCALE));
        if (elide) {
            pango_layout_set_ellipsize(l, PANGO_ELLIPSIZE_END);
            pango_layout_set_single_paragraph_mode(l, TRUE);
        } else {
            pango_layout_set_wrap(l, PANGO_WRAP_WORD_CHAR);
            pango_layout_set_alignment(l, align == TextAlign::center  ? PANGO_ALIGN_CENTER
                                          : align == TextAlign::right ? PANGO_ALIGN_RIGHT
                                                                      : PANGO_ALIGN_LEFT);
        }
    }
    layouts.emplace(std::move(k), l);
    return l;
}

double PanelText::capHeight(PanelFont font, double size) {
    const std::string k = key("H", font, size);
    if (auto it = capHeights.find(k); it != capHeights.end()) return it->second;
    PangoRectangle ink;
    pango_layout_get_extents(layout("H", font, size), &ink, nullptr);
    const double h = double(ink.height) / PANGO_SCALE;
    capHeights.emplace(k, h);
    return h;
}

CGSize PanelText::measure(std::string_view text, PanelFont font, double size) {
    PangoRectangle logical;
    pango_layout_get_extents(layout(text, font, size), nullptr, &logical);
    return {double(logical.width) / PANGO_SCALE, double(logical.height) / PANGO_SCALE};
}

void PanelText::drawLine(cairo_t* cr, std::string_view text, PanelFont font, double size,
                         const CGRect& box, TextAlign align, const UIColor& color) {
    size = legibleSize(cr, size);
    PangoLayout* l = layout(text, font, size);
    PangoRectangle logical;
    pango_layout_get_extents(l, nullptr, &logical);
    const double width = double(logical.width) / PANGO_SCALE;
    const double baseline = double(pango_layout_get_baseline(l)) / PANGO_SCALE;
    double x = box.minX();
    if (align == TextAlign::center) x = box.midX() - width / 2;
    if (align == TextAlign::right) x = box.maxX() - width;
    const double y = box.midY() + capHeight(font, size) / 2 - baseline;
    cairo_save(cr);
    color.set(cr);
    cairo_move_to(cr, x, y);
    pango_cairo_show_layout(cr, l);
    cairo_restore(cr);
}

void PanelText::drawBlock(cairo_t* cr, std::string_view text, PanelFont font, double size,
                          const CGRect& box, const UIColor& color) {
    size = legibleSize(cr, size);
    PangoLayout* l = layout(text, font, size);
    cairo_save(cr);
    cairo_rectangle(cr, box.minX(), box.minY(), box.width(), box.height());
    cairo_clip(cr);
    color.set(cr);
    cairo_move_to(cr, box.minX(), box.minY());
    pango_cairo_show_layout(cr, l);
    cairo_restore(cr);
}

void PanelText::drawLineElided(cairo_t* cr, std::string_view text, PanelFont font, double size,
                               const CGRect& box, TextAlign align, const UIColor& color) {
    size = legibleSize(cr, size);
    if (measure(text, font, size).width <= box.width())
        return drawLine(cr, text, font, size, box, align, color);
    PangoLayout* l = layout(text, font, size, box.width(), true);
    const double baseline = double(pango_layout_get_baseline(l)) / PANGO_SCALE;
    cairo_save(cr);
    color.set(cr);
    cairo_move_to(cr, box.minX(), box.midY() + capHeight(font, size) / 2 - baseline);
    pango_cairo_show_layout(cr, l);
    cairo_restore(cr);
}

double PanelText::drawWrapped(cairo_t* cr, std::string_view text, PanelFont font, double size,
                              const CGRect& box, TextAlign align, const UIColor& color) {
    size = legibleSize(cr, size);
    PangoLayout* l = layout(text, font, size, box.width(), false, align);
    PangoRectangle logical;
    pango_layout_get_extents(l, nullptr, &logical);
    cairo_save(cr);
    color.set(cr);
    cairo_move_to(cr, box.minX(), box.minY());
    pango_cairo_show_layout(cr, l);
    cairo_restore(cr);
    return double(logical.height) / PANGO_SCALE;
}

double PanelText::measureWrapped(std::string_view text, PanelFont font, double size, double width) {
    PangoRectangle logical;
    pango_layout_get_extents(layout(text, font, size, width), nullptr, &logical);
    return double(logical.height) / PANGO_SCALE;
}

double PanelText::offsetOfIndex(std::string_view text, PanelFont font, double size,
                                std::size_t index) {
    PangoRectangle pos;
    pango_layout_index_to_pos(layout(text, font, size), int(std::min(index, text.size())), &pos);
    return double(pos.x) / PANGO_SCALE;
}

std::size_t PanelText::indexAtOffset(std::string_view text, PanelFont font, double size, double x) {
    int index = 0, trailing = 0;
    pango_layout_xy_to_index(layout(text, font, size), int(x * PANGO_SCALE), 0, &index, &trailing);
    std::size_t i = std::size_t(std::max(index, 0));
    // Past the middle of a character: after it.
    for (; trailing > 0 && i < text.size(); --trailing) {
        ++i;
        while (i < text.size() && (static_cast<unsigned char>(text[i]) & 0xC0) == 0x80) ++i;
    }
    return std::min(i, text.size());
}

} // namespace sr::editor
