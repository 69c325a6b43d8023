// A small ring on its own, with nothing on it that touches: the sweep of ring_sweep.cpp with the bookkeeping that only
// large or degenerate input needs left out. The active edges are a short array kept in order, each point is its own
// node, and a region's place in the array tells whether it belongs to the polygon (inside a simple ring the regions
// alternate, outside first). The events and the fronts are the general sweep's, so are the triangles. Anything
// unusual (two points in one place, a point on an edge, edges that meet or cross) hands the ring back to the
// general sweep, which deals with it.
#include <algorithm>

#include "internal/ring_sweep.h"

namespace qor_internal {

bool RingSweep::smallRing(const RingModel& model) {
  const qorInt32 n = model.size();
  const Pt* const p = model.pts.data();
  // Sweep order, and each point's rank in it; two points in one place go to the general sweep.
  m_Keys.resize(static_cast<size_t>(n));
  for (qorInt32 i = 0; i < n; ++i) m_Keys[static_cast<size_t>(i)] = Key{orderBits(p[i].y), i};
  const auto before = [p](const Key& a, const Key& b) {
    if (a.y != b.y) return a.y < b.y;
    return p[a.point].x < p[b.point].x;
  };
  // Each lowest point of two chains adds two active edges: with many of them, the array's linear searches and shifts
  // would cost more than the general sweep's skip list.
  qorInt32 lowest = 0;
  for (qorInt32 i = 0, prev = n - 1; i < n; prev = i++) {
    const qorInt32 next = i + 1 < n ? i + 1 : 0;
    const Key here = m_Keys[static_cast<size_t>(i)];
    lowest += before(here, m_Keys[static_cast<size_t>(prev)]) && before(here, m_Keys[static_cast<size_t>(next)]);
  }
  if (lowest > kSmallStatus / 2) return false;
  std::sort(m_Keys.begin(), m_Keys.end(), before);
  m_SmallRank.resize(static_cast<size_t>(n));
  for (qorInt32 i = 0; i < n; ++i) {
    const Key& k = m_Keys[static_cast<size_t>(i)];
    if (i > 0 && k.y == m_Keys[static_cast<size_t>(i) - 1].y &&
        p[k.point].x == p[m_Keys[static_cast<size_t>(i) - 1].point].x)
      return false;
    m_SmallRank[static_cast<size_t>(k.point)] = i;
  }
  const qorInt32* const rank = m_SmallRank.data();
  // The fronts read points by node: each point is its own.
  m_NodePt.assign(model.pts.begin(), model.pts.begin() + n);
  m_FrontUsed = 0;
  if (m_Front.size() < 2 * static_cast<size_t>(n)) m_Front.resize(2 * static_cast<size_t>(n));
  m_Intervals.clear();
  m_FreeIntervals.clear();

  // Edge e runs from point e to the next; its lower and upper ends in sweep order.
  const auto next = [n](qorInt32 i) { return i + 1 < n ? i + 1 : 0; };
  const auto low = [&](qorInt32 e) { return rank[e] < rank[next(e)] ? e : next(e); };
  const auto high = [&](qorInt32 e) { return rank[e] < rank[next(e)] ? next(e) : e; };
  // The active edges left to right, and the fronts of the regions right of them (the even ones are inside).
  std::vector<qorInt32>& edges = m_SmallEdges;
  std::vector<qorInt32>& fronts = m_SmallFronts;
  edges.clear();
  fronts.clear();
  // Whether edges a and b, neighbours in that order, stay apart up to the lower of their upper ends.
  const auto apart = [&](size_t a, size_t b) {
    const qorInt32 ea = edges[a], eb = edges[b];
    const qorInt32 ha = high(ea), hb = high(eb);
    if (ha == hb) return true;
    return rank[ha] < rank[hb] ? orient2d(p[low(eb)], p[hb], p[ha]) > 0 : orient2d(p[low(ea)], p[ha], p[hb]) < 0;
  };
  const auto apartAround = [&](size_t from, size_t to) {  // the neighbours of edges[from .. to)
    return (from == 0 || apart(from - 1, from)) && (to >= edges.size() || apart(to - 1, to));
  };

  for (qorInt32 i = 0; i < n; ++i) {
    const qorInt32 v = m_Keys[static_cast<size_t>(i)].point;
    const qorInt32 in = v > 0 ? v - 1 : n - 1, out = v;  // the edges before and after v
    const bool inUp = high(in) != v, outUp = high(out) != v;
    if (inUp != outUp) {
      // On a chain: the edge that ends here gives its place to the one that leaves.
      const qorInt32 down = inUp ? out : in, up = inUp ? in : out;
      const size_t j = static_cast<size_t>(std::find(edges.begin(), edges.end(), down) - edges.begin());
      if (j == edges.size()) return false;
      if (j % 2 == 1) addRight(fronts[j - 1], v);
      if (j % 2 == 0 && j + 1 < edges.size()) addLeft(fronts[j], v);
      edges[j] = up;
      if (!apartAround(j, j + 1)) return false;
    } else if (inUp) {
      // The lowest point of two chains: a region starts between them, or the one around the point splits.
      const double side = orient2d(p[v], p[high(out)], p[high(in)]);
      if (side == 0) return false;
      const qorInt32 l = side > 0 ? in : out, r = side > 0 ? out : in;
      size_t j = 0;
      for (; j < edges.size(); ++j) {
        const double s = orient2d(p[low(edges[j])], p[high(edges[j])], p[v]);
        if (s == 0) return false;
        if (s > 0) break;
      }
      edges.insert(edges.begin() + static_cast<long>(j), {l, r});
      if (j % 2 == 1) {
        const qorInt32 rightPart = split(fronts[j - 1], v);
        fronts.insert(fronts.begin() + static_cast<long>(j), {kNil, rightPart});
      } else {
        fronts.insert(fronts.begin() + static_cast<long>(j), {newInterval(v), kNil});
      }
      if (!apartAround(j, j + 2)) return false;
    } else {
      // The highest point of two chains: their edges must be neighbours; the region between them closes, or the
      // two on their sides meet.
      const size_t a = static_cast<size_t>(std::find(edges.begin(), edges.end(), in) - edges.begin());
      const size_t b = static_cast<size_t>(std::find(edges.begin(), edges.end(), out) - edges.begin());
      const size_t j = std::min(a, b);
      if (a >= edges.size() || b >= edges.size() || std::max(a, b) != j + 1) return false;
      if (j % 2 == 0) {
        close(fronts[j], v);
      } else {
        addRight(fronts[j - 1], v);
        addLeft(fronts[j + 1], v);
        merge(fronts[j - 1], fronts[j + 1]);
      }
      edges.erase(edges.begin() + static_cast<long>(j), edges.begin() + static_cast<long>(j) + 2);
      fronts.erase(fronts.begin() + static_cast<long>(j), fronts.begin() + static_cast<long>(j) + 2);
      if (j > 0 && j < edges.size() && !apart(j - 1, j)) return false;
    }
  }
  return edges.empty();
}

}  // namespace qor_internal
