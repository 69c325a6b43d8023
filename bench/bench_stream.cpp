// Stream reader and writer against the bare libraries they sit on.
//
// At start the program writes a text file of about 100 MB to /tmp (lines of
// 0 to 200 bytes, some tabs, some CRLF line ends) and a gzip copy of it made
// by zlib at the default level, and a plain file of about 200 MB with line
// feeds only (the first text twice, without its carriage returns); all are
// removed at the end. Every benchmark handles a whole file per iteration, and
// throughput is counted in uncompressed bytes. BM_qorStreamReader/<Case> runs
// one reading call in a loop over the plain text, the gzip copy (zlib) or the
// gzip copy with useFastDecoder(true). The peers run in the same program:
//   BM_Zlib_Inflate        bare inflate, 16 KiB in, 64 KiB out, memchr line count: the
//                          limit of a zlib reader
//   BM_Isal_Inflate        bare ISA-L isal_inflate, same buffers and count: the limit of
//                          the reader with useFastDecoder(true)
//   BM_Zlib_Gzgets/0       zlib's own line reader, default buffers (/65536: 64 KiB buffers)
//   BM_Libc_FreadMemchr    fread in 64 KiB blocks, memchr for the line ends (/Big: on the
//                          200 MB file, counting lines and their bytes as readLineView's
//                          loop does)
//   BM_LineScan_*          the readers' line scanner against memchr over the text in memory
//   BM_Zlib_Deflate        bare deflate at the default level, 16 KiB in, 64 KiB out, fwrite
// At the end the ratios of our throughput to the peers' are printed, from the
// median repetition of each (medians hold up better on a busy machine).
// bench/stream_before_after.sh runs this program against an older build of
// the library as well, by turns, to compare the two.
#include <benchmark/benchmark.h>
#if defined(QOR_HAVE_ISAL)
#include <isa-l/igzip_lib.h>
#endif
#include <qor/qor_exception.h>
#include <qor/qor_stream.h>
#include <unistd.h>
#include <zlib.h>

#include <QString>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "internal/qor_linescan.h"

