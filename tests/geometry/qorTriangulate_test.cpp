// The triangulator's entry points, the validity check and the seed; the ring engine and its fill rules.
#include <gtest/gtest.h>
#include <pthread.h>
#include <qor/qor_exception.h>
#include <qor/qor_rings.h>
#include <qor/qor_traptree.h>
#include <qor/qor_triangulate.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "qor_test_support.h"
#include "support/polygon_generator.h"
#include "triangulate_check.h"

namespace {

using polygen::Polygon;
using qortest::raisedText;
using Rows = std::vector<std::array<double, 2>>;

Polygon poly(std::vector<polygen::Contour> contours) { return Polygon{std::move(contours)}; }

double inside(double x, double y) {
  double p[2] = {x, y};
  return is_point_inside_polygon(p);
}

bool allZero(const void* p, size_t bytes) {
  const unsigned char* c = static_cast<const unsigned char*>(p);
  return std::all_of(c, c + bytes, [](unsigned char b) { return b == 0; });
}

// What a call on the polygon raises ("" when it returns); the triangles go to `tri` / `out` if given.
std::string ringsRaise(const Polygon& p, std::vector<qorInt32>* tri = nullptr) {
  polygen::Flat f = polygen::flatten(p);
  std::vector<qorInt32> own;
  const std::string text = raisedText([&] {
    qorTriangulateRings(static_cast<qorInt32>(f.sizes.size()), f.sizes.data(), f.points() + 1, tri ? *tri : own);
  });
  return text == qortest::kNothingRaised ? "" : text;
}
std::string strictRaise(polygen::Flat f, tricheck::Triangles& out) {
  out.assign(f.rows.size() * 3 + 8, {-7, -7, -7});
  const std::string text = raisedText([&] {
    triangulate(static_cast<qorInt32>(f.sizes.size()), f.sizes.data(), f.points(),
                reinterpret_cast<qorInt32(*)[3]>(out.data()));
  });
  return text == qortest::kNothingRaised ? "" : text;
}
std::string checkOf(const Polygon& p) {
  polygen::Flat f = polygen::flatten(p);
  return qorCheckPolygon(static_cast<qorInt32>(f.sizes.size()), f.sizes.data(), f.points() + 1);
}

const polygen::Contour kSquare = {{0, 0}, {10, 0}, {10, 10}, {0, 10}};
const polygen::Contour kHole = {{3, 3}, {3, 7}, {7, 7}, {7, 3}};

}  // namespace

// Before any triangulation the query structure is empty (node 1 has type 0): the query raises instead of reading
// garbage. First in this program, so that no test has triangulated before it (CTest runs each on its own anyway).
TEST(is_point_inside_polygon, RaisesBeforeAnyTriangulation) {
  EXPECT_TRUE(qortest::startsWith(raisedText([] { inside(0.5, 0.5); }),
                                  "locate_endpoint: Internal error [file qor_traptree line "));
}

