// The ring engine (qorTriangulateRings) against the triangulators a user would pick instead, all in this one run, on
// an embedded set of polygons with the shapes of real maps, generated here: jagged coastlines of 1,000 to 300,000
// points with lakes, their islands, and small jagged shapes and stars of 10 to 999 points. The peers: earcut.hpp
// (mapbox::earcut<uint32_t>), the GLU tessellator (odd winding, triangles only) and CGAL's constrained Delaunay
// triangulation restricted to the polygon's domain; each is optional and skipped, with a note, when it was not found
// at configure time. At the end it prints, for each size bucket (under 100 points, 100 to 999, 1,000 and up), the
// geometric mean over the bucket's polygons of our CPU time over each peer's, and the engine's throughput with two
// threads over one.
//
// The fill call (qorTriangulateRingsFill) runs on generated self-crossing rings (random walks, twisted coastlines)
// and on valid coastlines, against the GLU tessellator with the same winding rule and, on the valid ones, against
// qorTriangulateRings; the ratios follow the others. While the call raises, its runs are skipped.
#include <benchmark/benchmark.h>
#include <qor/qor_exception.h>
#include <qor/qor_rings.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "cpu_times.h"
#include "polygon_generator.h"

#include "geometry_peers.h"
#if QOR_HAVE_EARCUT
#include <mapbox/earcut.hpp>
#endif

