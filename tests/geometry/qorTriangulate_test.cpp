#include <gtest/gtest.h>
#include <pthread.h>
#include <qor/qor_exception.h>
#include <qor/qor_traptree.h>
#include <qor/qor_triangulate.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/polygon_generator.h"
#include "triangulate_check.h"

namespace {

using polygen::Polygon;

// Runs triangulate on plain arrays and returns the triangles written.
std::vector<std::array<qorInt32, 3>> run(std::vector<qorInt32> sizes, std::vector<std::array<double, 2>> rows,
                                         int expected) {
  std::vector<std::array<qorInt32, 3>> out(static_cast<size_t>(expected) + 2, {-7, -7, -7});
  triangulate(static_cast<qorInt32>(sizes.size()), sizes.data(), reinterpret_cast<double(*)[2]>(rows.data()),
              reinterpret_cast<qorInt32(*)[3]>(out.data()));
  EXPECT_EQ(triangulate_last_count(), expected);
  EXPECT_EQ(out[static_cast<size_t>(expected)][0], -7);
  out.resize(static_cast<size_t>(expected));
  return out;
}

std::string messageOf(qorException* e) {
  std::string text = e->what();
  delete e;
  return text;
}

// Calls triangulate and returns the text of the exception it raises ("" if none).
std::string raised(std::vector<qorInt32> sizes, std::vector<std::array<double, 2>> rows) {
  std::vector<std::array<qorInt32, 3>> out(rows.size() * 3 + 8);
  try {
    triangulate(static_cast<qorInt32>(sizes.size()), sizes.data(), reinterpret_cast<double(*)[2]>(rows.data()),
                reinterpret_cast<qorInt32(*)[3]>(out.data()));
  } catch (qorException* e) {
    return messageOf(e);
  }
  return "";
}

double inside(double x, double y) {
  double p[2] = {x, y};
  return is_point_inside_polygon(p);
}

}  // namespace

// A single triangle must come back as itself, counter-clockwise and 1-based:
// catches off-by-one vertex numbering and a lost closing triangle.
TEST(triangulate, TriangleGivesItself) {
  auto t = run({3}, {{0, 0}, {0, 0}, {4, 0}, {0, 3}}, 1);
  std::array<qorInt32, 3> sorted = t[0];
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(sorted, (std::array<qorInt32, 3>{1, 2, 3}));
}

// Catches a convex quadrilateral cut into other than two triangles.
TEST(triangulate, ConvexQuadrilateralGivesTwo) {
  Polygon p;
  p.contours.push_back({{0, 0}, {5, 0}, {6, 4}, {1, 3}});
  tricheck::checkTriangulation(p, "quad");
}

// Contours of size 0 or below are skipped and take no row: catches numbering
// that counts them.
TEST(triangulate, SkipsEmptyContours) {
  auto t = run({0, 4, -2}, {{99, 99}, {0, 0}, {2, 0}, {2, 2}, {0, 2}}, 2);
  for (const auto& tri : t)
    for (qorInt32 v : tri) {
      EXPECT_GE(v, 1);
      EXPECT_LE(v, 4);
    }
}

// A square with a square hole: 8 triangles, the hole is outside. Catches a
// hole filled with triangles and a triangle bound that ignores holes.
TEST(triangulate, SquareWithHole) {
  Polygon p;
  p.contours.push_back({{0, 0}, {10, 0}, {10, 10}, {0, 10}});
  p.contours.push_back({{3, 3}, {3, 7}, {7, 7}, {7, 3}});
  tricheck::checkTriangulation(p, "square with hole");
  EXPECT_EQ(inside(5, 5), 0);
  EXPECT_EQ(inside(1, 5), 1);
  EXPECT_EQ(inside(8.5, 9.5), 1);
  EXPECT_EQ(inside(11, 5), 0);
  EXPECT_EQ(inside(-1, -1), 0);
}

