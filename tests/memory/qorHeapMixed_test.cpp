// qorHeapMixed: the exact calls it makes to its two heaps, checked with a
// recording heap, and an oracle run over a qorHeapCSO.
#include <qor/qor_alloc.h>
#include <qor/qor_heapcso.h>
#include <qor/qor_heapmixed.h>
#include <qor/qor_heapnew.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "memory_test_util.h"

namespace {

using ::memtest::raisedText;
using ::memtest::startsWith;

// A heap that logs every call as text, naming blocks by the order in which
// it handed them out ("#3"), and serves them from malloc.
class RecordingHeap : public qorHeapIntf {
 public:
  explicit RecordingHeap(const char* name) : m_Name(name) {}
  ~RecordingHeap() override {
    for (auto& block : m_Live) std::free(block.first);
  }
  void* Alloc(unsigned long size) override {
    if (m_FailAllocs) {
      log("Alloc " + std::to_string(size) + " -> null");
      return nullptr;
    }
    void* p = std::malloc(size < 8 ? 8 : size);
    std::memset(p, 0xa5, size < 8 ? 8 : size);
    const int id = ++m_Count;
    m_Live[p] = id;
    m_Ids[p] = id;
    log("Alloc " + std::to_string(size) + " -> #" + std::to_string(id));
    return p;
  }
  void Dealloc2(void* p, unsigned long size) override {
    log("Dealloc2 " + name(p) + " " + std::to_string(size));
    m_Live.erase(p);
    std::free(p);
  }
  void Minimize() override { log("Minimize"); }

  std::string name(void* p) const {
    auto found = m_Ids.find(p);
    return found == m_Ids.end() ? "?" : "#" + std::to_string(found->second);
  }
  void* block(int id) const {
    for (auto& entry : m_Ids)
      if (entry.second == id) return entry.first;
    return nullptr;
  }
  std::vector<std::string> take() {
    std::vector<std::string> calls;
    calls.swap(m_Calls);
    return calls;
  }
  std::vector<std::string>* m_Shared = nullptr;  // one log for both heaps, when set
  bool m_FailAllocs = false;