namespace {

using polygen::Polygon;

// --- Inputs -------------------------------------------------------------------------------------------------------

struct Input {
  std::string name;
  Polygon polygon;
  std::vector<qorInt32> sizes;
  std::vector<double> points;  // x, y of all rings one after another
};

Input input(std::string name, Polygon p) {
  Input in{std::move(name), std::move(p), {}, {}};
  for (const auto& c : in.polygon.contours) {
    in.sizes.push_back(static_cast<qorInt32>(c.size()));
    for (const auto& q : c) in.points.insert(in.points.end(), {q.x, q.y});
  }
  return in;
}

// The valid set: small and medium jagged rings, stars and coastlines with a lake or two, and five maps (every
// mainland and island a polygon of its own), so that each size bucket holds a dozen or more polygons.
const std::vector<Input>& valid() {
  static const std::vector<Input> all = [] {
    std::vector<Input> v;
    std::mt19937_64 rng(20261125);
    double safe;
    for (int n : {10, 13, 17, 23, 31, 42, 57, 77, 99, 130, 180, 250, 340, 470, 640, 870}) {
      v.push_back(input("jagged/" + std::to_string(n), Polygon{{polygen::jaggedRing(rng, n, 0, 0, 100, safe)}}));
      v.push_back(input("star/" + std::to_string(n), Polygon{{polygen::starContour(rng, n, 0, 0, 60, 100, false)}}));
      if (n >= 40) v.push_back(input("lakes/" + std::to_string(n), polygen::coastMap(rng, n, n < 300 ? 1 : 2)[0]));
    }
    for (int n : {1000, 4000, 16000, 64000, 300000}) {
      const std::vector<Polygon> map = polygen::coastMap(rng, n, n / 2000, true);
      for (size_t i = 0; i < map.size(); ++i)
        v.push_back(input(
            "map" + std::to_string(n) + "/" + std::to_string(i) + "/" + std::to_string(map[i].vertexCount()), map[i]));
    }
    return v;
  }();
  return all;
}

int bucket(const Input& in) {
  const int n = in.polygon.vertexCount();
  return n < 100 ? 0 : n < 1000 ? 1 : 2;
}
const char* const kBuckets[3] = {"under 100", "100 to 999", "1,000 and up"};

// Self-crossing rings and valid coastlines for the fill rules.
const std::vector<Input>& fillInputs() {
  static const std::vector<Input> all = [] {
    std::vector<Input> v;
    std::mt19937_64 rng(25);
    for (int n : {1000, 10000, 50000}) {
      v.push_back(input("walk/" + std::to_string(n), Polygon{{polygen::randomWalk(rng, n)}}));
      // Rounded to about twice the spacing of the points, so that neighbouring edges cross.
      v.push_back(input("twisted/" + std::to_string(n),
                        polygen::twisted(rng, polygen::coastMap(rng, n, n / 2000)[0], 10000.0 / n)));
      v.push_back(input("valid/" + std::to_string(n), polygen::coastMap(rng, n, n / 2000)[0]));
    }
    return v;
  }();
  return all;
}
bool crossing(const Input& in) { return in.name.rfind("valid/", 0) != 0; }

// --- Contenders ---------------------------------------------------------------------------------------------------

// Skips the run with the exception's message (its first line).
void skip(benchmark::State& state, qorException* e) {
  const std::string text = e->what();
  delete e;
  state.SkipWithError(text.substr(0, text.find('\n')).c_str());
}

void runRings(benchmark::State& state, const Input& in) {
  std::vector<qorInt32> out;
  for (auto _ : state) {
    out.clear();
    try {
      qorTriangulateRings(static_cast<qorInt32>(in.sizes.size()), in.sizes.data(),
                          reinterpret_cast<const double(*)[2]>(in.points.data()), out);
    } catch (qorException* e) {
      skip(state, e);
      break;
    }
    benchmark::DoNotOptimize(out.data());
  }
}

void runFill(benchmark::State& state, const Input& in, qorFillRule rule) {
  std::vector<qorInt32> out;
  std::vector<double> added;
  for (auto _ : state) {
    out.clear();
    try {
      qorTriangulateRingsFill(static_cast<qorInt32>(in.sizes.size()), in.sizes.data(),
                              reinterpret_cast<const double(*)[2]>(in.points.data()), rule, out, added);
    } catch (qorException* e) {
      skip(state, e);
      break;
    }
    benchmark::DoNotOptimize(out.data());
  }
}

#if QOR_HAVE_EARCUT
void runEarcut(benchmark::State& state, const Input& in) {
  std::vector<std::vector<std::array<double, 2>>> rings;
  for (const auto& c : in.polygon.contours) {
    rings.emplace_back();
    for (const auto& q : c) rings.back().push_back({q.x, q.y});
  }
  for (auto _ : state) benchmark::DoNotOptimize(mapbox::earcut<uint32_t>(rings).data());
}
#endif

#if QOR_HAVE_GLU
void runGlu(benchmark::State& state, const Input& in, GLdouble rule) {
  peers::Glu glu(rule);
  glu.load(in.polygon);
  for (auto _ : state) benchmark::DoNotOptimize(glu.tessellate().data());
}
#endif

#if QOR_HAVE_CGAL
void runCgal(benchmark::State& state, const Input& in) {
  const auto rings = peers::cgalRings(in.polygon);
  for (auto _ : state) benchmark::DoNotOptimize(peers::cgalTriangles(rings));
}
#endif

// Throughput on many threads: each iteration triangulates the polygons of 1,000 to 64,000 points of the valid set.
void BM_Rings_Throughput(benchmark::State& state) {
  std::vector<const Input*> work;
  for (const Input& in : valid())
    if (bucket(in) == 2 && in.polygon.vertexCount() <= 64000) work.push_back(&in);
  std::vector<qorInt32> out;
  for (auto _ : state)
    for (const Input* in : work) {
      out.clear();
      qorTriangulateRings(static_cast<qorInt32>(in->sizes.size()), in->sizes.data(),
                          reinterpret_cast<const double(*)[2]>(in->points.data()), out);
      benchmark::DoNotOptimize(out.data());
    }
  state.SetItemsProcessed(state.iterations());
}

// CPU times, and the throughput of the runs that count items.
class Times : public CpuTimes {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    CpuTimes::ReportRuns(runs);
    for (const Run& r : runs) {
      auto it = r.counters.find("items_per_second");
      if (r.run_type == Run::RT_Iteration && !r.error_occurred && it != r.counters.end())
        m_Rates[r.benchmark_name()] = it->second.value;
    }
  }
  double rate(const std::string& name) const {
    auto it = m_Rates.find(name);
    return it == m_Rates.end() ? 0 : it->second;
  }

 private:
  std::map<std::string, double> m_Rates;
};

// The geometric mean of a / b over the names whose runs both took place, and how many there were.
std::pair<double, int> geometricMean(const Times& t, const std::vector<std::pair<std::string, std::string>>& pairs) {
  double logs = 0;
  int k = 0;
  for (const auto& [a, b] : pairs)
    if (t.time(a) > 0 && t.time(b) > 0) logs += std::log(t.time(a) / t.time(b)), ++k;
  return {k ? std::exp(logs / k) : 0, k};
}

