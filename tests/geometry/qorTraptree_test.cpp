#include <gtest/gtest.h>
#include <qor/qor_exception.h>
#include <qor/qor_traptree.h>
#include <qor/qor_triangulate.h>
#include <sys/time.h>

#include <cmath>
#include <set>
#include <string>
#include <vector>

namespace {

point_t pt(double x, double y) { return point_t{x, y}; }

std::string messageOf(qorException* e) {
  std::string text = e->what();
  delete e;
  return text;
}

// seg[1] runs from (0, 0) up to (1, 2); a contour of three segments.
void oneSegmentMap() {
  seg[1].start = pt(0, 0);
  seg[1].end = pt(1, 2);
  seg[1].next = 2;
  seg[1].prev = 3;
  init_query_structure(1);
}

}  // namespace

// The tolerance applies to y only; x breaks ties exactly. Catches a tolerance
// on x or a missing one on y.
TEST(traptree, ComparisonsUseToleranceOnHeightOnly) {
  point_t a = pt(2, 1 + 5e-8), b = pt(1, 1), c = pt(1, 1 - 5e-8), d = pt(1, 1.001);
  EXPECT_EQ(_greater_than(&a, &b), 1);
  EXPECT_EQ(_greater_than(&b, &c), 0);
  EXPECT_EQ(_greater_than_equal_to(&b, &c), 1);
  EXPECT_EQ(_greater_than(&d, &a), 1);
  EXPECT_EQ(_less_than(&b, &a), 1);
  EXPECT_EQ(_less_than(&c, &b), 0);
  EXPECT_EQ(_equal_to(&b, &c), 1);
  EXPECT_EQ(_equal_to(&a, &b), 0);
  point_t e = pt(1 + 5e-8, 1), out;
  EXPECT_EQ(_max(&out, &e, &b), 0);  // x within tolerance: b wins
  EXPECT_EQ(out.x, b.x);
  _min(&out, &b, &e);  // exact x: b is lower
  EXPECT_EQ(out.x, b.x);
  _min(&out, &e, &b);
  EXPECT_EQ(out.x, b.x);
  _max(&out, &d, &b);
  EXPECT_EQ(out.y, d.y);
}

// The map of one segment: nodes 1..7 and trapezoids 1..4 exactly as laid out,
// so that applications reading the tables find them. Catches a different
// issue order or missing links.
TEST(traptree, InitialMapLayout) {
  oneSegmentMap();
  EXPECT_EQ(qs[1].type, NODE_Y);
  EXPECT_EQ(qs[1].y_key.y, 2);
  EXPECT_EQ(qs[1].right, 2);
  EXPECT_EQ(qs[1].left, 3);
  EXPECT_EQ(qs[2].type, NODE_SINK);
  EXPECT_EQ(qs[2].parent, 1);
  EXPECT_EQ(qs[2].trap_index, 4);
  EXPECT_EQ(qs[3].type, NODE_Y);
  EXPECT_EQ(qs[3].y_key.y, 0);
  EXPECT_EQ(qs[3].left, 4);
  EXPECT_EQ(qs[3].right, 5);
  EXPECT_EQ(qs[4].trap_index, 3);
  EXPECT_EQ(qs[5].type, NODE_X);
  EXPECT_EQ(qs[5].seg_index, 1);
  EXPECT_EQ(qs[5].left, 6);
  EXPECT_EQ(qs[5].right, 7);
  EXPECT_EQ(qs[6].trap_index, 1);
  EXPECT_EQ(qs[7].trap_index, 2);
  EXPECT_EQ(qs[7].parent, 5);

  EXPECT_EQ(tr[1].left_seg, -1);
  EXPECT_EQ(tr[1].right_seg, 1);
  EXPECT_EQ(tr[2].left_seg, 1);
  EXPECT_EQ(tr[2].right_seg, -1);
  EXPECT_EQ(tr[1].top.y, 2);
  EXPECT_EQ(tr[1].bottom.y, 0);
  EXPECT_EQ(tr[1].up0, 4);
  EXPECT_EQ(tr[1].down0, 3);
  EXPECT_EQ(tr[1].sink, 6);
  EXPECT_EQ(tr[2].sink, 7);
  EXPECT_EQ(tr[3].up0, 1);
  EXPECT_EQ(tr[3].up1, 2);
  EXPECT_EQ(tr[3].sink, 4);
  EXPECT_TRUE(std::isinf(tr[3].bottom.y) && tr[3].bottom.y < 0);
  EXPECT_EQ(tr[4].down0, 1);
  EXPECT_EQ(tr[4].down1, 2);
  EXPECT_EQ(tr[4].sink, 2);
  EXPECT_TRUE(std::isinf(tr[4].top.x) && tr[4].top.x > 0);
  for (int t = 1; t <= 4; ++t) EXPECT_EQ(tr[t].state, TRAP_VALID);
  EXPECT_EQ(tr[5].state, 0);
  EXPECT_EQ(seg[1].in_tree, 1);
  EXPECT_EQ(newnode(), 8);
  EXPECT_EQ(newtrap(), 5);
  EXPECT_EQ(tr[5].left_seg, -1);
  EXPECT_EQ(tr[5].state, TRAP_VALID);
}

