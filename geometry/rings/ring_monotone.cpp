// A ring that is monotone (any line across the sweep direction meets it at most twice) is two chains from its
// lowest to its highest point, already in sweep order: merging them replaces the sort, the two current edges are
// the whole status, and the front of the one region is a deque. Most small rings of real maps are monotone along y
// or along x, and for them this path costs a fraction of the general sweep. It checks the ring exactly on the way:
// every point must lie strictly on its side of the other chain's current edge, which is what a crossing or a touch
// would break; any doubt hands the ring back to the general sweep. Along y the triangles are the sweep's own.
#include "internal/ring_sweep.h"

namespace qor_internal {

namespace {

// Sweep order along y: by y, then x. Along x the ring is read turned by a quarter, (x, y) -> (y, -x), which keeps
// every orientation, so only the order changes: by falling x, then rising y.
template <bool alongX>
inline bool before(const Pt& a, const Pt& b) {
  if (alongX) return a.x > b.x || (a.x == b.x && a.y < b.y);
  return a.y < b.y || (a.y == b.y && a.x < b.x);
}

}  // namespace

bool RingSweep::triangulateMonotone(const RingModel& model, bool ccw, std::vector<qorInt32>& out, double& twiceArea) {
  const qorInt32 n = model.size();
  if (n < 3 || model.rings() != 1) return false;
  m_Orig = model.orig.data();
  startOutput(static_cast<size_t>(n));
  if (!monotoneAlong<false>(model, ccw)) {
    startOutput(static_cast<size_t>(n));
    if (!monotoneAlong<true>(model, ccw)) {
      if (n > kSmallRing) return false;
      startOutput(static_cast<size_t>(n));
      if (!smallRing(model)) return false;
    }
  }
  out.insert(out.end(), m_Triangles.get(), m_Out);
  twiceArea = m_Area;
  return true;
}

template <bool alongX>
bool RingSweep::monotoneAlong(const RingModel& model, bool ccw) {
  const qorInt32 n = model.size();
  const Pt* const p = model.pts.data();
  // The lowest and the highest point, and whether the ring turns between rising and falling exactly twice.
  qorInt32 low = 0, high = 0, turns = 0;
  bool rising = before<alongX>(p[n - 1], p[0]);
  for (qorInt32 i = 0; i < n; ++i) {
    const bool up = before<alongX>(p[i], p[i + 1 < n ? i + 1 : 0]);
    if (up != rising) {
      if (++turns > 2) return false;
      (up ? low : high) = i;
    }
    rising = up;
  }
  if (turns != 2) return false;

  // Counter-clockwise from the lowest point the ring climbs its right chain; clockwise, its left one.
  auto step = [&](qorInt32 i, bool forward) { return forward ? (i + 1 < n ? i + 1 : 0) : (i > 0 ? i - 1 : n - 1); };
  qorInt32 lastR = low, r = step(low, ccw);  // right chain: last point taken, next point
  qorInt32 lastL = low, l = step(low, !ccw);
  m_Deque.resize(2 * static_cast<size_t>(n) + 2);
  qorInt32* const base = m_Deque.data() + n + 1;
  qorInt32 *head = base, *tail = base + 1;  // the front is [head, tail), left to right
  *head = low;
  while (r != high || l != high) {
    const bool right = l == high || (r != high && before<alongX>(p[r], p[l]));
    if (right) {
      // Strictly right of the left chain's current edge, then cut off what the point sees at the front's right.
      if (!(orient2d(p[lastL], p[l], p[r]) < 0)) return false;
      while (tail - head >= 2 && orient2d(p[tail[-2]], p[tail[-1]], p[r]) > 0) {
        emit(tail[-2], tail[-1], r, p[tail[-2]], p[tail[-1]], p[r]);
        --tail;
      }
      *tail++ = r;
      lastR = r;
      r = step(r, ccw);
    } else {
      if (!(orient2d(p[lastR], p[r], p[l]) > 0)) return false;
      while (tail - head >= 2 && orient2d(p[l], p[head[0]], p[head[1]]) > 0) {
        emit(l, head[0], head[1], p[l], p[head[0]], p[head[1]]);
        ++head;
      }
      *--head = l;
      lastL = l;
      l = step(l, !ccw);
    }
  }
  // The highest point closes the region: it sees the whole front.
  for (const qorInt32* f = head; f + 1 < tail; ++f)
    if (orient2d(p[f[0]], p[f[1]], p[high]) > 0) emit(f[0], f[1], high, p[f[0]], p[f[1]], p[high]);
  return true;
}

}  // namespace qor_internal