void printRatio(const char* label, const std::pair<double, int>& r) {
  if (r.second > 0)
    std::printf("  %-52s %8.3f  (%d polygons)\n", label, r.first, r.second);
  else
    std::printf("  %-52s %8s\n", label, "skipped");
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  struct Peer {
    const char* name;
    bool present;
  };
  const std::vector<Peer> peers = {
      {"earcut", QOR_HAVE_EARCUT != 0}, {"GLU", QOR_HAVE_GLU != 0}, {"CGAL", QOR_HAVE_CGAL != 0}};
  for (const Peer& p : peers)
    if (!p.present) std::printf("note: %s was not found at configure time; its runs are skipped\n", p.name);

  for (const Input& in : valid()) {
    benchmark::RegisterBenchmark(("BM_Rings_Qor/" + in.name).c_str(), runRings, std::cref(in));
#if QOR_HAVE_EARCUT
    benchmark::RegisterBenchmark(("BM_Rings_earcut/" + in.name).c_str(), runEarcut, std::cref(in));
#endif
#if QOR_HAVE_GLU
    benchmark::RegisterBenchmark(("BM_Rings_GLU/" + in.name).c_str(), runGlu, std::cref(in), GLU_TESS_WINDING_ODD);
#endif
#if QOR_HAVE_CGAL
    benchmark::RegisterBenchmark(("BM_Rings_CGAL/" + in.name).c_str(), runCgal, std::cref(in));
#endif
  }
  benchmark::RegisterBenchmark("BM_Rings_Throughput", BM_Rings_Throughput)->Threads(1)->Threads(2)->UseRealTime();
  const char* const rules[2] = {"evenodd", "nonzero"};
  for (const Input& in : fillInputs())
    for (int r = 0; r < 2; ++r) {
      const std::string tail = std::string(rules[r]) + "/" + in.name;
      benchmark::RegisterBenchmark(("BM_Fill_Qor/" + tail).c_str(), runFill, std::cref(in),
                                   r == 0 ? qorFillEvenOdd : qorFillNonZero);
#if QOR_HAVE_GLU
      benchmark::RegisterBenchmark(("BM_Fill_GLU/" + tail).c_str(), runGlu, std::cref(in),
                                   r == 0 ? GLU_TESS_WINDING_ODD : GLU_TESS_WINDING_NONZERO);
#endif
      if (!crossing(in) && r == 0)
        benchmark::RegisterBenchmark(("BM_Fill_Rings/" + in.name).c_str(), runRings, std::cref(in));
    }

  Times t;
  benchmark::RunSpecifiedBenchmarks(&t);
  benchmark::Shutdown();

  std::printf(
      "\nqorTriangulateRings CPU time / peer's, geometric mean over each bucket's polygons (below 1: faster)\n");
  for (int b = 0; b < 3; ++b) {
    std::printf("%s points:\n", kBuckets[b]);
    for (const Peer& p : peers) {
      std::vector<std::pair<std::string, std::string>> pairs;
      for (const Input& in : valid())
        if (bucket(in) == b)
          pairs.push_back({"BM_Rings_Qor/" + in.name, std::string("BM_Rings_") + p.name + "/" + in.name});
      printRatio((std::string("against ") + p.name).c_str(), geometricMean(t, pairs));
    }
  }
  const double one = t.rate("BM_Rings_Throughput/real_time/threads:1"),
               two = t.rate("BM_Rings_Throughput/real_time/threads:2");
  if (one > 0 && two > 0) std::printf("2-thread / 1-thread throughput of qorTriangulateRings: %.3f\n", two / one);

  std::printf("\nqorTriangulateRingsFill CPU time / other's, geometric mean (below 1: faster)\n");
  for (int r = 0; r < 2; ++r) {
    std::vector<std::pair<std::string, std::string>> glu, rings;
    for (const Input& in : fillInputs()) {
      const std::string tail = std::string(rules[r]) + "/" + in.name;
      if (crossing(in)) glu.push_back({"BM_Fill_Qor/" + tail, "BM_Fill_GLU/" + tail});
      if (!crossing(in)) rings.push_back({"BM_Fill_Qor/" + tail, "BM_Fill_Rings/" + in.name});
    }
    printRatio((std::string(rules[r]) + ", crossing input, against GLU").c_str(), geometricMean(t, glu));
    printRatio((std::string(rules[r]) + ", valid input, against qorTriangulateRings").c_str(), geometricMean(t, rings));
  }
  return 0;
}
