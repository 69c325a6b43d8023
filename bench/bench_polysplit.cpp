// PolySplitter: Split and Divide on polygons of 1,000 and 10,000 vertices.
// The peer is the cheapest pass over the same vertices (the shoelace area),
// so the report shows what a cut costs per vertex beyond reading them. At the
// end the program prints each case's growth from 1,000 to 10,000 vertices
// next to the growth of n log n (13.3x) and of n (10x).
#include <benchmark/benchmark.h>
#include <qor/qor_polysplit.h>

#include <QLine>
#include <QPoint>
#include <QPolygon>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

// A regular polygon of n vertices on a large circle, counter-clockwise.
QPolygon convex(int n) {
  QPolygon poly;
  const double radius = 4.0e6;
  for (int i = 0; i < n; ++i) {
    const double a = 2 * 3.14159265358979323846 * i / n;
    poly.append(QPoint(int(std::lround(radius * std::cos(a))), int(std::lround(radius * std::sin(a)))));
  }
  return poly;
}

// n / 4 teeth on a base; a horizontal line through the teeth cuts every one.
QPolygon comb(int n) {
  const int teeth = n / 4, w = 3, gap = 2, base = 10, top = 30;
  const int width = teeth * w + (teeth - 1) * gap;
  QPolygon poly;
  poly << QPoint(0, 0) << QPoint(width, 0);
  for (int i = teeth - 1; i >= 0; --i) {
    const int left = i * (w + gap);
    poly << QPoint(left + w, top) << QPoint(left, top);
    if (i > 0) poly << QPoint(left, base) << QPoint(left - gap, base);
  }
  return poly;
}

// A zigzag strip of n vertices, n / 2 along each long side.
QPolygon strip(int n) {
  const int k = n / 2;
  QPolygon poly;
  for (int i = 0; i < k; ++i) poly.append(QPoint(10 * i, i % 2 ? 2 : 0));
  for (int i = k - 1; i >= 0; --i) poly.append(QPoint(10 * i, i % 2 ? 8 : 10));
  return poly;
}

void finish(benchmark::State& state, int n) { state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * n); }

void BM_PolySplit_AreaPass(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const QPolygon poly = convex(n);
  for (auto _ : state) {
    int64_t sum = 0;
    for (int i = 0; i < n; ++i) {
      const QPoint& a = poly[i];
      const QPoint& b = poly[(i + 1) % n];
      sum += static_cast<int64_t>(a.x()) * b.y() - static_cast<int64_t>(b.x()) * a.y();
    }
    benchmark::DoNotOptimize(sum);
  }
  finish(state, n);
}

// Two crossing points, two pieces.
void BM_PolySplit_SplitConvex(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const QPolygon poly = convex(n);
  const QLine line(1234, -5000000, 1300, 5000000);
  PolySplitter splitter;
  for (auto _ : state) benchmark::DoNotOptimize(splitter.Split(poly, line));
  finish(state, n);
}

// n / 2 on-line points and n / 4 bridges: the pairing's worst case.
void BM_PolySplit_SplitComb(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const QPolygon poly = comb(n);
  const QLine line(-5, 20, 10 * n, 20);
  PolySplitter splitter;
  for (auto _ : state) benchmark::DoNotOptimize(splitter.Split(poly, line));
  finish(state, n);
}

// Sixteen pieces whatever the size: the threshold grows with n.
void BM_PolySplit_DivideStripSixteenths(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const QPolygon poly = strip(n);
  PolySplitter splitter;
  for (auto _ : state) benchmark::DoNotOptimize(splitter.Divide(poly, n / 16));
  finish(state, n);
}

// Pieces of at most 64 vertices: n / 60 breaks, each over the remainder, so
// this case grows with n^2 / 64 by its nature.
void BM_PolySplit_DivideStrip64(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const QPolygon poly = strip(n);
  PolySplitter splitter;
  for (auto _ : state) benchmark::DoNotOptimize(splitter.Divide(poly, 64));
  finish(state, n);
}

// Median cuts of a convex polygon until the pieces no longer split.
void BM_PolySplit_DivideConvexMedian(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const QPolygon poly = convex(n);
  PolySplitter splitter;
  for (auto _ : state) benchmark::DoNotOptimize(splitter.Divide(poly, 0));
  finish(state, n);
}

BENCHMARK(BM_PolySplit_AreaPass)->Arg(1000)->Arg(10000);
BENCHMARK(BM_PolySplit_SplitConvex)->Arg(1000)->Arg(10000);
BENCHMARK(BM_PolySplit_SplitComb)->Arg(1000)->Arg(10000);
BENCHMARK(BM_PolySplit_DivideStripSixteenths)->Arg(1000)->Arg(10000);
BENCHMARK(BM_PolySplit_DivideStrip64)->Arg(1000)->Arg(10000);
BENCHMARK(BM_PolySplit_DivideConvexMedian)->Arg(1000)->Arg(10000);

// Collects the time per iteration so the growth and the ratios to the area
// pass can be printed after the runs.
class GrowthReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration) times_[run.benchmark_name()] = run.GetAdjustedCPUTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintGrowth() const {
    std::printf(
        "\ncase                                  1,000 vx     10,000 vx   growth   (n log n 13.3x, n 10x)"
        "   x area pass at 10,000\n");
    const double peer = time("BM_PolySplit_AreaPass/10000");
    for (const char* name :
         {"BM_PolySplit_AreaPass", "BM_PolySplit_SplitConvex", "BM_PolySplit_SplitComb",
          "BM_PolySplit_DivideStripSixteenths", "BM_PolySplit_DivideStrip64", "BM_PolySplit_DivideConvexMedian"}) {
      const double small = time(std::string(name) + "/1000");
      const double large = time(std::string(name) + "/10000");
      std::printf("%-36s %10.1f us %11.1f us %7.2fx %40.1fx\n", name, small / 1e3, large / 1e3,
                  small > 0 ? large / small : 0.0, peer > 0 ? large / peer : 0.0);
    }
  }

 private:
  double time(const std::string& name) const {
    auto found = times_.find(name);
    return found == times_.end() ? 0.0 : found->second;
  }
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  GrowthReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintGrowth();
  benchmark::Shutdown();
  return 0;
}
