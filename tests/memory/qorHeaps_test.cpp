// The heaps: the pass-through heaps; qorHeapCSO's size classes, refills,
// reuse order and report; qorHeapMixed's exact calls to its two heaps, checked
// with a recording heap, and an oracle run over a qorHeapCSO.
#include <qor/qor_alloc.h>
#include <qor/qor_heapcnew.h>
#include <qor/qor_heapcso.h>
#include <qor/qor_heapintf.h>
#include <qor/qor_heaplarge.h>
#include <qor/qor_heapmixed.h>
#include <qor/qor_heapnew.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "memory_test_util.h"

namespace {

using ::memtest::expectedObjects;
using ::memtest::listLength;
using ::memtest::raisedText;
using ::memtest::startsWith;
using Calls = std::vector<std::string>;

// A heap that logs every call, into one log shared by both heaps, naming
// blocks by the order in which it handed them out ("#3"); served by malloc.
class RecordingHeap : public qorHeapIntf {
 public:
  RecordingHeap(const char* name, Calls& log) : m_Name(name), m_Log(log) {}
  ~RecordingHeap() override {
    for (auto& block : m_Live) std::free(block.first);
  }
  void* Alloc(unsigned long size) override {
    if (m_FailAllocs) return log("Alloc " + std::to_string(size) + " -> null"), nullptr;
    void* p = std::malloc(size < 8 ? 8 : size);
    std::memset(p, 0xa5, size < 8 ? 8 : size);
    m_Ids.push_back(p);
    m_Live[p] = true;
    log("Alloc " + std::to_string(size) + " -> #" + std::to_string(m_Ids.size()));
    return p;
  }
  void Dealloc2(void* p, unsigned long size) override {
    std::string name = "?";
    for (size_t i = 0; i < m_Ids.size(); ++i)
      if (m_Ids[i] == p) name = "#" + std::to_string(i + 1);
    log("Dealloc2 " + name + " " + std::to_string(size));
    m_Live.erase(p);
    std::free(p);
  }
  void Minimize() override { log("Minimize"); }
  void* block(int id) const { return m_Ids.at(static_cast<size_t>(id - 1)); }
  bool m_FailAllocs = false;

