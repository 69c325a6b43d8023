// Polygon splitting along a line, and breaking and division by axis-parallel
// cuts.
//
// The polygon becomes one ring of PolyEdge elements with a crossing point
// inserted wherever an edge crosses the line. The on-line elements are sorted
// along the line and paired; each pair is joined by a bridge, which adds two
// copies and relinks the ring so that it falls into two. Every ring left at
// the end is one piece.
//
// Invariant kept by every step: Next is a permutation of the list's elements
// and Prev its inverse. A bridge between two distinct elements preserves it
// (it only exchanges the successors of the two elements' predecessors through
// the new copies), so every walk along Next returns to its start within
// SplitPoly.size() steps.
#include <qor/qor_assert.h>
#include <qor/qor_polysplit.h>

#include <QPointF>
#include <QVector2D>
#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace {

const char kUnit[] = "qor_polysplit";

using LineSide = PolySplitter::LineSide;
using PolyEdge = PolySplitter::PolyEdge;

// The classification threshold, compared in single precision.
constexpr float kOnTolerance = 0.1f;

// Side of p relative to the line. d is the distance from the line times the
// line's length, computed in double and compared in float; a value that does
// not fit a float keeps its sign, a value that is not a number is On.
LineSide classify(const QPoint& p, double x1, double y1, double x2, double y2) {
  const double d = (static_cast<double>(p.x()) - x1) * (y2 - y1) - (static_cast<double>(p.y()) - y1) * (x2 - x1);
  if (d > static_cast<double>(FLT_MAX)) return LineSide::Right;
  if (d < -static_cast<double>(FLT_MAX)) return LineSide::Left;
  const float f = static_cast<float>(d);
  if (f > kOnTolerance) return LineSide::Right;
  if (f < -kOnTolerance) return LineSide::Left;
  return LineSide::On;
}

// A coordinate of a crossing point, truncated toward zero. The true crossing
// lies between the edge's end coordinates a and b; rounding can push the
// computed one past them only for coordinates beyond about 2^24, and then it
// is brought back to the nearer end so that the conversion stays defined.
int truncateCrossing(double v, int a, int b) {
  const double lo = std::min(a, b);
  const double hi = std::max(a, b);
  if (!(v >= lo)) v = lo;  // also catches a value that is not a number
  if (v > hi) v = hi;
  return static_cast<int>(v);
}

int clampToInt(int64_t v) { return static_cast<int>(std::min<int64_t>(std::max<int64_t>(v, INT_MIN), INT_MAX)); }

// Positions along the line, ascending; a position that is not a number sorts
// after every other, so the order stays a strict weak ordering.
bool positionLess(double a, double b) {
  if (std::isnan(a)) return false;
  if (std::isnan(b)) return true;
  return a < b;
}

// Checks an element taken from OnLineEdges before the pairing reads its
// neighbours.
PolyEdge* onLineElement(PolyEdge* e) {
  if (e == nullptr || e->Side != LineSide::On || e->Prev == nullptr || e->Next == nullptr)
    qorThrow("curSide == LineSide::On", kUnit, __LINE__);
  return e;
}

bool isSource(const PolyEdge* e) {
  const LineSide p = e->Prev->Side;
  const LineSide q = e->Next->Side;
  if (p == LineSide::Left && q == LineSide::Right) return true;
  if (p == LineSide::Left && q == LineSide::On) return e->LineDistance > e->Next->LineDistance;
  if (p == LineSide::On && q == LineSide::Right) return e->LineDistance > e->Prev->LineDistance;
  return false;
}

bool isTarget(const PolyEdge* e) {
  const LineSide p = e->Prev->Side;
  const LineSide q = e->Next->Side;
  switch (p) {
    case LineSide::On:
      return q == LineSide::Left;
    case LineSide::Right:
      return true;  // (Right, Left), (Right, On), (Right, Right)
    case LineSide::Left:
      return q == LineSide::Left;
  }
  return false;
}

