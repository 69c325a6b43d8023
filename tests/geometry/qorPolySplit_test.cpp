// PolySplitter: exact pieces as one table, its bookkeeping, invariants over generated polygons and lines.
#include <gtest/gtest.h>
#include <qor/qor_exception.h>
#include <qor/qor_rings.h>
#include <qor/qor_polysplit.h>

#include <QLine>
#include <QPolygon>
#include <algorithm>
#include <climits>
#include <cmath>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "qor_test_support.h"
#include "support/polygon_generator.h"

namespace {

using Pieces = std::vector<QPolygon>;

// "0,0 10,0 10,10" is a polygon; pieces are separated by " | ".
QPolygon P(const std::string& text) {
  QPolygon poly;
  std::istringstream in(text);
  int x, y;
  char comma;
  while (in >> x >> comma >> y) poly.append(QPoint(x, y));
  return poly;
}

std::string str(const Pieces& pieces) {
  std::string s;
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i) s += " | ";
    for (int j = 0; j < pieces[i].size(); ++j)
      s += (j ? " " : "") + std::to_string(pieces[i][j].x()) + "," + std::to_string(pieces[i][j].y());
  }
  return s;
}

int64_t area2(const QPolygon& poly) {
  int64_t sum = 0;
  for (int i = 0, n = poly.size(); i < n; ++i)
    sum += int64_t(poly[i].x()) * poly[(i + 1) % n].y() - int64_t(poly[(i + 1) % n].x()) * poly[i].y();
  return sum;
}

int64_t area2(const Pieces& pieces) {
  int64_t sum = 0;
  for (const QPolygon& p : pieces) sum += area2(p);
  return sum;
}

double len(const QPoint& a, const QPoint& b) { return std::hypot(double(a.x() - b.x()), double(a.y() - b.y())); }

int64_t side(const QPoint& p, const QLine& l) {
  return (int64_t(p.x()) - l.x1()) * (int64_t(l.y2()) - l.y1()) -
         (int64_t(p.y()) - l.y1()) * (int64_t(l.x2()) - l.x1());
}

const char* kU = "0,0 30,0 30,30 20,30 20,10 10,10 10,30 0,30";
const char* kStrip = "0,0 10,2 20,0 30,2 40,0 50,2 60,0 60,10 50,8 40,10 30,8 20,10 10,8 0,10";
const char* kArms = "0,0 30,0 30,40 20,40 20,10 10,10 10,40 0,40";

}  // namespace

