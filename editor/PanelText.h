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
    // One line as drawLine, cut with "…" where it would pass the box's width.
    void drawLineElided(cairo_t* cr, std::string_view text, PanelFont font, double size,
                        const CGRect& box, TextAlign align, const UIColor& color);
    // Text broken into lines at the box's width, from its top; returns the height it took.
    double drawWrapped(cairo_t* cr, std::string_view text, PanelFont font, double size,
                       const CGRect& box, TextAlign align, const UIColor& color);
    // The height drawWrapped takes for the text at that width.
    double measureWrapped(std::string_view text, PanelFont font, double size, double width);
    // Where the caret before byte `index` of a line of text lies, from its left edge; and the
    // byte index nearest to `x` (for placing the caret with the pointer).
    double offsetOfIndex(std::string_view text, PanelFont font, double size, std::size_t index);
    std::size_t indexAtOffset(std::string_view text, PanelFont font, double size, double x);
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
    // `width` > 0 breaks lines at it (`elide` false) or cuts the line there with "…".
    PangoLayout* layout(std::string_view text, PanelFont font, double size, double width = 0,
                        bool elide = false, TextAlign align = TextAlign::left);

    PangoContext* context = nullptr;
    std::unordered_map<std::string, PangoLayout*> layouts;
    std::unordered_map<std::string, double> capHeights;
};

} // namespace sr::editor
