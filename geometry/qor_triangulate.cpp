#include <qor/qor_assert.h>
#include <qor/qor_mutex.h>
#include <qor/qor_traptree.h>
#include <qor/qor_triangulate.h>
#include <sys/mman.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "internal/qor_triangulate_guard.h"
#include "internal/traptree.h"

using qor_internal::equalTo;
using qor_internal::greaterThan;
using qor_internal::lessThan;

namespace {

const char kUnit[] = "qor_triangulate";

// One vertex of the polygon with the chains that pass through it. Slot 0 is
// the polygon's own edge; each diagonal at the vertex takes one more slot.
struct vertex_t {
  point_t pt;
  qorInt32 next_vert[4];
  qorInt32 chain_pos[4];
  qorInt32 next_free;
};

// One position of a circular chain; each monotone polygon is one cycle.
struct chain_t {
  qorInt32 vertex;
  qorInt32 next;
  qorInt32 prev;
  qorInt32 marked;
};

constexpr qorInt32 kChainSize = TRAPSIZE;

// Serialises triangulate() and is_point_inside_polygon(): the tables are
// process-wide. A QBasicMutex: constant-initialised and trivially destroyed,
// so the library runs no code for it at load or unload.
QBasicMutex triangulateMutex;

qorInt32 permute[SEGSIZE];
qorInt32 choose_idx = 1;

// Aligned to 2 MiB for huge pages, like the map's tables.
alignas(qor_internal::kHugePageAlignment) vertex_t vert[SEGSIZE];
alignas(qor_internal::kHugePageAlignment) chain_t mchain[kChainSize];
qorInt32 mon[SEGSIZE];
qorInt32 visited[TRAPSIZE];
qorInt32 mon_idx = 0;
qorInt32 chain_idx = 0;
qorInt32 op_idx = 0;
qorInt32 lastCount = 0;

// How many triangles the sweep may write: n + 2h - 2 for n vertices and h
// holes, set from the segment table before the sweep starts.
qorInt32 triangleLimit = 0;
// Vertex count of the current decomposition: diagonals must join vertices 1..n.
qorInt32 currentVertices = 0;

// One past the highest entry of each table written since it was last
// cleared; a reset clears only that much (everything beyond is still zero).
qorInt32 segUsed = 1;
qorInt32 vertUsed = 1;
qorInt32 chainUsed = 1;
qorInt32 monUsed = 1;
qorInt32 visitedUsed = 1;

// The pending visits of the trapezoid walk, last in first out. A visit pops
// one entry and pushes at most four, and a trapezoid is expanded at most
// once, so 4 * TRAPSIZE entries always suffice.
struct Visit {
  qorInt32 poly;
  qorInt32 t;
  qorInt32 from;
  qorInt32 dir;
};
alignas(qor_internal::kHugePageAlignment) Visit walkStack[4 * TRAPSIZE + 8];

// Whether the huge-page hint was given; read and written under triangulateMutex.
bool hugePagesAdvised = false;

template <typename T>
void clearUsed(T* table, qorInt32& used) {
  std::memset(table, 0, sizeof(T) * static_cast<size_t>(used));
  used = 1;
}

qorInt32 newmon() {
  if (mon_idx + 1 >= SEGSIZE) qorThrow("make_new_monotone_poly: monotone-polygon table overflow", kUnit, __LINE__);
  ++mon_idx;
  if (mon_idx >= monUsed) monUsed = mon_idx + 1;
  return mon_idx;
}

qorInt32 new_chain_element() {
  if (chain_idx + 1 >= kChainSize) qorThrow("make_new_monotone_poly: chain table overflow", kUnit, __LINE__);
  ++chain_idx;
  if (chain_idx >= chainUsed) chainUsed = chain_idx + 1;
  return chain_idx;
}

[[noreturn]] void walkFailed(unsigned long line) {
  qorThrow("traverse_polygon: the trapezoids do not form a simple polygon", kUnit, line);
}

inline qorInt32 checkedSeg(qorInt32 s, unsigned long line) {
  if (s <= 0 || s >= SEGSIZE) walkFailed(line);
  return s;
}

// A segment number doubles as the number of its start vertex; its next is the
// vertex at its end.
inline qorInt32 endVertex(qorInt32 s, unsigned long line) { return seg[checkedSeg(s, line)].next; }

}  // namespace