// Many generated polygons of every shape, with and without holes: catches
// wrong links in the insertion, wrong diagonals and a sweep that emits
// clockwise, degenerate or missing triangles. The label gives shape and seed.
TEST(triangulate, GeneratedPolygonsKeepInvariants) {
  const int sizes[] = {4, 5, 8, 13, 40, 120, 400};
  for (int shape = 0; shape < 5; ++shape) {
    for (int n : sizes) {
      for (int holes : {0, 1, 3, 9}) {
        for (unsigned seed = 1; seed <= 3; ++seed) {
          std::mt19937_64 rng(seed * 7919 + static_cast<unsigned>(n) * 31 + static_cast<unsigned>(holes));
          Polygon p = polygen::shape(shape, rng, n, holes);
          const std::string label = std::string(polygen::shapeName(shape)) + " n=" + std::to_string(n) +
                                    " holes=" + std::to_string(holes) + " seed=" + std::to_string(seed);
          tricheck::checkTriangulation(p, label);
          if (::testing::Test::HasFailure()) return;
        }
      }
    }
  }
}

// is_point_inside_polygon against an even-odd ray test on random points off
// the edges: catches holes reported inside and pockets reported outside.
TEST(is_point_inside_polygon, AgreesWithEvenOddRule) {
  for (int shape = 0; shape < 5; ++shape) {
    for (int holes : {0, 4}) {
      std::mt19937_64 rng(1000 + static_cast<unsigned>(shape) * 10 + static_cast<unsigned>(holes));
      Polygon p = polygen::shape(shape, rng, 200, holes);
      tricheck::checkTriangulation(p, polygen::shapeName(shape));
      double minx = INFINITY, maxx = -INFINITY, miny = INFINITY, maxy = -INFINITY;
      for (const auto& q : p.contours[0]) {
        minx = std::min(minx, q.x), maxx = std::max(maxx, q.x);
        miny = std::min(miny, q.y), maxy = std::max(maxy, q.y);
      }
      const double dx = maxx - minx, dy = maxy - miny;
      int checked = 0;
      while (checked < 400) {
        const double x = polygen::uniform(rng, minx - 0.1 * dx, maxx + 0.1 * dx);
        const double y = polygen::uniform(rng, miny - 0.1 * dy, maxy + 0.1 * dy);
        if (polygen::edgeDistance(p, x, y) < 1e-5 * (dx + dy)) continue;
        ++checked;
        ASSERT_EQ(inside(x, y), polygen::evenOddInside(p, x, y) ? 1 : 0)
            << polygen::shapeName(shape) << " holes=" << holes << " at (" << x << ", " << y << ")";
      }
    }
  }
}

// The largest polygon in a thread with a 256 KiB stack: catches a walk that
// recurses once per trapezoid (a convex polygon of 8191 vertices makes a
// walk of about 16,000 trapezoids).
TEST(triangulate, LargestPolygonOnSmallStack) {
  struct Job {
    Polygon polygon;
    bool done = false;
  } job;
  std::mt19937_64 rng(42);
  job.polygon.contours.push_back(polygen::starContour(rng, 8191, 0, 0, 1000, 1000, false));
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, 256 * 1024);
  pthread_t thread;
  ASSERT_EQ(pthread_create(
                &thread, &attr,
                [](void* arg) -> void* {
                  Job* j = static_cast<Job*>(arg);
                  tricheck::checkTriangulation(j->polygon, "spiral 8190 on a small stack");
                  j->done = true;
                  return nullptr;
                },
                &job),
            0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
  EXPECT_TRUE(job.done);
}