// Points the copied list's links and on-line pointers at the copy's own
// elements. Links that do not point into the source list become null.
void relink(const std::list<PolyEdge>& from, std::list<PolyEdge>& to, const std::vector<PolyEdge*>& fromOnLine,
            std::vector<PolyEdge*>& toOnLine) {
  std::unordered_map<const PolyEdge*, PolyEdge*> map;
  map.reserve(from.size());
  auto out = to.begin();
  for (const PolyEdge& e : from) map.emplace(&e, &*out++);
  auto find = [&map](const PolyEdge* e) -> PolyEdge* {
    auto it = map.find(e);
    return it == map.end() ? nullptr : it->second;
  };
  for (PolyEdge& e : to) {
    e.Next = find(e.Next);
    e.Prev = find(e.Prev);
  }
  toOnLine.clear();
  toOnLine.reserve(fromOnLine.size());
  for (const PolyEdge* e : fromOnLine) toOnLine.push_back(find(e));
}

// The bounding box of a non-empty polygon, corners included; its width and
// height can exceed int, so they are taken in 64 bits.
struct Box {
  int minX = INT_MAX, maxX = INT_MIN, minY = INT_MAX, maxY = INT_MIN;
  int64_t width() const { return static_cast<int64_t>(maxX) - minX; }
  int64_t height() const { return static_cast<int64_t>(maxY) - minY; }
};

Box boundsOf(const QPolygon& poly) {
  Box box;
  for (const QPoint& p : poly) {
    box.minX = std::min(box.minX, p.x());
    box.maxX = std::max(box.maxX, p.x());
    box.minY = std::min(box.minY, p.y());
    box.maxY = std::max(box.maxY, p.y());
  }
  return box;
}

// Width plus height of the bounding box; a remainder of Divide whose box does
// not shrink is making no progress.
int64_t extent(const QPolygon& poly) {
  if (poly.isEmpty()) return 0;
  const Box box = boundsOf(poly);
  return box.width() + box.height();
}

// Breaks in a row without a smaller bounding box before Divide keeps a
// remainder as it is. A well-formed remainder shrinks at every break, except
// that truncating a crossing point can hold one edge of the box for a break.
constexpr int kMaxStalledBreaks = 8;

}  // namespace

PolySplitter::PolySplitter(const PolySplitter& other) : SplitPoly(other.SplitPoly) {
  relink(other.SplitPoly, SplitPoly, other.OnLineEdges, OnLineEdges);
}

PolySplitter& PolySplitter::operator=(const PolySplitter& other) {
  if (this != &other) {
    SplitPoly = other.SplitPoly;
    relink(other.SplitPoly, SplitPoly, other.OnLineEdges, OnLineEdges);
  }
  return *this;
}

std::vector<QPolygon> PolySplitter::Split(const QPolygon& poly, const QLine& line) {
  const QLineF lineF{QPointF(line.p1()), QPointF(line.p2())};
  SplitEdges(poly, lineF);
  SortEdges(lineF);
  SplitPolygon();
  return CollectPolys();
}

