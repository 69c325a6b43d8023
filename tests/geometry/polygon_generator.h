// Random simple polygons with holes, for the triangulator's tests and
// benchmarks. Every generated polygon is valid input: a simple outer contour
// running counter-clockwise, and holes running clockwise that are disjoint
// from each other and lie strictly inside it. No vertex lies on the straight
// line through its two neighbours.
#ifndef QOR_TESTS_POLYGON_GENERATOR_H
#define QOR_TESTS_POLYGON_GENERATOR_H

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace polygen {

struct Point {
  double x;
  double y;
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

// The input arrays of triangulate(): sizes, and the points from row 1.
struct Flat {
  std::vector<int> sizes;
  std::vector<std::array<double, 2>> rows;  // rows[0] is unused
  double (*points())[2] { return reinterpret_cast<double(*)[2]>(rows.data()); }
};

inline Flat flatten(const Polygon& p) {
  Flat f;
  f.rows.push_back({0.0, 0.0});
  for (const Contour& c : p.contours) {
    f.sizes.push_back(static_cast<int>(c.size()));
    for (const Point& q : c) f.rows.push_back({q.x, q.y});
  }
  return f;
}

// Twice the signed area (positive when counter-clockwise).
inline double twiceSignedArea(const Contour& c) {
  double a = 0;
  for (size_t i = 0; i < c.size(); ++i) {
    const Point& p = c[i];
    const Point& q = c[(i + 1) % c.size()];
    a += p.x * q.y - p.y * q.x;
  }
  return a;
}

// The polygon's area: the outer contour's minus the holes'.
inline double area(const Polygon& p) {
  double a = 0;
  for (const Contour& c : p.contours) a += twiceSignedArea(c);
  return a / 2;
}

// Even-odd ray test over all contours.
inline bool evenOddInside(const Polygon& p, double x, double y) {
  bool inside = false;
  for (const Contour& c : p.contours) {
    for (size_t i = 0, j = c.size() - 1; i < c.size(); j = i++) {
      const Point& a = c[i];
      const Point& b = c[j];
      if ((a.y > y) != (b.y > y) && x < (b.x - a.x) * (y - a.y) / (b.y - a.y) + a.x) inside = !inside;
    }
  }
  return inside;
}

// Distance from (x, y) to the nearest edge.
inline double edgeDistance(const Polygon& p, double x, double y) {
  double best = INFINITY;
  for (const Contour& c : p.contours)
    for (size_t i = 0; i < c.size(); ++i) {
      const Point& a = c[i];
      const Point& b = c[(i + 1) % c.size()];
      const double dx = b.x - a.x, dy = b.y - a.y;
      const double t = std::max(0.0, std::min(1.0, ((x - a.x) * dx + (y - a.y) * dy) / (dx * dx + dy * dy)));
      best = std::min(best, std::hypot(a.x + t * dx - x, a.y + t * dy - y));
    }
  return best;
}

// Reads a JSON array of rings of [x, y] pairs, as they are (closing and repeated points kept).
inline Polygon readRings(const std::string& path) {
  std::ifstream in(path);
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  Polygon p;
  int depth = 0;
  std::vector<double> numbers;
  for (size_t i = 0; i < text.size();) {
    const char c = text[i];
    if (c == '[' || c == ']') {
      if (c == '[' && ++depth == 2) p.contours.emplace_back();
      if (c == ']' && depth-- == 3 && numbers.size() >= 2) p.contours.back().push_back({numbers[0], numbers[1]});
      if (c == ']') numbers.clear();
      ++i;
    } else if (c == '-' || c == '.' || (c >= '0' && c <= '9')) {
      char* end = nullptr;
      numbers.push_back(std::strtod(text.c_str() + i, &end));
      i = static_cast<size_t>(end - text.c_str());
    } else {
      ++i;
    }
  }
  return p;
}

inline double uniform(std::mt19937_64& rng, double lo, double hi) {
  return std::uniform_real_distribution<double>(lo, hi)(rng);
}
inline int uniformInt(std::mt19937_64& rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }

// k points at increasing angles around (cx, cy), radii in [rmin, rmax];
// angles are jittered by at most 0.3 of a step, so no gap reaches 1.6 steps.
inline Contour starContour(std::mt19937_64& rng, int k, double cx, double cy, double rmin, double rmax,
                           bool clockwise) {
  Contour c;
  const double step = 2 * M_PI / k;
  for (int i = 0; i < k; ++i) {
    const double angle = step * (i + uniform(rng, -0.3, 0.3));
    const double r = uniform(rng, rmin, rmax);
    c.push_back({cx + r * std::cos(angle), cy + r * std::sin(angle)});
  }
  if (clockwise) std::reverse(c.begin(), c.end());
  return c;
}

// Holes of `holeVertices` each in a g x g grid of cells inside the square of
// half side `half` around the origin.
inline void addGridHoles(std::mt19937_64& rng, Polygon& p, int holes, int holeVertices, double half) {
  if (holes <= 0) return;
  const int g = static_cast<int>(std::ceil(std::sqrt(static_cast<double>(holes))));
  const double cell = 2 * half / g;
  for (int h = 0; h < holes; ++h) {
    const double cx = -half + cell * (h % g + 0.5);
    const double cy = -half + cell * (h / g + 0.5);
    p.contours.push_back(starContour(rng, holeVertices, cx, cy, 0.2 * cell, 0.4 * cell, true));
  }
}

// A star-shaped outer contour of about n - holes * holeVertices vertices
// (at least 7 when there are holes) around the origin with holes in its core.
inline Polygon star(std::mt19937_64& rng, int n, int holes = 0, int holeVertices = 4) {
  Polygon p;
  int outer = n - holes * holeVertices;
  if (holes > 0) outer = std::max(outer, 7);
  outer = std::max(outer, 3);
  const double R = 1000;
  p.contours.push_back(starContour(rng, outer, 0, 0, 0.6 * R, R, false));
  if (holes > 0) {
    // No angular gap exceeds 1.6 steps (< pi / 2 from 7 vertices on), so the
    // disk of radius 0.6 R cos(half the widest gap) lies inside the contour.
    const double safe = 0.6 * R * std::cos(1.6 * M_PI / outer);
    addGridHoles(rng, p, holes, holeVertices, 0.95 * safe / std::sqrt(2.0));
  }
  return p;
}

// A strip wound along an Archimedean spiral; n is rounded down to even.
inline Polygon spiral(std::mt19937_64& rng, int n) {
  const int m = std::max(n / 2, 4);
  const int turns = std::max(1, std::min(4, m / 16));
  const double S = 100;  // distance between turns
  const double w = 0.5 * S;
  const double span = turns * 2 * M_PI;
  Contour outer, inner;
  for (int i = 0; i < m; ++i) {
    const double theta = span * i / (m - 1);
    const double r = S + S * theta / (2 * M_PI);
    const double ro = r + w / 2 + uniform(rng, -0.05, 0.05) * S;
    const double ri = r - w / 2 + uniform(rng, -0.05, 0.05) * S;
    outer.push_back({ro * std::cos(theta), ro * std::sin(theta)});
    inner.push_back({ri * std::cos(theta), ri * std::sin(theta)});
  }
  Polygon p;
  Contour c = outer;
  for (int i = m - 1; i >= 0; --i) c.push_back(inner[i]);
  p.contours.push_back(c);
  return p;
}

// A comb: a base bar with rectangular teeth of random integer heights on top
// (many equal y and x), and rectangular holes in the bar. About n vertices.
inline Polygon comb(std::mt19937_64& rng, int n, int holes = 0) {
  const int teeth = std::max(1, (n - 4 * holes) / 4);
  std::vector<double> left(teeth), right(teeth), height(teeth);
  const double H0 = 4;
  double x = 0;
  for (int j = 0; j < teeth; ++j) {
    left[j] = x;
    right[j] = x + uniformInt(rng, 1, 3);
    height[j] = H0 + uniformInt(rng, 1, 6);
    x = right[j] + uniformInt(rng, 1, 3);
  }
  const double W = right[teeth - 1];
  Contour c;
  c.push_back({0, 0});
  c.push_back({W, 0});
  for (int j = teeth - 1; j >= 0; --j) {
    if (j < teeth - 1) c.push_back({right[j], H0});
    c.push_back({right[j], height[j]});
    c.push_back({left[j], height[j]});
    if (j > 0) c.push_back({left[j], H0});
  }
  Polygon p;
  p.contours.push_back(c);
  // Holes: disjoint rectangles in the bar, y from 1 to 3.
  const double slot = W / std::max(holes, 1);
  for (int h = 0; h < holes; ++h) {
    const double x0 = slot * h + 0.2 * slot, x1 = slot * h + 0.8 * slot;
    p.contours.push_back({{x0, 1}, {x0, 3}, {x1, 3}, {x1, 1}});
  }
  return p;
}

// An x-monotone zigzag whose vertices use only three y levels on each side,
// with triangular holes at y 3..4: nearly every vertex shares its y with
// many others. About n vertices.
inline Polygon zigzag(std::mt19937_64& rng, int n, int holes = 0) {
  const int columns = std::max(2, (n - 3 * holes) / 2);
  holes = std::min(holes, columns - 1);
  auto levels = [&](int base) {
    std::vector<int> y(columns);
    for (int i = 0; i < columns; ++i) {
      do {
        y[i] = base + uniformInt(rng, 0, 2);
      } while (i >= 2 && y[i] - y[i - 1] == y[i - 1] - y[i - 2]);  // no three collinear
    }
    return y;
  };
  const std::vector<int> bottom = levels(0), top = levels(5);
  Contour c;
  for (int i = 0; i < columns; ++i) c.push_back({static_cast<double>(i), static_cast<double>(bottom[i])});
  for (int i = columns - 1; i >= 0; --i) c.push_back({static_cast<double>(i), static_cast<double>(top[i])});
  Polygon p;
  p.contours.push_back(c);
  for (int h = 0; h < holes; ++h) {
    const double x0 = h + 0.2;
    p.contours.push_back({{x0, 3}, {x0 + 0.3, 4}, {x0 + 0.6, 3}});
  }
  return p;
}

inline const char* shapeName(int shape) {
  static const char* names[] = {"star", "spiral", "comb", "zigzag"};
  return names[shape % 4];
}

// One of the shapes above by number (0..3), with about n vertices.
inline Polygon shape(int which, std::mt19937_64& rng, int n, int holes) {
  switch (which % 4) {
    case 0:
      return star(rng, n, holes);
    case 1:
      return spiral(rng, n);
    case 2:
      return comb(rng, n, holes);
    default:
      return zigzag(rng, n, holes);
  }
}

}  // namespace polygen

#endif
