// How a drawing made for a fixed design rectangle fills whatever rectangle it is given, and the
// scale it leaves behind for turning pointer positions back into design units.
#pragma once

#include <optional>

#include "editor/Geometry.h"

namespace sr::editor {

enum class ResizingBehavior : int { aspectFit = 0, aspectFill = 1, stretch = 2, center = 3 };

// The behaviour for a raw value; none for a value outside 0..3.
std::optional<ResizingBehavior> resizingBehaviorFromRaw(int raw);

// Fits `rect` into `target` by `behavior` and returns the rectangle to draw the design into,
// centred in the target. `viewScale` receives the scale factors; it is left as it was when the
// target equals the design or is the zero rectangle, which then draws at design size.
CGRect applyResizing(ResizingBehavior behavior, const CGRect& rect, const CGRect& target,
                     CGSize& viewScale);

} // namespace sr::editor
