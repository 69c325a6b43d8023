// PolySplitter invariants over generated polygons and lines: the pieces keep
// the input's area, each piece lies on one side of the line, no vertex is
// lost, and Divide keeps the input's area. Malformed outlines (any vertex
// order, repeated and collinear vertices) must come back without a crash,
// a hang or a broken ring. Every case prints its seed on failure.
#include <gtest/gtest.h>
#include <qor/qor_exception.h>
#include <qor/qor_polysplit.h>

#include <QLine>
#include <QPoint>
#include <QPolygon>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "polysplit_test_util.h"

namespace {

using Pieces = std::vector<QPolygon>;

constexpr double kPi = 3.14159265358979323846;

using polysplittest::area2;

int64_t sideValue(const QPoint& p, const QLine& line) {
  return (static_cast<int64_t>(p.x()) - line.x1()) * (static_cast<int64_t>(line.y2()) - line.y1()) -
         (static_cast<int64_t>(p.y()) - line.y1()) * (static_cast<int64_t>(line.x2()) - line.x1());
}

double length(const QPoint& a, const QPoint& b) { return std::hypot(double(b.x() - a.x()), double(b.y() - a.y())); }

double perimeter(const QPolygon& poly) {
  double sum = 0;
  for (int i = 0; i < poly.size(); ++i) sum += length(poly[i], poly[(i + 1) % poly.size()]);
  return sum;
}

// Doubled-area drift allowed for one cut: a crossing point moves by less than
// one unit per coordinate, which changes the doubled area by at most its
// edge's length times sqrt(2).
double splitSlack2(const QPolygon& poly, const QLine& line) {
  double slack = 0;
  const int n = poly.size();
  for (int i = 0; i < n; ++i) {
    const int64_t a = sideValue(poly[i], line);
    const int64_t b = sideValue(poly[(i + 1) % n], line);
    if ((a < 0 && b > 0) || (a > 0 && b < 0)) slack += length(poly[i], poly[(i + 1) % n]) * 1.5;
  }
  return slack;
}

// Doubled-area drift allowed over many cuts: every truncated point is a
// vertex of some piece, and moving it changes the doubled area by at most
// the lengths of its two edges times sqrt(2).
double divideSlack2(const Pieces& pieces) {
  double slack = 0;
  for (const QPolygon& p : pieces) slack += 3 * perimeter(p);
  return slack;
}

std::string describe(const QPolygon& poly) {
  std::ostringstream os;
  for (int i = 0; i < poly.size(); ++i) os << (i ? " " : "") << poly[i].x() << "," << poly[i].y();
  return os.str();
}

std::string describe(const QLine& line) {
  std::ostringstream os;
  os << line.x1() << "," << line.y1() << " -> " << line.x2() << "," << line.y2();
  return os.str();
}

// ---------------------------------------------------------------------------
// Generators of simple polygons with positive signed area.

class Gen {
 public:
  explicit Gen(unsigned seed) : m_Random(seed) {}
  int Int(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(m_Random); }
  double Real(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(m_Random); }