namespace {

std::string g_TextPath;
std::string g_BigPath;  // the text twice, line feeds only
size_t g_BigSize, g_BigLines, g_BigLineBytes;
std::string g_GzipPath;
std::string g_OutPath;
std::string g_Text;  // the whole text, for the writers

// Lines of 0 to 200 bytes: printable bytes, about one tab in 20 bytes, one
// line in 8 ending in CR LF.
std::string makeText(size_t bytes) {
  std::string text;
  text.reserve(bytes + 256);
  unsigned long long x = 88172645463325252ull;
  auto next = [&x] {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    return x;
  };
  while (text.size() < bytes) {
    const unsigned long long r = next();
    const int length = static_cast<int>(r % 201);
    for (int i = 0; i < length; ++i) {
      const unsigned long long c = next();
      text.push_back(c % 20 == 0 ? '\t' : static_cast<char>(' ' + (c >> 8) % 95));
    }
    if ((r >> 16) % 8 == 0) text.push_back('\r');
    text.push_back('\n');
  }
  return text;
}

void writeGzip(const std::string& text, const std::string& path) {
  z_stream zs;
  memset(&zs, 0, sizeof zs);
  deflateInit2(&zs, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
  FILE* f = fopen(path.c_str(), "wb");
  std::vector<unsigned char> out(1 << 20);
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  zs.avail_in = static_cast<uInt>(text.size());
  int ret;
  do {
    zs.next_out = out.data();
    zs.avail_out = static_cast<uInt>(out.size());
    ret = deflate(&zs, Z_FINISH);
    fwrite(out.data(), 1, out.size() - zs.avail_out, f);
  } while (ret == Z_OK);
  deflateEnd(&zs);
  fclose(f);
}

size_t countLines(const unsigned char* p, size_t n) {
  size_t lines = 0;
  const unsigned char* end = p + n;
  while (const void* q = memchr(p, '\n', static_cast<size_t>(end - p))) {
    ++lines;
    p = static_cast<const unsigned char*>(q) + 1;
  }
  return lines;
}
size_t countLines(const char* p, size_t n) { return countLines(reinterpret_cast<const unsigned char*>(p), n); }

void setBytes(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(g_Text.size()));
}

// ---------------------------------------------------------------------------
// Readers

void BM_Zlib_Inflate(benchmark::State& state) {
  std::vector<unsigned char> in(16384), out(65536);
  for (auto _ : state) {
    FILE* f = fopen(g_GzipPath.c_str(), "rb");
    z_stream zs;
    memset(&zs, 0, sizeof zs);
    inflateInit2(&zs, 31);
    size_t total = 0, lines = 0;
    int ret = Z_OK;
    while (ret != Z_STREAM_END) {
      if (zs.avail_in == 0) {
        zs.avail_in = static_cast<uInt>(fread(in.data(), 1, in.size(), f));
        zs.next_in = in.data();
        if (zs.avail_in == 0) break;
      }
      zs.next_out = out.data();
      zs.avail_out = static_cast<uInt>(out.size());
      ret = inflate(&zs, Z_SYNC_FLUSH);
      if (ret < 0 && ret != Z_BUF_ERROR) break;
      total += out.size() - zs.avail_out;
      lines += countLines(out.data(), out.size() - zs.avail_out);
    }
    inflateEnd(&zs);
    fclose(f);
    benchmark::DoNotOptimize(lines);
    if (total != g_Text.size()) state.SkipWithError("inflate lost bytes");
  }
  setBytes(state);
}

#if defined(QOR_HAVE_ISAL)
void BM_Isal_Inflate(benchmark::State& state) {
  std::vector<unsigned char> in(16384), out(65536);
  for (auto _ : state) {
    FILE* f = fopen(g_GzipPath.c_str(), "rb");
    inflate_state st;
    isal_inflate_init(&st);
    st.crc_flag = ISAL_GZIP;
    size_t total = 0, lines = 0;
    while (st.block_state != ISAL_BLOCK_FINISH) {
      if (st.avail_in == 0) {
        st.avail_in = static_cast<uint32_t>(fread(in.data(), 1, in.size(), f));
        st.next_in = in.data();
        if (st.avail_in == 0) break;
      }
      st.next_out = out.data();
      st.avail_out = static_cast<uint32_t>(out.size());
      if (isal_inflate(&st) < 0) break;
      total += out.size() - st.avail_out;
      lines += countLines(out.data(), out.size() - st.avail_out);
    }
    fclose(f);
    benchmark::DoNotOptimize(lines);
    if (total != g_Text.size()) state.SkipWithError("isal_inflate lost bytes");
  }
  setBytes(state);
}
#endif

// The line scanner over the text in memory, 64 KiB at a time, stopping at
// every line feed and CR as readLine does, against memchr stopping at line
// feeds only.
void BM_LineScan_FindSpecial(benchmark::State& state) {
  for (auto _ : state) {
    size_t stops = 0;
    for (size_t pos = 0; pos < g_Text.size(); pos += 65536) {
      const char* p = g_Text.data() + pos;
      const char* end = p + std::min<size_t>(65536, g_Text.size() - pos);
      while ((p = qor_internal::findSpecial<'\n', true, false>(p, end)) != end) ++p, ++stops;
    }
    benchmark::DoNotOptimize(stops);
  }
  setBytes(state);
}

void BM_LineScan_Memchr(benchmark::State& state) {
  for (auto _ : state) {
    size_t pos = 0, lines = 0;
    for (; pos < g_Text.size(); pos += 65536)
      lines += countLines(g_Text.data() + pos, std::min<size_t>(65536, g_Text.size() - pos));
    benchmark::DoNotOptimize(lines);
  }
  setBytes(state);
}

// zlib's line reader as it comes (8 KiB buffers), and with 64 KiB buffers,
// which the reader's fixed 16 KiB input and 64 KiB output cannot match.
void BM_Zlib_Gzgets(benchmark::State& state) {
  std::vector<char> line(65536);
  for (auto _ : state) {
    gzFile gz = gzopen(g_GzipPath.c_str(), "rb");
    if (state.range(0) != 0) gzbuffer(gz, static_cast<unsigned>(state.range(0)));
    size_t lines = 0;
    while (gzgets(gz, line.data(), static_cast<int>(line.size())) != nullptr) ++lines;
    gzclose(gz);
    benchmark::DoNotOptimize(lines);
  }
  setBytes(state);
}

// range(0): 0 on the 100 MB text, counting lines; 1 on the 200 MB file,
// counting lines and their bytes as BM_qorStreamReader/PlainReadLineViewBig.
void BM_Libc_FreadMemchr(benchmark::State& state) {
  std::vector<char> buf(65536);
  const bool big = state.range(0) != 0;
  size_t total = 0, lines = 0, bytes = 0;
  for (auto _ : state) {
    FILE* f = fopen((big ? g_BigPath : g_TextPath).c_str(), "rb");
    size_t got, partial = 0;
    lines = bytes = total = 0;
    while ((got = fread(buf.data(), 1, buf.size(), f)) > 0) {
      const char* p = buf.data();
      const char* end = p + got;
      total += got;
      while (const char* q = static_cast<const char*>(memchr(p, '\n', static_cast<size_t>(end - p)))) {
        ++lines;
        bytes += partial + static_cast<size_t>(q - p);
        partial = 0;
        p = q + 1;
      }
      partial += static_cast<size_t>(end - p);
    }
    fclose(f);
    benchmark::DoNotOptimize(lines);
    benchmark::DoNotOptimize(bytes);
  }
  if (big && (lines != g_BigLines || bytes != g_BigLineBytes)) state.SkipWithError("counted other lines or bytes");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(total));
}

