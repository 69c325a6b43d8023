// Internal: the ring engine behind qorTriangulateRings() and qorCheckPolygon().
//
// A RingModel holds the rings of one call, built once and read by every stage: the kept points (scaled by a power
// of two into the range where orientation tests are exact), their rings, and the map back to the caller's indices.
// A RingSweep sweeps the model's edges from bottom to top in (y, x) order. Coincident points become one node; a node
// that lies inside an active edge splits it; edges that leave a node in the same direction are bundled until the
// shorter one ends. The active edges are kept in order along the sweep line in a skip list, each with the winding
// number of the region to its right, so every region knows whether it belongs to the polygon. Each region of the
// polygon keeps the lower boundary of its untriangulated part (its front: a chain whose inner points are all
// reflex), and every node that reaches a region cuts off the triangles it can see. Adjacent edges are tested for
// crossings whenever they become adjacent, which finds the lowest proper crossing.
#ifndef QOR_RING_SWEEP_H
#define QOR_RING_SWEEP_H

#include <qor/qor_base2.h>
#include <qor/qor_export.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "../../internal/qor_predicates.h"

namespace qor_internal {

// The bits of a double as an unsigned number in the same order (-0 taken as +0).
inline uint64_t orderBits(double d) {
  d += 0.0;
  uint64_t b;
  std::memcpy(&b, &d, sizeof(b));
  return (b >> 63) != 0 ? ~b : b | 0x8000000000000000ull;
}

// " near (x, y)", for messages that name a place.
QOR_HIDDEN std::string near(double x, double y);

struct RingModel {
  std::vector<Pt> pts;               // kept points, ring after ring, scaled
  std::vector<qorInt32> orig;        // each kept point's index among the caller's points
  std::vector<qorInt32> ringOf;      // each kept point's ring, as the caller numbers rings (from 0)
  std::vector<qorInt32> next;        // the following point of its ring
  std::vector<qorInt32> prev;        // the preceding point of its ring
  std::vector<int8_t> sign;          // each kept point's ring direction: +1 as given, -1 reversed
  qorInt32 count = 0;                // kept points (the arrays may be longer)
  std::vector<qorInt32> ringStart;   // each kept ring's first point, and count at the end
  std::vector<qorInt32> ringNumber;  // each kept ring's number as the caller gives it
  std::vector<int8_t> ringSign;      // each kept ring's direction
  double scale = 1;                  // kept coordinates are the caller's times this power of two
  Pt low{0, 0}, high{0, 0};          // the bounding box of the points written (scaled)
  double twiceArea = 0;              // twice the region's area (scaled): the outer ring's minus the holes'
  // Makes room for `capacity` points and forgets the rings; the storage stays for the next call.
  void begin(qorInt32 capacity, double scaleBy);
  qorInt32 size() const { return count; }
  qorInt32 rings() const { return static_cast<qorInt32>(ringNumber.size()); }
  // Keeps the ring whose `n` points the caller wrote to pts[count ..] and orig[count ..], with its caller's ring
  // number and direction.
  void keepRing(qorInt32 n, qorInt32 ring, int8_t direction);
  // Fills next, prev, ringOf and sign, which the sweep reads (the monotone path does without them).
  void link();
  // For each ring number, whether `q` lies strictly inside that ring (a point on its boundary does not).
  std::vector<bool> ringsAround(const Pt& q) const;
};

enum class SweepMode {
  Check,  // find touches and crossings only
  Rings,  // triangulate the region of winding number 1; raise where edges cross or windings leave 0 and 1
  Fill,   // split edges where they cross and triangulate the region a fill rule chooses
};

// Where two edges meet other than consecutive edges at their shared point, in the caller's coordinates.
struct Contact {
  enum Kind { None, Touch, Cross } kind = None;
  qorInt32 ringA = -1, ringB = -1;  // caller's ring numbers from 0, ringA <= ringB
  double x = 0, y = 0;              // the contact point (a crossing's is computed in double)
};

struct SweepCounts {
  qorInt32 pointsMerged = 0, edgesSplit = 0, edgesCancelled = 0;
};

class QOR_HIDDEN RingSweep {
 public:
  // A point in sweep order: by y (as an unsigned number in the doubles' order, so that comparing takes one integer
  // comparison), then x, then its index.
  struct Key {
    uint64_t y;
    qorInt32 point;
  };
  // Check mode: the lowest touch and the lowest crossing.
  void check(const RingModel& model, Contact& touch, Contact& cross);
  // Rings mode: appends the triangles (caller's indices) to `out` and sets `twiceArea` to their doubled total area
  // (scaled coordinates). Raises with messages that start with `prefix`. `counts` is filled as the sweep goes,
  // also when it raises.
  void triangulate(const RingModel& model, const char* prefix, std::vector<qorInt32>& out, SweepCounts& counts,
                   double& twiceArea);
  // Fill mode: splits the edges where they cross (each new point goes to `added`, in the caller's coordinates, and
  // is numbered from `inputPoints` on) and appends the triangles of the region whose winding numbers `rule` (1: odd,
  // 2: not zero) chooses. Raises with messages that start with `prefix`.
  void fill(const RingModel& model, int rule, qorInt32 inputPoints, const char* prefix, std::vector<qorInt32>& out,
            std::vector<double>& added);
  // A model of one simple ring that is monotone along y or along x, or small, running counter-clockwise when `ccw`
  // (as kept) and clockwise otherwise: appends its triangles and returns true. Returns false, appending nothing, for
  // any other ring (the sweep decides those).
  bool triangulateMonotone(const RingModel& model, bool ccw, std::vector<qorInt32>& out, double& twiceArea);

