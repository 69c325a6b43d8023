// The heap interface and the pass-through heaps.
#include <gtest/gtest.h>
#include <qor/qor_heapcnew.h>
#include <qor/qor_heapintf.h>
#include <qor/qor_heaplarge.h>
#include <qor/qor_heapnew.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
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

// Code built against one order of the virtual operations calls the wrong
// function through a heap built with another. Slots 0 and 1 are the two
// destructor entries.
TEST(qorHeapIntf, VirtualSlotsFollowTheInterfaceOrder) {
  EXPECT_EQ(slotOffset(&qorHeapIntf::Alloc), 2 * 8);
  EXPECT_EQ(slotOffset(&qorHeapIntf::Dealloc2), 3 * 8);
  EXPECT_EQ(slotOffset(&qorHeapIntf::Minimize), 4 * 8);
  EXPECT_EQ(slotOffset(&qorHeapCIntf::Dealloc1), 5 * 8);
  EXPECT_EQ(sizeof(qorHeapNew), sizeof(void*));
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

}  // namespace