 private:
  void log(const std::string& call) {
    const std::string text = m_Name + "." + call;
    m_Calls.push_back(text);
    if (m_Shared != nullptr) m_Shared->push_back(text);
  }
  std::string m_Name;
  std::vector<std::string> m_Calls;
  std::map<void*, int> m_Live;
  std::map<void*, int> m_Ids;  // every block ever handed out; names survive release
  int m_Count = 0;
};

using Calls = std::vector<std::string>;

struct Mixed {
  RecordingHeap general{"general"};
  RecordingHeap small{"small"};
  std::unique_ptr<qorHeapMixed> heap;
  Mixed(unsigned long maxSmallSize, unsigned long refillCount, bool noFreeOnDestroy = false) {
    heap.reset(new qorHeapMixed(&general, &small, maxSmallSize, refillCount, noFreeOnDestroy));
    general.take();
  }
};

void* firstWord(void* p) {
  void* word;
  std::memcpy(&word, p, sizeof word);
  return word;
}

// Catches a table of the wrong size or from the wrong heap.
TEST(qorHeapMixed, TakesItsTableFromTheGeneralHeap) {
  RecordingHeap general("general");
  RecordingHeap small("small");
  {
    qorHeapMixed heap(&general, &small, 100, 4, false);
    EXPECT_EQ(general.take(),
              (Calls{"general.Alloc " + std::to_string(101 * sizeof(qorHeapMixed::SmallObjInfo)) + " -> #1"}));
    EXPECT_EQ(heap.m_SmallObjsBytes, 101 * sizeof(qorHeapMixed::SmallObjInfo));
    EXPECT_EQ(sizeof(qorHeapMixed::SmallObjInfo), 24U);
    EXPECT_EQ(heap.m_RefillCount, 4U);
    EXPECT_EQ(heap.m_MaxSmallSize, 100U);
    for (unsigned long k = 0; k <= 100; ++k) {
      EXPECT_EQ(heap.m_SmallObjs[k].freeList, nullptr);
      EXPECT_EQ(heap.m_SmallObjs[k].firstObject, nullptr);
      EXPECT_FALSE(heap.m_SmallObjs[k].inUse);
    }
  }
  EXPECT_EQ(general.take(), (Calls{"general.Dealloc2 #1 " + std::to_string(101 * 24)}));
  EXPECT_TRUE(small.take().empty());
}

// Catches a first object taken from the small heap, or a second request
// that does not refill, or hands out the wrong object of the refill.
TEST(qorHeapMixed, FirstObjectFromGeneralHeapThenRefillsFromSmallHeap) {
  Mixed m(64, 3);
  void* first = m.heap->Alloc(24);
  EXPECT_EQ(m.general.take(), (Calls{"general.Alloc 24 -> #2"}));
  EXPECT_TRUE(m.small.take().empty());
  EXPECT_TRUE(m.heap->m_SmallObjs[24].inUse);
  EXPECT_EQ(m.heap->m_SmallObjs[24].firstObject, first);
  void* second = m.heap->Alloc(24);
  EXPECT_EQ(m.small.take(), (Calls{"small.Alloc 24 -> #1", "small.Alloc 24 -> #2", "small.Alloc 24 -> #3"}));
  EXPECT_EQ(second, m.small.block(3));
  EXPECT_EQ(firstWord(second), nullptr);
  EXPECT_EQ(m.heap->Alloc(24), m.small.block(2));
  EXPECT_EQ(m.heap->Alloc(24), m.small.block(1));
  EXPECT_TRUE(m.small.take().empty());
  m.heap->Alloc(24);
  EXPECT_EQ(m.small.take().size(), 3U);
  EXPECT_TRUE(m.general.take().empty());
}

// Catches sizes below 8 given their own record or passed on unrounded.
TEST(qorHeapMixed, SizesBelow8UseTheRecordOf8) {
  Mixed m(32, 2);
  m.heap->Alloc(3);
  EXPECT_EQ(m.general.take(), (Calls{"general.Alloc 8 -> #2"}));
  m.heap->Alloc(8);
  EXPECT_EQ(m.small.take(), (Calls{"small.Alloc 8 -> #1", "small.Alloc 8 -> #2"}));
  m.heap->Alloc(0);
  EXPECT_TRUE(m.small.take().empty());
  for (unsigned long k = 0; k < 8; ++k) EXPECT_FALSE(m.heap->m_SmallObjs[k].inUse) << k;
  void* p = m.heap->Alloc(5);
  EXPECT_EQ(m.small.take(), (Calls{"small.Alloc 8 -> #3", "small.Alloc 8 -> #4"}));
  m.heap->Dealloc2(p, 1);
  EXPECT_EQ(m.heap->Alloc(7), p);
}

// Catches a first object cached instead of going back to the general heap,
// or a size that returns to "never requested" afterwards.
TEST(qorHeapMixed, FirstObjectGoesBackToGeneralHeapAtOnce) {
  Mixed m(64, 2);
  void* first = m.heap->Alloc(16);
  m.general.take();
  m.heap->Dealloc2(first, 16);
  EXPECT_EQ(m.general.take(), (Calls{"general.Dealloc2 #2 16"}));
  EXPECT_EQ(m.heap->m_SmallObjs[16].firstObject, nullptr);
  EXPECT_TRUE(m.heap->m_SmallObjs[16].inUse);
  m.heap->Alloc(16);
  EXPECT_TRUE(m.general.take().empty());
  EXPECT_EQ(m.small.take(), (Calls{"small.Alloc 16 -> #1", "small.Alloc 16 -> #2"}));
}

// Catches a cached release that calls a heap, or is not reused first.
TEST(qorHeapMixed, OtherSmallObjectsStayCached) {
  Mixed m(64, 4);
  m.heap->Alloc(40);
  void* a = m.heap->Alloc(40);
  void* b = m.heap->Alloc(40);
  m.general.take();
  m.small.take();
  m.heap->Dealloc2(a, 40);
  m.heap->Dealloc2(b, 40);
  EXPECT_TRUE(m.general.take().empty());
  EXPECT_TRUE(m.small.take().empty());
  EXPECT_EQ(m.heap->Alloc(40), b);
  EXPECT_EQ(m.heap->Alloc(40), a);
}

// Catches an off-by-one at the small-size threshold.
TEST(qorHeapMixed, MaxSmallSizeIsSmallAndOneMoreIsNot) {
  Mixed m(48, 2);
  m.heap->Alloc(48);
  EXPECT_EQ(m.general.take(), (Calls{"general.Alloc 48 -> #2"}));
  void* big = m.heap->Alloc(49);
  void* big2 = m.heap->Alloc(49);
  EXPECT_EQ(m.general.take(), (Calls{"general.Alloc 49 -> #3", "general.Alloc 49 -> #4"}));
  m.heap->Dealloc2(big, 49);
  m.heap->Dealloc2(big2, 49);
  EXPECT_EQ(m.general.take(), (Calls{"general.Dealloc2 #3 49", "general.Dealloc2 #4 49"}));
  EXPECT_TRUE(m.small.take().empty());
}

// Catches a refill count of 0 that refills nothing (and hands out garbage).
TEST(qorHeapMixed, RefillCountOfZeroBehavesAsOne) {
  Mixed m(64, 0);
  EXPECT_EQ(m.heap->m_RefillCount, 1U);
  m.heap->Alloc(32);
  void* p = m.heap->Alloc(32);
  EXPECT_EQ(m.small.take(), (Calls{"small.Alloc 32 -> #1"}));
  EXPECT_EQ(p, m.small.block(1));
}

// Catches a null release that reaches a heap or a list.
TEST(qorHeapMixed, DeallocOfNullCallsNothing) {
  Mixed m(64, 2);
  m.heap->Dealloc2(nullptr, 8);
  m.heap->Dealloc2(nullptr, 1000);
  EXPECT_TRUE(m.general.take().empty());
  EXPECT_TRUE(m.small.take().empty());
  EXPECT_EQ(m.heap->m_SmallObjs[8].freeList, nullptr);
}

// Catches cached objects given back with the wrong size or in the wrong
// order, or the two Minimize calls swapped.
TEST(qorHeapMixed, MinimizeGivesBackCachedObjectsThenMinimizesBothHeaps) {
  Mixed m(64, 2);
  Calls all;
  m.general.m_Shared = &all;
  m.small.m_Shared = &all;
  m.heap->Alloc(24);
  void* a = m.heap->Alloc(24);  // refill #1, #2; hands out #2
  m.heap->Alloc(3);
  void* b = m.heap->Alloc(8);  // refill #3, #4; hands out #4
  m.heap->Dealloc2(a, 24);
  m.heap->Dealloc2(b, 8);
  all.clear();
  m.heap->Minimize();
  EXPECT_EQ(all, (Calls{"small.Dealloc2 #4 8", "small.Dealloc2 #3 8", "small.Dealloc2 #2 24", "small.Dealloc2 #1 24",
                        "general.Minimize", "small.Minimize"}));
  all.clear();
  m.heap->Minimize();
  EXPECT_EQ(all, (Calls{"general.Minimize", "small.Minimize"}));
  m.general.m_Shared = nullptr;
  m.small.m_Shared = nullptr;
}

// Catches a destructor that gives back the table before the cached objects,
// or touches objects the caller still holds.
TEST(qorHeapMixed, DestructorGivesBackCachedObjectsThenTable) {
  RecordingHeap general("general");
  RecordingHeap small("small");
  Calls all;
  general.m_Shared = &all;
  small.m_Shared = &all;
  {
    qorHeapMixed heap(&general, &small, 16, 2, false);
    heap.Alloc(16);
    void* p = heap.Alloc(16);
    heap.Alloc(16);
    heap.Dealloc2(p, 16);
    all.clear();
  }
  EXPECT_EQ(all, (Calls{"small.Dealloc2 #2 16", "general.Dealloc2 #1 " + std::to_string(17 * 24)}));
}

// Catches a destructor that gives anything back despite noFreeOnDestroy.
TEST(qorHeapMixed, NoFreeOnDestroyMakesNoCalls) {
  RecordingHeap general("general");
  RecordingHeap small("small");
  {
    qorHeapMixed heap(&general, &small, 16, 2, true);
    heap.Alloc(16);
    void* p = heap.Alloc(16);
    heap.Dealloc2(p, 16);
    general.take();
    small.take();
  }
  EXPECT_TRUE(general.take().empty());
  EXPECT_TRUE(small.take().empty());
}

// Catches a table indexed past its end when maxSmallSize is below 8.
TEST(qorHeapMixed, MaxSmallSizeBelow8PassesEverythingToTheGeneralHeap) {
  Mixed m(4, 2);
  void* p = m.heap->Alloc(3);
  void* q = m.heap->Alloc(3);
  void* r = m.heap->Alloc(0);
  m.heap->Dealloc2(p, 3);
  m.heap->Dealloc2(q, 3);
  m.heap->Dealloc2(r, 0);
  EXPECT_EQ(m.general.take(), (Calls{"general.Alloc 3 -> #2", "general.Alloc 3 -> #3", "general.Alloc 0 -> #4",
                                     "general.Dealloc2 #2 3", "general.Dealloc2 #3 3", "general.Dealloc2 #4 0"}));
  EXPECT_TRUE(m.small.take().empty());
  m.heap->Minimize();
  EXPECT_EQ(m.general.take(), (Calls{"general.Minimize"}));
}

// Catches a null from the small heap pushed onto a list (a crash on the
// next request) or a first object recorded as null.
TEST(qorHeapMixed, HeapsThatGiveNoMemoryYieldNull) {
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
  RecordingHeap general("general");
  general.m_FailAllocs = true;
  EXPECT_NE(raisedText([&] { qorHeapMixed heap(&general, &m.small, 10, 1, false); }), "<no exception>");
  EXPECT_NE(raisedText([&] { qorHeapMixed heap(&m.general, &m.small, ~0UL, 1, false); }), "<no exception>");
}

// Catches the public working steps indexing past the table when called
// directly with a size the table does not cover, or pushing a null.
TEST(qorHeapMixed, WorkingStepsCalledDirectlyStayInsideTheTable) {
  Mixed m(16, 2);
  void* big = m.heap->AllocSmall(17);
  EXPECT_EQ(m.general.take(), (Calls{"general.Alloc 17 -> #2"}));
  m.heap->DeallocSmall(big, 17);
  EXPECT_EQ(m.general.take(), (Calls{"general.Dealloc2 #2 17"}));
  m.heap->DeallocSmall(nullptr, 8);
  m.heap->FreeListInsert(&m.heap->m_SmallObjs[8], nullptr);
  EXPECT_EQ(m.heap->m_SmallObjs[8].freeList, nullptr);
  void* p = m.heap->AllocSmall(8);
  EXPECT_EQ(m.general.take(), (Calls{"general.Alloc 8 -> #3"}));
  int word[2] = {};
  m.heap->FreeListInsert(&m.heap->m_SmallObjs[8], word);
  EXPECT_EQ(m.heap->AllocSmall(8), static_cast<void*>(word));
  m.heap->DeallocSmall(p, 8);
  EXPECT_EQ(m.general.take(), (Calls{"general.Dealloc2 #3 8"}));
  EXPECT_TRUE(m.small.take().empty());
}

class qorHeapMixedOverCSO : public ::memtest::PageAllocFixture {};

// Catches blocks handed out twice or overlapping in a realistic stack: a
// mixed heap over qorHeapNew and a qorHeapCSO, against a pattern oracle.
TEST_F(qorHeapMixedOverCSO, RandomTrafficNeverOverlaps) {
  qorHeapNew general;
  std::unique_ptr<qorHeapCSO> small(new qorHeapCSO);
  qorHeapMixed heap(&general, small.get(), 256, 64, false);
  ::memtest::checkRandomTraffic(
      42, 3, 20000, [&heap](unsigned long size) { return heap.Alloc(size); },
      [&heap](void* p, unsigned long size) { heap.Dealloc2(p, size); },
      [](std::mt19937& random) { return random() % 8 == 0 ? 257 + random() % 2000 : random() % 257; },
      [&heap] { heap.Minimize(); });
}

}  // namespace