 private:
  struct Edge {
    Pt sa, sb;         // the input edge it is a piece of (its lower end first): every test against it uses these
    qorInt32 lo, hi;   // nodes, lo before hi in the sweep (both -1 once a bundle covers it wholly)
    qorInt32 delta;    // winding change from its right to its left: +1 running up, -1 running down (bundles sum)
    qorInt32 ring;     // caller's ring number
    qorInt32 partner;  // the ring of another edge bundled with it, or -1
    qorInt32 slot;     // its place in the status, or -1
    qorInt32 extra;    // the next edge that starts at the same node after a split, or -1
  };
  // An active edge in the status, with its input edge's ends at hand for the tests that search and compare.
  struct Slot {
    Pt sa, sb;
    qorInt32 edge;
    qorInt32 hiNode;
    qorInt32 wRight;    // winding number right of the edge
    qorInt32 interval;  // the polygon region right of the edge, or -1
    qorInt32 height;    // skip-list levels
    qorInt32 prev, next;
  };
  struct FrontNode {
    Pt at;
    qorInt32 node, prev, next;
  };
  struct Interval {
    qorInt32 left, right, helper;  // front nodes; helper is the most recent node that reached the region
  };

  Edge& edge(qorInt32 e) { return m_Edges[static_cast<size_t>(e)]; }
  const Edge& edge(qorInt32 e) const { return m_Edges[static_cast<size_t>(e)]; }
  Slot& slot(qorInt32 s) { return m_Slots[static_cast<size_t>(s)]; }
  const Slot& slot(qorInt32 s) const { return m_Slots[static_cast<size_t>(s)]; }
  FrontNode& front(qorInt32 f) { return m_Front[static_cast<size_t>(f)]; }
  Interval& interval(qorInt32 i) { return m_Intervals[static_cast<size_t>(i)]; }
  const Pt& pt(qorInt32 node) const { return m_NodePt[static_cast<size_t>(node)]; }

  void prepare(const RingModel& model, SweepMode mode);
  void sortNodes();
  void mergeRuns();
  void radixSort();
  void sweep();
  bool regular(qorInt32 p, qorInt32 down, qorInt32 up);
  bool lowest(qorInt32 p, qorInt32 a, qorInt32 b);
  bool highest(qorInt32 p, qorInt32 a, qorInt32 b);
  void event(qorInt32 p);
  void collect(qorInt32 e, qorInt32 p, qorInt32& anySlot);
  bool passesThrough(qorInt32 s, qorInt32 p) const;
  qorInt32 splitAt(qorInt32 s, qorInt32 p);
  void sortUp();
  void bundleUp(qorInt32 p);
  void checkThrough(qorInt32 p);
  void crossTest(qorInt32 leftSlot, qorInt32 rightSlot);
  bool inside(qorInt32 winding, qorInt32 p, qorInt32 leftEdge, qorInt32 rightEdge);

  // Status: a skip list of slots, slot 0 its head (left of everything).
  qorInt32 newSlot(qorInt32 e);
  void setEdge(qorInt32 s, qorInt32 e);
  void insertAfter(qorInt32 at, qorInt32 s);
  void erase(qorInt32 s);
  qorInt32 search(const Pt& p) const;
  qorInt32& up(qorInt32 s, qorInt32 level) { return m_Up[static_cast<size_t>(s) * kLevels + level]; }
  qorInt32 up(qorInt32 s, qorInt32 level) const { return m_Up[static_cast<size_t>(s) * kLevels + level]; }

