// Internal: what the triangulation stage needs to know about the map, and the
// helpers both units of the triangulator use.
#ifndef QOR_INTERNAL_TRAPTREE_H
#define QOR_INTERNAL_TRAPTREE_H

#include <qor/qor_traptree.h>

#include <cmath>
#include <cstddef>

namespace qor_internal {

// The alignment of the triangulator's large tables: one huge page (2 MiB), so
// that each table can be backed by huge pages once the kernel is advised to.
constexpr std::size_t kHugePageAlignment = std::size_t{1} << 21;

// One past the last trapezoid issued since the map was last reset; every
// trapezoid at or beyond it is zero.
qorInt32 trapLimit();

// init_query_structure() without clearing the tables: every entry the new
// map issues is written whole, and settleMap() then clears what is left of
// the previous map beyond the counters. Between the two, entries beyond the
// counters may hold old data; the tables read as after a full clear once
// settleMap() has run (call it on every exit, exceptions included).
qorInt32 startMap(qorInt32 segment);
void settleMap();

// The point comparisons. The exported _greater_than and its kin are these;
// inline here so that the hot loops of both units inline them.
inline qorInt32 greaterThan(const point_t* a, const point_t* b) {
  if (a->y > b->y + EPSILON) return 1;
  if (a->y < b->y - EPSILON) return 0;
  return a->x > b->x;
}

inline qorInt32 greaterThanEqualTo(const point_t* a, const point_t* b) {
  if (a->y > b->y + EPSILON) return 1;
  if (a->y < b->y - EPSILON) return 0;
  return a->x >= b->x;
}

inline qorInt32 lessThan(const point_t* a, const point_t* b) {
  if (a->y < b->y - EPSILON) return 1;
  if (a->y > b->y + EPSILON) return 0;
  return a->x < b->x;
}

inline qorInt32 equalTo(const point_t* a, const point_t* b) {
  return std::fabs(a->y - b->y) <= EPSILON && std::fabs(a->x - b->x) <= EPSILON;
}

// Loads each value as a scalar of its own. Used where a record was written
// moments ago in pieces of another width: left alone, the compiler merges
// neighbouring loads into one wide load, which the processor cannot take
// from the narrower stores still waiting in its store buffer, so the load
// stalls until they are written. The empty asm only pins each value in a
// register; it emits no instruction. Worth about 6% of an 8,000-vertex
// triangulation (CPU time 4.7 ms with it, 5.1 ms without: medians of 5 runs
// of bench_triangulate, twice each) and 4% of the 4,000-vertex one with holes.
inline void pinInRegister(double& v) { asm("" : "+x"(v)); }
inline void pinInRegister(qorInt32& v) { asm("" : "+r"(v)); }

template <typename... T>
inline void loadApart(T&... values) {
  (pinInRegister(values), ...);
}

}  // namespace qor_internal

#endif
