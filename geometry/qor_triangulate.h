// Triangulation of a polygon with holes: randomized trapezoidation, then
// monotone decomposition, then a reflex-chain sweep of each monotone piece.
//
// triangulate() and is_point_inside_polygon() are the entry points; they
// share one process-wide set of tables and take one mutex, so concurrent
// callers are served one after the other. The tables and the internal steps
// are declared in qor_traptree.h, which this header does not include (their
// short global names would clash with a program's own). For rings as users
// have them (any orientation, touching rings, any size, every thread at once)
// see qor_rings.h, which this header includes.
#ifndef QOR_TRIANGULATE_H
#define QOR_TRIANGULATE_H

#include <vector>

#include "qor_base2.h"
#include "qor_export.h"
#include "qor_rings.h"

// Triangulates the polygon made of `count` contours; contour c has sizes[c]
// points. points[1], points[2], ... hold the (x, y) rows of all contours one
// after another (row 0 is not read); contours of size 0 or less are skipped
// and take no rows. The first point is not repeated at the end.
// The interior must lie to the left of every edge: the outer contour runs
// counter-clockwise, holes clockwise; holes are disjoint and strictly inside.
// Writes triangles of 1-based vertex numbers (row numbers of points), each
// counter-clockwise, into triangles[0], triangles[1], ...: a polygon of n
// vertices and h holes gives n + 2h - 2 rows. The array must hold
// n + 2c - 4 rows for c non-empty contours (n + 2h - 2 for one outer contour
// with h holes); nothing is written beyond that. triangulate_last_count()
// tells how many rows were written. Returns 0.
// Raises a qorException* before touching any table when: count < 1, a null
// array, no vertex at all, more than 8191 vertices, a contour of one or two
// points, a coordinate that is not finite, a contour whose last point repeats
// its first ("triangulate: contour K repeats its first point at its end"), a
// point repeated right after itself ("triangulate: contour K repeats point P
// right after itself", P counted from 1 within the contour), or a contour that
// runs the wrong way ("triangulate: contour K runs the wrong way (outer
// counter-clockwise, holes clockwise)": the first non-empty contour must run
// counter-clockwise and every later one clockwise). K counts the entries of
// sizes from 1, as the caller does.
// After the sweep it compares the triangles' total area with the polygon's
// and raises "triangulate: the triangles do not cover the polygon (do
// contours touch or cross?)" when they differ by more than rounding explains
// (a tolerance proportional to the vertex count and the square of the
// coordinates' extent): contours that touch or cross otherwise could give
// triangles that miss part of the polygon. Valid input never reaches it.
// The tables have fixed capacities: an irregular polygon issues about 4.5
// trapezoids per vertex and the trapezoid table holds 32767, so polygons of
// more than about 7,000 vertices may raise "newtrap: Trapezoid-table
// overflow" (a convex one of 8191 vertices fits). Crossing, touching or
// repeated edges may raise a qorException* from the stages below; rows
// written before any exception are meaningless.
// The insertion order is random, seeded from the clock's second unless a seed
// is fixed (qorTriangulateFixSeed), so two runs on invalid input may differ.
QOR_API qorInt32 triangulate(qorInt32 count, qorInt32* sizes, double (*points)[2], qorInt32 (*triangles)[3]);

// 1 if (point[0], point[1]) lies inside the polygon of the most recent
// triangulate() in the process, else 0 (holes are outside). Points on an edge
// may go either way. Raises "locate_endpoint: Internal error" before any
// polygon was triangulated, and a qorException* for a null point.
QOR_API qorInt32 is_point_inside_polygon(double* point);

// The number of triangles the most recent triangulate() in the process wrote.
QOR_API qorInt32 triangulate_last_count();

// --- Beside triangulate(): reproducible runs and real-world input. ---

// Every later triangulate() in the process (every thread) seeds its random
// insertion order with `seed` instead of the clock's second, so that a run
// can be repeated exactly (a bug report, a test, a fuzzer). Only the low 32
// bits of the seed matter, as for srand48().
QOR_API void qorTriangulateFixSeed(long seed);
// Back to the default: each triangulation seeds from the clock's second.
QOR_API void qorTriangulateClockSeed();
// The seed that the calling thread's most recent triangulate() used (0 before
// its first): per thread, so another thread's runs never change it. The ring
// engine of qor_rings.h draws no random numbers: these calls do not affect it,
// and it does not change the last seed.
QOR_API long qorTriangulateLastSeed();

#endif
