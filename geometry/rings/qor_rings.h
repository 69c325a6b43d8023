// Polygons as users have them: rings of points in any orientation, with repeated and closing points, rings that
// touch each other or themselves, any size. The engine sweeps the rings once from bottom to top with exact
// orientation tests: it finds where edges cross, touch or overlap, keeps the winding number of every region it
// passes, and triangulates the region as it goes. It owns its storage (kept per thread between calls), takes no
// lock and uses no randomness, so the same input gives the same triangles in every run and every thread, and two
// threads triangulating different polygons run in parallel. qorTriangulateFixSeed() and the other seed calls of
// qor_triangulate.h concern triangulate() only; they change nothing here.
//
// Coordinates: any finite doubles whose magnitudes span at most 2^400 (about 1e120) from the largest to the
// smallest non-zero one: the engine scales them by a power of two, which changes no comparison, so that every
// orientation test is exact. Wider spans raise "<call>: the coordinates are out of range (their magnitudes span
// more than 2^400)". Messages name rings counted from 1 (ring 1 is the first ring given) and a point in the caller's
// coordinates.
#ifndef QOR_RINGS_H
#define QOR_RINGS_H

#include <string>
#include <vector>

#include "qor_base2.h"
#include "qor_export.h"

// Triangulates a polygon with holes given as rings of points: ring 0 is the outer boundary, the others are holes.
// sizes[r] points belong to ring r; points[0], points[1], ... hold the (x, y) rows of all rings one after another
// (rings of size 0 or less are skipped and take no rows).
// What it accepts: either orientation for any ring (ring 0 is taken counter-clockwise, the others clockwise);
// repeated points and a closing point equal to the first; spikes (a ring that runs out and straight back); rings
// that touch each other or themselves at points, at a point inside another ring's edge, or along shared edges
// (edges that run over each other in opposite directions cancel). The region is the set of points inside ring 0
// and outside every hole, and it is triangulated whatever its shape.
// What it appends: 3 indices per triangle to `triangles` (0-based indices into `points`, counter-clockwise, every
// triangle of positive area); earlier contents stay. Where several points coincide, the triangles use the first of
// them. Returns the number of triangles appended. The triangles' areas add up to the region's (the outer ring's
// area minus the holes'), which is checked before anything is appended.
// What it raises, appending nothing (the message starts with "qorTriangulateRings: " and names rings and a point):
//   - a ring count below 1 or a null array; more than 2^30 points;
//   - a coordinate that is not finite ("a coordinate is not a finite number (ring R, point P)"), or coordinates out
//     of range (above);
//   - "ring B crosses ring A near (x, y) (edges cross)" (or "ring A crosses itself") where two edges properly
//     cross: the lowest such crossing;
//   - "ring K is a hole that lies outside the outer ring" when part of a hole lies outside ring 0, and "ring B
//     overlaps ring A near (x, y)" (or "ring A overlaps itself") when rings cover a region twice without crossing:
//     a hole inside another hole, two copies of one hole, a ring that winds twice around a region;
//   - "ring 1, the outer ring, has no area, but ring K has" when ring 0 is empty, has fewer than 3 distinct points
//     or has no area while another ring has area. When no ring has area the call returns 0.
// Time and memory grow as n log n in the number of points n.
QOR_API qorInt32 qorTriangulateRings(qorInt32 count, const qorInt32* sizes, const double (*points)[2],
                                     std::vector<qorInt32>& triangles);

// Fill rules for rings whose edges may cross: the region is the set of points whose winding number (how many times
// the rings wind around the point, counter-clockwise counting +1) is odd, or is not zero. These are the odd and
// non-zero winding rules of the usual tessellators.
enum qorFillRule { qorFillEvenOdd = 1, qorFillNonZero = 2 };

