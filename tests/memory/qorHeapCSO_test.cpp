// qorHeapCSO: size classes, refill arithmetic, reuse order, the report,
// bad sizes, failed mappings and the fatal munmap report.
#include <qor/qor_alloc.h>
#include <qor/qor_heapcso.h>

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "memory_test_util.h"

namespace {

using ::memtest::listLength;
using ::memtest::raisedText;
using ::memtest::startsWith;

class qorHeapCSO : public ::memtest::PageAllocFixture {
 protected:
  std::unique_ptr<::qorHeapCSO> heap{new ::qorHeapCSO};
};

::qorHeapCSO* dying = nullptr;

unsigned long expectedObjects(unsigned long c) { return qorPageAlloc::ComputeEfficientSize(c, 4096) / c; }

// Catches a wrong size class: 0 to 8 bytes share the 8-byte list, 9 takes 16.
TEST_F(qorHeapCSO, SizesShareClassesOfMultiplesOf8) {
  char* a = static_cast<char*>(heap->Alloc(1));
  for (unsigned long size = 2; size <= 8; ++size) {
    EXPECT_EQ(static_cast<char*>(heap->Alloc(size)), a + 8 * (size - 1)) << size;
  }
  EXPECT_EQ(static_cast<char*>(heap->Alloc(0)), a + 64);
  EXPECT_EQ(heap->m_FreeLists[0], nullptr);
  char* b = static_cast<char*>(heap->Alloc(9));
  EXPECT_NE(heap->m_FreeLists[16], nullptr);
  EXPECT_EQ(static_cast<char*>(heap->Alloc(16)), b + 16);
  EXPECT_EQ(heap->m_FreeLists[9], nullptr);
  for (unsigned long i = 0; i <= 65536; ++i) {
    if (i % 8 != 0) {
      ASSERT_EQ(heap->m_FreeLists[i], nullptr) << i;
    }
  }
}

// Catches objects of a refill handed out out of order or overlapping.
TEST_F(qorHeapCSO, FreshRefillHandsOutAscendingAddresses) {
  for (unsigned long c : {8UL, 24UL, 104UL, 4096UL}) {
    char* base = static_cast<char*>(heap->Alloc(c));
    for (unsigned long i = 1; i < 200; ++i) {
      char* p = static_cast<char*>(heap->Alloc(c));
      ASSERT_EQ(p, base + i * c) << c << " " << i;
      std::memset(p, 0x77, c);
    }
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(base) % qorPageAlloc::GetPageSize(), 0U);
  }
}

// Catches wrong object counts per refill, or a last object whose link is
// not null.
TEST_F(qorHeapCSO, RefillHoldsAtLeast4096Objects) {
  const bool smallPages = qorPageAlloc::GetPageSize() == 4096;
  struct Case {
    unsigned long c, objects, bytes;
  };
  for (Case k : {Case{8, 8192, 65536}, Case{16, 4096, 65536}, Case{24, 5461, 131072}, Case{32, 4096, 131072},
                 Case{64, 4096, 262144}, Case{65536, 4096, 268435456}}) {
    heap->Alloc(k.c);
    EXPECT_EQ(listLength(heap->m_FreeLists[k.c]) + 1, expectedObjects(k.c)) << k.c;
    EXPECT_EQ(heap->m_FirstRawBlock->length, qorPageAlloc::ComputeEfficientSize(k.c, 4096)) << k.c;
    if (smallPages) {
      EXPECT_EQ(expectedObjects(k.c), k.objects) << k.c;
      EXPECT_EQ(heap->m_FirstRawBlock->length, k.bytes) << k.c;
    }
  }
}

// Catches a byte total that counts mapped bytes instead of bytes cut into
// objects.
TEST_F(qorHeapCSO, TotalCountsBytesCutIntoObjects) {
  EXPECT_EQ(heap->getTotalBytesAllocated(), 0.0);
  heap->Alloc(16);
  const double after16 = static_cast<double>(16 * expectedObjects(16));
  EXPECT_EQ(heap->getTotalBytesAllocated(), after16);
  heap->Alloc(24);
  EXPECT_EQ(heap->getTotalBytesAllocated(), after16 + static_cast<double>(24 * expectedObjects(24)));
  if (qorPageAlloc::GetPageSize() == 4096) {
    EXPECT_EQ(heap->getTotalBytesAllocated(), 196600.0);
  }
}