// Small valid polygons triangulate exactly; bad input raises a message naming the problem and contour before any
// table changes. Catches off-by-one numbering, skipped contours that take rows, holes filled, missing input checks.
TEST(triangulate, SmallCasesAndBadInput) {
  qorTriangulateFixSeed(20261124);
  struct Case {
    const char* label;
    std::vector<qorInt32> sizes;
    Rows rows;  // from row 1
    const char* error;
  };
  // clang-format off
  const std::vector<Case> cases = {
      {"hole crossing the outer contour", {4, 3}, {{0, 0}, {10, 0}, {10, 10}, {0, 10}, {5, 5}, {15, 6}, {15, 4}}, "[file qor_"},
      {"triangle", {3}, {{0, 0}, {4, 0}, {0, 3}}, nullptr},
      {"convex quadrilateral", {4}, {{0, 0}, {5, 0}, {6, 4}, {1, 3}}, nullptr},
      {"empty contours skipped", {0, 4, -2}, {{0, 0}, {2, 0}, {2, 2}, {0, 2}}, nullptr},
      {"square with hole", {4, 4}, {{0, 0}, {10, 0}, {10, 10}, {0, 10}, {3, 3}, {3, 7}, {7, 7}, {7, 3}}, nullptr},
      {"no contour", {}, {}, "triangulate: the contour count must be at least 1"},
      {"no vertex", {0, -1}, {}, "triangulate: no vertex"},
      {"two points", {3, 2}, {{0, 0}, {1, 0}, {0, 1}, {5, 5}, {6, 6}}, "only one or two points"},
      {"not finite", {3}, {{0, 0}, {NAN, 0}, {0, 1}}, "not a finite number"},
      {"clockwise outer", {3}, {{0, 0}, {0, 1}, {1, 0}}, "triangulate: contour 1 runs the wrong way (outer counter-clockwise, holes clockwise)"},
      {"counter-clockwise hole", {0, 4, 4}, {{0, 0}, {10, 0}, {10, 10}, {0, 10}, {3, 3}, {7, 3}, {7, 7}, {3, 7}}, "triangulate: contour 3 runs the wrong way (outer counter-clockwise, holes clockwise)"},
      {"closing point", {5}, {{0, 0}, {2, 0}, {2, 2}, {0, 2}, {0, 0}}, "triangulate: contour 1 repeats its first point at its end"},
      {"repeated point", {4, 5}, {{0, 0}, {10, 0}, {10, 10}, {0, 10}, {3, 3}, {3, 7}, {7, 7}, {7, 7}, {7, 3}}, "triangulate: contour 2 repeats point 3 right after itself"},
  };
  // clang-format on
  tricheck::Triangles out;
  for (const Case& c : cases) {
    polygen::Flat f{c.sizes, {{-1, -1}}};
    f.rows.insert(f.rows.end(), c.rows.begin(), c.rows.end());
    if (c.error == nullptr)
      tricheck::checkRaw(f.sizes, f.rows, c.label);
    else
      EXPECT_NE(strictRaise(f, out).find(c.error), std::string::npos) << c.label << ": " << strictRaise(f, out);
  }
  polygen::Flat big{{8192, 0}, Rows(8193)};
  for (size_t i = 1; i < big.rows.size(); ++i) big.rows[i] = {std::cos(i * M_PI / 4096), std::sin(i * M_PI / 4096)};
  EXPECT_NE(strictRaise(big, out).find("more than 8191"), std::string::npos);
  EXPECT_NE(raisedText([&] { triangulate(1, big.sizes.data(), big.points(), nullptr); }).find("null"),
            std::string::npos);
  // The map of the last valid polygon is untouched by the refused calls.
  EXPECT_TRUE(inside(5, 5) == 0 && inside(1, 5) == 1 && inside(11, 5) == 0);
  qorTriangulateClockSeed();
}

// Every shape with and without holes, through both entry points (rings reversed and closed) and the validity check.
// Catches wrong links or diagonals, clockwise, degenerate or missing triangles, a coverage tolerance that valid input
// reaches, and point queries that put holes inside or pockets outside.
TEST(triangulate, GeneratedPolygonsKeepInvariants) {
  qorTriangulateFixSeed(99);
  std::vector<std::pair<std::string, Polygon>> inputs;
  for (int shape = 0; shape < 3; ++shape)
    for (int n : {4, 5, 8, 13, 40, 120, 400})
      for (int holes : {0, 1, 3, 9})
        for (unsigned seed = 1; seed <= 3; ++seed) {
          std::mt19937_64 rng(seed * 7919 + static_cast<unsigned>(n) * 31 + static_cast<unsigned>(holes));
          inputs.emplace_back(std::string(polygen::shapeName(shape)) + " n=" + std::to_string(n) +
                                  " holes=" + std::to_string(holes) + " seed=" + std::to_string(seed),
                              polygen::shape(shape, rng, n, holes));
        }
  for (int n : {10, 100, 1000, 4000, 8000}) {  // the benchmark's stars
    std::mt19937_64 rng(static_cast<unsigned>(n) * 2654435761u);
    inputs.emplace_back("star " + std::to_string(n), poly({polygen::starContour(rng, n, 0, 0, 990, 1000, false)}));
  }
  std::mt19937_64 rng(4020);
  inputs.emplace_back("star 4000 with 20 holes", polygen::star(rng, 4000, 20, 4));
  for (const auto& [label, p] : inputs) {
    const tricheck::Triangles tri = tricheck::checkTriangulation(p, label);
    polygen::Flat f = polygen::flatten(p);
    for (const auto& t : tri) {  // the query: inside at every centroid, outside in every hole and far away
      const double x = (f.rows[t[0]][0] + f.rows[t[1]][0] + f.rows[t[2]][0]) / 3;
      ASSERT_EQ(inside(x, (f.rows[t[0]][1] + f.rows[t[1]][1] + f.rows[t[2]][1]) / 3), 1) << label;
    }
    for (size_t h = 1; h < p.contours.size(); ++h) {
      double x = 0, y = 0;  // every generated hole is star-shaped around its vertices' mean
      for (const auto& q : p.contours[h]) x += q.x / p.contours[h].size(), y += q.y / p.contours[h].size();
      ASSERT_EQ(inside(x, y), 0) << label << " hole " << h;
    }
    EXPECT_EQ(inside(1e7, -1e7), 0) << label;
    Polygon turned = p;  // outer clockwise, holes counter-clockwise, every ring closed
    for (auto& c : turned.contours) std::reverse(c.begin(), c.end()), c.push_back(c.front());
    tricheck::checkRings(turned, p, label + " as rings", p.vertexCount() + 2 * p.holeCount() - 2);
    EXPECT_EQ(checkOf(p), "") << label;
    if (::testing::Test::HasFailure()) break;
  }
  qorTriangulateClockSeed();
}

