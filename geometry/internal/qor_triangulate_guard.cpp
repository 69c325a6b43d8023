#include "qor_triangulate_guard.h"

#include <qor/qor_assert.h>
#include <qor/qor_triangulate.h>
#include <sys/time.h>

#include <atomic>
#include <cfloat>
#include <cmath>
#include <string>

#include "qor_predicates.h"

namespace qor_internal {

namespace {

const char kUnit[] = "qor_triangulate";

[[noreturn]] void contourFailed(qorInt32 contour, const char* what, unsigned long line) {
  const std::string detail = "contour " + std::to_string(contour + 1) + what;
  qorThrowComposed("triangulate: ", detail.c_str(), kUnit, line);
}

}  // namespace

void checkContours(qorInt32 count, const qorInt32* sizes, const double (*rows)[2], ContourSummary& out) {
  // One pass. Areas are summed from the first point, which keeps the terms (and their rounding) as small as the
  // polygon's extent.
  const double ox = rows[1][0], oy = rows[1][1];
  double extent = 0;
  double total = 0;
  qorInt32 n = 0;
  bool outer = true;
  for (qorInt32 c = 0, first = 1; c < count; ++c) {
    const qorInt32 k = sizes[c];
    if (k <= 0) continue;
    const qorInt32 last = first + k - 1;
    n += k;
    if (rows[last][0] == rows[first][0] && rows[last][1] == rows[first][1])
      contourFailed(c, " repeats its first point at its end", __LINE__);
    double twice = 0;
    double px = rows[last][0] - ox, py = rows[last][1] - oy;
    for (qorInt32 i = first; i <= last; ++i) {
      const double x = rows[i][0] - ox, y = rows[i][1] - oy;
      if (!std::isfinite(x) || !std::isfinite(y))
        qorThrow("triangulate: a coordinate is not a finite number", kUnit, __LINE__);
      if (x == px && y == py) {
        const std::string what = " repeats point " + std::to_string(i - first) + " right after itself";
        contourFailed(c, what.c_str(), __LINE__);
      }
      const double ax = std::fabs(x), ay = std::fabs(y);
      extent = ax > extent ? ax : extent;
      extent = ay > extent ? ay : extent;
      twice += px * y - py * x;
      px = x;
      py = y;
    }
    if (outer ? !(twice > 0) : !(twice < 0))
      contourFailed(c, " runs the wrong way (outer counter-clockwise, holes clockwise)", __LINE__);
    total += twice;
    outer = false;
    first = last + 1;
  }
  out.originX = ox;
  out.originY = oy;
  out.extent = extent;
  out.twiceArea = total;
  out.vertices = n;
}

void checkCover(const ContourSummary& s, const double (*rows)[2], const qorInt32 (*triangles)[3], qorInt32 count) {
  double sum = 0;
  for (qorInt32 t = 0; t < count; ++t) {
    const double* a = rows[triangles[t][0]];
    const double* b = rows[triangles[t][1]];
    const double* c = rows[triangles[t][2]];
    sum += std::fabs((b[0] - a[0]) * (c[1] - a[1]) - (b[1] - a[1]) * (c[0] - a[0]));
  }
  if (!(std::fabs(sum - s.twiceArea) <= areaTolerance(s.extent, static_cast<long>(s.vertices) + count)))
    qorThrow("triangulate: the triangles do not cover the polygon (do contours touch or cross?)", kUnit, __LINE__);
}

namespace {

std::atomic<bool> seedFixed{false};
std::atomic<long> fixedSeed{0};
thread_local long lastSeed = 0;

}  // namespace

long runSeed() {
  long seed;
  if (seedFixed.load(std::memory_order_acquire)) {
    seed = fixedSeed.load(std::memory_order_relaxed);
  } else {
    struct timeval now;
    gettimeofday(&now, nullptr);
    seed = static_cast<long>(now.tv_sec);
  }
  lastSeed = seed;
  return seed;
}

}  // namespace qor_internal

void qorTriangulateFixSeed(long seed) {
  qor_internal::fixedSeed.store(seed, std::memory_order_relaxed);
  qor_internal::seedFixed.store(true, std::memory_order_release);
}

void qorTriangulateClockSeed() { qor_internal::seedFixed.store(false, std::memory_order_release); }

long qorTriangulateLastSeed() { return qor_internal::lastSeed; }
