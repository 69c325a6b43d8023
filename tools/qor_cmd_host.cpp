// The host and memory commands of the qor tool: sysinfo and memstats.
#include <qor/qor_alloc.h>
#include <qor/qor_exception.h>
#include <qor/qor_heapcso.h>
#include <qor/qor_heapmixed.h>
#include <qor/qor_heapnew.h>
#include <qor/qor_objectalloc.h>
#include <qor/qor_sysinfo.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "qor_tool.h"

namespace qortool {

namespace {

// A copy of a query's text without its trailing newline; releases the
// library's copy when it owns one.
std::string take(char* text, bool release) {
  std::string s = text == nullptr ? "" : text;
  if (release) delete[] text;
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
  return s;
}

// Allocates and releases kBatch objects of mixed sizes kRounds times through
// alloc/release; returns nanoseconds per allocate-and-release pair.
constexpr int kBatch = 1000, kRounds = 200;
const unsigned long kSizes[] = {16, 24, 32, 48, 64, 96, 128, 256};

template <typename Alloc, typename Release>
double workout(Alloc alloc, Release release) {
  std::vector<void*> held(kBatch);
  const auto t0 = std::chrono::steady_clock::now();
  for (int round = 0; round < kRounds; ++round) {
    for (int i = 0; i < kBatch; ++i) {
      held[i] = alloc(kSizes[i % 8]);
      static_cast<char*>(held[i])[0] = static_cast<char>(i);
    }
    for (int i = kBatch - 1; i >= 0; --i) release(held[i], kSizes[i % 8]);
  }
  const double ns = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count();
  return ns / (double(kBatch) * kRounds);
}

double mallocPair() {
  return workout([](unsigned long n) { return std::malloc(n); }, [](void* p, unsigned long) { std::free(p); });
}

}  // namespace

int cmdSysinfo(const std::string& command, int argc, char** argv) {
  const Args args = parseArgs(command, argc, argv, {}, {"--json"});
  if (!args.positional.empty()) usage("sysinfo: takes no arguments");
  const std::string os = take(qorGetOSVersion(), true), now = take(qorGetCurrentTime(), false);
  const std::string user = take(qorGetUserName(), true), host = take(qorGetHostName(), true);
  const int cpus = qorGetNumProcessors();
  const long mib = qorGetAvailableMemory();
  const QList<QString> macs = qorGetMacAddress();
  if (args.has("--json")) {
    QJsonArray list;
    for (const QString& m : macs) list.append(m);
    QJsonObject o{{"os", QString::fromStdString(os)},
                  {"time", QString::fromStdString(now)},
                  {"user", QString::fromStdString(user)},
                  {"host", QString::fromStdString(host)},
                  {"processors", cpus},
                  {"memory_mib", double(mib)},
                  {"mac_addresses", list}};
    std::fputs(QJsonDocument(o).toJson(QJsonDocument::Indented).constData(), stdout);
    return 0;
  }
  std::string joined;
  for (const QString& m : macs) joined += (joined.empty() ? "" : ", ") + m.toStdString();
  std::printf("os:            %s\ntime:          %s\nuser:          %s\nhost:          %s\n", os.c_str(), now.c_str(),
              user.c_str(), host.c_str());
  std::printf("processors:    %d\nmemory:        %ld MiB\nmac addresses: %s\n", cpus, mib,
              joined.empty() ? "(none)" : joined.c_str());
  return 0;
}

int cmdMemstats(const std::string& command, int argc, char** argv) {
  const Args args = parseArgs(command, argc, argv, {"--threads"}, {});
  if (!args.positional.empty()) usage("memstats: takes no arguments");
  const int threads = static_cast<int>(parseCount(args.get("--threads", "1"), "--threads", 1, 64));
  qorPageAlloc::Initialize();
  try {
    // The object allocator is shared by every thread; each runs the workout.
    std::vector<double> perThread(threads);
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
      pool.emplace_back([&perThread, t] {
        perThread[t] = workout([](unsigned long n) { return qorOAAlloc(n); },
                               [](void* p, unsigned long n) { qorOADealloc(p, n); });
      });
    for (std::thread& t : pool) t.join();
    double oa = 0;
    for (double v : perThread) oa += v / threads;

    qorHeapCSO cso;
    const double csoNs =
        workout([&](unsigned long n) { return cso.Alloc(n); }, [&](void* p, unsigned long n) { cso.Dealloc2(p, n); });
    qorHeapNew general;
    double mixedNs;
    {
      qorHeapMixed mixed(&general, &cso, 256, 64, false);
      mixedNs = workout([&](unsigned long n) { return mixed.Alloc(n); },
                        [&](void* p, unsigned long n) { mixed.Dealloc2(p, n); });
    }
    const double mallocNs = mallocPair();

    std::vector<std::string> lines;
    qorOAGetFreeListStats(lines);
    for (const std::string& l : lines) std::printf("%s\n", l.c_str());
    std::printf("\n");
    cso.getFreeListStats(lines);
    for (const std::string& l : lines) std::printf("%s\n", l.c_str());
    std::printf("\nnanoseconds per allocate-and-release pair (%d objects of 16 to 256 bytes, %d rounds):\n", kBatch,
                kRounds);
    std::printf("  object allocator    %8.1f  (%d thread%s)\n", oa, threads, threads == 1 ? "" : "s");
    std::printf("  common-size heap    %8.1f\n  mixed heap          %8.1f\n  malloc              %8.1f\n", csoNs,
                mixedNs, mallocNs);
  } catch (qorException* e) {
    qorPageAlloc::Uninitialize();
    fail(exceptionText(e));
  }
  qorPageAlloc::Uninitialize();
  return 0;
}

}  // namespace qortool
