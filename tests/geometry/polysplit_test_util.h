// Helpers shared by the polygon splitter tests.
#ifndef QOR_POLYSPLIT_TEST_UTIL_H
#define QOR_POLYSPLIT_TEST_UTIL_H

#include <QPolygon>
#include <cstdint>
#include <vector>

namespace polysplittest {

// Twice the signed area, exact.
inline int64_t area2(const QPolygon& poly) {
  int64_t sum = 0;
  const int n = poly.size();
  for (int i = 0; i < n; ++i) {
    const QPoint& a = poly[i];
    const QPoint& b = poly[(i + 1) % n];
    sum += static_cast<int64_t>(a.x()) * b.y() - static_cast<int64_t>(b.x()) * a.y();
  }
  return sum;
}

// Twice the summed signed area of the pieces.
inline int64_t area2(const std::vector<QPolygon>& pieces) {
  int64_t sum = 0;
  for (const QPolygon& p : pieces) sum += area2(p);
  return sum;
}

}  // namespace polysplittest

#endif
