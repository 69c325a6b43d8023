// Internal: the edge sweep behind qorCheckPolygon(), shared with the ring triangulator.
#ifndef QOR_POLYCHECK_SWEEP_H
#define QOR_POLYCHECK_SWEEP_H

#include <qor/qor_base2.h>
#include <qor/qor_export.h>

#include <string>
#include <utility>
#include <vector>

namespace qor_internal {

// Where two edges meet other than consecutive edges at their shared vertex.
struct Contact {
  enum Kind { None, Touch, Cross } kind = None;
  qorInt32 contourA = -1, contourB = -1;  // 0-based, contourA <= contourB
  double x = 0, y = 0;                    // a point near the contact
};

// Sorts the edges by their left end and sweeps them, testing each against the edges whose x-range overlaps its own
// (kept ordered by right end, so leaving edges go in O(log n)): O(n log n + k) for k edge pairs that overlap in
// x. Returns the first proper crossing found, or if there is none the first touch (an endpoint on another edge,
// collinear overlap, or a repeated point). Contours of size 0 or less are skipped; points are 0-based.
QOR_HIDDEN Contact findContact(qorInt32 count, const qorInt32* sizes, const double (*points)[2]);

// Every point that lies exactly on an edge strictly between its ends, as (point, edge) pairs: the edge runs from
// point `edge` to the next point of its contour. The same sweep, with points as events: O(n log n + k).
QOR_HIDDEN std::vector<std::pair<qorInt32, qorInt32>> findPointsOnEdges(qorInt32 count, const qorInt32* sizes,
                                                                        const double (*points)[2]);

// "contour 2 crosses contour 1 near (x, y)" and the like, contours counted from 1; `noun` replaces "contour".
QOR_HIDDEN std::string describeContact(const Contact& contact, const char* noun = "contour");

}  // namespace qor_internal

#endif