// Our readers: a reader per iteration on the input, one reading call in a
// loop until the data ends. Each loop returns a count that depends on every
// byte delivered.
enum Input { kPlainText, kBigText, kGzip, kFastGzip };

template <typename Loop>
void BM_qorStreamReader(benchmark::State& state, Input input, Loop loop) {
  const std::string& path = input == kPlainText ? g_TextPath : input == kBigText ? g_BigPath : g_GzipPath;
  size_t count = 0;
  for (auto _ : state) {
    qorStreamReader r(path.c_str());
    if (input >= kGzip) r.useFastDecoder(input == kFastGzip), r.gunzip(true);
    count = loop(r);
    benchmark::DoNotOptimize(count);
  }
  if (input == kBigText && count != (g_BigLines ^ (g_BigLineBytes << 24)))
    state.SkipWithError("counted other lines or bytes than BM_Libc_FreadMemchr/1");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(input == kBigText ? g_BigSize : g_Text.size()));
}

size_t readLineStatic(qorStreamReader& r) {
  size_t lines = 0;
  while (const char* line = r.readLine(false)) benchmark::DoNotOptimize(line), ++lines;
  return lines;
}

size_t readLineString(qorStreamReader& r) {
  std::string s;
  size_t bytes = 0;
  while (r.readLine(s, false)) bytes += s.size();
  return bytes;
}

size_t readLineQString(qorStreamReader& r) {
  QString s;
  size_t units = 0;
  while (r.readLine(s, true)) units += static_cast<size_t>(s.size());
  return units;
}

// The lines and their bytes, as BM_Libc_FreadMemchr/1 counts them, in one
// number.
size_t readLineView(qorStreamReader& r) {
  std::string_view line;
  size_t lines = 0, bytes = 0;
  for (bool more = true; more;) {
    more = r.readLineView(line);
    lines += more;
    bytes += line.size();
  }
  return lines ^ (bytes << 24);
}

size_t readBlocks(qorStreamReader& r) {
  static char block[4096];
  size_t sum = 0;
  for (long got; (got = r.read(block, sizeof block)) > 0;) sum += static_cast<size_t>(got) + block[got - 1];
  return sum;
}

size_t readFloats(qorStreamReader& r) {
  double value, sum = 0;
  while (r.readFloat(value)) sum += value;
  return static_cast<size_t>(sum != sum);
}

// ---------------------------------------------------------------------------
// Writers

void BM_Zlib_Deflate(benchmark::State& state) {
  std::vector<unsigned char> out(65536);
  for (auto _ : state) {
    FILE* f = fopen(g_OutPath.c_str(), "wb");
    z_stream zs;
    memset(&zs, 0, sizeof zs);
    deflateInit2(&zs, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
    size_t pos = 0;
    int flush = Z_NO_FLUSH;
    while (flush != Z_FINISH) {
      const size_t n = g_Text.size() - pos < 16384 ? g_Text.size() - pos : 16384;
      zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(g_Text.data() + pos));
      zs.avail_in = static_cast<uInt>(n);
      pos += n;
      flush = pos == g_Text.size() ? Z_FINISH : Z_NO_FLUSH;
      do {
        zs.next_out = out.data();
        zs.avail_out = static_cast<uInt>(out.size());
        deflate(&zs, flush);
        fwrite(out.data(), 1, out.size() - zs.avail_out, f);
      } while (zs.avail_out == 0);
    }
    deflateEnd(&zs);
    fclose(f);
  }
  setBytes(state);
}

