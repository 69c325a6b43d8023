// The object allocator: refill arithmetic, size rounding, reuse order, the
// statistics report and its life across page-allocator cycles.
#include <qor/qor_alloc.h>
#include <qor/qor_objectalloc.h>

#include <cstdint>
#include <random>
#include <set>
#include <vector>

#include "memory_test_util.h"

namespace {

using ::memtest::listLength;
using ::memtest::raisedText;
using ::memtest::startsWith;

class qorObjectAlloc : public ::memtest::PageAllocFixture {};

void populate(unsigned long size) {
  qorMutexLocker lock(qorOAMutex);
  qorOAPopulateFreeList(size);
}

unsigned long expectedObjects(unsigned long size) { return qorPageAlloc::ComputeEfficientSize(size, 4096) / size; }

// Catches wrong object counts, byte totals or page counts of a refill.
TEST_F(qorObjectAlloc, RefillCutsPermanentBlockIntoObjects) {
  const bool smallPages = qorPageAlloc::GetPageSize() == 4096;
  struct Case {
    unsigned long size, objects;
  };
  for (Case c : {Case{8, 8192}, Case{16, 4096}, Case{24, 5461}, Case{32, 4096}, Case{100, 4587}}) {
    const double bytes = qorOAGetTotalBytesAllocated();
    const unsigned long pages = qorPageAlloc::GetTotalPages();
    populate(c.size);
    const unsigned long objects = expectedObjects(c.size);
    EXPECT_EQ(listLength(qorOAFreeLists[c.size]), objects) << c.size;
    EXPECT_EQ(qorOAGetTotalBytesAllocated() - bytes, static_cast<double>(c.size * objects)) << c.size;
    EXPECT_EQ(qorPageAlloc::GetTotalPages() - pages,
              qorPageAlloc::ComputeEfficientSize(c.size, 4096) / qorPageAlloc::GetPageSize())
        << c.size;
    if (smallPages) {
      EXPECT_EQ(objects, c.objects) << c.size;
    }
  }
  if (smallPages) {
    const double bytes = qorOAGetTotalBytesAllocated();
    const unsigned long pages = qorPageAlloc::GetTotalPages();
    qorOAFreeLists[32] = nullptr;
    populate(32);
    EXPECT_EQ(qorOAGetTotalBytesAllocated() - bytes, 131072.0);
    EXPECT_EQ(qorPageAlloc::GetTotalPages() - pages, 32UL);
    qorOAFreeLists[24] = nullptr;
    populate(24);
    EXPECT_EQ(qorOAGetTotalBytesAllocated() - bytes, 131072.0 + 131064.0);
  }
}

// Catches objects linked out of order or overlapping; with 100-byte objects
// most links sit at addresses that are not 8-byte aligned (UBSan checks the
// accesses).
TEST_F(qorObjectAlloc, RefillLinksObjectsInAscendingOrder) {
  populate(100);
  char* base = static_cast<char*>(qorOAFreeLists[100]);
  char* object = base;
  unsigned long i = 0;
  while (object != nullptr) {
    ASSERT_EQ(object, base + i * 100) << i;
    void* next;
    std::memcpy(&next, object, sizeof next);
    object = static_cast<char*>(next);
    ++i;
  }
  EXPECT_EQ(i, expectedObjects(100));
}

// Catches a size mapped to different lists on the two sides, or objects
// that are not 8-byte aligned.
TEST_F(qorObjectAlloc, SizesAreRaisedToMultiplesOf8OnBothSides) {
  void* a = qorOAAlloc(1);
  EXPECT_EQ(qorOAFreeLists[1], nullptr);
  EXPECT_NE(qorOAFreeLists[8], nullptr);
  void* b = qorOAAlloc(8);
  EXPECT_EQ(static_cast<char*>(b), static_cast<char*>(a) + 8);
  void* c = qorOAAlloc(100);
  EXPECT_EQ(qorOAFreeLists[100], nullptr);
  EXPECT_NE(qorOAFreeLists[104], nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(c) % 8, 0U);
  qorOADealloc(c, 100);
  EXPECT_EQ(qorOAAlloc(97), c);
  qorOADealloc(a, 3);
  EXPECT_EQ(qorOAAlloc(8), a);
  void* big = qorOAAlloc(65536);
  qorOADealloc(big, 65530);
  EXPECT_EQ(qorOAAlloc(65536), big);
}

// Catches a free list that is not last-in, first-out.
TEST_F(qorObjectAlloc, ReusesFreedObjectFirst) {
  std::vector<void*> objects;
  for (int i = 0; i < 10; ++i) objects.push_back(qorOAAlloc(48));
  for (void* p : objects) qorOADealloc(p, 48);
  for (int i = 9; i >= 0; --i) EXPECT_EQ(qorOAAlloc(48), objects[i]) << i;
}

// Catches objects handed out twice or overlapping, against an oracle of
// live objects filled with a pattern and checked before release.
TEST_F(qorObjectAlloc, RandomTrafficNeverOverlaps) {
  ::memtest::checkRandomTraffic(
      20261123, 1, 40000, [](unsigned long size) { return qorOAAlloc(size); },
      [](void* p, unsigned long size) { qorOADealloc(p, size); },
      [](std::mt19937& random) {
        static const unsigned long kLarge[] = {1000, 1024, 4000};
        return random() % 8 == 0 ? kLarge[random() % 3] : 1 + random() % 200;
      },
      [] {});
}

// Catches an index outside the 65,537 lists, or a silent refill of list 0.
TEST_F(qorObjectAlloc, SizesOutsideTheTableRaise) {
  EXPECT_TRUE(startsWith(raisedText([] { qorOAAlloc(0); }), "Object allocator: object size of 0"));
  EXPECT_TRUE(startsWith(raisedText([] { qorOAAlloc(65537); }), "Object allocator: object size above 65536"));
  EXPECT_TRUE(startsWith(raisedText([] { qorOAAlloc(~0UL); }), "Object allocator: object size above 65536"));
  int object = 0;
  EXPECT_NE(raisedText([&] { qorOADealloc(&object, 0); }), "<no exception>");
  EXPECT_NE(raisedText([&] { qorOADealloc(&object, 70000); }), "<no exception>");
  EXPECT_NE(raisedText([] { qorOAPopulateFreeList(0); }), "<no exception>");
  EXPECT_NE(raisedText([] { qorOAPopulateFreeList(65537); }), "<no exception>");
  EXPECT_EQ(qorOAFreeLists[0], nullptr);
  // The mutex was released on the way out.
  EXPECT_TRUE(qorOAMutex.tryLock());
  qorOAMutex.unlock();
}

// Catches a null object pushed onto a list.
TEST_F(qorObjectAlloc, DeallocOfNullChangesNothing) {
  void* p = qorOAAlloc(16);
  void* head = qorOAFreeLists[16];
  qorOADealloc(nullptr, 16);
  EXPECT_EQ(qorOAFreeLists[16], head);
  qorOADealloc(p, 16);
}

// Catches a refill attempted without a page allocator (a division by a unit
// of 0 or a mapping that nothing would ever release).
TEST_F(qorObjectAlloc, AllocWhenUninitialisedRaisesAndKeepsLock) {
  qorPageAlloc::Uninitialize();
  const double total = qorOAGetTotalBytesAllocated();
  EXPECT_TRUE(startsWith(raisedText([] { qorOAAlloc(16); }), "qorPageAlloc not initialised!"));
  EXPECT_EQ(qorOAFreeLists[16], nullptr);
  EXPECT_EQ(qorOAGetTotalBytesAllocated(), total);
  EXPECT_TRUE(qorOAMutex.tryLock());
  qorOAMutex.unlock();
}

// Catches lists that survive Uninitialize (objects in unmapped memory), or a
// byte total that is reset.
TEST_F(qorObjectAlloc, UninitializeEmptiesListsAndKeepsTotal) {
  qorOAAlloc(16);
  qorOAAlloc(200);
  const double total = qorOAGetTotalBytesAllocated();
  EXPECT_GT(total, 0.0);
  qorPageAlloc::Uninitialize();
  std::vector<std::string> lines;
  qorOAGetFreeListStats(lines);
  EXPECT_EQ(lines.size(), 6U);
  EXPECT_EQ(qorOAGetTotalBytesAllocated(), total);
  qorPageAlloc::Initialize();
  void* p = qorOAAlloc(16);
  std::memset(p, 1, 16);
  EXPECT_EQ(qorOAGetTotalBytesAllocated(), total + static_cast<double>(16 * expectedObjects(16)));
}

// Catches a report with wrong texts, widths, order or totals.
TEST_F(qorObjectAlloc, ReportListsNonEmptyListsInAscendingOrder) {
  std::vector<std::string> lines{"stale"};
  qorOAGetFreeListStats(lines);
  const std::vector<std::string> empty{" Cache Stats:",
                                       "",
                                       " Size        Entries    Bytes",
                                       "----------  ---------  ---------",
                                       "---------- ---------- ----------",
                                       "     Total          0          0"};
  EXPECT_EQ(lines, empty);
  qorOAAlloc(24);
  qorOAAlloc(16);
  qorOAGetFreeListStats(lines);
  ASSERT_EQ(lines.size(), 8U);
  if (qorPageAlloc::GetPageSize() == 4096) {
    EXPECT_EQ(lines[4], "        16       4095      65520");
    EXPECT_EQ(lines[5], "        24       5460     131040");
    EXPECT_EQ(lines[7], "     Total       9555     196560");
  }
  EXPECT_EQ(lines[6], "---------- ---------- ----------");
}

// Catches 64-bit totals where the report keeps 32-bit ones that wrap.
TEST_F(qorObjectAlloc, ReportTotalsWrapAt32Bits) {
  // A list of 65,537 links of size 65,536 claims 4,295,032,832 bytes; only the
  // links are real.
  std::vector<void*> links(65537);
  for (size_t i = 0; i + 1 < links.size(); ++i) links[i] = &links[i + 1];
  links.back() = nullptr;
  qorOAFreeLists[65536] = links.data();
  std::vector<std::string> lines;
  qorOAGetFreeListStats(lines);
  qorOAFreeLists[65536] = nullptr;
  ASSERT_EQ(lines.size(), 7U);
  EXPECT_EQ(lines[4], "     65536      65537 4295032832");
  EXPECT_EQ(lines[6], "     Total      65537      65536");
}

}  // namespace
