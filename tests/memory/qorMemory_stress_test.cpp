// Concurrency stress: several threads allocate and release at once from one
// qorHeapCSO, from the object allocator and from the page allocator. Every
// object is stamped with its owner and checked just before release, so an
// object handed to two owners at once is caught; reports are taken
// meanwhile, so an unguarded list walk shows up under ThreadSanitizer.
#include <qor/qor_alloc.h>
#include <qor/qor_heapcso.h>
#include <qor/qor_objectalloc.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "memory_test_util.h"

namespace {

constexpr int kRounds = 800;
constexpr int kBatch = 64;

// Stamps the first word of an object of size bytes (at least 8), and the
// last word too when it does not overlap the first.
struct Stamp {
  static std::uint64_t make(unsigned owner, unsigned serial) { return (std::uint64_t{owner} << 32) | serial; }
  static void write(void* p, unsigned long size, std::uint64_t stamp) {
    std::memcpy(p, &stamp, 8);
    if (size >= 16) std::memcpy(static_cast<char*>(p) + size - 8, &stamp, 8);
  }
  static bool check(void* p, unsigned long size, std::uint64_t stamp) {
    std::uint64_t head, tail = stamp;
    std::memcpy(&head, p, 8);
    if (size >= 16) std::memcpy(&tail, static_cast<char*>(p) + size - 8, 8);
    return head == stamp && tail == stamp;
  }
};

// Runs threads workers; each allocates batches with alloc(size), stamps
// them, checks them and releases them with release(p, size). Returns the
// number of stamps found overwritten.
int runWorkers(int threads, const std::function<void*(unsigned long)>& alloc,
               const std::function<void(void*, unsigned long)>& release, const std::function<void()>& report,
               const std::function<unsigned long(std::mt19937&)>& sizeOf) {
  std::atomic<int> broken{0};
  std::atomic<bool> done{false};
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      std::mt19937 random(1000u + static_cast<unsigned>(t));
      struct Held {
        void* p;
        unsigned long size;
        std::uint64_t stamp;
      };
      std::vector<Held> held;
      unsigned serial = 0;
      for (int round = 0; round < kRounds; ++round) {
        const int count = 1 + static_cast<int>(random() % kBatch);
        for (int i = 0; i < count; ++i) {
          const unsigned long size = sizeOf(random);
          void* p = alloc(size);
          const std::uint64_t stamp = Stamp::make(static_cast<unsigned>(t), ++serial);
          Stamp::write(p, size, stamp);
          held.push_back({p, size, stamp});
        }
        // Release about half, in random order, checking each stamp first.
        std::shuffle(held.begin(), held.end(), random);
        const size_t keep = held.size() / 2;
        while (held.size() > keep) {
          const Held h = held.back();
          held.pop_back();
          if (!Stamp::check(h.p, h.size, h.stamp)) ++broken;
          release(h.p, h.size);
        }
      }
      for (const Held& h : held) {
        if (!Stamp::check(h.p, h.size, h.stamp)) ++broken;
        release(h.p, h.size);
      }
    });
  }
  std::thread reporter([&] {
    while (!done.load()) {
      report();
      std::this_thread::yield();
    }
  });
  for (std::thread& worker : workers) worker.join();
  done = true;
  reporter.join();
  return broken.load();
}

unsigned long smallSize(std::mt19937& random) { return 8 + random() % 120; }

class qorHeapCSO : public ::memtest::PageAllocFixture {};
class qorObjectAlloc : public ::memtest::PageAllocFixture {};
class qorPageAlloc : public ::memtest::PageAllocFixture {};

// Catches a lost update of a list head under contention: an object handed
// to two threads, or a report walking a list while it changes.
TEST_F(qorHeapCSO, ThreadsShareOneHeapWithoutHandingOutAnObjectTwice) {
  std::unique_ptr<::qorHeapCSO> heap(new ::qorHeapCSO);
  for (int threads : {2, 4, 8}) {
    std::vector<std::string> lines;
    const int broken = runWorkers(
        threads, [&](unsigned long size) { return heap->Alloc(size); },
        [&](void* p, unsigned long size) { heap->Dealloc2(p, size); },
        [&] {
          heap->getFreeListStats(lines);
          (void)heap->getTotalBytesAllocated();
        },
        smallSize);
    EXPECT_EQ(broken, 0) << threads << " threads";
  }
  EXPECT_GT(heap->getTotalBytesAllocated(), 0.0);
}

// Catches the same fault in the process-wide object allocator, including
// concurrent refills that take the page allocator's lock inside qorOAMutex.
TEST_F(qorObjectAlloc, ThreadsShareTheListsWithoutHandingOutAnObjectTwice) {
  for (int threads : {2, 4, 8}) {
    std::vector<std::string> lines;
    const int broken = runWorkers(
        threads, [](unsigned long size) { return qorOAAlloc(size); },
        [](void* p, unsigned long size) { qorOADealloc(p, size); },
        [&] {
          qorOAGetFreeListStats(lines);
          (void)qorOAGetTotalBytesAllocated();
          (void)::qorPageAlloc::GetTotalPages();
        },
        smallSize);
    EXPECT_EQ(broken, 0) << threads << " threads";
  }
}

// Catches the same fault in the page allocator, with pages and permanent
// blocks taken at once.
TEST_F(qorPageAlloc, ThreadsSharePagesWithoutHandingOutAPageTwice) {
  for (int threads : {2, 4, 8}) {
    const int broken = runWorkers(
        threads, [](unsigned long) { return ::qorPageAlloc::Alloc(); },
        [](void* p, unsigned long) { ::qorPageAlloc::Dealloc(p); },
        [] {
          (void)::qorPageAlloc::GetFreePages();
          (void)::qorPageAlloc::GetTotalPages();
        },
        [](std::mt19937& random) {
          // Now and then a permanent block of objects, mixed with the pages.
          if (random() % 64 == 0) {
            unsigned long obtained = 0;
            void* memory = nullptr;
            ::qorPageAlloc::PermanentAlloc(8, 1, obtained, memory);
            std::memset(memory, 1, 64);
          }
          return ::qorPageAlloc::GetPageSize();
        });
    EXPECT_EQ(broken, 0) << threads << " threads";
  }
}

}  // namespace