void BM_qorStreamWriter_GzipWriteLines(benchmark::State& state) {
  for (auto _ : state) {
    qorStreamWriter w(g_OutPath.c_str(), 'w');
    w.gzip(true);
    char* p = &g_Text[0];
    char* const end = p + g_Text.size();
    while (p < end) {
      char* q = static_cast<char*>(memchr(p, '\n', static_cast<size_t>(end - p)));
      q = q == nullptr ? end : q + 1;
      w.write(p, static_cast<int>(q - p));
      p = q;
    }
  }
  setBytes(state);
}

// The median CPU time per iteration of every benchmark, by base name.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      std::string name = run.benchmark_name();
      m_Times[name.substr(0, name.find("/iterations"))].push_back(run.GetAdjustedCPUTime());
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void printRatio(const char* ours, const char* peer, double target) {
    const double a = median(ours), b = median(peer);
    if (a <= 0 || b <= 0) return;
    const double ratio = b / a;
    if (target <= 0) {
      printf("%-42s / %-22s = %.3fx  (for information)\n", ours, peer, ratio);
    } else {
      printf("%-42s / %-22s = %.3fx  (target >= %.2fx) %s\n", ours, peer, ratio, target,
             ratio >= target ? "ok" : "MISSED");
    }
  }

 private:
  double median(const char* name) {
    auto it = m_Times.find(name);
    if (it == m_Times.end() || it->second.empty()) return 0;
    std::vector<double> t = it->second;
    std::sort(t.begin(), t.end());
    return t.size() % 2 ? t[t.size() / 2] : (t[t.size() / 2 - 1] + t[t.size() / 2]) / 2;
  }
  std::map<std::string, std::vector<double>> m_Times;
};

void gzipRuns(benchmark::internal::Benchmark* b) { b->Unit(benchmark::kMillisecond)->Repetitions(5)->Iterations(2); }
void plainRuns(benchmark::internal::Benchmark* b) { b->Unit(benchmark::kMillisecond)->Repetitions(5)->Iterations(4); }

BENCHMARK(BM_Zlib_Inflate)->Apply(gzipRuns);
BENCHMARK_CAPTURE(BM_qorStreamReader, GzipReadLineString, kGzip, readLineString)->Apply(gzipRuns);
BENCHMARK_CAPTURE(BM_qorStreamReader, GzipReadLineStatic, kGzip, readLineStatic)->Apply(gzipRuns);
BENCHMARK_CAPTURE(BM_qorStreamReader, GzipReadLineQString, kGzip, readLineQString)->Apply(gzipRuns);
BENCHMARK_CAPTURE(BM_qorStreamReader, GzipReadLineView, kGzip, readLineView)->Apply(gzipRuns);
BENCHMARK_CAPTURE(BM_qorStreamReader, GzipRead, kGzip, readBlocks)->Apply(gzipRuns);
BENCHMARK_CAPTURE(BM_qorStreamReader, GzipReadFloat, kGzip, readFloats)->Apply(gzipRuns);
#if defined(QOR_HAVE_ISAL)
BENCHMARK(BM_Isal_Inflate)->Apply(gzipRuns);
#endif
BENCHMARK_CAPTURE(BM_qorStreamReader, FastGzipReadLineString, kFastGzip, readLineString)->Apply(gzipRuns);
BENCHMARK_CAPTURE(BM_qorStreamReader, FastGzipReadLineView, kFastGzip, readLineView)->Apply(gzipRuns);
BENCHMARK(BM_LineScan_FindSpecial)->Apply(plainRuns);
BENCHMARK(BM_LineScan_Memchr)->Apply(plainRuns);
BENCHMARK(BM_Zlib_Gzgets)->Arg(0)->Arg(65536)->Apply(gzipRuns);
BENCHMARK(BM_Libc_FreadMemchr)->Arg(0)->Apply(plainRuns);
BENCHMARK_CAPTURE(BM_qorStreamReader, PlainReadLineString, kPlainText, readLineString)->Apply(plainRuns);
BENCHMARK_CAPTURE(BM_qorStreamReader, PlainReadLineStatic, kPlainText, readLineStatic)->Apply(plainRuns);
BENCHMARK_CAPTURE(BM_qorStreamReader, PlainReadLineQString, kPlainText, readLineQString)->Apply(plainRuns);
BENCHMARK_CAPTURE(BM_qorStreamReader, PlainReadLineView, kPlainText, readLineView)->Apply(plainRuns);
BENCHMARK_CAPTURE(BM_qorStreamReader, PlainRead, kPlainText, readBlocks)->Apply(plainRuns);
BENCHMARK_CAPTURE(BM_qorStreamReader, PlainReadFloat, kPlainText, readFloats)->Apply(plainRuns);
BENCHMARK(BM_Libc_FreadMemchr)->Arg(1)->Apply(plainRuns);
BENCHMARK_CAPTURE(BM_qorStreamReader, PlainReadLineViewBig, kBigText, readLineView)->Apply(plainRuns);
BENCHMARK(BM_Zlib_Deflate)->Unit(benchmark::kMillisecond)->Repetitions(5)->Iterations(1);
BENCHMARK(BM_qorStreamWriter_GzipWriteLines)->Unit(benchmark::kMillisecond)->Repetitions(5)->Iterations(1);