double get_angle(point_t* o, point_t* p1, point_t* p2) {
  const double ux = p1->x - o->x, uy = p1->y - o->y;
  const double wx = p2->x - o->x, wy = p2->y - o->y;
  const double cosine = (ux * wx + uy * wy) / std::sqrt(ux * ux + uy * uy) / std::sqrt(wx * wx + wy * wy);
  if (ux * wy - uy * wx >= 0) return cosine;
  return -cosine - 2.0;
}

namespace {

// The slot of vertex v whose chain a diagonal to vertex w splits: among the
// slots with a next vertex, the one with the largest angle (the lowest slot on
// ties, slot 0 when none qualifies). Slots from next_free on are empty, so a
// vertex without diagonals has only slot 0 and needs no angle.
inline qorInt32 chainSlot(vertex_t* v, vertex_t* w) {
  if (v->next_free <= 1) return 0;
  double best = -4.0;
  qorInt32 slot = 0;
  for (qorInt32 i = 0; i < 4; ++i) {
    if (v->next_vert[i] <= 0) continue;
    const double angle = get_angle(&v->pt, &vert[v->next_vert[i]].pt, &w->pt);
    if (angle > best) {
      best = angle;
      slot = i;
    }
  }
  return slot;
}

}  // namespace

// Flattened so that get_angle() is inlined into the slot search (0.35% of a
// whole triangulation otherwise).
[[gnu::flatten]] qorInt32 make_new_monotone_poly(qorInt32 poly, qorInt32 a, qorInt32 b) {
  // Everything is checked before anything changes.
  if (a <= 0 || b <= 0 || a > currentVertices || b > currentVertices || poly < 0 || poly > mon_idx)
    walkFailed(__LINE__);
  vertex_t* va = &vert[a];
  vertex_t* vb = &vert[b];
  if (va->next_free >= 4 || vb->next_free >= 4)
    qorThrow("make_new_monotone_poly: more than three diagonals at one vertex", kUnit, __LINE__);
  if (mon_idx + 1 >= SEGSIZE) qorThrow("make_new_monotone_poly: monotone-polygon table overflow", kUnit, __LINE__);
  if (chain_idx + 2 >= kChainSize) qorThrow("make_new_monotone_poly: chain table overflow", kUnit, __LINE__);

  const qorInt32 m = newmon();
  const qorInt32 ip = chainSlot(va, vb);
  const qorInt32 iq = chainSlot(vb, va);
  const qorInt32 p = va->chain_pos[ip];
  const qorInt32 q = vb->chain_pos[iq];
  const qorInt32 i = new_chain_element();
  const qorInt32 j = new_chain_element();
  chain_t* const ch = mchain;
  ch[i].vertex = a;
  ch[j].vertex = b;

  ch[i].next = ch[p].next;
  ch[ch[p].next].prev = i;
  ch[i].prev = j;
  ch[j].next = i;
  ch[j].prev = ch[q].prev;
  ch[ch[q].prev].next = j;
  ch[p].next = q;
  ch[q].prev = p;

  const qorInt32 nf0 = va->next_free;
  const qorInt32 nf1 = vb->next_free;
  va->next_vert[ip] = b;
  va->chain_pos[nf0] = i;
  va->next_vert[nf0] = ch[ch[i].next].vertex;
  vb->chain_pos[nf1] = j;
  vb->next_vert[nf1] = a;
  va->next_free++;
  vb->next_free++;

  mon[poly] = p;
  mon[m] = i;
  return m;
}

namespace {

// Expands one visit of the walk: adds the diagonal its case calls for and
// pushes the neighbours to visit, so that they pop in the listed order.
class Walker {
 public:
  explicit Walker(qorInt32 depth) : m_Depth(depth) {}

