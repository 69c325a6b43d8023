// libFuzzer target for the triangulator. Input: byte 0 gives the number of contours (1 to 4); then each contour is
// a byte giving its size (3 to 34 points) and one byte per coordinate, on a small grid so that points repeat, edges
// touch and contours cross. Every run triangulates or raises a qorException*, never crashes or hangs; the ring
// entry point returns counter-clockwise triangles on input vertices, and the fill call, which must not raise on these
// points, what the oracle expects under both rules. Where the validity check finds the normalized contours simple,
// the areas add up, and the plain triangulator on them gives n + 2h - 2 triangles that do too.
#include <qor/qor_exception.h>
#include <qor/qor_rings.h>
#include <qor/qor_triangulate.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "support/polygon_generator.h"

namespace {

void check(bool ok) {
  if (!ok) __builtin_trap();
}

// Runs `run`; a qorException* it raises must carry a message that contains `only`.
template <typename F>
void raisesOrChecks(const char* only, F run) {
  try {
    run();
  } catch (qorException* e) {
    check(e->what() != nullptr && std::strstr(e->what(), only) != nullptr);
    delete e;
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qorTriangulateFixSeed(20261124);  // a crash reproduces
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  polygen::Polygon raw;
  for (size_t pos = 1, c = size > 0 ? 1 + data[0] % 4 : 0; c > 0 && pos < size; --c) {
    const size_t n = 3 + data[pos++] % 32;
    if (pos + 2 * n > size) break;
    raw.contours.emplace_back();
    for (size_t i = 0; i < n; ++i, pos += 2)
      raw.contours.back().push_back({double(data[pos] % 64), double(data[pos + 1] % 64)});
  }
  if (raw.contours.empty()) return 0;
  const polygen::Polygon normal = polygen::normalize(raw);
  polygen::Flat given = polygen::flatten(raw), flat = polygen::flatten(normal);
  const qorInt32 count = static_cast<qorInt32>(raw.contours.size()), n = normal.vertexCount();
  const bool valid = normal.contours.size() == raw.contours.size() &&
                     qorCheckPolygon(count, flat.sizes.data(), flat.points() + 1).empty();
  const double area = valid ? polygen::area(normal) : NAN;

  raisesOrChecks("", [&] {
    std::vector<qorInt32> tris;
    const qorInt32 made = qorTriangulateRings(count, given.sizes.data(), given.points() + 1, tris);
    check(tris.size() == 3 * static_cast<size_t>(made));
    polygen::Triangles t(static_cast<size_t>(made));
    for (size_t i = 0; i < t.size(); ++i) t[i] = {tris[3 * i] + 1, tris[3 * i + 1] + 1, tris[3 * i + 2] + 1};
    // Overlapping rings may share a triangle; only valid input must give each once, counter-clockwise.
    check(polygen::coverProblem(t, given.rows, raw.vertexCount(), area, valid).empty());
  });
  for (const qorFillRule rule : {qorFillEvenOdd, qorFillNonZero}) {
    std::vector<qorInt32> tris;
    std::vector<double> added;
    qorTriangulateRingsFill(count, given.sizes.data(), given.points() + 1, rule, tris, added);
    check(polygen::fillProblem(raw, rule == qorFillEvenOdd, tris, added).empty());
  }
  if (!valid) return 0;
  raisesOrChecks("", [&] {
    polygen::Triangles t(static_cast<size_t>(n + 2 * count));
    triangulate(count, flat.sizes.data(), flat.points(), reinterpret_cast<qorInt32(*)[3]>(t.data()));
    t.resize(static_cast<size_t>(triangulate_last_count()));
    check(t.size() == static_cast<size_t>(n + 2 * (count - 1) - 2));
    check(polygen::coverProblem(t, flat.rows, n, area).empty());
  });
  return 0;
}