// Catches a free list that is not last-in, first-out, or a release that
// goes to another class's list.
TEST_F(qorHeapCSO, ReusesFreedBlockFirst) {
  void* a = heap->Alloc(40);
  void* b = heap->Alloc(33);
  heap->Dealloc2(a, 40);
  heap->Dealloc2(b, 33);
  EXPECT_EQ(heap->Alloc(35), b);
  EXPECT_EQ(heap->Alloc(40), a);
}

// Catches a report with wrong texts, widths, title or order.
TEST_F(qorHeapCSO, ReportShowsNonEmptyListsOnly) {
  std::vector<std::string> lines{"stale"};
  heap->getFreeListStats(lines);
  const std::vector<std::string> empty{" Heap Cache Stats:",
                                       "",
                                       " Size        Entries    Bytes",
                                       "----------  ---------  ---------",
                                       "---------- ---------- ----------",
                                       "     Total          0          0"};
  EXPECT_EQ(lines, empty);
  heap->Alloc(16);
  heap->getFreeListStats(lines);
  ASSERT_EQ(lines.size(), 7U);
  if (qorPageAlloc::GetPageSize() == 4096) {
    const std::vector<std::string> one{" Heap Cache Stats:",
                                       "",
                                       " Size        Entries    Bytes",
                                       "----------  ---------  ---------",
                                       "        16       4095      65520",
                                       "---------- ---------- ----------",
                                       "     Total       4095      65520"};
    EXPECT_EQ(lines, one);
  }
  heap->Alloc(8);
  heap->getFreeListStats(lines);
  ASSERT_EQ(lines.size(), 8U);
  EXPECT_TRUE(startsWith(lines[4], "         8 "));
  EXPECT_TRUE(startsWith(lines[5], "        16 "));
}

// Catches 64-bit report totals where the report keeps 32-bit ones.
TEST_F(qorHeapCSO, ReportTotalsWrapAt32Bits) {
  std::vector<void*> links(65537);
  for (size_t i = 0; i + 1 < links.size(); ++i) links[i] = &links[i + 1];
  links.back() = nullptr;
  heap->m_FreeLists[65536] = links.data();
  std::vector<std::string> lines;
  heap->getFreeListStats(lines);
  heap->m_FreeLists[65536] = nullptr;
  ASSERT_EQ(lines.size(), 7U);
  EXPECT_EQ(lines[4], "     65536      65537 4295032832");
  EXPECT_EQ(lines[6], "     Total      65537      65536");
}

// Catches requests beyond the largest class indexing past the table.
TEST_F(qorHeapCSO, SizesAboveTheLargestClassRaise) {
  EXPECT_TRUE(startsWith(raisedText([&] { heap->Alloc(65537); }), "qorHeapCSO: object size above 65536"));
  EXPECT_TRUE(startsWith(raisedText([&] { heap->Alloc(~0UL); }), "qorHeapCSO: object size above 65536"));
  int object = 0;
  EXPECT_NE(raisedText([&] { heap->Dealloc2(&object, 65537); }), "<no exception>");
  EXPECT_NE(raisedText([&] { heap->populateFreeList(12); }), "<no exception>");
  EXPECT_NE(raisedText([&] { heap->populateFreeList(0); }), "<no exception>");
  unsigned long obtained = 0;
  void* memory = nullptr;
  EXPECT_NE(raisedText([&] { heap->PermanentAlloc(0, 10, obtained, memory); }), "<no exception>");
  EXPECT_NE(raisedText([&] { heap->PermanentAlloc(8, 0, obtained, memory); }), "<no exception>");
  EXPECT_EQ(heap->m_FirstRawBlock, nullptr);
  EXPECT_TRUE(heap->m_Mutex.tryLock());
  heap->m_Mutex.unlock();
  void* p = heap->Alloc(65536);
  heap->Dealloc2(p, 65536);
}

