// Threads at once: the triangulator's entry points share process-wide tables behind one lock, and PolySplitter
// objects share nothing. Every result must be exact and ThreadSanitizer must see no race.
#include <gtest/gtest.h>
#include <qor/qor_polysplit.h>
#include <qor/qor_triangulate.h>

#include <QLine>
#include <QPolygon>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/polygon_generator.h"
#include "triangulate_check.h"

// Catches a missing or partial lock around the triangulator's tables, and state the ring engine shares between threads
// (its storage is per thread, given back after 65,536 points) or output that differs by run or thread.
TEST(triangulateStress, FourThreadsAtOnce) {
  std::mt19937_64 rng(2026);
  const std::vector<polygen::Polygon> big = {polygen::coastMap(rng, 3000, 4)[0], polygen::gridHoles(rng, 12),
                                             polygen::meander(3000, true), polygen::coastMap(rng, 70000, 9)[0]};
  std::vector<std::vector<qorInt32>> alone;
  for (const polygen::Polygon& p : big) alone.push_back(tricheck::checkRings(p, polygen::normalize(p), "alone", -1));
  std::vector<std::thread> threads;
  for (int k = 0; k < 4; ++k)
    threads.emplace_back([k, &big, &alone] {
      std::mt19937_64 rng(500 + static_cast<unsigned>(k));
      for (int round = 0; round < 25; ++round) {
        polygen::Polygon p = polygen::shape(k + round, rng, 60 + 20 * k, round % 4);
        const std::string label = "thread " + std::to_string(k) + " round " + std::to_string(round);
        tricheck::checkTriangulation(p, label, false);
        double far[2] = {1e7, -1e7};  // outside whichever polygon the map holds now
        EXPECT_EQ(is_point_inside_polygon(far), 0) << label;
        const size_t b = static_cast<size_t>(k + round / 3) % big.size();  // every third round, a large polygon
        EXPECT_TRUE(round % 3 || tricheck::checkRings(big[b], polygen::normalize(big[b]), label, -1) == alone[b]);
      }
    });
  for (auto& t : threads) t.join();
}

// Catches hidden shared state (a static buffer, a shared scratch vector) between splitter objects.
TEST(PolySplitterStress, SeparateObjectsOnSeparateThreads) {
  QPolygon strip;
  for (int i = 0; i < 200; ++i) strip.append(QPoint(10 * i, i % 2 ? 2 : 0));
  for (int i = 199; i >= 0; --i) strip.append(QPoint(10 * i, i % 2 ? 8 : 10));
  const QLine line(-5, 1, 2000, 9);
  PolySplitter reference;
  const std::vector<QPolygon> split = reference.Split(strip, line), divided = reference.Divide(strip, 8);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      PolySplitter own;
      for (int round = 0; round < 50; ++round) {
        EXPECT_EQ(own.Split(strip, line), split) << "thread " << t;
        EXPECT_EQ(own.Divide(strip, 8), divided) << "thread " << t;
      }
    });
  for (std::thread& thread : threads) thread.join();
}
