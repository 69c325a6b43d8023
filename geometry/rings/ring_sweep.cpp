#include "internal/ring_sweep.h"

#include <qor/qor_assert.h>

#include <algorithm>
#include <cstdio>

namespace qor_internal {

namespace {

const char kUnit[] = "qor_rings";

// Sweep order: by y, then x. Equal points are one node.
inline bool below(const Pt& a, const Pt& b) { return a.y < b.y || (a.y == b.y && a.x < b.x); }

std::string near(double x, double y) {
  char text[80];
  std::snprintf(text, sizeof(text), " near (%.10g, %.10g)", x, y);
  return text;
}

}  // namespace

// --- The model --------------------------------------------------------------------------------------------------

void RingModel::clear() {
  pts.clear();
  orig.clear();
  ringOf.clear();
  next.clear();
  prev.clear();
  sign.clear();
  scale = 1;
  originX = originY = extent = twiceArea = 0;
}

void RingModel::addRing(const Pt* p, const qorInt32* origin, qorInt32 n, qorInt32 ring, int8_t direction) {
  const qorInt32 first = size();
  for (qorInt32 i = 0; i < n; ++i) {
    pts.push_back(p[i]);
    orig.push_back(origin[i]);
    ringOf.push_back(ring);
    next.push_back(i + 1 < n ? first + i + 1 : first);
    prev.push_back(i > 0 ? first + i - 1 : first + n - 1);
    sign.push_back(direction);
  }
}

std::vector<bool> RingModel::ringsAround(const Pt& q) const {
  const size_t rings = ringOf.empty() ? 0 : static_cast<size_t>(ringOf.back()) + 1;
  std::vector<bool> inside(rings, false), boundary(rings, false);
  for (qorInt32 i = 0; i < size(); ++i) {
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
  m_Out = &out;
  prepare(model, SweepMode::Rings);
  sweep();
  if (m_Cross.kind == Contact::Cross) {
    std::string what = "ring " + std::to_string(m_Cross.ringB + 1) + " crosses ";
    what += m_Cross.ringA == m_Cross.ringB ? std::string("itself") : "ring " + std::to_string(m_Cross.ringA + 1);
    fail(what + near(m_Cross.x, m_Cross.y) + " (edges cross)", __LINE__);
  }
  if (!m_Problem.empty()) fail(m_Problem, __LINE__);
  twiceArea = m_Area;
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
  m_Edges.clear();
  m_Edges.reserve(static_cast<size_t>(n) + static_cast<size_t>(n) / 8 + 16);
  for (qorInt32 i = 0; i < n; ++i) {
    const qorInt32 a = m_NodeOf[static_cast<size_t>(i)];
    const qorInt32 b = m_NodeOf[static_cast<size_t>(model.next[static_cast<size_t>(i)])];
    const qorInt32 up = a < b ? 1 : -1;
    m_Edges.push_back(Edge{std::min(a, b), std::max(a, b), up * model.sign[static_cast<size_t>(i)],
                           model.ringOf[static_cast<size_t>(i)], kNil, kNil, kNil});
  }
  m_ExtraHead.assign(m_NodePt.size(), kNil);

  m_Slots.clear();
  m_Up.clear();
  m_FreeSlots.clear();
  m_Slots.push_back(Slot{kNil, 0, kNil, kLevels, kNil, kNil});  // the head
  m_Up.assign(kLevels, kNil);
  m_TopLevel = 1;
  m_Random = 0x9e3779b9u;  // a fixed start: the same input gives the same list in every run

  m_Front.clear();
  m_Intervals.clear();
  m_FreeIntervals.clear();
}

void RingSweep::sortNodes() {
  const RingModel& model = *m_Model;
  const size_t n = model.pts.size();
  m_Keys.resize(n);
  for (size_t i = 0; i < n; ++i) m_Keys[i] = Key{model.pts[i].y, model.pts[i].x, static_cast<qorInt32>(i)};
  std::sort(m_Keys.begin(), m_Keys.end(), [](const Key& a, const Key& b) {
    if (a.y != b.y) return a.y < b.y;
    if (a.x != b.x) return a.x < b.x;
    return a.point < b.point;
  });
  m_Order.resize(n);
  m_NodeOf.resize(n);
  m_NodeStart.clear();
  m_NodePt.clear();
  m_NodeOrig.clear();
  for (size_t i = 0; i < n; ++i) {
    const Key& k = m_Keys[i];
    if (i == 0 || k.y != m_Keys[i - 1].y || k.x != m_Keys[i - 1].x) {
      m_NodeStart.push_back(static_cast<qorInt32>(i));
      m_NodePt.push_back(Pt{k.x, k.y});
      m_NodeOrig.push_back(model.orig[static_cast<size_t>(k.point)]);
    }
    m_Order[i] = k.point;
    m_NodeOf[static_cast<size_t>(k.point)] = static_cast<qorInt32>(m_NodePt.size()) - 1;
  }
  m_NodeStart.push_back(static_cast<qorInt32>(n));
}

// --- The sweep --------------------------------------------------------------------------------------------------

void RingSweep::sweep() {
  const qorInt32 nodes = static_cast<qorInt32>(m_NodePt.size());
  for (qorInt32 p = 0; p < nodes; ++p) {
    // Past the lowest crossing found so far, the order of the active edges no longer holds: stop there.
    if (m_Cross.kind == Contact::Cross && !below(pt(p), m_CrossAt)) break;
    event(p);
  }
}

void RingSweep::collect(qorInt32 e, qorInt32 p, qorInt32& anySlot) {
  const Edge& edge = m_Edges[static_cast<size_t>(e)];
  if (edge.hi == p) {
    if (edge.slot != kNil) anySlot = edge.slot;
  } else if (edge.lo == p) {
    m_U.push_back(e);
  }
}

bool RingSweep::passesThrough(qorInt32 slot, qorInt32 p) const {
  const Edge& e = m_Edges[static_cast<size_t>(m_Slots[static_cast<size_t>(slot)].edge)];
  return e.hi == p || orient2d(pt(e.lo), pt(e.hi), pt(p)) == 0;
}

qorInt32 RingSweep::splitAt(qorInt32 slot, qorInt32 p) {
  const qorInt32 e = m_Slots[static_cast<size_t>(slot)].edge;
  Edge lower = m_Edges[static_cast<size_t>(e)];
  lower.hi = p;
  lower.slot = slot;
  lower.extra = kNil;
  m_Edges.push_back(lower);
  m_Slots[static_cast<size_t>(slot)].edge = static_cast<qorInt32>(m_Edges.size()) - 1;
  Edge& upper = m_Edges[static_cast<size_t>(e)];
  upper.lo = p;
  upper.slot = kNil;
  ++m_Counts->edgesSplit;
  touch(p, upper.ring, m_Model->ringOf[static_cast<size_t>(m_Order[static_cast<size_t>(m_NodeStart[p])])]);
  return e;
}

void RingSweep::sortUp(qorInt32 p) {
  const Pt& at = pt(p);
  auto leftOf = [&](qorInt32 a, qorInt32 b) {
    return orient2d(at, pt(m_Edges[static_cast<size_t>(b)].hi), pt(m_Edges[static_cast<size_t>(a)].hi)) > 0;
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
      cross(pt(p), m_Edges[static_cast<size_t>(m_Through[t - 1])].ring,
            m_Edges[static_cast<size_t>(m_Through[t])].ring);
      return;
    }
    lastAt = at;
  }
}

void RingSweep::bundleUp(qorInt32 p) {
  // Edges that leave the node in one direction run over each other up to the nearest end: they become one edge
  // there, carrying the sum of their winding changes, and the longer ones go on from that end.
  const Pt& at = pt(p);
  size_t kept = 0;
  for (size_t i = 0; i < m_U.size();) {
    size_t j = i + 1;
    while (j < m_U.size() &&
           orient2d(at, pt(m_Edges[static_cast<size_t>(m_U[i])].hi), pt(m_Edges[static_cast<size_t>(m_U[j])].hi)) == 0)
      ++j;
    if (j - i > 1) {
      std::sort(m_U.begin() + static_cast<long>(i), m_U.begin() + static_cast<long>(j), [&](qorInt32 a, qorInt32 b) {
        return m_Edges[static_cast<size_t>(a)].hi < m_Edges[static_cast<size_t>(b)].hi;
      });
      const qorInt32 first = m_U[i];
      const qorInt32 end = m_Edges[static_cast<size_t>(first)].hi;
      qorInt32 delta = m_Edges[static_cast<size_t>(first)].delta;
      bool opposite = false;
      for (size_t k = i + 1; k < j; ++k) {
        Edge& e = m_Edges[static_cast<size_t>(m_U[k])];
        opposite = opposite || (e.delta > 0) != (delta > 0);
        delta += e.delta;
        touch(p, m_Edges[static_cast<size_t>(first)].ring, e.ring);
        if (e.ring != m_Edges[static_cast<size_t>(first)].ring) m_Edges[static_cast<size_t>(first)].partner = e.ring;
        if (e.hi == end) {
          e.lo = e.hi;  // wholly covered: it has nothing left
          continue;
        }
        e.lo = end;
        e.extra = m_ExtraHead[static_cast<size_t>(end)];
        m_ExtraHead[static_cast<size_t>(end)] = m_U[k];
      }
      m_Edges[static_cast<size_t>(first)].delta = delta;
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
  const qorInt32 begin = m_NodeStart[static_cast<size_t>(p)], end = m_NodeStart[static_cast<size_t>(p) + 1];
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
  for (qorInt32 e = m_ExtraHead[static_cast<size_t>(p)]; e != kNil; e = m_Edges[static_cast<size_t>(e)].extra)
    m_U.push_back(e);

  // The block of active edges through the node: those that end here and those it lies inside.
  qorInt32 first = kNil, last = kNil, left;
  if (anySlot != kNil) {
    first = last = anySlot;
    for (qorInt32 s = m_Slots[static_cast<size_t>(first)].prev; s != 0 && passesThrough(s, p);
         s = m_Slots[static_cast<size_t>(s)].prev)
      first = s;
    for (qorInt32 s = m_Slots[static_cast<size_t>(last)].next; s != kNil && passesThrough(s, p);
         s = m_Slots[static_cast<size_t>(s)].next)
      last = s;
    left = m_Slots[static_cast<size_t>(first)].prev;
  } else {
    left = search(at);
    for (qorInt32 s = m_Slots[static_cast<size_t>(left)].next; s != kNil && passesThrough(s, p);
         s = m_Slots[static_cast<size_t>(s)].next) {
      if (first == kNil) first = s;
      last = s;
    }
  }
  qorInt32 m = 0;
  if (first != kNil) {
    for (qorInt32 s = first;; s = m_Slots[static_cast<size_t>(s)].next) {
      ++m;
      if (m_Edges[static_cast<size_t>(m_Slots[static_cast<size_t>(s)].edge)].hi != p) {
        const qorInt32 upper = splitAt(s, p);
        m_U.push_back(upper);
        m_Through.push_back(upper);
      }
      if (s == last) break;
    }
  }
  sortUp(p);
  if (m_Through.size() > 1) checkThrough(p);
  bundleUp(p);
  const qorInt32 k = static_cast<qorInt32>(m_U.size());
  if (m == 0 && k == 0) return;

  // The regions around the node: before it, R0 left of the block, one between each two block edges and Rm right of
  // it (one region R0 = Rm when the node lies inside a region); after it, one left of the new edges, one between
  // each two and one right of them.
  const qorInt32 w0 = m_Slots[static_cast<size_t>(left)].wRight;
  const qorInt32 i0 = m_Slots[static_cast<size_t>(left)].interval;
  const qorInt32 iM = m > 0 ? m_Slots[static_cast<size_t>(last)].interval : i0;
  const qorInt32 wM = m > 0 ? m_Slots[static_cast<size_t>(last)].wRight : w0;
  const bool triangulating = m_Mode == SweepMode::Rings;

  m_Regions.assign(static_cast<size_t>(k) + 1, kNil);
  m_Windings.resize(static_cast<size_t>(k) + 1);
  m_Windings[0] = w0;
  for (qorInt32 i = 1; i <= k; ++i)
    m_Windings[static_cast<size_t>(i)] =
        m_Windings[static_cast<size_t>(i) - 1] - m_Edges[static_cast<size_t>(m_U[static_cast<size_t>(i) - 1])].delta;
  if (!triangulating) {
    m_Slots[static_cast<size_t>(left)].interval = kNil;
  } else {
    if (m_Windings[static_cast<size_t>(k)] != wM)
      fail("the winding numbers do not add up" + near(at.x / m_Model->scale, at.y / m_Model->scale), __LINE__);
    if (m > 0) {
      for (qorInt32 s = first; s != last; s = m_Slots[static_cast<size_t>(s)].next) {
        const qorInt32 closing = m_Slots[static_cast<size_t>(s)].interval;
        if (closing != kNil) close(closing, p);
      }
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
  qorInt32 at0 = left, s = first;
  qorInt32 i = 0;
  for (; i < k && i < m; ++i) {
    Slot& slot = m_Slots[static_cast<size_t>(s)];
    m_Edges[static_cast<size_t>(slot.edge)].slot = kNil;
    slot.edge = m_U[static_cast<size_t>(i)];
    m_Edges[static_cast<size_t>(slot.edge)].slot = s;
    slot.wRight = m_Windings[static_cast<size_t>(i) + 1];
    slot.interval = m_Regions[static_cast<size_t>(i) + 1];
    at0 = s;
    s = slot.next;
  }
  for (; i < m; ++i) {
    const qorInt32 nextSlot = m_Slots[static_cast<size_t>(s)].next;
    m_Edges[static_cast<size_t>(m_Slots[static_cast<size_t>(s)].edge)].slot = kNil;
    erase(s);
    s = nextSlot;
  }
  for (; i < k; ++i) {
    const qorInt32 slot = newSlot(m_U[static_cast<size_t>(i)]);
    m_Slots[static_cast<size_t>(slot)].wRight = m_Windings[static_cast<size_t>(i) + 1];
    m_Slots[static_cast<size_t>(slot)].interval = m_Regions[static_cast<size_t>(i) + 1];
    insertAfter(at0, slot);
    at0 = slot;
  }
  m_Slots[static_cast<size_t>(left)].interval = m_Regions[0];

  // Edges that became neighbours: a crossing between them lies above the node.
  const qorInt32 right = m_Slots[static_cast<size_t>(at0)].next;
  if (k > 0) {
    crossTest(left, m_Slots[static_cast<size_t>(left)].next);
    crossTest(at0, right);
  } else {
    crossTest(left, right);
  }
}

bool RingSweep::inside(qorInt32 winding, qorInt32 p, qorInt32 leftEdge, qorInt32 rightEdge) {
  if (winding == 1) return true;
  // A region covered twice, or covered by a hole alone, is a fault of the input. A crossing above explains it
  // better, so the sweep goes on (leaving the region out) and the first such fault is raised only if no edges cross.
  if (winding != 0 && m_Problem.empty()) m_Problem = regionProblem(winding, p, leftEdge, rightEdge);
  return false;
}

void RingSweep::crossTest(qorInt32 leftSlot, qorInt32 rightSlot) {
  if (leftSlot == 0 || rightSlot == kNil) return;
  const Edge& a = m_Edges[static_cast<size_t>(m_Slots[static_cast<size_t>(leftSlot)].edge)];
  const Edge& b = m_Edges[static_cast<size_t>(m_Slots[static_cast<size_t>(rightSlot)].edge)];
  if (a.hi == b.hi) return;
  // a lies left of b at the sweep line; they cross if their order is reversed where the first of them ends.
  const bool crosses =
      a.hi < b.hi ? orient2d(pt(b.lo), pt(b.hi), pt(a.hi)) < 0 : orient2d(pt(a.lo), pt(a.hi), pt(b.hi)) > 0;
  if (crosses) cross(crossingPoint(pt(a.lo), pt(a.hi), pt(b.lo), pt(b.hi)), a.ring, b.ring);
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
  const Edge &l = m_Edges[static_cast<size_t>(leftEdge)], &r = m_Edges[static_cast<size_t>(rightEdge)];
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

qorInt32 RingSweep::newSlot(qorInt32 edge) {
  qorInt32 s;
  if (!m_FreeSlots.empty()) {
    s = m_FreeSlots.back();
    m_FreeSlots.pop_back();
  } else {
    s = static_cast<qorInt32>(m_Slots.size());
    m_Slots.emplace_back();
    m_Up.resize(m_Up.size() + kLevels, kNil);
  }
  // xorshift32: each level up with probability 1/4.
  m_Random ^= m_Random << 13;
  m_Random ^= m_Random >> 17;
  m_Random ^= m_Random << 5;
  uint32_t r = m_Random;
  qorInt32 height = 1;
  while ((r & 3) == 0 && height < kLevels) {
    ++height;
    r >>= 2;
  }
  m_TopLevel = std::max(m_TopLevel, height);
  m_Slots[static_cast<size_t>(s)] = Slot{edge, 0, kNil, height, kNil, kNil};
  m_Edges[static_cast<size_t>(edge)].slot = s;
  return s;
}

void RingSweep::insertAfter(qorInt32 at, qorInt32 s) {
  Slot& slot = m_Slots[static_cast<size_t>(s)];
  slot.prev = at;
  slot.next = m_Slots[static_cast<size_t>(at)].next;
  if (slot.next != kNil) m_Slots[static_cast<size_t>(slot.next)].prev = s;
  m_Slots[static_cast<size_t>(at)].next = s;
  qorInt32 c = at;
  for (qorInt32 level = 1; level < slot.height; ++level) {
    while (m_Slots[static_cast<size_t>(c)].height <= level) c = m_Slots[static_cast<size_t>(c)].prev;
    up(s, level) = up(c, level);
    up(c, level) = s;
  }
}

void RingSweep::erase(qorInt32 s) {
  const Slot& slot = m_Slots[static_cast<size_t>(s)];
  qorInt32 c = slot.prev;
  for (qorInt32 level = 1; level < slot.height; ++level) {
    while (m_Slots[static_cast<size_t>(c)].height <= level) c = m_Slots[static_cast<size_t>(c)].prev;
    up(c, level) = up(s, level);
  }
  m_Slots[static_cast<size_t>(slot.prev)].next = slot.next;
  if (slot.next != kNil) m_Slots[static_cast<size_t>(slot.next)].prev = slot.prev;
  m_FreeSlots.push_back(s);
}

qorInt32 RingSweep::search(const Pt& p) const {
  // The last slot whose edge has p strictly to its right.
  auto leftOfP = [&](qorInt32 s) {
    const Edge& e = m_Edges[static_cast<size_t>(m_Slots[static_cast<size_t>(s)].edge)];
    return orient2d(pt(e.lo), pt(e.hi), p) < 0;
  };
  qorInt32 x = 0;
  for (qorInt32 level = m_TopLevel - 1; level >= 1; --level)
    for (qorInt32 n = up(x, level); n != kNil && leftOfP(n); n = up(x, level)) x = n;
  for (qorInt32 n = m_Slots[static_cast<size_t>(x)].next; n != kNil && leftOfP(n);
       n = m_Slots[static_cast<size_t>(x)].next)
    x = n;
  return x;
}

// --- Fronts -------------------------------------------------------------------------------------------------------

qorInt32 RingSweep::newFront(qorInt32 node) {
  m_Front.push_back(FrontNode{node, kNil, kNil});
  return static_cast<qorInt32>(m_Front.size()) - 1;
}

qorInt32 RingSweep::allocInterval(const Interval& interval) {
  if (!m_FreeIntervals.empty()) {
    const qorInt32 i = m_FreeIntervals.back();
    m_FreeIntervals.pop_back();
    m_Intervals[static_cast<size_t>(i)] = interval;
    return i;
  }
  m_Intervals.push_back(interval);
  return static_cast<qorInt32>(m_Intervals.size()) - 1;
}

qorInt32 RingSweep::newInterval(qorInt32 node) {
  const qorInt32 f = newFront(node);
  return allocInterval(Interval{f, f, f});
}

void RingSweep::emit(qorInt32 a, qorInt32 b, qorInt32 c) {
  const Pt &pa = pt(a), &pb = pt(b), &pc = pt(c);
  m_Area += (pb.x - pa.x) * (pc.y - pa.y) - (pb.y - pa.y) * (pc.x - pa.x);
  m_Out->push_back(m_NodeOrig[static_cast<size_t>(a)]);
  m_Out->push_back(m_NodeOrig[static_cast<size_t>(b)]);
  m_Out->push_back(m_NodeOrig[static_cast<size_t>(c)]);
}

void RingSweep::addRight(qorInt32 interval, qorInt32 p) {
  const Pt& at = pt(p);
  qorInt32 b = m_Intervals[static_cast<size_t>(interval)].right;
  for (;;) {
    const qorInt32 a = m_Front[static_cast<size_t>(b)].prev;
    if (a == kNil) break;
    const qorInt32 na = m_Front[static_cast<size_t>(a)].node, nb = m_Front[static_cast<size_t>(b)].node;
    if (!(orient2d(pt(na), pt(nb), at) > 0)) break;
    emit(na, nb, p);
    m_Front[static_cast<size_t>(a)].next = kNil;
    b = a;
  }
  const qorInt32 f = newFront(p);
  m_Front[static_cast<size_t>(f)].prev = b;
  m_Front[static_cast<size_t>(b)].next = f;
  Interval& iv = m_Intervals[static_cast<size_t>(interval)];
  iv.right = f;
  iv.helper = f;
}

void RingSweep::addLeft(qorInt32 interval, qorInt32 p) {
  const Pt& at = pt(p);
  qorInt32 b = m_Intervals[static_cast<size_t>(interval)].left;
  for (;;) {
    const qorInt32 a = m_Front[static_cast<size_t>(b)].next;
    if (a == kNil) break;
    const qorInt32 na = m_Front[static_cast<size_t>(a)].node, nb = m_Front[static_cast<size_t>(b)].node;
    if (!(orient2d(at, pt(nb), pt(na)) > 0)) break;
    emit(p, nb, na);
    m_Front[static_cast<size_t>(a)].prev = kNil;
    b = a;
  }
  const qorInt32 f = newFront(p);
  m_Front[static_cast<size_t>(f)].next = b;
  m_Front[static_cast<size_t>(b)].prev = f;
  Interval& iv = m_Intervals[static_cast<size_t>(interval)];
  iv.left = f;
  iv.helper = f;
}

void RingSweep::close(qorInt32 interval, qorInt32 p) {
  const Pt& at = pt(p);
  for (qorInt32 a = m_Intervals[static_cast<size_t>(interval)].left;;) {
    const qorInt32 b = m_Front[static_cast<size_t>(a)].next;
    if (b == kNil) break;
    const qorInt32 na = m_Front[static_cast<size_t>(a)].node, nb = m_Front[static_cast<size_t>(b)].node;
    const double side = orient2d(pt(na), pt(nb), at);
    if (side > 0) emit(na, nb, p);
    a = b;
  }
  m_FreeIntervals.push_back(interval);
}

void RingSweep::merge(qorInt32 left, qorInt32 right) {
  Interval& l = m_Intervals[static_cast<size_t>(left)];
  const Interval& r = m_Intervals[static_cast<size_t>(right)];
  const qorInt32 x = l.right, y = r.left, z = m_Front[static_cast<size_t>(y)].next;
  m_Front[static_cast<size_t>(x)].next = z;
  if (z != kNil) m_Front[static_cast<size_t>(z)].prev = x;
  l.right = r.right == y ? x : r.right;
  l.helper = x;
  m_FreeIntervals.push_back(right);
}

qorInt32 RingSweep::split(qorInt32 interval, qorInt32 p) {
  const qorInt32 h = m_Intervals[static_cast<size_t>(interval)].helper;
  const qorInt32 h2 = newFront(m_Front[static_cast<size_t>(h)].node);
  const qorInt32 after = m_Front[static_cast<size_t>(h)].next;
  m_Front[static_cast<size_t>(h2)].next = after;
  if (after != kNil) m_Front[static_cast<size_t>(after)].prev = h2;
  m_Front[static_cast<size_t>(h)].next = kNil;
  const qorInt32 oldRight = m_Intervals[static_cast<size_t>(interval)].right;
  const qorInt32 j = allocInterval(Interval{h2, oldRight == h ? h2 : oldRight, h2});
  m_Intervals[static_cast<size_t>(interval)].right = h;
  addRight(interval, p);
  addLeft(j, p);
  return j;
}

RingSweep& threadSweep() {
  static thread_local RingSweep sweep;
  return sweep;
}

}  // namespace qor_internal
