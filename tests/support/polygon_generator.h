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

}  // namespace polygen

#endif