// The fixtures through qorTriangulateRings: all cover their area but those whose edges cross, which raise naming the
// rings and the lowest crossing (qorCheckPolygon finds it too), and one whose outer ring has no area; the simple ones
// triangulate exactly through triangulate() too.
TEST(qorTriangulateRings, Fixtures) {
  const std::string dir = std::string(QOR_TEST_DATA_DIR) + "/geometry/polygons/";
  const std::set<std::string> simple = {"building", "dude",    "sample-outline", "eberly-6", "filtered-bridge-jhl",
                                        "hilbert",  "issue16", "issue17",        "issue29",  "issue34",
                                        "issue35",  "issue52", "steiner"};
  const std::map<std::string, std::string> refused = {
      {"bad-hole", "ring 4 crosses ring 1 near (838, 2857.513514)"},
      {"issue107", "ring 1, the outer ring, has no area, but ring 2 has"},
      {"issue142", "ring 2 crosses ring 1 near (-6.833718161, -0.665540551)"},
      {"simplified-us-border", "ring 1 crosses itself near (654.92, 1428.06)"},
      {"water", "ring 10 crosses itself near (3705.166667, 1729)"},
      {"water-huge", "ring 1 crosses itself near (3241.628099, -80.7768595)"},
      {"water-huge2", "ring 1 crosses itself near (4034.919075, 112.1599229)"},
  };
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir))
    if (entry.path().extension() == ".json") names.push_back(entry.path().stem());
  ASSERT_EQ(names.size(), 59u);
  int triangulated = 0;
  for (const std::string& name : names) {
    const long seed = static_cast<long>(std::hash<std::string>()(name) % 100000);
    qorTriangulateFixSeed(seed);
    SCOPED_TRACE(name + " seed " + std::to_string(seed));
    const Polygon raw = polygen::readRings(dir + name + ".json");
    const Polygon normal = tricheck::normalize(raw);
    auto it = refused.find(name);
    if (it == refused.end()) {
      tricheck::checkRings(raw, normal, name, -1), ++triangulated;  // a raise fails there
      if (simple.count(name)) tricheck::checkTriangulation(normal, name);
      continue;
    }
    EXPECT_TRUE(qortest::startsWith(ringsRaise(raw), "qorTriangulateRings: " + it->second)) << ringsRaise(raw);
    const std::string crossing = it->second.substr(0, it->second.find(" (edges cross)"));
    if (it->second.find("crosses") != std::string::npos) {
      EXPECT_EQ(checkOf(normal), std::regex_replace(crossing, std::regex("ring"), "contour"));
    }
  }
  EXPECT_EQ(triangulated, 52);
  qorTriangulateClockSeed();
}