  // Fronts.
  __attribute__((always_inline)) qorInt32 newFront(qorInt32 node);
  qorInt32 newInterval(qorInt32 node);
  qorInt32 allocInterval(const Interval& iv);
  __attribute__((always_inline)) void addRight(qorInt32 i, qorInt32 p);
  __attribute__((always_inline)) void addLeft(qorInt32 i, qorInt32 p);
  void close(qorInt32 i, qorInt32 p);
  void merge(qorInt32 left, qorInt32 right);
  qorInt32 split(qorInt32 i, qorInt32 p);
  // Writes the triangle a, b, c (counter-clockwise) and adds twice its area.
  void emit(qorInt32 a, qorInt32 b, qorInt32 c, const Pt& pa, const Pt& pb, const Pt& pc) {
    m_Area += (pb.x - pa.x) * (pc.y - pa.y) - (pb.y - pa.y) * (pc.x - pa.x);
    m_Out[0] = m_Orig[a];
    m_Out[1] = m_Orig[b];
    m_Out[2] = m_Orig[c];
    m_Out += 3;
  }
  void startOutput(size_t triangles);
  template <bool alongX>
  bool monotoneAlong(const RingModel& model, bool ccw);
  bool smallRing(const RingModel& model);
  static constexpr qorInt32 kSmallRing = 1024;  // up to this many points a ring may take the small sweep,
  static constexpr qorInt32 kSmallStatus = 48;  // if it keeps at most this many edges active
  // Fill mode: the events that crossings add.
  struct NodeKey {
    uint64_t y, x;
    bool operator==(const NodeKey& o) const { return y == o.y && x == o.x; }
  };
  struct NodeKeyHash {
    size_t operator()(const NodeKey& k) const { return static_cast<size_t>(k.y * 0x9e3779b97f4a7c15ull ^ k.x); }
  };
  struct Forced {
    qorInt32 a, b;  // edges that cross here, a left of b below
    qorInt32 next;
  };
  bool nodeBefore(qorInt32 a, qorInt32 b) const;
  qorInt32 nextNode(qorInt32& nextStatic);
  qorInt32 nodeAt(const Pt& at);
  void scheduleCrossing(qorInt32 leftSlot, qorInt32 rightSlot);
  qorInt32 markForced(qorInt32 p);
  void bridge(qorInt32 p, qorInt32& first, qorInt32& last);
  bool inRule(qorInt32 winding) const { return m_Rule == 1 ? (winding & 1) != 0 : winding != 0; }

  [[noreturn]] void fail(const std::string& detail, unsigned long line) const;
  std::string regionProblem(qorInt32 winding, qorInt32 p, qorInt32 leftEdge, qorInt32 rightEdge) const;
  void touch(qorInt32 p, qorInt32 ringA, qorInt32 ringB);
  void cross(const Pt& at, qorInt32 ringA, qorInt32 ringB);

  static constexpr qorInt32 kLevels = 12;
  static constexpr qorInt32 kPlainList = 64;  // up to this many nodes the status is a plain list
  static constexpr qorInt32 kNil = -1;

  const RingModel* m_Model = nullptr;
  SweepMode m_Mode = SweepMode::Check;
  const char* m_Prefix = "";
  std::unique_ptr<qorInt32[]> m_Triangles;  // the triangles of a call, as the caller's indices
  size_t m_TrianglesSize = 0;
  qorInt32* m_Out = nullptr;         // where the next triangle goes
  const qorInt32* m_Orig = nullptr;  // node (or point) -> the caller's index
  SweepCounts* m_Counts = nullptr;
  Contact m_Touch, m_Cross;
  Pt m_CrossAt{0, 0};     // the lowest crossing, scaled
  double m_Area = 0;      // twice the area of the triangles emitted so far
  std::string m_Problem;  // the first region covered other than once or not at all

