// Triangulation of random simple polygons: libqor's triangulate() against the
// GLU tessellator (odd winding, triangles only) and CGAL's constrained
// Delaunay triangulation restricted to the polygon-with-holes domain. All
// three run in this program; at the end it prints each peer's time over ours
// and the growth of our time from 1,000 to 8,000 vertices.
#include <benchmark/benchmark.h>
#include <qor/qor_exception.h>
#include <qor/qor_triangulate.h>

#include <cstdio>
#include <deque>
#include <list>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "cpu_times.h"
#include "polygon_generator.h"

// Each peer is optional (bench/geometry.cmake): a missing one's cases are left out.
#if defined(QOR_HAVE_CGAL)
#include <CGAL/Constrained_Delaunay_triangulation_2.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Triangulation_face_base_with_info_2.h>
#endif
#if defined(QOR_HAVE_GLU)
#include <GL/glu.h>
#endif

namespace {

// --- Inputs -----------------------------------------------------------------

// Star-shaped polygons with radii in [0.99 R, R]: random and simple, and
// regular enough that the trapezoids of 8,000 vertices fit the fixed
// trapezoid table (about 30,000 of its 32,767 entries; a wildly irregular
// polygon issues about 4.5 trapezoids per vertex and overflows it from
// about 7,000 vertices on).
polygen::Polygon starPolygon(int n) {
  std::mt19937_64 rng(static_cast<unsigned>(n) * 2654435761u);
  polygen::Polygon p;
  p.contours.push_back(polygen::starContour(rng, n, 0, 0, 990, 1000, false));
  return p;
}

// About 4,000 vertices: an irregular star (radii 0.6 R..R) with 20 holes of
// four vertices in its core.
polygen::Polygon holesPolygon() {
  std::mt19937_64 rng(4020);
  return polygen::star(rng, 4000, 20, 4);
}

const polygen::Polygon& cached(int n) {
  static std::map<int, polygen::Polygon> polygons;
  auto it = polygons.find(n);
  if (it == polygons.end()) it = polygons.emplace(n, n < 0 ? holesPolygon() : starPolygon(n)).first;
  return it->second;
}

// Range argument: the vertex count, or -1 for the polygon with holes.
const polygen::Polygon& input(const benchmark::State& state) { return cached(static_cast<int>(state.range(0))); }

// --- libqor -----------------------------------------------------------------

void BM_Triangulate_Qor(benchmark::State& state) {
  const polygen::Polygon& p = input(state);
  polygen::Flat flat = polygen::flatten(p);
  std::vector<std::array<qorInt32, 3>> out(static_cast<size_t>(p.vertexCount() + 2 * p.holeCount()));
  for (auto _ : state) {
    try {
      triangulate(static_cast<qorInt32>(flat.sizes.size()), flat.sizes.data(), flat.points(),
                  reinterpret_cast<qorInt32(*)[3]>(out.data()));
    } catch (qorException* e) {
      state.SkipWithError(e->what());
      delete e;
      break;
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["triangles"] = triangulate_last_count();
}

#if defined(QOR_HAVE_GLU)
// --- GLU tessellator ----------------------------------------------------------

struct GluOutput {
  std::vector<int> indices;
};

void GLAPIENTRY gluVertex(void* vertex, void* data) {
  static_cast<GluOutput*>(data)->indices.push_back(static_cast<int>(reinterpret_cast<intptr_t>(vertex)));
}
void GLAPIENTRY gluBegin(GLenum, void*) {}
void GLAPIENTRY gluEnd(void*) {}
// Registering an edge-flag callback makes the tessellator emit separate
// triangles only (no fans or strips).
void GLAPIENTRY gluEdgeFlag(GLboolean, void*) {}

void BM_Triangulate_GLU(benchmark::State& state) {
  const polygen::Polygon& p = input(state);
  std::vector<std::array<GLdouble, 3>> coords;
  for (const auto& c : p.contours)
    for (const auto& q : c) coords.push_back({q.x, q.y, 0.0});
  GLUtesselator* tess = gluNewTess();
  gluTessProperty(tess, GLU_TESS_WINDING_RULE, GLU_TESS_WINDING_ODD);
  gluTessNormal(tess, 0, 0, 1);
  gluTessCallback(tess, GLU_TESS_BEGIN_DATA, reinterpret_cast<void(GLAPIENTRY*)()>(&gluBegin));
  gluTessCallback(tess, GLU_TESS_VERTEX_DATA, reinterpret_cast<void(GLAPIENTRY*)()>(&gluVertex));
  gluTessCallback(tess, GLU_TESS_END_DATA, reinterpret_cast<void(GLAPIENTRY*)()>(&gluEnd));
  gluTessCallback(tess, GLU_TESS_EDGE_FLAG_DATA, reinterpret_cast<void(GLAPIENTRY*)()>(&gluEdgeFlag));
  GluOutput out;
  for (auto _ : state) {
    out.indices.clear();
    gluTessBeginPolygon(tess, &out);
    size_t k = 0;
    for (const auto& c : p.contours) {
      gluTessBeginContour(tess);
      for (size_t i = 0; i < c.size(); ++i, ++k)
        gluTessVertex(tess, coords[k].data(), reinterpret_cast<void*>(static_cast<intptr_t>(k + 1)));
      gluTessEndContour(tess);
    }
    gluTessEndPolygon(tess);
    benchmark::DoNotOptimize(out.indices.data());
  }
  state.counters["triangles"] = static_cast<double>(out.indices.size() / 3);
  gluDeleteTess(tess);
}
#endif

#if defined(QOR_HAVE_CGAL)
// --- CGAL constrained Delaunay --------------------------------------------------

using Kernel = CGAL::Exact_predicates_inexact_constructions_kernel;
struct FaceInfo {
  int nesting = -1;
  bool inDomain() const { return nesting % 2 == 1; }
};
using Vb = CGAL::Triangulation_vertex_base_2<Kernel>;
using Fbb = CGAL::Triangulation_face_base_with_info_2<FaceInfo, Kernel>;
using Fb = CGAL::Constrained_triangulation_face_base_2<Kernel, Fbb>;
using Tds = CGAL::Triangulation_data_structure_2<Vb, Fb>;
using Cdt = CGAL::Constrained_Delaunay_triangulation_2<Kernel, Tds, CGAL::Exact_predicates_tag>;

// Flood fill from the infinite face: crossing a constrained edge raises the
// nesting level by one; faces at odd levels are inside the polygon.
void markDomain(Cdt& cdt) {
  for (auto f = cdt.all_faces_begin(); f != cdt.all_faces_end(); ++f) f->info().nesting = -1;
  std::deque<Cdt::Face_handle> border{cdt.infinite_face()};
  int level = 0;
  while (!border.empty()) {
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
          Cdt::Face_handle n = f->neighbor(i);
          if (n->info().nesting != -1) continue;
          if (cdt.is_constrained(Cdt::Edge(f, i)))
            next.push_back(n);
          else
            queue.push_back(n);
        }
      }
    }
    border.swap(next);
    ++level;
  }
}