  void expand(const qorInt32 poly, const qorInt32 t, const qorInt32 from, const qorInt32 dir) {
    trap_t* T = &tr[t];
    const qorInt32 up0 = T->up0, up1 = T->up1, down0 = T->down0, down1 = T->down1;
    const int U = (up0 > 0) + (up1 > 0);
    const int D = (down0 > 0) + (down1 > 0);
    m_Count = 0;

    if (U == 0) {
      if (D == 2) {  // downward-opening triangle
        const qorInt32 a = checkedSeg(tr[down1].left_seg, __LINE__), b = checkedSeg(T->left_seg, __LINE__);
        if (from == down1) {
          const qorInt32 m = make_new_monotone_poly(poly, b, a);
          add(poly, down1, false), add(m, down0, false);
        } else {
          const qorInt32 m = make_new_monotone_poly(poly, a, b);
          add(poly, down0, false), add(m, down1, false);
        }
      } else {
        add(poly, up0, true), add(poly, up1, true), add(poly, down0, false), add(poly, down1, false);
      }
    } else if (D == 0) {
      if (U == 2) {  // upward-opening triangle
        const qorInt32 a = checkedSeg(T->right_seg, __LINE__), b = checkedSeg(tr[up0].right_seg, __LINE__);
        if (from == up1) {
          const qorInt32 m = make_new_monotone_poly(poly, b, a);
          add(poly, up1, true), add(m, up0, true);
        } else {
          const qorInt32 m = make_new_monotone_poly(poly, a, b);
          add(poly, up0, true), add(m, up1, true);
        }
      } else {
        add(poly, up0, true), add(poly, up1, true), add(poly, down0, false), add(poly, down1, false);
      }
    } else if (U == 2 && D == 2) {
      const qorInt32 a = checkedSeg(tr[down1].left_seg, __LINE__), b = checkedSeg(tr[up0].right_seg, __LINE__);
      if ((dir == FROM_DOWN && from == down1) || (dir == FROM_UP && from == up1)) {
        const qorInt32 m = make_new_monotone_poly(poly, b, a);
        add(poly, up1, true), add(poly, down1, false), add(m, up0, true), add(m, down0, false);
      } else {
        const qorInt32 m = make_new_monotone_poly(poly, a, b);
        add(poly, up0, true), add(poly, down0, false), add(m, up1, true), add(m, down1, false);
      }
    } else if (U == 2) {  // D == 1
      const qorInt32 ls = checkedSeg(T->left_seg, __LINE__);
      if (equalTo(&T->bottom, &seg[ls].end)) {
        const qorInt32 a = checkedSeg(tr[up0].right_seg, __LINE__), b = endVertex(ls, __LINE__);
        if (dir == FROM_UP && from == up0) {
          const qorInt32 m = make_new_monotone_poly(poly, b, a);
          add(poly, up0, true), add(m, down0, false), add(m, up1, true), add(m, down1, false);
        } else {
          const qorInt32 m = make_new_monotone_poly(poly, a, b);
          add(poly, up1, true), add(poly, down0, false), add(poly, down1, false), add(m, up0, true);
        }
      } else {
        const qorInt32 a = checkedSeg(T->right_seg, __LINE__), b = checkedSeg(tr[up0].right_seg, __LINE__);
        if (dir == FROM_UP && from == up1) {
          const qorInt32 m = make_new_monotone_poly(poly, b, a);
          add(poly, up1, true), add(m, down1, false), add(m, down0, false), add(m, up0, true);
        } else {
          const qorInt32 m = make_new_monotone_poly(poly, a, b);
          add(poly, up0, true), add(poly, down0, false), add(poly, down1, false), add(m, up1, true);
        }
      }
    } else if (D == 2) {  // U == 1
      const qorInt32 ls = checkedSeg(T->left_seg, __LINE__);
      if (equalTo(&T->top, &seg[ls].start)) {
        const qorInt32 a = checkedSeg(tr[down1].left_seg, __LINE__), b = ls;
        if (!(dir == FROM_DOWN && from == down0)) {
          const qorInt32 m = make_new_monotone_poly(poly, b, a);
          add(poly, up1, true), add(poly, down1, false), add(poly, up0, true), add(m, down0, false);
        } else {
          const qorInt32 m = make_new_monotone_poly(poly, a, b);
          add(poly, down0, false), add(m, up0, true), add(m, up1, true), add(m, down1, false);
        }
      } else {
        const qorInt32 a = checkedSeg(tr[down1].left_seg, __LINE__), b = endVertex(T->right_seg, __LINE__);
        if (dir == FROM_DOWN && from == down1) {
          const qorInt32 m = make_new_monotone_poly(poly, b, a);
          add(poly, down1, false), add(m, up1, true), add(m, up0, true), add(m, down0, false);
        } else {
          const qorInt32 m = make_new_monotone_poly(poly, a, b);
          add(poly, up0, true), add(poly, down0, false), add(poly, up1, true), add(m, down1, false);
        }
      }
    } else {  // U == 1, D == 1
      const qorInt32 ls = checkedSeg(T->left_seg, __LINE__), rs = checkedSeg(T->right_seg, __LINE__);
      qorInt32 a = 0, b = 0;
      if (equalTo(&T->top, &seg[ls].start) && equalTo(&T->bottom, &seg[rs].start)) {
        a = rs;
        b = ls;
      } else if (equalTo(&T->top, &seg[rs].end) && equalTo(&T->bottom, &seg[ls].end)) {
        a = endVertex(rs, __LINE__);
        b = endVertex(ls, __LINE__);
      }
      if (a == 0) {
        add(poly, up0, true), add(poly, down0, false), add(poly, up1, true), add(poly, down1, false);
      } else if (dir == FROM_UP) {
        const qorInt32 m = make_new_monotone_poly(poly, b, a);
        add(poly, up0, true), add(poly, up1, true), add(m, down1, false), add(m, down0, false);
      } else {
        const qorInt32 m = make_new_monotone_poly(poly, a, b);
        add(poly, down1, false), add(poly, down0, false), add(m, up0, true), add(m, up1, true);
      }
    }
    // Push in reverse so that the first listed visit pops first.
    for (int i = m_Count - 1; i >= 0; --i) {
      if (m_Depth >= static_cast<qorInt32>(sizeof(walkStack) / sizeof(walkStack[0]))) walkFailed(__LINE__);
      Visit& slot = walkStack[m_Depth++];
      slot.poly = m_PendingPoly[i];
      slot.t = m_PendingTrap[i];
      slot.from = m_Current;
      slot.dir = m_PendingDir[i];
    }
  }