// Exact pieces, in order, for Split (line x1,y1,x2,y2), Break (rank) and Divide (piece size). Catches wrong
// pairing, piece order, cut axis or rank, rounding instead of truncation, lost pieces, and reads past the input.
TEST(PolySplitter, ExactPiecesTable) {
  struct Case {
    const char* label;
    char op;  // 'S'plit, 'B'reak, 'D'ivide
    const char* polygon;
    std::vector<int> arg;
    const char* pieces;
  };
  const std::string sq = "0,0 10,0 10,10 0,10";
  // clang-format off
  const std::vector<Case> cases = {
      {"square", 'S', sq.c_str(), {5, -5, 5, 15}, "0,0 5,0 5,10 0,10 | 5,0 10,0 10,10 5,10"},
      {"square, line reversed", 'S', sq.c_str(), {5, 15, 5, -5}, "0,0 5,0 5,10 0,10 | 5,0 10,0 10,10 5,10"},
      {"clockwise square", 'S', "0,10 10,10 10,0 0,0", {5, -5, 5, 15}, "0,10 5,10 10,10 10,0 5,0 0,0"},
      {"line misses", 'S', sq.c_str(), {20, -5, 20, 15}, "0,0 10,0 10,10 0,10"},
      {"along an edge", 'S', sq.c_str(), {10, 0, 0, 0}, "0,0 10,0 10,10 0,10"},
      {"touches a vertex", 'S', sq.c_str(), {-5, 5, 5, -5}, "0,0 10,0 10,10 0,10"},
      {"degenerate line", 'S', sq.c_str(), {3, 3, 3, 3}, "0,0 10,0 10,10 0,10"},
      {"diagonal", 'S', sq.c_str(), {0, 0, 10, 10}, "0,0 10,0 10,10 | 10,10 0,10 0,0"},
      {"U", 'S', kU, {-5, 20, 35, 20}, "0,0 30,0 30,20 20,20 20,10 10,10 10,20 0,20 | 30,20 30,30 20,30 20,20 | 10,20 10,30 0,30 0,20"},
      {"inner corner", 'S', "0,0 20,0 20,20 10,10 0,20", {-5, 10, 25, 10}, "0,0 20,0 20,10 10,10 0,10 | 20,10 20,20 10,10 | 10,10 0,20 0,10"},
      {"truncation", 'S', "0,0 10,0 5,10", {-5, 5, 15, 5}, "0,0 10,0 7,5 2,5 | 7,5 5,10 2,5"},
      {"truncation, negative", 'S', "-10,0 0,0 -5,10", {-15, 5, 5, 5}, "-10,0 0,0 -2,5 -7,5 | -2,5 -5,10 -7,5"},
      {"narrow tip", 'S', "-72,-10 100,-10 100,10 -72,10 -436,0", {-418, -437, -418, 437}, "-72,-10 100,-10 100,10 -72,10 -418,0 -418,0 | -418,0 -436,0 -418,0"},
      {"empty", 'S', "", {0, 0, 1, 1}, ""},
      {"one vertex", 'S', "3,4", {0, 0, 10, 10}, "3,4"},
      {"break square", 'B', sq.c_str(), {0}, "0,0 10,0 10,10 0,10"},
      {"break triangle", 'B', "0,0 10,0 5,10", {0}, "0,0 5,0 5,10 | 5,0 10,0 5,10"},
      {"break step: the median, not the middle vertex", 'B', "0,0 10,0 10,5 40,5 40,10 0,10", {0}, "0,0 10,0 10,5 10,10 0,10 | 10,5 40,5 40,10 10,10"},
      {"break U 0", 'B', kU, {0}, "0,0 20,0 20,10 10,10 10,30 0,30 | 20,0 30,0 30,30 20,30 20,10"},
      {"break U 4", 'B', kU, {4}, "0,0 10,0 10,10 10,30 0,30 | 10,0 30,0 30,30 20,30 20,10 10,10"},
      {"break U 7", 'B', kU, {7}, "0,0 20,0 20,10 10,10 10,30 0,30 | 20,0 30,0 30,30 20,30 20,10"},
      {"break U 2", 'B', kU, {2}, kU},
      {"break U -1", 'B', kU, {-1}, kU},
      {"break U INT_MIN", 'B', kU, {INT_MIN}, kU},
      {"break U 8", 'B', kU, {8}, kU},
      {"break empty", 'B', "", {3}, ""},
      {"divide strip 4", 'D', kStrip, {4}, "0,0 10,2 10,8 0,10 | 10,2 20,0 20,10 10,8 | 20,0 30,2 30,8 20,10 | 30,2 40,0 40,10 30,8 | 40,0 50,2 50,8 40,10 " "| 50,2 60,0 60,10 50,8"},
      {"divide strip 6", 'D', kStrip, {6}, "0,0 10,2 20,0 20,10 10,8 0,10 | 20,0 30,2 40,0 40,10 30,8 20,10 | 40,0 50,2 60,0 60,10 50,8 40,10"},
      {"divide strip 8", 'D', kStrip, {8}, "0,0 10,2 20,0 30,2 30,8 20,10 10,8 0,10 | 30,2 40,0 50,2 60,0 60,10 50,8 40,10 30,8"},
      {"divide arms 5", 'D', kArms, {5}, "30,10 30,40 20,40 20,10 | 10,10 10,40 0,40 0,10 | 0,0 20,0 20,10 10,10 0,10 | 20,0 30,0 30,10 20,10"},
      {"divide arms 3", 'D', kArms, {3}, kArms},
      {"divide arms 4: every large piece kept", 'D', kArms, {4}, "0,0 20,0 20,10 10,10 0,10 | 20,0 30,0 30,10 20,10 | 30,10 30,40 20,40 20,10 | 10,10 10,40 0,40 0,10"},
      {"divide triangle 0", 'D', "0,0 10,0 5,10", {0}, "0,0 5,0 5,10 | 5,0 10,0 5,10"},
      {"divide square 100", 'D', sq.c_str(), {100}, sq.c_str()},
      {"divide empty", 'D', "", {4}, ""},
  };
  // clang-format on
  PolySplitter s;
  for (const Case& c : cases) {
    const QPolygon poly = P(c.polygon);
    const Pieces got = c.op == 'S'   ? s.Split(poly, QLine(c.arg[0], c.arg[1], c.arg[2], c.arg[3]))
                       : c.op == 'B' ? s.Break(poly, c.arg[0])
                                     : s.Divide(poly, c.arg[0]);
    EXPECT_EQ(str(got), c.pieces) << c.label;
  }
}