void PolySplitter::SplitEdges(const QPolygon& poly, const QLineF& line) {
  SplitPoly.clear();
  OnLineEdges.clear();

  const double x1 = line.x1(), y1 = line.y1(), x2 = line.x2(), y2 = line.y2();
  const int n = poly.size();
  if (n == 0) return;

  // Each vertex is classified once; the side of the next vertex is the side
  // of the current one in the following step.
  LineSide nxtSide = classify(poly[0], x1, y1, x2, y2);
  const LineSide firstSide = nxtSide;
  for (int i = 0; i < n; ++i) {
    const QPoint& cur = poly[i];
    const QPoint& nxt = poly[i + 1 < n ? i + 1 : 0];
    const LineSide curSide = nxtSide;
    nxtSide = i + 1 < n ? classify(nxt, x1, y1, x2, y2) : firstSide;

    SplitPoly.emplace_back(cur, curSide);
    if (curSide == LineSide::On) {
      OnLineEdges.push_back(&SplitPoly.back());
    } else if (nxtSide != curSide && nxtSide != LineSide::On) {
      // The ends lie strictly on opposite sides, so the edge is not parallel
      // to the line unless rounding of huge coordinates says so.
      const QLineF edge{QPointF(cur), QPointF(nxt)};
      QPointF pt(0, 0);
      const QLineF::IntersectionType res = edge.intersects(line, &pt);
      if (res == QLineF::NoIntersection) qorThrow("res != QLineF::NoIntersection", kUnit, __LINE__);
      const QPoint crossing(truncateCrossing(pt.x(), cur.x(), nxt.x()), truncateCrossing(pt.y(), cur.y(), nxt.y()));
      SplitPoly.emplace_back(crossing, LineSide::On);
      OnLineEdges.push_back(&SplitPoly.back());
    }
  }

  PolyEdge* prev = &SplitPoly.back();
  for (PolyEdge& e : SplitPoly) {
    prev->Next = &e;
    e.Prev = prev;
    prev = &e;
  }
}

void PolySplitter::SortEdges(const QLineF& line) {
  const size_t m = OnLineEdges.size();
  if (m == 0) return;
  const double x1 = line.x1(), y1 = line.y1();
  const double dx = line.x2() - x1, dy = line.y2() - y1;

  // The position along the line direction (not normalised), computed once
  // per element from its integer point. Crossing points were truncated, so
  // two of them can land on the same point although the edges cross the
  // line at different places; equal positions are therefore ordered by where
  // the element's edge really crosses the line, which keeps a narrow tip cut
  // off by the line apart from its neighbours.
  struct Keyed {
    double key;
    double exact;
    PolyEdge* edge;
  };
  auto position = [&](const QPoint& p) {
    return (static_cast<double>(p.x()) - x1) * dx + (static_cast<double>(p.y()) - y1) * dy;
  };
  auto offset = [&](const QPoint& p) {
    return (static_cast<double>(p.x()) - x1) * dy - (static_cast<double>(p.y()) - y1) * dx;
  };
  std::vector<Keyed> keyed;
  keyed.reserve(m);
  for (PolyEdge* e : OnLineEdges) {
    const double key = position(e->Point);
    double exact = key;
    // A crossing point sits between two elements on opposite sides, less
    // than one unit per coordinate (plus rounding) from where their edge
    // crosses the line.
    const PolyEdge* prev = e->Prev;
    const PolyEdge* next = e->Next;
    if (prev != nullptr && next != nullptr &&
        ((prev->Side == LineSide::Left && next->Side == LineSide::Right) ||
         (prev->Side == LineSide::Right && next->Side == LineSide::Left))) {
      const double a = offset(prev->Point);
      const double b = offset(next->Point);
      const double t = a / (a - b);
      const double cx = prev->Point.x() + (static_cast<double>(next->Point.x()) - prev->Point.x()) * t;
      const double cy = prev->Point.y() + (static_cast<double>(next->Point.y()) - prev->Point.y()) * t;
      if (std::fabs(cx - e->Point.x()) < 1.5 && std::fabs(cy - e->Point.y()) < 1.5) {
        exact = (cx - x1) * dx + (cy - y1) * dy;
      }
    }
    keyed.push_back({key, exact, e});
  }
  std::sort(keyed.begin(), keyed.end(), [](const Keyed& a, const Keyed& b) {
    if (positionLess(a.key, b.key)) return true;
    if (positionLess(b.key, a.key)) return false;
    return positionLess(a.exact, b.exact);
  });
  for (size_t i = 0; i < m; ++i) OnLineEdges[i] = keyed[i].edge;

  const QPoint origin = OnLineEdges[0]->Point;
  for (size_t i = 1; i < m; ++i) {
    const QPoint& p = OnLineEdges[i]->Point;
    const int64_t ex = static_cast<int64_t>(p.x()) - origin.x();
    const int64_t ey = static_cast<int64_t>(p.y()) - origin.y();
    OnLineEdges[i]->LineDistance = QVector2D(static_cast<float>(ex), static_cast<float>(ey)).length();
  }
}