// Triangulates the region that `count` rings enclose under `rule`. Every ring is a closed contour of any
// orientation, and ring 0 is not special; repeated and closing points and zero-length edges are allowed, and edges
// may cross, touch, or run over each other (collinear overlaps count once per edge, with its direction).
// Where edges properly cross, both are split at a new point, appended to `added` as an x, y pair (`added` is cleared
// first, so index N+k always means this call's k-th new point); where a point lies on another edge, that edge is
// split at the point, which is not new. Triangle indices 0..N-1 refer to the N input points (all rows of all rings
// in order, rings of size 0 or less taking none); index N+k refers to added[2k], added[2k+1]. Appends the
// triangles counter-clockwise to `triangles` (earlier contents stay) and returns how many.
// How exact: whether and where edges cross, touch and overlap is decided with exact orientation tests on the input
// points, and every later test against a split edge uses the input edge it is a piece of, so no crossing is missed
// or invented. A new point is computed in double from the exact distances of one edge's ends to the other's line,
// rounded once: it lies within a few units in the last place of the coordinates' magnitude of the true crossing,
// inside both edges' bounding boxes. Where rounding puts several crossings on one point, they meet there. The
// triangles' areas add up to the region's area within what that rounding explains. Degenerate configurations give
// no triangle outside the region; a triangle between points that rounding nearly aligned may be a sliver.
// An input whose region is empty gives no triangles and no error. Raises (appending nothing, with `added` empty) on
// a rule that is neither value, a ring count below 1, a null array, more than 2^30 points, a coordinate that is not
// finite ("qorTriangulateRingsFill: a coordinate is not a finite number (ring R, point P)") or coordinates out of
// range (above). Takes O((n + k) log n) time for n points and k crossings; no lock, and the same output in every
// run and thread.
QOR_API qorInt32 qorTriangulateRingsFill(qorInt32 count, const qorInt32* sizes, const double (*points)[2],
                                         qorFillRule rule, std::vector<qorInt32>& triangles,
                                         std::vector<double>& added);

// What qorTriangulateRings() found in its input, for the calling thread's most recent call.
struct qorRingFixups {
  qorInt32 ringsReoriented;  // rings whose direction was reversed
  qorInt32 pointsDropped;    // repeated and closing points left out, and the points of dropped rings
  qorInt32 ringsDropped;     // rings left out: fewer than 3 distinct points, or no area
  qorInt32 pointsMerged;     // points that coincide with another, non-adjacent point (rings touching at a point)
  qorInt32 edgesSplit;       // edges split at a point of another edge that lies inside them
  qorInt32 edgesCancelled;   // edge pieces that run over each other in opposite directions (shared edges, spikes)
};
// The record of the calling thread's most recent qorTriangulateRings() call; all zero before the first, and after a
// call that raised it holds what that call had found up to the point where it raised.
QOR_API qorRingFixups qorTriangulateRingsFixups();

// Checks `count` contours (contour c has sizes[c] points; points[0], points[1], ... hold them one contour after
// another, 0-based; contours of size 0 or less are skipped). Returns an empty string when no two edges cross or
// touch other than consecutive edges at their shared vertex; otherwise one line naming a problem, contours counted
// from 1 as the user counts them: the lowest proper crossing (smallest y, then x) if there is one ("contour 2
// crosses contour 1 near (x, y)", "contour 1 crosses itself near (x, y)"), else the lowest touch ("contour 1
// touches itself near (x, y)", "contour 3 touches contour 2 near (x, y)"). A touch is a point on another edge or
// point, edges that overlap along a line, a contour that runs back over itself, or a point repeated right after
// itself (so a closing point that repeats the first counts too). A contour of one or two points gives "contour K
// has fewer than 3 points", a coordinate that is not finite "contour K has a coordinate that is not a finite
// number", and coordinates out of range (above) "the coordinates are out of range (their magnitudes span more
// than 2^400)". Orientation is not checked. The tests are exact: a point off an edge by rounding only is not on
// it. Takes O(n log n) time. Never raises on any input of matching sizes; a null array with a positive count
// raises a qorException*.
QOR_API std::string qorCheckPolygon(qorInt32 count, const qorInt32* sizes, const double (*points)[2]);

#endif