// Small rings with every repair and every refusal, with what the fixups record. Catches a repair that loses area,
// orients the wrong ring, misses a touch, a split or a cancelled edge, and messages without ring and place.
TEST(qorTriangulateRings, RepairsAndRefusals) {
  struct Case {
    const char* label;
    Polygon rings;
    const char* error;  // null: triangulates
    qorInt32 reoriented = 0, dropped = 0, merged = 0, split = 0, cancelled = 0;
  };
  // clang-format off
  const std::vector<Case> cases = {
      {"clockwise closed square", poly({{{0, 0}, {0, 10}, {10, 10}, {10, 0}, {0, 0}}}), nullptr, 1, 1},
      {"repeated points and a spike", poly({{{0, 0}, {10, 0}, {10, 0}, {10, 10}, {12, 12}, {10, 10}, {0, 10}}}), nullptr, 0, 1, 1, 0, 2},
      {"spike into the polygon", poly({{{0, 0}, {10, 0}, {10, 10}, {5, 10}, {5, 4}, {5, 10}, {0, 10}}}), nullptr, 0, 0, 1, 0, 2},
      {"counter-clockwise hole", poly({kSquare, {{3, 3}, {7, 3}, {7, 7}, {3, 7}}}), nullptr, 1},
      {"hole touching outer at a vertex", poly({kSquare, {{0, 0}, {3, 6}, {6, 3}}}), nullptr, 0, 0, 1},
      {"hole touching an outer edge", poly({kSquare, {{5, 0}, {4, 5}, {6, 5}}}), nullptr, 0, 0, 0, 1},
      {"two holes touching an outer edge at one point", poly({kSquare, {{5, 0}, {2, 4}, {4, 4}}, {{5, 0}, {6, 4}, {8, 4}}}), nullptr, 0, 0, 1, 1},
      {"holes sharing an edge", poly({kSquare, {{2, 2}, {2, 8}, {5, 8}, {5, 2}}, {{5, 2}, {5, 8}, {8, 8}, {8, 2}}}), nullptr, 0, 0, 2, 0, 2},
      {"hole sharing part of an outer edge", poly({kSquare, {{2, 0}, {2, 5}, {6, 5}, {6, 0}}}), nullptr, 0, 0, 0, 1, 2},
      {"self-tangent outer", poly({{{0, 0}, {10, 0}, {5, 5}, {10, 10}, {0, 10}, {5, 5}}}), nullptr, 0, 0, 1},
      {"zero-area hole", poly({kSquare, {{2, 2}, {4, 4}, {6, 6}}}), nullptr, 0, 3},
      {"outline cancelled by a hole", poly({kSquare, {{0, 0}, {0, 10}, {10, 10}, {10, 0}}}), nullptr, 0, 0, 4, 0, 8},
      {"zero-area outer", poly({{{0, 0}, {1, 1}, {2, 2}}, kHole}), "ring 1, the outer ring, has no area, but ring 2 has"},
      {"bow tie", poly({{{0, 0}, {10, 10}, {10, 0}, {0, 20}}}), "ring 1 crosses itself near (6.666666667, 6.666666667) (edges cross)"},
      {"hole crossing outer", poly({kSquare, {{5, 5}, {15, 6}, {15, 4}}}), "ring 2 crosses ring 1 near (10, 4.5) (edges cross)"},
      {"hole outside", poly({kSquare, {{20, 0}, {20, 5}, {25, 5}, {25, 0}}}), "ring 2 is a hole that lies outside the outer ring near (20, 0)"},
      {"hole touching outer from outside", poly({kSquare, {{10, 5}, {12, 4}, {12, 6}}}), "ring 2 is a hole that lies outside the outer ring near (12, 4)"},
      {"two copies of one hole", poly({kSquare, kHole, kHole}), "ring 3 overlaps ring 2 near (3, 3)"},
      {"hole inside a hole", poly({kSquare, {{1, 1}, {1, 9}, {9, 9}, {9, 1}}, kHole}), "ring 3 overlaps ring 2 near (3, 3)"},
      {"ring winding twice", poly({{{0, 0}, {10, 0}, {10, 10}, {0, 10}, {0, 0}, {2, 1}, {5, 1}, {5, 5}}}), "ring 1 overlaps itself near"},
      {"not finite", poly({{{0, 0}, {NAN, 0}, {0, 1}}}), "a coordinate is not a finite number (ring 1, point 2)"},
      {"out of range", poly({{{0, 0}, {1e-200, 0}, {0, 1e200}}}), "the coordinates are out of range"},
  };
  // clang-format on
  for (const Case& c : cases) {
    if (c.error == nullptr) {
      tricheck::checkRings(c.rings, tricheck::normalize(c.rings), c.label, -1);
      const qorRingFixups f = qorTriangulateRingsFixups();
      EXPECT_EQ(
          std::vector<qorInt32>({f.ringsReoriented, f.pointsDropped, f.pointsMerged, f.edgesSplit, f.edgesCancelled}),
          std::vector<qorInt32>({c.reoriented, c.dropped, c.merged, c.split, c.cancelled}))
          << c.label;
      continue;
    }
    std::vector<qorInt32> tri{7};
    const std::string text = ringsRaise(c.rings, &tri);
    EXPECT_TRUE(qortest::startsWith(text, std::string("qorTriangulateRings: ") + c.error)) << c.label << ": " << text;
    EXPECT_EQ(tri, std::vector<qorInt32>{7}) << c.label;
  }
  std::vector<qorInt32> tri;
  EXPECT_NE(raisedText([&] { qorTriangulateRings(0, nullptr, nullptr, tri); }).find("ring count"), std::string::npos);
}

