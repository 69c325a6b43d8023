// The ring entry point qorTriangulateRings() against triangulate() on valid simple polygons (its overhead: the
// normalization and checks), and on the 58 polygon fixtures against the GLU tessellator (odd winding, triangles
// only) and CGAL's constrained Delaunay triangulation restricted to the polygon's domain, all in this one run. The
// fixtures are normalized first for every contender (repeated and closing points dropped, ring 0 counter-clockwise,
// holes clockwise). At the end it prints the ratios of CPU times.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <qor/qor_exception.h>
#include <qor/qor_triangulate.h>

#include <algorithm>
#include <cstdio>
#include <deque>
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

// --- Inputs -----------------------------------------------------------------------------------------------------

// The triangulation benchmark's stars (radii 0.99 R..R) and its polygon of about 4,000 vertices with 20 holes.
const polygen::Polygon& generated(int n) {
  static std::map<int, polygen::Polygon> cache;
  auto it = cache.find(n);
  if (it != cache.end()) return it->second;
  polygen::Polygon p;
  if (n < 0) {
    std::mt19937_64 rng(4020);
    p = polygen::star(rng, 4000, 20, 4);
  } else {
    std::mt19937_64 rng(static_cast<unsigned>(n) * 2654435761u);
    p.contours.push_back(polygen::starContour(rng, n, 0, 0, 990, 1000, false));
  }
  return cache.emplace(n, p).first->second;
}

// The peers' input: unlike polygen::normalize, rings of zero area with three or more points stay.
polygen::Polygon normalizeForPeers(const polygen::Polygon& raw) {
  polygen::Polygon p;
  for (size_t r = 0; r < raw.contours.size(); ++r) {
    polygen::Contour c;
    for (const auto& q : raw.contours[r])
      if (c.empty() || c.back().x != q.x || c.back().y != q.y) c.push_back(q);
    while (c.size() > 1 && c.front().x == c.back().x && c.front().y == c.back().y) c.pop_back();
    if (c.size() < 3) continue;
    if ((polygen::twiceSignedArea(c) > 0) != (r == 0)) std::reverse(c.begin(), c.end());
    p.contours.push_back(c);
  }
  return p;
}

const std::vector<polygen::Polygon>& fixtures() {
  static std::vector<polygen::Polygon> all;
  if (!all.empty()) return all;
  const std::string dir = std::string(QOR_BENCH_DATA_DIR) + "/geometry/polygons/";
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (name.size() > 5 && name.compare(name.size() - 5, 5, ".json") == 0) names.push_back(name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    polygen::Polygon p = normalizeForPeers(polygen::readRings(dir + name));
    if (!p.contours.empty()) all.push_back(p);
  }
  return all;
}

struct Flat {
  std::vector<qorInt32> sizes;
  std::vector<double> points;  // from 0
};

Flat flat(const polygen::Polygon& p) {
  Flat f;
  for (const auto& c : p.contours) {
    f.sizes.push_back(static_cast<qorInt32>(c.size()));
    for (const auto& q : c) f.points.push_back(q.x), f.points.push_back(q.y);
  }
  return f;
}

// --- libqor -------------------------------------------------------------------------------------------------------

void BM_Triangulate_Star(benchmark::State& state) {
  qorTriangulateFixSeed(1);
  polygen::Flat f = polygen::flatten(generated(static_cast<int>(state.range(0))));
  std::vector<std::array<qorInt32, 3>> out(f.rows.size() + 2 * f.sizes.size() + 4);
  for (auto _ : state) {
    triangulate(static_cast<qorInt32>(f.sizes.size()), f.sizes.data(), f.points(),
                reinterpret_cast<qorInt32(*)[3]>(out.data()));
    benchmark::DoNotOptimize(out.data());
  }
}

void BM_TriangulateRings_Star(benchmark::State& state) {
  qorTriangulateFixSeed(1);
  Flat f = flat(generated(static_cast<int>(state.range(0))));
  std::vector<qorInt32> out;
  for (auto _ : state) {
    out.clear();
    qorTriangulateRings(static_cast<qorInt32>(f.sizes.size()), f.sizes.data(),
                        reinterpret_cast<const double(*)[2]>(f.points.data()), out);
    benchmark::DoNotOptimize(out.data());
  }
}

void BM_Fixtures_Qor(benchmark::State& state) {
  qorTriangulateFixSeed(1);
  std::vector<Flat> inputs;
  for (const auto& p : fixtures()) inputs.push_back(flat(p));
  std::vector<qorInt32> out;
  int done = 0;
  for (auto _ : state) {
    done = 0;
    for (const Flat& f : inputs) {
      out.clear();
      try {
        qorTriangulateRings(static_cast<qorInt32>(f.sizes.size()), f.sizes.data(),
                            reinterpret_cast<const double(*)[2]>(f.points.data()), out);
        ++done;
      } catch (qorException* e) {
        delete e;
      }
    }
  }
  state.counters["triangulated"] = done;
}

#if defined(QOR_HAVE_GLU)
// --- GLU tessellator --------------------------------------------------------------------------------------------

struct GluOut {
  std::vector<intptr_t> indices;
  std::deque<std::array<GLdouble, 3>> extra;  // vertices made where edges cross
};
void GLAPIENTRY gluVertex(void* vertex, void* data) {
  static_cast<GluOut*>(data)->indices.push_back(reinterpret_cast<intptr_t>(vertex));
}
void GLAPIENTRY gluBegin(GLenum, void*) {}
void GLAPIENTRY gluEnd(void*) {}
void GLAPIENTRY gluEdgeFlag(GLboolean, void*) {}
void GLAPIENTRY gluCombine(GLdouble coords[3], void**, GLfloat*, void** out, void* data) {
  GluOut* o = static_cast<GluOut*>(data);
  o->extra.push_back({coords[0], coords[1], coords[2]});
  *out = o->extra.back().data();
}

