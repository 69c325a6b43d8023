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

// 0 to 8 bytes share the 8-byte class and 9 takes 16; a refill holds at
// least 4,096 objects in ascending order and counts the bytes cut.
TEST_F(qorHeapCSO, SizeClassesAndRefills) {
  char* a = static_cast<char*>(heap->Alloc(1));
  for (unsigned long size = 2; size <= 8; ++size) EXPECT_EQ(static_cast<char*>(heap->Alloc(size)), a + 8 * (size - 1));
  EXPECT_EQ(static_cast<char*>(heap->Alloc(0)), a + 64);
  char* b = static_cast<char*>(heap->Alloc(9));
  EXPECT_EQ(static_cast<char*>(heap->Alloc(16)), b + 16);
  for (unsigned long i = 0; i <= 65536; ++i) {
    if (i % 8 != 0) {
      ASSERT_EQ(heap->m_FreeLists[i], nullptr) << i;
    }
  }
  double total = static_cast<double>(8 * expectedObjects(8) + 16 * expectedObjects(16));
  EXPECT_EQ(heap->getTotalBytesAllocated(), total);
  for (unsigned long c : {24UL, 104UL, 4096UL, 65536UL}) {
    char* base = static_cast<char*>(heap->Alloc(c));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(base) % qorPageAlloc::GetPageSize(), 0U);
    EXPECT_EQ(listLength(heap->m_FreeLists[c]) + 1, expectedObjects(c)) << c;
    EXPECT_GE(expectedObjects(c), 4096UL);
    EXPECT_EQ(heap->m_FirstRawBlock->length, qorPageAlloc::ComputeEfficientSize(c, 4096)) << c;
    total += static_cast<double>(c * expectedObjects(c));
    EXPECT_EQ(heap->getTotalBytesAllocated(), total) << c;
    for (unsigned long i = 1; i < 200; ++i) {
      char* p = static_cast<char*>(heap->Alloc(c));
      ASSERT_EQ(p, base + i * c) << c << " " << i;
      std::memset(p, 0x77, c);
    }
  }
  void* x = heap->Alloc(40);
  void* y = heap->Alloc(33);
  heap->Dealloc2(x, 40);
  heap->Dealloc2(y, 33);
  heap->Dealloc2(nullptr, 40);
  heap->Minimize();
  EXPECT_EQ(heap->Alloc(35), y);
  EXPECT_EQ(heap->Alloc(40), x);
}

// The report keeps 32-bit totals, which wrap: a list of 65,537 links of size
// 65,536 claims 4,295,032,832 bytes (only the links are real).
TEST_F(qorHeapCSO, ReportShowsNonEmptyListsAndWrapsAt32Bits) {
  std::vector<std::string> lines{"stale"};
  heap->getFreeListStats(lines);
  EXPECT_EQ(lines, ::memtest::expectedReport(" Heap Cache Stats:", {}));
  heap->Alloc(16);
  heap->Alloc(8);
  heap->getFreeListStats(lines);
  EXPECT_EQ(lines, ::memtest::expectedReport(" Heap Cache Stats:",
                                             {{8, expectedObjects(8) - 1}, {16, expectedObjects(16) - 1}}));
  std::vector<void*> links(65537);
  for (size_t i = 0; i + 1 < links.size(); ++i) links[i] = &links[i + 1];
  links.back() = nullptr;
  std::unique_ptr<::qorHeapCSO> fresh(new ::qorHeapCSO);
  fresh->m_FreeLists[65536] = links.data();
  fresh->getFreeListStats(lines);
  fresh->m_FreeLists[65536] = nullptr;
  ASSERT_EQ(lines.size(), 7U);
  EXPECT_EQ(lines[4], "     65536      65537 4295032832");
  EXPECT_EQ(lines[6], "     Total      65537      65536");
}

TEST_F(qorHeapCSO, BadSizesRaiseAndChangeNothing) {
  int object = 0;
  unsigned long obtained = 0;
  void* memory = nullptr;
  const struct {
    std::function<void()> call;
    const char* prefix;
  } rows[] = {
      {[&] { heap->Alloc(65537); }, "qorHeapCSO: object size above 65536"},
      {[&] { heap->Alloc(~0UL); }, "qorHeapCSO: object size above 65536"},
      {[&] { heap->Dealloc2(&object, 65537); }, "qorHeapCSO: object size above 65536"},
      {[&] { heap->populateFreeList(12); }, "qorHeapCSO: size class must be a multiple of 8"},
      {[&] { heap->populateFreeList(0); }, "qorHeapCSO: size class must be a multiple of 8"},
      {[&] { heap->PermanentAlloc(0, 10, obtained, memory); }, "qorHeapCSO: permanent allocation with an object"},
      {[&] { heap->PermanentAlloc(8, 0, obtained, memory); }, "qorHeapCSO: permanent allocation of 0 objects"},
  };
  for (const auto& row : rows) {
    EXPECT_TRUE(startsWith(raisedText(row.call), row.prefix)) << row.prefix;
    EXPECT_TRUE(heap->m_Mutex.tryLock()) << row.prefix;
    heap->m_Mutex.unlock();
  }
  EXPECT_EQ(heap->m_FirstRawBlock, nullptr);
  heap->Dealloc2(heap->Alloc(65536), 65536);
}

// The heap keeps its memory when the page allocator shuts down; with a page
// size of 0 (never initialised) a refill raises instead of dividing by it.
TEST_F(qorHeapCSO, LifeAroundThePageAllocator) {
  char* p = static_cast<char*>(heap->Alloc(64));
  std::memset(p, 9, 64);
  qorPageAlloc::Uninitialize();
  EXPECT_EQ(p[63], 9);
  EXPECT_EQ(static_cast<char*>(heap->Alloc(64)), p + 64);
  const double total = heap->getTotalBytesAllocated();
  const unsigned long size = qorPageAlloc::m_PageSize;
  qorPageAlloc::m_PageSize = 0;
  const std::string text = raisedText([&] { heap->Alloc(16); });
  qorPageAlloc::m_PageSize = size;
  EXPECT_TRUE(startsWith(text, "qorPageAlloc not initialised!")) << text;
  EXPECT_EQ(heap->m_FreeLists[16], nullptr);
  EXPECT_EQ(heap->getTotalBytesAllocated(), total);
  qorPageAlloc::Initialize();
  ::memtest::checkRandomTraffic(
      6, 1, 40000, [this](unsigned long size) { return heap->Alloc(size); },
      [this](void* p, unsigned long size) { heap->Dealloc2(p, size); },
      [](std::mt19937& random) {
        static const unsigned long kLarge[] = {1000, 4000, 65536};
        return random() % 16 == 0 ? kLarge[random() % 3] : random() % 300;
      },
      [] {});
}

TEST_F(qorHeapCSO, FailingMunmapPrintsReportAndExits) {
  auto die = [this] {
    heap->m_FirstRawBlock = new ::qorHeapCSO::RawBlock{reinterpret_cast<void*>(0x2003), heap->m_FirstRawBlock, 8192};
    dying = heap.release();  // reachable for the leak checker while the destructor ends the process
    delete dying;
  };
  EXPECT_EQ(::memtest::stdoutOfExit(die, 255), "Error in munmap: size = 8192 addr=2003\n");
}

}  // namespace