  qorInt32 m_Nodes = 0;    // static nodes: the kept points, in sweep order
  qorInt32 m_Current = 0;  // the node being swept
  int m_Rule = 0;
  qorInt32 m_InputPoints = 0;
  std::vector<double>* m_Added = nullptr;
  std::vector<NodeKey> m_NodeKey;  // fill mode: each node's coordinates as ordered integers
  std::vector<qorInt32> m_Heap;    // fill mode: crossing nodes waiting, lowest first
  std::unordered_map<NodeKey, qorInt32, NodeKeyHash> m_CrossingAt;  // fill mode: crossing nodes by place
  std::unordered_map<uint64_t, qorInt32> m_PairAt;                  // fill mode: the node of a crossing pair
  std::vector<qorInt32> m_ForcedHead;  // fill mode: node -> first crossing pair split there
  std::vector<Forced> m_Forced;
  std::vector<qorInt32> m_SlotMark;  // fill mode: slot -> the stamp of the event that must split it
  qorInt32 m_Stamp = 0;
  size_t m_CrossingLimit = 0;
  std::vector<qorInt32> m_Order;      // kept points in sweep order
  std::vector<qorInt32> m_NodeStart;  // node p holds m_Order[m_NodeStart[p] .. m_NodeStart[p + 1])
  std::vector<Pt> m_NodePt;
  std::vector<qorInt32> m_NodeOrig;   // the caller's index of each node's first point
  std::vector<qorInt32> m_NodeOf;     // kept point -> node
  std::vector<qorInt32> m_ExtraHead;  // node -> first edge that starts there after a split
  std::vector<uint8_t> m_Touched;     // node -> found on an active edge: its event must look for edges through it
  std::vector<Edge> m_Edges;          // edge i < model size runs from kept point i to the next point of its ring

  std::vector<Slot> m_Slots;
  std::vector<qorInt32> m_Up;
  std::vector<qorInt32> m_FreeSlots;
  qorInt32 m_TopLevel = 1;
  uint32_t m_Random = 1;

  std::vector<FrontNode> m_Front;
  size_t m_FrontUsed = 0;
  std::vector<Interval> m_Intervals;
  std::vector<qorInt32> m_FreeIntervals;

  std::vector<qorInt32> m_U;         // edges that start at the current node, left to right
  std::vector<qorInt32> m_Through;   // edges that pass through the current node, in status order
  std::vector<qorInt32> m_Regions;   // scratch: intervals of the regions around the new edges
  std::vector<qorInt32> m_Windings;  // scratch: their winding numbers
  std::vector<Key> m_Keys, m_Merged;
  std::vector<qorInt32> m_Runs;                                    // scratch: where each sorted run of keys starts
  std::vector<qorInt32> m_Deque;                                   // scratch: the front of a monotone ring
  std::vector<qorInt32> m_SmallRank, m_SmallEdges, m_SmallFronts;  // scratch of the small sweep
};

// The steps every point of a ring goes through, inlined where they are called.

inline qorInt32 RingSweep::newFront(qorInt32 node) {
  // Field by field into room made ahead: a record built aside and copied whole makes the processor wait for the
  // pieces it was stored in.
  if (m_FrontUsed == m_Front.size()) m_Front.resize(2 * m_Front.size() + 16);
  FrontNode& f = m_Front[m_FrontUsed];
  f.at = pt(node);
  f.node = node;
  f.prev = f.next = kNil;
  return static_cast<qorInt32>(m_FrontUsed++);
}

inline void RingSweep::addRight(qorInt32 i, qorInt32 p) {
  // The point arrives at the right end of the front: cut off each triangle it makes with the front's last edge
  // while that edge's far end is convex.
  const Pt& at = pt(p);
  qorInt32 b = interval(i).right;
  for (;;) {
    const qorInt32 a = front(b).prev;
    if (a == kNil) break;
    const FrontNode &fa = front(a), &fb = front(b);
    if (!(orient2d(fa.at, fb.at, at) > 0)) break;
    emit(fa.node, fb.node, p, fa.at, fb.at, at);
    front(a).next = kNil;
    b = a;
  }
  const qorInt32 f = newFront(p);
  front(f).prev = b;
  front(b).next = f;
  interval(i).right = f;
  interval(i).helper = f;
}

inline void RingSweep::addLeft(qorInt32 i, qorInt32 p) {
  const Pt& at = pt(p);
  qorInt32 b = interval(i).left;
  for (;;) {
    const qorInt32 a = front(b).next;
    if (a == kNil) break;
    const FrontNode &fa = front(a), &fb = front(b);
    if (!(orient2d(at, fb.at, fa.at) > 0)) break;
    emit(p, fb.node, fa.node, at, fb.at, fa.at);
    front(a).prev = kNil;
    b = a;
  }
  const qorInt32 f = newFront(p);
  front(f).next = b;
  front(b).prev = f;
  interval(i).left = f;
  interval(i).helper = f;
}

}  // namespace qor_internal

#endif
