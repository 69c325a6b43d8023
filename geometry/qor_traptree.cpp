#include <qor/qor_assert.h>
#include <qor/qor_traptree.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "internal/traptree.h"

// Aligned to 2 MiB so that they can live in huge pages (see
// qor_internal::adviseHugePages).
alignas(qor_internal::kHugePageAlignment) segment_t seg[SEGSIZE];
alignas(qor_internal::kHugePageAlignment) trap_t tr[TRAPSIZE];
alignas(qor_internal::kHugePageAlignment) node_t qs[NODESIZE];

using qor_internal::equalTo;
using qor_internal::greaterThan;
using qor_internal::greaterThanEqualTo;
using qor_internal::lessThan;
using qor_internal::loadApart;

namespace {

const char kUnit[] = "qor_traptree";

// Next trapezoid and node to issue. Invariant: the library writes only
// entries below these counters, so every entry at or beyond them is zero and
// a reset needs to clear only the entries below them.
qorInt32 tr_idx = 1;
qorInt32 q_idx = 1;

// While a map is built without clearing the tables first (qorStartMap), the
// entries from the counters up to these limits may still hold the previous
// map; qorSettleMap clears them. 0 when nothing is pending.
qorInt32 trStale = 0;
qorInt32 qStale = 0;

[[noreturn]] void insertionFailed(unsigned long line) { qorThrow("add_segment: internal error", kUnit, line); }

[[noreturn]] void queryTableFull(unsigned long line) { qorThrow("newnode: Query-table overflow", kUnit, line); }

[[noreturn]] void trapTableFull(unsigned long line) { qorThrow("newtrap: Trapezoid-table overflow", kUnit, line); }

// newtrap() followed by copying trapezoid `from` over the new one.
inline qorInt32 issueTrapCopy(qorInt32 from) {
  if (tr_idx >= TRAPSIZE) trapTableFull(__LINE__);
  tr[tr_idx] = tr[from];
  return tr_idx++;
}

// Two newnode() calls that make sinks under `parent`, for trapezoids ta and tb
// (the caller may set tb later). The tables end up the same as with the
// separate calls and assignments, also when the second node overflows.
inline void issueSinks(qorInt32 parent, qorInt32 ta, qorInt32 tb, qorInt32& ia, qorInt32& ib) {
  if (q_idx > NODESIZE - 2) {
    newnode();
    newnode();  // raises
  }
  ia = q_idx;
  ib = q_idx + 1;
  q_idx += 2;
  qs[ia] = node_t{NODE_SINK, 0, {0.0, 0.0}, ta, parent, 0, 0};
  qs[ib] = node_t{NODE_SINK, 0, {0.0, 0.0}, tb, parent, 0, 0};
}

// The side test of is_left_of() for a point at neither endpoint's height.
inline qorInt32 crossLeft(const segment_t* s, double px, double py) {
  const bool upward = greaterThan(&s->end, &s->start);
  const point_t& lo = upward ? s->start : s->end;
  const point_t& up = upward ? s->end : s->start;
  const double area = (up.x - lo.x) * (py - lo.y) - (up.y - lo.y) * (px - lo.x);
  return area > 0.0;
}

// A trapezoid number read from a link that the insertion is about to follow:
// it must name an issued trapezoid. Crossing or touching edges can leave a
// link empty where a simple polygon always has a neighbour.
inline qorInt32 linked(qorInt32 t, unsigned long line) {
  if (t <= 0 || t >= tr_idx) insertionFailed(line);
  return t;
}

// Replaces the upper link to `from` of trapezoid d (when d is a trapezoid) by `to`.
inline void relinkUpBoth(qorInt32 d, qorInt32 from, qorInt32 to) {
  if (d <= 0) return;
  if (tr[d].up0 == from) tr[d].up0 = to;
  if (tr[d].up1 == from) tr[d].up1 = to;
}

// Splits trapezoid tu horizontally at p; returns the new lower half.
qorInt32 splitHorizontally(qorInt32 segment, qorInt32 tu, const point_t& p) {
  const qorInt32 tl = issueTrapCopy(tu);
  tr[tu].bottom = p;
  tr[tl].top = p;
  tr[tu].down0 = tl;
  tr[tu].down1 = 0;
  tr[tl].up0 = tu;
  tr[tl].up1 = 0;
  relinkUpBoth(tr[tl].down0, tu, tl);
  relinkUpBoth(tr[tl].down1, tu, tl);

  const qorInt32 sk = tr[tu].sink;
  qorInt32 i1, i2;
  issueSinks(sk, tu, tl, i1, i2);
  qs[sk].type = NODE_Y;
  qs[sk].y_key = p;
  qs[sk].seg_index = segment;
  qs[sk].left = i2;
  qs[sk].right = i1;
  tr[tu].sink = i1;
  tr[tl].sink = i2;
  return tl;
}

// Lower links when t has a single neighbour below, d (down0 or down1 of t).
// Returns the trapezoid the segment continues into.
qorInt32 threadIntoSingle(qorInt32 t, qorInt32 tn, bool useDown0, bool triangle, bool kLeft) {
  trap_t& T = tr[t];
  trap_t& TN = tr[tn];
  if (triangle) {
    if (kLeft) {
      tr[useDown0 ? T.down0 : T.down1].up0 = t;
      TN.down0 = TN.down1 = -1;
    } else {
      tr[useDown0 ? TN.down0 : TN.down1].up1 = tn;
      T.down0 = T.down1 = -1;
    }
  } else {
    const qorInt32 d = useDown0 ? T.down0 : T.down1;
    trap_t& D = tr[d];
    if (D.up0 > 0 && D.up1 > 0) {  // d keeps a third upper neighbour
      if (D.up0 == t) {
        D.up_save = D.up1;
        D.up_side = SIDE_LEFT;
      } else {
        D.up_save = D.up0;
        D.up_side = SIDE_RIGHT;
      }
    }
    D.up0 = t;
    D.up1 = tn;
  }
  return useDown0 ? T.down0 : T.down1;
}

}  // namespace

