#include <qor/qor_assert.h>
#include <qor/qor_polycheck.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <vector>

#include "internal/qor_polycheck_sweep.h"

namespace qor_internal {

namespace {

struct Edge {
  double x0, y0, x1, y1;  // x0 <= x1
  double ylo, yhi;
  qorInt32 contour;
  qorInt32 a, b;         // point indices: the edge runs from a to b
  qorInt32 first, last;  // the contour's first and last point index
};

inline double orient(double ax, double ay, double bx, double by, double cx, double cy) {
  return (bx - ax) * (cy - ay) - (by - ay) * (cx - ax);
}

// Whether (px, py), collinear with the segment, lies within its box.
inline bool within(const Edge& e, double px, double py) {
  return px >= e.x0 && px <= e.x1 && py >= e.ylo && py <= e.yhi;
}

// Consecutive edges of one contour share exactly one point.
inline bool adjacent(const Edge& e, const Edge& f) {
  if (e.contour != f.contour) return false;
  if (e.b == f.a || f.b == e.a) return true;
  return false;
}

// Tests one pair; fills `out` and returns true when they meet other than at a shared contour vertex.
bool meet(const Edge& e, const Edge& f, const double (*pts)[2], Contact& out) {
  const double* p1 = pts[e.a];
  const double* p2 = pts[e.b];
  const double* q1 = pts[f.a];
  const double* q2 = pts[f.b];
  const double o1 = orient(p1[0], p1[1], p2[0], p2[1], q1[0], q1[1]);
  const double o2 = orient(p1[0], p1[1], p2[0], p2[1], q2[0], q2[1]);
  const double o3 = orient(q1[0], q1[1], q2[0], q2[1], p1[0], p1[1]);
  const double o4 = orient(q1[0], q1[1], q2[0], q2[1], p2[0], p2[1]);
  out.contourA = std::min(e.contour, f.contour);
  out.contourB = std::max(e.contour, f.contour);
  if (adjacent(e, f)) {
    // They share a point; they meet elsewhere only when they run back over each other.
    if (o1 != 0 || o2 != 0) return false;
    const double* shared = e.b == f.a ? p2 : p1;
    const double* ours = e.b == f.a ? p1 : p2;
    const double* theirs = e.b == f.a ? q2 : q1;
    const double dot =
        (ours[0] - shared[0]) * (theirs[0] - shared[0]) + (ours[1] - shared[1]) * (theirs[1] - shared[1]);
    if (dot <= 0 && !(e.a == f.b && e.b == f.a)) return false;
    out.kind = Contact::Touch;
    out.x = shared[0];
    out.y = shared[1];
    return true;
  }
  if (((o1 > 0 && o2 < 0) || (o1 < 0 && o2 > 0)) && ((o3 > 0 && o4 < 0) || (o3 < 0 && o4 > 0))) {
    const double t = o3 / (o3 - o4);
    out.kind = Contact::Cross;
    out.x = p1[0] + t * (p2[0] - p1[0]);
    out.y = p1[1] + t * (p2[1] - p1[1]);
    return true;
  }
  const double* at = nullptr;
  if (o1 == 0 && within(e, q1[0], q1[1]))
    at = q1;
  else if (o2 == 0 && within(e, q2[0], q2[1]))
    at = q2;
  else if (o3 == 0 && within(f, p1[0], p1[1]))
    at = p1;
  else if (o4 == 0 && within(f, p2[0], p2[1]))
    at = p2;
  if (at == nullptr) return false;
  out.kind = Contact::Touch;
  out.x = at[0];
  out.y = at[1];
  return true;
}

}  // namespace

Contact findContact(qorInt32 count, const qorInt32* sizes, const double (*points)[2]) {
  std::vector<Edge> edges;
  Contact found;
  qorInt32 first = 0;
  for (qorInt32 c = 0; c < count; ++c) {
    const qorInt32 k = sizes[c];
    if (k <= 0) continue;
    const qorInt32 last = first + k - 1;
    for (qorInt32 i = first; i <= last; ++i) {
      const qorInt32 j = i == last ? first : i + 1;
      Edge e;
      e.contour = c;
      e.a = i;
      e.b = j;
      e.first = first;
      e.last = last;
      const double* p = points[i];
      const double* q = points[j];
      if (p[0] == q[0] && p[1] == q[1]) {  // a point repeated: the contour touches itself there
        if (found.kind == Contact::None) {
          found.kind = Contact::Touch;
          found.contourA = found.contourB = c;
          found.x = p[0];
          found.y = p[1];
        }
        continue;
      }
      e.x0 = std::min(p[0], q[0]);
      e.x1 = std::max(p[0], q[0]);
      e.ylo = std::min(p[1], q[1]);
      e.yhi = std::max(p[1], q[1]);
      edges.push_back(e);
    }
    first = last + 1;
  }
  std::sort(edges.begin(), edges.end(),
            [](const Edge& a, const Edge& b) { return a.x0 < b.x0 || (a.x0 == b.x0 && a.a < b.a); });
  std::multimap<double, size_t> active;  // right end -> edge
  Contact touch = found;
  for (size_t i = 0; i < edges.size(); ++i) {
    const Edge& e = edges[i];
    active.erase(active.begin(), active.lower_bound(e.x0));
    for (const auto& entry : active) {
      const Edge& f = edges[entry.second];
      if (f.yhi < e.ylo || f.ylo > e.yhi) continue;
      Contact c;
      if (!meet(e, f, points, c)) continue;
      if (c.kind == Contact::Cross) return c;
      if (touch.kind == Contact::None) touch = c;
    }
    active.emplace(e.x1, i);
  }
  return touch;
}

std::vector<std::pair<qorInt32, qorInt32>> findPointsOnEdges(qorInt32 count, const qorInt32* sizes,
                                                             const double (*points)[2]) {
  std::vector<Edge> edges;
  std::vector<qorInt32> order;
  qorInt32 first = 0;
  for (qorInt32 c = 0; c < count; ++c) {
    const qorInt32 k = sizes[c];
    if (k <= 0) continue;
    const qorInt32 last = first + k - 1;
    for (qorInt32 i = first; i <= last; ++i) {
      order.push_back(i);
      const qorInt32 j = i == last ? first : i + 1;
      const double* p = points[i];
      const double* q = points[j];
      if (p[0] == q[0] && p[1] == q[1]) continue;
      Edge e;
      e.contour = c;
      e.a = i;
      e.b = j;
      e.first = first;
      e.last = last;
      e.x0 = std::min(p[0], q[0]);
      e.x1 = std::max(p[0], q[0]);
      e.ylo = std::min(p[1], q[1]);
      e.yhi = std::max(p[1], q[1]);
      edges.push_back(e);
    }
    first = last + 1;
  }
  std::sort(edges.begin(), edges.end(), [](const Edge& a, const Edge& b) { return a.x0 < b.x0; });
  std::sort(order.begin(), order.end(), [&](qorInt32 a, qorInt32 b) { return points[a][0] < points[b][0]; });
  std::vector<std::pair<qorInt32, qorInt32>> found;
  std::multimap<double, size_t> active;  // right end -> edge
  size_t next = 0;
  for (qorInt32 v : order) {
    const double px = points[v][0], py = points[v][1];
    for (; next < edges.size() && edges[next].x0 <= px; ++next) active.emplace(edges[next].x1, next);
    active.erase(active.begin(), active.lower_bound(px));
    for (const auto& entry : active) {
      const Edge& e = edges[entry.second];
      if (py < e.ylo || py > e.yhi) continue;
      const double* a = points[e.a];
      const double* b = points[e.b];
      if ((a[0] == px && a[1] == py) || (b[0] == px && b[1] == py)) continue;
      if (orient(a[0], a[1], b[0], b[1], px, py) == 0) found.emplace_back(v, e.a);
    }
  }
  return found;
}

std::string describeContact(const Contact& c, const char* noun) {
  if (c.kind == Contact::None) return std::string();
  char where[96];
  std::snprintf(where, sizeof(where), " near (%.10g, %.10g)", c.x, c.y);
  const char* verb = c.kind == Contact::Cross ? " crosses " : " touches ";
  std::string text = noun + (" " + std::to_string(c.contourB + 1)) + verb;
  text += c.contourA == c.contourB ? std::string("itself") : noun + (" " + std::to_string(c.contourA + 1));
  return text + where;
}

}  // namespace qor_internal

std::string qorCheckPolygon(qorInt32 count, const qorInt32* sizes, const double (*points)[2]) {
  if (count > 0 && (sizes == nullptr || points == nullptr))
    qorThrow("qorCheckPolygon: null sizes or points", "qor_polycheck", __LINE__);
  qorInt32 first = 0;
  for (qorInt32 c = 0; c < count; ++c) {
    const qorInt32 k = sizes[c];
    if (k <= 0) continue;
    if (k < 3) return "contour " + std::to_string(c + 1) + " has fewer than 3 points";
    for (qorInt32 i = first; i < first + k; ++i)
      if (!std::isfinite(points[i][0]) || !std::isfinite(points[i][1]))
        return "contour " + std::to_string(c + 1) + " has a coordinate that is not a finite number";
    first += k;
  }
  return qor_internal::describeContact(qor_internal::findContact(count, sizes, points));
}