// The elements after a split: sides, line order, distances, flags and bridge copies; a copy owns its elements;
// tampered rings raise instead of looping. Catches wrong bookkeeping, shallow copies and a missing ring check.
TEST(PolySplitter, StateCopiesAndBrokenRings) {
  PolySplitter s;
  s.Split(P("0,0 10,0 10,10 0,10"), QLine(5, -5, 5, 15));
  ASSERT_EQ(s.SplitPoly.size(), 8u);  // four vertices, two crossing points, two bridge copies
  ASSERT_EQ(s.OnLineEdges.size(), 2u);
  EXPECT_TRUE(s.OnLineEdges[0]->Point == QPoint(5, 0) && s.OnLineEdges[1]->Point == QPoint(5, 10));
  EXPECT_TRUE(s.OnLineEdges[0]->LineDistance == 0.0f && s.OnLineEdges[1]->LineDistance == 10.0f);
  EXPECT_TRUE(s.OnLineEdges[0]->IsSource && s.OnLineEdges[1]->IsTarget);
  std::string sides;
  for (const auto& e : s.SplitPoly) {
    sides += "OLR"[static_cast<int>(e.Side)];
    EXPECT_TRUE(e.Collected && e.Next->Prev == &e);
  }
  EXPECT_EQ(sides, "LORROLOO");
  PolySplitter u;
  u.Split(P(kU), QLine(-5, 20, 35, 20));
  PolySplitter copy(u);
  for (const auto& e : copy.SplitPoly)
    for (const auto& o : u.SplitPoly) ASSERT_NE(e.Next, &o);
  EXPECT_NO_THROW(copy.VerifyCycles());
  u = copy;
  EXPECT_EQ(u.Split(P(kU), QLine(-5, 20, 35, 20)).size(), 3u);

  s.SplitPoly.front().Next = &s.SplitPoly.front();  // two elements now lead to it
  EXPECT_TRUE(qortest::startsWith(qortest::raisedText([&] { s.VerifyCycles(); }),
                                  "count < SplitPoly.size() [file qor_polysplit line "));
  for (auto& e : s.SplitPoly) e.Collected = false;
  EXPECT_NE(qortest::raisedText([&] { s.CollectPolys(); }).find("count < SplitPoly.size()"), std::string::npos);
  PolySplitter t;
  t.Split(P("0,0 10,0 10,10 0,10"), QLine(5, -5, 5, 15));
  t.OnLineEdges[0]->Side = PolySplitter::LineSide::Left;
  EXPECT_NE(qortest::raisedText([&] { t.SplitPolygon(); }).find("curSide == LineSide::On"), std::string::npos);
  EXPECT_NE(qortest::raisedText([&] { t.CreateBridge(&t.SplitPoly.front(), nullptr); }), qortest::kNothingRaised);
}