// qorCheckPolygon names the first crossing, else the first touch, with contours counted from 1. Catches a check
// that misses touches at vertices, T-junctions, fold-backs or crossings, or that flags straight collinear runs.
TEST(qorCheckPolygon, FindsCrossingsAndTouches) {
  // clang-format off
  const std::vector<std::pair<Polygon, std::string>> cases = {
      {poly({kSquare, kHole}), ""},
      {poly({{{0, 0}, {5, 0}, {10, 0}, {10, 10}, {0, 10}}}), ""},
      {poly({kSquare, {}, kHole}), ""},
      {poly({{{0, 0}, {5, 0}, {10, 0}, {5, 5}, {10, 10}, {0, 10}, {5, 5}}}), "contour 1 touches itself near (5, 5)"},
      {poly({{{0, 0}, {10, 10}, {10, 0}, {0, 10}}}), "contour 1 crosses itself near (5, 5)"},
      {poly({kSquare, {{5, 5}, {15, 6}, {15, 4}}}), "contour 2 crosses contour 1 near (10, 4.5)"},
      {poly({kSquare, {{0, 0}, {3, 6}, {6, 3}}}), "contour 2 touches contour 1 near (0, 0)"},
      {poly({kSquare, {{5, 0}, {4, 5}, {6, 5}}}), "contour 2 touches contour 1 near (5, 0)"},
      {poly({kSquare, kHole, {{7, 7}, {8, 9}, {9, 8}}}), "contour 3 touches contour 2 near (7, 7)"},
      {poly({{{0, 0}, {10, 0}, {5, 5}, {10, 10}, {0, 10}, {5, 5}}}), "contour 1 touches itself near (5, 5)"},
      {poly({{{0, 0}, {10, 0}, {5, 0}, {5, 10}}}), "contour 1 touches itself near (5, 0)"},
      {poly({{{0, 0}, {10, 0}, {10, 0}, {0, 10}}}), "contour 1 touches itself near (10, 0)"},
      {poly({kSquare, {{1, 1}, {2, 1}}}), "contour 2 has fewer than 3 points"},
      // Exact: a point on an edge's line touches it; one unit in the last place off it does not.
      {poly({{{0, .1}, {10, .1}, {10, 10}, {0, 10}}, {{5, .1}, {4, 5}, {6, 5}}}), "contour 2 touches contour 1 near (5, 0.1)"},
      {poly({{{0, .1}, {10, .1}, {10, 10}, {0, 10}}, {{5, std::nextafter(.1, 1.)}, {4, 5}, {6, 5}}}), ""},
      {poly({{{0, 0}, {3, 3}, {0, 3}}, {{1, 1 + 1e-15}, {1, 2}, {.5, 2}}}), ""},
      {poly({{{1e-200, 0}, {1, 0}, {0, 1}}}), "the coordinates are out of range (their magnitudes span more than 2^400)"},
  };
  // clang-format on
  for (const auto& [p, expected] : cases) EXPECT_EQ(checkOf(p), expected);
  EXPECT_EQ(qorCheckPolygon(0, nullptr, nullptr), "");  // nothing to read, nothing to raise
}