void PolySplitter::SplitPolygon() {
  const size_t m = OnLineEdges.size();
  size_t i = 0;
  PolyEdge* source = nullptr;
  while (i < m) {
    if (source == nullptr) {
      for (; i < m; ++i) {
        PolyEdge* e = onLineElement(OnLineEdges[i]);
        if (isSource(e)) {
          e->IsSource = true;
          source = e;
          ++i;
          break;
        }
      }
    }

    PolyEdge* target = nullptr;
    for (; i < m; ++i) {
      PolyEdge* e = onLineElement(OnLineEdges[i]);
      if (isTarget(e)) {
        e->IsTarget = true;
        target = e;
        break;
      }
    }
    if (target == nullptr) source = nullptr;

    if (target != nullptr && source != nullptr) {
      CreateBridge(source, target);
#ifndef NDEBUG
      VerifyCycles();
#endif
      // source->Prev is now the copy of the target; its predecessor is the
      // element that preceded the target before the bridge.
      PolyEdge* copy = source->Prev;
      if (copy->Prev->Side == LineSide::Left) {
        copy->IsSource = true;
        source = copy;
      } else if (target->Next->Side == LineSide::Right) {
        target->IsSource = true;
        source = target;
      } else {
        source = nullptr;
      }
    }
    ++i;
  }
}

void PolySplitter::CreateBridge(PolyEdge* source, PolyEdge* target) {
  if (source == nullptr || target == nullptr || source == target || source->Prev == nullptr || target->Prev == nullptr)
    qorThrow("PolySplitter::CreateBridge: a bridge needs two distinct linked ring elements", kUnit, __LINE__);

  SplitPoly.push_back(*source);
  PolyEdge* a = &SplitPoly.back();
  SplitPoly.push_back(*target);
  PolyEdge* b = &SplitPoly.back();

  a->Next = target;
  a->Prev = source->Prev;
  b->Next = source;
  b->Prev = target->Prev;

  source->Prev->Next = a;
  source->Prev = b;
  target->Prev->Next = b;
  target->Prev = a;
}

void PolySplitter::VerifyCycles() const {
  // Every walk along Next returns to its start within SplitPoly.size() steps
  // exactly when Next maps the list's elements one to one onto themselves.
  // Checking that takes one pass instead of a walk from every element.
  std::unordered_set<const PolyEdge*> elements;
  elements.reserve(SplitPoly.size());
  for (const PolyEdge& e : SplitPoly) elements.insert(&e);
  std::unordered_set<const PolyEdge*> successors;
  successors.reserve(SplitPoly.size());
  for (const PolyEdge& e : SplitPoly) {
    if (e.Next == nullptr || elements.count(e.Next) == 0 || !successors.insert(e.Next).second)
      qorThrow("count < SplitPoly.size()", kUnit, __LINE__);
  }
}

std::vector<QPolygon> PolySplitter::CollectPolys() {
  std::vector<QPolygon> result;
  const size_t size = SplitPoly.size();
  for (PolyEdge& start : SplitPoly) {
    if (start.Collected) continue;
    QPolygon piece;
    PolyEdge* e = &start;
    size_t count = 0;
    do {
      if (e == nullptr || count >= size) qorThrow("count < SplitPoly.size()", kUnit, __LINE__);
      e->Collected = true;
      piece.append(e->Point);
      e = e->Next;
      ++count;
    } while (e != &start);
    result.push_back(std::move(piece));
  }
  return result;
}

