// Polygon validity: do the contours of a polygon with holes cross or touch?
#ifndef QOR_POLYCHECK_H
#define QOR_POLYCHECK_H

#include <string>

#include "qor_base2.h"
#include "qor_export.h"

// Checks `count` contours (contour c has sizes[c] points; points[0], points[1], ... hold them one contour after
// another, 0-based; contours of size 0 or less are skipped) in O(n log n). Returns an empty string when no two
// edges cross or touch other than consecutive edges at their shared vertex; otherwise one line naming the first
// problem found, contours counted from 1 as the user counts them (contour 1 is the outer one), for example
// "contour 2 crosses contour 1 near (x, y)" or "contour 1 touches itself near (x, y)". Never raises on any input
// of matching sizes; a null array with a positive count raises a qorException*.
QOR_API std::string qorCheckPolygon(qorInt32 count, const qorInt32* sizes, const double (*points)[2]);

#endif
