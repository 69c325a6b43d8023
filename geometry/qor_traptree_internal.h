// Internal: what the triangulation stage needs to know about the map.
#ifndef QOR_TRAPTREE_INTERNAL_H
#define QOR_TRAPTREE_INTERNAL_H

#include <cmath>

#include "qor_base2.h"
#include "qor_export.h"
#include "qor_traptree.h"

// One past the last trapezoid issued since the map was last reset; every
// trapezoid at or beyond it is zero.
QOR_HIDDEN qorInt32 qorTrapLimit();

// locate_endpoint() and add_segment() for the library's own callers: direct
// calls instead of calls through the PLT.
QOR_HIDDEN qorInt32 qorLocate(const point_t* p, const point_t* other, qorInt32 root);
QOR_HIDDEN void qorAddSegment(qorInt32 segment);

// init_query_structure() without clearing the tables: every entry the new
// map issues is written whole, and qorSettleMap() then clears what is left of
// the previous map beyond the counters. Between the two, entries beyond the
// counters may hold old data; the tables read as after a full clear once
// qorSettleMap() has run (call it on every exit, exceptions included).
QOR_HIDDEN qorInt32 qorStartMap(qorInt32 segment);
QOR_HIDDEN void qorSettleMap();

// The point comparisons, inline for the library's own hot loops (the exported
// _greater_than and its kin are calls through the PLT).
inline qorInt32 qorGreaterThan(const point_t* a, const point_t* b) {
  if (a->y > b->y + EPSILON) return 1;
  if (a->y < b->y - EPSILON) return 0;
  return a->x > b->x;
}

inline qorInt32 qorGreaterThanEqualTo(const point_t* a, const point_t* b) {
  if (a->y > b->y + EPSILON) return 1;
  if (a->y < b->y - EPSILON) return 0;
  return a->x >= b->x;
}

inline qorInt32 qorLessThan(const point_t* a, const point_t* b) {
  if (a->y < b->y - EPSILON) return 1;
  if (a->y > b->y + EPSILON) return 0;
  return a->x < b->x;
}

inline qorInt32 qorEqualTo(const point_t* a, const point_t* b) {
  return std::fabs(a->y - b->y) <= EPSILON && std::fabs(a->x - b->x) <= EPSILON;
}

#endif
