// Internal: the input checks, the coverage check and the seed of triangulate().
#ifndef QOR_TRIANGULATE_GUARD_H
#define QOR_TRIANGULATE_GUARD_H

#include <qor/qor_base2.h>
#include <qor/qor_export.h>

namespace qor_internal {

// What the input checks learned about the polygon, for the coverage check.
struct ContourSummary {
  double originX = 0, originY = 0;  // the first point
  double extent = 0;                // the largest coordinate difference from it
  double twiceArea = 0;             // twice the polygon's area (outer minus holes), summed from the origin
  qorInt32 vertices = 0;
};

// Checks the contours of triangulate() (rows from 1) in one pass, before any table is touched: finite coordinates,
// no contour whose last point repeats its first, no point repeated right after itself, the first non-empty contour
// counter-clockwise and every later one clockwise. Raises a qorException* naming the contour (counted from 1) and
// fills `out` otherwise. Counts and sizes are already checked by the caller.
QOR_HIDDEN void checkContours(qorInt32 count, const qorInt32* sizes, const double (*rows)[2], ContourSummary& out);

// Compares the total area of `count` triangles (1-based rows) with the polygon's and raises
// "triangulate: the triangles do not cover the polygon (do contours touch or cross?)" when they differ beyond
// rounding. Triangles are counted by their absolute area, so an inverted or overlapping one cannot hide a gap.
QOR_HIDDEN void checkCover(const ContourSummary& summary, const double (*rows)[2], const qorInt32 (*triangles)[3],
                           qorInt32 count);

// The seed of the next random insertion order: the seed fixed by qorTriangulateFixSeed(), else the clock's second.
// Records it as the thread's last seed.
QOR_HIDDEN long runSeed();

}  // namespace qor_internal

#endif
