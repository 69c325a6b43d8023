// Shared checks of a triangulation against its polygon.
#ifndef QOR_TESTS_TRIANGULATE_CHECK_H
#define QOR_TESTS_TRIANGULATE_CHECK_H

#include <gtest/gtest.h>
#include <qor/qor_exception.h>
#include <qor/qor_triangulate.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <set>
#include <string>
#include <vector>

#include "support/polygon_generator.h"

namespace tricheck {

constexpr qorInt32 kSentinel = -7;

// Triangulates p and checks every invariant a valid polygon promises: n + 2h
// - 2 triangles, each of three distinct vertices, counter-clockwise with
// non-zero area, no triangle twice, the areas adding up to the polygon's,
// and no row written past the last one. Returns the triangles. Concurrent
// callers pass lastCount = false: the count of the most recent call in the
// process may then be another thread's.
inline std::vector<std::array<qorInt32, 3>> checkTriangulation(const polygen::Polygon& p, const std::string& label,
                                                               bool lastCount = true) {
  polygen::Flat flat = polygen::flatten(p);
  const int n = p.vertexCount();
  const int expected = n + 2 * p.holeCount() - 2;
  std::vector<std::array<qorInt32, 3>> rows(static_cast<size_t>(expected) + 4, {kSentinel, kSentinel, kSentinel});
  try {
    triangulate(static_cast<qorInt32>(flat.sizes.size()), flat.sizes.data(), flat.points(),
                reinterpret_cast<qorInt32(*)[3]>(rows.data()));
  } catch (qorException* e) {
    ADD_FAILURE() << label << ": raised " << e->what();
    delete e;
    return {};
  }
  if (lastCount) {
    EXPECT_EQ(triangulate_last_count(), expected) << label;
  }
  for (size_t i = static_cast<size_t>(expected); i < rows.size(); ++i)
    EXPECT_EQ(rows[i][0], kSentinel) << label << ": row " << i << " written past the end";
  rows.resize(static_cast<size_t>(expected));

  double sum = 0;
  std::set<std::array<qorInt32, 3>> seen;
  int bad = 0;
  for (size_t i = 0; i < rows.size() && bad < 5; ++i) {
    const auto& t = rows[i];
    bool ok = true;
    for (qorInt32 v : t) ok = ok && v >= 1 && v <= n;
    ok = ok && t[0] != t[1] && t[1] != t[2] && t[0] != t[2];
    if (!ok) {
      ADD_FAILURE() << label << ": triangle " << i << " (" << t[0] << "," << t[1] << "," << t[2] << ") is malformed";
      ++bad;
      continue;
    }
    const auto& a = flat.rows[t[0]];
    const auto& b = flat.rows[t[1]];
    const auto& c = flat.rows[t[2]];
    const double cross = (b[0] - a[0]) * (c[1] - a[1]) - (b[1] - a[1]) * (c[0] - a[0]);
    if (!(cross > 0)) {
      ADD_FAILURE() << label << ": triangle " << i << " (" << t[0] << "," << t[1] << "," << t[2]
                    << ") is not counter-clockwise with positive area: " << cross;
      ++bad;
    }
    sum += cross / 2;
    std::array<qorInt32, 3> key = t;
    std::sort(key.begin(), key.end());
    if (!seen.insert(key).second) {
      ADD_FAILURE() << label << ": triangle " << i << " appears twice";
      ++bad;
    }
  }
  const double area = polygen::area(p);
  EXPECT_LE(std::fabs(sum - area), 1e-9 * std::fabs(area)) << label << ": areas " << sum << " vs " << area;
  return rows;
}

}  // namespace tricheck

#endif
