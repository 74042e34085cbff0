#pragma once

/// @file
/// Points, sizes, rectangles and affine transforms.

#include <algorithm>
#include <cmath>
#include <limits>

namespace kwq {

/// A point in double precision.
struct Point {
  ///@{
  /// The coordinates.
  double x = 0.0;
  double y = 0.0;
  ///@}

  /// The origin.
  static constexpr Point zero() { return {}; }
  /// Exact equality.
  friend constexpr bool operator==(const Point&, const Point&) = default;
};

/// A width and height in double precision.
struct Size {
  ///@{
  /// The extents; negative ones are allowed in rectangles.
  double width = 0.0;
  double height = 0.0;
  ///@}

  /// Zero by zero.
  static constexpr Size zero() { return {}; }
  /// Exact equality.
  friend constexpr bool operator==(const Size&, const Size&) = default;
};

/// An affine transform mapping (x, y) to (a x + c y + tx, b x + d y + ty).
struct AffineTransform {
  ///@{
  /// The coefficients; the identity by default.
  double a = 1.0;
  double b = 0.0;
  double c = 0.0;
  double d = 1.0;
  double tx = 0.0;
  double ty = 0.0;
  ///@}

  /// The identity.
  static constexpr AffineTransform identity() { return {}; }
  /// A rotation by `radians` (towards +y).
  static AffineTransform rotation(double radians) {
    const double s = std::sin(radians), co = std::cos(radians);
    return {co, s, -s, co, 0.0, 0.0};
  }
  /// A scale by sx and sy.
  static constexpr AffineTransform scale(double sx, double sy) { return {sx, 0, 0, sy, 0, 0}; }
  /// A translation by x and y.
  static constexpr AffineTransform translation(double x, double y) { return {1, 0, 0, 1, x, y}; }

  /// This transform followed by `t` (the platform's concat order).
  constexpr AffineTransform concat(const AffineTransform& t) const {
    return {a * t.a + b * t.c, a * t.b + b * t.d,          c * t.a + d * t.c,
            c * t.b + d * t.d, tx * t.a + ty * t.c + t.tx, tx * t.b + ty * t.d + t.ty};
  }
  /// `t` applied first, then this transform's earlier steps: scale-then-translate builds as
  /// scale(...).translated(...), which translates in the scaled space.
  constexpr AffineTransform translated(double x, double y) const {
    return translation(x, y).concat(*this);
  }
  /// A rotation, then this transform (as translated()).
  AffineTransform rotated(double radians) const { return rotation(radians).concat(*this); }
  /// A scale, then this transform (as translated()).
  constexpr AffineTransform scaled(double sx, double sy) const {
    return scale(sx, sy).concat(*this);
  }

  /// Where `p` lands.
  constexpr Point apply(Point p) const { return {a * p.x + c * p.y + tx, b * p.x + d * p.y + ty}; }
  /// Exact equality.
  friend constexpr bool operator==(const AffineTransform&, const AffineTransform&) = default;
};

/// A rectangle in double precision with the platform's semantics: a negative size is
/// standardised before use, and the null rectangle (infinite origin) stands for "no rectangle".
struct Rect {
  /// The corner the size is measured from.
  Point origin;
  /// The extent from the origin; may be negative.
  Size size;

  /// The zero rectangle.
  constexpr Rect() = default;
  /// A rectangle at (x, y) of w by h.
  constexpr Rect(double x, double y, double w, double h) : origin{x, y}, size{w, h} {}
  /// A rectangle at `o` of size `s`.
  constexpr Rect(Point o, Size s) : origin(o), size(s) {}

  /// The rectangle at the origin with no size.
  static constexpr Rect zero() { return {}; }
  /// The null rectangle: no rectangle at all.
  static constexpr Rect null() {
    return {std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity(), 0, 0};
  }

