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
#include "geometry_peers.h"

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

#if QOR_HAVE_GLU
void BM_Triangulate_GLU(benchmark::State& state) {
  peers::Glu glu(GLU_TESS_WINDING_ODD);
  glu.load(input(state));
  size_t corners = 0;
  for (auto _ : state) corners = glu.tessellate().size();
  state.counters["triangles"] = static_cast<double>(corners / 3);
}
#endif

#if QOR_HAVE_CGAL
void BM_Triangulate_CGAL(benchmark::State& state) {
  const auto rings = peers::cgalRings(input(state));
  int triangles = 0;
  for (auto _ : state) benchmark::DoNotOptimize(triangles = peers::cgalTriangles(rings));
  state.counters["triangles"] = triangles;
}
#endif

constexpr bool kHaveGlu = QOR_HAVE_GLU, kHaveCgal = QOR_HAVE_CGAL;

const std::vector<int64_t> kSizes = {10, 100, 1000, 4000, 8000, -1};

void sizes(benchmark::internal::Benchmark* b) {
  for (int64_t n : kSizes) b->Arg(n);
}

BENCHMARK(BM_Triangulate_Qor)->Apply(sizes);
#if QOR_HAVE_GLU
BENCHMARK(BM_Triangulate_GLU)->Apply(sizes);
#endif
#if QOR_HAVE_CGAL
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
