// The object allocator: refill arithmetic, size rounding, reuse order, the
// statistics report and its life across page-allocator cycles.
#include <qor/qor_alloc.h>
#include <qor/qor_objectalloc.h>

#include <cstdint>
#include <random>
#include <vector>

#include "memory_test_util.h"

namespace {

using ::memtest::raisedText;
using ::memtest::startsWith;

class qorObjectAlloc : public ::memtest::PageAllocFixture {};

unsigned long expectedObjects(unsigned long size) { return qorPageAlloc::ComputeEfficientSize(size, 4096) / size; }

TEST_F(qorObjectAlloc, RefillCutsAPermanentBlockIntoAscendingObjects) {
  for (unsigned long size : {8UL, 24UL, 100UL}) {
    const double bytes = qorOAGetTotalBytesAllocated();
    const unsigned long pages = qorPageAlloc::GetTotalPages();
    {
      qorMutexLocker lock(qorOAMutex);
      qorOAPopulateFreeList(size);
    }
    EXPECT_EQ(qorOAGetTotalBytesAllocated() - bytes, static_cast<double>(size * expectedObjects(size))) << size;
    EXPECT_EQ(qorPageAlloc::GetTotalPages() - pages,
              qorPageAlloc::ComputeEfficientSize(size, 4096) / qorPageAlloc::GetPageSize());
    // With 100-byte objects most links are not 8-byte aligned (UBSan checks).
    char* base = static_cast<char*>(qorOAFreeLists[size]);
    unsigned long count = 0;
    for (char* object = base; object != nullptr; ++count) {
      ASSERT_EQ(object, base + count * size) << size;
      void* next;
      std::memcpy(&next, object, sizeof next);
      object = static_cast<char*>(next);
    }
    EXPECT_EQ(count, expectedObjects(size));
  }
}

// Both sides round a size up to a multiple of 8; lists are last-in first-out.
TEST_F(qorObjectAlloc, SizesRoundToMultiplesOf8AndListsReuseLastInFirstOut) {
  void* a = qorOAAlloc(1);
  EXPECT_EQ(qorOAFreeLists[1], nullptr);
  EXPECT_EQ(static_cast<char*>(qorOAAlloc(8)), static_cast<char*>(a) + 8);
  void* c = qorOAAlloc(100);
  EXPECT_EQ(qorOAFreeLists[100], nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(c) % 8, 0U);
  qorOADealloc(c, 100);
  EXPECT_EQ(qorOAAlloc(97), c);
  qorOADealloc(a, 3);
  qorOADealloc(nullptr, 8);
  EXPECT_EQ(qorOAAlloc(8), a);
  void* big = qorOAAlloc(65536);
  qorOADealloc(big, 65530);
  EXPECT_EQ(qorOAAlloc(65536), big);
  std::vector<void*> objects;
  for (int i = 0; i < 10; ++i) objects.push_back(qorOAAlloc(48));
  for (void* p : objects) qorOADealloc(p, 48);
  for (int i = 9; i >= 0; --i) EXPECT_EQ(qorOAAlloc(48), objects[i]) << i;
  ::memtest::checkRandomTraffic(
      20261123, 1, 40000, [](unsigned long size) { return qorOAAlloc(size); },
      [](void* p, unsigned long size) { qorOADealloc(p, size); },
      [](std::mt19937& random) {
        static const unsigned long kLarge[] = {1000, 1024, 4000};
        return random() % 8 == 0 ? kLarge[random() % 3] : 1 + random() % 200;
      },
      [] {});
}

TEST_F(qorObjectAlloc, BadSizesAndNoPageAllocatorRaiseAndReleaseTheLock) {
  int object = 0;
  const struct {
    std::function<void()> call;
    const char* prefix;
  } rows[] = {
      {[] { qorOAAlloc(0); }, "qorOAAlloc: object size of 0"},
      {[] { qorOAAlloc(65537); }, "qorOAAlloc: object size above 65536"},
      {[] { qorOAAlloc(~0UL); }, "qorOAAlloc: object size above 65536"},
      {[&] { qorOADealloc(&object, 0); }, "qorOAAlloc: object size of 0"},
      {[&] { qorOADealloc(&object, 70000); }, "qorOAAlloc: object size above 65536"},
      {[] { qorOAPopulateFreeList(0); }, "qorOAAlloc: object size of 0"},
      {[] { qorOAPopulateFreeList(65537); }, "qorOAAlloc: object size above 65536"},
      {[] {
         qorPageAlloc::Uninitialize();
         qorOAAlloc(16);
       },
       "qorPageAlloc not initialised!"},
  };
  for (const auto& row : rows) {
    EXPECT_TRUE(startsWith(raisedText(row.call), row.prefix)) << row.prefix;
    EXPECT_TRUE(qorOAMutex.tryLock()) << row.prefix;
    qorOAMutex.unlock();
  }
  EXPECT_EQ(qorOAFreeLists[0], nullptr);
  EXPECT_EQ(qorOAFreeLists[16], nullptr);
  EXPECT_EQ(qorOAGetTotalBytesAllocated(), 0.0);
}

// The report lists non-empty lists in ascending order; Uninitialize empties
// the lists but keeps the byte total.
TEST_F(qorObjectAlloc, ReportAndTotalAcrossUninitialize) {
  std::vector<std::string> lines{"stale"};
  qorOAGetFreeListStats(lines);
  EXPECT_EQ(lines, ::memtest::expectedReport(" Cache Stats:", {}));
  qorOAAlloc(24);
  qorOAAlloc(16);
  qorOAGetFreeListStats(lines);
  EXPECT_EQ(lines,
            ::memtest::expectedReport(" Cache Stats:", {{16, expectedObjects(16) - 1}, {24, expectedObjects(24) - 1}}));
  const double bytes = qorOAGetTotalBytesAllocated();
  EXPECT_EQ(bytes, static_cast<double>(16 * expectedObjects(16) + 24 * expectedObjects(24)));
  qorPageAlloc::Uninitialize();
  qorOAGetFreeListStats(lines);
  EXPECT_EQ(lines.size(), 6U);
  qorPageAlloc::Initialize();
  std::memset(qorOAAlloc(16), 1, 16);
  EXPECT_EQ(qorOAGetTotalBytesAllocated(), bytes + static_cast<double>(16 * expectedObjects(16)));
}

}  // namespace