  qorInt32 m_Depth;
  qorInt32 m_Current = 0;  // the trapezoid being expanded

 private:
  // A visit of neighbour x for polygon k from the current trapezoid. Empty
  // and visited neighbours would return at once, so they are not queued
  // (visited flags are never cleared during a walk).
  void add(qorInt32 k, qorInt32 x, bool upward) {
    if (x <= 0 || x >= TRAPSIZE || visited[x]) return;
    m_PendingPoly[m_Count] = k;
    m_PendingTrap[m_Count] = x;
    m_PendingDir[m_Count] = upward ? FROM_DOWN : FROM_UP;
    ++m_Count;
  }

  qorInt32 m_PendingPoly[4];
  qorInt32 m_PendingTrap[4];
  qorInt32 m_PendingDir[4];
  int m_Count = 0;
};

}  // namespace

// ---------------------------------------------------------------------------
// Random order and the driver of the trapezoidation.

// The draws are those of lrand48() after srand48(seconds), computed here
// without a library call per draw; the process-wide generator is then left
// exactly where n calls of lrand48() would have left it.
qorInt32 generate_random_ordering(qorInt32 n) {
  if (n < 0 || n >= SEGSIZE) qorThrow("generate_random_ordering: more than 8191 segments", kUnit, __LINE__);
  choose_idx = 1;
  // srand48(s): the state is the low 32 bits of s followed by 0x330E.
  const long seed = qor_internal::runSeed();
  std::uint64_t x = (static_cast<std::uint64_t>(static_cast<std::uint32_t>(seed)) << 16) | 0x330Eu;
  constexpr std::uint64_t kA = 0x5DEECE66Du, kC = 0xBu, kMask = (std::uint64_t{1} << 48) - 1;
  qorInt32 pool[SEGSIZE];
  for (qorInt32 i = 0; i <= n; ++i) pool[i] = i;
  for (qorInt32 i = 1; i <= n; ++i) {
    x = (kA * x + kC) & kMask;
    // What lrand48() returns, below 2^31, and a positive divisor: the 32-bit
    // remainder is the same number as the long one, and cheaper.
    const std::uint32_t draw = static_cast<std::uint32_t>(x >> 17);
    const qorInt32 m = static_cast<qorInt32>(draw % static_cast<std::uint32_t>(n + 1 - i)) + 1;
    permute[i] = pool[i + m - 1];
    if (m != 1) pool[i + m - 1] = pool[i];
  }
  unsigned short state[3] = {static_cast<unsigned short>(x & 0xFFFFu), static_cast<unsigned short>((x >> 16) & 0xFFFFu),
                             static_cast<unsigned short>((x >> 32) & 0xFFFFu)};
  seed48(state);  // also restores the standard multiplier and addend, as srand48 does
  return 0;
}