// Generated polygons (integer combs and zigzags, rounded stars) cut by lines anywhere, through vertices, along edges
// and axis-parallel, then divided: pieces keep the area (up to truncated crossing points), lie on one side of the
// line, lose no vertex, and are simple where no truncation occurs (axis-parallel cuts of combs). Catches lost or
// misassigned pieces, pieces joined across the line, and bridges that cross.
TEST(PolySplitter, PropertiesOverGeneratedPolygons) {
  for (unsigned seed = 1; seed <= 150; ++seed) {
    std::mt19937_64 rng(seed);
    const int kind = static_cast<int>(seed % 3);
    polygen::Polygon gp = kind == 0   ? polygen::comb(rng, polygen::uniformInt(rng, 8, 60))
                          : kind == 1 ? polygen::zigzag(rng, polygen::uniformInt(rng, 6, 40))
                                      : polygen::star(rng, polygen::uniformInt(rng, 3, 40));
    QPolygon poly;
    for (const auto& q : gp.contours[0])
      poly.append(QPoint(int(std::lround(q.x * (kind == 2 ? 10 : 1))), int(std::lround(q.y * (kind == 2 ? 10 : 1)))));
    SCOPED_TRACE("seed " + std::to_string(seed) + " polygon " + str({poly}));
    PolySplitter s;
    const QRect box = poly.boundingRect();
    for (int rep = 0; rep < 12; ++rep) {
      const QPoint a = poly[polygen::uniformInt(rng, 0, poly.size() - 1)];
      const QPoint b = rep % 3 == 0 ? poly[polygen::uniformInt(rng, 0, poly.size() - 1)]
                                    : QPoint(polygen::uniformInt(rng, box.left() - 9, box.right() + 9),
                                             polygen::uniformInt(rng, box.top() - 9, box.bottom() + 9));
      const bool axis = rep % 2 == 1;
      const QLine line = axis ? (rep % 4 == 1 ? QLine(a.x(), box.top() - 5, a.x(), box.bottom() + 5)
                                              : QLine(box.right() + 5, a.y(), box.left() - 5, a.y()))
                              : QLine(a, a == b ? a + QPoint(1, 3) : b);
      SCOPED_TRACE("line " + std::to_string(line.x1()) + "," + std::to_string(line.y1()) + " " +
                   std::to_string(line.x2()) + "," + std::to_string(line.y2()));
      const Pieces pieces = s.Split(poly, line);
      EXPECT_NO_THROW(s.VerifyCycles());
      double slack = 0;
      for (int i = 0; i < poly.size(); ++i) {
        const int64_t u = side(poly[i], line), v = side(poly[(i + 1) % poly.size()], line);
        if ((u < 0 && v > 0) || (u > 0 && v < 0)) slack += 1.5 * len(poly[i], poly[(i + 1) % poly.size()]);
      }
      EXPECT_LE(std::fabs(double(area2(pieces) - area2(poly))), slack);
      size_t total = 0;
      const double tolerance = 1.5 * std::hypot(double(line.dx()), double(line.dy()));
      for (const QPolygon& p : pieces) {
        total += p.size();
        int64_t lo = 0, hi = 0;
        for (const QPoint& v : p) lo = std::min(lo, side(v, line)), hi = std::max(hi, side(v, line));
        EXPECT_TRUE(lo >= -tolerance || hi <= tolerance) << "piece on both sides: " << str({p});
        if (kind != 0 || !axis) continue;
        std::vector<double> pts;
        for (const QPoint& v : p) pts.push_back(v.x()), pts.push_back(v.y());
        const qorInt32 n = p.size();
        EXPECT_EQ(qorCheckPolygon(1, &n, reinterpret_cast<const double(*)[2]>(pts.data())), "") << str({p});
      }
      EXPECT_EQ(total, s.SplitPoly.size()) << "a ring element is in no piece or in two";
      for (const QPoint& v : poly)
        EXPECT_TRUE(std::any_of(pieces.begin(), pieces.end(), [&](const QPolygon& p) { return p.contains(v); }));
    }
    for (int pieceSize : {0, 3, 4, 5, 8, 16}) {
      const Pieces pieces = s.Divide(poly, pieceSize);
      double slack = 0;
      for (const QPolygon& p : pieces)
        for (int i = 0; i < p.size(); ++i) slack += 3 * len(p[i], p[(i + 1) % p.size()]);
      EXPECT_LE(std::fabs(double(area2(pieces) - area2(poly))), slack) << "pieceSize " << pieceSize;
    }
    if (::testing::Test::HasFailure()) return;
  }
}

// Extreme coordinates and a self-intersecting outline that once made Divide loop: every call returns, with
// defined arithmetic (UBSan checks it). Catches overflow in the line ends, extents and crossing conversion.
TEST(PolySplitter, ExtremeAndStalledInputsReturn) {
  PolySplitter s;
  const QPolygon big(QVector<QPoint>{{INT_MIN, INT_MIN}, {INT_MAX, INT_MIN}, {INT_MAX, INT_MAX}, {INT_MIN, INT_MAX}});
  for (int rank = -1; rank < 5; ++rank) EXPECT_GE(s.Break(big, rank).size(), 1u);
  EXPECT_FALSE(s.Divide(big, 0).empty() || s.Divide(big, 3).empty());
  const QPolygon diamond(QVector<QPoint>{{0, INT_MIN}, {INT_MAX, 0}, {0, INT_MAX}, {INT_MIN, 0}});
  for (const QLine& line :
       {QLine(INT_MIN, INT_MIN, INT_MAX, INT_MAX), QLine(INT_MAX, 1, INT_MIN, -1), QLine(0, 0, 1, 0)}) {
    const std::string text = qortest::raisedText([&] { s.Split(diamond, line); });
    EXPECT_TRUE(text == qortest::kNothingRaised || text.find("res != QLineF::NoIntersection") != std::string::npos);
  }
  EXPECT_FALSE(s.Divide(diamond, 0).empty() || s.Divide(diamond, 2).empty());
  const QPolygon knot = P("-2,1 -3,1 -5,-3 -5,-1 6,2 -3,5 -1,0 3,5");
  const Pieces pieces = s.Divide(knot, 0);
  EXPECT_LE(pieces.size(), size_t(4 * knot.size() + 65));
  EXPECT_NEAR(double(area2(pieces)), double(area2(knot)), 40.0);  // truncated crossings shift it a little
}
