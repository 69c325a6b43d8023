// The triangulator's internals: the trapezoidal map's records and tables,
// point comparisons, the query structure that locates a point, the insertion
// of one segment, and the steps of triangulate() (qor_triangulate.h), for
// tests and for programs that drive the steps themselves. Not included by
// <qor/qor.h>: the names are short and global (seg, tr, qs, initialise, ...).
// An application that defines a global of the same name as one of the
// exported tables replaces the library's table with its own.
//
// All state is process-wide: the tables below are static storage of the
// library, indexed from 1 (entry 0 is never issued, so a link of 0 or -1
// means "no such neighbour"). The functions are not locked; the public entry
// points triangulate() and is_point_inside_polygon() (qor_triangulate.h)
// serialise themselves, and code that drives these internal steps directly
// must make sure no other thread triangulates at the same time.
//
// Hazard: the tables are exported data symbols with short names (seg, tr,
// qs). An application or another library that defines a global of the same
// name replaces them for the whole process (the dynamic linker binds the
// library's references to the first definition), and the triangulator then
// writes into that object. Avoid those names for globals in programs that
// link libqor.
#ifndef QOR_TRAPTREE_H
#define QOR_TRAPTREE_H

#include "qor_base2.h"
#include "qor_export.h"

// Capacities and the tolerance of every coordinate comparison.
constexpr qorInt32 SEGSIZE = 8192;          // segments, vertices, permutation, monotone polygons
constexpr qorInt32 TRAPSIZE = 4 * SEGSIZE;  // trapezoids
constexpr qorInt32 NODESIZE = 8 * SEGSIZE;  // query-structure nodes
constexpr double EPSILON = 1.0e-7;

// Node types of the query structure.
constexpr qorInt32 NODE_X = 1;     // test against a segment
constexpr qorInt32 NODE_Y = 2;     // test against a point
constexpr qorInt32 NODE_SINK = 3;  // a leaf standing for one trapezoid

// Which side of a segment a remembered third upper neighbour lies on.
constexpr qorInt32 SIDE_LEFT = 1;
constexpr qorInt32 SIDE_RIGHT = 2;

// Which endpoint inserted() asks about.
constexpr qorInt32 FIRST_POINT = 1;
constexpr qorInt32 LAST_POINT = 2;

// Trapezoid states.
constexpr qorInt32 TRAP_VALID = 1;
constexpr qorInt32 TRAP_MERGED = 2;  // absorbed into the trapezoid above it

// A point; higher means greater y, and points of equal height (within
// EPSILON) are ordered by x.
struct point_t {
  double x;
  double y;
};

// One polygon edge. Segment i runs from vertex i to the start of segment next.
struct segment_t {
  point_t start;
  point_t end;
  qorInt32 in_tree;     // nonzero once inserted into the map
  qorInt32 root_start;  // query node from which start is located
  qorInt32 root_end;    // query node from which end is located
  qorInt32 next;        // following segment of the contour
  qorInt32 prev;        // preceding segment of the contour
};

// One trapezoid of the map.
struct trap_t {
  qorInt32 left_seg;   // bounding segment on the left, <= 0 when unbounded
  qorInt32 right_seg;  // bounding segment on the right, <= 0 when unbounded
  point_t top;         // defines the upper edge
  point_t bottom;      // defines the lower edge
  qorInt32 up0, up1;   // trapezoids above, <= 0 for none
  qorInt32 down0, down1;
  qorInt32 sink;     // the sink node in qs standing for this trapezoid
  qorInt32 up_save;  // third upper neighbour remembered while threading a segment
  qorInt32 up_side;  // SIDE_LEFT or SIDE_RIGHT: where up_save lies
  qorInt32 state;    // TRAP_VALID or TRAP_MERGED
};

// One node of the query structure; the root is node 1.
struct node_t {
  qorInt32 type;        // NODE_X, NODE_Y or NODE_SINK
  qorInt32 seg_index;   // X node: its segment (Y nodes of an insertion record it too)
  point_t y_key;        // Y node: separates the upper child from the lower
  qorInt32 trap_index;  // sink node: its trapezoid
  qorInt32 parent;      // the node that points to this one
  qorInt32 left;        // Y node: below; X node: left of the segment
  qorInt32 right;       // Y node: above; X node: right of the segment
};

extern QOR_API segment_t seg[SEGSIZE];
extern QOR_API trap_t tr[TRAPSIZE];
extern QOR_API node_t qs[NODESIZE];

// Point comparisons; results are 0 or 1.
// a above b (beyond EPSILON in y), or level with it and a.x > b.x exactly.
QOR_API qorInt32 _greater_than(point_t* a, point_t* b);
// As _greater_than, with a.x >= b.x on a level.
QOR_API qorInt32 _greater_than_equal_to(point_t* a, point_t* b);
// a below b, or level with it and a.x < b.x exactly.
QOR_API qorInt32 _less_than(point_t* a, point_t* b);
// Both coordinates within EPSILON.
QOR_API qorInt32 _equal_to(point_t* a, point_t* b);
// Stores the higher of a and b into out (on a level, a wins only when its x
// is greater by more than EPSILON). Returns 0.
QOR_API qorInt32 _max(point_t* out, point_t* a, point_t* b);
// Stores the lower of a and b into out (on a level, a wins when a.x < b.x
// exactly). Returns 0.
QOR_API qorInt32 _min(point_t* out, point_t* a, point_t* b);