qorInt32 qor_internal::trapLimit() { return tr_idx; }

qorInt32 _greater_than(point_t* a, point_t* b) { return greaterThan(a, b); }

qorInt32 _greater_than_equal_to(point_t* a, point_t* b) { return greaterThanEqualTo(a, b); }

qorInt32 _less_than(point_t* a, point_t* b) { return lessThan(a, b); }

qorInt32 _equal_to(point_t* a, point_t* b) { return equalTo(a, b); }

qorInt32 _max(point_t* out, point_t* a, point_t* b) {
  if (a->y > b->y + EPSILON || (std::fabs(a->y - b->y) <= EPSILON && a->x > b->x + EPSILON))
    *out = *a;
  else
    *out = *b;
  return 0;
}

qorInt32 _min(point_t* out, point_t* a, point_t* b) {
  if (a->y < b->y - EPSILON || (std::fabs(a->y - b->y) <= EPSILON && a->x < b->x))
    *out = *a;
  else
    *out = *b;
  return 0;
}

// newnode() and newtrap() write the whole record they issue, so that it reads
// as zero-filled even when the table was not cleared (see trStale).
qorInt32 newnode() {
  if (q_idx >= NODESIZE) queryTableFull(__LINE__);
  qs[q_idx] = node_t{};
  return q_idx++;
}

qorInt32 newtrap() {
  if (tr_idx >= TRAPSIZE) trapTableFull(__LINE__);
  trap_t& t = tr[tr_idx];
  t = trap_t{};
  t.left_seg = -1;
  t.right_seg = -1;
  t.state = TRAP_VALID;
  return tr_idx++;
}

