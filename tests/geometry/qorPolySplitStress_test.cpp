// PolySplitter objects on separate threads share nothing: each thread's
// results match those of the main thread.
#include <gtest/gtest.h>
#include <qor/qor_polysplit.h>

#include <QLine>
#include <QPoint>
#include <QPolygon>
#include <thread>
#include <vector>

namespace {

QPolygon zigzagStrip(int n) {
  QPolygon poly;
  for (int i = 0; i < n / 2; ++i) poly.append(QPoint(10 * i, i % 2 ? 2 : 0));
  for (int i = n / 2 - 1; i >= 0; --i) poly.append(QPoint(10 * i, i % 2 ? 8 : 10));
  return poly;
}

// Catches hidden shared state (a static buffer, a shared scratch vector)
// between splitter objects used at the same time.
TEST(PolySplitterStress, SeparateObjectsOnSeparateThreads) {
  const QPolygon strip = zigzagStrip(400);
  const QLine line(-5, 1, 2000, 9);
  PolySplitter reference;
  const std::vector<QPolygon> expectedSplit = reference.Split(strip, line);
  const std::vector<QPolygon> expectedDivide = reference.Divide(strip, 8);

  constexpr int kThreads = 4;
  std::vector<int> mismatches(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      PolySplitter own;
      for (int round = 0; round < 50; ++round) {
        if (own.Split(strip, line) != expectedSplit) ++mismatches[t];
        if (own.Divide(strip, 8) != expectedDivide) ++mismatches[t];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(mismatches[t], 0) << "thread " << t;
}

}  // namespace
