// Shared checks of a triangulation against its polygon.
#ifndef QOR_TESTS_TRIANGULATE_CHECK_H
#define QOR_TESTS_TRIANGULATE_CHECK_H

#include <gtest/gtest.h>
#include <qor/qor_exception.h>
#include <qor/qor_triangulate.h>

#include <algorithm>
#include <array>
#include <set>
#include <string>
#include <vector>

#include "support/polygon_generator.h"

namespace tricheck {

using Triangles = std::vector<std::array<qorInt32, 3>>;
using Rows = std::vector<std::array<double, 2>>;

// Triangles of rows 1..n: distinct corners in range, counter-clockwise with positive area (unless !positive), none
// twice, and areas adding up to `area` within a relative 1e-9.
inline void checkCover(const Triangles& tri, const Rows& rows, int n, double area, const std::string& label,
                       bool positive = true) {
  double sum = 0;
  std::set<std::array<qorInt32, 3>> seen;
  for (size_t i = 0; i < tri.size(); ++i) {
    std::array<qorInt32, 3> t = tri[i];
    ASSERT_TRUE(t[0] != t[1] && t[1] != t[2] && t[0] != t[2] && std::min({t[0], t[1], t[2]}) >= 1 &&
                std::max({t[0], t[1], t[2]}) <= n)
        << label << ": triangle " << i << " (" << t[0] << "," << t[1] << "," << t[2] << ")";
    const auto &a = rows[t[0]], &b = rows[t[1]], &c = rows[t[2]];
    const double cross = (b[0] - a[0]) * (c[1] - a[1]) - (b[1] - a[1]) * (c[0] - a[0]);
    ASSERT_TRUE(cross > 0 || !positive) << label << ": triangle " << i << " is not counter-clockwise";
    sum += std::fabs(cross) / 2;
    std::sort(t.begin(), t.end());
    ASSERT_TRUE(seen.insert(t).second || !positive) << label << ": triangle " << i << " appears twice";
  }
  EXPECT_LE(std::fabs(sum - area), 1e-9 * std::fabs(area)) << label << ": areas " << sum << " vs " << area;
}

// Triangulates raw arrays (rows from 1; the polygon's contours are the non-empty sizes) and checks n + 2h - 2
// triangles, none written past them, and the cover. Concurrent callers pass lastCount = false: the most recent
// count may be another thread's.
inline Triangles checkRaw(std::vector<qorInt32> sizes, Rows rows, const std::string& label, bool lastCount = true) {
  polygen::Polygon p;
  for (size_t c = 0, first = 1; c < sizes.size(); first += std::max(sizes[c++], 0))
    if (sizes[c] > 0) {
      p.contours.emplace_back();
      for (size_t i = first; i < first + static_cast<size_t>(sizes[c]); ++i)
        p.contours.back().push_back({rows[i][0], rows[i][1]});
    }
  const int n = p.vertexCount(), expected = n + 2 * p.holeCount() - 2;
  Triangles out(static_cast<size_t>(expected) + 4, {-7, -7, -7});
  try {
    triangulate(static_cast<qorInt32>(sizes.size()), sizes.data(), reinterpret_cast<double(*)[2]>(rows.data()),
                reinterpret_cast<qorInt32(*)[3]>(out.data()));
  } catch (qorException* e) {
    ADD_FAILURE() << label << ": raised " << e->what();
    delete e;
    return {};
  }
  EXPECT_TRUE(!lastCount || triangulate_last_count() == expected) << label << ": " << triangulate_last_count();
  EXPECT_EQ(out[static_cast<size_t>(expected)][0], -7) << label << ": a row written past the end";
  out.resize(static_cast<size_t>(expected));
  checkCover(out, rows, n, polygen::area(p), label);
  return out;
}

inline Triangles checkTriangulation(const polygen::Polygon& p, const std::string& label, bool lastCount = true) {
  polygen::Flat flat = polygen::flatten(p);
  return checkRaw(flat.sizes, flat.rows, label, lastCount);
}

// What qorTriangulateRings covers: repeated and closing points out, rings without area out (all of them if the
// outer one has none), ring 0 counter-clockwise and the others clockwise.
inline polygen::Polygon normalize(const polygen::Polygon& raw) {
  polygen::Polygon p;
  for (size_t r = 0; r < raw.contours.size(); ++r) {
    polygen::Contour c;
    for (const auto& q : raw.contours[r])
      if (c.empty() || c.back().x != q.x || c.back().y != q.y) c.push_back(q);
    while (c.size() > 1 && c.front().x == c.back().x && c.front().y == c.back().y) c.pop_back();
    const double a = c.size() < 3 ? 0 : polygen::twiceSignedArea(c);
    if (a == 0 && r == 0) return polygen::Polygon();
    if (a == 0) continue;
    if ((a > 0) != (r == 0)) std::reverse(c.begin(), c.end());
    p.contours.push_back(c);
  }
  return p;
}

// Runs qorTriangulateRings on `raw` and checks that it appends triangles (0-based indices into raw's points) that
// cover `normal`; `count` is the expected number of triangles, or -1 for any. Returns 1 when it triangulated.
inline int checkRings(const polygen::Polygon& raw, const polygen::Polygon& normal, const std::string& label,
                      int count) {
  polygen::Flat flat = polygen::flatten(raw);
  std::vector<qorInt32> tri{-5};
  try {
    const qorInt32 got =
        qorTriangulateRings(static_cast<qorInt32>(flat.sizes.size()), flat.sizes.data(), flat.points() + 1, tri);
    EXPECT_TRUE(tri.size() == 1 + 3 * static_cast<size_t>(got) && tri[0] == -5 && (count < 0 || got == count))
        << label << ": " << got << " triangles appended to " << tri.size() - 1 << " indices";
  } catch (qorException* e) {
    ADD_FAILURE() << label << ": raised " << e->what();
    delete e;
    return 0;
  }
  Triangles t((tri.size() - 1) / 3);
  for (size_t i = 0; i < t.size(); ++i) t[i] = {tri[1 + 3 * i] + 1, tri[2 + 3 * i] + 1, tri[3 + 3 * i] + 1};
  checkCover(t, flat.rows, raw.vertexCount(), polygen::area(normal), label);
  return 1;
}

}  // namespace tricheck

#endif