void BM_Fixtures_GLU(benchmark::State& state) {
  std::vector<std::vector<std::vector<std::array<GLdouble, 3>>>> inputs;
  for (const auto& p : fixtures()) {
    inputs.emplace_back();
    for (const auto& c : p.contours) {
      inputs.back().emplace_back();
      for (const auto& q : c) inputs.back().back().push_back({q.x, q.y, 0.0});
    }
  }
  GLUtesselator* tess = gluNewTess();
  gluTessProperty(tess, GLU_TESS_WINDING_RULE, GLU_TESS_WINDING_ODD);
  gluTessNormal(tess, 0, 0, 1);
  gluTessCallback(tess, GLU_TESS_BEGIN_DATA, reinterpret_cast<void(GLAPIENTRY*)()>(&gluBegin));
  gluTessCallback(tess, GLU_TESS_VERTEX_DATA, reinterpret_cast<void(GLAPIENTRY*)()>(&gluVertex));
  gluTessCallback(tess, GLU_TESS_END_DATA, reinterpret_cast<void(GLAPIENTRY*)()>(&gluEnd));
  gluTessCallback(tess, GLU_TESS_EDGE_FLAG_DATA, reinterpret_cast<void(GLAPIENTRY*)()>(&gluEdgeFlag));
  gluTessCallback(tess, GLU_TESS_COMBINE_DATA, reinterpret_cast<void(GLAPIENTRY*)()>(&gluCombine));
  GluOut out;
  for (auto _ : state) {
    for (auto& polygon : inputs) {
      out.indices.clear();
      out.extra.clear();
      gluTessBeginPolygon(tess, &out);
      for (auto& contour : polygon) {
        gluTessBeginContour(tess);
        for (auto& v : contour) gluTessVertex(tess, v.data(), v.data());
        gluTessEndContour(tess);
      }
      gluTessEndPolygon(tess);
      benchmark::DoNotOptimize(out.indices.data());
    }
  }
  gluDeleteTess(tess);
}
#endif

#if defined(QOR_HAVE_CGAL)
// --- CGAL constrained Delaunay --------------------------------------------------------------------------------------

using Kernel = CGAL::Exact_predicates_inexact_constructions_kernel;
struct FaceInfo {
  int nesting = -1;
};
using Vb = CGAL::Triangulation_vertex_base_2<Kernel>;
using Fbb = CGAL::Triangulation_face_base_with_info_2<FaceInfo, Kernel>;
using Fb = CGAL::Constrained_triangulation_face_base_2<Kernel, Fbb>;
using Tds = CGAL::Triangulation_data_structure_2<Vb, Fb>;
using Cdt = CGAL::Constrained_Delaunay_triangulation_2<Kernel, Tds, CGAL::Exact_predicates_tag>;

// Flood fill from the infinite face; crossing a constrained edge raises the nesting level by one.
int countDomain(Cdt& cdt) {
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

void BM_Fixtures_CGAL(benchmark::State& state) {
  std::vector<std::vector<std::vector<Kernel::Point_2>>> inputs;
  for (const auto& p : fixtures()) {
    inputs.emplace_back();
    for (const auto& c : p.contours) {
      inputs.back().emplace_back();
      for (const auto& q : c) inputs.back().back().emplace_back(q.x, q.y);
    }
  }
  for (auto _ : state) {
    for (const auto& polygon : inputs) {
      Cdt cdt;
      for (const auto& c : polygon) cdt.insert_constraint(c.begin(), c.end(), true);
      benchmark::DoNotOptimize(countDomain(cdt));
    }
  }
}
#endif

const std::vector<int64_t> kSizes = {10, 100, 1000, 4000, 8000, -1};
void sizes(benchmark::internal::Benchmark* b) {
  for (int64_t n : kSizes) b->Arg(n);
}

BENCHMARK(BM_Triangulate_Star)->Apply(sizes);
BENCHMARK(BM_TriangulateRings_Star)->Apply(sizes);
BENCHMARK(BM_Fixtures_Qor);
#if defined(QOR_HAVE_GLU)
BENCHMARK(BM_Fixtures_GLU);
#endif
#if defined(QOR_HAVE_CGAL)
BENCHMARK(BM_Fixtures_CGAL);
#endif

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
#if !defined(QOR_HAVE_GLU) || !defined(QOR_HAVE_CGAL)
  std::printf("peers: built without GLU or CGAL (bench/geometry.cmake); their fixture cases are left out\n");
#endif
  CpuTimes c;
  benchmark::RunSpecifiedBenchmarks(&c);
  benchmark::Shutdown();
  std::printf("\nqorTriangulateRings / triangulate on valid simple polygons (CPU time)\n");
  for (int64_t n : kSizes) {
    const std::string arg = "/" + std::to_string(n);
    const double t = c.time("BM_Triangulate_Star" + arg), r = c.time("BM_TriangulateRings_Star" + arg);
    if (t > 0 && r > 0)
      std::printf("%-22s %10.3f\n", (n < 0 ? std::string("~4000, 20 holes") : std::to_string(n) + " vertices").c_str(),
                  r / t);
  }
  const double q = c.time("BM_Fixtures_Qor"), g = c.time("BM_Fixtures_GLU"), k = c.time("BM_Fixtures_CGAL");
  if (q > 0 && g > 0 && k > 0) std::printf("fixtures: qor/GLU %.3f  qor/CGAL %.3f\n", q / g, q / k);
  return 0;
}