namespace {

// init_query_structure() when clearAll is true; false leaves the clearing of
// the previous map's entries to qor_internal::settleMap. Flattened so that
// the eleven newnode() and newtrap() calls are inlined.
[[gnu::flatten]] qorInt32 beginMap(qorInt32 segment, bool clearAll) {
  if (segment <= 0 || segment >= SEGSIZE)
    qorThrow("init_query_structure: segment number out of range", kUnit, __LINE__);

  // Only the entries below the counters, or below the pending limits, can be
  // non-zero (see tr_idx and trStale).
  if (clearAll) {
    std::memset(tr, 0, sizeof(trap_t) * static_cast<size_t>(tr_idx > trStale ? tr_idx : trStale));
    std::memset(qs, 0, sizeof(node_t) * static_cast<size_t>(q_idx > qStale ? q_idx : qStale));
    trStale = qStale = 0;
  } else {
    if (tr_idx > trStale) trStale = tr_idx;
    if (q_idx > qStale) qStale = q_idx;
    tr[0] = trap_t{};
    qs[0] = node_t{};
  }
  tr_idx = 1;
  q_idx = 1;

  segment_t* s = &seg[segment];
  const qorInt32 i1 = newnode();
  qs[i1].type = NODE_Y;
  _max(&qs[i1].y_key, &s->start, &s->end);
  const point_t upper = qs[i1].y_key;

  const qorInt32 i2 = newnode();
  qs[i1].right = i2;
  qs[i2].type = NODE_SINK;
  qs[i2].parent = i1;

  const qorInt32 i3 = newnode();
  qs[i1].left = i3;
  qs[i3].type = NODE_Y;
  _min(&qs[i3].y_key, &s->start, &s->end);
  qs[i3].parent = i1;
  const point_t lower = qs[i3].y_key;

  const qorInt32 i4 = newnode();
  qs[i3].left = i4;
  qs[i4].type = NODE_SINK;
  qs[i4].parent = i3;

  const qorInt32 i5 = newnode();
  qs[i3].right = i5;
  qs[i5].type = NODE_X;
  qs[i5].seg_index = segment;
  qs[i5].parent = i3;

  const qorInt32 i6 = newnode();
  qs[i5].left = i6;
  qs[i6].type = NODE_SINK;
  qs[i6].parent = i5;

  const qorInt32 i7 = newnode();
  qs[i5].right = i7;
  qs[i7].type = NODE_SINK;
  qs[i7].parent = i5;

  const qorInt32 t1 = newtrap();  // left of the segment
  const qorInt32 t2 = newtrap();  // right of it
  const qorInt32 t3 = newtrap();  // below it
  const qorInt32 t4 = newtrap();  // above it

  tr[t1].top = tr[t2].top = upper;
  tr[t1].bottom = tr[t2].bottom = lower;
  tr[t3].top = lower;
  tr[t4].bottom = upper;
  tr[t3].bottom.x = tr[t3].bottom.y = -INFINITY;
  tr[t4].top.x = tr[t4].top.y = INFINITY;

  tr[t1].right_seg = segment;
  tr[t2].left_seg = segment;
  tr[t1].up0 = tr[t2].up0 = t4;
  tr[t1].down0 = tr[t2].down0 = t3;
  tr[t4].down0 = t1;
  tr[t4].down1 = t2;
  tr[t3].up0 = t1;
  tr[t3].up1 = t2;

  tr[t1].sink = i6;
  tr[t2].sink = i7;
  tr[t3].sink = i4;
  tr[t4].sink = i2;

  qs[i2].trap_index = t4;
  qs[i4].trap_index = t3;
  qs[i6].trap_index = t1;
  qs[i7].trap_index = t2;

  s->in_tree = 1;
  return i1;
}

}  // namespace

qorInt32 init_query_structure(qorInt32 segment) { return beginMap(segment, true); }

qorInt32 qor_internal::startMap(qorInt32 segment) { return beginMap(segment, false); }

void qor_internal::settleMap() {
  if (trStale > tr_idx) std::memset(&tr[tr_idx], 0, sizeof(trap_t) * static_cast<size_t>(trStale - tr_idx));
  if (qStale > q_idx) std::memset(&qs[q_idx], 0, sizeof(node_t) * static_cast<size_t>(qStale - q_idx));
  trStale = qStale = 0;
}

qorInt32 is_left_of(qorInt32 segment, point_t* p) {
  const segment_t* s = &seg[segment];
  if (std::fabs(s->end.y - p->y) <= EPSILON) return p->x < s->end.x;
  if (std::fabs(s->start.y - p->y) <= EPSILON) return p->x < s->start.x;
  return crossLeft(s, p->x, p->y);
}

qorInt32 inserted(qorInt32 segment, qorInt32 which) {
  const qorInt32 neighbour = which == FIRST_POINT ? seg[segment].prev : seg[segment].next;
  if (neighbour < 0 || neighbour >= SEGSIZE) return 0;
  return seg[neighbour].in_tree;
}

