// Concurrency stress: threads allocate and release at once from one
// qorHeapCSO, from the object allocator and from the page allocator, each
// checking its own blocks with the pattern oracle (a block handed to two
// owners at once loses its pattern); reports are taken meanwhile, so an
// unguarded list walk shows up under ThreadSanitizer.
#include <qor/qor_alloc.h>
#include <qor/qor_heapcso.h>
#include <qor/qor_objectalloc.h>

#include <memory>
#include <thread>

#include "memory_test_util.h"

namespace {

class qorMemoryStress : public ::memtest::PageAllocFixture {};

// Runs `threads` workers of random traffic; each takes a report after every
// round, while the others go on allocating. (A reporter thread of its own
// would walk the page list in a loop and starve the workers of the lock.)
template <typename Alloc, typename Release, typename PickSize, typename Report>
void runWorkers(int threads, Alloc alloc, Release release, PickSize pickSize, Report report) {
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t)
    workers.emplace_back(
        [&, t] { ::memtest::checkRandomTraffic(1000u + t, 40, 400, alloc, release, pickSize, report); });
  for (std::thread& worker : workers) worker.join();
}

TEST_F(qorMemoryStress, ThreadsNeverGetTheSameObjectTwice) {
  std::unique_ptr<qorHeapCSO> heap(new qorHeapCSO);
  auto smallSize = [](std::mt19937& random) { return 8 + random() % 120; };
  for (int threads : {2, 4, 8}) {
    runWorkers(
        threads, [&](unsigned long size) { return heap->Alloc(size); },
        [&](void* p, unsigned long size) { heap->Dealloc2(p, size); }, smallSize,
        [&] {
          std::vector<std::string> lines;
          heap->getFreeListStats(lines), (void)heap->getTotalBytesAllocated();
        });
    // Refills take the page allocator's lock inside the object allocator's.
    runWorkers(
        threads, [](unsigned long size) { return qorOAAlloc(size); },
        [](void* p, unsigned long size) { qorOADealloc(p, size); }, smallSize,
        [] {
          std::vector<std::string> lines;
          qorOAGetFreeListStats(lines), (void)qorPageAlloc::GetTotalPages();
        });
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