std::vector<QPolygon> PolySplitter::Break(const QPolygon& poly, int rank) {
  const int n = poly.size();
  if (n == 0) return {};
  if (rank < 0 || rank >= n) return {poly};

  const Box box = boundsOf(poly);
  // Taller than wide: a horizontal cut across the y values; otherwise
  // (square included) a vertical cut across the x values.
  const bool horizontal = box.height() > box.width();
  std::vector<int> coords;
  coords.reserve(n);
  for (const QPoint& p : poly) coords.push_back(horizontal ? p.y() : p.x());

  // Only two order statistics are needed, so a selection replaces the full
  // sort: the cut is the value at n / 2 for rank 0, else the largest value
  // strictly below the one at rank.
  int cut;
  if (rank == 0) {
    std::nth_element(coords.begin(), coords.begin() + n / 2, coords.end());
    cut = coords[n / 2];
  } else {
    std::nth_element(coords.begin(), coords.begin() + rank, coords.end());
    const int ranked = coords[rank];
    const int smallest = horizontal ? box.minY : box.minX;
    if (ranked == smallest) return {poly};
    // Everything before position rank is at most ranked, and the smallest
    // value, which is below it, is among them.
    cut = smallest;
    for (int i = 0; i < rank; ++i) {
      if (coords[i] < ranked && coords[i] > cut) cut = coords[i];
    }
  }

  const QLine line = horizontal ? QLine(clampToInt(static_cast<int64_t>(box.minX) - 5), cut,
                                        clampToInt(static_cast<int64_t>(box.maxX) + 5), cut)
                                : QLine(cut, clampToInt(static_cast<int64_t>(box.minY) - 5), cut,
                                        clampToInt(static_cast<int64_t>(box.maxY) + 5));
  return Split(poly, line);
}

std::vector<QPolygon> PolySplitter::Divide(const QPolygon& poly, int pieceSize) {
  std::vector<QPolygon> result;
  // Remainders still to divide; the back is the next one.
  std::vector<QPolygon> pending{poly};
  // Caps that only malformed outlines reach: well-formed input needs about
  // one break per piece and never has a remainder much larger than itself
  // (each cut adds its two end points to it). A remainder that would pass a
  // cap is kept as a final piece as it is, so no area is lost and the cost
  // of a call stays bounded by the input's size.
  const int64_t cap = 4 * static_cast<int64_t>(poly.size()) + 64;
  int64_t breaks = 0;

  while (!pending.empty()) {
    QPolygon rest = std::move(pending.back());
    pending.pop_back();
    int64_t restExtent = extent(rest);
    int stalled = 0;
    for (;;) {
      if (breaks++ >= cap || rest.size() > cap) break;
      std::vector<QPolygon> pieces = Break(rest, pieceSize);
      if (pieces.size() < 2) {
        for (QPolygon& piece : pieces) result.push_back(std::move(piece));
        rest = QPolygon();
        break;
      }
      if (pieces.size() == 2) {
        result.push_back(std::move(pieces[0]));
        rest = std::move(pieces[1]);
      } else {
        // Small pieces are kept at once; the large ones are divided after
        // them, first to last.
        std::vector<QPolygon> large;
        for (QPolygon& piece : pieces) {
          if (piece.size() < pieceSize)
            result.push_back(std::move(piece));
          else
            large.push_back(std::move(piece));
        }
        rest = QPolygon();
        if (!large.empty()) {
          for (size_t k = large.size() - 1; k > 0; --k) pending.push_back(std::move(large[k]));
          rest = std::move(large[0]);
        }
      }
      if (rest.size() <= pieceSize) break;

      const int64_t e = extent(rest);
      stalled = e < restExtent ? 0 : stalled + 1;
      restExtent = e;
      if (stalled >= kMaxStalledBreaks) break;
    }
    if (!rest.isEmpty()) result.push_back(std::move(rest));
  }
  return result;
}
