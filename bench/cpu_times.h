// A reporter shared by the benchmark programs that print ratios: console
// output as usual, plus the CPU time per iteration of every run. The ratios
// use CPU time: on a shared machine the wall time of runs made one after the
// other depends on what else runs meanwhile.
#ifndef QOR_BENCH_CPU_TIMES_H
#define QOR_BENCH_CPU_TIMES_H

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

class CpuTimes : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs)
      if (r.run_type == Run::RT_Iteration && !r.error_occurred) m_Times[r.benchmark_name()] = r.GetAdjustedCPUTime();
  }
  // The CPU time of the named run, or 0 when it did not run.
  double time(const std::string& name) const {
    auto it = m_Times.find(name);
    return it == m_Times.end() ? 0 : it->second;
  }

 private:
  std::map<std::string, double> m_Times;
};

#endif
