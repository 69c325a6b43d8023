// Polygon validity: do the contours of a polygon with holes cross or touch?
#ifndef QOR_POLYCHECK_H
#define QOR_POLYCHECK_H

#include <string>

#include "qor_base2.h"
#include "qor_export.h"

// Checks `count` contours (contour c has sizes[c] points; points[0], points[1], ... hold them one contour after
// another, 0-based; contours of size 0 or less are skipped). Returns an empty string when no two edges cross or
// touch other than consecutive edges at their shared vertex; otherwise one line naming a problem, contours counted
// from 1 as the user counts them (contour 1 is the outer one): the first proper crossing found if there is one,
// else the first touch ("contour 2 crosses contour 1 near (x, y)", "contour 1 touches itself near (x, y)",
// "contour 3 touches contour 2 near (x, y)"). A touch is a vertex on another edge or vertex, edges that overlap
// along a line, a ring that runs back over itself, or a point repeated right after itself (so a closing point that
// repeats the first counts too). A contour of one or two points gives "contour K has fewer than 3 points", and a
// coordinate that is not finite "contour K has a coordinate that is not a finite number". Orientation is not
// checked. Exact double arithmetic: a vertex off an edge by rounding only is not on it.
// Cost: the edges are sorted by their left end and swept with an active set ordered by right end, so the check
// takes O(n log n + k) for k pairs of edges whose x-ranges overlap (k is small for ordinary polygons).
// Never raises on any input of matching sizes; a null array with a positive count raises a qorException*.
QOR_API std::string qorCheckPolygon(qorInt32 count, const qorInt32* sizes, const double (*points)[2]);

#endif
