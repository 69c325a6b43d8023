// Helpers shared by the memory tests.
#ifndef QOR_MEMORY_TEST_UTIL_H
#define QOR_MEMORY_TEST_UTIL_H

#include <gtest/gtest.h>
#include <qor/qor_alloc.h>
#include <qor/qor_exception.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "qor_test_support.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QOR_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QOR_TEST_SANITIZED 1
#endif
#endif

namespace memtest {

// The page allocator is process-wide and the tests of one program share it.
// Every test starts from a freshly initialised allocator and leaves it
// uninitialised, whatever order the tests run in.
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

// The text of a caught exception; deletes it.
inline std::string textOf(qorException* e) {
  std::string text = e->what();
  delete e;
  return text;
}

using qortest::raisedText;
using qortest::startsWith;

// The address space now in use, in bytes.
inline unsigned long addressSpaceInUse() {
  unsigned long pages = 0;
  FILE* statm = std::fopen("/proc/self/statm", "r");
  if (statm != nullptr) {
    if (std::fscanf(statm, "%lu", &pages) != 1) pages = 0;
    std::fclose(statm);
  }
  return pages * static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
}

// Runs body in a forked child whose address space may grow by only a few
// MiB, so that a 16 MiB mapping fails; body lifts the cap with
// liftAddressSpaceCap when it wants the next mapping to succeed. Returns the
// child's exit status: body returns 0 for success, or the number of the
// failed check.
inline int runWithCappedAddressSpace(const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    rlimit limit{};
    getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = addressSpaceInUse() + 8UL * 1024 * 1024;
    if (setrlimit(RLIMIT_AS, &limit) != 0) _exit(100);
    int result = 101;
    try {
      result = body();
    } catch (...) {
      result = 102;
    }
    _exit(result);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 200 + WTERMSIG(status);
}

inline void liftAddressSpaceCap() {
  rlimit limit{};
  getrlimit(RLIMIT_AS, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_AS, &limit);
}

// Counts the objects on an intrusive free list.
inline unsigned long listLength(void* head) {
  unsigned long count = 0;
  while (head != nullptr) {
    void* next;
    std::memcpy(&next, head, sizeof next);
    head = next;
    ++count;
  }
  return count;
}

// Random allocate-and-release traffic checked against an oracle of live
// blocks: each block is filled with its own byte and checked just before it
// is released, so a block handed out twice or overlapping another shows up as
// a changed byte. `pickSize(random)` draws each request's size; `between`
// runs after every `steps` steps, `rounds` times. Blocks still live at the
// end are released.
struct LiveBlock {
  unsigned char* p;
  unsigned long size;
  unsigned char fill;
};

template <typename Alloc, typename Release, typename PickSize, typename Between>
void checkRandomTraffic(unsigned seed, int rounds, int steps, Alloc alloc, Release release, PickSize pickSize,
                        Between between) {
  std::mt19937 random(seed);
  std::vector<LiveBlock> live;
  for (int round = 0; round < rounds; ++round) {
    for (int step = 0; step < steps; ++step) {
      if (live.empty() || random() % 3 != 0) {
        const unsigned long size = pickSize(random);
        LiveBlock block{static_cast<unsigned char*>(alloc(size)), size, static_cast<unsigned char>(random())};
        std::memset(block.p, block.fill, size);
        live.push_back(block);
      } else {
        const size_t index = random() % live.size();
        const LiveBlock block = live[index];
        live[index] = live.back();
        live.pop_back();
        for (unsigned long i = 0; i < block.size; ++i) {
          ASSERT_EQ(block.p[i], block.fill) << "seed " << seed << " round " << round << " step " << step;
        }
        release(block.p, block.size);
      }
    }
    between();
  }
  for (const LiveBlock& block : live) release(block.p, block.size);
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