namespace {

[[noreturn]] void locateFailed(unsigned long line) { qorThrow("locate_endpoint: Internal error", kUnit, line); }

}  // namespace

qorInt32 locate_endpoint(point_t* p, point_t* other, qorInt32 root) {
  const node_t* const nodes = qs;
  const segment_t* const segs = seg;
  // Nothing is written during the descent, so the coordinates stay in registers.
  const double px = p->x, py = p->y;
  qorInt32 r = root;
  // A well-formed structure is acyclic, so a descent visits each node at most
  // once; the step count only guards against a damaged one.
  for (qorInt32 steps = NODESIZE; steps > 0; --steps) {
    if (static_cast<std::uint32_t>(r - 1) >= static_cast<std::uint32_t>(NODESIZE - 1)) locateFailed(__LINE__);
    const node_t* node = &nodes[r];
    const qorInt32 type = node->type;
    if (type == NODE_Y) {
      // _greater_than(p, key), then _equal_to(p, key), as written out.
      const double ky = node->y_key.y, kx = node->y_key.x;
      bool above;
      if (py > ky + EPSILON)
        above = true;
      else if (!(py < ky - EPSILON) && px > kx)
        above = true;
      else if (std::fabs(py - ky) <= EPSILON && std::fabs(px - kx) <= EPSILON)
        above = greaterThan(other, &node->y_key);
      else
        above = false;
      r = above ? node->right : node->left;
    } else if (type == NODE_X) {
      const qorInt32 k = node->seg_index;
      if (static_cast<std::uint32_t>(k - 1) >= static_cast<std::uint32_t>(SEGSIZE - 1)) locateFailed(__LINE__);
      const segment_t* s = &segs[k];
      // The height tests of the endpoint comparisons are those that start
      // the side test (|a - b| and |b - a| are the same number).
      const bool levelStart = std::fabs(py - s->start.y) <= EPSILON;
      const bool levelEnd = std::fabs(py - s->end.y) <= EPSILON;
      bool left;
      if (!levelStart && !levelEnd) {
        left = crossLeft(s, px, py);
      } else if ((levelStart && std::fabs(px - s->start.x) <= EPSILON) ||
                 (levelEnd && std::fabs(px - s->end.x) <= EPSILON)) {
        if (std::fabs(py - other->y) <= EPSILON)  // a horizontal segment
          left = other->x < px;
        else
          left = is_left_of(k, other);
      } else if (levelEnd) {
        left = px < s->end.x;
      } else {
        left = px < s->start.x;
      }
      r = left ? node->left : node->right;
    } else if (type == NODE_SINK) {
      return node->trap_index;
    } else {
      locateFailed(__LINE__);
    }
  }
  locateFailed(__LINE__);
}

qorInt32 merge_trapezoids(qorInt32 segment, qorInt32 first, qorInt32 last, qorInt32 side) {
  if (last < 0 || last >= TRAPSIZE) return 0;
  trap_t* const traps = tr;
  qorInt32 t = first;
  // Every pass either marks a trapezoid merged or moves down to another one,
  // so a sound map needs fewer passes than there are trapezoids.
  for (qorInt32 passes = 0; t > 0 && greaterThanEqualTo(&traps[t].bottom, &traps[last].bottom); ++passes) {
    if (t >= tr_idx || passes > 2 * TRAPSIZE) qorThrow("merge_trapezoids: internal error", kUnit, __LINE__);
    trap_t& T = traps[t];
    qorInt32 n = T.down0;
    bool along = n > 0 && (side == SIDE_LEFT ? traps[n].right_seg : traps[n].left_seg) == segment;
    if (!along) {
      n = T.down1;
      along = n > 0 && (side == SIDE_LEFT ? traps[n].right_seg : traps[n].left_seg) == segment;
    }
    if (!along) {
      t = T.down1;
      continue;
    }
    trap_t& N = traps[n];
    if (T.left_seg == N.left_seg && T.right_seg == N.right_seg) {
      const qorInt32 p = qs[N.sink].parent;
      if (p <= 0 || p >= q_idx) qorThrow("merge_trapezoids: internal error", kUnit, __LINE__);
      if (qs[p].left == N.sink)
        qs[p].left = T.sink;
      else
        qs[p].right = T.sink;

      T.down0 = N.down0;
      if (T.down0 > 0) {
        if (traps[T.down0].up0 == n)
          traps[T.down0].up0 = t;
        else if (traps[T.down0].up1 == n)
          traps[T.down0].up1 = t;
      }
      T.down1 = N.down1;
      if (T.down1 > 0) {
        if (traps[T.down1].up0 == n)
          traps[T.down1].up0 = t;
        else if (traps[T.down1].up1 == n)
          traps[T.down1].up1 = t;
      }
      // N was often written moments ago in 16-byte pieces that its bottom
      // straddles.
      double bx = N.bottom.x, by = N.bottom.y;
      loadApart(bx, by);
      T.bottom.x = bx;
      T.bottom.y = by;
      N.state = TRAP_MERGED;
    } else {
      t = n;
    }
  }
  return 0;
}

