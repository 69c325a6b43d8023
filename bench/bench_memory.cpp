// Allocation and release pairs through libqor's allocators against the
// platform malloc (glibc) and three peer allocators, all in one run.
//
// The peers are loaded with dlopen(RTLD_LOCAL) and called through their own
// entry points (jemalloc's mallocx/sdallocx, tcmalloc's tc_malloc/
// tc_free_sized, mimalloc's mi_malloc/mi_free), so that none of them
// replaces the process's malloc and glibc is measured as itself. jemalloc
// needs more static TLS than glibc keeps spare for dlopen; when loading it
// fails for that reason the program runs itself again with the glibc tunable
// that provides it.
//
// Cases, per allocator and size (16, 32, 100 and 1,000 bytes):
//   Lifo:  allocate one block and release it at once;
//   Batch: allocate 10,000 blocks, then release them in allocation order;
//   Lifo with two threads at once (one shared qorHeapCSO; the object
//   allocator's lists; each malloc with its own per-thread caches).
// Every case reports "ns_per_pair" (per thread), and the summary at the end
// prints the ratios against glibc.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <qor/qor_alloc.h>
#include <qor/qor_heapcso.h>
#include <qor/qor_heapmixed.h>
#include <qor/qor_objectalloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr int kBatch = 10000;

// --- Allocators under test -------------------------------------------------

using MallocFn = void* (*)(size_t);
using FreeFn = void (*)(void*);
using SizedFreeFn = void (*)(void*, size_t);
using MallocxFn = void* (*)(size_t, int);
using SdallocxFn = void (*)(void*, size_t, int);

struct Peers {
  MallocxFn jeMallocx = nullptr;
  SdallocxFn jeSdallocx = nullptr;
  MallocFn tcMalloc = nullptr;
  SizedFreeFn tcFreeSized = nullptr;
  MallocFn miMalloc = nullptr;
  FreeFn miFree = nullptr;
};
Peers peers;

qorHeapCSO* sharedCSO = nullptr;  // shared by the threads of the two-thread case
qorHeapCSO* mixedSmallHeap = nullptr;
qorHeapMixed* mixedHeap = nullptr;

struct Glibc {
  static void* alloc(unsigned long n) { return malloc(n); }
  static void release(void* p, unsigned long) { free(p); }
};
struct Jemalloc {
  static void* alloc(unsigned long n) { return peers.jeMallocx(n, 0); }
  static void release(void* p, unsigned long n) { peers.jeSdallocx(p, n, 0); }
};
struct Tcmalloc {
  static void* alloc(unsigned long n) { return peers.tcMalloc(n); }
  static void release(void* p, unsigned long n) { peers.tcFreeSized(p, n); }
};
struct Mimalloc {
  static void* alloc(unsigned long n) { return peers.miMalloc(n); }
  static void release(void* p, unsigned long) { peers.miFree(p); }
};
struct HeapCSO {
  static void* alloc(unsigned long n) { return static_cast<qorHeapIntf*>(sharedCSO)->Alloc(n); }
  static void release(void* p, unsigned long n) { static_cast<qorHeapIntf*>(sharedCSO)->Dealloc2(p, n); }
};
struct ObjectAlloc {
  static void* alloc(unsigned long n) { return qorOAAlloc(n); }
  static void release(void* p, unsigned long n) { qorOADealloc(p, n); }
};
struct HeapMixed {
  static void* alloc(unsigned long n) { return static_cast<qorHeapIntf*>(mixedHeap)->Alloc(n); }
  static void release(void* p, unsigned long n) { static_cast<qorHeapIntf*>(mixedHeap)->Dealloc2(p, n); }
};
struct PageAlloc {
  static void* alloc(unsigned long) { return qorPageAlloc::Alloc(); }
  static void release(void* p, unsigned long) { qorPageAlloc::Dealloc(p); }
};

// --- Cases -------------------------------------------------------------------

template <typename A>
void lifo(benchmark::State& state) {
  const unsigned long size = static_cast<unsigned long>(state.range(0));
  for (auto _ : state) {
    void* p = A::alloc(size);
    benchmark::DoNotOptimize(p);
    A::release(p, size);
  }
  state.counters["pairs"] = 1;
}

