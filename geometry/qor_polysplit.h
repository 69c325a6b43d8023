// PolySplitter: cutting an integer polygon along a straight line, and
// breaking and dividing polygons by axis-parallel cuts.
//
// A polygon is a QPolygon whose vertices run in the order of positive signed
// area (the shoelace sum of x[i] * y[i+1] - x[i+1] * y[i] is > 0:
// counter-clockwise with the y axis up, clockwise on a y-down screen). It is
// not closed by repeating its first vertex; the closing edge is implied.
//
//   PolySplitter splitter;
//   std::vector<QPolygon> pieces = splitter.Split(poly, QLine(QPoint(5, -5), QPoint(5, 15)));
//
// One object serves one thread at a time; separate objects share nothing.
//
// Input outside the requirement (the other orientation, repeated vertices,
// self-intersecting outlines, crossing points that truncation moves onto a
// vertex) is processed without complaint: every call returns, reads nothing
// out of bounds, loses no ring element and gives whatever the steps below
// produce. Nothing in the splitter prints.
#ifndef QOR_POLYSPLIT_H
#define QOR_POLYSPLIT_H

#include <QLine>
#include <QPoint>
#include <QPolygon>
#include <list>
#include <vector>

#include "qor_export.h"

class QOR_API PolySplitter {
 public:
  // Side of a point relative to the split line, with the y axis up and the
  // line looked at from its first point towards its second. The
  // classification value d = (p.x - x1) * (y2 - y1) - (p.y - y1) * (x2 - x1)
  // is computed in double and rounded to float: On when d lies in
  // [-0.1, 0.1] or is not a number, Left when d < -0.1 (the left-hand side),
  // Right when d > 0.1. With integer points d is a whole number, so On means
  // exactly on the line.
  enum class LineSide : int { On = 0, Left = 1, Right = 2 };

  // One element of a ring: the edge from Point to Next->Point.
  struct PolyEdge {
    PolyEdge() = default;
    PolyEdge(const QPoint& point, LineSide side) : Point(point), Side(side) {}

    QPoint Point;
    LineSide Side = LineSide::On;
    PolyEdge* Next = nullptr;
    PolyEdge* Prev = nullptr;
    // For on-line elements: the distance from the first on-line element in
    // line order; 0 otherwise.
    float LineDistance = 0;
    bool IsSource = false;
    bool IsTarget = false;
    bool Collected = false;
  };

  PolySplitter() = default;
  // A copy owns its own elements: every ring link and on-line pointer of the
  // copy points into the copy's list.
  PolySplitter(const PolySplitter& other);
  PolySplitter& operator=(const PolySplitter& other);
  PolySplitter(PolySplitter&&) = default;
  PolySplitter& operator=(PolySplitter&&) = default;
  ~PolySplitter() = default;

  // Cuts poly along the infinite line through line.p1() and line.p2() and
  // returns the pieces in the order of their first ring element: the first
  // piece begins with poly's first vertex, then come the pieces that begin
  // with later input vertices or crossing points, then those that begin with
  // bridge copies. Each piece keeps the input's orientation. Where an edge
  // crosses the line a vertex is inserted, its coordinates truncated toward
  // zero (2.5 -> 2, -2.5 -> -2); on-line points that end a cut appear in both
  // pieces that meet there. A line that misses the polygon or runs along its
  // boundary, and a degenerate line (p1 == p2: every vertex is On), give the
  // input as one piece; an empty polygon gives no piece. The line only gives
  // position and direction. Runs in O(n log n).
  //
  // Raises qorException* "res != QLineF::NoIntersection" when an edge whose
  // ends lie strictly on both sides of the line comes out parallel to it in
  // double precision; that needs coordinates so large (beyond about 2^26)
  // that the products lose exactness, and never happens for smaller ones.
  std::vector<QPolygon> Split(const QPolygon& poly, const QLine& line);

  // One axis-parallel cut through a vertex, chosen by rank. The cut is
  // horizontal when the polygon's bounding box is strictly taller than wide,
  // otherwise vertical; the line runs 5 units beyond the polygon at both ends
  // towards increasing coordinate (clamped to the int range). With rank 0 it
  // lies at the median coordinate coords[n / 2] of the sorted vertex
  // coordinates; with 0 < rank < n at the largest coordinate strictly below
  // coords[rank]. Returns the pieces of Split.
  //
  // A rank that gives no cut (negative, not below the vertex count, or
  // coords[rank] equal to the smallest coordinate) returns the polygon as one
  // piece; an empty polygon returns no piece.
  std::vector<QPolygon> Break(const QPolygon& poly, int rank);

  // Peels pieces off poly by repeated breaks with rank pieceSize until what
  // is left has at most pieceSize vertices or no longer splits, and returns
  // every piece in the order it was taken. A two-piece break keeps its first
  // piece (whatever its size) and goes on with the second; a break into more
  // pieces keeps those with fewer than pieceSize vertices and divides each
  // larger one further, in order, after them. No piece is dropped, so the
  // pieces cover the input. An empty polygon gives no piece; a polygon with at
  // most pieceSize vertices (pieceSize > 0), or one whose first break gives
  // no cut, comes back as one piece. Each break cuts the whole remainder, so
  // peeling pieces of about pieceSize vertices off an n-vertex polygon costs
  // about n^2 / pieceSize; a pieceSize proportional to n costs n log n.
  //
  // Every call returns, after at most 4 * n + 64 breaks for n input
  // vertices. A remainder that stops shrinking (its bounding box not smaller
  // after several breaks in a row), that grows past 4 * n + 64 vertices, or
  // that is left when the breaks run out is kept as a final piece as it is;
  // only malformed input gets there.
  std::vector<QPolygon> Divide(const QPolygon& poly, int pieceSize);

  // The steps of Split, in order. They are public for inspection and tests;
  // Split is the way to use them.

  // Rebuilds SplitPoly and OnLineEdges from poly: input vertices in order,
  // each crossing point right after the vertex that starts the crossing edge,
  // all linked into one ring. Raises "res != QLineF::NoIntersection" as Split.
  void SplitEdges(const QPolygon& poly, const QLineF& line);
  // Sorts OnLineEdges by their points' positions along the line and sets
  // LineDistance. Crossing points that truncation put on the same position
  // are ordered by where their edges cross the line exactly; positions that
  // are not a number sort last.
  void SortEdges(const QLineF& line);
  // Pairs the sorted on-line elements and makes the bridges. Raises
  // "curSide == LineSide::On" if OnLineEdges holds an element that is not On
  // or is not linked into a ring.
  void SplitPolygon();
  // Copies source and target and relinks the ring so that it becomes two.
  // Raises qorException* when source and target are null or the same
  // element, or are not linked.
  void CreateBridge(PolyEdge* source, PolyEdge* target);
  // Turns every ring into a polygon and marks its elements Collected. Raises
  // "count < SplitPoly.size()" if a ring does not close.
  std::vector<QPolygon> CollectPolys();
  // Checks that following Next from every element returns to it within
  // SplitPoly.size() steps; raises qorException* "count < SplitPoly.size()"
  // otherwise. Linear in the list size. Split runs it after every bridge in
  // debug builds only; release builds never call it.
  void VerifyCycles() const;

  // Every ring element; elements keep their addresses until the next
  // SplitEdges empties the list.
  std::list<PolyEdge> SplitPoly;
  // The On elements of SplitPoly (bridge copies excluded), in line order
  // after SortEdges.
  std::vector<PolyEdge*> OnLineEdges;
};

// The side enumeration is also reachable without the class qualifier.
using LineSide = PolySplitter::LineSide;

#endif