// Bad input is refused with a clear exception before any table changes:
// catches reads past the arrays and crashes on unsupported contours.
TEST(triangulate, RejectsBadInput) {
  // A valid polygon first, so that the tables hold something to keep.
  Polygon square;
  square.contours.push_back({{0, 0}, {10, 0}, {10, 10}, {0, 10}});
  tricheck::checkTriangulation(square, "square");

  EXPECT_NE(raised({}, {{0, 0}}).find("contour count"), std::string::npos);
  EXPECT_NE(raised({0, -1}, {{0, 0}}).find("no vertex"), std::string::npos);
  EXPECT_NE(raised({3, 2}, {{0, 0}, {0, 0}, {1, 0}, {0, 1}, {5, 5}, {6, 6}}).find("one or two points"),
            std::string::npos);
  EXPECT_NE(raised({1}, {{0, 0}, {1, 1}}).find("one or two points"), std::string::npos);
  // Every contour clockwise.
  EXPECT_NE(raised({3}, {{0, 0}, {0, 0}, {0, 1}, {1, 0}}).find("counter-clockwise"), std::string::npos);
  EXPECT_NE(raised({3}, {{0, 0}, {0, 0}, {NAN, 0}, {0, 1}}).find("finite"), std::string::npos);
  std::vector<std::array<double, 2>> big(8193);
  for (size_t i = 1; i < big.size(); ++i)
    big[i] = {std::cos(2 * M_PI * static_cast<double>(i) / 8192), std::sin(2 * M_PI * static_cast<double>(i) / 8192)};
  EXPECT_NE(raised({8192}, big).find("more than 8191"), std::string::npos);
  EXPECT_NE(raised({4000, 4000, 192}, big).find("more than 8191"), std::string::npos);
  qorInt32 sizes[1] = {3};
  try {
    triangulate(1, sizes, nullptr, nullptr);
    ADD_FAILURE() << "null arrays accepted";
  } catch (qorException* e) {
    EXPECT_NE(messageOf(e).find("null"), std::string::npos);
  }

  // The earlier polygon's map is untouched.
  EXPECT_EQ(inside(5, 5), 1);
  EXPECT_EQ(inside(15, 5), 0);
}

// 8191 vertices pass the input checks, and a polygon whose trapezoids do not
// fit the fixed table gets the overflow exception, not a write past it: an
// irregular star issues about 4.5 trapezoids per vertex (half of them merged
// away later), more than the 32767 entries hold.
TEST(triangulate, LargestVertexCountFailsOnlyOnTrapezoidOverflow) {
  std::mt19937_64 rng(8191);
  Polygon p = polygen::star(rng, 8191);
  ASSERT_EQ(p.vertexCount(), 8191);
  polygen::Flat flat = polygen::flatten(p);
  std::vector<std::array<qorInt32, 3>> out(8191 * 2);
  try {
    triangulate(1, flat.sizes.data(), flat.points(), reinterpret_cast<qorInt32(*)[3]>(out.data()));
    EXPECT_EQ(triangulate_last_count(), 8189);
  } catch (qorException* e) {
    EXPECT_NE(messageOf(e).find("newtrap: Trapezoid-table overflow"), std::string::npos);
  }
}

// After a large polygon, a small one leaves every entry it does not use as
// zero, as a full reset would: catches a partial reset that clears too little.
TEST(triangulate, SmallRunAfterLargeLeavesTablesClean) {
  std::mt19937_64 rng(7);
  tricheck::checkTriangulation(polygen::star(rng, 3000, 20), "large");
  Polygon tri;
  tri.contours.push_back({{0, 0}, {1, 0}, {0, 1}});
  tricheck::checkTriangulation(tri, "small");
  auto allZero = [](const void* p, size_t bytes) {
    const unsigned char* c = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < bytes; ++i)
      if (c[i] != 0) return false;
    return true;
  };
  EXPECT_TRUE(allZero(&seg[4], sizeof(segment_t) * (SEGSIZE - 4)));
  EXPECT_TRUE(allZero(&seg[0], sizeof(segment_t)));
  // Three segments: at most 1 + 2 * 3 trapezoids per insertion and a few nodes each.
  EXPECT_TRUE(allZero(&tr[64], sizeof(trap_t) * (TRAPSIZE - 64)));
  EXPECT_TRUE(allZero(&qs[128], sizeof(node_t) * (NODESIZE - 128)));
  EXPECT_TRUE(allZero(&tr[0], sizeof(trap_t)));
}

