// Helpers shared by the memory tests.
#ifndef QOR_MEMORY_TEST_UTIL_H
#define QOR_MEMORY_TEST_UTIL_H

#include <gtest/gtest.h>
#include <qor/qor_alloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "qor_test_support.h"

namespace memtest {

using qortest::raisedText;
using qortest::startsWith;

// The page allocator is process-wide: every test starts from a freshly
// initialised one and leaves it uninitialised, in whatever order tests run.
class PageAllocFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::qorPageAlloc::m_Initialized) ::qorPageAlloc::Uninitialize();
    ::qorPageAlloc::Initialize();
  }
  void TearDown() override {
    if (::qorPageAlloc::m_Initialized) ::qorPageAlloc::Uninitialize();
  }
};

// The objects of `size` bytes that one refill of 4,096 or more cuts.
inline unsigned long expectedObjects(unsigned long size) {
  return ::qorPageAlloc::ComputeEfficientSize(size, 4096) / size;
}

// A free block's link, read as the allocator reads it: under ASan free
// blocks are poisoned, so the read is left uninstrumented.
__attribute__((no_sanitize_address)) inline void* linkOf(const void* block) {
  typedef void* Link __attribute__((may_alias, aligned(1)));
  return *static_cast<const Link*>(block);
}

// The number of objects on an intrusive free list.
inline unsigned long listLength(void* head) {
  unsigned long count = 0;
  for (; head != nullptr; ++count) head = linkOf(head);
  return count;
}

// Random allocate-and-release traffic checked against an oracle of live
// blocks: each block is filled with its own byte and checked just before it
// is released, so a block handed out twice or overlapping another shows up.
// `between` runs after every `steps` steps, `rounds` times.
template <typename Alloc, typename Release, typename PickSize, typename Between>
void checkRandomTraffic(unsigned seed, int rounds, int steps, Alloc alloc, Release release, PickSize pickSize,
                        Between between) {
  struct LiveBlock {
    unsigned char* p;
    unsigned long size;
    unsigned char fill;
  };
  std::mt19937 random(seed);
  std::vector<LiveBlock> live;
  for (int round = 0; round < rounds; ++round) {
    for (int step = 0; step < steps; ++step) {
      if (live.empty() || random() % 3 != 0) {
        const unsigned long size = pickSize(random);
        LiveBlock block{static_cast<unsigned char*>(alloc(size)), size, static_cast<unsigned char>(random())};
        std::memset(block.p, block.fill, size);
        live.push_back(block);
        continue;
      }
      const size_t index = random() % live.size();
      const LiveBlock block = live[index];
      live[index] = live.back();
      live.pop_back();
      for (unsigned long i = 0; i < block.size; ++i) {
        ASSERT_EQ(block.p[i], block.fill) << "seed " << seed << " round " << round << " step " << step;
      }
      release(block.p, block.size);
    }
    between();
  }
  for (const LiveBlock& block : live) release(block.p, block.size);
}

// The free-list report expected for lists of (size, entries), in that order.
inline std::vector<std::string> expectedReport(const char* title,
                                               const std::vector<std::pair<unsigned long, unsigned long>>& lists) {
  std::vector<std::string> lines{title, "", " Size        Entries    Bytes", "----------  ---------  ---------"};
  char line[64];
  unsigned long entries = 0, bytes = 0;
  for (const auto& list : lists) {
    snprintf(line, sizeof line, "%10lu %10lu %10lu", list.first, list.second, list.first * list.second);
    lines.push_back(line);
    entries += list.second;
    bytes += list.first * list.second;
  }
  lines.push_back("---------- ---------- ----------");
  snprintf(line, sizeof line, "     Total %10lu %10lu", entries, bytes);
  lines.push_back(line);
  return lines;
}

// Runs `die` in a death-test child whose standard output goes to a file, and
// returns what the child printed; `die` must end the process with `status`.
template <typename Die>
std::string stdoutOfExit(Die die, int status) {
  char path[] = "/tmp/qor_exit_XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return "<no temporary file>";
  EXPECT_EXIT(
      {
        dup2(fd, STDOUT_FILENO);
        die();
      },
      ::testing::ExitedWithCode(status), "");
  char text[256] = {};
  const ssize_t length = pread(fd, text, sizeof text - 1, 0);
  close(fd);
  unlink(path);
  return length > 0 ? std::string(text, static_cast<size_t>(length)) : std::string();
}

}  // namespace memtest

#endif
