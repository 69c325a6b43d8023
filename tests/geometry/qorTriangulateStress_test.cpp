#include <gtest/gtest.h>
#include <qor/qor_triangulate.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "polygon_generator.h"
#include "triangulate_check.h"

// Four threads triangulate different polygons at once while the tables are
// process-wide: every result must still be exact and ThreadSanitizer must see
// no race, through either entry point. Catches a missing or partial lock around the shared tables.
TEST(triangulateStress, FourThreadsAtOnce) {
  std::atomic<int> queries{0};
  std::vector<std::thread> threads;
  for (int k = 0; k < 4; ++k) {
    threads.emplace_back([k, &queries] {
      std::mt19937_64 rng(500 + static_cast<unsigned>(k));
      for (int round = 0; round < 25; ++round) {
        polygen::Polygon p = polygen::shape(k + round, rng, 60 + 20 * k, round % 4);
        const std::string label = "thread " + std::to_string(k) + " round " + std::to_string(round);
        tricheck::checkTriangulation(p, label, false);
        tricheck::checkRings(p, p, label + " as rings", p.vertexCount() + 2 * p.holeCount() - 2);
        double point[2] = {p.contours[0][0].x, p.contours[0][0].y};
        const qorInt32 inside = is_point_inside_polygon(point);
        EXPECT_TRUE(inside == 0 || inside == 1);
        ++queries;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(queries.load(), 100);
}
