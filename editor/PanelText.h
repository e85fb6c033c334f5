// Text on the panels through Pango: the panel's named faces mapped onto Debian's fonts, laid
// out once and kept, so a redraw does not lay out the same label again.
#pragma once

#include <cairo.h>

#include <string>
#include <string_view>
#include <unordered_map>

#include "editor/Color.h"
#include "editor/Geometry.h"

typedef struct _PangoContext PangoContext;
typedef struct _PangoLayout PangoLayout;

namespace sr::editor {

// The faces the panel names, each drawn with the nearest Debian face: Liberation Sans (metric
// twin of the Helvetica family), Liberation Sans Narrow Bold for the condensed black face,
// DejaVu where those are missing.
enum class PanelFont { helveticaNeue, helveticaNeueMedium, condensedBlack, system };

enum class TextAlign { left, center, right };

class PanelText {
public:
    PanelText();
    ~PanelText();
    PanelText(const PanelText&) = delete;
    PanelText& operator=(const PanelText&) = delete;

    // One line, its capitals centred vertically in `box`, aligned horizontally in it.
    void drawLine(cairo_t* cr, std::string_view text, PanelFont font, double size,
                  const CGRect& box, TextAlign align, const UIColor& color);
    // Lines from the top-left corner of `box`, clipped to it.
    void drawBlock(cairo_t* cr, std::string_view text, PanelFont font, double size,
                   const CGRect& box, const UIColor& color);
    // Width and height of the text's logical extents, in canvas units.
    CGSize measure(std::string_view text, PanelFont font, double size);
    // The face's height of capitals at this size.
    double capHeight(PanelFont font, double size);

    // How many distinct texts are kept before the store starts over (the display's text
    // changes with every value).
    static constexpr std::size_t kCapacity = 512;
    // Text drawn smaller than this many pixels is drawn at this size instead: a panel shrunk
    // to half its size still reads.
    static constexpr double kMinimumPixels = 6.5;

private:
    static double legibleSize(cairo_t* cr, double size);
    PangoLayout* layout(std::string_view text, PanelFont font, double size);

    PangoContext* context = nullptr;
    std::unordered_map<std::string, PangoLayout*> layouts;
    std::unordered_map<std::string, double> capHeights;
};

} // namespace sr::editor
