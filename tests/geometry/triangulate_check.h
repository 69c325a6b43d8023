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

#include "polygon_generator.h"

namespace tricheck {

using Triangles = std::vector<std::array<qorInt32, 3>>;

// Checks triangles of vertices `base`..`base + n - 1` over `rows`: three distinct vertices in range, counter-
// clockwise with positive area, none twice (unless !positive), areas adding up to `area` within a relative 1e-9.
inline void checkCover(const Triangles& tri, const std::vector<std::array<double, 2>>& rows, int base, int n,
                       double area, const std::string& label, bool positive = true) {
  double sum = 0;
  std::set<std::array<qorInt32, 3>> seen;
  for (size_t i = 0; i < tri.size(); ++i) {
    const auto& t = tri[i];
    const bool ok = t[0] >= base && t[1] >= base && t[2] >= base && t[0] < base + n && t[1] < base + n &&
                    t[2] < base + n && t[0] != t[1] && t[1] != t[2] && t[0] != t[2];
    ASSERT_TRUE(ok) << label << ": triangle " << i << " (" << t[0] << "," << t[1] << "," << t[2] << ")";
    const auto &a = rows[t[0]], &b = rows[t[1]], &c = rows[t[2]];
    const double cross = (b[0] - a[0]) * (c[1] - a[1]) - (b[1] - a[1]) * (c[0] - a[0]);
    ASSERT_TRUE(cross > 0 || !positive) << label << ": triangle " << i << " is not counter-clockwise";
    sum += std::fabs(cross) / 2;
    if (!positive) continue;
    std::array<qorInt32, 3> key = t;
    std::sort(key.begin(), key.end());
    ASSERT_TRUE(seen.insert(key).second) << label << ": triangle " << i << " appears twice";
  }
  EXPECT_LE(std::fabs(sum - area), 1e-9 * std::fabs(area)) << label << ": areas " << sum << " vs " << area;
}

// Triangulates raw arrays (rows from 1) and checks n + 2h - 2 triangles for h holes, none written past them, and
// the cover. Concurrent callers pass lastCount = false: the most recent count may be another thread's.
inline Triangles checkRaw(std::vector<qorInt32> sizes, std::vector<std::array<double, 2>> rows,
                          const std::string& label, bool lastCount = true) {
  int n = 0, contours = 0;
  double twice = 0;
  for (size_t c = 0, first = 1; c < sizes.size(); ++c) {
    if (sizes[c] <= 0) continue;
    ++contours;
    for (size_t i = first; i < first + static_cast<size_t>(sizes[c]); ++i) {
      const auto& a = rows[i];
      const auto& b = rows[i + 1 == first + static_cast<size_t>(sizes[c]) ? first : i + 1];
      twice += a[0] * b[1] - a[1] * b[0];
    }
    first += static_cast<size_t>(sizes[c]);
    n += sizes[c];
  }
  const int expected = n + 2 * (contours - 1) - 2;
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
  for (size_t i = static_cast<size_t>(expected); i < out.size(); ++i)
    EXPECT_EQ(out[i][0], -7) << label << ": row " << i << " written past the end";
  out.resize(static_cast<size_t>(expected));
  checkCover(out, rows, 1, n, twice / 2, label);
  return out;
}

inline Triangles checkTriangulation(const polygen::Polygon& p, const std::string& label, bool lastCount = true) {
  polygen::Flat flat = polygen::flatten(p);
  return checkRaw(flat.sizes, flat.rows, label, lastCount);
}

// Repeated and closing points out, rings without area out (all of them if the outer one has none), ring 0
// counter-clockwise and the others clockwise: the polygon that qorTriangulateRings covers.
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

// Runs qorTriangulateRings on `raw` and checks that its triangles cover `normal` (0-based indices into raw's
// points); `count` is the expected number of triangles, or -1 for any. Returns 1 when it triangulated.
inline int checkRings(const polygen::Polygon& raw, const polygen::Polygon& normal, const std::string& label,
                      int count) {
  polygen::Flat flat = polygen::flatten(raw);
  std::vector<qorInt32> tri{-5};
  try {
    const qorInt32 got =
        qorTriangulateRings(static_cast<qorInt32>(flat.sizes.size()), flat.sizes.data(), flat.points() + 1, tri);
    EXPECT_EQ(tri.size(), 1 + 3 * static_cast<size_t>(got)) << label;
    EXPECT_TRUE(count < 0 || got == count) << label << ": " << got << " triangles";
  } catch (qorException* e) {
    ADD_FAILURE() << label << ": raised " << e->what();
    delete e;
    return 0;
  }
  EXPECT_EQ(tri[0], -5) << label << ": the vector was not appended to";
  Triangles t((tri.size() - 1) / 3);
  for (size_t i = 0; i < t.size(); ++i) t[i] = {tri[1 + 3 * i] + 1, tri[2 + 3 * i] + 1, tri[3 + 3 * i] + 1};
  checkCover(t, flat.rows, 1, raw.vertexCount(), polygen::area(normal), label);
  return 1;
}

}  // namespace tricheck

#endif
