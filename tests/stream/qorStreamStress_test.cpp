// Readers and writers on different files in different threads share no
// state, so they run side by side without races (checked under
// ThreadSanitizer).
#include <vector>

#include "stream_test_util.h"

using namespace streamtest;

// Catches: hidden shared state (a static scratch buffer, a lazily set flag)
// in the buffered readers and writers, in every format.
TEST(qorStreamStress, ThreadsOnTheirOwnStreams) {
  ScratchDir dir;
  std::vector<int> wrong(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rng(100 + static_cast<unsigned>(t));
      std::string text = makeText(rng, 150000), path = dir.file("s" + std::to_string(t)), line, all;
      const Format format = static_cast<Format>(t % 3);
      for (int round = 0; round < 3; ++round, all.clear()) {
        qorStreamWriter w(path.c_str(), 'w');
        format == kGzip ? w.gzip(true) : format == kRaw ? w.deflate(true) : (void)0;
        for (size_t pos = 0; pos < text.size(); pos += 777)
          w.write(&text[pos], static_cast<int>(std::min<size_t>(777, text.size() - pos)));
        w.close();
        all = readAll(path, format, round == 1);
        wrong[static_cast<size_t>(t)] += all != text;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(wrong[static_cast<size_t>(t)], 0) << "thread " << t;
}

// Catches: the line buffer of readLine(bool) shared between threads, so
// that two threads with two readers see each other's lines.
TEST(qorStreamStress, TwoThreadsReadLinesThroughTheirOwnBuffers) {
  ScratchDir dir;
  EXPECT_EQ(twoThreadsReadLines(dir, 3000000), 0);
}