qorInt32 choose_segment() {
  if (choose_idx <= 0 || choose_idx >= SEGSIZE) qorThrow("choose_segment: permutation exhausted", kUnit, __LINE__);
  return permute[choose_idx++];
}

qorInt32 find_new_roots(qorInt32 segment) {
  segment_t* s = &seg[segment];
  if (s->in_tree) return 0;
  s->root_start = tr[locate_endpoint(&s->start, &s->end, s->root_start)].sink;
  s->root_end = tr[locate_endpoint(&s->end, &s->start, s->root_end)].sink;
  return 0;
}

namespace {

// The phase bounds of construct_trapezoids() for one segment count:
// bound[h] = math_N(n, h) for h = 0..phases, phases = math_logstar_n(n).
// Remembered from the previous call, since most callers repeat their counts.
struct PhasePlan {
  qorInt32 n = -1;
  qorInt32 phases = 0;
  qorInt32 bound[8] = {};
};
PhasePlan phasePlan;

const PhasePlan& planFor(qorInt32 n) {
  if (phasePlan.n != n) {
    PhasePlan plan;
    plan.phases = math_logstar_n(n);
    // log* of a table-sized count is at most 4.
    if (plan.phases < 0 || plan.phases >= 8)
      qorThrow("construct_trapezoids: segment count outside 1..8191", kUnit, __LINE__);
    for (qorInt32 h = 0; h <= plan.phases; ++h) plan.bound[h] = math_N(n, h);
    plan.n = n;
    phasePlan = plan;
  }
  return phasePlan;
}

}  // namespace

qorInt32 initialise(qorInt32 n) {
  if (n < 0 || n >= SEGSIZE) qorThrow("initialise: more than 8191 segments", kUnit, __LINE__);
  if (n + 1 > segUsed) segUsed = n + 1;
  for (qorInt32 i = 1; i <= n; ++i) seg[i].in_tree = 0;
  return generate_random_ordering(n);
}

qorInt32 math_logstar_n(qorInt32 n) {
  qorInt32 i = 0;
  for (double v = n; v >= 1; ++i) v = std::log2(v);
  return i - 1;
}

qorInt32 math_N(qorInt32 n, qorInt32 h) {
  if (h < 1) return 1;
  double v = n;
  for (qorInt32 i = 0; i < h; ++i) v = std::log2(v);
  const double q = std::ceil(static_cast<double>(n) / v);
  // Only bounds that the phases never reach leave the integers.
  if (!(q >= 0)) return 0;
  if (q > 2147483647.0) return 2147483647;
  return static_cast<qorInt32>(q);
}

namespace {

// construct_trapezoids() when clearAll is true; false builds the map as
// qor_internal::startMap does. Flattened so that find_new_roots() and
// choose_segment() are inlined into the phase loops, which the compiler
// would otherwise leave as calls (1.2% more instructions in a whole
// triangulation).
[[gnu::flatten]] void buildMap(qorInt32 n, bool clearAll) {
  if (n < 1 || n >= SEGSIZE) qorThrow("construct_trapezoids: segment count outside 1..8191", kUnit, __LINE__);
  const PhasePlan& plan = planFor(n);
  const qorInt32 first = choose_segment();
  const qorInt32 root = clearAll ? init_query_structure(first) : qor_internal::startMap(first);
  segment_t* const segs = seg;
  for (qorInt32 i = 1; i <= n; ++i) segs[i].root_start = segs[i].root_end = root;
  for (qorInt32 h = 1; h <= plan.phases; ++h) {
    for (qorInt32 i = plan.bound[h - 1] + 1; i <= plan.bound[h]; ++i) add_segment(choose_segment());
    for (qorInt32 i = 1; i <= n; ++i) find_new_roots(i);
  }
  for (qorInt32 i = plan.bound[plan.phases] + 1; i <= n; ++i) add_segment(choose_segment());
}

// Clears what the previous map left beyond the counters when it goes out of
// scope, however the build ends.
struct SettleMap {
  SettleMap() = default;
  SettleMap(const SettleMap&) = delete;
  SettleMap& operator=(const SettleMap&) = delete;
  ~SettleMap() { qor_internal::settleMap(); }
};

}  // namespace