// A fixed seed gives the same insertion order, a permutation of the segments, in every thread until the clock is
// back, and the last seed is the calling thread's own. Catches a seed that is ignored, an order that repeats or
// skips a segment, and shared last seeds.
TEST(triangulate, FixedSeedReproducesRuns) {
  auto order = [](long seed, int n) {
    qorTriangulateFixSeed(seed);
    generate_random_ordering(n);
    std::vector<qorInt32> drawn;
    for (int i = 0; i < n; ++i) drawn.push_back(choose_segment());
    EXPECT_EQ(qorTriangulateLastSeed(), seed);
    return drawn;
  };
  for (const int n : {1, 3, 100, 8191}) {
    const std::vector<qorInt32> first = order(20261124, n);
    std::vector<qorInt32> sorted = first;
    std::sort(sorted.begin(), sorted.end());
    for (int i = 0; i < n; ++i) ASSERT_EQ(sorted[static_cast<size_t>(i)], i + 1) << n;
    EXPECT_EQ(order(20261124, n), first) << n;
    EXPECT_TRUE(n <= 3 || order(1, n) != first) << n;
  }
  // The other thread has a 256 KiB stack and the largest polygon: catches a walk that recurses per trapezoid.
  static Polygon convex;
  static tricheck::Triangles first, other;
  static long seedBefore = -1;
  std::mt19937_64 rng(42);
  convex.contours = {polygen::starContour(rng, 8191, 0, 0, 1000, 1000, false)};
  first = tricheck::checkTriangulation(convex, "first");
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, 256 * 1024);
  pthread_t thread;
  auto body = [](void*) -> void* {
    seedBefore = qorTriangulateLastSeed();  // this thread has not triangulated yet
    other = tricheck::checkTriangulation(convex, "other thread", false);
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attr, body, nullptr), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
  EXPECT_EQ(seedBefore, 0);
  EXPECT_EQ(other, first);
  qorTriangulateClockSeed();
  const long before = time(nullptr);
  tricheck::checkTriangulation(convex, "clock");
  EXPECT_TRUE(qorTriangulateLastSeed() >= before && qorTriangulateLastSeed() <= time(nullptr));
}

// An irregular star of 8191 vertices passes the input checks and either fits or raises the overflow exception,
// never writing past the table. A small run after it, and runs that raise while building their map, leave every
// entry beyond what they issued zero, as a full reset would. Catches partial resets.
TEST(triangulate, LargeRunsLeaveTablesClean) {
  qorTriangulateFixSeed(8191);
  std::mt19937_64 rng(8191);
  tricheck::Triangles out;
  const std::string text = strictRaise(polygen::flatten(polygen::star(rng, 8191)), out);
  EXPECT_TRUE(text.empty() || text.find("newtrap: Trapezoid-table overflow") != std::string::npos) << text;
  tricheck::checkTriangulation(poly({{{0, 0}, {1, 0}, {0, 1}}}), "small");
  EXPECT_TRUE(allZero(&seg[4], sizeof(segment_t) * (SEGSIZE - 4)) && allZero(&seg[0], sizeof(segment_t)));
  EXPECT_TRUE(allZero(&tr[64], sizeof(trap_t) * (TRAPSIZE - 64)) && allZero(&tr[0], sizeof(trap_t)));
  EXPECT_TRUE(allZero(&qs[128], sizeof(node_t) * (NODESIZE - 128)));
  int checked = 0;
  for (int round = 0; round < 400 && checked < 12; ++round) {
    tricheck::checkTriangulation(polygen::star(rng, 1500, 5), "large");
    const std::string t = strictRaise(polygen::flatten(polygen::gridRings(rng, 1, 25, 9)), out);
    if (t.find("[file qor_traptree") == std::string::npos) continue;
    const qorInt32 tn = newtrap(), qn = newnode();
    ASSERT_TRUE(allZero(&tr[tn + 1], sizeof(trap_t) * static_cast<size_t>(TRAPSIZE - tn - 1))) << round << t;
    ASSERT_TRUE(allZero(&qs[qn + 1], sizeof(node_t) * static_cast<size_t>(NODESIZE - qn - 1))) << round << t;
    ++checked;
  }
  EXPECT_GT(checked, 0);
  qorTriangulateClockSeed();
}

// Random contours on a small grid (repeated points, collinear runs, crossings, touches, any orientation): each
// either raises a qorException* or, through either entry point, gives triangles whose areas add up. Catches
// silently partial covers and unchecked links (ASan checks the writes).
TEST(qorTriangulateRings, GarbageRaisesOrCovers) {
  qorTriangulateFixSeed(77);
  std::mt19937_64 rng(20261123);
  tricheck::Triangles out;
  for (int round = 0; round < 1500 && !::testing::Test::HasFailure(); ++round) {
    const Polygon p = polygen::gridRings(rng, polygen::uniformInt(rng, 1, 4), 25, polygen::uniformInt(rng, 2, 12));
    const std::string label = "round " + std::to_string(round), text = ringsRaise(p);
    if (text.empty()) tricheck::checkRings(p, tricheck::normalize(p), label, -1);
    EXPECT_TRUE(text.empty() || text.find("[file qor_") != std::string::npos) << label << text;
    polygen::Flat flat = polygen::flatten(p);
    if (!strictRaise(flat, out).empty()) continue;
    out.resize(static_cast<size_t>(triangulate_last_count()));
    tricheck::checkCover(out, flat.rows, p.vertexCount(), polygen::area(p), label + " strict", false);
  }
  qorTriangulateClockSeed();
}