template <typename A>
void batch(benchmark::State& state) {
  const unsigned long size = static_cast<unsigned long>(state.range(0));
  std::vector<void*> blocks(kBatch);
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      void* p = A::alloc(size);
      static_cast<char*>(p)[size - 1] = 1;
      blocks[i] = p;
    }
    for (int i = 0; i < kBatch; ++i) A::release(blocks[i], size);
    benchmark::ClobberMemory();
  }
  state.counters["pairs"] = kBatch;
}

// The floor under every locked allocator: the two locked sections of one
// pair (one to take an object, one to give it back) with nothing inside,
// through qorMutexLocker as the allocators take them.
QMutex boundMutex;
void BM_Bound_TwoLockedSections(benchmark::State& state) {
  void* slot = &boundMutex;
  for (auto _ : state) {
    {
      qorMutexLocker lock(boundMutex);
      benchmark::DoNotOptimize(slot);
    }
    {
      qorMutexLocker lock(boundMutex);
      benchmark::DoNotOptimize(slot);
    }
  }
  state.counters["pairs"] = 1;
}
// The same with the mutex's inline fast path (no call into Qt), for
// comparison.
void BM_Bound_TwoLockedSectionsInline(benchmark::State& state) {
  QBasicMutex& mutex = boundMutex;
  void* slot = &boundMutex;
  for (auto _ : state) {
    mutex.lock();
    benchmark::DoNotOptimize(slot);
    mutex.unlock();
    mutex.lock();
    benchmark::DoNotOptimize(slot);
    mutex.unlock();
  }
  state.counters["pairs"] = 1;
}

void registerAll() {
  benchmark::RegisterBenchmark("BM_Bound_TwoLockedSections", BM_Bound_TwoLockedSections);
  benchmark::RegisterBenchmark("BM_Bound_TwoLockedSectionsInline", BM_Bound_TwoLockedSectionsInline);
  struct Entry {
    const char* name;
    void (*lifo)(benchmark::State&);
    void (*batch)(benchmark::State&);
    bool twoThreads;
    bool available;
  };
  const Entry entries[] = {
      {"HeapCSO", lifo<HeapCSO>, batch<HeapCSO>, true, true},
      {"ObjectAlloc", lifo<ObjectAlloc>, batch<ObjectAlloc>, true, true},
      {"HeapMixed", lifo<HeapMixed>, batch<HeapMixed>, false, true},
      {"Glibc", lifo<Glibc>, batch<Glibc>, true, true},
      {"Jemalloc", lifo<Jemalloc>, batch<Jemalloc>, true, peers.jeMallocx != nullptr},
      {"Tcmalloc", lifo<Tcmalloc>, batch<Tcmalloc>, true, peers.tcMalloc != nullptr},
      {"Mimalloc", lifo<Mimalloc>, batch<Mimalloc>, true, peers.miMalloc != nullptr},
  };
  for (const Entry& e : entries) {
    if (!e.available) continue;
    const std::string unit = std::string("BM_") + e.name;
    benchmark::RegisterBenchmark((unit + "_Lifo").c_str(), e.lifo)->Arg(16)->Arg(32)->Arg(100)->Arg(1000);
    benchmark::RegisterBenchmark((unit + "_Batch").c_str(), e.batch)->Arg(16)->Arg(32)->Arg(100)->Arg(1000);
    if (e.twoThreads) {
      benchmark::RegisterBenchmark((unit + "_Lifo2T").c_str(), e.lifo)->Arg(16)->Arg(100)->Threads(2);
    }
  }
  // Pages: one page per pair, against a page-sized malloc.
  const long page = static_cast<long>(qorPageAlloc::GetPageSize());
  benchmark::RegisterBenchmark("BM_PageAlloc_Lifo", lifo<PageAlloc>)->Arg(page);
  benchmark::RegisterBenchmark("BM_PageAlloc_Batch", batch<PageAlloc>)->Arg(page);
  benchmark::RegisterBenchmark("BM_Glibc_Lifo", lifo<Glibc>)->Arg(page);
  benchmark::RegisterBenchmark("BM_Glibc_Batch", batch<Glibc>)->Arg(page);
}

// --- Peers -------------------------------------------------------------------

