// qorPageAlloc: pool refills, page reuse, permanent blocks, the state
// machine, failed mappings and the fatal munmap report; the object allocator
// over it: refill arithmetic, size rounding, reuse order, the report.
#include <qor/qor_alloc.h>
#include <qor/qor_heapcso.h>
#include <qor/qor_objectalloc.h>

#include <algorithm>
#include <cstdint>
#include <memory>

#include "memory_test_util.h"

namespace {

using ::memtest::expectedObjects;
using ::memtest::raisedText;
using ::memtest::startsWith;

class qorPageAlloc : public ::memtest::PageAllocFixture {};
using Pages = ::qorPageAlloc;

const char kNotInitialised[] = "qorPageAlloc not initialised!";

// One walk through a pool's life: derived sizes, the first refill, page
// order, last-in first-out reuse, a second pool once the first is used up.
TEST_F(qorPageAlloc, PoolsRefillAndPagesAreReusedLastInFirstOut) {
  const unsigned long system = static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
  const unsigned long size = Pages::GetPageSize();
  EXPECT_EQ(size, system < 4096 ? 4096 : system);
  EXPECT_EQ(Pages::m_PagesToAllocAtOnce, std::max(65536 / system, 8UL));
  EXPECT_EQ(Pages::GetPermanentAllocMinimum(), size * Pages::m_PagesToAllocAtOnce);
  const unsigned long perPool = 16777216 / size;
  const unsigned long before = Pages::GetTotalPages();
  EXPECT_EQ(before, 0UL);  // each test runs in a process of its own: nothing mapped yet
  EXPECT_EQ(Pages::GetFreePages(), 0UL);
  char* first = static_cast<char*>(Pages::Alloc());
  EXPECT_EQ(Pages::GetTotalPages() - before, perPool);
  EXPECT_EQ(Pages::GetFreePages(), perPool - 1);
  EXPECT_EQ(Pages::m_FirstPermFree->address, first);
  EXPECT_EQ(Pages::m_FirstPermFree->length, 16777216UL);
  EXPECT_EQ(reinterpret_cast<unsigned long>(first) % size, 0UL);
  for (unsigned long i = 1; i < perPool; ++i) {
    char* page = static_cast<char*>(Pages::Alloc());
    ASSERT_EQ(page, first + i * size) << "page " << i;
    if (i < 64) std::memset(page, 0x5a, size);
  }
  EXPECT_EQ(Pages::GetFreePages(), 0UL);
  void* next = Pages::Alloc();  // the pool's last link was null: a second pool
  EXPECT_TRUE(static_cast<char*>(next) < first || static_cast<char*>(next) >= first + perPool * size);
  EXPECT_EQ(Pages::GetTotalPages() - before, 2 * perPool);
  void* other = Pages::Alloc();
  const unsigned long freeBefore = Pages::GetFreePages();
  Pages::Dealloc(next);
  Pages::Dealloc(other);
  Pages::Dealloc(nullptr);
  EXPECT_EQ(Pages::GetFreePages(), freeBefore + 2);
  EXPECT_EQ(Pages::Alloc(), other);
  EXPECT_EQ(Pages::Alloc(), next);
}

TEST_F(qorPageAlloc, PermanentBlocksHoldWholeUnits) {
  const unsigned long unit = Pages::GetPermanentAllocMinimum();
  const unsigned long rows[][3] = {{0, 4096, 0}, {1, 1, unit}, {unit, 1, unit}, {unit + 1, 1, 2 * unit}};
  for (const auto& row : rows) EXPECT_EQ(Pages::ComputeEfficientSize(row[0], row[1]), row[2]) << row[0];
  // A product that wraps would promise objects in a block far too small.
  EXPECT_NE(raisedText([] { Pages::ComputeEfficientSize(1UL << 40, 1UL << 30); }), qortest::kNothingRaised);
  EXPECT_NE(raisedText([] { Pages::ComputeEfficientSize(~0UL, 1); }), qortest::kNothingRaised);
  for (unsigned long size : {8UL, 24UL, 100UL, 65536UL}) {
    const unsigned long before = Pages::GetTotalPages();
    unsigned long obtained = 0;
    void* memory = nullptr;
    Pages::PermanentAlloc(size, 4096, obtained, memory);
    const unsigned long bytes = Pages::ComputeEfficientSize(size, 4096);
    EXPECT_EQ(bytes % unit, 0UL);
    EXPECT_LT(bytes - unit, size * 4096) << size;
    EXPECT_EQ(Pages::GetTotalPages() - before, bytes / Pages::GetPageSize()) << size;
    EXPECT_EQ(obtained, bytes / size) << size;
    EXPECT_GE(obtained, 4096UL) << size;
    EXPECT_EQ(Pages::m_FirstPermFree->address, memory);
    EXPECT_EQ(Pages::m_FirstPermFree->length, bytes);
    static_cast<char*>(memory)[bytes - 1] = 1;
  }
  unsigned long obtained = 77;
  void* memory = &obtained;
  const unsigned long pages = Pages::GetTotalPages();
  EXPECT_TRUE(startsWith(raisedText([&] { Pages::PermanentAlloc(0, 4096, obtained, memory); }),
                         "qorPageAlloc::PermanentAlloc: object size of 0"));
  EXPECT_TRUE(startsWith(raisedText([&] { Pages::PermanentAlloc(8, 0, obtained, memory); }),
                         "qorPageAlloc::PermanentAlloc: 0 objects requested"));
  EXPECT_EQ(obtained, 77UL);
  EXPECT_EQ(Pages::GetTotalPages(), pages);
}

// Initialize and Uninitialize in every order: misuse raises and changes
// nothing; Uninitialize releases everything but keeps the page total.
TEST_F(qorPageAlloc, StateMachine) {
  const unsigned long size = Pages::GetPageSize();
  EXPECT_TRUE(
      startsWith(raisedText([] { Pages::Initialize(); }), "qorPageAlloc already initialised! [file qor_alloc line "));
  EXPECT_EQ(Pages::GetPageSize(), size);
  EXPECT_TRUE(Pages::m_Initialized);
  for (int cycle = 0; cycle < 3; ++cycle) {
    void* page = Pages::Alloc();
    unsigned long obtained = 0;
    void* memory = nullptr;
    Pages::PermanentAlloc(32, 4096, obtained, memory);
    qorOAFreeLists[32] = memory;
    qorOAFreeLists[65536] = memory;
    const unsigned long total = Pages::GetTotalPages();
    Pages::Uninitialize();
    EXPECT_EQ(Pages::GetFreePages(), 0UL);
    EXPECT_EQ(Pages::m_FirstPermFree, nullptr);
    EXPECT_EQ(Pages::m_FirstFree, nullptr);
    for (unsigned long i = 0; i <= 65536; ++i) ASSERT_EQ(qorOAFreeLists[i], nullptr) << i;
    EXPECT_EQ(Pages::GetTotalPages(), total);
    EXPECT_TRUE(
        startsWith(raisedText([] { Pages::Uninitialize(); }), "qorPageAlloc not initialised! [file qor_alloc line "));
    EXPECT_TRUE(startsWith(raisedText([] { Pages::Alloc(); }), kNotInitialised));
    EXPECT_TRUE(startsWith(raisedText([&] { Pages::PermanentAlloc(8, 1, obtained, memory); }), kNotInitialised));
    EXPECT_EQ(Pages::GetTotalPages(), total);
    EXPECT_FALSE(Pages::m_Initialized);
    Pages::Initialize();
    EXPECT_NE(Pages::Alloc(), nullptr);
    EXPECT_EQ(Pages::GetTotalPages(), total + 16777216 / size) << cycle;
    (void)page;
  }
  // Before any Initialize the sizes are 0: calls raise instead of dividing.
  Pages::Uninitialize();
  const unsigned long pages = Pages::m_PagesToAllocAtOnce;
  Pages::m_PageSize = 0;
  Pages::m_PagesToAllocAtOnce = 0;
  EXPECT_TRUE(startsWith(raisedText([] { Pages::ComputeEfficientSize(8, 4096); }), kNotInitialised));
  EXPECT_TRUE(startsWith(raisedText([] { Pages::Alloc(); }), kNotInitialised));
  EXPECT_TRUE(startsWith(raisedText([] { Pages::AllocRawPages(1); }), kNotInitialised));
  Pages::m_PageSize = size;
  Pages::m_PagesToAllocAtOnce = pages;
}

// munmap refuses an address that is not page-aligned: the report, then exit.
TEST_F(qorPageAlloc, FailingMunmapPrintsReportAndExits) {
  auto pages = [] {
    Pages::m_FirstPermFree = new Pages::PermBlock{Pages::m_FirstPermFree, reinterpret_cast<void*>(0x1001), 4096};
    Pages::Uninitialize();
  };
  EXPECT_EQ(::memtest::stdoutOfExit(pages, 255), "Error in munmap: size = 4096 addr=1001\n");
  auto heap = [] {
    static ::qorHeapCSO* dying = new ::qorHeapCSO;  // reachable for the leak checker while it ends the process
    dying->m_FirstRawBlock = new ::qorHeapCSO::RawBlock{reinterpret_cast<void*>(0x2003), nullptr, 8192};
    delete dying;
  };
  EXPECT_EQ(::memtest::stdoutOfExit(heap, 255), "Error in munmap: size = 8192 addr=2003\n");
}

// Each test runs in a process of its own: before the first Initialize the
// sizes read 0, which the allocators check for rather than divide by.
TEST(qorPageAllocBeforeInitialize, SizesReadZero) {
  EXPECT_EQ(Pages::GetPageSize() + Pages::GetPermanentAllocMinimum(), 0UL);
}

class qorObjectAlloc : public ::memtest::PageAllocFixture {};

TEST_F(qorObjectAlloc, RefillCutsAPermanentBlockIntoAscendingObjects) {
  for (unsigned long size : {8UL, 24UL, 100UL}) {
    const double bytes = qorOAGetTotalBytesAllocated();
    const unsigned long pages = Pages::GetTotalPages();
    {
      qorMutexLocker lock(qorOAMutex);
      qorOAPopulateFreeList(size);
    }
    EXPECT_EQ(qorOAGetTotalBytesAllocated() - bytes, static_cast<double>(size * expectedObjects(size))) << size;
    EXPECT_EQ(Pages::GetTotalPages() - pages, Pages::ComputeEfficientSize(size, 4096) / Pages::GetPageSize());
    // With 100-byte objects most links are not 8-byte aligned (UBSan checks).
    char* base = static_cast<char*>(qorOAFreeLists[size]);
    unsigned long count = 0;
    for (char* object = base; object != nullptr; ++count) {
      ASSERT_EQ(object, base + count * size) << size;
      object = static_cast<char*>(::memtest::linkOf(object));
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

// Bad sizes raise, release the lock and change nothing, in the object allocator and in qorHeapCSO.
TEST_F(qorObjectAlloc, BadSizesAndNoPageAllocatorRaiseAndReleaseTheLock) {
  std::unique_ptr<::qorHeapCSO> heap(new ::qorHeapCSO);
  int object = 0;
  unsigned long obtained = 0;
  void* memory = nullptr;
  const struct {
    std::function<void()> call;
    const char* prefix;
    QMutex& lock;
  } rows[] = {
      {[] { qorOAAlloc(0); }, "qorOAAlloc: object size of 0", qorOAMutex},
      {[] { qorOAAlloc(65537); }, "qorOAAlloc: object size above 65536", qorOAMutex},
      {[] { qorOAAlloc(~0UL); }, "qorOAAlloc: object size above 65536", qorOAMutex},
      {[&] { qorOADealloc(&object, 0); }, "qorOAAlloc: object size of 0", qorOAMutex},
      {[&] { qorOADealloc(&object, 70000); }, "qorOAAlloc: object size above 65536", qorOAMutex},
      {[] { qorOAPopulateFreeList(0); }, "qorOAAlloc: object size of 0", qorOAMutex},
      {[] { qorOAPopulateFreeList(65537); }, "qorOAAlloc: object size above 65536", qorOAMutex},
      {[&] { heap->Alloc(65537); }, "qorHeapCSO: object size above 65536", heap->m_Mutex},
      {[&] { heap->Alloc(~0UL); }, "qorHeapCSO: object size above 65536", heap->m_Mutex},
      {[&] { heap->Dealloc2(&object, 65537); }, "qorHeapCSO: object size above 65536", heap->m_Mutex},
      {[&] { heap->populateFreeList(12); }, "qorHeapCSO: size class must be a multiple of 8", heap->m_Mutex},
      {[&] { heap->populateFreeList(0); }, "qorHeapCSO: size class must be a multiple of 8", heap->m_Mutex},
      {[&] { heap->PermanentAlloc(0, 10, obtained, memory); }, "qorHeapCSO: permanent allocation with an object",
       heap->m_Mutex},
      {[&] { heap->PermanentAlloc(8, 0, obtained, memory); }, "qorHeapCSO: permanent allocation of 0 objects",
       heap->m_Mutex},
      {[&] { heap->AllocRawPages(0); }, "qorHeapCSO: page count is 0 or too large", heap->m_Mutex},
      {[] {
         Pages::Uninitialize();
         qorOAAlloc(16);
       },
       "qorPageAlloc not initialised!", qorOAMutex},
  };
  for (const auto& row : rows) {
    EXPECT_TRUE(startsWith(raisedText(row.call), row.prefix)) << row.prefix;
    EXPECT_TRUE(row.lock.tryLock()) << row.prefix;
    row.lock.unlock();
  }
  EXPECT_EQ(qorOAFreeLists[0], nullptr);
  EXPECT_EQ(qorOAFreeLists[16], nullptr);
  EXPECT_EQ(qorOAGetTotalBytesAllocated(), 0.0);
  EXPECT_EQ(heap->m_FirstRawBlock, nullptr);
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
  Pages::Uninitialize();
  qorOAGetFreeListStats(lines);
  EXPECT_EQ(lines.size(), 6U);
  Pages::Initialize();
  std::memset(qorOAAlloc(16), 1, 16);
  EXPECT_EQ(qorOAGetTotalBytesAllocated(), bytes + static_cast<double>(16 * expectedObjects(16)));
}

}  // namespace
