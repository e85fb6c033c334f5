// Plain geometry of the drawn panels: points, sizes and rectangles in doubles, with the few
// operations the drawing and the hit tests need.
#pragma once

#include <algorithm>
#include <cmath>

namespace sr::editor {

struct CGPoint {
    double x = 0, y = 0;
    bool operator==(const CGPoint&) const = default;
};

struct CGSize {
    double width = 0, height = 0;
    bool operator==(const CGSize&) const = default;
};

struct CGRect {
    CGPoint origin;
    CGSize size;

    constexpr CGRect() = default;
    constexpr CGRect(double x, double y, double w, double h) : origin{x, y}, size{w, h} {}
    bool operator==(const CGRect&) const = default;

    double minX() const { return std::min(origin.x, origin.x + size.width); }
    double minY() const { return std::min(origin.y, origin.y + size.height); }
    double maxX() const { return std::max(origin.x, origin.x + size.width); }
    double maxY() const { return std::max(origin.y, origin.y + size.height); }
    double width() const { return std::fabs(size.width); }
    double height() const { return std::fabs(size.height); }
    double midX() const { return (minX() + maxX()) / 2; }
    double midY() const { return (minY() + maxY()) / 2; }
    bool isEmpty() const { return size.width == 0 || size.height == 0; }
    // The same rectangle with a non-negative width and height.
    CGRect standardized() const { return {minX(), minY(), width(), height()}; }
    CGRect insetBy(double dx, double dy) const {
        return {minX() + dx, minY() + dy, width() - 2 * dx, height() - 2 * dy};
    }
    // Half-open, as a path's interior: a point on the right or bottom edge is outside.
    bool contains(CGPoint p) const {
        return !isEmpty() && p.x >= minX() && p.x < maxX() && p.y >= minY() && p.y < maxY();
    }
    bool intersects(const CGRect& o) const {
        return !isEmpty() && !o.isEmpty() && minX() < o.maxX() && o.minX() < maxX() &&
               minY() < o.maxY() && o.minY() < maxY();
    }
    CGRect unionWith(const CGRect& o) const {
        if (isEmpty()) return o;
        if (o.isEmpty()) return *this;
        const double x0 = std::min(minX(), o.minX()), y0 = std::min(minY(), o.minY());
        return {x0, y0, std::max(maxX(), o.maxX()) - x0, std::max(maxY(), o.maxY()) - y0};
    }
};

inline constexpr CGRect CGRectZero{};

} // namespace sr::editor
