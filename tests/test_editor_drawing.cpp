// The panel's drawing, checked by pixels at known places of image surfaces: handle positions,
// value arcs, the contrast setting, the two pages, and a held knob's size.
#include <gtest/gtest.h>

#include <cairo.h>

#include <cmath>
#include <numbers>

#include "editor/TAVSRChorusViewBase.h"

namespace {

using sr::editor::CGPoint;
using sr::editor::CGRect;
using sr::editor::TAVSRChorusViewBase;

struct Pixel {
    double r, g, b;
    double distance(const Pixel& o) const {
        return std::max({std::fabs(r - o.r), std::fabs(g - o.g), std::fabs(b - o.b)});
    }
    double luminance() const { return 0.2126 * r + 0.7152 * g + 0.0722 * b; }
};

// A panel drawn at 1024 x 400 (one pixel per canvas unit) or at a multiple of it.
class Image {
public:
    explicit Image(TAVSRChorusViewBase& panel, int scale = 1) : scale(scale) {
        surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1024 * scale, 400 * scale);
        cairo_t* cr = cairo_create(surface);
        panel.drawMain(cr, {0, 0, 1024.0 * scale, 400.0 * scale});
        cairo_destroy(cr);
        cairo_surface_flush(surface);
    }
    ~Image() { cairo_surface_destroy(surface); }
    Image(const Image&) = delete;

    // The colour at a canvas point (opaque panel: premultiplied equals straight).
    Pixel at(double x, double y) const {
        const int px = int(std::floor(x * scale)), py = int(std::floor(y * scale));
        const unsigned char* row =
            cairo_image_surface_get_data(surface) + py * cairo_image_surface_get_stride(surface);
        const auto* p = reinterpret_cast<const std::uint32_t*>(row) + px;
        return {((*p >> 16) & 0xFF) / 255.0, ((*p >> 8) & 0xFF) / 255.0, (*p & 0xFF) / 255.0};
    }
    // Extremes of luminance over a canvas rectangle.
    std::pair<double, double> luminanceRange(const CGRect& r) const {
        double lo = 1, hi = 0;
        for (double y = r.minY(); y < r.maxY(); y += 1.0 / scale)
            for (double x = r.minX(); x < r.maxX(); x += 1.0 / scale) {
                const double l = at(x, y).luminance();
                lo = std::min(lo, l);
                hi = std::max(hi, l);
            }
        return {lo, hi};
    }
    bool sameRegion(const Image& o, const CGRect& r) const {
        for (double y = r.minY(); y < r.maxY(); ++y)
            for (double x = r.minX(); x < r.maxX(); ++x)
                if (at(x, y).distance(o.at(x, y)) > 0) return false;
        return true;
    }

private:
    cairo_surface_t* surface;
    int scale;
};

const Pixel kOrange{0.884, 0.37, 0.181};

bool isOrange(const Pixel& p) {
    // The accent colour, allowing for antialiased edges and the translucent layers over it.
    return p.r > 0.6 && p.r - p.b > 0.35 && p.g < 0.55;
}

// A point on a knob's value ring at a screen angle (degrees clockwise from +x).
CGPoint ringPoint(CGPoint knobCentre, double width, double degrees) {
    const CGRect frame = TAVSRChorusViewBase::knobFrame(knobCentre, width);
    const double s = width / TAVSRChorusViewBase::kKnobSymbol.width;
    const double a = degrees * std::numbers::pi / 180;
    return {frame.minX() + (73.5 + 25.6 * std::cos(a)) * s,
            frame.minY() + (44.5 + 25.6 * std::sin(a)) * s};
}

TEST(EditorDrawing, DefaultStateHandlesAtTheEndsAndArcsAtFullSweep) {
    TAVSRChorusViewBase panel;
    Image image(panel);
    // Each handle's accent arrow points into the bar, 6 units inside its split point.
    EXPECT_TRUE(isOrange(image.at(54 + 6, 126.5)));
    EXPECT_TRUE(isOrange(image.at(973 - 6, 126.5)));
    // Value 1 ends the arc at 45 degrees (lower right): lit just before, not beyond.
    for (const double x : TAVSRChorusViewBase::kKnobColumnX) {
        const CGPoint centre{x, TAVSRChorusViewBase::kKnobRowY};
        EXPECT_TRUE(isOrange(image.at(ringPoint(centre, 108, 40).x, ringPoint(centre, 108, 40).y)))
            << "knob at x " << x;
        EXPECT_TRUE(
            isOrange(image.at(ringPoint(centre, 108, 135 + 5).x, ringPoint(centre, 108, 140).y)));
        EXPECT_FALSE(
            isOrange(image.at(ringPoint(centre, 108, 60).x, ringPoint(centre, 108, 60).y)));
    }
    const CGPoint large = TAVSRChorusViewBase::kDryWetKnob;
    EXPECT_TRUE(isOrange(image.at(ringPoint(large, 120, 40).x, ringPoint(large, 120, 40).y)));
}