bool writeAll(const std::string& path, const std::string& bytes, int times) {
  FILE* f = fopen(path.c_str(), "wb");
  bool ok = f != nullptr;
  for (int i = 0; ok && i < times; ++i) ok = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  if (f != nullptr) ok = fclose(f) == 0 && ok;
  if (!ok) fprintf(stderr, "cannot write %s\n", path.c_str());
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const std::string stem = "/tmp/qor_bench_stream_" + std::to_string(getpid());
  g_TextPath = stem + ".txt";
  g_BigPath = stem + ".big.txt";
  g_GzipPath = stem + ".txt.gz";
  g_OutPath = stem + ".out.gz";
  g_Text = makeText(100u << 20);
  std::string lf;  // the text without its carriage returns
  std::remove_copy(g_Text.begin(), g_Text.end(), std::back_inserter(lf), '\r');
  g_BigSize = 2 * lf.size();
  g_BigLines = 2 * static_cast<size_t>(std::count(lf.begin(), lf.end(), '\n'));
  g_BigLineBytes = g_BigSize - g_BigLines;
  if (!writeAll(g_TextPath, g_Text, 1) || !writeAll(g_BigPath, lf, 2)) return 1;
  lf = std::string();
  writeGzip(g_Text, g_GzipPath);
  printf("data: %zu bytes of text in %s, gzip copy in %s, %zu bytes in %s\n", g_Text.size(), g_TextPath.c_str(),
         g_GzipPath.c_str(), g_BigSize, g_BigPath.c_str());

  RatioReporter reporter;
  try {
    benchmark::RunSpecifiedBenchmarks(&reporter);
  } catch (qorException* e) {
    fprintf(stderr, "%s", e->what());
    delete e;
  }
  printf("\nThroughput ratios (uncompressed bytes, median repetition, CPU time):\n");
  const std::string ours = "BM_qorStreamReader/";
  auto ratio = [&](const char* our, const char* peer, double target) {
    reporter.printRatio((our[0] == 'B' ? std::string(our) : ours + our).c_str(), peer, target);
  };
  ratio("GzipReadLineString", "BM_Zlib_Inflate", 0.9);
  ratio("GzipReadLineString", "BM_Zlib_Gzgets/0", 1.0);
  ratio("GzipReadLineString", "BM_Zlib_Gzgets/65536", 0.0);
  ratio("FastGzipReadLineString", "BM_Zlib_Gzgets/0", 2.0);
  ratio("FastGzipReadLineString", "BM_Isal_Inflate", 0.9);
  ratio("FastGzipReadLineString", "BM_Zlib_Inflate", 0.0);
  ratio("BM_LineScan_FindSpecial", "BM_LineScan_Memchr", 0.0);
  ratio("PlainReadLineString", "BM_Libc_FreadMemchr/0", 0.5);
  ratio("PlainReadLineStatic", "BM_Libc_FreadMemchr/0", 0.5);
  ratio("PlainReadLineQString", "BM_Libc_FreadMemchr/0", 0.0);
  ratio("PlainReadLineView", "BM_Libc_FreadMemchr/0", 0.0);
  ratio("PlainReadLineViewBig", "BM_Libc_FreadMemchr/1", 0.85);
  ratio("BM_qorStreamWriter_GzipWriteLines", "BM_Zlib_Deflate", 0.95);
  unlink(g_TextPath.c_str());
  unlink(g_BigPath.c_str());
  unlink(g_GzipPath.c_str());
  unlink(g_OutPath.c_str());
  benchmark::Shutdown();
  return 0;
}
