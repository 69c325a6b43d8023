// libFuzzer target for the triangulator.
//
// Input: byte 0 gives the number of contours (1 to 4); then each contour is a
// byte giving its size (3 to 34 points) and one byte per coordinate, on a
// small grid so that points repeat, edges touch and contours cross. Every run
// must either triangulate or raise a qorException*, never crash or hang. The
// ring entry point returns counter-clockwise triangles on input vertices.
// Where the validity check finds the oriented contours simple, the triangles'
// areas add up to the polygon's, and the plain triangulator on them gives
// n + 2h - 2 triangles whose areas add up too.
#include <qor/qor_exception.h>
#include <qor/qor_polycheck.h>
#include <qor/qor_triangulate.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

namespace {

using Point = std::array<double, 2>;

void check(bool ok) {
  if (!ok) __builtin_trap();
}

double signedArea(const Point* p, size_t n) {
  double a = 0;
  for (size_t i = 0, j = n - 1; i < n; j = i++) a += (p[j][0] - p[i][0]) * (p[j][1] + p[i][1]);
  return a / 2;
}

// Every triangle counter-clockwise on pts[v - base], and their areas adding
// up to the polygon's unless area < 0.
void checkTriangles(const std::vector<Point>& pts, const std::vector<qorInt32>& tris, qorInt32 base, double area) {
  double sum = 0;
  for (size_t t = 0; t < tris.size(); t += 3) {
    Point tri[3];
    for (int k = 0; k < 3; ++k) {
      const qorInt32 v = tris[t + k] - base;
      check(v >= 0 && static_cast<size_t>(v) < pts.size());
      tri[k] = pts[v];
    }
    sum += signedArea(tri, 3);
    check(signedArea(tri, 3) >= -1e-9);
  }
  if (area >= 0) check(std::fabs(sum - area) <= 1e-9 * std::max(1.0, area));
}

template <typename F>
void raisesOrChecks(F run) {
  try {
    run();
  } catch (qorException* e) {
    check(e->what() != nullptr);
    delete e;
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qorTriangulateFixSeed(20261124);  // a crash reproduces
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  size_t pos = 1;
  std::vector<qorInt32> sizes;
  std::vector<Point> pts;
  for (int c = 1 + data[0] % 4; c > 0 && pos < size; --c) {
    const int n = 3 + data[pos++] % 32;
    if (pos + 2 * n > size) break;
    for (int i = 0; i < n; ++i, pos += 2) pts.push_back({double(data[pos] % 64), double(data[pos + 1] % 64)});
    sizes.push_back(n);
  }
  if (sizes.empty()) return 0;
  const qorInt32 count = static_cast<qorInt32>(sizes.size());

  // The contours as the plain triangulator takes them: repeated points
  // dropped, outer counter-clockwise, holes clockwise.
  std::vector<Point> rows(1);
  std::vector<qorInt32> kept;
  double area = 0;
  bool valid = true;
  for (size_t c = 0, at = 0; c < sizes.size(); at += sizes[c++]) {
    const size_t start = rows.size();
    for (int i = 0; i < sizes[c]; ++i)
      if (rows.size() == start || rows.back() != pts[at + i]) rows.push_back(pts[at + i]);
    while (rows.size() - start > 1 && rows.back() == rows[start]) rows.pop_back();
    const double a = rows.size() - start < 3 ? 0 : signedArea(&rows[start], rows.size() - start);
    valid = valid && a != 0;
    area += c == 0 ? std::fabs(a) : -std::fabs(a);
    if ((c == 0) != (a > 0)) std::reverse(rows.begin() + start, rows.end());
    kept.push_back(static_cast<qorInt32>(rows.size() - start));
  }
  valid = valid && qorCheckPolygon(count, kept.data(), reinterpret_cast<const double(*)[2]>(&rows[1])).empty();

  raisesOrChecks([&] {
    std::vector<qorInt32> tris;
    const qorInt32 made =
        qorTriangulateRings(count, sizes.data(), reinterpret_cast<const double(*)[2]>(pts.data()), tris);
    check(tris.size() == 3 * static_cast<size_t>(made));
    checkTriangles(pts, tris, 0, valid ? area : -1);
  });
  if (!valid) return 0;
  raisesOrChecks([&] {
    const qorInt32 n = static_cast<qorInt32>(rows.size() - 1);
    std::vector<qorInt32> tris(3 * (n + 2 * count));
    triangulate(count, kept.data(), reinterpret_cast<double(*)[2]>(rows.data()),
                reinterpret_cast<qorInt32(*)[3]>(tris.data()));
    tris.resize(3 * static_cast<size_t>(triangulate_last_count()));
    check(tris.size() == 3 * static_cast<size_t>(n + 2 * (count - 1) - 2));
    checkTriangles(std::vector<Point>(rows.begin() + 1, rows.end()), tris, 1, area);
  });
  return 0;
}