qorInt32 construct_trapezoids(qorInt32 n) {
  buildMap(n, true);
  return 0;
}

// ---------------------------------------------------------------------------
// Monotone decomposition.

qorInt32 inside_polygon(trap_t* t) {
  const qorInt32 rseg = t->right_seg;
  if (t->state == TRAP_MERGED) return 0;
  if (t->left_seg <= 0 || rseg <= 0 || rseg >= SEGSIZE) return 0;
  if ((t->up0 <= 0 && t->up1 <= 0) || (t->down0 <= 0 && t->down1 <= 0))
    return greaterThan(&seg[rseg].end, &seg[rseg].start);
  return 0;
}

qorInt32 get_vertex_positions(qorInt32 a, qorInt32 b, qorInt32* ip, qorInt32* iq) {
  *ip = chainSlot(&vert[a], &vert[b]);
  *iq = chainSlot(&vert[b], &vert[a]);
  return 0;
}

qorInt32 traverse_polygon(qorInt32 poly, qorInt32 t, qorInt32 from, qorInt32 dir) {
  // Depth first like a recursion over the neighbours, but with its own stack:
  // the walk can be as deep as there are trapezoids.
  Walker walker(0);
  Visit& first = walkStack[walker.m_Depth++];
  first.poly = poly;
  first.t = t;
  first.from = from;
  first.dir = dir;
  while (walker.m_Depth > 0) {
    const Visit& v = walkStack[--walker.m_Depth];
    const qorInt32 vt = v.t;
    if (vt <= 0 || vt >= TRAPSIZE || visited[vt]) continue;
    visited[vt] = 1;
    if (vt >= visitedUsed) visitedUsed = vt + 1;
    walker.m_Current = vt;
    walker.expand(v.poly, vt, v.from, v.dir);
  }
  return 0;
}

qorInt32 monotonate_trapezoids(qorInt32 n) {
  if (n < 1 || n >= SEGSIZE) qorThrow("monotonate_trapezoids: vertex count outside 1..8191", kUnit, __LINE__);
  clearUsed(vert, vertUsed);
  clearUsed(visited, visitedUsed);
  clearUsed(mchain, chainUsed);
  clearUsed(mon, monUsed);

  // Only issued trapezoids can pass the test; the rest of the table is zero.
  const qorInt32 limit = qor_internal::trapLimit();
  qorInt32 start = 0;
  while (start < limit && !inside_polygon(&tr[start])) ++start;
  if (start >= limit)
    qorThrow("monotonate_trapezoids: no trapezoid lies inside the polygon (do the contours run the wrong way?)", kUnit,
             __LINE__);

  for (qorInt32 i = 1; i <= n; ++i) {
    mchain[i].prev = seg[i].prev;
    mchain[i].next = seg[i].next;
    mchain[i].vertex = i;
    vert[i].pt = seg[i].start;
    vert[i].next_vert[0] = seg[i].next;
    vert[i].chain_pos[0] = i;
    vert[i].next_free = 1;
  }
  vertUsed = n + 1;
  chainUsed = n + 1;
  currentVertices = n;
  chain_idx = n;
  mon_idx = 0;
  mon[0] = 1;

  if (tr[start].up0 > 0)
    traverse_polygon(0, start, tr[start].up0, FROM_UP);
  else if (tr[start].down0 > 0)
    traverse_polygon(0, start, tr[start].down0, FROM_DOWN);
  return newmon();
}

namespace {

inline void checkRoom(unsigned long line) {
  if (op_idx >= triangleLimit) qorThrow("op_idx < nvert - 2", kUnit, line);
}

inline void emit(qorInt32 (*triangles)[3], qorInt32 a, qorInt32 b, qorInt32 c) {
  triangles[op_idx][0] = a;
  triangles[op_idx][1] = b;
  triangles[op_idx][2] = c;
  ++op_idx;
}

inline qorInt32 chainAt(qorInt32 pos) {
  if (pos < 0 || pos >= kChainSize) walkFailed(__LINE__);
  return pos;
}

}  // namespace

