// libFuzzer target for the polygon splitter. Input: byte 0 gives the vertex
// count (3 to 42), then one byte per coordinate, four for the split line, one
// for the rank of Break and one for the piece size of Divide. The polygon is
// turned counter-clockwise, otherwise taken as it comes (self-touching and
// crossing outlines included). Every call returns, and the pieces' signed
// areas add up to the polygon's: bridges add edge pairs that cancel, so only
// crossing points truncated to integers move the sum, by less than an edge's
// length per point.
#include <qor/qor_polysplit.h>

#include <QLine>
#include <QPolygon>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

void check(bool ok) {
  if (!ok) __builtin_trap();
}

double area(const QPolygon& p) {
  double a = 0;
  for (int i = 0, j = p.size() - 1; i < p.size(); j = i++)
    a += double(p[j].x() - p[i].x()) * double(p[j].y() + p[i].y());
  return a / 2;
}

void checkPieces(const QPolygon& poly, const std::vector<QPolygon>& pieces) {
  double sum = 0;
  long vertices = 0;
  for (const QPolygon& piece : pieces) sum += area(piece), vertices += piece.size();
  const QRect box = poly.boundingRect();
  const double allowance = 1e-9 + double(vertices) * (std::hypot(box.width(), box.height()) + 2);
  check(std::fabs(sum - area(poly)) <= allowance);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const int n = 3 + data[0] % 40;
  if (size < 1 + 2 * static_cast<size_t>(n) + 6) return 0;
  const uint8_t* p = data + 1;
  QPolygon poly;
  for (int i = 0; i < n; ++i, p += 2) poly << QPoint(static_cast<int8_t>(p[0]) / 4, static_cast<int8_t>(p[1]) / 4);
  if (area(poly) < 0) std::reverse(poly.begin(), poly.end());
  const QLine line(static_cast<int8_t>(p[0]) / 3, static_cast<int8_t>(p[1]) / 3, static_cast<int8_t>(p[2]) / 3,
                   static_cast<int8_t>(p[3]) / 3);
  PolySplitter splitter;
  checkPieces(poly, splitter.Split(poly, line));
  checkPieces(poly, splitter.Break(poly, p[4] % (n + 2)));
  checkPieces(poly, splitter.Divide(poly, p[5] % (n + 2)));
  return 0;
}