qorInt32 add_segment(qorInt32 segment) {
  if (segment <= 0 || segment >= SEGSIZE) insertionFailed(__LINE__);
  trap_t* const traps = tr;
  node_t* const nodes = qs;
  // The roots were written one by one in the last refresh, possibly moments
  // ago.
  segment_t s;
  {
    const segment_t& src = seg[segment];
    double sx = src.start.x, sy = src.start.y, ex = src.end.x, ey = src.end.y;
    qorInt32 rs = src.root_start, re = src.root_end;
    loadApart(sx, sy, ex, ey, rs, re);
    s.start.x = sx;
    s.start.y = sy;
    s.end.x = ex;
    s.end.y = ey;
    s.root_start = rs;
    s.root_end = re;
  }
  bool swapped = false;
  if (greaterThan(&s.end, &s.start)) {
    const point_t p = s.start;
    s.start = s.end;
    s.end = p;
    const qorInt32 r = s.root_start;
    s.root_start = s.root_end;
    s.root_end = r;
    swapped = true;
  }
  // From here s.start is the upper endpoint and s.end the lower.

  qorInt32 first;
  if (inserted(segment, swapped ? LAST_POINT : FIRST_POINT)) {
    first = linked(locate_endpoint(&s.start, &s.end, s.root_start), __LINE__);
  } else {
    const qorInt32 tu = linked(locate_endpoint(&s.start, &s.end, s.root_start), __LINE__);
    first = splitHorizontally(segment, tu, s.start);
  }

  qorInt32 last;
  bool bottomPresent = false;
  if (inserted(segment, swapped ? FIRST_POINT : LAST_POINT)) {
    last = linked(locate_endpoint(&s.end, &s.start, s.root_end), __LINE__);
    bottomPresent = true;
  } else {
    const qorInt32 tu = linked(locate_endpoint(&s.end, &s.start, s.root_end), __LINE__);
    splitHorizontally(segment, tu, s.end);
    last = tu;
  }

  qorInt32 k = swapped ? seg[segment].prev : seg[segment].next;
  if (!(k > 0 && k < SEGSIZE)) k = 0;
  qorInt32 firstRight = 0;
  qorInt32 lastRight = 0;
  qorInt32 t = first;
  while (t > 0 && greaterThanEqualTo(&traps[t].bottom, &traps[last].bottom)) {
    if (t >= tr_idx) insertionFailed(__LINE__);
    const qorInt32 sk = traps[t].sink;
    qorInt32 i1, i2;
    issueSinks(sk, t, 0, i1, i2);
    nodes[sk].type = NODE_X;
    nodes[sk].seg_index = segment;
    nodes[sk].left = i1;
    nodes[sk].right = i2;
    const qorInt32 tn = issueTrapCopy(t);  // t is not changed before the copy below would have been made
    nodes[i2].trap_index = tn;

    if (t == first) firstRight = tn;
    const bool atLast = equalTo(&traps[t].bottom, &traps[last].bottom);
    if (atLast) lastRight = tn;

    traps[t].sink = i1;
    traps[tn].sink = i2;
    trap_t& T = traps[t];
    trap_t& TN = traps[tn];
    if (T.down0 <= 0 && T.down1 <= 0) insertionFailed(__LINE__);

    // Upper links.
    if (T.up0 > 0 && T.up1 > 0) {  // the segment continues a chain from above
      if (T.up_save > 0) {         // three upper neighbours
        if (T.up_side == SIDE_LEFT) {
          TN.up0 = T.up1;
          T.up1 = -1;
          TN.up1 = T.up_save;
          traps[T.up0].down0 = t;
          traps[linked(TN.up0, __LINE__)].down0 = tn;
          traps[linked(TN.up1, __LINE__)].down0 = tn;
        } else {
          TN.up1 = -1;
          TN.up0 = T.up1;
          T.up1 = T.up0;
          T.up0 = T.up_save;
          traps[linked(T.up0, __LINE__)].down0 = t;
          traps[linked(T.up1, __LINE__)].down0 = t;
          traps[linked(TN.up0, __LINE__)].down0 = tn;
        }
        T.up_save = TN.up_save = 0;
      } else {
        TN.up0 = T.up1;
        T.up1 = TN.up1 = -1;
        traps[TN.up0].down0 = tn;
      }
    } else {
      const qorInt32 u = linked(T.up0, __LINE__);
      if (traps[u].down0 > 0 && traps[u].down1 > 0) {  // an upward cusp
        const qorInt32 r = traps[traps[u].down0].right_seg;
        if (r > 0 && r < SEGSIZE && !is_left_of(r, &s.end)) {
          T.up0 = T.up1 = TN.up1 = -1;
          traps[linked(TN.up0, __LINE__)].down1 = tn;
        } else {
          TN.up0 = TN.up1 = T.up1 = -1;
          traps[linked(T.up0, __LINE__)].down0 = t;
        }
      } else {  // a fresh segment
        traps[u].down0 = t;
        traps[u].down1 = tn;
      }
    }

    // Lower links and the next trapezoid. The bottoms of t and last are the
    // same exactly when atLast holds (the same test written out).
    const bool triangle = bottomPresent && atLast;
    qorInt32 next;
    if (T.down0 > 0 && T.down1 <= 0) {
      linked(T.down0, __LINE__);
      const bool kLeft = triangle && k > 0 && is_left_of(k, &s.start);
      if (triangle && !kLeft) linked(TN.down0, __LINE__);
      next = threadIntoSingle(t, tn, true, triangle, kLeft);
    } else if (T.down1 > 0 && T.down0 <= 0) {
      linked(T.down1, __LINE__);
      const bool kLeft = triangle && k > 0 && is_left_of(k, &s.start);
      if (triangle && !kLeft) linked(TN.down1, __LINE__);
      next = threadIntoSingle(t, tn, false, triangle, kLeft);
    } else {
      const qorInt32 d0 = linked(T.down0, __LINE__);
      const qorInt32 d1 = linked(T.down1, __LINE__);
      bool intoDown0;
      if (std::fabs(T.bottom.y - s.start.y) <= EPSILON) {
        intoDown0 = T.bottom.x > s.start.x;
      } else {
        point_t q;
        q.y = T.bottom.y;
        q.x = s.start.x + (q.y - s.start.y) / (s.end.y - s.start.y) * (s.end.x - s.start.x);
        intoDown0 = lessThan(&q, &T.bottom);
      }
      if (triangle) {
        traps[d0].up0 = t;
        traps[d0].up1 = -1;
        traps[d1].up0 = tn;
        traps[d1].up1 = -1;
        TN.down0 = T.down1;
        T.down1 = TN.down1 = -1;
        next = T.down1;
      } else if (intoDown0) {
        traps[d0].up0 = t;
        traps[d0].up1 = tn;
        traps[d1].up0 = tn;
        traps[d1].up1 = -1;
        T.down1 = -1;
        next = T.down0;
      } else {
        traps[d0].up0 = t;
        traps[d0].up1 = -1;
        traps[d1].up0 = t;
        traps[d1].up1 = tn;
        TN.down0 = T.down1;
        TN.down1 = -1;
        next = T.down1;
      }
    }

    T.right_seg = segment;
    TN.left_seg = segment;
    t = next;
  }

  merge_trapezoids(segment, first, last, SIDE_LEFT);
  merge_trapezoids(segment, firstRight, lastRight, SIDE_RIGHT);
  seg[segment].in_tree = 1;
  return 0;
}
