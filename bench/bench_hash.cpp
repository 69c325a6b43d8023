// String hashes against std::hash<std::string_view> on the same keys.
// Reports bytes per nanosecond as the "bytes_per_ns" counter, and each peer's
// throughput ratio in the summary printed at the end.
#include <benchmark/benchmark.h>
#include <qor/qor_hashutil.h>

#include <cstdio>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int kKeys = 256;

std::vector<std::string> makeKeys(size_t length) {
  std::mt19937 random(static_cast<unsigned>(length));
  std::vector<std::string> keys(kKeys, std::string(length, 'a'));
  for (std::string& key : keys) {
    for (char& c : key) c = static_cast<char>('!' + random() % 90);
  }
  return keys;
}

template <typename Hash>
void runHash(benchmark::State& state, Hash hash) {
  const size_t length = static_cast<size_t>(state.range(0));
  const std::vector<std::string> keys = makeKeys(length);
  std::vector<const char*> pointers;
  for (const std::string& key : keys) pointers.push_back(key.c_str());
  unsigned sink = 0;
  for (auto _ : state) {
    for (int i = 0; i < kKeys; ++i) sink ^= hash(pointers[i], length);
    benchmark::DoNotOptimize(sink);
  }
  const double bytes = static_cast<double>(state.iterations()) * kKeys * static_cast<double>(length);
  state.counters["bytes_per_ns"] = benchmark::Counter(bytes / 1e9, benchmark::Counter::kIsRate);
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

void BM_Hash_XorString(benchmark::State& state) {
  runHash(state, [](const char* s, size_t) { return qorXorHashString(s); });
}
void BM_Hash_MultString(benchmark::State& state) {
  runHash(state, [](const char* s, size_t) { return qorMultHashString(s); });
}
void BM_Hash_StdHashStringView(benchmark::State& state) {
  runHash(state, [](const char* s, size_t n) {
    return static_cast<unsigned>(std::hash<std::string_view>()(std::string_view(s, n)));
  });
}

BENCHMARK(BM_Hash_XorString)->Arg(8)->Arg(64)->Arg(1024);
BENCHMARK(BM_Hash_MultString)->Arg(8)->Arg(64)->Arg(1024);
BENCHMARK(BM_Hash_StdHashStringView)->Arg(8)->Arg(64)->Arg(1024);

// Collects bytes/ns per run so the ratios against std::hash can be printed.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      auto found = run.counters.find("bytes_per_ns");
      if (found != run.counters.end()) rates_[run.benchmark_name()] = found->second.value;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintRatios() const {
    std::printf("\nbytes/ns and ratio to std::hash<std::string_view>:\n");
    for (const char* length : {"8", "64", "1024"}) {
      const double peer = rate("BM_Hash_StdHashStringView/", length);
      for (const char* name : {"BM_Hash_XorString/", "BM_Hash_MultString/"}) {
        const double own = rate(name, length);
        std::printf("  %-22s%5s bytes: %7.3f B/ns (std %7.3f B/ns) ratio %.2fx\n", name, length, own, peer,
                    peer > 0 ? own / peer : 0.0);
      }
    }
  }

 private:
  double rate(const char* name, const char* length) const {
    auto found = rates_.find(std::string(name) + length);
    return found == rates_.end() ? 0.0 : found->second;
  }
  std::map<std::string, double> rates_;
};

}  // namespace

int main(int argc, char** argv) {
  qorHashInitialize();
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