// Maps (coastlines with lakes, islands), grids of touching holes, meanders as they are and turned, stars with many
// holes: the triangles cover the area, lie inside (centroids against the winding number) and the untouched pass the
// check; small ones times 1e-300 ... 1e300 give the same triangles or say that the coordinates are out of range.
// Catches triangles lost, doubled or outside where many edges are active or rings touch, and predicates that overflow.
TEST(qorTriangulateRings, GeneratedPolygonsOfAnySizeAndScale) {
  std::mt19937_64 rng(2126);
  std::vector<std::pair<std::string, Polygon>> inputs;
  for (int n : {1000, 30000, 300000})
    for (const Polygon& p : polygen::coastMap(rng, n, n / 2000, true)) inputs.push_back({"map", p});
  for (int m : {2, 20, 106}) inputs.push_back({"grid", polygen::gridHoles(rng, m)});
  for (int n : {12, 2000, 100000}) inputs.push_back({"meander", polygen::meander(n, n > 10000)});
  for (int n : {100, 20000}) inputs.push_back({"holes", polygen::star(rng, n, n / 10)});
  for (const auto& [name, p] : inputs) {
    const std::string check = checkOf(p), label = name + " " + std::to_string(p.vertexCount()) + ": " + check;
    const std::vector<qorInt32> plain = tricheck::checkRings(p, polygen::normalize(p), label, -1, 300);
    EXPECT_TRUE(name == "grid" || check.empty()) << label;
    for (const double f : {1e-300, 1e-20, 1e20, 1e300}) {
      if (p.vertexCount() > 2000 || name == "grid") break;  // rounding the grid's coordinates ends collinear runs
      std::vector<qorInt32> tri;
      Polygon scaled = p;
      for (polygen::Contour& c : scaled.contours)
        for (polygen::Point& q : c) q = {q.x * f, q.y * f};
      const std::string text = ringsRaise(scaled, &tri);
      EXPECT_TRUE(text.empty() ? tri == plain : text.find("out of range") != std::string::npos)
          << label << " times " << f << ": " << text;
    }
  }
}