qorInt32 triangulate_single_polygon(qorInt32 nvert, qorInt32 top_pos, qorInt32 side, qorInt32 (*triangles)[3]) {
  qorInt32 rc[SEGSIZE];  // the reflex chain
  qorInt32 ri = 1;
  qorInt32 pos;
  qorInt32 endv;
  top_pos = chainAt(top_pos);
  if (side == SINGLE_RIGHT) {
    rc[0] = mchain[top_pos].vertex;
    const qorInt32 second = chainAt(mchain[top_pos].next);
    rc[1] = mchain[second].vertex;
    pos = chainAt(mchain[second].next);
    endv = mchain[chainAt(mchain[top_pos].prev)].vertex;
    if (endv == 0) endv = nvert;
  } else {
    const qorInt32 first = chainAt(mchain[top_pos].next);
    rc[0] = mchain[first].vertex;
    const qorInt32 second = chainAt(mchain[first].next);
    rc[1] = mchain[second].vertex;
    pos = chainAt(mchain[second].next);
    endv = mchain[top_pos].vertex;
  }
  qorInt32 v = mchain[pos].vertex;

  while (v != endv || ri > 1) {
    if (!(ri < SEGSIZE - 1)) qorThrow("ri < SEGSIZE - 1", kUnit, __LINE__);
    checkRoom(__LINE__);
    if (v <= 0 || v >= SEGSIZE) walkFailed(__LINE__);
    if (ri > 0) {
      const point_t& V = vert[v].pt;
      const point_t& A = vert[rc[ri - 1]].pt;
      const point_t& B = vert[rc[ri]].pt;
      if ((A.x - V.x) * (B.y - V.y) - (A.y - V.y) * (B.x - V.x) > 0) {
        emit(triangles, rc[ri - 1], rc[ri], v);
        --ri;
        continue;
      }
    }
    ++ri;
    rc[ri] = v;
    pos = chainAt(mchain[pos].next);
    v = mchain[pos].vertex;
  }
  if (ri < 1) walkFailed(__LINE__);
  checkRoom(__LINE__);
  emit(triangles, rc[ri - 1], rc[ri], v);
  return 0;
}

qorInt32 triangulate_monotone_polygons(qorInt32 nvert, qorInt32 npolys, qorInt32 (*triangles)[3]) {
  // n + 2h - 2 triangles for n vertices in h + 1 contours; a contour's last
  // segment is the one whose next wraps back.
  qorInt32 contours = 0;
  for (qorInt32 i = 1; i <= nvert && i < SEGSIZE; ++i)
    if (seg[i].next <= i) ++contours;
  triangleLimit = nvert + 2 * (contours > 0 ? contours - 1 : 0) - 2;
  op_idx = 0;
  if (npolys > monUsed) npolys = monUsed;

  for (qorInt32 k = 0; k < npolys; ++k) {
    const qorInt32 s = chainAt(mon[k]);
    const qorInt32 f = mchain[s].vertex;
    if (f <= 0 || f >= SEGSIZE) walkFailed(__LINE__);
    point_t high = vert[f].pt;
    point_t low = vert[f].pt;
    qorInt32 top_pos = s;
    mchain[s].marked = 1;
    qorInt32 count = 1;
    bool done = false;
    qorInt32 p = chainAt(mchain[s].next);
    qorInt32 v;
    while ((v = mchain[p].vertex) != f) {
      if (mchain[p].marked) {  // reached through an earlier entry
        done = true;
        break;
      }
      mchain[p].marked = 1;
      if (v <= 0 || v >= SEGSIZE) walkFailed(__LINE__);
      if (greaterThan(&vert[v].pt, &high)) {
        high = vert[v].pt;
        top_pos = p;
      }
      if (lessThan(&vert[v].pt, &low)) low = vert[v].pt;
      p = chainAt(mchain[p].next);
      ++count;
    }
    if (done) continue;
    if (count == 3) {
      checkRoom(__LINE__);
      emit(triangles, mchain[p].vertex, mchain[chainAt(mchain[p].next)].vertex, mchain[chainAt(mchain[p].prev)].vertex);
    } else {
      const qorInt32 after = mchain[chainAt(mchain[top_pos].next)].vertex;
      if (after > 0 && after < SEGSIZE && equalTo(&vert[after].pt, &low))
        triangulate_single_polygon(nvert, top_pos, SINGLE_LEFT, triangles);
      else
        triangulate_single_polygon(nvert, top_pos, SINGLE_RIGHT, triangles);
    }
  }
  return op_idx;
}

// ---------------------------------------------------------------------------
// Entry points.