 private:
  std::mt19937 m_Random;
};

QPolygon dropRepeats(const QPolygon& in) {
  QPolygon out;
  for (const QPoint& p : in) {
    if (out.isEmpty() || out.back() != p) out.append(p);
  }
  while (out.size() > 1 && out.front() == out.back()) out.removeLast();
  return out;
}

QPolygon convex(Gen& g) {
  for (;;) {
    const int n = g.Int(3, 60);
    const int radius = g.Int(50, 5000);
    const int cx = g.Int(-3000, 3000), cy = g.Int(-3000, 3000);
    std::vector<double> angles;
    for (int i = 0; i < n; ++i) angles.push_back(g.Real(0, 2 * kPi));
    std::sort(angles.begin(), angles.end());
    QPolygon poly;
    for (double a : angles) {
      poly.append(QPoint(cx + int(std::lround(radius * std::cos(a))), cy + int(std::lround(radius * std::sin(a)))));
    }
    poly = dropRepeats(poly);
    // Angles bunched on one side can leave a sliver; draw again.
    if (poly.size() >= 3 && area2(poly) > 0) return poly;
  }
}

QPolygon star(Gen& g) {
  const int points = g.Int(3, 30);
  const int outer = g.Int(200, 5000);
  const int inner = g.Int(20, outer / 2);
  QPolygon poly;
  for (int i = 0; i < 2 * points; ++i) {
    const double a = kPi * i / points;
    const int r = i % 2 ? inner : outer;
    poly.append(QPoint(int(std::lround(r * std::cos(a))), int(std::lround(r * std::sin(a)))));
  }
  return dropRepeats(poly);
}

// Teeth pointing up from a base, vertices counter-clockwise (y up).
QPolygon comb(int teeth, int w, int gap, int base, int height, int x0 = 0, int y0 = 0) {
  const int width = teeth * w + (teeth - 1) * gap;
  QPolygon poly;
  poly << QPoint(x0, y0) << QPoint(x0 + width, y0);
  for (int i = teeth - 1; i >= 0; --i) {
    const int left = x0 + i * (w + gap);
    poly << QPoint(left + w, y0 + base + height) << QPoint(left, y0 + base + height);
    if (i > 0) poly << QPoint(left, y0 + base) << QPoint(left - gap, y0 + base);
  }
  return poly;
}

QPolygon randomComb(Gen& g) {
  return comb(g.Int(1, 12), g.Int(1, 30), g.Int(1, 30), g.Int(1, 40), g.Int(1, 80), g.Int(-100, 100), g.Int(-100, 100));
}

QPolygon uShape(Gen& g) { return comb(2, g.Int(1, 40), g.Int(1, 40), g.Int(1, 40), g.Int(1, 80)); }

// A strip wound around the origin: out along the outer edge, back along the
// inner one. Turns are 60 units apart and the strip is 30 wide, all scaled.
QPolygon spiral(Gen& g) {
  const double turns = g.Real(0.6, 4);
  const int perTurn = g.Int(8, 40);
  const double scale = g.Real(2, 20);
  const int samples = std::max(3, int(turns * perTurn));
  const double end = turns * 2 * kPi;
  const double b = 60 / (2 * kPi);
  QPolygon poly;
  for (int i = 0; i <= samples; ++i) {
    const double t = end * i / samples;
    const double r = (20 + b * t + 30) * scale;
    poly.append(QPoint(int(std::lround(r * std::cos(t))), int(std::lround(r * std::sin(t)))));
  }
  for (int i = samples; i >= 0; --i) {
    const double t = end * i / samples;
    const double r = (20 + b * t) * scale;
    poly.append(QPoint(int(std::lround(r * std::cos(t))), int(std::lround(r * std::sin(t)))));
  }
  return dropRepeats(poly);
}

// A rectilinear square spiral corridor, wound counter-clockwise. Arm i of
// its centre line is (i + 1) * step long, so parallel arms lie 2 * step apart
// and a corridor of less than step in width never touches itself.
QPolygon squareSpiral(Gen& g) {
  const int arms = g.Int(2, 14);
  const int step = g.Int(3, 20);
  const int half = g.Int(1, step / 2);
  const int dx[] = {1, 0, -1, 0}, dy[] = {0, 1, 0, -1};
  std::vector<QPoint> path{QPoint(0, 0)};
  for (int i = 0; i < arms; ++i) {
    const int len = step * (i + 1);
    path.push_back(path.back() + QPoint(dx[i % 4] * len, dy[i % 4] * len));
  }
  // The corridor's right-hand side going out, its left-hand side coming
  // back. A corner moves along both arms' right normals; an end along its
  // one arm's.
  auto side = [&](int i, int sign) {
    const int before = (i == 0 ? 0 : i - 1) % 4;
    const int after = (i == arms ? arms - 1 : i) % 4;
    int nx = dy[after], ny = -dx[after];
    if (i > 0 && i < arms) nx += dy[before], ny -= dx[before];
    return path[i] + QPoint(sign * nx * half, sign * ny * half);
  };
  QPolygon poly;
  for (int i = 0; i <= arms; ++i) poly.append(side(i, 1));
  for (int i = arms; i >= 0; --i) poly.append(side(i, -1));
  return dropRepeats(poly);
}

// ---------------------------------------------------------------------------
// Lines.

QLine randomLine(Gen& g, const QPolygon& poly, int kind) {
  const QRect box = poly.boundingRect();
  const int n = poly.size();
  auto anyPoint = [&] {
    return QPoint(g.Int(box.left() - 20, box.right() + 20), g.Int(box.top() - 20, box.bottom() + 20));
  };
  auto direction = [&] {
    QPoint d;
    do d = QPoint(g.Int(-50, 50), g.Int(-50, 50));
    while (d.isNull());
    return d;
  };
  switch (kind) {
    case 0: {  // anywhere
      const QPoint a = anyPoint();
      return QLine(a, a + direction());
    }
    case 1: {  // through one vertex
      const QPoint a = poly[g.Int(0, n - 1)];
      return QLine(a, a + direction());
    }
    case 2: {  // through two vertices
      const QPoint a = poly[g.Int(0, n - 1)];
      QPoint b = poly[g.Int(0, n - 1)];
      if (a == b) b = a + direction();
      return QLine(a, b);
    }
    case 3: {  // along an edge, either way
      const int i = g.Int(0, n - 1);
      QLine l(poly[i], poly[(i + 1) % n]);
      if (l.p1() == l.p2()) l.setP2(l.p1() + direction());
      return g.Int(0, 1) ? l : QLine(l.p2(), l.p1());
    }
    case 4: {  // misses: beyond one side of the box
      const int y = box.bottom() + g.Int(1, 50);
      return QLine(box.left() - g.Int(0, 30), y, box.right() + g.Int(0, 30), y + g.Int(0, 3));
    }
    default: {  // axis-parallel through a vertex coordinate
      const QPoint a = poly[g.Int(0, n - 1)];
      return g.Int(0, 1) ? QLine(a.x(), box.top() - 5, a.x(), box.bottom() + 5)
                         : QLine(box.right() + 5, a.y(), box.left() - 5, a.y());
    }
  }
}

// The invariants of one cut of a well-formed polygon.
void checkSplit(PolySplitter& s, const QPolygon& poly, const QLine& line) {
  const Pieces pieces = s.Split(poly, line);
  ASSERT_FALSE(pieces.empty());
  EXPECT_NO_THROW(s.VerifyCycles());

  size_t total = 0;
  for (const QPolygon& p : pieces) {
    EXPECT_FALSE(p.isEmpty());
    total += p.size();
  }
  EXPECT_EQ(total, s.SplitPoly.size()) << "a ring element is in no piece or in two";

  EXPECT_LE(std::fabs(double(area2(pieces) - area2(poly))), splitSlack2(poly, line)) << "area not kept";

  // Each piece on one side, allowing the truncated crossing points to lie
  // less than sqrt(2) off the line.
  const double tolerance = 1.5 * std::hypot(double(line.dx()), double(line.dy()));
  for (const QPolygon& p : pieces) {
    int64_t lo = 0, hi = 0;
    for (const QPoint& v : p) {
      lo = std::min(lo, sideValue(v, line));
      hi = std::max(hi, sideValue(v, line));
    }
    EXPECT_TRUE(lo >= -tolerance || hi <= tolerance) << "piece on both sides: " << describe(p);
  }

  std::set<std::pair<int, int>> seen;
  for (const QPolygon& p : pieces) {
    for (const QPoint& v : p) seen.insert({v.x(), v.y()});
  }
  for (const QPoint& v : poly) {
    EXPECT_TRUE(seen.count({v.x(), v.y()})) << "lost vertex " << v.x() << "," << v.y();
  }

  if (pieces.size() == 1 && s.OnLineEdges.empty()) {
    EXPECT_EQ(pieces[0], poly);
  }
}

void checkDivide(PolySplitter& s, const QPolygon& poly, int pieceSize) {
  const Pieces pieces = s.Divide(poly, pieceSize);
  ASSERT_FALSE(pieces.empty());
  EXPECT_LE(std::fabs(double(area2(pieces) - area2(poly))), divideSlack2(pieces)) << "area lost by Divide";
  for (const QPolygon& p : pieces) EXPECT_FALSE(p.isEmpty());
}

using Generator = std::function<QPolygon(Gen&)>;

void runFamily(const char* name, const Generator& make, unsigned seedBase, int polygons) {
  PolySplitter s;
  for (int k = 0; k < polygons; ++k) {
    const unsigned seed = seedBase + k;
    Gen g(seed);
    const QPolygon poly = make(g);
    SCOPED_TRACE(std::string(name) + " seed " + std::to_string(seed) + " polygon " + describe(poly));
    ASSERT_GE(poly.size(), 3);
    ASSERT_GT(area2(poly), 0) << "generator made a polygon of the wrong orientation";
    for (int kind = 0; kind < 6; ++kind) {
      for (int rep = 0; rep < 3; ++rep) {
        const QLine line = randomLine(g, poly, kind);
        SCOPED_TRACE("line " + describe(line));
        checkSplit(s, poly, line);
        if (::testing::Test::HasFailure()) return;
      }
    }
    for (int pieceSize : {0, 3, 4, 5, 8, 16}) {
      SCOPED_TRACE("pieceSize " + std::to_string(pieceSize));
      checkDivide(s, poly, pieceSize);
      if (::testing::Test::HasFailure()) return;
    }
  }
}

// Each family catches lost or misassigned pieces on its own kind of cut:
// convex outlines give two pieces, stars and combs many, spirals cut the
// same strip several times along the line.
TEST(PolySplitterProperty, ConvexPolygons) { runFamily("convex", convex, 1000, 120); }
TEST(PolySplitterProperty, StarPolygons) { runFamily("star", star, 2000, 120); }
TEST(PolySplitterProperty, Combs) { runFamily("comb", randomComb, 3000, 120); }
TEST(PolySplitterProperty, UShapes) { runFamily("U", uShape, 4000, 80); }
TEST(PolySplitterProperty, Spirals) { runFamily("spiral", spiral, 5000, 60); }
TEST(PolySplitterProperty, SquareSpirals) { runFamily("square spiral", squareSpiral, 6000, 80); }

// Catches a pairing that merges teeth when one line crosses many of them.
TEST(PolySplitterProperty, LineThroughEveryToothOfALargeComb) {
  PolySplitter s;
#ifdef NDEBUG
  const int teeth = 2000;
#else
  const int teeth = 200;  // debug builds check every ring after every bridge
#endif
  const QPolygon poly = comb(teeth, 3, 2, 10, 20);
  for (int y : {15, 20, 29}) {
    const QLine line(-5, y, 6000, y);
    const Pieces pieces = s.Split(poly, line);
    EXPECT_EQ(pieces.size(), size_t(teeth + 1)) << "y " << y;
    EXPECT_LE(std::fabs(double(area2(pieces) - area2(poly))), splitSlack2(poly, line));
  }
}

// Teeth with jagged tops on a thin base: a horizontal cut along the base
// frees every tooth at once, and each tooth has more vertices than the
// threshold.
QPolygon jaggedComb(int teeth, int points) {
  const int w = 2 * points, gap = 4, base = 4, height = 400;
  const int width = teeth * w + (teeth - 1) * gap;
  QPolygon poly;
  poly << QPoint(0, 0) << QPoint(width, 0);
  for (int i = teeth - 1; i >= 0; --i) {
    const int left = i * (w + gap);
    for (int k = points; k >= 0; --k) poly << QPoint(left + 2 * k, base + height + (k % 2 ? 3 : 0));
    if (i > 0) poly << QPoint(left, base) << QPoint(left - gap, base);
  }
  return poly;
}

// Catches Divide dropping pieces when a break yields several large ones.
TEST(PolySplitterProperty, DivideKeepsAllTeeth) {
  PolySplitter s;
  for (int teeth = 2; teeth < 10; ++teeth) {
    const int pieceSize = 2 * teeth;  // the cut falls on the base line
    const QPolygon poly = jaggedComb(teeth, pieceSize + 1);
    ASSERT_GT(area2(poly), 0);
    const Pieces first = s.Break(poly, pieceSize);
    EXPECT_EQ(first.size(), size_t(teeth + 1)) << "teeth " << teeth;
    const Pieces pieces = s.Divide(poly, pieceSize);
    EXPECT_LE(std::fabs(double(area2(pieces) - area2(poly))), divideSlack2(pieces)) << "teeth " << teeth;
    EXPECT_GT(pieces.size(), size_t(teeth)) << "teeth " << teeth;
  }
}

// Catches crashes, hangs and broken rings on outlines that break the input
// rule: random vertex order, repeated and collinear vertices, tiny ranges.
TEST(PolySplitterProperty, MalformedOutlinesStayDefined) {
  PolySplitter s;
  for (unsigned seed = 7000; seed < 7400; ++seed) {
    Gen g(seed);
    const int n = g.Int(0, 24);
    const int range = g.Int(1, 12);
    QPolygon poly;
    for (int i = 0; i < n; ++i) {
      if (i > 0 && g.Int(0, 5) == 0)
        poly.append(poly[g.Int(0, i - 1)]);  // repeat an earlier vertex
      else
        poly.append(QPoint(g.Int(-range, range), g.Int(-range, range)));
    }
    SCOPED_TRACE("seed " + std::to_string(seed) + " polygon " + describe(poly));
    for (int rep = 0; rep < 8; ++rep) {
      QLine line(g.Int(-range - 3, range + 3), g.Int(-range - 3, range + 3), g.Int(-range - 3, range + 3),
                 g.Int(-range - 3, range + 3));
      const Pieces pieces = s.Split(poly, line);
      EXPECT_NO_THROW(s.VerifyCycles());
      EXPECT_EQ(pieces.empty(), poly.isEmpty());
      size_t total = 0;
      for (const QPolygon& p : pieces) total += p.size();
      EXPECT_EQ(total, s.SplitPoly.size());
      EXPECT_LE(std::fabs(double(area2(pieces) - area2(poly))), splitSlack2(poly, line));
    }
    for (int rank = -1; rank <= n + 1; ++rank) {
      const Pieces pieces = s.Break(poly, rank);
      EXPECT_EQ(pieces.empty(), poly.isEmpty());
    }
    for (int pieceSize : {-1, 0, 1, 2, 3, 5}) {
      const Pieces pieces = s.Divide(poly, pieceSize);
      EXPECT_EQ(pieces.empty(), poly.isEmpty());
      EXPECT_LE(std::fabs(double(area2(pieces) - area2(poly))), divideSlack2(pieces) + 1e-9);
    }
    if (::testing::Test::HasFailure()) return;
  }
}

}  // namespace