// Catches a null pushed onto a list.
TEST_F(qorHeapCSO, DeallocOfNullDoesNothing) {
  void* p = heap->Alloc(8);
  void* head = heap->m_FreeLists[8];
  heap->Dealloc2(nullptr, 8);
  EXPECT_EQ(heap->m_FreeLists[8], head);
  heap->Dealloc2(p, 8);
  heap->Minimize();
  EXPECT_EQ(heap->Alloc(8), p);
}

// Catches a refill that divides by a page size of 0 before the page
// allocator was ever initialised.
TEST_F(qorHeapCSO, RefillBeforePageAllocatorIsInitialisedRaises) {
  qorPageAlloc::Uninitialize();
  const unsigned long size = qorPageAlloc::m_PageSize;
  const unsigned long pages = qorPageAlloc::m_PagesToAllocAtOnce;
  qorPageAlloc::m_PageSize = 0;
  qorPageAlloc::m_PagesToAllocAtOnce = 0;
  const std::string text = raisedText([&] { heap->Alloc(16); });
  qorPageAlloc::m_PageSize = size;
  qorPageAlloc::m_PagesToAllocAtOnce = pages;
  EXPECT_TRUE(startsWith(text, "qorPageAlloc not initialised!")) << text;
  EXPECT_EQ(heap->m_FirstRawBlock, nullptr);
  EXPECT_EQ(heap->getTotalBytesAllocated(), 0.0);
  EXPECT_NE(heap->Alloc(16), nullptr);
}

// Catches a heap whose memory goes away with the page allocator's.
TEST_F(qorHeapCSO, KeepsItsMemoryAcrossPageAllocatorShutdown) {
  char* p = static_cast<char*>(heap->Alloc(64));
  std::memset(p, 9, 64);
  qorPageAlloc::Uninitialize();
  EXPECT_EQ(p[63], 9);
  char* q = static_cast<char*>(heap->Alloc(64));
  EXPECT_EQ(q, p + 64);
  heap->Alloc(1000);
  qorPageAlloc::Initialize();
}

// Catches blocks handed out twice or overlapping, against an oracle of live
// blocks filled with a pattern and checked before release.
TEST_F(qorHeapCSO, RandomTrafficNeverOverlaps) {
  ::memtest::checkRandomTraffic(
      6, 1, 40000, [this](unsigned long size) { return heap->Alloc(size); },
      [this](void* p, unsigned long size) { heap->Dealloc2(p, size); },
      [](std::mt19937& random) {
        static const unsigned long kLarge[] = {1000, 4000, 65536};
        return random() % 16 == 0 ? kLarge[random() % 3] : random() % 300;
      },
      [] {});
}

#ifndef QOR_TEST_SANITIZED
// Catches a failed mmap cut into objects or recorded for unmapping.
TEST_F(qorHeapCSO, FailedMappingRaisesAndLeavesHeapUsable) {
  const int status = ::memtest::runWithCappedAddressSpace([this] {
    const std::string text = raisedText([this] { heap->Alloc(65536); });
    if (!startsWith(text, "mmap failed: Cannot allocate memory\n [file qor_heapcso line ")) return 1;
    if (heap->m_FirstRawBlock != nullptr || heap->m_FreeLists[65536] != nullptr) return 2;
    if (heap->getTotalBytesAllocated() != 0.0) return 3;
    if (!heap->m_Mutex.tryLock()) return 4;
    heap->m_Mutex.unlock();
    ::memtest::liftAddressSpaceCap();
    void* p = heap->Alloc(65536);
    if (p == nullptr || heap->m_FirstRawBlock == nullptr) return 5;
    return 0;
  });
  EXPECT_EQ(status, 0);
}
#endif

// Catches a failing munmap in the destructor that goes unnoticed.
TEST_F(qorHeapCSO, FailingMunmapPrintsReportAndExits) {
  auto die = [this] {
    heap->m_FirstRawBlock = new ::qorHeapCSO::RawBlock{reinterpret_cast<void*>(0x2003), heap->m_FirstRawBlock, 8192};
    // A global keeps the heap reachable for the leak checker while the
    // destructor ends the process.
    dying = heap.release();
    delete dying;
  };
  EXPECT_EQ(::memtest::stdoutOfExit(die, 255), "Error in munmap: size = 8192 addr=2003\n");
}

}  // namespace
