#include "editor/ResizingBehavior.h"

#include <cmath>

namespace sr::editor {

std::optional<ResizingBehavior> resizingBehaviorFromRaw(int raw) {
    if (raw < 0 || raw > 3) return std::nullopt;
    return ResizingBehavior(raw);
}

CGRect applyResizing(ResizingBehavior behavior, const CGRect& rect, const CGRect& target,
                     CGSize& viewScale) {
    if (rect == target || target == CGRectZero) return rect;
    double sx = std::fabs(target.size.width / rect.size.width);
    double sy = std::fabs(target.size.height / rect.size.height);
    switch (behavior) {
    case ResizingBehavior::aspectFit:
        sx = sy = std::min(sx, sy);
        break;
    case ResizingBehavior::aspectFill:
        sx = sy = std::max(sx, sy);
        break;
    case ResizingBehavior::stretch:
        break;
    case ResizingBehavior::center:
        sx = sy = 1.0;
        break;
    }
    viewScale = {sx, sy};
    CGRect result = rect.standardized();
    result.size.width *= sx;
    result.size.height *= sy;
    result.origin.x = target.minX() + (target.width() - result.size.width) / 2;
    result.origin.y = target.minY() + (target.height() - result.size.height) / 2;
    return result;
}

} // namespace sr::editor
