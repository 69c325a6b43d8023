// Concurrency stress: threads allocate and release at once from one
// qorHeapCSO, from the object allocator and from the page allocator. Every
// object is stamped with its owner and checked just before release, so an
// object handed to two owners at once is caught; reports are taken
// meanwhile, so an unguarded list walk shows up under ThreadSanitizer.
#include <qor/qor_alloc.h>
#include <qor/qor_heapcso.h>
#include <qor/qor_objectalloc.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "memory_test_util.h"

namespace {

struct Allocator {
  const char* name;
  std::function<void*(unsigned long)> alloc;
  std::function<void(void*, unsigned long)> release;
  std::function<void()> report;
  std::function<unsigned long(std::mt19937&)> sizeOf;
};

// Stamps the first word of an object (at least 8 bytes), and the last when
// it does not overlap the first.
void stamp(void* p, unsigned long size, std::uint64_t value) {
  std::memcpy(p, &value, 8);
  if (size >= 16) std::memcpy(static_cast<char*>(p) + size - 8, &value, 8);
}

bool stamped(void* p, unsigned long size, std::uint64_t value) {
  std::uint64_t head, tail = value;
  std::memcpy(&head, p, 8);
  if (size >= 16) std::memcpy(&tail, static_cast<char*>(p) + size - 8, 8);
  return head == value && tail == value;
}

// Each worker allocates batches, stamps them and releases about half in
// random order, checking each stamp first. Returns the stamps found broken.
int runWorkers(int threads, const Allocator& a) {
  std::atomic<int> broken{0};
  std::atomic<bool> done{false};
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      std::mt19937 random(1000u + static_cast<unsigned>(t));
      std::vector<std::tuple<void*, unsigned long, std::uint64_t>> held;
      std::uint64_t serial = std::uint64_t(t) << 32;
      for (int round = 0; round < 800; ++round) {
        for (int i = 1 + static_cast<int>(random() % 64); i > 0; --i) {
          const unsigned long size = a.sizeOf(random);
          void* p = a.alloc(size);
          stamp(p, size, ++serial);
          held.emplace_back(p, size, serial);
        }
        std::shuffle(held.begin(), held.end(), random);
        const size_t keep = round == 799 ? 0 : held.size() / 2;
        while (held.size() > keep) {
          auto [p, size, value] = held.back();
          held.pop_back();
          if (!stamped(p, size, value)) ++broken;
          a.release(p, size);
        }
      }
    });
  }
  std::thread reporter([&] {
    while (!done.load()) {
      a.report();
      std::this_thread::yield();
    }
  });
  for (std::thread& worker : workers) worker.join();
  done = true;
  reporter.join();
  return broken.load();
}

class qorMemoryStress : public ::memtest::PageAllocFixture {};

TEST_F(qorMemoryStress, ThreadsNeverGetTheSameObjectTwice) {
  std::unique_ptr<qorHeapCSO> heap(new qorHeapCSO);
  std::vector<std::string> lines;
  auto smallSize = [](std::mt19937& random) { return 8 + random() % 120; };
  const Allocator allocators[] = {
      {"qorHeapCSO", [&](unsigned long size) { return heap->Alloc(size); },
       [&](void* p, unsigned long size) { heap->Dealloc2(p, size); },
       [&] {
         heap->getFreeListStats(lines);
         (void)heap->getTotalBytesAllocated();
       },
       smallSize},
      // Refills take the page allocator's lock inside the object allocator's.
      {"object allocator", [](unsigned long size) { return qorOAAlloc(size); },
       [](void* p, unsigned long size) { qorOADealloc(p, size); },
       [&] {
         qorOAGetFreeListStats(lines);
         (void)qorPageAlloc::GetTotalPages();
       },
       smallSize},
      // Pages, now and then mixed with a permanent block.
      {"page allocator", [](unsigned long) { return qorPageAlloc::Alloc(); },
       [](void* p, unsigned long) { qorPageAlloc::Dealloc(p); }, [] { (void)qorPageAlloc::GetFreePages(); },
       [](std::mt19937& random) {
         if (random() % 64 == 0) {
           unsigned long obtained = 0;
           void* memory = nullptr;
           qorPageAlloc::PermanentAlloc(8, 1, obtained, memory);
           std::memset(memory, 1, 64);
         }
         return qorPageAlloc::GetPageSize();
       }},
  };
  for (const Allocator& allocator : allocators) {
    for (int threads : {2, 4, 8}) EXPECT_EQ(runWorkers(threads, allocator), 0) << allocator.name << " " << threads;
  }
}

}  // namespace