// A run that raises while it builds the map, after a large polygon, still
// leaves every entry beyond the ones it issued as zero (the next newtrap() and
// newnode() tell where its counters stopped). Catches a reset that clears the
// previous map only when the build succeeds.
TEST(triangulate, RaisingRunAfterLargeLeavesTablesClean) {
  auto allZero = [](const void* p, size_t bytes) {
    const unsigned char* c = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < bytes; ++i)
      if (c[i] != 0) return false;
    return true;
  };
  std::mt19937_64 largeRng(11);
  const Polygon large = polygen::star(largeRng, 1500, 5);
  std::mt19937_64 rng(20261124);
  int checked = 0;
  for (int round = 0; round < 400 && checked < 12; ++round) {
    polygen::Polygon p;
    p.contours.emplace_back();
    const int k = polygen::uniformInt(rng, 5, 25);
    for (int i = 0; i < k; ++i)
      p.contours.back().push_back(
          {static_cast<double>(polygen::uniformInt(rng, 0, 9)), static_cast<double>(polygen::uniformInt(rng, 0, 9))});
    if (polygen::twiceSignedArea(p.contours[0]) <= 0) continue;  // rejected before any table changes
    tricheck::checkTriangulation(large, "large");
    polygen::Flat flat = polygen::flatten(p);
    std::vector<std::array<qorInt32, 3>> out(static_cast<size_t>(3 * k));
    std::string text;
    try {
      triangulate(1, flat.sizes.data(), flat.points(), reinterpret_cast<qorInt32(*)[3]>(out.data()));
    } catch (qorException* e) {
      text = messageOf(e);
    }
    if (text.find("[file qor_traptree") == std::string::npos) continue;
    ++checked;
    const qorInt32 t = newtrap();
    const qorInt32 q = newnode();
    ASSERT_TRUE(allZero(&tr[t + 1], sizeof(trap_t) * static_cast<size_t>(TRAPSIZE - t - 1)))
        << "round " << round << ": " << text;
    ASSERT_TRUE(allZero(&qs[q + 1], sizeof(node_t) * static_cast<size_t>(NODESIZE - q - 1)))
        << "round " << round << ": " << text;
  }
  EXPECT_GT(checked, 0);
}

// Driven step by step on a clockwise triangle, the decomposition finds no
// trapezoid inside and raises instead of walking from entry 0. Catches a
// start trapezoid taken without the inside test.
TEST(monotonate_trapezoids, RaisesWhenNothingIsInside) {
  const double pts[3][2] = {{0, 0}, {0, 3}, {4, 0}};  // clockwise
  for (int i = 1; i <= 3; ++i) {
    seg[i].start = point_t{pts[i - 1][0], pts[i - 1][1]};
    seg[i].end = point_t{pts[i % 3][0], pts[i % 3][1]};
    seg[i].next = i % 3 + 1;
    seg[i].prev = (i + 1) % 3 + 1;
  }
  initialise(3);
  construct_trapezoids(3);
  try {
    monotonate_trapezoids(3);
    ADD_FAILURE() << "no exception";
  } catch (qorException* e) {
    EXPECT_NE(messageOf(e).find("no trapezoid lies inside"), std::string::npos);
  }
  // The same triangle counter-clockwise gives one monotone polygon and one triangle.
  for (int i = 1; i <= 3; ++i) {
    seg[i].start = point_t{pts[3 - i][0], pts[3 - i][1]};
    seg[i].end = point_t{pts[(5 - i) % 3][0], pts[(5 - i) % 3][1]};
    seg[i].next = i % 3 + 1;
    seg[i].prev = (i + 1) % 3 + 1;
  }
  initialise(3);
  construct_trapezoids(3);
  const qorInt32 polys = monotonate_trapezoids(3);
  EXPECT_EQ(polys, 1);
  qorInt32 out[1][3] = {{0, 0, 0}};
  EXPECT_EQ(triangulate_monotone_polygons(3, polys, out), 1);
}
