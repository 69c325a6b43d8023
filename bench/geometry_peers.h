// The geometry benchmarks' peers, set up once: the GLU tessellator (triangles only, any winding rule) and CGAL's
// constrained Delaunay triangulation restricted to the polygon's domain. Each peer is there when the build defines
// its QOR_HAVE_ macro as 1 (earcut.hpp, header-only, is included by the benchmark that calls it).
#ifndef QOR_BENCH_GEOMETRY_PEERS_H
#define QOR_BENCH_GEOMETRY_PEERS_H

#include <array>
#include <cstdint>
#include <deque>
#include <vector>

#include "polygon_generator.h"

#ifndef QOR_HAVE_EARCUT
#define QOR_HAVE_EARCUT 0
#endif
#ifndef QOR_HAVE_GLU
#define QOR_HAVE_GLU 0
#endif
#ifndef QOR_HAVE_CGAL
#define QOR_HAVE_CGAL 0
#endif

#if QOR_HAVE_GLU
#include <GL/glu.h>

namespace peers {

// One tessellator with its callbacks; tessellate() gives the triangles' corners, each the number passed with the
// vertex (its place in the polygon's contours, from 1), or for a vertex GLU made where edges cross, the address of
// its coordinates.
class Glu {
 public:
  explicit Glu(GLdouble rule) : m_Tess(gluNewTess()) {
    gluTessProperty(m_Tess, GLU_TESS_WINDING_RULE, rule);
    gluTessNormal(m_Tess, 0, 0, 1);
    gluTessCallback(m_Tess, GLU_TESS_BEGIN_DATA, reinterpret_cast<void(GLAPIENTRY*)()>(&begin));
    gluTessCallback(m_Tess, GLU_TESS_VERTEX_DATA, reinterpret_cast<void(GLAPIENTRY*)()>(&vertex));
    gluTessCallback(m_Tess, GLU_TESS_END_DATA, reinterpret_cast<void(GLAPIENTRY*)()>(&end));
    // An edge-flag callback makes the tessellator emit separate triangles only (no fans or strips).
    gluTessCallback(m_Tess, GLU_TESS_EDGE_FLAG_DATA, reinterpret_cast<void(GLAPIENTRY*)()>(&edgeFlag));
    gluTessCallback(m_Tess, GLU_TESS_COMBINE_DATA, reinterpret_cast<void(GLAPIENTRY*)()>(&combine));
  }
  ~Glu() { gluDeleteTess(m_Tess); }
  Glu(const Glu&) = delete;
  Glu& operator=(const Glu&) = delete;

  // The polygon's coordinates as GLU reads them, made once before the timing loop.
  void load(const polygen::Polygon& p) {
    m_Coords.clear();
    m_Sizes.clear();
    for (const auto& c : p.contours) {
      m_Sizes.push_back(c.size());
      for (const auto& q : c) m_Coords.push_back({q.x, q.y, 0.0});
    }
  }
  const std::vector<intptr_t>& tessellate() {
    m_Indices.clear();
    m_Made.clear();
    gluTessBeginPolygon(m_Tess, this);
    size_t k = 0;
    for (size_t size : m_Sizes) {
      gluTessBeginContour(m_Tess);
      for (size_t i = 0; i < size; ++i, ++k)
        gluTessVertex(m_Tess, m_Coords[k].data(), reinterpret_cast<void*>(static_cast<intptr_t>(k + 1)));
      gluTessEndContour(m_Tess);
    }
    gluTessEndPolygon(m_Tess);
    return m_Indices;
  }

 private:
  static void GLAPIENTRY vertex(void* v, void* self) {
    static_cast<Glu*>(self)->m_Indices.push_back(reinterpret_cast<intptr_t>(v));
  }
  static void GLAPIENTRY begin(GLenum, void*) {}
  static void GLAPIENTRY end(void*) {}
  static void GLAPIENTRY edgeFlag(GLboolean, void*) {}
  static void GLAPIENTRY combine(GLdouble coords[3], void**, GLfloat*, void** out, void* self) {
    Glu* g = static_cast<Glu*>(self);
    g->m_Made.push_back({coords[0], coords[1], coords[2]});
    *out = g->m_Made.back().data();
  }

  GLUtesselator* m_Tess;
  std::vector<std::array<GLdouble, 3>> m_Coords;
  std::vector<size_t> m_Sizes;
  std::vector<intptr_t> m_Indices;
  std::deque<std::array<GLdouble, 3>> m_Made;
};

}  // namespace peers
#endif

#if QOR_HAVE_CGAL
#include <CGAL/Constrained_Delaunay_triangulation_2.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Triangulation_face_base_with_info_2.h>

namespace peers {

using Kernel = CGAL::Exact_predicates_inexact_constructions_kernel;
struct FaceInfo {
  int nesting = -1;
};
using Cdt = CGAL::Constrained_Delaunay_triangulation_2<
    Kernel,
    CGAL::Triangulation_data_structure_2<CGAL::Triangulation_vertex_base_2<Kernel>,
                                         CGAL::Constrained_triangulation_face_base_2<
                                             Kernel, CGAL::Triangulation_face_base_with_info_2<FaceInfo, Kernel>>>,
    CGAL::Exact_predicates_tag>;

// The polygon's contours as CGAL points, made once before the timing loop.
inline std::vector<std::vector<Kernel::Point_2>> cgalRings(const polygen::Polygon& p) {
  std::vector<std::vector<Kernel::Point_2>> rings;
  for (const auto& c : p.contours) {
    rings.emplace_back();
    for (const auto& q : c) rings.back().emplace_back(q.x, q.y);
  }
  return rings;
}

// Triangulates the contours as constraints and counts the faces of the domain: a flood fill from the infinite face
// in which crossing a constrained edge raises the nesting level by one, odd levels inside.
inline int cgalTriangles(const std::vector<std::vector<Kernel::Point_2>>& rings) {
  Cdt cdt;
  for (const auto& ring : rings) cdt.insert_constraint(ring.begin(), ring.end(), true);
  std::deque<Cdt::Face_handle> border{cdt.infinite_face()};
  for (int level = 0; !border.empty(); ++level) {
    std::deque<Cdt::Face_handle> next;
    while (!border.empty()) {
      std::deque<Cdt::Face_handle> queue{border.front()};
      border.pop_front();
      while (!queue.empty()) {
        Cdt::Face_handle f = queue.front();
        queue.pop_front();
        if (f->info().nesting != -1) continue;
        f->info().nesting = level;
        for (int i = 0; i < 3; ++i) {
          if (f->neighbor(i)->info().nesting != -1) continue;
          (cdt.is_constrained(Cdt::Edge(f, i)) ? next : queue).push_back(f->neighbor(i));
        }
      }
    }
    border.swap(next);
  }
  int inside = 0;
  for (auto f = cdt.finite_faces_begin(); f != cdt.finite_faces_end(); ++f) inside += f->info().nesting % 2;
  return inside;
}

}  // namespace peers
#endif

#endif
