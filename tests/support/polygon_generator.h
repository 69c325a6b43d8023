// Random simple polygons with holes for the geometry tests and benchmarks: a simple outer contour running
// counter-clockwise, holes running clockwise, disjoint and strictly inside it; no vertex on the line through its two
// neighbours. Also the reader of the JSON polygon fixtures.
#ifndef QOR_SUPPORT_POLYGON_GENERATOR_H
#define QOR_SUPPORT_POLYGON_GENERATOR_H

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace polygen {

struct Point {
  double x, y;
};
using Contour = std::vector<Point>;

// Contour 0 is the outer one; the others are holes.
struct Polygon {
  std::vector<Contour> contours;
  int vertexCount() const {
    int n = 0;
    for (const Contour& c : contours) n += static_cast<int>(c.size());
    return n;
  }
  int holeCount() const { return static_cast<int>(contours.size()) - 1; }
};

// The input arrays of triangulate(): sizes, and the points from row 1 (row 0 unused).
struct Flat {
  std::vector<int> sizes;
  std::vector<std::array<double, 2>> rows;
  double (*points())[2] { return reinterpret_cast<double(*)[2]>(rows.data()); }
};

inline Flat flatten(const Polygon& p) {
  Flat f{{}, {{0.0, 0.0}}};
  for (const Contour& c : p.contours) {
    f.sizes.push_back(static_cast<int>(c.size()));
    for (const Point& q : c) f.rows.push_back({q.x, q.y});
  }
  return f;
}

// Twice the signed area (positive when counter-clockwise); the polygon's area is the sum over its contours.
inline double twiceSignedArea(const Contour& c) {
  double a = 0;
  for (size_t i = 0; i < c.size(); ++i) a += c[i].x * c[(i + 1) % c.size()].y - c[i].y * c[(i + 1) % c.size()].x;
  return a;
}
inline double area(const Polygon& p) {
  double a = 0;
  for (const Contour& c : p.contours) a += twiceSignedArea(c);
  return a / 2;
}

// Reads a JSON array of rings of [x, y] pairs as they are (closing and repeated points kept).
inline Polygon readRings(const std::string& path) {
  QFile file(QString::fromStdString(path));
  file.open(QIODevice::ReadOnly);
  Polygon p;
  for (const QJsonValue& ring : QJsonDocument::fromJson(file.readAll()).array()) {
    p.contours.emplace_back();
    for (const QJsonValue& q : ring.toArray()) p.contours.back().push_back({q[0].toDouble(), q[1].toDouble()});
  }
  return p;
}

// What qorTriangulateRings covers: repeated and closing points out, rings without area out (all of them if the
// outer one has none), ring 0 counter-clockwise and the others clockwise.
inline Polygon normalize(const Polygon& raw) {
  Polygon p;
  for (size_t r = 0; r < raw.contours.size(); ++r) {
    Contour c;
    for (const auto& q : raw.contours[r])
      if (c.empty() || c.back().x != q.x || c.back().y != q.y) c.push_back(q);
    while (c.size() > 1 && c.front().x == c.back().x && c.front().y == c.back().y) c.pop_back();
    const double a = c.size() < 3 ? 0 : twiceSignedArea(c);
    if (a == 0 && r == 0) return Polygon();
    if (a == 0) continue;
    if ((a > 0) != (r == 0)) std::reverse(c.begin(), c.end());
    p.contours.push_back(c);
  }
  return p;
}

using Triangles = std::vector<std::array<int, 3>>;

// What is wrong with `tri` (rows 1..n of `rows`) as a cover of a polygon of `area`, or "": distinct corners in
// range, counter-clockwise (unless !positive), none twice, and areas adding up within a relative 1e-9 (not checked
// when area is NaN). Sums in double cannot judge what rounding hides: a triangle too thin for its cross product to
// have a reliable sign is accepted, and the areas may differ by what rounding explains for the rows' extent.
inline std::string coverProblem(const Triangles& tri, const std::vector<std::array<double, 2>>& rows, int n,
                                double area, bool positive = true) {
  double sum = 0, lo = INFINITY, hi = -INFINITY;
  for (int i = 1; i <= n && i < static_cast<int>(rows.size()); ++i)
    lo = std::min({lo, rows[i][0], rows[i][1]}), hi = std::max({hi, rows[i][0], rows[i][1]});
  std::set<std::array<int, 3>> seen;
  for (size_t i = 0; i < tri.size(); ++i) {
    std::array<int, 3> t = tri[i];
    const std::string which = "triangle " + std::to_string(i) + " (" + std::to_string(t[0]) + "," +
                              std::to_string(t[1]) + "," + std::to_string(t[2]) + ")";
    if (t[0] == t[1] || t[1] == t[2] || t[0] == t[2] || std::min({t[0], t[1], t[2]}) < 1 ||
        std::max({t[0], t[1], t[2]}) > n)
      return which + " has bad corners";
    const auto &a = rows[t[0]], &b = rows[t[1]], &c = rows[t[2]];
    const double l = (b[0] - a[0]) * (c[1] - a[1]), r = (b[1] - a[1]) * (c[0] - a[0]), cross = l - r;
    const double unsure = 4 * DBL_EPSILON * (std::fabs(l) + std::fabs(r));  // the sign's error bound
    if (positive && (cross < -unsure || (cross <= 0 && unsure == 0))) return which + " is not counter-clockwise";
    sum += std::fabs(cross) / 2;
    std::sort(t.begin(), t.end());
    if (!seen.insert(t).second && positive) return which + " appears twice";
  }
  const double rounding = 64 * DBL_EPSILON * static_cast<double>(n + tri.size()) * (hi - lo) * (hi - lo);
  if (std::fabs(sum - area) > 1e-9 * std::fabs(area) + rounding)
    return "areas " + std::to_string(sum) + " vs " + std::to_string(area);
  return "";
}

inline double uniform(std::mt19937_64& rng, double lo, double hi) {
  return std::uniform_real_distribution<double>(lo, hi)(rng);
}
inline int uniformInt(std::mt19937_64& rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }

// k points at increasing angles around (cx, cy), radii in [rmin, rmax]; angles are jittered by at most 0.3 of a
// step, so no gap reaches 1.6 steps.
inline Contour starContour(std::mt19937_64& rng, int k, double cx, double cy, double rmin, double rmax,
                           bool clockwise) {
  Contour c;
  for (int i = 0; i < k; ++i) {
    const double angle = 2 * M_PI / k * (i + uniform(rng, -0.3, 0.3)), r = uniform(rng, rmin, rmax);
    c.push_back({cx + r * std::cos(angle), cy + r * std::sin(angle)});
  }
  if (clockwise) std::reverse(c.begin(), c.end());
  return c;
}

// A star of about n - holes * holeVertices outer vertices (at least 7 with holes) around the origin, with holes in
// a grid of cells inside the disk that the outer contour surely contains.
inline Polygon star(std::mt19937_64& rng, int n, int holes = 0, int holeVertices = 4) {
  const double R = 1000;
  const int outer = std::max(holes > 0 ? 7 : 3, n - holes * holeVertices);
  Polygon p{{starContour(rng, outer, 0, 0, 0.6 * R, R, false)}};
  const int g = static_cast<int>(std::ceil(std::sqrt(static_cast<double>(holes))));
  const double half = 0.95 * 0.6 * R * std::cos(1.6 * M_PI / outer) / std::sqrt(2.0), cell = 2 * half / std::max(g, 1);
  for (int h = 0; h < holes; ++h)
    p.contours.push_back(starContour(rng, holeVertices, -half + cell * (h % g + 0.5), -half + cell * (h / g + 0.5),
                                     0.2 * cell, 0.4 * cell, true));
  return p;
}

// A comb: a bar with rectangular teeth of random integer heights on top (many equal x and y) and rectangular holes
// in the bar. About n vertices.
inline Polygon comb(std::mt19937_64& rng, int n, int holes = 0) {
  Contour top;  // the teeth from the left, to be walked from the right
  for (int j = 0, x = 0, teeth = std::max(1, (n - 4 * holes) / 4); j < teeth; ++j) {
    const double left = x, right = x + uniformInt(rng, 1, 3), height = 4 + uniformInt(rng, 1, 6);
    if (j > 0) top.push_back({left, 4});
    top.push_back({left, height}), top.push_back({right, height});
    if (j < teeth - 1) top.push_back({right, 4});
    x = static_cast<int>(right) + uniformInt(rng, 1, 3);
  }
  Contour c{{0, 0}, {top.back().x, 0}};
  c.insert(c.end(), top.rbegin(), top.rend());
  Polygon p{{c}};
  const double slot = top.back().x / std::max(holes, 1);
  for (int h = 0; h < holes; ++h)
    p.contours.push_back({{slot * (h + 0.2), 1}, {slot * (h + 0.2), 3}, {slot * (h + 0.8), 3}, {slot * (h + 0.8), 1}});
  return p;
}

// An x-monotone zigzag whose vertices use three y levels on each side, with triangular holes at y 3..4: nearly every
// vertex shares its y with many others. About n vertices.
inline Polygon zigzag(std::mt19937_64& rng, int n, int holes = 0) {
  const int columns = std::max(2, (n - 3 * holes) / 2);
  auto levels = [&](int base) {
    std::vector<int> y(columns);
    for (int i = 0; i < columns; ++i) {
      do y[i] = base + uniformInt(rng, 0, 2);
      while (i >= 2 && y[i] - y[i - 1] == y[i - 1] - y[i - 2]);  // no three collinear
    }
    return y;
  };
  const std::vector<int> bottom = levels(0), top = levels(5);
  Contour c;
  for (int i = 0; i < columns; ++i) c.push_back({double(i), double(bottom[i])});
  for (int i = columns - 1; i >= 0; --i) c.push_back({double(i), double(top[i])});
  Polygon p{{c}};
  for (int h = 0; h < std::min(holes, columns - 1); ++h)
    p.contours.push_back({{h + 0.2, 3}, {h + 0.5, 4}, {h + 0.8, 3}});
  return p;
}

inline const char* shapeName(int shape) { return shape % 3 == 0 ? "star" : shape % 3 == 1 ? "comb" : "zigzag"; }
inline Polygon shape(int which, std::mt19937_64& rng, int n, int holes) {
  return which % 3 == 0 ? star(rng, n, holes) : which % 3 == 1 ? comb(rng, n, holes) : zigzag(rng, n, holes);
}

// Map-like shapes, valid by construction. A jagged counter-clockwise ring of n >= 5 points around (cx, cy): radii of
// fractal noise (midpoint displacement) in [0.6 R, R] cut by narrow inlets, at angles through a smooth increasing warp
// with steps below pi, so simple and star-shaped; `safe` gets the radius of a disk around the centre inside it.
inline Contour jaggedRing(std::mt19937_64& rng, int n, double cx, double cy, double R, double& safe) {
  std::vector<double> noise(4), finer, r(static_cast<size_t>(n)), angle(r.size());
  for (double amp = 1; noise.size() < r.size(); amp *= 0.6, noise.swap(finer), finer.clear())
    for (size_t i = 0; i < noise.size(); ++i)
      finer.insert(finer.end(), {noise[i], (noise[i] + noise[(i + 1) % noise.size()]) / 2 + uniform(rng, -amp, amp)});
  const auto [lo, hi] = std::minmax_element(noise.begin(), noise.end());
  for (size_t i = 0; i < r.size(); ++i) {
    r[i] = R * (0.6 + 0.4 * (noise[i * noise.size() / r.size()] - *lo) / (*hi - *lo + 1e-9));
    angle[i] = 2 * M_PI * (static_cast<double>(i) + uniform(rng, -0.25, 0.25)) / n;
    angle[i] += 0.4 * std::sin(angle[i]);
  }
  for (int k = 0; k < n / 300; ++k)
    for (int at = uniformInt(rng, 0, n - 1), w = uniformInt(rng, 1, 12), i = -3 * w; i <= 3 * w; ++i)
      r[static_cast<size_t>((at + i + n) % n)] *= 1 - 0.66 * std::exp(-double(i) * i / (w * w));
  Contour c(r.size());
  for (size_t i = 0, j = 1; i < r.size(); ++i, j = (i + 1) % r.size()) {
    c[i] = {cx + r[i] * std::cos(angle[i]), cy + r[i] * std::sin(angle[i])};
    safe = std::min(i ? safe : R, std::min(r[i], r[j]) * std::cos(std::remainder(angle[j] - angle[i], 2 * M_PI) / 2));
  }
  return c;
}

// About n points of map: a jagged coastline with `lakes` holes of at most 60 points in a grid inside its safe disk
// and, with `islands`, a quarter of the points in islands of 10 to n / 8 points around it, each a polygon of its own.
inline std::vector<Polygon> coastMap(std::mt19937_64& rng, int n, int lakes, bool islands = false, double cx = 0,
                                     double cy = 0, double R = 1000) {
  const int size = std::max(5, std::min(60, n / 4 / std::max(lakes, 1))), g = int(std::ceil(std::sqrt(lakes)));
  double safe, unused;
  std::vector<Polygon> map{{{jaggedRing(rng, std::max(5, (islands ? n * 3 / 4 : n) - lakes * size), cx, cy, R, safe)}}};
  const double half = 0.99 * safe / std::sqrt(2.0), cell = 2 * half / std::max(g, 1);
  for (int h = 0; h < lakes; ++h) {
    const double x = cx - half + cell * (h % g + 0.5), y = cy - half + cell * (h / g + 0.5);
    map[0].contours.push_back(jaggedRing(rng, size, x, y, 0.45 * cell, unused));
    std::reverse(map[0].contours.back().begin(), map[0].contours.back().end());
  }
  for (int left = n - map[0].vertexCount(); islands && left >= 10; left -= map.back().vertexCount()) {
    const int k = std::min(left, uniformInt(rng, 10, std::max(10, n / 8)));
    const double at = uniform(rng, 0, 2 * M_PI), r = 8 * std::sqrt(double(k)), d = r + uniform(rng, 1100, 2500);
    map.push_back(coastMap(rng, k, k / 2000, false, d * std::cos(at), d * std::sin(at), r)[0]);
  }
  return map;
}

// A corridor one unit wide winding through S = n / 4 - 1 slits that come in alternately from the right and the left of
// a W x (2 S + 1) box, W = max(S, 3): long horizontal edges stacked up, 4 S + 4 integer points. Turned (x and y trade
// places, the ring runs clockwise), a sweep from the bottom meets all the long edges at once.
inline Polygon meander(int n, bool turned = false) {
  const int S = std::max(1, n / 4 - 1);
  const double W = std::max(S, 3), H = 2.0 * S + 1;
  Contour c{{0, 0}, {W, 0}};
  for (int j = 0; j < S; j += 2)
    c.insert(c.end(), {{W, 2. * j + 1}, {1, 2. * j + 1}, {1, 2. * j + 2}, {W, 2. * j + 2}});
  c.insert(c.end(), {{W, H}, {0, H}});
  for (int j = S - 1 - S % 2; j > 0; j -= 2)
    c.insert(c.end(), {{0, 2. * j + 2}, {W - 1, 2. * j + 2}, {W - 1, 2. * j + 1}, {0, 2. * j + 1}});
  for (Point& q : c) q = turned ? Point{q.y, q.x} : q;
  return Polygon{{c}};
}

// An m x m grid of unit cells: a square outer ring with a point at every integer of its sides (collinear runs), and in
// each cell at random nothing, a square hole (sharing edges and corners with the outer ring and other squares) or a
// diamond through the midpoints of its sides (touching others at points, some inside edges); about 2.7 m^2 points.
inline Polygon gridHoles(std::mt19937_64& rng, int m) {
  Polygon p{{Contour()}};
  for (int i = 0; i < 4 * m; ++i) {
    const double t = i % m, M = m;
    const Point side[4] = {{t, 0}, {M, t}, {M - t, M}, {0, M - t}};
    p.contours[0].push_back(side[i / m]);
  }
  for (double x = 0; x < m; ++x)
    for (double y = 0; y < m; ++y) {
      const int kind = uniformInt(rng, 0, 2);
      if (kind == 1) p.contours.push_back({{x, y}, {x, y + 1}, {x + 1, y + 1}, {x + 1, y}});
      if (kind == 2) p.contours.push_back({{x + .5, y}, {x, y + .5}, {x + .5, y + 1}, {x + 1, y + .5}});
    }
  return p;
}

// Rings whose edges may cross, for the fill rules. A closed walk of n steps of up to `step` in any direction.
inline Contour randomWalk(std::mt19937_64& rng, int n, double step = 10) {
  Contour c{{0, 0}};
  while (static_cast<int>(c.size()) < n) {
    const double a = uniform(rng, 0, 2 * M_PI), l = uniform(rng, 0.1, 1) * step;
    c.push_back({c.back().x + l * std::cos(a), c.back().y + l * std::sin(a)});
  }
  return c;
}

// `p` with each point moved by up to `step` in x and y and rounded to it: edges cross, overlap and points repeat.
inline Polygon twisted(std::mt19937_64& rng, Polygon p, double step) {
  for (Contour& c : p.contours)
    for (Point& q : c)
      q = {std::round(q.x / step + uniform(rng, -1, 1)) * step, std::round(q.y / step + uniform(rng, -1, 1)) * step};
  return p;
}

// `contours` rings of 3..k random points of the integer grid [0, grid] x [0, high] (high = grid unless given): repeated
// points, collinear runs, crossings at grid points, touches; long edges crossing at small angles where grid >> high.
inline Polygon gridRings(std::mt19937_64& rng, int contours, int k, int grid, int high = -1) {
  Polygon p;
  for (int c = 0; c < contours; ++c) {
    p.contours.emplace_back();
    for (int i = uniformInt(rng, 3, k); i > 0; --i)
      p.contours.back().push_back(
          {double(uniformInt(rng, 0, grid)), double(uniformInt(rng, 0, high < 0 ? grid : high))});
  }
  return p;
}

// Oracles. Whether a winding number (counter-clockwise turns count 1) is odd (evenOdd), or not zero.
inline bool inRegion(int winding, bool evenOdd) { return evenOdd ? winding % 2 != 0 : winding != 0; }

// The area where the rings' winding number is odd (evenOdd) or not zero: between consecutive heights where an edge
// starts, ends or crosses another, edges do not cross, so the covered length is linear in y, and its value at the
// slab's middle times the slab's height is exact. Quadratic in the number of edges.
inline double regionArea(const Polygon& p, bool evenOdd) {
  std::vector<std::array<double, 5>> e;  // lower x, y, upper x, y, the winding number's change from left to right
  std::vector<double> ys;
  for (const Contour& c : p.contours)
    for (size_t i = 0; i < c.size(); ++i) {
      const Point &a = c[i], &b = c[(i + 1) % c.size()], &lo = a.y < b.y ? a : b, &hi = a.y < b.y ? b : a;
      ys.push_back(a.y);
      if (a.y != b.y) e.push_back({lo.x, lo.y, hi.x, hi.y, a.y < b.y ? -1. : 1.});
    }
  auto x = [](const std::array<double, 5>& g, double y) { return g[0] + (y - g[1]) / (g[3] - g[1]) * (g[2] - g[0]); };
  std::sort(e.begin(), e.end(), [](const auto& u, const auto& v) { return u[1] < v[1]; });
  for (size_t i = 0; i < e.size(); ++i)
    for (size_t j = i + 1; j < e.size() && e[j][1] < e[i][3]; ++j) {
      const double y1 = std::min(e[i][3], e[j][3]), d0 = x(e[i], e[j][1]) - e[j][0], d1 = x(e[i], y1) - x(e[j], y1);
      if (d0 * d1 < 0) ys.push_back(e[j][1] + (y1 - e[j][1]) * d0 / (d0 - d1));
    }
  std::sort(ys.begin(), ys.end());
  double area = 0;
  for (size_t s = 0; s + 1 < ys.size(); ++s) {
    const double y = (ys[s] + ys[s + 1]) / 2;
    std::vector<std::pair<double, int>> xs;
    for (size_t i = 0; i < e.size() && e[i][1] < y; ++i)
      if (e[i][3] > y) xs.push_back({x(e[i], y), int(e[i][4])});
    std::sort(xs.begin(), xs.end());
    int w = 0;
    for (size_t k = 0; k + 1 < xs.size(); ++k)
      if (inRegion(w += xs[k].second, evenOdd)) area += (xs[k + 1].first - xs[k].first) * (ys[s + 1] - ys[s]);
  }
  return area;
}

// The first of every `every`-th triangle (1-based indices into `rows`) that runs clockwise beyond rounding (against its
// longest side from a) or, having clear area, has its centroid outside the region of `p` under the rule; or "".
inline std::string outsideProblem(const Polygon& p, bool evenOdd, const Triangles& tri,
                                  const std::vector<std::array<double, 2>>& rows, size_t every = 1) {
  for (size_t i = 0; i < tri.size(); i += every) {
    const auto &a = rows[size_t(tri[i][0])], &b = rows[size_t(tri[i][1])], &c = rows[size_t(tri[i][2])];
    const double u = b[0] - a[0], v = b[1] - a[1], s = c[0] - a[0], t = c[1] - a[1], twice = u * t - v * s;
    const double unit = std::max(u * u + v * v, s * s + t * t), x = a[0] + (u + s) / 3, y = a[1] + (v + t) / 3;
    int w = 0;  // the winding number at the centroid
    for (const Contour& ring : p.contours)
      for (size_t k = 0; k < ring.size(); ++k) {
        const Point &e = ring[k], &f = ring[(k + 1) % ring.size()];
        const double side = (f.x - e.x) * (y - e.y) - (x - e.x) * (f.y - e.y);
        w += (e.y <= y && f.y > y && side > 0) - (e.y > y && f.y <= y && side < 0);
      }
    if (twice < -1e-12 * unit || (twice > 1e-9 * unit && !inRegion(w, evenOdd)))
      return "triangle " + std::to_string(i) + " lies outside the region";
  }
  return "";
}

// What is wrong with `tri` (indices into the points of all rings of `p`, then into the x, y pairs of `added`) as the
// triangles of the region of `p` under the rule (the cover, areas adding up to regionArea's, none outside), or "".
inline std::string fillProblem(const Polygon& p, bool evenOdd, const std::vector<int>& tri,
                               const std::vector<double>& added) {
  if (tri.size() % 3 != 0 || added.size() % 2 != 0) return "ragged output";
  Flat f = flatten(p);
  for (size_t k = 0; k < added.size(); k += 2) f.rows.push_back({added[k], added[k + 1]});
  Triangles t(tri.size() / 3);
  for (size_t i = 0; i < t.size(); ++i) t[i] = {tri[3 * i] + 1, tri[3 * i + 1] + 1, tri[3 * i + 2] + 1};
  const std::string cover = coverProblem(t, f.rows, int(f.rows.size()) - 1, regionArea(p, evenOdd), false);
  return cover.empty() ? outsideProblem(p, evenOdd, t, f.rows) : cover;
}

}  // namespace polygen

#endif