void BM_Triangulate_CGAL(benchmark::State& state) {
  const polygen::Polygon& p = input(state);
  std::vector<std::vector<Kernel::Point_2>> contours;
  for (const auto& c : p.contours) {
    contours.emplace_back();
    for (const auto& q : c) contours.back().emplace_back(q.x, q.y);
  }
  int triangles = 0;
  for (auto _ : state) {
    Cdt cdt;
    for (const auto& c : contours) cdt.insert_constraint(c.begin(), c.end(), true);
    markDomain(cdt);
    triangles = 0;
    for (auto f = cdt.finite_faces_begin(); f != cdt.finite_faces_end(); ++f) triangles += f->info().inDomain();
    benchmark::DoNotOptimize(triangles);
  }
  state.counters["triangles"] = triangles;
}
#endif

#if defined(QOR_HAVE_GLU)
constexpr bool kHaveGlu = true;
#else
constexpr bool kHaveGlu = false;
#endif
#if defined(QOR_HAVE_CGAL)
constexpr bool kHaveCgal = true;
#else
constexpr bool kHaveCgal = false;
#endif

const std::vector<int64_t> kSizes = {10, 100, 1000, 4000, 8000, -1};

void sizes(benchmark::internal::Benchmark* b) {
  for (int64_t n : kSizes) b->Arg(n);
}

BENCHMARK(BM_Triangulate_Qor)->Apply(sizes);
#if defined(QOR_HAVE_GLU)
BENCHMARK(BM_Triangulate_GLU)->Apply(sizes);
#endif
#if defined(QOR_HAVE_CGAL)
BENCHMARK(BM_Triangulate_CGAL)->Apply(sizes);
#endif

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::printf("peers: GLU %s, CGAL %s\n", kHaveGlu ? "built in" : "missing (not built with it)",
              kHaveCgal ? "built in" : "missing (not built with it)");
  CpuTimes collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  benchmark::Shutdown();

  std::printf("\nCPU time per triangulation (ns)\n%-22s %12s %12s %12s %10s %10s\n", "polygon", "qor", "GLU", "CGAL",
              "qor/GLU", "qor/CGAL");
  for (int64_t n : kSizes) {
    const std::string arg = "/" + std::to_string(n);
    const double q = collector.time("BM_Triangulate_Qor" + arg);
    const double g = collector.time("BM_Triangulate_GLU" + arg);
    const double c = collector.time("BM_Triangulate_CGAL" + arg);
    if (q <= 0) continue;
    const std::string label = n < 0 ? "~4000, 20 holes" : std::to_string(n) + " vertices";
    std::printf("%-22s %12.0f %12.0f %12.0f %10.3f %10.3f\n", label.c_str(), q, g, c, g > 0 ? q / g : 0,
                c > 0 ? q / c : 0);
  }
  const double t1000 = collector.time("BM_Triangulate_Qor/1000");
  const double t8000 = collector.time("BM_Triangulate_Qor/8000");
  if (t1000 > 0 && t8000 > 0) std::printf("qor time(8000)/time(1000): %.2f\n", t8000 / t1000);
  return 0;
}
