// Shared checks of a triangulation against its polygon.
#ifndef QOR_TESTS_TRIANGULATE_CHECK_H
#define QOR_TESTS_TRIANGULATE_CHECK_H

#include <gtest/gtest.h>
#include <qor/qor_exception.h>
#include <qor/qor_triangulate.h>

#include <array>
#include <string>
#include <vector>

#include "support/polygon_generator.h"

namespace tricheck {

using polygen::normalize;
using Triangles = polygen::Triangles;
using Rows = std::vector<std::array<double, 2>>;

inline void checkCover(const Triangles& tri, const Rows& rows, int n, double area, const std::string& label,
                       bool positive = true) {
  EXPECT_EQ(polygen::coverProblem(tri, rows, n, area, positive), "") << label;
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

// Runs qorTriangulateRings on `raw` and checks that it appends triangles (0-based indices into raw's points) that cover
// `normal`, `count` of them (-1: any), `centroids` of them inside it. Returns them (nothing when it raised).
inline std::vector<qorInt32> checkRings(const polygen::Polygon& raw, const polygen::Polygon& normal,
                                        const std::string& label, int count, size_t centroids = 20) {
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
    return {};
  }
  Triangles t((tri.size() - 1) / 3);
  for (size_t i = 0; i < t.size(); ++i) t[i] = {tri[1 + 3 * i] + 1, tri[2 + 3 * i] + 1, tri[3 + 3 * i] + 1};
  checkCover(t, flat.rows, raw.vertexCount(), polygen::area(normal), label);
  EXPECT_EQ(polygen::outsideProblem(normal, true, t, flat.rows, t.size() / centroids + 1), "") << label;
  return std::vector<qorInt32>(tri.begin() + 1, tri.end());
}

}  // namespace tricheck

#endif