TEST(EditorDrawing, HandlesAndArcsFollowTheValues) {
    TAVSRChorusViewBase panel;
    panel.valueSplitLP = 0.25;
    panel.valueSplitHP = 0.75;
    panel.valueDepth = 0.5; // knob angle 180: the arc ends at the top
    Image image(panel);
    EXPECT_FALSE(isOrange(image.at(54 + 6, 126.5)));
    EXPECT_TRUE(isOrange(image.at(54 + 919 * 0.25 + 6, 126.5)));
    EXPECT_TRUE(isOrange(image.at(54 + 919 * 0.75 - 6, 126.5)));
    const CGPoint depth{122, 229};
    EXPECT_TRUE(isOrange(image.at(ringPoint(depth, 108, 260).x, ringPoint(depth, 108, 260).y)));
    EXPECT_FALSE(isOrange(image.at(ringPoint(depth, 108, 290).x, ringPoint(depth, 108, 290).y)));
    EXPECT_FALSE(isOrange(image.at(ringPoint(depth, 108, 40).x, ringPoint(depth, 108, 40).y)));
}

TEST(EditorDrawing, ContrastZeroAndOneSwapBackgroundAndText) {
    const CGRect title{46, 47, 140, 24};  // "TAV SR SERIES"
    const CGRect plain{400, 20, 300, 20}; // bare plate above the subtitle
    TAVSRChorusViewBase dark;
    dark.colorMain = sr::editor::UIColor::grey(0.0);
    dark.colorContrast = sr::editor::UIColor::grey(1.0);
    TAVSRChorusViewBase light;
    light.colorMain = sr::editor::UIColor::grey(1.0);
    light.colorContrast = sr::editor::UIColor::grey(0.0);
    Image d(dark), l(light);
    const auto [darkPlateLo, darkPlateHi] = d.luminanceRange(plain);
    const auto [lightPlateLo, lightPlateHi] = l.luminanceRange(plain);
    EXPECT_LT(darkPlateHi, 0.06);
    EXPECT_GT(lightPlateLo, 0.9);
    // The title's strokes are the opposite of the plate.
    EXPECT_GT(d.luminanceRange(title).second, 0.95);
    EXPECT_LT(l.luminanceRange(title).first, 0.05);
}

TEST(EditorDrawing, SwitchingPagesSwapsTheSmallKnobsOnly) {
    TAVSRChorusViewBase mainPage;
    TAVSRChorusViewBase lfoPage;
    lfoPage.isMainVisible = false;
    Image m(mainPage), l(lfoPage);
    // The first slot holds depth on the main page and nothing on the LFO page.
    EXPECT_GT(m.at(122, 229).distance(m.at(122, 180)), 0.05);
    EXPECT_LT(l.at(122, 229).distance(l.at(20, 229)), 0.01);
    // The captions of the other four differ.
    for (const double x : {249.0, 376.0, 503.0, 630.0})
        EXPECT_FALSE(m.sameRegion(l, {x - 10, 257, 50, 10})) << "slot at x " << x;
    // The dry/wet knob, the split bar, the display and the top row stay.
    EXPECT_TRUE(m.sameRegion(l, {859, 208, 122, 112}));
    EXPECT_TRUE(m.sameRegion(l, {0, 0, 1024, 176}));
    EXPECT_TRUE(m.sameRegion(l, {48, 300, 488, 58}));
}

TEST(EditorDrawing, HeldKnobIsDrawnLarger) {
    // The depth knob's black well: its outer edge is 29 + 1.5 units from its centre at 108
    // units wide, 1.2 times that while held.
    const double s = 108.0 / 116;
    const CGRect frame = TAVSRChorusViewBase::knobFrame({122, 229}, 108);
    const CGPoint well{frame.minX() + 73.75 * s, frame.minY() + 44.25 * s};
    const CGPoint held{122 + 1.2 * (well.x - 122), 229 + 1.2 * (well.y - 229)};
    const double outer = (29 + 1.5) * s;

    TAVSRChorusViewBase panel;
    Image normal(panel);
    panel.isKnobDepthActive = true;
    Image bigger(panel, 2);
    // Just outside the normal well's edge, to the right: plate when normal, well when held.
    const double probe = 1.2 * outer - 1.0;
    EXPECT_GT(normal.at(well.x + probe * 1.0 / 1.2 + 2.5, well.y).luminance(), 0.3);
    EXPECT_LT(bigger.at(held.x + probe, held.y).luminance(), 0.1);
    // The enlarged card reaches beyond the normal one.
    const double cardRight = frame.maxX();
    EXPECT_GT(122 + 1.2 * (cardRight - 122), cardRight + 10);
    EXPECT_GT(bigger.at(122 + 1.2 * (frame.minX() + 1.25 * s - 122) + 0.2, 229)
                  .distance(normal.at(122 + 1.2 * (frame.minX() + 1.25 * s - 122) + 0.2, 229)),
              0.1);
}

TEST(EditorDrawing, SharpAtThreeTimesTheSize) {
    // Drawn at 3x, the title's capitals have hard edges: nearly black and nearly white pixels
    // next to each other, not a blur of greys.
    TAVSRChorusViewBase panel;
    Image big(panel, 3);
    const auto [lo, hi] = big.luminanceRange({46, 50, 100, 18});
    EXPECT_LT(lo, 0.2);
    EXPECT_GT(hi, 0.85);
}

} // namespace