namespace {

// Insertion in random order touches the megabytes of tr and qs at random,
// and the walk and the chains are touched at random too, so a large
// triangulation spends much of its time in TLB misses; huge pages cover the
// tables with a few entries. Only a hint: without transparent huge pages
// nothing changes. Given on the first triangulation rather than at load, so
// that a program that never triangulates does not pay for it. Call with
// triangulateMutex held.
void adviseHugePagesOnce() {
  if (hugePagesAdvised) return;
  madvise(seg, sizeof(seg), MADV_HUGEPAGE);
  madvise(tr, sizeof(tr), MADV_HUGEPAGE);
  madvise(qs, sizeof(qs), MADV_HUGEPAGE);
  madvise(vert, sizeof(vert), MADV_HUGEPAGE);
  madvise(mchain, sizeof(mchain), MADV_HUGEPAGE);
  madvise(walkStack, sizeof(walkStack), MADV_HUGEPAGE);
  hugePagesAdvised = true;
}

}  // namespace

qorInt32 triangulate(qorInt32 count, qorInt32* sizes, double (*points)[2], qorInt32 (*triangles)[3]) {
  // Everything about the input is checked before any table changes.
  if (count < 1) qorThrow("triangulate: the contour count must be at least 1", kUnit, __LINE__);
  if (sizes == nullptr || points == nullptr || triangles == nullptr)
    qorThrow("triangulate: null sizes, points or triangles", kUnit, __LINE__);
  long long total = 0;
  for (qorInt32 c = 0; c < count; ++c) {
    const qorInt32 k = sizes[c];
    if (k <= 0) continue;
    if (k < 3) qorThrow("triangulate: a contour has only one or two points", kUnit, __LINE__);
    total += k;
    if (total > SEGSIZE - 1) qorThrow("triangulate: more than 8191 vertices", kUnit, __LINE__);
  }
  if (total == 0) qorThrow("triangulate: no vertex", kUnit, __LINE__);
  const qorInt32 n = static_cast<qorInt32>(total);
  qor_internal::ContourSummary summary;
  qor_internal::checkContours(count, sizes, points, summary);

  qorMutexLocker lock(triangulateMutex);
  adviseHugePagesOnce();
  lastCount = 0;
  clearUsed(seg, segUsed);
  qorInt32 i = 1;
  for (qorInt32 c = 0; c < count; ++c) {
    const qorInt32 k = sizes[c];
    if (k <= 0) continue;
    const qorInt32 first = i;
    const qorInt32 last = i + k - 1;
    for (; i <= last; ++i) {
      segment_t& s = seg[i];
      const point_t p{points[i][0], points[i][1]};
      s.start = p;
      if (i == last) {
        s.next = first;
        s.prev = i - 1;
        seg[i - 1].end = p;
      } else if (i == first) {
        s.next = i + 1;
        s.prev = last;
        seg[last].end = p;
      } else {
        s.prev = i - 1;
        s.next = i + 1;
        seg[i - 1].end = p;
      }
      s.in_tree = 0;
    }
  }
  segUsed = n + 1;

  // What initialise(n) does: in_tree is already clear.
  generate_random_ordering(n);
  {
    // The tables are cleared as the map is built, not all at once before it.
    SettleMap settle;
    buildMap(n, false);
  }
  const qorInt32 npolys = monotonate_trapezoids(n);
  lastCount = triangulate_monotone_polygons(n, npolys, triangles);
  qor_internal::checkCover(summary, points, triangles, lastCount);
  return 0;
}

qorInt32 is_point_inside_polygon(double* point) {
  if (point == nullptr) qorThrow("is_point_inside_polygon: null point", kUnit, __LINE__);
  qorMutexLocker lock(triangulateMutex);
  point_t p;
  p.x = point[0];
  p.y = point[1];
  const qorInt32 t = locate_endpoint(&p, &p, 1);
  if (t <= 0 || t >= TRAPSIZE) return 0;
  const trap_t& trap = tr[t];
  if (trap.state == TRAP_MERGED || trap.left_seg <= 0 || trap.right_seg <= 0 || trap.right_seg >= SEGSIZE) return 0;
  return qor_internal::greaterThanEqualTo(&seg[trap.right_seg].end, &seg[trap.right_seg].start);
}

qorInt32 triangulate_last_count() {
  qorMutexLocker lock(triangulateMutex);
  return lastCount;
}