// Point location in the one-segment map, with the tie rules at a Y node and
// at an X node. Catches swapped children and a tolerance-free tie test.
TEST(traptree, LocatesPointsInInitialMap) {
  oneSegmentMap();
  point_t above = pt(0, 5), below = pt(0, -5), left = pt(-1, 1), right = pt(3, 1);
  EXPECT_EQ(locate_endpoint(&above, &below, 1), 4);
  EXPECT_EQ(locate_endpoint(&below, &above, 1), 3);
  EXPECT_EQ(locate_endpoint(&left, &right, 1), 1);
  EXPECT_EQ(locate_endpoint(&right, &left, 1), 2);
  // Level with the upper key within EPSILON and right of it: above.
  point_t level = pt(1.5, 2 + 5e-8);
  EXPECT_EQ(locate_endpoint(&level, &below, 1), 4);
  // Exactly on the key: below, unless the other endpoint is above.
  point_t key = pt(1, 2);
  EXPECT_NE(locate_endpoint(&key, &below, 1), 4);
  EXPECT_EQ(locate_endpoint(&key, &above, 1), 4);
  // At the X node, an endpoint of a horizontal segment goes by x order.
  point_t start = pt(0, 0), west = pt(-3, 0), east = pt(3, 0);
  EXPECT_EQ(locate_endpoint(&start, &west, 5), 1);
  EXPECT_EQ(locate_endpoint(&start, &east, 5), 2);
}

// Catches a cross-product sign error and a tolerance on x at endpoint height.
TEST(traptree, IsLeftOf) {
  oneSegmentMap();
  point_t a = pt(0, 1), b = pt(1, 1), c = pt(0.5, 2), d = pt(1, 2), e = pt(-1e-12, 0);
  EXPECT_EQ(is_left_of(1, &a), 1);
  EXPECT_EQ(is_left_of(1, &b), 0);
  EXPECT_EQ(is_left_of(1, &c), 1);
  EXPECT_EQ(is_left_of(1, &d), 0);
  EXPECT_EQ(is_left_of(1, &e), 1);
}

// Catches inserted() asking the wrong neighbour.
TEST(traptree, InsertedAsksContourNeighbour) {
  seg[1].prev = 3;
  seg[1].next = 2;
  seg[2].in_tree = 0;
  seg[3].in_tree = 1;
  EXPECT_EQ(inserted(1, FIRST_POINT), 1);
  EXPECT_EQ(inserted(1, LAST_POINT), 0);
  seg[3].in_tree = 0;
}

// Exactly 65535 nodes and 32767 trapezoids can be issued; the next request
// raises. Catches an off-by-one that writes past the tables.
TEST(traptree, TablesOverflowWithException) {
  oneSegmentMap();
  int nodes = 7;
  try {
    for (;;) {
      newnode();
      ++nodes;
    }
  } catch (qorException* e) {
    EXPECT_NE(messageOf(e).find("newnode: Query-table overflow [file qor_traptree line "), std::string::npos);
  }
  EXPECT_EQ(nodes, 65535);
  int traps = 4;
  try {
    for (;;) {
      newtrap();
      ++traps;
    }
  } catch (qorException* e) {
    EXPECT_NE(messageOf(e).find("newtrap: Trapezoid-table overflow [file qor_traptree line "), std::string::npos);
  }
  EXPECT_EQ(traps, 32767);
  // The next map starts clean.
  oneSegmentMap();
  EXPECT_EQ(newtrap(), 5);
  EXPECT_EQ(tr[6].state, 0);
  EXPECT_EQ(qs[9].type, 0);
}

// A damaged structure raises instead of looping or reading outside the table.
TEST(traptree, LocateRejectsUnknownNode) {
  oneSegmentMap();
  point_t p = pt(0, 0);
  try {
    locate_endpoint(&p, &p, 9);  // issued by nobody: type 0
    ADD_FAILURE() << "no exception";
  } catch (qorException* e) {
    EXPECT_NE(messageOf(e).find("locate_endpoint: Internal error"), std::string::npos);
  }
}

// Phase bounds of the iterated logarithm; catches an off-by-one in the count.
TEST(traptree, PhaseBounds) {
  EXPECT_EQ(math_logstar_n(0), -1);
  EXPECT_EQ(math_logstar_n(1), 0);
  EXPECT_EQ(math_logstar_n(2), 1);
  EXPECT_EQ(math_logstar_n(4), 2);
  EXPECT_EQ(math_logstar_n(10), 2);
  EXPECT_EQ(math_logstar_n(16), 3);
  EXPECT_EQ(math_logstar_n(65536), 4);
  EXPECT_EQ(math_N(10, 0), 1);
  EXPECT_EQ(math_N(3, 1), 2);
  EXPECT_EQ(math_N(10, 1), 4);  // phases of 3, 2, then the last 4
  EXPECT_EQ(math_N(10, 2), 6);
}