// Shapes worked out by hand, random walks, a twisted coastline, random rings on a grid (every other one 10^5 wide: long
// edges crossing at small angles) and valid polygons, under both rules against the oracle, twice. Catches a rule
// applied the wrong way, crossings missed or invented, overlapping or retraced edges counted once, output differing by
// run.
TEST(qorTriangulateRingsFill, MatchesTheOracle) {
  auto square = [](double x, double y, double s, bool turned = false) {
    return turned ? polygen::Contour{{x, y}, {x, y + s}, {x + s, y + s}, {x + s, y}}
                  : polygen::Contour{{x, y}, {x + s, y}, {x + s, y + s}, {x, y + s}};
  };
  const double R = 10, r = R * std::cos(0.4 * M_PI) / std::cos(0.2 * M_PI);  // the pentagram's inner pentagon
  const double star = 5 * R * r * std::sin(0.2 * M_PI), pentagon = 2.5 * r * r * std::sin(0.4 * M_PI);
  polygen::Contour pentagram(5);  // its points one after another at 144 degrees
  for (int k = 0; k < 5; ++k) pentagram[k] = {R * std::sin(.8 * M_PI * k), R * std::cos(.8 * M_PI * k)};
  // clang-format off
  std::vector<std::tuple<std::string, Polygon, double, double>> inputs = {  // areas under either rule, NaN: unknown
      {"bow tie", {{{{0, 0}, {2, 2}, {2, 0}, {0, 2}}}}, 2, 2},
      {"figure eight (lobes of opposite turn)", {{{{1, 0}, {2, 1}, {0, 3}, {1, 4}, {2, 3}, {0, 1}}}}, 4, 4},
      {"pentagram", {{pentagram}}, star - pentagon, star},
      {"overlapping squares", {{square(0, 0, 2), square(1, 1, 2)}}, 6, 7},
      {"a square drawn twice", {{{{0, 0}, {2, 0}, {2, 2}, {0, 2}, {0, 0}, {2, 0}, {2, 2}, {0, 2}}}}, 0, 4},
      {"a square retracing its edges", {{{{0, 0}, {2, 0}, {2, 2}, {0, 2}, {0, 0}, {0, 2}, {2, 2}, {2, 0}}}}, 0, 0},
      {"nested, alternating", {{square(-4, -4, 8), square(-3, -3, 6, true), square(-2, -2, 4), square(-1, -1, 2)}}, 40, 44},
      {"nothing but lines and points", {{{{0, 0}, {1, 1}, {2, 2}}, {{5, 5}}, {{1, 0}, {3, 0}}, {}}}, 0, 0},
  };
  // clang-format on
  std::mt19937_64 rng(25);
  auto add = [&inputs](const std::string& label, const Polygon& p) { inputs.push_back({label, p, NAN, NAN}); };
  for (int n : {10, 100, 1000})
    add("random walks", {{polygen::randomWalk(rng, n), polygen::randomWalk(rng, n / 3 + 3, 20)}});
  add("twisted coastline", polygen::twisted(rng, polygen::coastMap(rng, 2000, 4)[0], 4));
  for (const Polygon& p : {polygen::coastMap(rng, 3000, 9)[0], polygen::gridHoles(rng, 12), polygen::meander(400)})
    add("valid", p);
  for (int r = 0, high = 3; r < 200; ++r, high = 3 + r % 9)
    add("grid rings " + std::to_string(r), polygen::gridRings(rng, 1 + r % 4, 20, r % 2 ? 100000 : high, high));
  for (const auto& [label, p, evenOdd, nonZero] : inputs)
    for (const qorFillRule rule : {qorFillEvenOdd, qorFillNonZero}) {
      const double hand = rule == qorFillEvenOdd ? evenOdd : nonZero;
      EXPECT_FALSE(std::fabs(polygen::regionArea(p, rule == qorFillEvenOdd) - hand) > 1e-9 * (1 + hand)) << label;
      polygen::Flat f = polygen::flatten(p);
      std::vector<qorInt32> tri{-3}, again;  // appended after what is there; `added` is cleared first
      std::vector<double> added{7}, more;
      auto fill = [&](std::vector<qorInt32>& t, std::vector<double>& a) {
        return qorTriangulateRingsFill(qorInt32(f.sizes.size()), f.sizes.data(), f.points() + 1, rule, t, a);
      };
      const std::string text = raisedText([&] {
        const size_t made = 3 * size_t(fill(tri, added)) + 1;
        EXPECT_EQ(made, tri.size()) << label;
        fill(again, more);
      });
      tri.erase(tri.begin());
      EXPECT_TRUE(text == qortest::kNothingRaised && tri == again && added == more) << label << text;  // and twice
      EXPECT_EQ(polygen::fillProblem(p, rule == qorFillEvenOdd, tri, added), "") << label << ", rule " << rule;
    }
  // Bad input raises, leaving the triangles as they were and `added` empty.
  const qorInt32 three = 3;
  const double good[3][2] = {{0, 0}, {1, 0}, {0, 1}}, nan[3][2] = {{0, 0}, {NAN, 0}, {0, 1}};
  const double wide[3][2] = {{0, 0}, {1e-300, 0}, {0, 1e300}};
  // clang-format off
  const std::vector<std::tuple<qorInt32, const qorInt32*, const double (*)[2], int, const char*>> bad = {
      {0, &three, good, qorFillEvenOdd, "the ring count must be at least 1"}, {1, nullptr, good, qorFillNonZero, "null sizes or points"},
      {1, &three, good, 3, "the fill rule must be"}, {1, &three, nan, qorFillNonZero, "a coordinate is not a finite number (ring 1, point 2)"},
      {1, &three, wide, qorFillEvenOdd, "the coordinates are out of range"}};
  // clang-format on
  for (const auto& [count, sizes, points, rule, message] : bad) {
    std::vector<qorInt32> tri{4};
    std::vector<double> added{5};
    const std::string text = raisedText([&, c = count, sz = sizes, pt = points, r = rule] {
      qorTriangulateRingsFill(c, sz, pt, static_cast<qorFillRule>(r), tri, added);
    });
    EXPECT_TRUE(qortest::startsWith(text, std::string("qorTriangulateRingsFill: ") + message)) << text;
    EXPECT_TRUE(tri == std::vector<qorInt32>{4} && added.empty()) << message;
  }
}