bool loadPeers(char** argv) {
  void* je = dlopen("libjemalloc.so.2", RTLD_NOW | RTLD_LOCAL);
  if (je == nullptr && std::strstr(dlerror(), "static TLS") != nullptr && getenv("QOR_BENCH_REEXEC") == nullptr) {
    const char* tunables = getenv("GLIBC_TUNABLES");
    const std::string ours = "glibc.rtld.optional_static_tls=65536";
    setenv("GLIBC_TUNABLES",
           tunables != nullptr && *tunables != '\0' ? (std::string(tunables) + ":" + ours).c_str() : ours.c_str(), 1);
    setenv("QOR_BENCH_REEXEC", "1", 1);
    execv("/proc/self/exe", argv);
    return false;
  }
  if (je != nullptr) {
    peers.jeMallocx = reinterpret_cast<MallocxFn>(dlsym(je, "mallocx"));
    peers.jeSdallocx = reinterpret_cast<SdallocxFn>(dlsym(je, "sdallocx"));
    if (peers.jeSdallocx == nullptr) peers.jeMallocx = nullptr;
  }
  if (void* tc = dlopen("libtcmalloc_minimal.so.4", RTLD_NOW | RTLD_LOCAL)) {
    peers.tcMalloc = reinterpret_cast<MallocFn>(dlsym(tc, "tc_malloc"));
    peers.tcFreeSized = reinterpret_cast<SizedFreeFn>(dlsym(tc, "tc_free_sized"));
    if (peers.tcFreeSized == nullptr) peers.tcMalloc = nullptr;
  }
  if (void* mi = dlopen("libmimalloc.so.2", RTLD_NOW | RTLD_LOCAL)) {
    peers.miMalloc = reinterpret_cast<MallocFn>(dlsym(mi, "mi_malloc"));
    peers.miFree = reinterpret_cast<FreeFn>(dlsym(mi, "mi_free"));
    if (peers.miFree == nullptr) peers.miMalloc = nullptr;
  }
  std::printf("peers: jemalloc %s, tcmalloc %s, mimalloc %s\n", peers.jeMallocx ? "loaded" : "missing",
              peers.tcMalloc ? "loaded" : "missing", peers.miMalloc ? "loaded" : "missing");
  return true;
}

// --- Summary -----------------------------------------------------------------

