// The heap interface and the pass-through heaps.
#include <gtest/gtest.h>
#include <qor/qor_heapcnew.h>
#include <qor/qor_heapcso.h>
#include <qor/qor_heapintf.h>
#include <qor/qor_heaplarge.h>
#include <qor/qor_heapmixed.h>
#include <qor/qor_heapnew.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

namespace {

// The byte offset of a virtual function in its class's table: the Itanium
// ABI stores one plus that offset in a pointer to a virtual member.
template <typename Member>
long slotOffset(Member member) {
  static_assert(sizeof(Member) == 2 * sizeof(long), "Itanium pointer to member");
  long raw[2];
  std::memcpy(raw, &member, sizeof raw);
  return raw[0] - 1;
}

// Catches virtual operations declared in another order: code built against
// one order calls the wrong function through a heap built with another.
TEST(qorHeapIntf, VirtualSlotsFollowTheInterfaceOrder) {
  // Slots 0 and 1 are the two destructor entries.
  EXPECT_EQ(slotOffset(&qorHeapIntf::Alloc), 2 * 8);
  EXPECT_EQ(slotOffset(&qorHeapIntf::Dealloc2), 3 * 8);
  EXPECT_EQ(slotOffset(&qorHeapIntf::Minimize), 4 * 8);
  EXPECT_EQ(slotOffset(&qorHeapCIntf::Dealloc1), 5 * 8);
  EXPECT_TRUE(std::has_virtual_destructor<qorHeapIntf>::value);
  EXPECT_TRUE(std::is_abstract<qorHeapIntf>::value);
  EXPECT_TRUE(std::is_abstract<qorHeapCIntf>::value);
  EXPECT_TRUE((std::is_base_of<qorHeapIntf, qorHeapCSO>::value));
  EXPECT_TRUE((std::is_base_of<qorHeapIntf, qorHeapMixed>::value));
  EXPECT_TRUE((std::is_base_of<qorHeapCIntf, qorHeapCNew>::value));
  EXPECT_FALSE((std::is_base_of<qorHeapCIntf, qorHeapNew>::value));
  EXPECT_EQ(sizeof(qorHeapNew), sizeof(void*));
}

// Catches a pass-through heap that loses or corrupts blocks.
TEST(qorHeapNew, AllocatesWritableBlocksAndIgnoresNull) {
  qorHeapNew heap;
  qorHeapIntf& intf = heap;
  std::vector<void*> blocks;
  for (unsigned long size = 0; size < 300; size += 7) {
    void* p = intf.Alloc(size);
    ASSERT_NE(p, nullptr);
    std::memset(p, 0x33, size);
    blocks.push_back(p);
  }
  unsigned long size = 0;
  for (void* p : blocks) {
    intf.Dealloc2(p, size);
    size += 7;
  }
  intf.Dealloc2(nullptr, 8);
  intf.Minimize();
}

// Catches valloc replaced by an allocator without page alignment.
TEST(qorHeapLarge, BlocksAreAlignedToThePageSize) {
  qorHeapLarge heap;
  const std::uintptr_t page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  for (unsigned long size : {1UL, 100UL, 4096UL, 100000UL}) {
    void* p = heap.Alloc(size);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % page, 0U) << size;
    std::memset(p, 1, size);
    heap.Dealloc2(p, size);
  }
  heap.Dealloc2(nullptr, 10);
  heap.Minimize();
}

// Catches a heap whose two releases do different things.
TEST(qorHeapCNew, ReleasesWithOrWithoutSize) {
  qorHeapCNew heap;
  qorHeapCIntf& intf = heap;
  void* a = intf.Alloc(40);
  void* b = intf.Alloc(40);
  std::memset(a, 1, 40);
  std::memset(b, 2, 40);
  intf.Dealloc1(a);
  intf.Dealloc2(b, 40);
  intf.Dealloc1(nullptr);
  intf.Dealloc2(nullptr, 40);
  intf.Minimize();
}

// Catches a Dealloc2 that calls operator delete directly instead of going
// through Dealloc1.
TEST(qorHeapCNew, Dealloc2ReachesAReplacedDealloc1) {
  struct Counting : qorHeapCNew {
    void Dealloc1(void* p) override {
      seen.push_back(p);
      qorHeapCNew::Dealloc1(p);
    }
    std::vector<void*> seen;
  };
  Counting heap;
  qorHeapIntf& intf = heap;
  void* p = intf.Alloc(16);
  intf.Dealloc2(p, 16);
  ASSERT_EQ(heap.seen.size(), 1U);
  EXPECT_EQ(heap.seen[0], p);
}

}  // namespace