 private:
  void log(const std::string& call) { m_Log.push_back(m_Name + "." + call); }
  std::string m_Name;
  Calls& m_Log;
  std::map<void*, bool> m_Live;
  std::vector<void*> m_Ids;  // every block ever handed out; names survive release
};

struct Mixed {
  Calls log;
  RecordingHeap general{"general", log};
  RecordingHeap small{"small", log};
  std::unique_ptr<qorHeapMixed> heap;
  Mixed(unsigned long maxSmallSize, unsigned long refillCount, bool noFreeOnDestroy = false) {
    heap.reset(new qorHeapMixed(&general, &small, maxSmallSize, refillCount, noFreeOnDestroy));
  }
  Calls take() {
    Calls calls;
    calls.swap(log);
    return calls;
  }
};

// The table comes from the general heap and goes back last, after the cached
// objects; with noFreeOnDestroy nothing goes back.
TEST(qorHeapMixed, TableAndDestruction) {
  const std::string table = std::to_string(17 * sizeof(qorHeapMixed::SmallObjInfo));
  EXPECT_EQ(sizeof(qorHeapMixed::SmallObjInfo), 24U);
  for (bool noFree : {false, true}) {
    Mixed m(16, 2, noFree);
    EXPECT_EQ(m.take(), (Calls{"general.Alloc " + table + " -> #1"}));
    EXPECT_EQ(m.heap->m_SmallObjsBytes, 17 * 24U);
    for (unsigned long k = 0; k <= 16; ++k) EXPECT_FALSE(m.heap->m_SmallObjs[k].inUse);
    m.heap->Alloc(16);
    void* p = m.heap->Alloc(16);
    m.heap->Alloc(16);
    m.heap->Dealloc2(p, 16);
    m.take();
    m.heap.reset();
    const Calls released{"small.Dealloc2 #2 16", "general.Dealloc2 #1 " + table};
    EXPECT_EQ(m.take(), noFree ? Calls() : released);
  }
}

// The first object of a size comes from the general heap and goes back to it
// at once; later ones come from refills of the small heap, handed out last
// first, and stay cached when released. Sizes below 8 use the record of 8;
// sizes above the limit go to the general heap.
TEST(qorHeapMixed, AllocationPaths) {
  Mixed m(48, 3);
  m.take();
  void* first = m.heap->Alloc(24);
  EXPECT_EQ(m.take(), (Calls{"general.Alloc 24 -> #2"}));
  EXPECT_EQ(m.heap->m_SmallObjs[24].firstObject, first);
  void* second = m.heap->Alloc(24);
  EXPECT_EQ(m.take(), (Calls{"small.Alloc 24 -> #1", "small.Alloc 24 -> #2", "small.Alloc 24 -> #3"}));
  EXPECT_EQ(second, m.small.block(3));
  EXPECT_EQ(m.heap->Alloc(24), m.small.block(2));
  EXPECT_EQ(m.heap->Alloc(24), m.small.block(1));
  m.heap->Dealloc2(second, 24);
  m.heap->Dealloc2(nullptr, 24);
  m.heap->Dealloc2(nullptr, 1000);
  EXPECT_EQ(m.heap->Alloc(24), second);
  EXPECT_EQ(m.take(), Calls{});
  m.heap->Dealloc2(first, 24);
  EXPECT_EQ(m.take(), (Calls{"general.Dealloc2 #2 24"}));
  EXPECT_EQ(m.heap->m_SmallObjs[24].firstObject, nullptr);
  EXPECT_TRUE(m.heap->m_SmallObjs[24].inUse);
  m.heap->Alloc(24);
  EXPECT_EQ(m.take().size(), 3U);  // a refill, not the general heap again
  m.heap->Alloc(3);
  m.heap->Alloc(0);
  void* p = m.heap->Alloc(5);
  EXPECT_EQ(m.take(),
            (Calls{"general.Alloc 8 -> #3", "small.Alloc 8 -> #7", "small.Alloc 8 -> #8", "small.Alloc 8 -> #9"}));
  for (unsigned long k = 0; k < 8; ++k) EXPECT_FALSE(m.heap->m_SmallObjs[k].inUse) << k;
  m.heap->Dealloc2(p, 1);
  EXPECT_EQ(m.heap->Alloc(7), p);
  m.heap->Alloc(48);
  void* big = m.heap->Alloc(49);
  m.heap->Dealloc2(big, 49);
  EXPECT_EQ(m.take(), (Calls{"general.Alloc 48 -> #4", "general.Alloc 49 -> #5", "general.Dealloc2 #5 49"}));
}

// Minimize gives back every cached object with its size, last cached first,
// then minimizes the general heap and then the small one.
TEST(qorHeapMixed, MinimizeGivesBackCachedObjectsThenMinimizesBothHeaps) {
  Mixed m(64, 2);
  m.heap->Alloc(24);
  void* a = m.heap->Alloc(24);  // refill #1, #2; hands out #2
  m.heap->Alloc(3);
  void* b = m.heap->Alloc(8);  // refill #3, #4; hands out #4
  m.heap->Dealloc2(a, 24);
  m.heap->Dealloc2(b, 8);
  m.take();
  m.heap->Minimize();
  EXPECT_EQ(m.take(), (Calls{"small.Dealloc2 #4 8", "small.Dealloc2 #3 8", "small.Dealloc2 #2 24",
                             "small.Dealloc2 #1 24", "general.Minimize", "small.Minimize"}));
  m.heap->Minimize();
  EXPECT_EQ(m.take(), (Calls{"general.Minimize", "small.Minimize"}));
}

// Odd settings and failing heaps: a refill count of 0 acts as 1, a limit
// below 8 sends everything to the general heap, a heap that gives no memory
// yields null without corrupting a list, and a table that cannot be had
// raises.
TEST(qorHeapMixed, OddSettingsAndFailingHeaps) {
  Mixed zero(64, 0);
  EXPECT_EQ(zero.heap->m_RefillCount, 1U);
  zero.heap->Alloc(32);
  zero.take();
  void* refilled = zero.heap->Alloc(32);
  EXPECT_EQ(refilled, zero.small.block(1));
  EXPECT_EQ(zero.take(), (Calls{"small.Alloc 32 -> #1"}));
  Mixed tiny(4, 2);
  tiny.take();
  void* p = tiny.heap->Alloc(3);
  tiny.heap->Dealloc2(p, 3);
  tiny.heap->Minimize();
  EXPECT_EQ(tiny.take(),
            (Calls{"general.Alloc 3 -> #2", "general.Dealloc2 #2 3", "general.Minimize", "small.Minimize"}));
  Mixed m(64, 3);
  m.general.m_FailAllocs = true;
  EXPECT_EQ(m.heap->Alloc(16), nullptr);
  EXPECT_FALSE(m.heap->m_SmallObjs[16].inUse);
  m.general.m_FailAllocs = false;
  m.heap->Alloc(16);
  m.small.m_FailAllocs = true;
  EXPECT_EQ(m.heap->Alloc(16), nullptr);
  EXPECT_EQ(m.heap->m_SmallObjs[16].freeList, nullptr);
  m.small.m_FailAllocs = false;
  EXPECT_NE(m.heap->Alloc(16), nullptr);
  m.general.m_FailAllocs = true;
  EXPECT_NE(raisedText([&] { qorHeapMixed heap(&m.general, &m.small, 10, 1, false); }), qortest::kNothingRaised);
  m.general.m_FailAllocs = false;
  EXPECT_NE(raisedText([&] { qorHeapMixed heap(&m.general, &m.small, ~0UL, 1, false); }), qortest::kNothingRaised);
  EXPECT_NE(raisedText([&] { qorHeapMixed heap(&m.general, nullptr, 10, 1, false); }), qortest::kNothingRaised);
}

// The public working steps, called directly with a size the table does not
// cover or with a null, stay inside the table.
TEST(qorHeapMixed, WorkingStepsCalledDirectlyStayInsideTheTable) {
  Mixed m(16, 2);
  m.take();
  m.heap->DeallocSmall(m.heap->AllocSmall(17), 17);
  EXPECT_EQ(m.take(), (Calls{"general.Alloc 17 -> #2", "general.Dealloc2 #2 17"}));
  m.heap->AllocSmall(16);  // the largest small size is a first object, with a record
  EXPECT_TRUE(m.heap->m_SmallObjs[16].inUse);
  m.take();
  m.heap->DeallocSmall(nullptr, 8);
  m.heap->FreeListInsert(&m.heap->m_SmallObjs[8], nullptr);
  EXPECT_EQ(m.heap->m_SmallObjs[8].freeList, nullptr);
  void* p = m.heap->AllocSmall(8);
  int word[2] = {};
  m.heap->FreeListInsert(&m.heap->m_SmallObjs[8], word);
  EXPECT_EQ(m.heap->AllocSmall(8), static_cast<void*>(word));
  m.heap->DeallocSmall(p, 8);
  EXPECT_EQ(m.take(), (Calls{"general.Alloc 8 -> #4", "general.Dealloc2 #4 8"}));
}

class qorHeapMixedOverCSO : public ::memtest::PageAllocFixture {};

// A realistic stack, a mixed heap over qorHeapNew and a qorHeapCSO, never
// hands out a block twice or overlapping (pattern oracle).
TEST_F(qorHeapMixedOverCSO, RandomTrafficNeverOverlaps) {
  qorHeapNew general;
  std::unique_ptr<::qorHeapCSO> small(new ::qorHeapCSO);
  qorHeapMixed heap(&general, small.get(), 256, 64, false);
  ::memtest::checkRandomTraffic(
      42, 3, 20000, [&heap](unsigned long size) { return heap.Alloc(size); },
      [&heap](void* p, unsigned long size) { heap.Dealloc2(p, size); },
      [](std::mt19937& random) { return random() % 8 == 0 ? 257 + random() % 2000 : random() % 257; },
      [&heap] { heap.Minimize(); });
}

// Every pass-through heap hands out writable blocks (qorHeapLarge's aligned
// to the page size), ignores null, and qorHeapCNew's Dealloc2 goes through
// a replaced Dealloc1.
TEST(qorHeapIntf, PassThroughHeaps) {
  struct Counting : qorHeapCNew {
    void Dealloc1(void* p) override {
      seen.push_back(p);
      qorHeapCNew::Dealloc1(p);
    }
    std::vector<void*> seen;
  };
  qorHeapNew plain;
  qorHeapLarge large;
  Counting counting;
  const std::uintptr_t page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  for (qorHeapIntf* heap : std::vector<qorHeapIntf*>{&plain, &large, &counting}) {
    for (unsigned long size : {0UL, 1UL, 100UL, 4096UL, 100000UL}) {
      void* p = heap->Alloc(size);
      if (heap == &large) {
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % page, 0U) << size;
      }
      std::memset(p, 0x33, size);
      heap->Dealloc2(p, size);
    }
    heap->Dealloc2(nullptr, 8);
    heap->Minimize();
  }
  EXPECT_EQ(counting.seen.size(), 6U);
  qorHeapCIntf& intf = counting;
  void* p = intf.Alloc(40);
  intf.Dealloc1(p);
  intf.Dealloc1(nullptr);
  EXPECT_EQ(counting.seen.back(), nullptr);
}

class qorHeapCSO : public ::memtest::PageAllocFixture {
 protected:
  std::unique_ptr<::qorHeapCSO> heap{new ::qorHeapCSO};
};

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
  // Programs compiled against the header read the members at these offsets.
  EXPECT_EQ(reinterpret_cast<char*>(&heap->m_TotalBytesAllocated) - reinterpret_cast<char*>(heap.get()), 8 + 65537 * 8);
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

}  // namespace
