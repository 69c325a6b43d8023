// qorTriangulateRings(): real-world rings through triangulate().
//
// The cheap path normalizes each ring in one pass (repeated and closing points out, fold-backs out, ring 0
// counter-clockwise and the others clockwise) and hands the result to triangulate(), whose own checks (orientation,
// coverage) tell whether it worked. Only when it did not does the slow path run: it names edges that properly
// cross, and otherwise rebuilds the rings as the boundary of the region they enclose. Coincident points become one
// node, edges that run both ways between two nodes cancel, and at a node where several rings meet the edges are
// paired around it so that each corner is one wedge of the region. Each corner at such a node is then moved a tiny,
// deterministic distance along its wedge's bisector, so that the triangulator sees disjoint, simple rings; the
// triangles are mapped back to the input's indices, where the slivers between the moved copies have no area.
#include <qor/qor_assert.h>
#include <qor/qor_traptree.h>
#include <qor/qor_triangulate.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "internal/qor_polycheck_sweep.h"
#include "internal/qor_triangulate_guard.h"

namespace {

const char kUnit[] = "qor_triangulate_rings";
constexpr int kAttempts = 8;  // insertion orders tried per piece before giving up

thread_local qorRingFixups lastFixups;

[[noreturn]] void ringsFailed(const std::string& detail, unsigned long line) {
  qorThrowComposed("qorTriangulateRings: ", detail.c_str(), kUnit, line);
}

struct P {
  double x, y;
};

inline double cross3(const P& a, const P& b, const P& c) {
  return (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
}

// One ring after normalization: indices into the caller's points.
struct Ring {
  qorInt32 user;  // the ring's number in the input, from 0
  std::vector<qorInt32> idx;
};

// Twice the signed area of a ring, from an origin near the points.
double twiceArea(const std::vector<qorInt32>& idx, const double (*pts)[2], double ox, double oy) {
  double a = 0;
  const size_t k = idx.size();
  for (size_t i = 0; i < k; ++i) {
    const double* p = pts[idx[i]];
    const double* q = pts[idx[i + 1 == k ? 0 : i + 1]];
    a += (p[0] - ox) * (q[1] - oy) - (p[1] - oy) * (q[0] - ox);
  }
  return a;
}

// Removes, in place, points equal to their successor and tips of spikes (a point where the ring runs straight back
// the way it came). Returns how many points went.
qorInt32 dropDegenerate(std::vector<qorInt32>& idx, const double (*pts)[2]) {
  // Most rings have neither: look first, without copying.
  const size_t k = idx.size();
  bool clean = k >= 3;
  for (size_t i = 0; clean && i < k; ++i) {
    const double* a = pts[idx[i]];
    const double* b = pts[idx[(i + 1) % k]];
    const double* c = pts[idx[(i + 2) % k]];
    const double cross = (b[0] - a[0]) * (c[1] - a[1]) - (b[1] - a[1]) * (c[0] - a[0]);
    const double dot = (b[0] - a[0]) * (c[0] - b[0]) + (b[1] - a[1]) * (c[1] - b[1]);
    clean = !(a[0] == b[0] && a[1] == b[1]) && !(cross == 0 && dot < 0);
  }
  if (clean) return 0;
  qorInt32 dropped = 0;
  bool changed = true;
  while (changed && idx.size() >= 2) {
    changed = false;
    std::vector<qorInt32> kept;
    kept.reserve(idx.size());
    for (qorInt32 v : idx) {
      const P cur{pts[v][0], pts[v][1]};
      if (!kept.empty() && pts[kept.back()][0] == cur.x && pts[kept.back()][1] == cur.y) {
        ++dropped;
        continue;
      }
      while (kept.size() >= 2) {
        const P a{pts[kept[kept.size() - 2]][0], pts[kept[kept.size() - 2]][1]};
        const P b{pts[kept.back()][0], pts[kept.back()][1]};
        const double dot = (b.x - a.x) * (cur.x - b.x) + (b.y - a.y) * (cur.y - b.y);
        if (cross3(a, b, cur) != 0 || dot >= 0) break;
        kept.pop_back();  // b is the tip of a spike
        ++dropped;
        changed = true;
      }
      if (!kept.empty() && pts[kept.back()][0] == cur.x && pts[kept.back()][1] == cur.y) {
        ++dropped;
        continue;
      }
      kept.push_back(v);
    }
    // The closing point, and spikes across the ring's start.
    while (kept.size() >= 2 && pts[kept.front()][0] == pts[kept.back()][0] &&
           pts[kept.front()][1] == pts[kept.back()][1]) {
      kept.pop_back();
      ++dropped;
      changed = true;
    }
    if (kept.size() >= 3) {
      std::rotate(kept.begin(), kept.begin() + 1, kept.end());  // the next pass sees the old start in the middle
    }
    if (kept.size() != idx.size()) changed = true;
    idx.swap(kept);
  }
  return dropped;
}

// The triangles of triangulate() for rows `rows` (from 1), mapped through `back` (row -> caller's index) and
// appended to `out`; `tri` is scratch space. Raises what triangulate() raises.
void runTriangulate(std::vector<qorInt32>& sizes, std::vector<double>& rows, const std::vector<qorInt32>& back,
                    std::vector<qorInt32>& tri, std::vector<qorInt32>& out) {
  qorInt32 n = 0;
  for (qorInt32 s : sizes) n += s;
  // Rows are written from the first on; the first row still holding the sentinel ends them (the process-wide
  // triangulate_last_count() may already be another thread's).
  tri.assign(3 * (static_cast<size_t>(n) + 2 * sizes.size() + 4), -1);
  triangulate(static_cast<qorInt32>(sizes.size()), sizes.data(), reinterpret_cast<double(*)[2]>(rows.data()),
              reinterpret_cast<qorInt32(*)[3]>(tri.data()));
  for (size_t t = 0; t + 2 < tri.size() && tri[t] > 0; t += 3)
    out.push_back(back[static_cast<size_t>(tri[t])]), out.push_back(back[static_cast<size_t>(tri[t + 1])]),
        out.push_back(back[static_cast<size_t>(tri[t + 2])]);
}

// The cheap path's working vectors, kept per thread and reused. On a star of 10 vertices the entry point
// cost 1.29x the instructions of triangulate() with five fresh vectors a call, 1.20x with these (callgrind).
struct CheapPathScratch {
  std::vector<qorInt32> sizes, back, tri, out;
  std::vector<double> rows;
};

CheapPathScratch& cheapPathScratch() {
  static thread_local CheapPathScratch scratch;
  return scratch;
}

// --- The slow path ---------------------------------------------------------------------------------------------

struct Edge {
  qorInt32 from, to;   // nodes
  qorInt32 user;       // the ring it came from
  qorInt32 next = -1;  // the edge that follows it around the region
  bool alive = true;
};

struct Corner {
  qorInt32 node;
  qorInt32 in, out;  // edges
  P at;              // where the triangulator sees it
};

struct Traced {
  std::vector<Corner> corners;
  double area2 = 0;  // twice the signed area, scaled coordinates
  qorInt32 user = 0;
};

class RegionBuilder {
 public:
  RegionBuilder(const std::vector<Ring>& rings, const double (*pts)[2], qorRingFixups& fixups)
      : m_Pts(pts), m_Fixups(fixups) {
    // Scale by a power of two so that the extent is about 2^20: the triangulator's fixed tolerance of 1e-7 is then
    // far below any feature, and the moves below are far above it.
    double minX = INFINITY, minY = INFINITY, maxX = -INFINITY, maxY = -INFINITY;
    for (const Ring& r : rings)
      for (qorInt32 v : r.idx) {
        minX = std::min(minX, pts[v][0]);
        maxX = std::max(maxX, pts[v][0]);
        minY = std::min(minY, pts[v][1]);
        maxY = std::max(maxY, pts[v][1]);
      }
    m_OX = minX;
    m_OY = minY;
    const double extent = std::max(maxX - minX, maxY - minY);
    int e = 0;
    std::frexp(extent > 0 ? extent : 1.0, &e);
    m_Scale = std::ldexp(1.0, 20 - e);

    // A point of one ring that lies on an edge of another (or of its own) becomes a point of that edge too, so
    // that the rings meet at nodes only.
    std::vector<Ring> split = splitAtPoints(rings, pts);

    // Nodes: coincident points become one.
    std::vector<qorInt32> all;
    for (const Ring& r : split) all.insert(all.end(), r.idx.begin(), r.idx.end());
    std::vector<qorInt32> order(all);
    std::sort(order.begin(), order.end(), [&](qorInt32 a, qorInt32 b) {
      if (pts[a][0] != pts[b][0]) return pts[a][0] < pts[b][0];
      if (pts[a][1] != pts[b][1]) return pts[a][1] < pts[b][1];
      return a < b;
    });
    for (size_t i = 0; i < order.size(); ++i) {
      const qorInt32 v = order[i];
      if (i == 0 || pts[v][0] != pts[order[i - 1]][0] || pts[v][1] != pts[order[i - 1]][1]) {
        m_Rep.push_back(v);
        m_Node.push_back(P{(pts[v][0] - m_OX) * m_Scale, (pts[v][1] - m_OY) * m_Scale});
      }
      m_NodeOf[v] = static_cast<qorInt32>(m_Rep.size()) - 1;
    }
    for (const Ring& r : split) {
      const size_t k = r.idx.size();
      for (size_t i = 0; i < k; ++i) {
        Edge ed;
        ed.from = m_NodeOf[r.idx[i]];
        ed.to = m_NodeOf[r.idx[i + 1 == k ? 0 : i + 1]];
        ed.user = r.user;
        m_Edges.push_back(ed);
      }
    }
  }

  // Cancels edges that run both ways, pairs the edges around every node and traces the region's boundary.
  void trace() {
    std::unordered_map<unsigned long long, std::vector<qorInt32>> byEnds;
    auto key = [](qorInt32 a, qorInt32 b) {
      return (static_cast<unsigned long long>(static_cast<unsigned>(a)) << 32) | static_cast<unsigned>(b);
    };
    for (qorInt32 e = 0; e < static_cast<qorInt32>(m_Edges.size()); ++e) {
      Edge& ed = m_Edges[static_cast<size_t>(e)];
      auto it = byEnds.find(key(ed.to, ed.from));
      if (it != byEnds.end() && !it->second.empty()) {
        m_Edges[static_cast<size_t>(it->second.back())].alive = false;
        it->second.pop_back();
        ed.alive = false;
        continue;
      }
      byEnds[key(ed.from, ed.to)].push_back(e);
    }

    const size_t nodes = m_Node.size();
    std::vector<std::vector<qorInt32>> outs(nodes), ins(nodes);
    for (qorInt32 e = 0; e < static_cast<qorInt32>(m_Edges.size()); ++e) {
      const Edge& ed = m_Edges[static_cast<size_t>(e)];
      if (!ed.alive) continue;
      outs[static_cast<size_t>(ed.from)].push_back(e);
      ins[static_cast<size_t>(ed.to)].push_back(e);
    }
    for (size_t v = 0; v < nodes; ++v) {
      const auto& o = outs[v];
      const auto& in = ins[v];
      if (o.size() != in.size()) {
        char where[96];
        std::snprintf(where, sizeof(where), "rings overlap near (%.10g, %.10g)", m_Pts[m_Rep[v]][0],
                      m_Pts[m_Rep[v]][1]);
        ringsFailed(where, __LINE__);
      }
      if (o.empty()) continue;
      if (o.size() == 1) {
        m_Edges[static_cast<size_t>(in[0])].next = o[0];
        continue;
      }
      // Around the node counter-clockwise, each outgoing edge opens a wedge of the region that the next incoming
      // edge closes.
      struct Spoke {
        double angle;
        bool out;
        qorInt32 edge;
      };
      std::vector<Spoke> spokes;
      const P& c = m_Node[v];
      for (qorInt32 e : o) {
        const P& d = m_Node[static_cast<size_t>(m_Edges[static_cast<size_t>(e)].to)];
        spokes.push_back({std::atan2(d.y - c.y, d.x - c.x), true, e});
      }
      for (qorInt32 e : in) {
        const P& d = m_Node[static_cast<size_t>(m_Edges[static_cast<size_t>(e)].from)];
        spokes.push_back({std::atan2(d.y - c.y, d.x - c.x), false, e});
      }
      std::sort(spokes.begin(), spokes.end(), [](const Spoke& a, const Spoke& b) {
        if (a.angle != b.angle) return a.angle < b.angle;
        return !a.out && b.out;
      });
      std::vector<bool> taken(spokes.size(), false);
      const size_t k = spokes.size();
      for (size_t i = 0; i < k; ++i) {
        if (!spokes[i].out) continue;
        for (size_t j = 1; j < k; ++j) {
          const size_t s = (i + j) % k;
          if (spokes[s].out || taken[s]) continue;
          taken[s] = true;
          m_Edges[static_cast<size_t>(spokes[s].edge)].next = spokes[i].edge;
          break;
        }
      }
    }

    // Follow the pairing around each cycle.
    std::vector<bool> used(m_Edges.size(), false);
    for (qorInt32 e0 = 0; e0 < static_cast<qorInt32>(m_Edges.size()); ++e0) {
      if (!m_Edges[static_cast<size_t>(e0)].alive || used[static_cast<size_t>(e0)]) continue;
      Traced t;
      t.user = m_Edges[static_cast<size_t>(e0)].user;
      qorInt32 e = e0;
      bool closed = false;
      while (e >= 0 && !used[static_cast<size_t>(e)]) {
        used[static_cast<size_t>(e)] = true;
        const qorInt32 nx = m_Edges[static_cast<size_t>(e)].next;
        if (nx < 0) break;
        t.user = std::min(t.user, m_Edges[static_cast<size_t>(e)].user);
        t.corners.push_back(Corner{m_Edges[static_cast<size_t>(e)].to, e, nx, P{0, 0}});
        if (nx == e0) {
          closed = true;
          break;
        }
        e = nx;
      }
      if (!closed || t.corners.size() < 3) continue;
      for (size_t i = 0; i < t.corners.size(); ++i) {
        const P& a = m_Node[static_cast<size_t>(t.corners[i].node)];
        const P& b = m_Node[static_cast<size_t>(t.corners[(i + 1) % t.corners.size()].node)];
        t.area2 += a.x * b.y - a.y * b.x;
      }
      if (t.area2 == 0) continue;
      m_Traced.push_back(std::move(t));
    }
  }

  // Moves every corner at a node that several corners share along its wedge's bisector by `fraction` of the
  // shortest edge at the node.
  void separate(double fraction) {
    std::vector<qorInt32> uses(m_Node.size(), 0);
    std::vector<double> shortest(m_Node.size(), INFINITY);
    for (const Traced& t : m_Traced)
      for (const Corner& c : t.corners) {
        ++uses[static_cast<size_t>(c.node)];
        for (qorInt32 e : {c.in, c.out}) {
          const P& a = m_Node[static_cast<size_t>(m_Edges[static_cast<size_t>(e)].from)];
          const P& b = m_Node[static_cast<size_t>(m_Edges[static_cast<size_t>(e)].to)];
          shortest[static_cast<size_t>(c.node)] =
              std::min(shortest[static_cast<size_t>(c.node)], std::hypot(b.x - a.x, b.y - a.y));
        }
      }
    m_Separated = 0;
    for (Traced& t : m_Traced)
      for (Corner& c : t.corners) {
        const P& v = m_Node[static_cast<size_t>(c.node)];
        c.at = v;
        if (uses[static_cast<size_t>(c.node)] < 2) continue;
        ++m_Separated;
        const P& prev = m_Node[static_cast<size_t>(m_Edges[static_cast<size_t>(c.in)].from)];
        const P& next = m_Node[static_cast<size_t>(m_Edges[static_cast<size_t>(c.out)].to)];
        double ux = next.x - v.x, uy = next.y - v.y, wx = prev.x - v.x, wy = prev.y - v.y;
        const double lu = std::hypot(ux, uy), lw = std::hypot(wx, wy);
        ux /= lu, uy /= lu, wx /= lw, wy /= lw;
        const double turn = ux * wy - uy * wx;
        double bx, by;
        if (turn > 0) {
          bx = ux + wx, by = uy + wy;
        } else if (turn < 0) {
          bx = -(ux + wx), by = -(uy + wy);
        } else if (ux * wx + uy * wy < 0) {
          bx = -uy, by = ux;
        } else {
          bx = -ux, by = -uy;
        }
        const double lb = std::hypot(bx, by);
        const double d = fraction * shortest[static_cast<size_t>(c.node)];
        c.at = P{v.x + d * bx / lb, v.y + d * by / lb};
      }
  }

  // Triangulates every piece (an outer boundary with the holes inside it), appending caller's indices to `out`.
  void triangulatePieces(long seed, std::vector<qorInt32>& out) {
    std::vector<size_t> outers, holes;
    for (size_t i = 0; i < m_Traced.size(); ++i) (m_Traced[i].area2 > 0 ? outers : holes).push_back(i);
    std::vector<std::vector<size_t>> pieceHoles(outers.size());
    for (size_t h : holes) {
      const P& q = m_Traced[h].corners[0].at;
      size_t best = outers.size();
      for (size_t o = 0; o < outers.size(); ++o) {
        if (!contains(m_Traced[outers[o]], q)) continue;
        if (best == outers.size() || m_Traced[outers[o]].area2 < m_Traced[outers[best]].area2) best = o;
      }
      if (best == outers.size())
        ringsFailed("ring " + std::to_string(m_Traced[h].user + 1) + " is a hole that lies outside the outer ring",
                    __LINE__);
      pieceHoles[best].push_back(h);
    }
    for (size_t o = 0; o < outers.size(); ++o) {
      std::vector<qorInt32> sizes;
      std::vector<double> rows{0.0, 0.0};
      std::vector<qorInt32> back{-1};
      std::vector<size_t> members{outers[o]};
      members.insert(members.end(), pieceHoles[o].begin(), pieceHoles[o].end());
      for (size_t m : members) {
        sizes.push_back(static_cast<qorInt32>(m_Traced[m].corners.size()));
        for (const Corner& c : m_Traced[m].corners) {
          rows.push_back(c.at.x);
          rows.push_back(c.at.y);
          back.push_back(m_Rep[static_cast<size_t>(c.node)]);
        }
      }
      if (back.size() - 1 > static_cast<size_t>(SEGSIZE - 1))
        ringsFailed(
            "a piece has " + std::to_string(back.size() - 1) + " vertices; the triangulator's tables hold at most 8191",
            __LINE__);
      std::string last;
      bool done = false;
      for (int attempt = 0; attempt < kAttempts && !done; ++attempt) {
        const long s = seed + attempt;
        qor_internal::setThreadSeed(&s);
        try {
          std::vector<qorInt32> piece, tri;
          runTriangulate(sizes, rows, back, tri, piece);
          out.insert(out.end(), piece.begin(), piece.end());
          done = true;
        } catch (qorException* e) {
          last = e->what();
          delete e;
          if (attempt + 1 < kAttempts) ++m_Fixups.retries;
        }
        qor_internal::setThreadSeed(nullptr);
      }
      if (!done) {
        if (!last.empty() && last.back() == '\n') last.pop_back();
        ringsFailed("the rings could not be triangulated after " + std::to_string(kAttempts) +
                        " insertion orders (last: " + last + ")",
                    __LINE__);
      }
    }
  }

  qorInt32 separated() const { return m_Separated; }
  size_t tracedCount() const { return m_Traced.size(); }

 private:
  // Even-odd test of a point against a traced ring, at the triangulator's coordinates.
  static bool contains(const Traced& t, const P& q) {
    bool inside = false;
    const size_t k = t.corners.size();
    for (size_t i = 0, j = k - 1; i < k; j = i++) {
      const P& a = t.corners[i].at;
      const P& b = t.corners[j].at;
      if ((a.y > q.y) != (b.y > q.y) && q.x < (b.x - a.x) * (q.y - a.y) / (b.y - a.y) + a.x) inside = !inside;
    }
    return inside;
  }

  const double (*m_Pts)[2];
  qorRingFixups& m_Fixups;
  double m_OX = 0, m_OY = 0, m_Scale = 1;
  std::vector<P> m_Node;        // scaled coordinates
  std::vector<qorInt32> m_Rep;  // node -> the caller's index of its first point
  std::unordered_map<qorInt32, qorInt32> m_NodeOf;
  std::vector<Edge> m_Edges;
  std::vector<Traced> m_Traced;
  qorInt32 m_Separated = 0;

  // The rings with every point that lies inside one of their edges inserted into it, in order along the edge.
  std::vector<Ring> splitAtPoints(const std::vector<Ring>& rings, const double (*pts)[2]) {
    std::vector<qorInt32> sizes, back;
    std::vector<double> flat;
    for (const Ring& r : rings) {
      sizes.push_back(static_cast<qorInt32>(r.idx.size()));
      for (qorInt32 v : r.idx) flat.push_back(pts[v][0]), flat.push_back(pts[v][1]), back.push_back(v);
    }
    const auto onEdges = qor_internal::findPointsOnEdges(static_cast<qorInt32>(sizes.size()), sizes.data(),
                                                         reinterpret_cast<const double(*)[2]>(flat.data()));
    std::unordered_map<qorInt32, std::vector<qorInt32>> inside;  // edge (flat start) -> flat points on it
    for (const auto& pe : onEdges) inside[pe.second].push_back(pe.first);
    std::vector<Ring> out;
    qorInt32 f = 0;
    for (const Ring& r : rings) {
      Ring nr;
      nr.user = r.user;
      const qorInt32 k = static_cast<qorInt32>(r.idx.size());
      for (qorInt32 i = 0; i < k; ++i) {
        nr.idx.push_back(r.idx[static_cast<size_t>(i)]);
        auto it = inside.find(f + i);
        if (it == inside.end()) continue;
        const double* a = pts[r.idx[static_cast<size_t>(i)]];
        const double* b = pts[r.idx[static_cast<size_t>((i + 1) % k)]];
        std::vector<std::pair<double, qorInt32>> along;
        for (qorInt32 q : it->second) {
          const double* p = &flat[2 * static_cast<size_t>(q)];
          along.emplace_back((p[0] - a[0]) * (b[0] - a[0]) + (p[1] - a[1]) * (b[1] - a[1]),
                             back[static_cast<size_t>(q)]);
        }
        std::sort(along.begin(), along.end());
        for (size_t j = 0; j < along.size(); ++j) {
          const qorInt32 v = along[j].second;
          if (j > 0 && pts[v][0] == pts[along[j - 1].second][0] && pts[v][1] == pts[along[j - 1].second][1]) continue;
          nr.idx.push_back(v);
        }
      }
      f += k;
      out.push_back(std::move(nr));
    }
    return out;
  }
};

// Keeps the triangles of `tri` (caller's indices) that have three distinct corners and positive area, after
// checking that their areas add up to the polygon's. Returns false when they do not.
bool keepCovering(std::vector<qorInt32>& tri, const double (*pts)[2], double ox, double oy, double twice, double extent,
                  long terms) {
  double sum = 0;
  size_t kept = 0;  // triangles are compacted in place
  for (size_t t = 0; t + 2 < tri.size(); t += 3) {
    const qorInt32 a = tri[t], b = tri[t + 1], c = tri[t + 2];
    const P pa{pts[a][0] - ox, pts[a][1] - oy}, pb{pts[b][0] - ox, pts[b][1] - oy}, pc{pts[c][0] - ox, pts[c][1] - oy};
    const double area = cross3(pa, pb, pc);
    sum += std::fabs(area);
    if (a == b || b == c || a == c || !(area > 0)) continue;
    tri[kept++] = a, tri[kept++] = b, tri[kept++] = c;
  }
  if (!(std::fabs(sum - twice) <= qor_internal::areaTolerance(extent, terms + static_cast<long>(tri.size() / 3))))
    return false;
  tri.resize(kept);
  return true;
}

}  // namespace

qorInt32 qorTriangulateRings(qorInt32 count, const qorInt32* sizes, const double (*points)[2],
                             std::vector<qorInt32>& triangles) {
  lastFixups = qorRingFixups{};
  qorRingFixups fixups{};
  if (count < 1) ringsFailed("the ring count must be at least 1", __LINE__);
  if (sizes == nullptr || points == nullptr) ringsFailed("null sizes or points", __LINE__);

  // Normalize each ring.
  std::vector<Ring> rings;
  rings.reserve(static_cast<size_t>(count));
  long long total = 0;
  for (qorInt32 c = 0; c < count; ++c) {
    if (sizes[c] > 0) total += sizes[c];
    if (total > 0x3fffffff) ringsFailed("too many points", __LINE__);
  }
  double minX = INFINITY, minY = INFINITY, maxX = -INFINITY, maxY = -INFINITY;
  for (qorInt32 i = 0; i < static_cast<qorInt32>(total); ++i) {
    const double x = points[i][0], y = points[i][1];
    if (!std::isfinite(x) || !std::isfinite(y)) ringsFailed("a coordinate is not a finite number", __LINE__);
    minX = std::min(minX, x), maxX = std::max(maxX, x), minY = std::min(minY, y), maxY = std::max(maxY, y);
  }
  const double extent = std::max(maxX - minX, maxY - minY);
  double twice = 0;  // the polygon's doubled area: the outer ring's minus the holes'
  for (qorInt32 c = 0, first = 0; c < count; ++c) {
    if (sizes[c] <= 0) continue;
    Ring r;
    r.user = c;
    r.idx.resize(static_cast<size_t>(sizes[c]));
    for (qorInt32 i = 0; i < sizes[c]; ++i) r.idx[static_cast<size_t>(i)] = first + i;
    first += sizes[c];
    fixups.pointsDropped += dropDegenerate(r.idx, points);
    const double a = r.idx.size() >= 3 ? twiceArea(r.idx, points, minX, minY) : 0.0;
    if (a == 0) {
      // A ring with no area is dropped, unless its area cancels because its edges cross (a bow tie).
      if (r.idx.size() >= 3) {
        std::vector<double> flat;
        for (qorInt32 v : r.idx) flat.push_back(points[v][0]), flat.push_back(points[v][1]);
        const qorInt32 size = static_cast<qorInt32>(r.idx.size());
        qor_internal::Contact contact =
            qor_internal::findContact(1, &size, reinterpret_cast<const double(*)[2]>(flat.data()));
        if (contact.kind == qor_internal::Contact::Cross) {
          contact.contourA = contact.contourB = c;
          ringsFailed(qor_internal::describeContact(contact, "ring") + " (edges cross)", __LINE__);
        }
      }
      ++fixups.ringsDropped;
      fixups.pointsDropped += static_cast<qorInt32>(r.idx.size());
      continue;
    }
    if ((a > 0) != (c == 0)) {
      std::reverse(r.idx.begin(), r.idx.end());
      ++fixups.ringsReoriented;
    }
    twice += std::fabs(a) * (c == 0 ? 1 : -1);
    rings.push_back(std::move(r));
  }
  if (rings.empty() || rings[0].user != 0) {  // no outer ring with area: nothing to cover
    lastFixups = fixups;
    return 0;
  }

  const long seed = qor_internal::runSeed();
  CheapPathScratch& scratch = cheapPathScratch();
  std::vector<qorInt32>& out = scratch.out;
  out.clear();
  qorInt32 n = 0;
  for (const Ring& r : rings) n += static_cast<qorInt32>(r.idx.size());

  // The cheap path: the normalized rings as they are.
  bool done = false;
  if (n <= SEGSIZE - 1) {
    std::vector<qorInt32>& sz = scratch.sizes;
    std::vector<double>& rows = scratch.rows;
    std::vector<qorInt32>& back = scratch.back;
    sz.clear();
    rows.assign({0.0, 0.0});
    back.assign({-1});
    for (const Ring& r : rings) {
      sz.push_back(static_cast<qorInt32>(r.idx.size()));
      for (qorInt32 v : r.idx) rows.push_back(points[v][0]), rows.push_back(points[v][1]), back.push_back(v);
    }
    qor_internal::setThreadSeed(&seed);
    try {
      runTriangulate(sz, rows, back, scratch.tri, out);
      done = true;
    } catch (qorException* e) {
      delete e;
      out.clear();
    }
    qor_internal::setThreadSeed(nullptr);
  }

  if (!done) {
    // Edges that properly cross cannot be repaired: say where.
    std::vector<qorInt32> flatSizes;
    std::vector<double> flat;
    for (qorInt32 c = 0, k = 0; c < count; ++c) {
      const Ring* r = k < static_cast<qorInt32>(rings.size()) && rings[static_cast<size_t>(k)].user == c
                          ? &rings[static_cast<size_t>(k++)]
                          : nullptr;
      flatSizes.push_back(r ? static_cast<qorInt32>(r->idx.size()) : 0);
      if (r)
        for (qorInt32 v : r->idx) flat.push_back(points[v][0]), flat.push_back(points[v][1]);
    }
    const qor_internal::Contact contact =
        qor_internal::findContact(count, flatSizes.data(), reinterpret_cast<const double(*)[2]>(flat.data()));
    if (contact.kind == qor_internal::Contact::Cross)
      ringsFailed(qor_internal::describeContact(contact, "ring") + " (edges cross)", __LINE__);

    RegionBuilder region(rings, points, fixups);
    region.trace();
    for (double fraction : {1e-3, 1e-5, 1e-2}) {
      out.clear();
      region.separate(fraction);
      try {
        region.triangulatePieces(seed, out);
      } catch (qorException* e) {
        if (fraction == 1e-2) {
          lastFixups = fixups;
          throw;
        }
        delete e;
        continue;
      }
      if (keepCovering(out, points, minX, minY, twice, extent, n)) {
        done = true;
        break;
      }
    }
    fixups.verticesSeparated = region.separated();
    if (!done) {
      lastFixups = fixups;
      ringsFailed("the triangles do not cover the polygon (do rings overlap?)", __LINE__);
    }
  } else if (!keepCovering(out, points, minX, minY, twice, extent, n)) {  // drops collinear triangles too
    lastFixups = fixups;
    ringsFailed("the triangles do not cover the polygon (do rings overlap?)", __LINE__);
  }
  lastFixups = fixups;
  triangles.insert(triangles.end(), out.begin(), out.end());
  return static_cast<qorInt32>(out.size() / 3);
}

qorRingFixups qorTriangulateRingsFixups() { return lastFixups; }
