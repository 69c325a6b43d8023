// The trapezoidal map's internals: comparisons, the map, point location, limits, phases, the inside test, steps.
#include <gtest/gtest.h>
#include <qor/qor_exception.h>
#include <qor/qor_traptree.h>
#include <qor/qor_triangulate.h>

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "qor_test_support.h"

namespace {

point_t pt(double x, double y) { return point_t{x, y}; }

// seg[1] runs from (0, 0) up to (1, 2); a contour of three segments.
void oneSegmentMap() {
  seg[1].start = pt(0, 0);
  seg[1].end = pt(1, 2);
  seg[1].next = 2;
  seg[1].prev = 3;
  init_query_structure(1);
}

}  // namespace

// The tolerance applies to y only; x breaks ties exactly (with a tolerance in _max alone).
TEST(traptree, ComparisonsUseToleranceOnHeightOnly) {
  point_t a = pt(2, 1 + 5e-8), b = pt(1, 1), c = pt(1, 1 - 5e-8), d = pt(1, 1.001), e = pt(1 + 5e-8, 1), out;
  // clang-format off
  const std::vector<std::pair<qorInt32, qorInt32>> rows = {
      {_greater_than(&a, &b), 1}, {_greater_than(&b, &c), 0}, {_greater_than_equal_to(&b, &c), 1},
      {_greater_than(&d, &a), 1}, {_less_than(&b, &a), 1},    {_less_than(&c, &b), 0},
      {_equal_to(&b, &c), 1},     {_equal_to(&a, &b), 0},     {_max(&out, &e, &b), 0},
      {out.x == b.x, 1},          {(_min(&out, &b, &e), out.x == b.x), 1},
      {(_min(&out, &e, &b), out.x == b.x), 1}, {(_max(&out, &d, &b), out.y == d.y), 1}};
  // clang-format on
  for (size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(rows[i].first, rows[i].second) << "row " << i;
}

// The map of one segment exactly as laid out (nodes 1..7, trapezoids 1..4), and point location in it with the tie
// rules at a Y node and an X node. Catches a different issue order, missing links and swapped children.
TEST(traptree, InitialMapAndLocation) {
  oneSegmentMap();
  // clang-format off
  const std::vector<std::vector<qorInt32>> nodes = {  // type, left, right, parent, trap, seg
      {NODE_Y, 3, 2, 0, 0, 0}, {NODE_SINK, 0, 0, 1, 4, 0}, {NODE_Y, 4, 5, 1, 0, 0}, {NODE_SINK, 0, 0, 3, 3, 0},
      {NODE_X, 6, 7, 3, 0, 1}, {NODE_SINK, 0, 0, 5, 1, 0}, {NODE_SINK, 0, 0, 5, 2, 0}};
  const std::vector<std::vector<qorInt32>> traps = {  // left, right, up0, up1, down0, down1, sink, state
      {-1, 1, 4, 0, 3, 0, 6, TRAP_VALID}, {1, -1, 4, 0, 3, 0, 7, TRAP_VALID},
      {-1, -1, 1, 2, 0, 0, 4, TRAP_VALID}, {-1, -1, 0, 0, 1, 2, 2, TRAP_VALID}};
  // clang-format on
  for (size_t i = 0; i < nodes.size(); ++i) {
    const node_t& q = qs[i + 1];
    EXPECT_EQ((std::vector<qorInt32>{q.type, q.left, q.right, q.parent, q.trap_index, q.seg_index}), nodes[i]) << i;
  }
  for (size_t i = 0; i < traps.size(); ++i) {
    const trap_t& t = tr[i + 1];
    EXPECT_EQ((std::vector<qorInt32>{t.left_seg, t.right_seg, t.up0, t.up1, t.down0, t.down1, t.sink, t.state}),
              traps[i])
        << "trapezoid " << i + 1;
  }
  EXPECT_TRUE(qs[1].y_key.y == 2 && qs[3].y_key.y == 0 && tr[1].top.y == 2 && tr[1].bottom.y == 0);
  EXPECT_TRUE(tr[3].bottom.y == -INFINITY && tr[4].top.x == INFINITY && tr[5].state == 0 && seg[1].in_tree == 1);
  point_t above = pt(0, 5), below = pt(0, -5), left = pt(-1, 1), right = pt(3, 1), level = pt(1.5, 2 + 5e-8),
          key = pt(1, 2), start = pt(0, 0), west = pt(-3, 0), east = pt(3, 0);
  struct Row {
    point_t *p, *other;
    qorInt32 root, trap;
  };
  const std::vector<Row> located = {{&above, &below, 1, 4}, {&below, &above, 1, 3}, {&left, &right, 1, 1},
                                    {&right, &left, 1, 2},  {&level, &below, 1, 4}, {&key, &above, 1, 4},
                                    {&start, &west, 5, 1},  {&start, &east, 5, 2}};
  for (size_t i = 0; i < located.size(); ++i)
    EXPECT_EQ(locate_endpoint(located[i].p, located[i].other, located[i].root), located[i].trap) << "row " << i;
  EXPECT_NE(locate_endpoint(&key, &below, 1), 4);  // on the key: below unless the other endpoint is above
  point_t a = pt(0, 1), b = pt(1, 1), c = pt(0.5, 2), d = pt(1, 2), e = pt(-1e-12, 0), on = pt(0.25, 0.5);
  const std::vector<std::pair<point_t*, qorInt32>> leftOf = {{&a, 1}, {&b, 0}, {&c, 1}, {&d, 0}, {&e, 1}, {&on, 0}};
  for (size_t i = 0; i < leftOf.size(); ++i) EXPECT_EQ(is_left_of(1, leftOf[i].first), leftOf[i].second) << i;
  seg[2].in_tree = 0;
  seg[3].in_tree = 1;
  EXPECT_EQ(inserted(1, FIRST_POINT), 1);
  EXPECT_EQ(inserted(1, LAST_POINT), 0);
  seg[3].in_tree = 0;
  EXPECT_EQ(newnode(), 8);
  EXPECT_EQ(newtrap(), 5);
  EXPECT_TRUE(tr[5].left_seg == -1 && tr[5].state == TRAP_VALID);
  EXPECT_NE(qortest::raisedText([&] { locate_endpoint(&start, &start, 9); }).find("locate_endpoint: Internal error"),
            std::string::npos);  // node 9 was issued by nobody: type 0
}

// Exactly 65535 nodes and 32767 trapezoids can be issued; the next raises, and the next map starts clean.
TEST(traptree, TablesOverflowWithException) {
  oneSegmentMap();
  int nodes = 7, traps = 4;
  const std::string nodeText = qortest::raisedText([&] {
    for (;; ++nodes) newnode();
  });
  const std::string trapText = qortest::raisedText([&] {
    for (;; ++traps) newtrap();
  });
  EXPECT_TRUE(qortest::startsWith(nodeText, "newnode: Query-table overflow [file qor_traptree line ")) << nodeText;
  EXPECT_TRUE(qortest::startsWith(trapText, "newtrap: Trapezoid-table overflow [file qor_traptree line "));
  EXPECT_EQ(nodes, 65535);
  EXPECT_EQ(traps, 32767);
  oneSegmentMap();
  EXPECT_EQ(newtrap(), 5);
  EXPECT_TRUE(tr[6].state == 0 && qs[9].type == 0);
}

// Phase bounds of the iterated logarithm; catches an off-by-one in the count.
TEST(traptree, PhaseBounds) {
  const std::vector<std::pair<qorInt32, qorInt32>> rows = {
      {math_logstar_n(0), -1}, {math_logstar_n(1), 0},  {math_logstar_n(2), 1},     {math_logstar_n(4), 2},
      {math_logstar_n(10), 2}, {math_logstar_n(16), 3}, {math_logstar_n(65536), 4}, {math_N(10, 0), 1},
      {math_N(3, 1), 2},       {math_N(10, 1), 4},      {math_N(10, 2), 6}};
  for (size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(rows[i].first, rows[i].second) << "row " << i;  // N: 3, 2, 4
}

// A trapezoid is a start of the walk only when valid, bounded on both sides, a triangle (no neighbour above or
// none below) and its right segment runs upward. Catches a weakened neighbour or side test.
TEST(traptree, InsideTestOfOneTrapezoid) {
  seg[1].start = pt(0, 0), seg[1].end = pt(0, 5);  // upward
  seg[2].start = pt(1, 5), seg[2].end = pt(1, 0);  // downward
  struct Row {
    qorInt32 left, right, up0, up1, down0, down1, state, expected;
  };
  // clang-format off
  const std::vector<Row> rows = {
      {2, 1, 0, 0, 3, 0, TRAP_VALID, 1},  {2, 1, 3, 0, 0, 0, TRAP_VALID, 1},  {2, 1, 0, -1, 0, 4, TRAP_VALID, 1},
      {2, 1, 3, 0, 4, 0, TRAP_VALID, 0},  {2, 1, 0, 3, 4, 0, TRAP_VALID, 0},  {2, 1, 3, 0, 0, 4, TRAP_VALID, 0},
      {2, 1, 0, 3, 0, 4, TRAP_VALID, 0},  {2, 1, 0, 0, 3, 0, TRAP_MERGED, 0}, {0, 1, 0, 0, 3, 0, TRAP_VALID, 0},
      {2, -1, 0, 0, 3, 0, TRAP_VALID, 0}, {1, 2, 0, 0, 3, 0, TRAP_VALID, 0}};
  // clang-format on
  for (size_t i = 0; i < rows.size(); ++i) {
    const Row& r = rows[i];
    trap_t t{};
    t.left_seg = r.left, t.right_seg = r.right, t.up0 = r.up0, t.up1 = r.up1, t.down0 = r.down0, t.down1 = r.down1;
    t.state = r.state;
    EXPECT_EQ(inside_polygon(&t), r.expected) << "row " << i;
  }
}

// Driven step by step, a clockwise triangle has no trapezoid inside and raises; counter-clockwise it gives one
// monotone polygon and one triangle, and a monotone polygon asked of trapezoids that do not form one raises.
// Catches a start taken without the inside test and unchecked arguments.
TEST(traptree, DecompositionStepByStep) {
  const double pts[3][2] = {{0, 0}, {0, 3}, {4, 0}};  // clockwise
  for (const bool clockwise : {true, false}) {
    for (int i = 1; i <= 3; ++i) {
      const int a = clockwise ? i - 1 : 3 - i, b = clockwise ? i % 3 : (5 - i) % 3;
      seg[i].start = pt(pts[a][0], pts[a][1]), seg[i].end = pt(pts[b][0], pts[b][1]);
      seg[i].next = i % 3 + 1, seg[i].prev = (i + 1) % 3 + 1;
    }
    initialise(3);
    construct_trapezoids(3);
    if (clockwise) {
      EXPECT_NE(qortest::raisedText([] { monotonate_trapezoids(3); }).find("no trapezoid lies inside"),
                std::string::npos);
      continue;
    }
    const qorInt32 polys = monotonate_trapezoids(3);
    EXPECT_EQ(polys, 1);
    for (const auto& bad : std::vector<std::array<qorInt32, 3>>{{0, 0, 2}, {0, 1, 4}, {-1, 1, 2}, {5, 1, 2}})
      EXPECT_NE(qortest::raisedText([&] { make_new_monotone_poly(bad[0], bad[1], bad[2]); }).find("simple polygon"),
                std::string::npos)
          << bad[0] << " " << bad[1] << " " << bad[2];
    qorInt32 out[1][3] = {{0, 0, 0}};
    EXPECT_EQ(triangulate_monotone_polygons(3, polys, out), 1);
  }
}