// Keeps the time per pair and thread of every run, for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (Run& run : const_cast<std::vector<Run>&>(runs)) {
      auto pairs = run.counters.find("pairs");
      if (pairs == run.counters.end() || run.run_type != Run::RT_Iteration) continue;
      // CPU time per pair: the machine is shared, and wall time counts the
      // time a busy neighbour holds the processor. With threads, the library
      // divides one thread's time by the iterations of all threads, so one
      // thread's time per pair is that times the threads. The wall-clock
      // figure per thread is kept too: it includes the time a thread sleeps
      // waiting for a lock.
      const double ns = run.GetAdjustedCPUTime() * static_cast<double>(run.threads) / pairs->second.value;
      const double wall = run.GetAdjustedRealTime() * static_cast<double>(run.threads) / pairs->second.value;
      run.counters["ns_per_pair"] = benchmark::Counter(ns);
      run.counters["wall_ns_per_pair"] = benchmark::Counter(wall);
      // With repetitions, the fastest repetition counts: the others lost
      // time to the neighbours.
      const std::string key = run.run_name.function_name + "/" + run.run_name.args;
      if (m_Ns.count(key) == 0 || ns < m_Ns[key]) m_Ns[key] = ns;
      if (m_Wall.count(key) == 0 || wall < m_Wall[key]) m_Wall[key] = wall;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintSummary() const {
    std::printf("\nTime per alloc+release pair (ns, per thread) and ratio to glibc malloc/free:\n");
    std::printf("%-22s %6s %9s %9s %7s %9s %9s %9s\n", "case", "bytes", "qor", "glibc", "ratio", "jemalloc", "tcmalloc",
                "mimalloc");
    for (const char* unit : {"HeapMixed", "HeapCSO", "ObjectAlloc"}) {
      for (const char* mode : {"Lifo", "Batch"}) {
        for (const char* size : {"16", "32", "100", "1000"}) row(unit, mode, size);
      }
    }
    for (const char* size : {"16", "100"}) row("HeapCSO", "Lifo2T", size);
    for (const char* size : {"16", "100"}) row("ObjectAlloc", "Lifo2T", size);
    const std::string page = std::to_string(qorPageAlloc::GetPageSize());
    for (const char* mode : {"Lifo", "Batch"}) row("PageAlloc", mode, page.c_str());

    std::printf("%-22s %6s %9.2f  (two empty locked sections through qorMutexLocker)\n", "Bound_TwoLocked", "-",
                findKey(m_Ns, "BM_Bound_TwoLockedSections/"));
    std::printf("%-22s %6s %9.2f  (the same through QBasicMutex's inline fast path)\n", "Bound_TwoLockedInline", "-",
                findKey(m_Ns, "BM_Bound_TwoLockedSectionsInline/"));

    std::printf("\nTargets:\n");
    double worstMixed = 0, worstCSO = 0, worstOA = 0;
    for (const char* mode : {"Lifo", "Batch"}) {
      for (const char* size : {"16", "32", "100"}) worstMixed = std::max(worstMixed, ratio("HeapMixed", mode, size));
      for (const char* size : {"16", "32", "100", "1000"}) {
        worstCSO = std::max(worstCSO, ratio("HeapCSO", mode, size));
        worstOA = std::max(worstOA, ratio("ObjectAlloc", mode, size));
      }
    }
    std::printf("  qorHeapMixed small objects / glibc (worst): %.2fx (target <= 0.5x)\n", worstMixed);
    std::printf("  qorHeapCSO one thread / glibc (worst):      %.2fx (target <= 1.3x)\n", worstCSO);
    std::printf("  object allocator one thread / glibc (worst): %.2fx (target <= 1.3x)\n", worstOA);
    for (const char* size : {"16", "100"}) {
      const double one = ns("HeapCSO_Lifo", size);
      const double glibcOne = ns("Glibc_Lifo", size);
      std::printf(
          "  qorHeapCSO two threads / one thread, %s bytes: CPU %.2fx, wall %.2fx (target <= 8x); "
          "glibc two threads / one: CPU %.2fx, wall %.2fx\n",
          size, one > 0 ? ns("HeapCSO_Lifo2T", size) / one : 0.0, one > 0 ? wall("HeapCSO_Lifo2T", size) / one : 0.0,
          glibcOne > 0 ? ns("Glibc_Lifo2T", size) / glibcOne : 0.0,
          glibcOne > 0 ? wall("Glibc_Lifo2T", size) / glibcOne : 0.0);
    }
  }

 private:
  double ns(const std::string& function, const char* size) const { return find(m_Ns, function, size); }
  double wall(const std::string& function, const char* size) const { return find(m_Wall, function, size); }
  static double find(const std::map<std::string, double>& table, const std::string& function, const char* size) {
    return findKey(table, "BM_" + function + "/" + size);
  }
  static double findKey(const std::map<std::string, double>& table, const std::string& key) {
    auto found = table.find(key);
    return found == table.end() ? 0.0 : found->second;
  }
  double ratio(const char* unit, const char* mode, const char* size) const {
    const double glibc = ns(std::string("Glibc_") + mode, size);
    return glibc > 0 ? ns(std::string(unit) + "_" + mode, size) / glibc : 0.0;
  }
  void row(const char* unit, const char* mode, const char* size) const {
    const double own = ns(std::string(unit) + "_" + mode, size);
    if (own == 0) return;
    const double glibc = ns(std::string("Glibc_") + mode, size);
    std::printf("%-22s %6s %9.2f %9.2f %6.2fx %9.2f %9.2f %9.2f\n", (std::string(unit) + "_" + mode).c_str(), size, own,
                glibc, glibc > 0 ? own / glibc : 0.0, ns(std::string("Jemalloc_") + mode, size),
                ns(std::string("Tcmalloc_") + mode, size), ns(std::string("Mimalloc_") + mode, size));
  }
  std::map<std::string, double> m_Ns;
  std::map<std::string, double> m_Wall;
};

}  // namespace

int main(int argc, char** argv) {
  if (!loadPeers(argv)) return 1;
  qorPageAlloc::Initialize();
  sharedCSO = new qorHeapCSO;
  mixedSmallHeap = new qorHeapCSO;
  // The mixed heap over one qorHeapCSO, which serves the first objects and
  // the refills alike.
  mixedHeap = new qorHeapMixed(mixedSmallHeap, mixedSmallHeap, 1024, 256, false);
  registerAll();
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintSummary();
  benchmark::Shutdown();
  delete mixedHeap;
  delete mixedSmallHeap;
  delete sharedCSO;
  qorPageAlloc::Uninitialize();
  return 0;
}
