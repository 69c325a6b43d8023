// Concurrency stress: threads allocate and release at once from one
// qorHeapCSO, from the object allocator and from the page allocator, each
// checking its own blocks with the pattern oracle (a block handed to two
// owners at once loses its pattern); reports are taken meanwhile, so an
// unguarded list walk shows up under ThreadSanitizer.
#include <qor/qor_alloc.h>
#include <qor/qor_heapcso.h>
#include <qor/qor_objectalloc.h>

#include <atomic>
#include <memory>
#include <thread>

#include "memory_test_util.h"

namespace {

class qorMemoryStress : public ::memtest::PageAllocFixture {};

// Runs `threads` workers of random traffic and one reporter until they end.
template <typename Alloc, typename Release, typename PickSize, typename Report>
void runWorkers(int threads, Alloc alloc, Release release, PickSize pickSize, Report report) {
  std::atomic<bool> done{false};
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t)
    workers.emplace_back(
        [&, t] { ::memtest::checkRandomTraffic(1000u + t, 40, 400, alloc, release, pickSize, [] {}); });
  std::thread reporter([&] {
    while (!done.load()) report(), std::this_thread::yield();
  });
  for (std::thread& worker : workers) worker.join();
  done = true;
  reporter.join();
}

TEST_F(qorMemoryStress, ThreadsNeverGetTheSameObjectTwice) {
  std::unique_ptr<qorHeapCSO> heap(new qorHeapCSO);
  std::vector<std::string> lines;
  auto smallSize = [](std::mt19937& random) { return 8 + random() % 120; };
  for (int threads : {2, 4, 8}) {
    runWorkers(
        threads, [&](unsigned long size) { return heap->Alloc(size); },
        [&](void* p, unsigned long size) { heap->Dealloc2(p, size); }, smallSize,
        [&] { heap->getFreeListStats(lines), (void)heap->getTotalBytesAllocated(); });
    // Refills take the page allocator's lock inside the object allocator's.
    runWorkers(
        threads, [](unsigned long size) { return qorOAAlloc(size); },
        [](void* p, unsigned long size) { qorOADealloc(p, size); }, smallSize,
        [&] { qorOAGetFreeListStats(lines), (void)qorPageAlloc::GetTotalPages(); });
    // Pages, now and then mixed with a permanent block.
    runWorkers(
        threads, [](unsigned long) { return qorPageAlloc::Alloc(); },
        [](void* p, unsigned long) { qorPageAlloc::Dealloc(p); },
        [](std::mt19937& random) {
          if (random() % 64 == 0) {
            unsigned long obtained = 0;
            void* memory = nullptr;
            qorPageAlloc::PermanentAlloc(8, 1, obtained, memory);
            std::memset(memory, 1, 64);
          }
          return qorPageAlloc::GetPageSize();
        },
        [] { (void)qorPageAlloc::GetFreePages(); });
  }
}

}  // namespace