// The draw is a permutation of 1..n, and two draws in the same second agree.
// Catches a biased or repeating shuffle and a seed that is not the clock's.
TEST(traptree, RandomOrderIsPermutation) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    timeval before, after;
    gettimeofday(&before, nullptr);
    std::vector<qorInt32> first, second;
    initialise(50);
    for (int i = 0; i < 50; ++i) first.push_back(choose_segment());
    initialise(50);
    for (int i = 0; i < 50; ++i) second.push_back(choose_segment());
    gettimeofday(&after, nullptr);
    std::set<qorInt32> distinct(first.begin(), first.end());
    EXPECT_EQ(distinct.size(), 50u);
    EXPECT_EQ(*distinct.begin(), 1);
    EXPECT_EQ(*distinct.rbegin(), 50);
    if (before.tv_sec == after.tv_sec) {
      EXPECT_EQ(first, second);
      return;
    }
  }
}

// The order is the one srand48(seconds) and lrand48() give, and the
// process-wide generator continues afterwards as if lrand48() had been called
// once per segment. Catches a different draw, seed or modulus, and a
// generator left in another state.
TEST(traptree, RandomOrderFollowsSeededGenerator) {
  for (const int n : {0, 1, 2, 3, 10, 100, 8191}) {
    for (int attempt = 0; attempt < 3; ++attempt) {
      timeval before, after;
      gettimeofday(&before, nullptr);
      generate_random_ordering(n);
      std::vector<qorInt32> drawn;
      for (int i = 0; i < n; ++i) drawn.push_back(choose_segment());
      const long nextDraw = lrand48();
      const double nextReal = drand48();
      gettimeofday(&after, nullptr);
      if (before.tv_sec != after.tv_sec) continue;

      srand48(before.tv_sec);
      std::vector<qorInt32> pool(static_cast<size_t>(n) + 1), expected;
      for (int i = 0; i <= n; ++i) pool[static_cast<size_t>(i)] = i;
      for (int i = 1; i <= n; ++i) {
        const int m = static_cast<int>(lrand48() % (n + 1 - i)) + 1;
        expected.push_back(pool[static_cast<size_t>(i + m - 1)]);
        if (m != 1) pool[static_cast<size_t>(i + m - 1)] = pool[static_cast<size_t>(i)];
      }
      EXPECT_EQ(drawn, expected) << "n = " << n;
      EXPECT_EQ(lrand48(), nextDraw) << "n = " << n;
      EXPECT_EQ(drand48(), nextReal) << "n = " << n;
      break;
    }
  }
}

// A segment whose endpoints are both in the map makes no horizontal split:
// only X nodes, two nodes per new trapezoid. Catches a split at a shared vertex.
TEST(traptree, SegmentBetweenPresentEndpointsOnlyThreads) {
  const point_t v[4] = {pt(0, 0), pt(4, 1), pt(2, 5), pt(-1, 3)};
  for (int i = 1; i <= 4; ++i) {
    seg[i].start = v[i - 1];
    seg[i].end = v[i % 4];
    seg[i].next = i % 4 + 1;
    seg[i].prev = (i + 2) % 4 + 1;
    seg[i].in_tree = 0;
  }
  const qorInt32 root = init_query_structure(1);
  for (int i = 1; i <= 4; ++i) seg[i].root_start = seg[i].root_end = root;
  add_segment(2);
  add_segment(4);
  auto count = [](auto&& pred, int size, auto* table) {
    int c = 0;
    for (int i = 1; i < size; ++i) c += pred(table[i]) ? 1 : 0;
    return c;
  };
  auto isY = [](const node_t& n) { return n.type == NODE_Y; };
  auto isNode = [](const node_t& n) { return n.type != 0; };
  auto isTrap = [](const trap_t& t) { return t.state != 0; };
  const int yBefore = count(isY, NODESIZE, qs), nodesBefore = count(isNode, NODESIZE, qs);
  const int trapsBefore = count(isTrap, TRAPSIZE, tr);
  add_segment(3);  // from (2, 5) to (-1, 3): both endpoints present
  EXPECT_EQ(count(isY, NODESIZE, qs), yBefore);
  const int newTraps = count(isTrap, TRAPSIZE, tr) - trapsBefore;
  EXPECT_GE(newTraps, 1);
  EXPECT_EQ(count(isNode, NODESIZE, qs) - nodesBefore, 2 * newTraps);
  EXPECT_EQ(seg[3].in_tree, 1);
}
