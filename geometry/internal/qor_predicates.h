// Internal: the geometric predicates and the area tolerance that the triangulators and the checks share.
//
// orient2d() gives the exact sign of an orientation test for any finite coordinates whose products neither overflow
// nor underflow: a floating-point estimate decides when it lies outside its error bound, and only the rare cases it
// cannot decide are recomputed exactly with expansion arithmetic (J. R. Shewchuk, "Adaptive Precision
// Floating-Point Arithmetic and Fast Robust Geometric Predicates", 1997). Callers keep coordinates in a range where
// that holds; qor_internal::exactRange() says which range that is.
#ifndef QOR_PREDICATES_H
#define QOR_PREDICATES_H

#include <qor/qor_export.h>

#include <cfloat>
#include <cmath>
#include <cstddef>

namespace qor_internal {

struct Pt {
  double x, y;
};

// The estimate's relative error bound: (3 + 16 eps) eps, eps = 2^-53.
constexpr double kOrientBound = (3.0 + 16.0 * (DBL_EPSILON / 2)) * (DBL_EPSILON / 2);

// The exact sign of (a2 - a1) x (b2 - b1), as -1, 0 or 1. The slow path of orient2d() and crossDirections().
QOR_HIDDEN double crossExact(const Pt& a1, const Pt& a2, const Pt& b1, const Pt& b2);

// Twice the signed area of the triangle a, b, c: positive when it runs counter-clockwise, negative when clockwise,
// zero exactly when the points are collinear. The sign is exact; the magnitude is an estimate, except that a
// result decided by the slow path is -1, 0 or 1.
inline double orient2d(const Pt& a, const Pt& b, const Pt& c) {
  const double left = (a.x - c.x) * (b.y - c.y);
  const double right = (a.y - c.y) * (b.x - c.x);
  const double det = left - right;
  double sum;
  if (left > 0) {
    if (right <= 0) return det;
    sum = left + right;
  } else if (left < 0) {
    if (right >= 0) return det;
    sum = -left - right;
  } else {
    return det;
  }
  const double bound = kOrientBound * sum;
  if (det >= bound || -det >= bound) return det;
  return crossExact(c, a, c, b);
}

// The cross product of the directions a1 -> a2 and b1 -> b2: positive when b turns left from a, zero exactly when
// they are parallel. The sign is exact, as for orient2d().
inline double crossDirections(const Pt& a1, const Pt& a2, const Pt& b1, const Pt& b2) {
  const double left = (a2.x - a1.x) * (b2.y - b1.y);
  const double right = (a2.y - a1.y) * (b2.x - b1.x);
  const double det = left - right;
  const double sum = std::fabs(left) + std::fabs(right);
  const double bound = kOrientBound * sum;
  if (det > bound || -det > bound) return det;
  return crossExact(a1, a2, b1, b2);
}

// The exact sign of the sum of orient2d(o, p[i], p[i + 1]) over a closed ring of n points (twice its signed area):
// -1, 0 or 1. `estimate` receives the floating-point sum.
QOR_HIDDEN int ringOrientation(const Pt* p, size_t n, double& estimate);

// Whether coordinates whose largest magnitude is `largest` and whose smallest non-zero magnitude is `smallest`
// keep orient2d() exact: every product of coordinate differences and every rounding error of one is a normal
// number. exactScale() gives a power of two that brings any set of coordinates whose magnitudes span at most 2^400
// into that range (1 when they are in it already); 0 when they span more.
QOR_HIDDEN bool exactRange(double largest, double smallest);
QOR_HIDDEN double exactScale(double largest, double smallest);

// The largest difference between a triangulation's and its polygon's doubled area that rounding explains, for
// `terms` cross products over coordinates within `extent` of the origin.
QOR_HIDDEN double areaTolerance(double extent, long terms);

// Where the lines through a, b and c, d meet, for segments known to cross: computed in double, within a few units
// in the last place of the coordinates' extent of the true point.
QOR_HIDDEN Pt crossingPoint(const Pt& a, const Pt& b, const Pt& c, const Pt& d);

}  // namespace qor_internal

#endif
