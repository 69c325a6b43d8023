#include "internal/ring_sweep.h"

#include <qor/qor_assert.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

// The few steps that every point goes through are inlined into the paths that call them.
#define QOR_HOT_INLINE __attribute__((always_inline)) inline

namespace qor_internal {

namespace {

const char kUnit[] = "qor_rings";

// Sweep order: by y, then x. Equal points are one node.
inline bool below(const Pt& a, const Pt& b) { return a.y < b.y || (a.y == b.y && a.x < b.x); }

// Sweep order of keys: y's bits, then x (read from the points, rarely needed), then the index.
struct KeyBefore {
  const Pt* pts;
  bool operator()(const RingSweep::Key& a, const RingSweep::Key& b) const {
    if (a.y != b.y) return a.y < b.y;
    const uint64_t ax = orderBits(pts[a.point].x), bx = orderBits(pts[b.point].x);
    if (ax != bx) return ax < bx;
    return a.point < b.point;
  }
};

}  // namespace

std::string near(double x, double y) {
  char text[80];
  std::snprintf(text, sizeof(text), " near (%.10g, %.10g)", x, y);
  return text;
}

// --- The model --------------------------------------------------------------------------------------------------

void RingModel::begin(qorInt32 capacity, double scaleBy) {
  const size_t n = static_cast<size_t>(capacity);
  if (pts.size() < n) {
    pts.resize(n);
    orig.resize(n);
    ringOf.resize(n);
    next.resize(n);
    prev.resize(n);
    sign.resize(n);
  }
  count = 0;
  scale = scaleBy;
  twiceArea = 0;
  low = Pt{INFINITY, INFINITY};
  high = Pt{-INFINITY, -INFINITY};
  ringStart.assign(1, 0);
  ringNumber.clear();
  ringSign.clear();
}

void RingModel::keepRing(qorInt32 n, qorInt32 ring, int8_t direction) {
  count += n;
  ringStart.push_back(count);
  ringNumber.push_back(ring);
  ringSign.push_back(direction);
}

void RingModel::link() {
  for (size_t r = 0; r < ringNumber.size(); ++r) {
    const qorInt32 first = ringStart[r], last = ringStart[r + 1] - 1;
    for (qorInt32 i = first; i <= last; ++i) {
      const size_t at = static_cast<size_t>(i);
      ringOf[at] = ringNumber[r];
      next[at] = i + 1;
      prev[at] = i - 1;
      sign[at] = ringSign[r];
    }
    next[static_cast<size_t>(last)] = first;
    prev[static_cast<size_t>(first)] = last;
  }
}

std::vector<bool> RingModel::ringsAround(const Pt& q) const {
  const size_t rings = count == 0 ? 0 : static_cast<size_t>(ringOf[static_cast<size_t>(count) - 1]) + 1;
  std::vector<bool> inside(rings, false), boundary(rings, false);
  for (qorInt32 i = 0; i < count; ++i) {
    const size_t r = static_cast<size_t>(ringOf[static_cast<size_t>(i)]);
    const Pt& a = pts[static_cast<size_t>(i)];
    const Pt& b = pts[static_cast<size_t>(next[static_cast<size_t>(i)])];
    const double side = orient2d(a, b, q);
    if (side == 0 && std::min(a.x, b.x) <= q.x && q.x <= std::max(a.x, b.x) && std::min(a.y, b.y) <= q.y &&
        q.y <= std::max(a.y, b.y))
      boundary[r] = true;
    // An edge counts when it spans q's height, half-open so that a vertex at that height counts once.
    if ((a.y > q.y) != (b.y > q.y) && ((side > 0) == (b.y > a.y))) inside[r] = !inside[r];
  }
  for (size_t r = 0; r < inside.size(); ++r) inside[r] = inside[r] && !boundary[r];
  return inside;
}

// --- Entry points -----------------------------------------------------------------------------------------------

void RingSweep::check(const RingModel& model, Contact& touch, Contact& cross) {
  SweepCounts counts;
  m_Counts = &counts;
  m_Out = nullptr;
  prepare(model, SweepMode::Check);
  sweep();
  touch = m_Touch;
  cross = m_Cross;
}

void RingSweep::triangulate(const RingModel& model, const char* prefix, std::vector<qorInt32>& out, SweepCounts& counts,
                            double& twiceArea) {
  m_Prefix = prefix;
  m_Counts = &counts;
  prepare(model, SweepMode::Rings);
  // A planar triangulation of V points has at most 2V - 4 triangles.
  startOutput(2 * static_cast<size_t>(m_Nodes) + 1);
  m_Orig = m_NodeOrig.data();
  sweep();
  if (m_Cross.kind == Contact::Cross) {
    std::string what = "ring " + std::to_string(m_Cross.ringB + 1) + " crosses ";
    what += m_Cross.ringA == m_Cross.ringB ? std::string("itself") : "ring " + std::to_string(m_Cross.ringA + 1);
    fail(what + near(m_Cross.x, m_Cross.y) + " (edges cross)", __LINE__);
  }
  if (!m_Problem.empty()) fail(m_Problem, __LINE__);
  out.insert(out.end(), m_Triangles.get(), m_Out);
  twiceArea = m_Area;
}

void RingSweep::fill(const RingModel& model, int rule, qorInt32 inputPoints, const char* prefix,
                     std::vector<qorInt32>& out, std::vector<double>& added) {
  SweepCounts counts;
  m_Prefix = prefix;
  m_Counts = &counts;
  m_Rule = rule;
  m_InputPoints = inputPoints;
  m_Added = &added;
  prepare(model, SweepMode::Fill);
  startOutput(2 * static_cast<size_t>(m_Nodes) + 1);
  m_Orig = m_NodeOrig.data();
  sweep();
  out.insert(out.end(), m_Triangles.get(), m_Out);
}

void RingSweep::startOutput(size_t triangles) {
  if (m_TrianglesSize < 3 * triangles) {
    m_TrianglesSize = 3 * triangles;
    m_Triangles.reset(new qorInt32[m_TrianglesSize]);
  }
  m_Out = m_Triangles.get();
  m_Area = 0;
}

// --- Set-up -----------------------------------------------------------------------------------------------------

void RingSweep::prepare(const RingModel& model, SweepMode mode) {
  m_Model = &model;
  m_Mode = mode;
  m_Touch = Contact();
  m_Cross = Contact();
  m_Problem.clear();
  m_Area = 0;
  sortNodes();

  const qorInt32 n = model.size();
  m_Edges.resize(static_cast<size_t>(n));
  for (qorInt32 r = 0; r < model.rings(); ++r) {
    const qorInt32 first = model.ringStart[static_cast<size_t>(r)], end = model.ringStart[static_cast<size_t>(r) + 1];
    const qorInt32 ring = model.ringNumber[static_cast<size_t>(r)], sign = model.ringSign[static_cast<size_t>(r)];
    for (qorInt32 i = first; i < end; ++i) {
      const qorInt32 a = m_NodeOf[static_cast<size_t>(i)];
      const qorInt32 b = m_NodeOf[static_cast<size_t>(i + 1 < end ? i + 1 : first)];
      Edge& e = m_Edges[static_cast<size_t>(i)];  // field by field: see newFront()
      e.lo = a < b ? a : b;
      e.hi = a < b ? b : a;
      e.sa = pt(e.lo);
      e.sb = pt(e.hi);
      e.delta = a < b ? sign : -sign;
      e.ring = ring;
      e.partner = e.slot = e.extra = kNil;
    }
  }
  if (m_ExtraHead.size() < static_cast<size_t>(m_Nodes)) m_ExtraHead.resize(static_cast<size_t>(m_Nodes));
  std::fill(m_ExtraHead.begin(), m_ExtraHead.begin() + m_Nodes, kNil);
  if (m_Touched.size() < static_cast<size_t>(m_Nodes)) m_Touched.resize(static_cast<size_t>(m_Nodes));
  std::fill(m_Touched.begin(), m_Touched.begin() + m_Nodes, 0);
  if (mode == SweepMode::Fill) {
    m_NodeKey.resize(static_cast<size_t>(m_Nodes));
    for (qorInt32 p = 0; p < m_Nodes; ++p)
      m_NodeKey[static_cast<size_t>(p)] = NodeKey{orderBits(pt(p).y), orderBits(pt(p).x)};
    m_ForcedHead.assign(static_cast<size_t>(m_Nodes), kNil);
    m_Forced.clear();
    m_Heap.clear();
    m_CrossingAt.clear();
    m_PairAt.clear();
    m_SlotMark.clear();
    m_Stamp = 0;
    // n edges cross at most n (n - 1) / 2 times; rounding adds a few more near each crossing.
    m_CrossingLimit = static_cast<size_t>(n) * static_cast<size_t>(n) + 64 * static_cast<size_t>(n) + 1024;
  }

  m_Slots.resize(1);
  m_Slots[0] = Slot{Pt{0, 0}, Pt{0, 0}, kNil, kNil, 0, kNil, kLevels, kNil, kNil};  // the head
  if (m_Up.size() < static_cast<size_t>(kLevels)) m_Up.resize(kLevels);
  std::fill(m_Up.begin(), m_Up.begin() + kLevels, kNil);
  m_FreeSlots.clear();
  m_TopLevel = 1;
  m_Random = 0x9e3779b9u;  // a fixed start: the same input gives the same list in every run

  m_FrontUsed = 0;
  if (m_Front.size() < 2 * static_cast<size_t>(n)) m_Front.resize(2 * static_cast<size_t>(n));
  m_Intervals.clear();
  m_FreeIntervals.clear();
}

void RingSweep::sortNodes() {
  const RingModel& model = *m_Model;
  const size_t n = static_cast<size_t>(model.size());
  m_Keys.resize(n);
  for (size_t i = 0; i < n; ++i) m_Keys[i] = Key{orderBits(model.pts[i].y), static_cast<qorInt32>(i)};
  const KeyBefore before{model.pts.data()};
  if (n <= 12) {
    for (size_t i = 1; i < n; ++i) {
      const Key k = m_Keys[i];
      size_t j = i;
      for (; j > 0 && before(k, m_Keys[j - 1]); --j) m_Keys[j] = m_Keys[j - 1];
      m_Keys[j] = k;
    }
  } else {
    mergeRuns();
  }

  if (m_Order.size() < n) {
    m_Order.resize(n);
    m_NodeOf.resize(n);
    m_NodeStart.resize(n + 1);
  }
  m_NodePt.resize(n);
  m_NodeOrig.resize(n);
  size_t nodes = 0;
  const Pt* last = nullptr;
  for (size_t i = 0; i < n; ++i) {
    const Key& k = m_Keys[i];
    const Pt& at = model.pts[static_cast<size_t>(k.point)];
    if (last == nullptr || at.y != last->y || at.x != last->x) {
      m_NodeStart[nodes] = static_cast<qorInt32>(i);
      m_NodePt[nodes] = at;
      m_NodeOrig[nodes] = model.orig[static_cast<size_t>(k.point)];
      ++nodes;
      last = &at;
    }
    m_Order[i] = k.point;
    m_NodeOf[static_cast<size_t>(k.point)] = static_cast<qorInt32>(nodes) - 1;
  }
  m_NodeStart[nodes] = static_cast<qorInt32>(n);
  m_Nodes = static_cast<qorInt32>(nodes);
  m_NodePt.resize(nodes);  // crossings append theirs
  m_NodeOrig.resize(nodes);
}

void RingSweep::mergeRuns() {
  // A ring runs up and down between its turning points, so its points form sorted runs: reverse the falling ones
  // and merge them pairwise, which takes O(n log r) for r runs. Rings that turn at nearly every point (combs,
  // grids, jagged outlines) are sorted outright, large ones by radix.
  const RingModel& model = *m_Model;
  const KeyBefore before{model.pts.data()};
  const size_t n = m_Keys.size();
  m_Runs.clear();
  for (qorInt32 r = 0; r < model.rings(); ++r) {
    const size_t ringEnd = static_cast<size_t>(model.ringStart[static_cast<size_t>(r) + 1]);
    for (size_t i = static_cast<size_t>(model.ringStart[static_cast<size_t>(r)]); i < ringEnd;) {
      size_t j = i + 1;
      const bool rising = j < ringEnd && before(m_Keys[i], m_Keys[j]);
      while (j < ringEnd && before(m_Keys[j - 1], m_Keys[j]) == rising) ++j;
      m_Runs.push_back(static_cast<qorInt32>(i));
      if (!rising) std::reverse(m_Keys.begin() + static_cast<long>(i), m_Keys.begin() + static_cast<long>(j));
      i = j;
    }
  }
  if (m_Runs.size() > 8 && m_Runs.size() > n / 16) {
    if (n >= 2048)
      radixSort();
    else
      std::sort(m_Keys.begin(), m_Keys.end(), before);
    return;
  }
  m_Runs.push_back(static_cast<qorInt32>(n));
  m_Merged.resize(n);
  while (m_Runs.size() > 2) {
    size_t kept = 0;
    for (size_t r = 0; r + 1 < m_Runs.size(); r += 2) {
      const size_t a = static_cast<size_t>(m_Runs[r]), b = static_cast<size_t>(m_Runs[r + 1]);
      const size_t c = r + 2 < m_Runs.size() ? static_cast<size_t>(m_Runs[r + 2]) : b;
      std::merge(m_Keys.begin() + static_cast<long>(a), m_Keys.begin() + static_cast<long>(b),
                 m_Keys.begin() + static_cast<long>(b), m_Keys.begin() + static_cast<long>(c),
                 m_Merged.begin() + static_cast<long>(a), before);
      m_Runs[kept++] = static_cast<qorInt32>(a);
    }
    m_Runs[kept++] = static_cast<qorInt32>(n);
    m_Runs.resize(kept);
    m_Keys.swap(m_Merged);
  }
}

void RingSweep::radixSort() {
  // By y, least significant byte first, each pass stable, from the points in index order; only the bytes in which
  // some keys differ take a pass (the high bytes of coordinates in a narrow range do not). Then each run of equal y
  // is sorted by x and index.
  const RingModel& model = *m_Model;
  const size_t n = m_Keys.size();
  uint64_t differ = 0;
  const uint64_t first = orderBits(model.pts[0].y);
  for (size_t i = 0; i < n; ++i) {
    m_Keys[i] = Key{orderBits(model.pts[i].y), static_cast<qorInt32>(i)};
    differ |= m_Keys[i].y ^ first;
  }
  m_Merged.resize(n);
  uint32_t counts[256];
  for (int shift = 0; shift < 64; shift += 8) {
    if (((differ >> shift) & 255) == 0) continue;
    std::memset(counts, 0, sizeof(counts));
    for (const Key& k : m_Keys) ++counts[(k.y >> shift) & 255];
    uint32_t sum = 0;
    for (uint32_t& c : counts) {
      const uint32_t here = c;
      c = sum;
      sum += here;
    }
    for (const Key& k : m_Keys) m_Merged[counts[(k.y >> shift) & 255]++] = k;
    m_Keys.swap(m_Merged);
  }
  const KeyBefore before{model.pts.data()};
  for (size_t i = 0; i < n;) {
    size_t j = i + 1;
    while (j < n && m_Keys[j].y == m_Keys[i].y) ++j;
    if (j - i > 1) std::sort(m_Keys.begin() + static_cast<long>(i), m_Keys.begin() + static_cast<long>(j), before);
    i = j;
  }
}

// --- The sweep --------------------------------------------------------------------------------------------------

void RingSweep::sweep() {
  const RingModel& model = *m_Model;
  const bool filling = m_Mode == SweepMode::Fill;
  qorInt32 nextStatic = 0;
  for (;;) {
    const qorInt32 p = !filling ? (nextStatic < m_Nodes ? nextStatic++ : kNil) : nextNode(nextStatic);
    if (p == kNil) break;
    m_Current = p;
    // Past the lowest crossing found so far, the order of the active edges no longer holds: stop there.
    if (m_Cross.kind == Contact::Cross && !below(pt(p), m_CrossAt)) break;
    if (filling && (p >= m_Nodes || m_ForcedHead[static_cast<size_t>(p)] != kNil)) {
      event(p);
      continue;
    }
    // Most nodes are one point of one ring with nothing else on them: the point goes on a chain, or is the lowest
    // or highest point of two chains. Those have paths of their own; the general event handles the rest.
    const qorInt32 begin = m_NodeStart[static_cast<size_t>(p)];
    if (m_NodeStart[static_cast<size_t>(p) + 1] == begin + 1 && m_ExtraHead[static_cast<size_t>(p)] == kNil &&
        !m_Touched[static_cast<size_t>(p)]) {
      const qorInt32 v = m_Order[static_cast<size_t>(begin)], u = model.prev[static_cast<size_t>(v)];
      const Edge &ev = edge(v), &eu = edge(u);
      bool done = false;
      if (eu.hi == p && ev.lo == p)
        done = regular(p, u, v);
      else if (ev.hi == p && eu.lo == p)
        done = regular(p, v, u);
      else if (eu.lo == p && ev.lo == p)
        done = lowest(p, u, v);
      else if (eu.hi == p && ev.hi == p)
        done = highest(p, u, v);
      if (done) continue;
    }
    event(p);
  }
}

qorInt32 RingSweep::nextNode(qorInt32& nextStatic) {
  // The input's points in their sorted order, and in fill mode the crossings found on the way, lowest first.
  if (m_Heap.empty()) return nextStatic < m_Nodes ? nextStatic++ : kNil;
  const auto later = [this](qorInt32 a, qorInt32 b) { return nodeBefore(b, a); };
  if (nextStatic < m_Nodes && nodeBefore(nextStatic, m_Heap.front())) return nextStatic++;
  std::pop_heap(m_Heap.begin(), m_Heap.end(), later);
  const qorInt32 p = m_Heap.back();
  m_Heap.pop_back();
  return p;
}

bool RingSweep::nodeBefore(qorInt32 a, qorInt32 b) const {
  if (a < m_Nodes && b < m_Nodes) return a < b;
  const NodeKey &ka = m_NodeKey[static_cast<size_t>(a)], &kb = m_NodeKey[static_cast<size_t>(b)];
  return ka.y < kb.y || (ka.y == kb.y && ka.x < kb.x);
}

qorInt32 RingSweep::nodeAt(const Pt& at) {
  // An input point at the same place is that node; an earlier crossing there is that one; else a new node.
  const NodeKey key{orderBits(at.y), orderBits(at.x)};
  const auto found = std::lower_bound(
      m_NodeKey.begin(), m_NodeKey.begin() + m_Nodes, key,
      [](const NodeKey& k, const NodeKey& want) { return k.y < want.y || (k.y == want.y && k.x < want.x); });
  if (found != m_NodeKey.begin() + m_Nodes && *found == key) return static_cast<qorInt32>(found - m_NodeKey.begin());
  const auto crossing = m_CrossingAt.find(key);
  if (crossing != m_CrossingAt.end()) return crossing->second;
  const qorInt32 node = static_cast<qorInt32>(m_NodePt.size());
  m_NodePt.push_back(at);
  m_NodeKey.push_back(key);
  m_NodeOrig.push_back(m_InputPoints + static_cast<qorInt32>(m_Added->size() / 2));
  m_Orig = m_NodeOrig.data();
  m_Added->push_back(at.x / m_Model->scale);
  m_Added->push_back(at.y / m_Model->scale);
  if (m_ExtraHead.size() <= static_cast<size_t>(node)) {
    m_ExtraHead.resize(2 * static_cast<size_t>(node) + 2);
    m_Touched.resize(2 * static_cast<size_t>(node) + 2);
  }
  m_ExtraHead[static_cast<size_t>(node)] = kNil;
  m_Touched[static_cast<size_t>(node)] = 0;
  m_ForcedHead.push_back(kNil);
  m_CrossingAt.emplace(key, node);
  m_Heap.push_back(node);
  std::push_heap(m_Heap.begin(), m_Heap.end(), [this](qorInt32 a, qorInt32 b) { return nodeBefore(b, a); });
  // Each node adds at most two triangles: keep room for them.
  const size_t need = 3 * (2 * m_NodePt.size() + 1);
  if (m_TrianglesSize < need) {
    const size_t written = static_cast<size_t>(m_Out - m_Triangles.get());
    std::unique_ptr<qorInt32[]> larger(new qorInt32[2 * need]);
    std::copy(m_Triangles.get(), m_Out, larger.get());
    m_Triangles.swap(larger);
    m_TrianglesSize = 2 * need;
    m_Out = m_Triangles.get() + written;
  }
  return node;
}

void RingSweep::scheduleCrossing(qorInt32 leftSlot, qorInt32 rightSlot) {
  // Two neighbouring edges cross above the sweep: both are split at the crossing, when the sweep gets there.
  const Slot &l = slot(leftSlot), &r = slot(rightSlot);
  const uint64_t pair = static_cast<uint64_t>(static_cast<uint32_t>(l.edge)) << 32 | static_cast<uint32_t>(r.edge);
  if (m_PairAt.count(pair) != 0) return;
  Pt at = crossingPoint(l.sa, l.sb, r.sa, r.sb);
  // Rounding may put the point at or below the node being swept, or at or beyond the nearer end of the two edges:
  // it goes just above the node, or onto that end.
  const qorInt32 end = nodeBefore(l.hiNode, r.hiNode) ? l.hiNode : r.hiNode;
  const Pt now = pt(m_Current);
  if (!below(now, at)) at = Pt{std::nextafter(now.x, INFINITY), now.y};
  const qorInt32 node = below(at, pt(end)) ? nodeAt(at) : end;
  m_PairAt.emplace(pair, node);
  m_Forced.push_back(Forced{l.edge, r.edge, m_ForcedHead[static_cast<size_t>(node)]});
  m_ForcedHead[static_cast<size_t>(node)] = static_cast<qorInt32>(m_Forced.size()) - 1;
  if (m_Forced.size() > m_CrossingLimit)
    fail("the crossings could not be resolved (too many crossing points)", __LINE__);
}

void RingSweep::bridge(qorInt32 p, qorInt32& first, qorInt32& last) {
  // Rounding may leave an edge that ends here, or a marked one, a few slots away from the block: the block takes
  // in everything up to it. Edges so close to the crossing go through it.
  const auto belongs = [&](qorInt32 s) { return slot(s).hiNode == p || m_SlotMark[static_cast<size_t>(s)] == m_Stamp; };
  for (int side = 0; side < 2; ++side) {
    qorInt32 s = side == 0 ? slot(first).prev : slot(last).next;
    for (int steps = 0; s != 0 && s != kNil && steps < 8; ++steps) {
      if (belongs(s)) {
        (side == 0 ? first : last) = s;
        steps = -1;
      }
      s = side == 0 ? slot(s).prev : slot(s).next;
    }
  }
}

qorInt32 RingSweep::markForced(qorInt32 p) {
  // Marks the slots of every pair that crosses here and is still in its order below: both edges, and whatever
  // rounding left between them (edges that pass within rounding of the crossing go through it too). Returns one of
  // them, or -1 when every pair has already been split elsewhere.
  ++m_Stamp;
  if (m_SlotMark.size() < m_Slots.size()) m_SlotMark.resize(2 * m_Slots.size(), 0);
  qorInt32 any = kNil;
  for (qorInt32 f = m_ForcedHead[static_cast<size_t>(p)]; f != kNil; f = m_Forced[static_cast<size_t>(f)].next) {
    const qorInt32 sa = edge(m_Forced[static_cast<size_t>(f)].a).slot,
                   sb = edge(m_Forced[static_cast<size_t>(f)].b).slot;
    if (sa == kNil || sb == kNil) continue;
    qorInt32 s = sa;
    for (int steps = 0; s != kNil && s != sb && steps < 16; ++steps) s = slot(s).next;
    if (s != sb) continue;
    for (s = sa;; s = slot(s).next) {
      m_SlotMark[static_cast<size_t>(s)] = m_Stamp;
      if (s == sb) break;
    }
    any = sa;
  }
  return any;
}

bool RingSweep::regular(qorInt32 p, qorInt32 down, qorInt32 up) {
  // The edge that arrives is replaced by the one that leaves; the regions on both sides go on, and the one that
  // belongs to the polygon gets the point on its side.
  const qorInt32 s = edge(down).slot;
  if (s == kNil) return false;
  const qorInt32 left = slot(s).prev, right = slot(s).next;
  if (m_Mode != SweepMode::Check) {
    const qorInt32 before = slot(left).interval, after = slot(s).interval;
    if (before != kNil) addRight(before, p);
    if (after != kNil) addLeft(after, p);
  }
  edge(down).slot = kNil;
  setEdge(s, up);
  crossTest(left, s);
  crossTest(s, right);
  return true;
}

bool RingSweep::lowest(qorInt32 p, qorInt32 a, qorInt32 b) {
  // Two edges leave upwards: between them a new region starts; if the point lies inside a region of the polygon,
  // that region splits in two around them.
  const Pt& at = pt(p);
  const double side = orient2d(at, pt(edge(b).hi), pt(edge(a).hi));
  if (side == 0) return false;  // they run over each other: a bundle for the general event
  const qorInt32 l = side > 0 ? a : b, r = side > 0 ? b : a;
  const qorInt32 left = search(at), right = slot(left).next;
  if (right != kNil && orient2d(slot(right).sa, slot(right).sb, at) == 0) return false;  // on an edge
  const qorInt32 w0 = slot(left).wRight, wMid = w0 - edge(l).delta;
  qorInt32 mid = kNil, after = kNil;
  if (m_Mode != SweepMode::Check) {
    const qorInt32 around = slot(left).interval;
    if (around != kNil) after = split(around, p);
    if (inside(wMid, p, l, r)) mid = newInterval(p);
  }
  const qorInt32 sl = newSlot(l), sr = newSlot(r);
  slot(sl).wRight = wMid;
  slot(sl).interval = mid;
  slot(sr).wRight = w0;
  slot(sr).interval = after;
  insertAfter(left, sl);
  insertAfter(sl, sr);
  crossTest(left, sl);
  crossTest(sr, right);
  return true;
}

bool RingSweep::highest(qorInt32 p, qorInt32 a, qorInt32 b) {
  // Two neighbouring edges end here: the region between them closes, and those on their outer sides meet.
  const qorInt32 sa = edge(a).slot, sb = edge(b).slot;
  if (sa == kNil || sb == kNil) return false;
  qorInt32 sl, sr;
  if (slot(sa).next == sb) {
    sl = sa, sr = sb;
  } else if (slot(sb).next == sa) {
    sl = sb, sr = sa;
  } else {
    return false;
  }
  const qorInt32 left = slot(sl).prev, right = slot(sr).next;
  if (m_Mode != SweepMode::Check) {
    const qorInt32 mid = slot(sl).interval, before = slot(left).interval, after = slot(sr).interval;
    if (mid != kNil) close(mid, p);
    if (before != kNil) addRight(before, p);
    if (after != kNil) addLeft(after, p);
    if (before != kNil && after != kNil) merge(before, after);
  }
  edge(a).slot = edge(b).slot = kNil;
  erase(sl);
  erase(sr);
  crossTest(left, right);
  return true;
}

void RingSweep::collect(qorInt32 e, qorInt32 p, qorInt32& anySlot) {
  const Edge& ed = edge(e);
  if (ed.hi == p) {
    if (ed.slot != kNil) anySlot = ed.slot;
  } else if (ed.lo == p) {
    m_U.push_back(e);
  }
}

bool RingSweep::passesThrough(qorInt32 s, qorInt32 p) const {
  const Slot& sl = slot(s);
  return sl.hiNode == p || orient2d(sl.sa, sl.sb, pt(p)) == 0;
}

qorInt32 RingSweep::splitAt(qorInt32 s, qorInt32 p) {
  // The slot keeps the edge's lower part, as a new edge that ends here; the edge itself goes on from here.
  const qorInt32 e = slot(s).edge;
  Edge lower = edge(e);
  lower.hi = p;
  lower.extra = kNil;
  m_Edges.push_back(lower);
  setEdge(s, static_cast<qorInt32>(m_Edges.size()) - 1);
  Edge& upper = edge(e);
  upper.lo = p;
  upper.slot = kNil;
  ++m_Counts->edgesSplit;
  if (m_Mode == SweepMode::Check)
    touch(p, upper.ring, m_Model->ringOf[static_cast<size_t>(m_Order[static_cast<size_t>(m_NodeStart[p])])]);
  return e;
}

void RingSweep::sortUp() {
  // Every edge here leaves the node along its input edge: directions decide, exactly, even at a rounded crossing.
  auto leftOf = [&](qorInt32 a, qorInt32 b) {
    const Edge &ea = edge(a), &eb = edge(b);
    return crossDirections(eb.sa, eb.sb, ea.sa, ea.sb) > 0;
  };
  if (m_U.size() > 16) {
    std::sort(m_U.begin(), m_U.end(), leftOf);
    return;
  }
  for (size_t i = 1; i < m_U.size(); ++i) {
    const qorInt32 e = m_U[i];
    size_t j = i;
    for (; j > 0 && leftOf(e, m_U[j - 1]); --j) m_U[j] = m_U[j - 1];
    m_U[j] = e;
  }
}

void RingSweep::checkThrough(qorInt32 p) {
  // Edges that pass through the node keep their order above it unless two of them cross right there.
  size_t lastAt = 0;
  for (size_t t = 0; t < m_Through.size(); ++t) {
    const size_t at = static_cast<size_t>(std::find(m_U.begin(), m_U.end(), m_Through[t]) - m_U.begin());
    if (t > 0 && at < lastAt) {
      cross(pt(p), edge(m_Through[t - 1]).ring, edge(m_Through[t]).ring);
      return;
    }
    lastAt = at;
  }
}

void RingSweep::bundleUp(qorInt32 p) {
  // Edges that leave the node in one direction run over each other up to the nearest end: they become one edge
  // there, carrying the sum of their winding changes, and the longer ones go on from that end.
  size_t kept = 0;
  for (size_t i = 0; i < m_U.size();) {
    size_t j = i + 1;
    while (j < m_U.size() && crossDirections(edge(m_U[i]).sa, edge(m_U[i]).sb, edge(m_U[j]).sa, edge(m_U[j]).sb) == 0)
      ++j;
    if (j - i > 1) {
      std::sort(m_U.begin() + static_cast<long>(i), m_U.begin() + static_cast<long>(j),
                [&](qorInt32 a, qorInt32 b) { return nodeBefore(edge(a).hi, edge(b).hi); });
      const qorInt32 first = m_U[i];
      const qorInt32 end = edge(first).hi;
      qorInt32 delta = edge(first).delta;
      bool opposite = false;
      for (size_t k = i + 1; k < j; ++k) {
        Edge& e = edge(m_U[k]);
        opposite = opposite || (e.delta > 0) != (delta > 0);
        delta += e.delta;
        touch(p, edge(first).ring, e.ring);
        if (e.ring != edge(first).ring) edge(first).partner = e.ring;
        if (e.hi == end) {
          e.lo = e.hi = kNil;  // wholly covered: nothing is left of it
          continue;
        }
        e.lo = end;
        e.extra = m_ExtraHead[static_cast<size_t>(end)];
        m_ExtraHead[static_cast<size_t>(end)] = m_U[k];
      }
      edge(first).delta = delta;
      if (opposite) m_Counts->edgesCancelled += static_cast<qorInt32>(j - i);
    }
    m_U[kept++] = m_U[i];
    i = j;
  }
  m_U.resize(kept);
}

void RingSweep::event(qorInt32 p) {
  const Pt& at = pt(p);
  m_U.clear();
  m_Through.clear();
  const qorInt32 begin = p < m_Nodes ? m_NodeStart[static_cast<size_t>(p)] : 0;
  const qorInt32 end = p < m_Nodes ? m_NodeStart[static_cast<size_t>(p) + 1] : 0;
  if (end - begin > 1) {
    m_Counts->pointsMerged += end - begin - 1;
    touch(p, m_Model->ringOf[static_cast<size_t>(m_Order[static_cast<size_t>(begin)])],
          m_Model->ringOf[static_cast<size_t>(m_Order[static_cast<size_t>(begin) + 1])]);
  }
  qorInt32 anySlot = kNil;
  for (qorInt32 i = begin; i < end; ++i) {
    const qorInt32 v = m_Order[static_cast<size_t>(i)];
    collect(m_Model->prev[static_cast<size_t>(v)], p, anySlot);
    collect(v, p, anySlot);
  }
  for (qorInt32 e = m_ExtraHead[static_cast<size_t>(p)]; e != kNil; e = edge(e).extra) m_U.push_back(e);
  // Crossings split here: their edges, and what lies between them, join the block.
  const bool forced = m_Mode == SweepMode::Fill && m_ForcedHead[static_cast<size_t>(p)] != kNil;
  if (forced) {
    const qorInt32 crossing = markForced(p);
    if (anySlot == kNil) anySlot = crossing;
  }
  auto marked = [&](qorInt32 s) { return forced && m_SlotMark[static_cast<size_t>(s)] == m_Stamp; };

  // The block of active edges through the node: those that end here and those it lies inside. Edges that end here
  // are next to each other. An edge that the node lies inside is next to them too, and the crossing test that made
  // them neighbours marked the node; only then is it worth testing for such edges.
  qorInt32 first = kNil, last = kNil, left;
  if (anySlot != kNil) {
    // A crossing may lie exactly on a third edge, which must split there too.
    const bool touched = m_Touched[static_cast<size_t>(p)] != 0 || forced;
    auto through = [&](qorInt32 s) { return (touched ? passesThrough(s, p) : slot(s).hiNode == p) || marked(s); };
    first = last = anySlot;
    for (qorInt32 s = slot(first).prev; s != 0 && through(s); s = slot(s).prev) first = s;
    for (qorInt32 s = slot(last).next; s != kNil && through(s); s = slot(s).next) last = s;
    if (forced) bridge(p, first, last);
    left = slot(first).prev;
  } else {
    left = search(at);
    for (qorInt32 s = slot(left).next; s != kNil && passesThrough(s, p); s = slot(s).next) {
      if (first == kNil) first = s;
      last = s;
    }
  }
  qorInt32 m = 0;
  if (first != kNil) {
    for (qorInt32 s = first;; s = slot(s).next) {
      ++m;
      if (slot(s).hiNode != p) {
        const qorInt32 upper = splitAt(s, p);
        m_U.push_back(upper);
        m_Through.push_back(upper);
      }
      if (s == last) break;
    }
  }
  sortUp();
  if (m_Through.size() > 1 && m_Mode != SweepMode::Fill) checkThrough(p);
  bundleUp(p);
  const qorInt32 k = static_cast<qorInt32>(m_U.size());
  if (m == 0 && k == 0) return;

  // The regions around the node: before it, one left of the block, one between each two block edges and one right
  // of it (a single one when the node lies inside a region); after it, one left of the new edges, one between each
  // two and one right of them.
  const qorInt32 w0 = slot(left).wRight, i0 = slot(left).interval;
  const qorInt32 iM = m > 0 ? slot(last).interval : i0, wM = m > 0 ? slot(last).wRight : w0;
  m_Regions.assign(static_cast<size_t>(k) + 1, kNil);
  m_Windings.resize(static_cast<size_t>(k) + 1);
  m_Windings[0] = w0;
  for (qorInt32 i = 1; i <= k; ++i)
    m_Windings[static_cast<size_t>(i)] =
        m_Windings[static_cast<size_t>(i) - 1] - edge(m_U[static_cast<size_t>(i) - 1]).delta;
  if (m_Mode != SweepMode::Check) {
    if (m_Windings[static_cast<size_t>(k)] != wM)
      fail("the winding numbers do not add up" + near(at.x / m_Model->scale, at.y / m_Model->scale), __LINE__);
    if (m > 0) {
      for (qorInt32 s = first; s != last; s = slot(s).next)
        if (slot(s).interval != kNil) close(slot(s).interval, p);
      if (i0 != kNil) addRight(i0, p);
      if (iM != kNil) addLeft(iM, p);
      if (k == 0 && i0 != kNil) merge(i0, iM);
      m_Regions[0] = i0;
      m_Regions[static_cast<size_t>(k)] = k > 0 ? iM : i0;
    } else if (i0 != kNil) {
      m_Regions[0] = i0;
      m_Regions[static_cast<size_t>(k)] = split(i0, p);
    }
    for (qorInt32 i = 1; i < k; ++i)
      if (inside(m_Windings[static_cast<size_t>(i)], p, m_U[static_cast<size_t>(i) - 1], m_U[static_cast<size_t>(i)]))
        m_Regions[static_cast<size_t>(i)] = newInterval(p);
  }

  // The status: the new edges take the block's place.
  qorInt32 at0 = left, s = first, i = 0;
  for (; i < k && i < m; ++i) {
    edge(slot(s).edge).slot = kNil;
    setEdge(s, m_U[static_cast<size_t>(i)]);
    slot(s).wRight = m_Windings[static_cast<size_t>(i) + 1];
    slot(s).interval = m_Regions[static_cast<size_t>(i) + 1];
    at0 = s;
    s = slot(s).next;
  }
  for (; i < m; ++i) {
    const qorInt32 after = slot(s).next;
    edge(slot(s).edge).slot = kNil;
    erase(s);
    s = after;
  }
  for (; i < k; ++i) {
    const qorInt32 added = newSlot(m_U[static_cast<size_t>(i)]);
    slot(added).wRight = m_Windings[static_cast<size_t>(i) + 1];
    slot(added).interval = m_Regions[static_cast<size_t>(i) + 1];
    insertAfter(at0, added);
    at0 = added;
  }
  slot(left).interval = m_Regions[0];

  // Edges that became neighbours: a crossing between them lies above the node.
  const qorInt32 right = slot(at0).next;
  if (k > 0) {
    crossTest(left, slot(left).next);
    crossTest(at0, right);
  } else {
    crossTest(left, right);
  }
}

bool RingSweep::inside(qorInt32 winding, qorInt32 p, qorInt32 leftEdge, qorInt32 rightEdge) {
  if (m_Mode == SweepMode::Fill) return inRule(winding);
  if (winding == 1) return true;
  // A region covered twice, or covered by a hole alone, is a fault of the input. A crossing above explains it
  // better, so the sweep goes on (leaving the region out) and the first such fault is raised only if no edges cross.
  if (winding != 0 && m_Problem.empty()) m_Problem = regionProblem(winding, p, leftEdge, rightEdge);
  return false;
}

QOR_HOT_INLINE void RingSweep::crossTest(qorInt32 leftSlot, qorInt32 rightSlot) {
  if (leftSlot == 0 || rightSlot == kNil) return;
  const Slot &a = slot(leftSlot), &b = slot(rightSlot);
  if (a.hiNode == b.hiNode) return;
  // a lies left of b at the sweep line; they cross if their order is reversed where the first of them ends, and
  // that end lies on the other edge if it is on its line.
  const bool aFirst = nodeBefore(a.hiNode, b.hiNode);
  const double side = aFirst ? orient2d(b.sa, b.sb, pt(a.hiNode)) : -orient2d(a.sa, a.sb, pt(b.hiNode));
  if (side == 0) m_Touched[static_cast<size_t>(aFirst ? a.hiNode : b.hiNode)] = 1;
  if (side < 0) {
    if (m_Mode == SweepMode::Fill)
      scheduleCrossing(leftSlot, rightSlot);
    else
      cross(crossingPoint(a.sa, a.sb, b.sa, b.sb), edge(a.edge).ring, edge(b.edge).ring);
  }
}

void RingSweep::touch(qorInt32 p, qorInt32 ringA, qorInt32 ringB) {
  if (m_Touch.kind != Contact::None) return;
  m_Touch.kind = Contact::Touch;
  m_Touch.ringA = std::min(ringA, ringB);
  m_Touch.ringB = std::max(ringA, ringB);
  m_Touch.x = pt(p).x / m_Model->scale;
  m_Touch.y = pt(p).y / m_Model->scale;
}

void RingSweep::cross(const Pt& at, qorInt32 ringA, qorInt32 ringB) {
  if (m_Cross.kind != Contact::None && !below(at, m_CrossAt)) return;
  m_CrossAt = at;
  m_Cross.kind = Contact::Cross;
  m_Cross.ringA = std::min(ringA, ringB);
  m_Cross.ringB = std::max(ringA, ringB);
  m_Cross.x = at.x / m_Model->scale;
  m_Cross.y = at.y / m_Model->scale;
}

void RingSweep::fail(const std::string& detail, unsigned long line) const {
  qorThrowComposed(m_Prefix, detail.c_str(), kUnit, line);
}

std::string RingSweep::regionProblem(qorInt32 winding, qorInt32 p, qorInt32 leftEdge, qorInt32 rightEdge) const {
  // Name the rings that bound the region (a bundle names two), else the ring around it that covers it twice.
  const Edge &l = edge(leftEdge), &r = edge(rightEdge);
  qorInt32 a = l.ring, b = r.ring;
  for (qorInt32 other : {l.partner, r.partner})
    if (other != kNil && a == b) b = other;
  const Pt& at = pt(p);
  const std::string where = near(at.x / m_Model->scale, at.y / m_Model->scale);
  if (winding < 0 && a == b && a != 0) {
    const std::vector<bool> around = m_Model->ringsAround(at);
    if (!around[0]) return "ring " + std::to_string(a + 1) + " is a hole that lies outside the outer ring" + where;
    for (size_t hole = around.size(); hole-- > 1;)
      if (around[hole] && static_cast<qorInt32>(hole) != a) b = static_cast<qorInt32>(hole);
    if (a == b) return "ring " + std::to_string(a + 1) + " lies inside another hole" + where;
  }
  if (a == b) return "ring " + std::to_string(a + 1) + " overlaps itself" + where;
  return "ring " + std::to_string(std::max(a, b) + 1) + " overlaps ring " + std::to_string(std::min(a, b) + 1) + where;
}

// --- The status: a skip list --------------------------------------------------------------------------------------

qorInt32 RingSweep::newSlot(qorInt32 e) {
  qorInt32 s;
  if (!m_FreeSlots.empty()) {
    s = m_FreeSlots.back();
    m_FreeSlots.pop_back();
  } else {
    s = static_cast<qorInt32>(m_Slots.size());
    m_Slots.emplace_back();
    if (m_Up.size() < m_Slots.size() * kLevels) m_Up.resize(2 * m_Slots.size() * kLevels);
  }
  // xorshift32: each level up with probability 1/4. Small inputs keep few edges active: a plain list serves them.
  qorInt32 height = 1;
  if (m_Nodes > kPlainList) {
    m_Random ^= m_Random << 13;
    m_Random ^= m_Random >> 17;
    m_Random ^= m_Random << 5;
    for (uint32_t r = m_Random; (r & 3) == 0 && height < kLevels; r >>= 2) ++height;
  }
  m_TopLevel = std::max(m_TopLevel, height);
  Slot& sl = slot(s);
  sl.wRight = 0;
  sl.interval = kNil;
  sl.height = height;
  sl.prev = sl.next = kNil;
  setEdge(s, e);
  return s;
}

QOR_HOT_INLINE void RingSweep::setEdge(qorInt32 s, qorInt32 e) {
  Slot& sl = slot(s);
  Edge& ed = edge(e);
  sl.edge = e;
  sl.hiNode = ed.hi;
  sl.sa = ed.sa;
  sl.sb = ed.sb;
  ed.slot = s;
}

void RingSweep::insertAfter(qorInt32 at, qorInt32 s) {
  Slot& sl = slot(s);
  sl.prev = at;
  sl.next = slot(at).next;
  if (sl.next != kNil) slot(sl.next).prev = s;
  slot(at).next = s;
  qorInt32 c = at;
  for (qorInt32 level = 1; level < sl.height; ++level) {
    while (slot(c).height <= level) c = slot(c).prev;
    up(s, level) = up(c, level);
    up(c, level) = s;
  }
}

void RingSweep::erase(qorInt32 s) {
  const Slot& sl = slot(s);
  qorInt32 c = sl.prev;
  for (qorInt32 level = 1; level < sl.height; ++level) {
    while (slot(c).height <= level) c = slot(c).prev;
    up(c, level) = up(s, level);
  }
  slot(sl.prev).next = sl.next;
  if (sl.next != kNil) slot(sl.next).prev = sl.prev;
  m_FreeSlots.push_back(s);
}

qorInt32 RingSweep::search(const Pt& p) const {
  // The last slot whose edge has p strictly to its right.
  auto leftOfP = [&](qorInt32 s) { return orient2d(slot(s).sa, slot(s).sb, p) < 0; };
  qorInt32 x = 0;
  for (qorInt32 level = m_TopLevel - 1; level >= 1; --level)
    for (qorInt32 n = up(x, level); n != kNil && leftOfP(n); n = up(x, level)) x = n;
  for (qorInt32 n = slot(x).next; n != kNil && leftOfP(n); n = slot(x).next) x = n;
  return x;
}

// --- Fronts -------------------------------------------------------------------------------------------------------

qorInt32 RingSweep::allocInterval(const Interval& iv) {
  if (!m_FreeIntervals.empty()) {
    const qorInt32 i = m_FreeIntervals.back();
    m_FreeIntervals.pop_back();
    interval(i) = iv;
    return i;
  }
  m_Intervals.push_back(iv);
  return static_cast<qorInt32>(m_Intervals.size()) - 1;
}

qorInt32 RingSweep::newInterval(qorInt32 node) {
  const qorInt32 f = newFront(node);
  return allocInterval(Interval{f, f, f});
}

void RingSweep::close(qorInt32 i, qorInt32 p) {
  // The region ends at the point: it sees the whole front, whose inner points are all reflex.
  const Pt& at = pt(p);
  for (qorInt32 a = interval(i).left;;) {
    const qorInt32 b = front(a).next;
    if (b == kNil) break;
    const FrontNode &fa = front(a), &fb = front(b);
    if (orient2d(fa.at, fb.at, at) > 0) emit(fa.node, fb.node, p, fa.at, fb.at, at);
    a = b;
  }
  m_FreeIntervals.push_back(i);
}

void RingSweep::merge(qorInt32 left, qorInt32 right) {
  // Both fronts end at the same point: one front through it.
  Interval& l = interval(left);
  const Interval& r = interval(right);
  const qorInt32 x = l.right, y = r.left, z = front(y).next;
  front(x).next = z;
  if (z != kNil) front(z).prev = x;
  l.right = r.right == y ? x : r.right;
  l.helper = x;
  m_FreeIntervals.push_back(right);
}

qorInt32 RingSweep::split(qorInt32 i, qorInt32 p) {
  // The point lies inside the region: it sees the region's most recent point (nothing lies between them), so the
  // front splits there into a left part that the point ends and a right part that it begins.
  const qorInt32 h = interval(i).helper;
  const qorInt32 h2 = newFront(front(h).node);
  const qorInt32 after = front(h).next;
  front(h2).next = after;
  if (after != kNil) front(after).prev = h2;
  front(h).next = kNil;
  const qorInt32 oldRight = interval(i).right;
  const qorInt32 j = allocInterval(Interval{h2, oldRight == h ? h2 : oldRight, h2});
  interval(i).right = h;
  addRight(i, p);
  addLeft(j, p);
  return j;
}

}  // namespace qor_internal