  /// True for the null rectangle.
  bool isNull() const { return std::isinf(origin.x) || std::isinf(origin.y); }
  /// True for the null rectangle and for one without area.
  bool isEmpty() const { return isNull() || size.width == 0.0 || size.height == 0.0; }

  /// The same rectangle with a non-negative size.
  Rect standardized() const {
    if (isNull()) return *this;
    Rect r = *this;
    if (r.size.width < 0) {
      r.origin.x += r.size.width;
      r.size.width = -r.size.width;
    }
    if (r.size.height < 0) {
      r.origin.y += r.size.height;
      r.size.height = -r.size.height;
    }
    return r;
  }
  ///@{
  /// Edges and centre of the standardised rectangle.
  double minX() const { return standardized().origin.x; }
  double minY() const { return standardized().origin.y; }
  double maxX() const {
    const Rect r = standardized();
    return r.origin.x + r.size.width;
  }
  double maxY() const {
    const Rect r = standardized();
    return r.origin.y + r.size.height;
  }
  double midX() const {
    const Rect r = standardized();
    return r.origin.x + r.size.width * 0.5;
  }
  double midY() const {
    const Rect r = standardized();
    return r.origin.y + r.size.height * 0.5;
  }
  ///@}
  ///@{
  /// The size without sign.
  double width() const { return std::abs(size.width); }
  double height() const { return std::abs(size.height); }
  ///@}

  /// True when `p` lies inside; the maximum edges are outside.
  bool contains(Point p) const {
    if (isNull()) return false;
    return p.x >= minX() && p.x < maxX() && p.y >= minY() && p.y < maxY();
  }
  /// True when `r` lies wholly inside this rectangle; false when either is null.
  bool contains(const Rect& r) const {
    if (isNull() || r.isNull()) return false;
    return r.minX() >= minX() && r.maxX() <= maxX() && r.minY() >= minY() && r.maxY() <= maxY();
  }
  /// The common part, or the null rectangle when they do not meet.
  Rect intersection(const Rect& r) const {
    if (isNull() || r.isNull()) return null();
    const double x0 = std::max(minX(), r.minX()), y0 = std::max(minY(), r.minY());
    const double x1 = std::min(maxX(), r.maxX()), y1 = std::min(maxY(), r.maxY());
    if (x1 < x0 || y1 < y0) return null();
    return {x0, y0, x1 - x0, y1 - y0};
  }
  /// Shrinks each side by dx and dy; the null rectangle when nothing is left.
  Rect insetBy(double dx, double dy) const {
    if (isNull()) return *this;
    Rect r = standardized();
    r.origin.x += dx;
    r.origin.y += dy;
    r.size.width -= 2 * dx;
    r.size.height -= 2 * dy;
    if (r.size.width < 0 || r.size.height < 0) return null();
    return r;
  }
  /// The smallest rectangle with integral edges that contains this one.
  Rect integral() const {
    if (isNull()) return *this;
    const double x0 = std::floor(minX()), y0 = std::floor(minY());
    return {x0, y0, std::ceil(maxX()) - x0, std::ceil(maxY()) - y0};
  }
  /// The bounding box of the four transformed corners.
  Rect applying(const AffineTransform& t) const {
    if (isNull()) return *this;
    const Point p[4] = {t.apply({minX(), minY()}), t.apply({maxX(), minY()}),
                        t.apply({minX(), maxY()}), t.apply({maxX(), maxY()})};
    double x0 = p[0].x, x1 = p[0].x, y0 = p[0].y, y1 = p[0].y;
    for (const Point& q : p) {
      x0 = std::min(x0, q.x);
      x1 = std::max(x1, q.x);
      y0 = std::min(y0, q.y);
      y1 = std::max(y1, q.y);
    }
    return {x0, y0, x1 - x0, y1 - y0};
  }
  /// Exact equality of origin and size (not standardised).
  friend constexpr bool operator==(const Rect&, const Rect&) = default;
};

}  // namespace kwq
