#include "qor_traptree.h"

#include <sys/mman.h>

#include <cmath>
#include <cstring>

#include "qor_assert.h"
#include "qor_traptree_internal.h"

// Aligned to 2 MiB so that they can live in huge pages (see below).
alignas(1 << 21) segment_t seg[SEGSIZE];
alignas(1 << 21) trap_t tr[TRAPSIZE];
alignas(1 << 21) node_t qs[NODESIZE];

namespace {

const char kUnit[] = "qor_traptree";

// Insertion in random order touches the megabytes of tr and qs at random, so
// a large triangulation spends much of its time in TLB misses; huge pages
// cover the tables with a few entries. Only a hint: without transparent huge
// pages nothing changes.
struct HugePageHint {
  HugePageHint() {
    madvise(seg, sizeof(seg), MADV_HUGEPAGE);
    madvise(tr, sizeof(tr), MADV_HUGEPAGE);
    madvise(qs, sizeof(qs), MADV_HUGEPAGE);
  }
} hugePageHint;

// Next trapezoid and node to issue. Invariant: the library writes only
// entries below these counters, so every entry at or beyond them is zero and
// a reset needs to clear only the entries below them.
qorInt32 tr_idx = 1;
qorInt32 q_idx = 1;

[[noreturn]] void insertionFailed(unsigned long line) { qorThrow("add_segment: internal error", kUnit, line); }

// A trapezoid number read from a link that the insertion is about to follow:
// it must name an issued trapezoid. Crossing or touching edges can leave a
// link empty where a simple polygon always has a neighbour.
inline qorInt32 linked(qorInt32 t, unsigned long line) {
  if (t <= 0 || t >= tr_idx) insertionFailed(line);
  return t;
}

inline bool sameBottom(const trap_t& a, const trap_t& b) {
  return std::fabs(a.bottom.y - b.bottom.y) <= EPSILON && std::fabs(a.bottom.x - b.bottom.x) <= EPSILON;
}

// Replaces the upper link to `from` of trapezoid d (when d is a trapezoid) by `to`.
inline void relinkUpBoth(qorInt32 d, qorInt32 from, qorInt32 to) {
  if (d <= 0) return;
  if (tr[d].up0 == from) tr[d].up0 = to;
  if (tr[d].up1 == from) tr[d].up1 = to;
}

// Splits trapezoid tu horizontally at p; returns the new lower half.
qorInt32 splitHorizontally(qorInt32 segment, qorInt32 tu, const point_t& p) {
  const qorInt32 tl = newtrap();
  tr[tl] = tr[tu];
  tr[tu].bottom = p;
  tr[tl].top = p;
  tr[tu].down0 = tl;
  tr[tu].down1 = 0;
  tr[tl].up0 = tu;
  tr[tl].up1 = 0;
  relinkUpBoth(tr[tl].down0, tu, tl);
  relinkUpBoth(tr[tl].down1, tu, tl);

  const qorInt32 i1 = newnode();
  const qorInt32 i2 = newnode();
  const qorInt32 sk = tr[tu].sink;
  qs[sk].type = NODE_Y;
  qs[sk].y_key = p;
  qs[sk].seg_index = segment;
  qs[sk].left = i2;
  qs[sk].right = i1;
  qs[i1].type = NODE_SINK;
  qs[i1].trap_index = tu;
  qs[i1].parent = sk;
  qs[i2].type = NODE_SINK;
  qs[i2].trap_index = tl;
  qs[i2].parent = sk;
  tr[tu].sink = i1;
  tr[tl].sink = i2;
  return tl;
}

// Lower links when t has a single neighbour below, d (down0 or down1 of t).
// Returns the trapezoid the segment continues into.
qorInt32 threadIntoSingle(qorInt32 t, qorInt32 tn, bool useDown0, bool triangle, qorInt32 k, point_t* upper) {
  trap_t& T = tr[t];
  trap_t& TN = tr[tn];
  if (triangle) {
    if (k > 0 && is_left_of(k, upper)) {
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

qorInt32 qorTrapLimit() { return tr_idx; }

qorInt32 _greater_than(point_t* a, point_t* b) { return qorGreaterThan(a, b); }

qorInt32 _greater_than_equal_to(point_t* a, point_t* b) { return qorGreaterThanEqualTo(a, b); }

qorInt32 _less_than(point_t* a, point_t* b) { return qorLessThan(a, b); }

qorInt32 _equal_to(point_t* a, point_t* b) { return qorEqualTo(a, b); }

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

qorInt32 newnode() {
  if (q_idx >= NODESIZE) qorThrow("newnode: Query-table overflow", kUnit, __LINE__);
  return q_idx++;
}

qorInt32 newtrap() {
  if (tr_idx >= TRAPSIZE) qorThrow("newtrap: Trapezoid-table overflow", kUnit, __LINE__);
  trap_t& t = tr[tr_idx];
  t.left_seg = -1;
  t.right_seg = -1;
  t.state = TRAP_VALID;
  return tr_idx++;
}

qorInt32 init_query_structure(qorInt32 segment) {
  if (segment <= 0 || segment >= SEGSIZE)
    qorThrow("init_query_structure: segment number out of range", kUnit, __LINE__);

  // Only the entries below the counters can be non-zero (see tr_idx).
  std::memset(tr, 0, sizeof(trap_t) * static_cast<size_t>(tr_idx));
  std::memset(qs, 0, sizeof(node_t) * static_cast<size_t>(q_idx));
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

qorInt32 is_left_of(qorInt32 segment, point_t* p) {
  const segment_t* s = &seg[segment];
  if (std::fabs(s->end.y - p->y) <= EPSILON) return p->x < s->end.x;
  if (std::fabs(s->start.y - p->y) <= EPSILON) return p->x < s->start.x;
  point_t a = s->start;
  point_t b = s->end;
  const bool upward = qorGreaterThan(&b, &a);
  const point_t& lo = upward ? s->start : s->end;
  const point_t& up = upward ? s->end : s->start;
  const double area = (up.x - lo.x) * (p->y - lo.y) - (up.y - lo.y) * (p->x - lo.x);
  return area > 0.0;
}

qorInt32 inserted(qorInt32 segment, qorInt32 which) {
  const qorInt32 neighbour = which == FIRST_POINT ? seg[segment].prev : seg[segment].next;
  if (neighbour < 0 || neighbour >= SEGSIZE) return 0;
  return seg[neighbour].in_tree;
}

namespace {

[[noreturn]] void locateFailed(unsigned long line) { qorThrow("locate_endpoint: Internal error", kUnit, line); }

// One step of a descent from node r towards p: returns true with the
// trapezoid in *trap at a sink, else moves r to the child on p's side.
inline bool locateStep(qorInt32& r, point_t* p, point_t* other, qorInt32* trap) {
  if (r <= 0 || r >= NODESIZE) locateFailed(__LINE__);
  const node_t* node = &qs[r];
  switch (node->type) {
    case NODE_SINK:
      *trap = node->trap_index;
      return true;
    case NODE_Y:
      if (qorGreaterThan(p, &node->y_key))
        r = node->right;
      else if (qorEqualTo(p, &node->y_key))
        r = qorGreaterThan(other, &node->y_key) ? node->right : node->left;
      else
        r = node->left;
      return false;
    case NODE_X: {
      const qorInt32 k = node->seg_index;
      if (k <= 0 || k >= SEGSIZE) locateFailed(__LINE__);
      if (qorEqualTo(p, &seg[k].start) || qorEqualTo(p, &seg[k].end)) {
        if (std::fabs(p->y - other->y) <= EPSILON)  // a horizontal segment
          r = other->x < p->x ? node->left : node->right;
        else
          r = is_left_of(k, other) ? node->left : node->right;
      } else {
        r = is_left_of(k, p) ? node->left : node->right;
      }
      return false;
    }
    default:
      locateFailed(__LINE__);
  }
}

}  // namespace

qorInt32 locate_endpoint(point_t* p, point_t* other, qorInt32 root) {
  qorInt32 r = root;
  qorInt32 trap = 0;
  // A well-formed structure is acyclic, so a descent visits each node at most
  // once; the step count only guards against a damaged one.
  for (qorInt32 steps = 0; steps < NODESIZE; ++steps)
    if (locateStep(r, p, other, &trap)) return trap;
  locateFailed(__LINE__);
}

qorInt32 add_segment(qorInt32 segment) {
  if (segment <= 0 || segment >= SEGSIZE) insertionFailed(__LINE__);
  segment_t s = seg[segment];
  bool swapped = false;
  if (qorGreaterThan(&s.end, &s.start)) {
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

  const qorInt32 k = swapped ? seg[segment].prev : seg[segment].next;
  qorInt32 firstRight = 0;
  qorInt32 lastRight = 0;
  qorInt32 t = first;
  while (t > 0 && qorGreaterThanEqualTo(&tr[t].bottom, &tr[last].bottom)) {
    if (t >= tr_idx) insertionFailed(__LINE__);
    const qorInt32 sk = tr[t].sink;
    const qorInt32 i1 = newnode();
    const qorInt32 i2 = newnode();
    qs[sk].type = NODE_X;
    qs[sk].seg_index = segment;
    qs[sk].left = i1;
    qs[sk].right = i2;
    qs[i1].type = NODE_SINK;
    qs[i1].trap_index = t;
    qs[i1].parent = sk;
    qs[i2].type = NODE_SINK;
    qs[i2].parent = sk;
    const qorInt32 tn = newtrap();
    qs[i2].trap_index = tn;

    if (t == first) firstRight = tn;
    if (qorEqualTo(&tr[t].bottom, &tr[last].bottom)) lastRight = tn;

    tr[tn] = tr[t];
    tr[t].sink = i1;
    tr[tn].sink = i2;
    trap_t& T = tr[t];
    trap_t& TN = tr[tn];
    if (T.down0 <= 0 && T.down1 <= 0) insertionFailed(__LINE__);

    // Upper links.
    if (T.up0 > 0 && T.up1 > 0) {  // the segment continues a chain from above
      if (T.up_save > 0) {         // three upper neighbours
        if (T.up_side == SIDE_LEFT) {
          TN.up0 = T.up1;
          T.up1 = -1;
          TN.up1 = T.up_save;
          tr[T.up0].down0 = t;
          tr[linked(TN.up0, __LINE__)].down0 = tn;
          tr[linked(TN.up1, __LINE__)].down0 = tn;
        } else {
          TN.up1 = -1;
          TN.up0 = T.up1;
          T.up1 = T.up0;
          T.up0 = T.up_save;
          tr[linked(T.up0, __LINE__)].down0 = t;
          tr[linked(T.up1, __LINE__)].down0 = t;
          tr[linked(TN.up0, __LINE__)].down0 = tn;
        }
        T.up_save = TN.up_save = 0;
      } else {
        TN.up0 = T.up1;
        T.up1 = TN.up1 = -1;
        tr[TN.up0].down0 = tn;
      }
    } else {
      const qorInt32 u = linked(T.up0, __LINE__);
      if (tr[u].down0 > 0 && tr[u].down1 > 0) {  // an upward cusp
        const qorInt32 r = tr[tr[u].down0].right_seg;
        if (r > 0 && r < SEGSIZE && !is_left_of(r, &s.end)) {
          T.up0 = T.up1 = TN.up1 = -1;
          tr[linked(TN.up0, __LINE__)].down1 = tn;
        } else {
          TN.up0 = TN.up1 = T.up1 = -1;
          tr[linked(T.up0, __LINE__)].down0 = t;
        }
      } else {  // a fresh segment
        tr[u].down0 = t;
        tr[u].down1 = tn;
      }
    }

    // Lower links and the next trapezoid.
    const bool triangle = bottomPresent && sameBottom(T, tr[last]);
    qorInt32 next;
    if (T.down0 > 0 && T.down1 <= 0) {
      linked(T.down0, __LINE__);
      if (triangle && !(k > 0 && k < SEGSIZE && is_left_of(k, &s.start))) linked(TN.down0, __LINE__);
      next = threadIntoSingle(t, tn, true, triangle, k > 0 && k < SEGSIZE ? k : 0, &s.start);
    } else if (T.down1 > 0 && T.down0 <= 0) {
      linked(T.down1, __LINE__);
      if (triangle && !(k > 0 && k < SEGSIZE && is_left_of(k, &s.start))) linked(TN.down1, __LINE__);
      next = threadIntoSingle(t, tn, false, triangle, k > 0 && k < SEGSIZE ? k : 0, &s.start);
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
        intoDown0 = qorLessThan(&q, &T.bottom);
      }
      if (triangle) {
        tr[d0].up0 = t;
        tr[d0].up1 = -1;
        tr[d1].up0 = tn;
        tr[d1].up1 = -1;
        TN.down0 = T.down1;
        T.down1 = TN.down1 = -1;
        next = T.down1;
      } else if (intoDown0) {
        tr[d0].up0 = t;
        tr[d0].up1 = tn;
        tr[d1].up0 = tn;
        tr[d1].up1 = -1;
        T.down1 = -1;
        next = T.down0;
      } else {
        tr[d0].up0 = t;
        tr[d0].up1 = -1;
        tr[d1].up0 = t;
        tr[d1].up1 = tn;
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

qorInt32 merge_trapezoids(qorInt32 segment, qorInt32 first, qorInt32 last, qorInt32 side) {
  if (last < 0 || last >= TRAPSIZE) return 0;
  qorInt32 t = first;
  // Every pass either marks a trapezoid merged or moves down to another one,
  // so a sound map needs fewer passes than there are trapezoids.
  for (qorInt32 passes = 0; t > 0 && qorGreaterThanEqualTo(&tr[t].bottom, &tr[last].bottom); ++passes) {
    if (t >= tr_idx || passes > 2 * TRAPSIZE) qorThrow("merge_trapezoids: internal error", kUnit, __LINE__);
    trap_t& T = tr[t];
    qorInt32 n = T.down0;
    bool along = n > 0 && (side == SIDE_LEFT ? tr[n].right_seg : tr[n].left_seg) == segment;
    if (!along) {
      n = T.down1;
      along = n > 0 && (side == SIDE_LEFT ? tr[n].right_seg : tr[n].left_seg) == segment;
    }
    if (!along) {
      t = T.down1;
      continue;
    }
    trap_t& N = tr[n];
    if (T.left_seg == N.left_seg && T.right_seg == N.right_seg) {
      const qorInt32 p = qs[N.sink].parent;
      if (p <= 0 || p >= q_idx) qorThrow("merge_trapezoids: internal error", kUnit, __LINE__);
      if (qs[p].left == N.sink)
        qs[p].left = T.sink;
      else
        qs[p].right = T.sink;

      T.down0 = N.down0;
      if (T.down0 > 0) {
        if (tr[T.down0].up0 == n)
          tr[T.down0].up0 = t;
        else if (tr[T.down0].up1 == n)
          tr[T.down0].up1 = t;
      }
      T.down1 = N.down1;
      if (T.down1 > 0) {
        if (tr[T.down1].up0 == n)
          tr[T.down1].up0 = t;
        else if (tr[T.down1].up1 == n)
          tr[T.down1].up1 = t;
      }
      T.bottom = N.bottom;
      N.state = TRAP_MERGED;
    } else {
      t = n;
    }
  }
  return 0;
}
