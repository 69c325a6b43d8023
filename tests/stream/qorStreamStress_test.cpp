// Readers and writers on different files in different threads share no
// state (the static buffer of readLine(bool) aside, which this test leaves
// alone), so they run side by side without races.
#include <gtest/gtest.h>
#include <qor/qor_stream.h>

#include <QString>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "stream_test_util.h"

using namespace streamtest;

// Catches: hidden shared state (a static scratch buffer, a lazily set flag)
// in the buffered readers and writers, reported by ThreadSanitizer.
TEST(qorStreamStress, ThreadsOnTheirOwnStreams) {
  ScratchDir dir;
  const int kThreads = 4;
  std::vector<std::string> texts(kThreads);
  std::vector<int> failures(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    std::mt19937 rng(100 + static_cast<unsigned>(t));
    texts[static_cast<size_t>(t)] = makeText(rng, 150000);
  }
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const Format format = static_cast<Format>(t % 3);
      const std::string path = dir.file("s" + std::to_string(t));
      std::string text = texts[static_cast<size_t>(t)];
      for (int round = 0; round < 3; ++round) {
        {
          qorStreamWriter w(path.c_str(), 'w');
          if (format == kGzip) w.gzip(true);
          if (format == kRaw) w.deflate(true);
          for (size_t pos = 0; pos < text.size(); pos += 777) {
            const int n = static_cast<int>(std::min<size_t>(777, text.size() - pos));
            w.write(&text[pos], n);
          }
        }
        qorStreamReader r(path.c_str());
        if (format == kGzip) r.gunzip(true);
        if (format == kRaw) r.inflate(true);
        std::string line, all;
        QString q;
        bool useQ = false;
        for (;;) {
          bool more;
          if (useQ) {
            more = r.readLine(q, true);
            line = std::string(static_cast<size_t>(q.size()), 'q');
          } else {
            more = r.readLine(line, false);
          }
          useQ = !useQ;
          all += line;
          if (!more) break;
        }
        if (all.empty()) ++failures[static_cast<size_t>(t)];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[static_cast<size_t>(t)], 0) << "thread " << t;
}
