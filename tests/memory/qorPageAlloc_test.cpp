// qorPageAlloc: pool refills, page reuse, permanent blocks, the state
// machine, failed mappings and the fatal munmap report.
#include <qor/qor_alloc.h>
#include <qor/qor_objectalloc.h>

#include <set>

#include "memory_test_util.h"

namespace {

using ::memtest::raisedText;
using ::memtest::startsWith;

class qorPageAlloc : public ::memtest::PageAllocFixture {};
using Pages = ::qorPageAlloc;

unsigned long unitBytes() { return Pages::GetPermanentAllocMinimum(); }

// Catches a wrong derivation of the page size or unit from sysconf.
TEST_F(qorPageAlloc, InitializeDerivesPageSizeAndUnit) {
  const unsigned long system = static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
  EXPECT_EQ(Pages::GetPageSize(), system < 4096 ? 4096 : system);
  unsigned long pages = 65536 / system;
  if (pages < 8) pages = 8;
  EXPECT_EQ(Pages::m_PagesToAllocAtOnce, pages);
  EXPECT_EQ(unitBytes(), Pages::GetPageSize() * pages);
  if (system == 4096) {
    EXPECT_EQ(unitBytes(), 65536UL);
  }
  EXPECT_TRUE(Pages::m_Initialized);
}

// Catches a refill of the wrong size, or one page lost or counted twice.
TEST_F(qorPageAlloc, FirstAllocMapsOnePoolOf16MiB) {
  const unsigned long before = Pages::GetTotalPages();
  EXPECT_EQ(Pages::GetFreePages(), 0UL);
  void* page = Pages::Alloc();
  ASSERT_NE(page, nullptr);
  const unsigned long perRefill = 16777216 / Pages::GetPageSize();
  EXPECT_EQ(Pages::GetTotalPages() - before, perRefill);
  EXPECT_EQ(Pages::GetFreePages(), perRefill - 1);
  if (Pages::GetPageSize() == 4096) {
    EXPECT_EQ(Pages::GetTotalPages() - before, 4096UL);
    EXPECT_EQ(Pages::GetFreePages(), 4095UL);
  }
  EXPECT_EQ(Pages::m_FirstPermFree->length, 16777216UL);
  EXPECT_EQ(Pages::m_FirstPermFree->address, page);
}

// Catches pages linked out of order, overlapping, or not writable in full.
TEST_F(qorPageAlloc, RefillHandsOutPagesInAscendingOrder) {
  const unsigned long size = Pages::GetPageSize();
  char* first = static_cast<char*>(Pages::Alloc());
  for (unsigned long i = 1; i < 64; ++i) {
    char* page = static_cast<char*>(Pages::Alloc());
    ASSERT_EQ(page, first + i * size) << "page " << i;
    std::memset(page, 0x5a, size);
  }
  EXPECT_EQ(reinterpret_cast<unsigned long>(first) % size, 0UL);
}

// Catches a pool whose last page is not null-terminated: the whole pool is
// handed out, and the next Alloc maps a second pool instead of following a
// stray link.
TEST_F(qorPageAlloc, SecondPoolIsMappedWhenTheFirstIsUsedUp) {
  const unsigned long perRefill = 16777216 / Pages::GetPageSize();
  const unsigned long before = Pages::GetTotalPages();
  std::set<void*> pages;
  for (unsigned long i = 0; i < perRefill; ++i) pages.insert(Pages::Alloc());
  EXPECT_EQ(Pages::GetFreePages(), 0UL);
  EXPECT_EQ(Pages::GetTotalPages() - before, perRefill);
  void* next = Pages::Alloc();
  EXPECT_EQ(pages.count(next), 0UL);
  EXPECT_EQ(Pages::GetTotalPages() - before, 2 * perRefill);
  EXPECT_EQ(Pages::GetFreePages(), perRefill - 1);
}

// Catches a free list that is not last-in, first-out.
TEST_F(qorPageAlloc, ReusesFreedPageFirst) {
  void* a = Pages::Alloc();
  void* b = Pages::Alloc();
  const unsigned long freeBefore = Pages::GetFreePages();
  Pages::Dealloc(a);
  Pages::Dealloc(b);
  EXPECT_EQ(Pages::GetFreePages(), freeBefore + 2);
  EXPECT_EQ(Pages::Alloc(), b);
  EXPECT_EQ(Pages::Alloc(), a);
  EXPECT_EQ(Pages::GetFreePages(), freeBefore);
}

// Catches a null page pushed onto the free list.
TEST_F(qorPageAlloc, DeallocOfNullChangesNothing) {
  void* a = Pages::Alloc();
  const unsigned long freeBefore = Pages::GetFreePages();
  void* head = Pages::m_FirstFree;
  Pages::Dealloc(nullptr);
  EXPECT_EQ(Pages::GetFreePages(), freeBefore);
  EXPECT_EQ(Pages::m_FirstFree, head);
  Pages::Dealloc(a);
}

// Catches rounding to pages instead of whole units, or rounding a zero
// product up to one unit.
TEST_F(qorPageAlloc, ComputeEfficientSizeRoundsUpToWholeUnits) {
  const unsigned long unit = unitBytes();
  EXPECT_EQ(Pages::ComputeEfficientSize(0, 4096), 0UL);
  EXPECT_EQ(Pages::ComputeEfficientSize(1, 1), unit);
  EXPECT_EQ(Pages::ComputeEfficientSize(unit, 1), unit);
  EXPECT_EQ(Pages::ComputeEfficientSize(unit + 1, 1), 2 * unit);
  if (unit == 65536) {
    EXPECT_EQ(Pages::ComputeEfficientSize(1, 1), 65536UL);
    EXPECT_EQ(Pages::ComputeEfficientSize(8, 4096), 65536UL);
    EXPECT_EQ(Pages::ComputeEfficientSize(16, 4096), 65536UL);
    EXPECT_EQ(Pages::ComputeEfficientSize(24, 4096), 131072UL);
  }
}

// Catches a product that wraps round to a small size (a block far too small
// for the objects promised).
TEST_F(qorPageAlloc, ComputeEfficientSizeRaisesOnOverflow) {
  EXPECT_NE(raisedText([] { Pages::ComputeEfficientSize(1UL << 40, 1UL << 30); }), "<no exception>");
  EXPECT_NE(raisedText([] { Pages::ComputeEfficientSize(~0UL, 1); }), "<no exception>");
}

// Catches wrong page counts or object counts of a permanent block.
TEST_F(qorPageAlloc, PermanentAllocReportsWholeObjects) {
  struct Case {
    unsigned long size, pages, objects;
  };
  const unsigned long page = Pages::GetPageSize();
  for (unsigned long size : {8UL, 24UL, 100UL, 65536UL}) {
    const unsigned long before = Pages::GetTotalPages();
    unsigned long obtained = 0;
    void* memory = nullptr;
    Pages::PermanentAlloc(size, 4096, obtained, memory);
    const unsigned long bytes = Pages::ComputeEfficientSize(size, 4096);
    EXPECT_EQ(Pages::GetTotalPages() - before, bytes / page) << size;
    EXPECT_EQ(obtained, bytes / size) << size;
    EXPECT_GE(obtained, 4096UL);
    EXPECT_EQ(Pages::m_FirstPermFree->address, memory);
    EXPECT_EQ(Pages::m_FirstPermFree->length, bytes);
    static_cast<char*>(memory)[0] = 1;
    static_cast<char*>(memory)[bytes - 1] = 1;
  }
  if (page == 4096) {
    for (Case c : {Case{24, 32, 5461}, Case{8, 16, 8192}, Case{65536, 65536, 4096}}) {
      const unsigned long before = Pages::GetTotalPages();
      unsigned long obtained = 0;
      void* memory = nullptr;
      Pages::PermanentAlloc(c.size, 4096, obtained, memory);
      EXPECT_EQ(Pages::GetTotalPages() - before, c.pages) << c.size;
      EXPECT_EQ(obtained, c.objects) << c.size;
    }
  }
}

// Catches a zero-sized request mapped as a block of no objects, or a
// division by an object size of 0.
TEST_F(qorPageAlloc, PermanentAllocRejectsZeroSizes) {
  unsigned long obtained = 77;
  void* memory = &obtained;
  const unsigned long pages = Pages::GetTotalPages();
  EXPECT_TRUE(startsWith(raisedText([&] { Pages::PermanentAlloc(0, 4096, obtained, memory); }), "Permanent"));
  EXPECT_TRUE(startsWith(raisedText([&] { Pages::PermanentAlloc(8, 0, obtained, memory); }), "Permanent"));
  EXPECT_EQ(obtained, 77UL);
  EXPECT_EQ(memory, &obtained);
  EXPECT_EQ(Pages::GetTotalPages(), pages);
}

// Catches a second Initialize that re-derives the state or passes silently.
TEST_F(qorPageAlloc, SecondInitializeRaisesAndKeepsState) {
  const unsigned long size = Pages::GetPageSize();
  const unsigned long unit = unitBytes();
  const std::string text = raisedText([] { Pages::Initialize(); });
  EXPECT_TRUE(startsWith(text, "qorPageAlloc already initialised! [file qor_alloc line ")) << text;
  EXPECT_EQ(Pages::GetPageSize(), size);
  EXPECT_EQ(unitBytes(), unit);
  EXPECT_TRUE(Pages::m_Initialized);
}

// Catches an Uninitialize that runs twice (a double munmap and delete).
TEST_F(qorPageAlloc, UninitializeWhenUninitialisedRaises) {
  Pages::Uninitialize();
  const std::string text = raisedText([] { Pages::Uninitialize(); });
  EXPECT_TRUE(startsWith(text, "qorPageAlloc not initialised! [file qor_alloc line ")) << text;
  EXPECT_FALSE(Pages::m_Initialized);
}

// Catches state left behind by Uninitialize: pages on the free list,
// mapping records, object-allocator lists, or a reset page total.
TEST_F(qorPageAlloc, UninitializeReleasesEverythingAndKeepsCounting) {
  Pages::Alloc();
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
  EXPECT_NE(Pages::GetPageSize(), 0UL);
  Pages::Initialize();
  Pages::Alloc();
  EXPECT_EQ(Pages::GetTotalPages(), total + 16777216 / Pages::GetPageSize());
}

// Catches state that one Initialize/Uninitialize cycle leaks into the next.
TEST_F(qorPageAlloc, SurvivesManyInitializeCycles) {
  for (int cycle = 0; cycle < 5; ++cycle) {
    void* page = Pages::Alloc();
    std::memset(page, cycle, Pages::GetPageSize());
    Pages::Dealloc(page);
    EXPECT_EQ(Pages::Alloc(), page) << cycle;
    Pages::Uninitialize();
    Pages::Initialize();
    EXPECT_EQ(Pages::GetFreePages(), 0UL) << cycle;
  }
}

// Catches a page handed out while uninitialised (it would outlive the
// mappings it is supposed to belong to).
TEST_F(qorPageAlloc, AllocWhenUninitialisedRaises) {
  Pages::Uninitialize();
  const unsigned long total = Pages::GetTotalPages();
  EXPECT_TRUE(startsWith(raisedText([] { Pages::Alloc(); }), "qorPageAlloc not initialised!"));
  unsigned long obtained = 0;
  void* memory = nullptr;
  EXPECT_TRUE(
      startsWith(raisedText([&] { Pages::PermanentAlloc(8, 1, obtained, memory); }), "qorPageAlloc not initialised!"));
  EXPECT_EQ(Pages::GetTotalPages(), total);
  EXPECT_EQ(Pages::m_FirstPermFree, nullptr);
}

// Catches a division by the page size or unit before they are known (as in
// a process that has never called Initialize).
TEST_F(qorPageAlloc, CallsBeforeFirstInitializeRaiseInsteadOfDividingByZero) {
  Pages::Uninitialize();
  const unsigned long size = Pages::m_PageSize;
  const unsigned long pages = Pages::m_PagesToAllocAtOnce;
  Pages::m_PageSize = 0;
  Pages::m_PagesToAllocAtOnce = 0;
  EXPECT_TRUE(startsWith(raisedText([] { Pages::ComputeEfficientSize(8, 4096); }), "qorPageAlloc not initialised!"));
  EXPECT_TRUE(startsWith(raisedText([] { Pages::Alloc(); }), "qorPageAlloc not initialised!"));
  EXPECT_TRUE(startsWith(raisedText([] { Pages::AllocRawPages(1); }), "qorPageAlloc not initialised!"));
  Pages::m_PageSize = size;
  Pages::m_PagesToAllocAtOnce = pages;
  EXPECT_EQ(Pages::m_FirstPermFree, nullptr);
}

#ifndef QOR_TEST_SANITIZED
// Catches a failed mmap handed out as a page (MAP_FAILED is not null), or
// recorded for unmapping, and an allocator left unusable afterwards.
TEST_F(qorPageAlloc, FailedMappingRaisesAndLeavesAllocatorUsable) {
  const int status = ::memtest::runWithCappedAddressSpace([] {
    const unsigned long total = Pages::GetTotalPages();
    Pages::PermBlock* records = Pages::m_FirstPermFree;
    const std::string text = raisedText([] { Pages::Alloc(); });
    if (!startsWith(text, "mmap failed: Cannot allocate memory\n [file qor_alloc line ")) return 1;
    if (Pages::GetTotalPages() != total || Pages::m_FirstPermFree != records) return 2;
    if (Pages::m_FirstFree != nullptr) return 3;
    unsigned long obtained = 0;
    void* memory = nullptr;
    if (!startsWith(raisedText([&] { Pages::PermanentAlloc(65536, 4096, obtained, memory); }), "mmap failed: "))
      return 4;
    if (memory != nullptr || obtained != 0) return 5;
    ::memtest::liftAddressSpaceCap();
    void* page = Pages::Alloc();
    if (page == nullptr || Pages::GetFreePages() + 1 != 16777216 / Pages::GetPageSize()) return 6;
    Pages::Uninitialize();
    return 0;
  });
  EXPECT_EQ(status, 0);
}
#endif

// Catches a failing munmap that goes unnoticed, or a report with the wrong
// text or argument order.
TEST_F(qorPageAlloc, FailingMunmapPrintsReportAndExits) {
  auto die = [] {
    // munmap refuses an address that is not page-aligned.
    Pages::m_FirstPermFree = new Pages::PermBlock{Pages::m_FirstPermFree, reinterpret_cast<void*>(0x1001), 4096};
    Pages::Uninitialize();
  };
  EXPECT_EQ(::memtest::stdoutOfExit(die, 255), "Error in munmap: size = 4096 addr=1001\n");
}

}  // namespace
