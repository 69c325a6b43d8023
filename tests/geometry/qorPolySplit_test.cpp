// PolySplitter: exact pieces for known shapes, and invariants (area kept,
// every piece on one side of the line, rings closed) over generated polygons
// and lines.
#include <gtest/gtest.h>
#include <qor/qor_exception.h>
#include <qor/qor_polysplit.h>

#include <QLine>
#include <QPoint>
#include <QPolygon>
#include <climits>
#include <cmath>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "polysplit_test_util.h"
#include "qor_test_support.h"

// Readable polygons in failure messages.
void PrintTo(const QPolygon& poly, std::ostream* os) {
  *os << "{";
  for (int i = 0; i < poly.size(); ++i) *os << (i ? ", " : "") << "(" << poly[i].x() << "," << poly[i].y() << ")";
  *os << "}";
}

namespace {

using Pieces = std::vector<QPolygon>;
using Side = PolySplitter::LineSide;

QPolygon P(std::initializer_list<QPoint> points) {
  QPolygon poly;
  for (const QPoint& p : points) poly.append(p);
  return poly;
}

using polysplittest::area2;

// ---------------------------------------------------------------------------
// Exact results for known shapes.

const QPolygon kSquare = P({{0, 0}, {10, 0}, {10, 10}, {0, 10}});
const QPolygon kU = P({{0, 0}, {30, 0}, {30, 30}, {20, 30}, {20, 10}, {10, 10}, {10, 30}, {0, 30}});
const QPolygon kStrip = P({{0, 0},
                           {10, 2},
                           {20, 0},
                           {30, 2},
                           {40, 0},
                           {50, 2},
                           {60, 0},
                           {60, 10},
                           {50, 8},
                           {40, 10},
                           {30, 8},
                           {20, 10},
                           {10, 8},
                           {0, 10}});
const QPolygon kArms = P({{0, 0}, {30, 0}, {30, 40}, {20, 40}, {20, 10}, {10, 10}, {10, 40}, {0, 40}});
const QPolygon kTriangle = P({{0, 0}, {10, 0}, {5, 10}});

// Catches a wrong pairing or a wrong order of the pieces on the simplest cut.
TEST(PolySplitter, SplitsSquareIntoTwoHalves) {
  PolySplitter s;
  const Pieces expected{P({{0, 0}, {5, 0}, {5, 10}, {0, 10}}), P({{5, 0}, {10, 0}, {10, 10}, {5, 10}})};
  EXPECT_EQ(s.Split(kSquare, QLine(5, -5, 5, 15)), expected);
  // The direction of the line changes neither the pieces nor their order.
  EXPECT_EQ(s.Split(kSquare, QLine(5, 15, 5, -5)), expected);
}

// Catches a splitter that checks the orientation or fixes it up: the other
// order only gets the crossing points.
TEST(PolySplitter, ClockwiseSquareKeepsOnePieceWithCrossings) {
  PolySplitter s;
  const QPolygon cw = P({{0, 10}, {10, 10}, {10, 0}, {0, 0}});
  const Pieces expected{P({{0, 10}, {5, 10}, {10, 10}, {10, 0}, {5, 0}, {0, 0}})};
  EXPECT_EQ(s.Split(cw, QLine(5, -5, 5, 15)), expected);
}

// Catches pieces made where the line does not cut through the interior.
TEST(PolySplitter, LinesThatDoNotCutGiveTheInput) {
  PolySplitter s;
  EXPECT_EQ(s.Split(kSquare, QLine(20, -5, 20, 15)), Pieces{kSquare});  // misses
  EXPECT_EQ(s.Split(kSquare, QLine(0, 0, 10, 0)), Pieces{kSquare});     // along the bottom edge
  EXPECT_EQ(s.Split(kSquare, QLine(10, 0, 0, 0)), Pieces{kSquare});     // same, reversed
  EXPECT_EQ(s.Split(kSquare, QLine(0, 10, 10, 10)), Pieces{kSquare});   // along the top edge
  EXPECT_EQ(s.Split(kSquare, QLine(-5, 5, 5, -5)), Pieces{kSquare});    // touches (0,0) only
  EXPECT_EQ(s.Split(kSquare, QLine(3, 3, 3, 3)), Pieces{kSquare});      // degenerate: all On
}

// Catches inserted points on a cut through two vertices.
TEST(PolySplitter, DiagonalThroughTwoVertices) {
  PolySplitter s;
  const Pieces expected{P({{0, 0}, {10, 0}, {10, 10}}), P({{10, 10}, {0, 10}, {0, 0}})};
  EXPECT_EQ(s.Split(kSquare, QLine(0, 0, 10, 10)), expected);
}

// Catches a concave cut that merges the two arms or loses one.
TEST(PolySplitter, UShapeGivesThreePieces) {
  PolySplitter s;
  const Pieces expected{P({{0, 0}, {30, 0}, {30, 20}, {20, 20}, {20, 10}, {10, 10}, {10, 20}, {0, 20}}),
                        P({{30, 20}, {30, 30}, {20, 30}, {20, 20}}), P({{10, 20}, {10, 30}, {0, 30}, {0, 20}})};
  EXPECT_EQ(s.Split(kU, QLine(-5, 20, 35, 20)), expected);
  EXPECT_EQ(s.Split(kU, QLine(35, 20, -5, 20)), expected);
}

// Catches a wrong carried source at a vertex where the line touches from
// both sides.
TEST(PolySplitter, CutThroughInnerCorner) {
  PolySplitter s;
  const QPolygon shape = P({{0, 0}, {20, 0}, {20, 20}, {10, 10}, {0, 20}});
  const Pieces expected{P({{0, 0}, {20, 0}, {20, 10}, {10, 10}, {0, 10}}), P({{20, 10}, {20, 20}, {10, 10}}),
                        P({{10, 10}, {0, 20}, {0, 10}})};
  EXPECT_EQ(s.Split(shape, QLine(-5, 10, 25, 10)), expected);
}

// Catches rounding or flooring of crossing points instead of truncation
// toward zero.
TEST(PolySplitter, CrossingPointsTruncateTowardZero) {
  PolySplitter s;
  // Crossings at (7.5, 5) and (2.5, 5).
  const Pieces positive{P({{0, 0}, {10, 0}, {7, 5}, {2, 5}}), P({{7, 5}, {5, 10}, {2, 5}})};
  EXPECT_EQ(s.Split(P({{0, 0}, {10, 0}, {5, 10}}), QLine(-5, 5, 15, 5)), positive);
  // Crossings at (-2.5, 5) and (-7.5, 5).
  const Pieces negative{P({{-10, 0}, {0, 0}, {-2, 5}, {-7, 5}}), P({{-2, 5}, {-5, 10}, {-7, 5}})};
  EXPECT_EQ(s.Split(P({{-10, 0}, {0, 0}, {-5, 10}}), QLine(-15, 5, 5, 5)), negative);
}

// Catches a narrow tip left joined to the body: both crossings truncate to
// (-418, 0), and only their exact order along the line pairs them.
TEST(PolySplitter, NarrowTipCutOffByTheLine) {
  PolySplitter s;
  const QPolygon tip = P({{-72, -10}, {100, -10}, {100, 10}, {-72, 10}, {-436, 0}});
  const Pieces expected{P({{-72, -10}, {100, -10}, {100, 10}, {-72, 10}, {-418, 0}, {-418, 0}}),
                        P({{-418, 0}, {-436, 0}, {-418, 0}})};
  EXPECT_EQ(s.Split(tip, QLine(-418, -437, -418, 437)), expected);
}

// Catches out-of-bounds reads on tiny inputs.
TEST(PolySplitter, EmptyAndSingleVertex) {
  PolySplitter s;
  EXPECT_TRUE(s.Split(QPolygon(), QLine(0, 0, 1, 1)).empty());
  EXPECT_TRUE(s.SplitPoly.empty());
  EXPECT_EQ(s.Split(P({{3, 4}}), QLine(0, 0, 10, 10)), Pieces{P({{3, 4}})});
  EXPECT_EQ(s.Split(P({{3, 3}}), QLine(0, 0, 10, 10)), Pieces{P({{3, 3}})});
  // A two-vertex outline has no area; whichever way its equal crossings
  // sort, its pieces have none either and keep every vertex.
  const Pieces flat = s.Split(P({{0, 0}, {10, 0}}), QLine(5, -5, 5, 5));
  EXPECT_FALSE(flat.empty());
  EXPECT_EQ(area2(flat), 0);
}

// Catches state that leaks from one call into the next.
TEST(PolySplitter, ReusedObjectMatchesFreshObject) {
  PolySplitter reused;
  reused.Split(kU, QLine(-5, 20, 35, 20));
  PolySplitter fresh;
  EXPECT_EQ(reused.Split(kSquare, QLine(5, -5, 5, 15)), fresh.Split(kSquare, QLine(5, -5, 5, 15)));
  EXPECT_EQ(reused.SplitPoly.size(), fresh.SplitPoly.size());
  EXPECT_EQ(reused.OnLineEdges.size(), fresh.OnLineEdges.size());
}

// Catches wrong bookkeeping in the elements: sides, line order, distances,
// flags and the bridge copies.
TEST(PolySplitter, KeepsItsStateAfterSplit) {
  PolySplitter s;
  s.Split(kSquare, QLine(5, -5, 5, 15));
  // Four vertices, two crossing points, two bridge copies.
  ASSERT_EQ(s.SplitPoly.size(), 8u);
  ASSERT_EQ(s.OnLineEdges.size(), 2u);
  EXPECT_EQ(s.OnLineEdges[0]->Point, QPoint(5, 0));
  EXPECT_EQ(s.OnLineEdges[1]->Point, QPoint(5, 10));
  EXPECT_FLOAT_EQ(s.OnLineEdges[0]->LineDistance, 0.0f);
  EXPECT_FLOAT_EQ(s.OnLineEdges[1]->LineDistance, 10.0f);
  EXPECT_TRUE(s.OnLineEdges[0]->IsSource);
  EXPECT_TRUE(s.OnLineEdges[1]->IsTarget);
  std::vector<Side> sides;
  for (const auto& e : s.SplitPoly) {
    sides.push_back(e.Side);
    EXPECT_TRUE(e.Collected);
    EXPECT_EQ(e.Next->Prev, &e);
  }
  const std::vector<Side> expected{Side::Left, Side::On,   Side::Right, Side::Right,
                                   Side::On,   Side::Left, Side::On,    Side::On};
  EXPECT_EQ(sides, expected);
  EXPECT_NO_THROW(s.VerifyCycles());
}

// Catches a copy whose links still point into the original.
TEST(PolySplitter, CopyOwnsItsElements) {
  PolySplitter s;
  s.Split(kU, QLine(-5, 20, 35, 20));
  PolySplitter copy(s);
  ASSERT_EQ(copy.SplitPoly.size(), s.SplitPoly.size());
  for (const auto& e : copy.SplitPoly) {
    for (const auto& o : s.SplitPoly) ASSERT_NE(e.Next, &o);
  }
  for (PolySplitter::PolyEdge* e : copy.OnLineEdges) {
    bool inCopy = false;
    for (auto& c : copy.SplitPoly) inCopy = inCopy || (&c == e);
    EXPECT_TRUE(inCopy);
  }
  EXPECT_NO_THROW(copy.VerifyCycles());
  s = copy;
  EXPECT_NO_THROW(s.VerifyCycles());
  EXPECT_EQ(s.Split(kU, QLine(-5, 20, 35, 20)).size(), 3u);
}

using qortest::raisedText;

// Catches the consistency check missing a broken ring, or the steps trusting
// tampered state.
TEST(PolySplitter, RaisesOnBrokenRings) {
  PolySplitter s;
  s.Split(kSquare, QLine(5, -5, 5, 15));
  s.SplitPoly.front().Next = &s.SplitPoly.front();  // two elements now lead to it
  EXPECT_NE(raisedText([&] { s.VerifyCycles(); }).find("count < SplitPoly.size() [file qor_polysplit line "),
            std::string::npos);
  s.SplitPoly.front().Next = nullptr;
  EXPECT_NE(raisedText([&] { s.VerifyCycles(); }).find("count < SplitPoly.size()"), std::string::npos);
  for (auto& e : s.SplitPoly) e.Collected = false;
  EXPECT_NE(raisedText([&] { s.CollectPolys(); }).find("count < SplitPoly.size()"), std::string::npos);

  PolySplitter t;
  t.Split(kSquare, QLine(5, -5, 5, 15));
  t.OnLineEdges[0]->Side = Side::Left;
  EXPECT_NE(raisedText([&] { t.SplitPolygon(); }).find("curSide == LineSide::On"), std::string::npos);
  PolySplitter::PolyEdge* first = &t.SplitPoly.front();
  EXPECT_NE(raisedText([&] { t.CreateBridge(first, first); }), qortest::kNothingRaised);
  EXPECT_NE(raisedText([&] { t.CreateBridge(first, nullptr); }), qortest::kNothingRaised);
}

// ---------------------------------------------------------------------------
// Break and Divide.

// Catches a wrong cut axis or a cut that is not on the median.
TEST(PolySplitter, BreakAtTheMedian) {
  PolySplitter s;
  EXPECT_EQ(s.Break(kSquare, 0), Pieces{kSquare});
  const QPolygon tall = P({{0, 0}, {10, 0}, {10, 40}, {0, 40}});
  EXPECT_EQ(s.Break(tall, 0), Pieces{tall});
  const Pieces triangle{P({{0, 0}, {5, 0}, {5, 10}}), P({{5, 0}, {10, 0}, {5, 10}})};
  EXPECT_EQ(s.Break(kTriangle, 0), triangle);
}

// Catches the wrong coordinate for a rank.
TEST(PolySplitter, BreakByRank) {
  PolySplitter s;
  const Pieces rank0{P({{0, 0}, {20, 0}, {20, 10}, {10, 10}, {10, 30}, {0, 30}}),
                     P({{20, 0}, {30, 0}, {30, 30}, {20, 30}, {20, 10}})};
  EXPECT_EQ(s.Break(kU, 0), rank0);
  const Pieces rank4{P({{0, 0}, {10, 0}, {10, 10}, {10, 30}, {0, 30}}),
                     P({{10, 0}, {30, 0}, {30, 30}, {20, 30}, {20, 10}, {10, 10}})};
  EXPECT_EQ(s.Break(kU, 4), rank4);
  EXPECT_EQ(s.Break(kU, 2), Pieces{kU});
  // Ranks between runs of equal values cut at the same place.
  EXPECT_EQ(s.Break(kU, 5), rank4);
  EXPECT_EQ(s.Break(kU, 6), rank0);
  EXPECT_EQ(s.Break(kU, 7), rank0);
}

// Catches out-of-bounds reads for ranks that name no cut.
TEST(PolySplitter, BreakWithoutACutReturnsTheInput) {
  PolySplitter s;
  EXPECT_EQ(s.Break(kU, -1), Pieces{kU});
  EXPECT_EQ(s.Break(kU, INT_MIN), Pieces{kU});
  EXPECT_EQ(s.Break(kU, 8), Pieces{kU});
  EXPECT_EQ(s.Break(kU, INT_MAX), Pieces{kU});
  EXPECT_EQ(s.Break(kU, 1), Pieces{kU});  // coords[1] is the smallest value
  EXPECT_TRUE(s.Break(QPolygon(), 0).empty());
  EXPECT_TRUE(s.Break(QPolygon(), 3).empty());
  EXPECT_EQ(s.Break(P({{4, 4}}), 0), Pieces{P({{4, 4}})});
}

// Catches pieces lost or taken in the wrong order while peeling a strip.
TEST(PolySplitter, DivideStrip) {
  PolySplitter s;
  const Pieces by4{P({{0, 0}, {10, 2}, {10, 8}, {0, 10}}),   P({{10, 2}, {20, 0}, {20, 10}, {10, 8}}),
                   P({{20, 0}, {30, 2}, {30, 8}, {20, 10}}), P({{30, 2}, {40, 0}, {40, 10}, {30, 8}}),
                   P({{40, 0}, {50, 2}, {50, 8}, {40, 10}}), P({{50, 2}, {60, 0}, {60, 10}, {50, 8}})};
  EXPECT_EQ(s.Divide(kStrip, 4), by4);
  const Pieces by6{P({{0, 0}, {10, 2}, {20, 0}, {20, 10}, {10, 8}, {0, 10}}),
                   P({{20, 0}, {30, 2}, {40, 0}, {40, 10}, {30, 8}, {20, 10}}),
                   P({{40, 0}, {50, 2}, {60, 0}, {60, 10}, {50, 8}, {40, 10}})};
  EXPECT_EQ(s.Divide(kStrip, 6), by6);
  const Pieces by8{P({{0, 0}, {10, 2}, {20, 0}, {30, 2}, {30, 8}, {20, 10}, {10, 8}, {0, 10}}),
                   P({{30, 2}, {40, 0}, {50, 2}, {60, 0}, {60, 10}, {50, 8}, {40, 10}, {30, 8}})};
  EXPECT_EQ(s.Divide(kStrip, 8), by8);
}

// Catches a break into several pieces that keeps the wrong ones.
TEST(PolySplitter, DivideArms) {
  PolySplitter s;
  const Pieces by5{P({{30, 10}, {30, 40}, {20, 40}, {20, 10}}), P({{10, 10}, {10, 40}, {0, 40}, {0, 10}}),
                   P({{0, 0}, {20, 0}, {20, 10}, {10, 10}, {0, 10}}), P({{20, 0}, {30, 0}, {30, 10}, {20, 10}})};
  EXPECT_EQ(s.Divide(kArms, 5), by5);
  EXPECT_EQ(s.Divide(kArms, 3), Pieces{kArms});
  const Pieces by0{P({{0, 0}, {5, 0}, {5, 10}}), P({{5, 0}, {10, 0}, {5, 10}})};
  EXPECT_EQ(s.Divide(kTriangle, 0), by0);
}

// Catches large pieces dropped when one break yields several of them: with 4
// the arms (4 vertices) and the base all reach the threshold.
TEST(PolySplitter, DivideKeepsEveryLargePiece) {
  PolySplitter s;
  const Pieces pieces = s.Divide(kArms, 4);
  EXPECT_EQ(area2(pieces), area2(kArms));
  EXPECT_EQ(pieces.size(), 4u);
  for (const QPolygon& p : pieces) EXPECT_LE(p.size(), 5);
}

// Catches out-of-bounds reads and lost input on small or empty inputs.
TEST(PolySplitter, DivideSmallInputs) {
  PolySplitter s;
  EXPECT_TRUE(s.Divide(QPolygon(), 0).empty());
  EXPECT_TRUE(s.Divide(QPolygon(), 4).empty());
  EXPECT_EQ(s.Divide(kSquare, 4), Pieces{kSquare});
  EXPECT_EQ(s.Divide(kSquare, 100), Pieces{kSquare});
  EXPECT_EQ(s.Divide(kSquare, -3), Pieces{kSquare});
  EXPECT_EQ(s.Divide(P({{1, 1}}), 0), Pieces{P({{1, 1}})});
}

// Catches an endless Divide: this self-intersecting outline breaks with
// pieceSize 0 into the same remainder and a flat piece for ever.
TEST(PolySplitter, DivideStopsOnAStalledRemainder) {
  PolySplitter s;
  const QPolygon knot = P({{-2, 1}, {-3, 1}, {-5, -3}, {-5, -1}, {6, 2}, {-3, 5}, {-1, 0}, {3, 5}});
  const Pieces pieces = s.Divide(knot, 0);
  EXPECT_LE(pieces.size(), size_t(4 * knot.size() + 65));
  int64_t total = 0;
  for (const QPolygon& p : pieces) total += area2(p);
  // Truncated crossing points may shift the total by a little.
  EXPECT_NEAR(double(total), double(area2(knot)), 40.0);
}

// Catches undefined arithmetic at the ends of the int range (line ends 5
// beyond the polygon, extents, crossing conversion).
TEST(PolySplitter, ExtremeCoordinatesStayDefined) {
  PolySplitter s;
  const QPolygon big = P({{INT_MIN, INT_MIN}, {INT_MAX, INT_MIN}, {INT_MAX, INT_MAX}, {INT_MIN, INT_MAX}});
  for (int rank = -1; rank < 5; ++rank) {
    const Pieces pieces = s.Break(big, rank);
    EXPECT_GE(pieces.size(), 1u);
  }
  EXPECT_FALSE(s.Divide(big, 0).empty());
  EXPECT_FALSE(s.Divide(big, 3).empty());
  const QPolygon diamond = P({{0, INT_MIN}, {INT_MAX, 0}, {0, INT_MAX}, {INT_MIN, 0}});
  for (const QLine& line : {QLine(INT_MIN, INT_MIN, INT_MAX, INT_MAX), QLine(INT_MAX, 1, INT_MIN, -1),
                            QLine(0, 0, 1, 0), QLine(-7, INT_MAX, 3, INT_MIN)}) {
    try {
      const Pieces pieces = s.Split(diamond, line);
      for (const QPolygon& p : pieces) EXPECT_FALSE(p.isEmpty());
    } catch (qorException* e) {
      // Allowed: an edge that rounds to parallel at this size.
      EXPECT_NE(std::string(e->what()).find("res != QLineF::NoIntersection"), std::string::npos);
      delete e;
    }
  }
  EXPECT_FALSE(s.Divide(diamond, 0).empty());
  EXPECT_FALSE(s.Divide(diamond, 2).empty());
}

}  // namespace