// Issues the next query node (fields as the reset left them). Raises
// "newnode: Query-table overflow" once 65535 nodes have been issued.
QOR_API qorInt32 newnode();

// Issues the next trapezoid with both segments -1 and state TRAP_VALID.
// Raises "newtrap: Trapezoid-table overflow" once 32767 have been issued.
QOR_API qorInt32 newtrap();

// Resets tr, qs and their counters, and builds the map of one segment: nodes
// 1..7 and trapezoids 1..4 (left of it, right of it, below, above). Returns
// the root, 1. A segment number outside 1..8191 raises a qorException*.
QOR_API qorInt32 init_query_structure(qorInt32 segment);

// The trapezoid containing p, descending from node root; other is the
// opposite endpoint of p's segment and breaks ties when p lies on a node's
// point or on an endpoint of a node's segment. Raises
// "locate_endpoint: Internal error" on a node of unknown type (for instance
// before any map was built) or a link outside the node table.
QOR_API qorInt32 locate_endpoint(point_t* p, point_t* other, qorInt32 root);

// 1 if p lies strictly left of the segment (upward oriented); a point level
// with either endpoint is compared by x alone.
QOR_API qorInt32 is_left_of(qorInt32 segment, point_t* p);

// Whether the endpoint of segment (FIRST_POINT: start, otherwise end) is
// already in the map because the contour neighbour sharing it is inserted.
QOR_API qorInt32 inserted(qorInt32 segment, qorInt32 which);

// Inserts one segment into the map: splits the trapezoids at its new
// endpoints, threads it through the trapezoids it crosses, and merges the
// slivers left along it. Returns 0. Raises "add_segment: internal error"
// (or "merge_trapezoids: internal error") when the map is inconsistent with
// the segment, as crossing or touching edges make it, "locate_endpoint:
// Internal error" from the point location, and the overflow messages of
// newnode/newtrap; it never follows a link outside the issued trapezoids.
QOR_API qorInt32 add_segment(qorInt32 segment);

// Merges, on side SIDE_LEFT or SIDE_RIGHT of segment, vertically adjacent
// trapezoids from first down to last that share both bounding segments.
// Returns 0. Raises "merge_trapezoids: internal error" on links that leave
// the issued trapezoids or nodes, or that would make it loop.
QOR_API qorInt32 merge_trapezoids(qorInt32 segment, qorInt32 first, qorInt32 last, qorInt32 side);

// Traversal directions and the sides of a monotone polygon.
constexpr qorInt32 FROM_UP = 1;
constexpr qorInt32 FROM_DOWN = 2;
constexpr qorInt32 SINGLE_LEFT = 1;
constexpr qorInt32 SINGLE_RIGHT = 2;

// The steps of triangulate(), in calling order.

// Clears in_tree of segments 1..n and draws a new insertion order. Raises a
// qorException* unless 0 <= n <= 8191.
QOR_API qorInt32 initialise(qorInt32 n);
// Fills the permutation of 1..n, seeded from the clock's second or the seed
// fixed by qorTriangulateFixSeed().
QOR_API qorInt32 generate_random_ordering(qorInt32 n);
// The next segment of the permutation.
QOR_API qorInt32 choose_segment();
// Iterated logarithm phase bounds.
QOR_API qorInt32 math_logstar_n(qorInt32 n);
QOR_API qorInt32 math_N(qorInt32 n, qorInt32 h);
// Builds the trapezoidal map of segments 1..n (1 <= n <= 8191).
QOR_API qorInt32 construct_trapezoids(qorInt32 n);
// Relocates the endpoints of a segment not yet inserted from its roots.
QOR_API qorInt32 find_new_roots(qorInt32 segment);

// Splits the polygon into monotone polygons; returns their number. Raises a
// qorException* when no trapezoid lies inside the polygon, and when a table
// (chains, monotone polygons, diagonals per vertex) would overflow.
QOR_API qorInt32 monotonate_trapezoids(qorInt32 n);
// Triangulates the monotone polygons; returns the number of triangles.
QOR_API qorInt32 triangulate_monotone_polygons(qorInt32 nvert, qorInt32 npolys, qorInt32 (*triangles)[3]);

QOR_API qorInt32 inside_polygon(trap_t* t);
// Walks the trapezoids inside the polygon depth first from t (entered from
// trapezoid `from` in direction dir), adding diagonals. Iterative: its depth
// is not bounded by the thread's stack.
QOR_API qorInt32 traverse_polygon(qorInt32 poly, qorInt32 t, qorInt32 from, qorInt32 dir);
QOR_API qorInt32 make_new_monotone_poly(qorInt32 poly, qorInt32 a, qorInt32 b);
QOR_API qorInt32 get_vertex_positions(qorInt32 a, qorInt32 b, qorInt32* ip, qorInt32* iq);
QOR_API double get_angle(point_t* o, point_t* p1, point_t* p2);
QOR_API qorInt32 triangulate_single_polygon(qorInt32 nvert, qorInt32 top_pos, qorInt32 side, qorInt32 (*triangles)[3]);

#endif
