// What every allocator tells AddressSanitizer: a read after release, or past
// the size asked for into the slack of the block's slot, is reported where it
// happens (death tests, ASan builds only); a second release raises instead of
// putting the block on its free list twice, where two later requests would
// share it (ASan builds and builds with QOR_CHECKED_HEAPS).
#include <qor/qor_alloc.h>
#include <qor/qor_heapcso.h>
#include <qor/qor_heapmixed.h>
#include <qor/qor_objectalloc.h>

#include <functional>
#include <memory>
#include <vector>

#include "memory_test_util.h"

namespace {

struct Allocator {
  const char* name;
  unsigned long size;  // asked for; the slot is larger, except a page's
  std::function<void*()> take;
  std::function<void(void*)> give;
  const char* twice;  // what a second release raises
};

class qorPoisoning : public ::memtest::PageAllocFixture {
 protected:
  void SetUp() override {
    PageAllocFixture::SetUp();
    // Refilled from the heap; its first object is taken at once, so that the
    // rows get cached objects.
    mixed.reset(new qorHeapMixed(cso.get(), cso.get(), 64, 4, false));
    mixed->Alloc(20);
    rows = {
        {"pages", qorPageAlloc::GetPageSize(), [] { return qorPageAlloc::Alloc(); },
         [](void* p) { qorPageAlloc::Dealloc(p); }, "qorPageAlloc::Dealloc: page released twice"},
        {"qorHeapCSO", 20, [this] { return cso->Alloc(20); }, [this](void* p) { cso->Dealloc2(p, 20); },
         "qorHeapCSO::Dealloc2: block released twice"},
        {"qorHeapMixed", 20, [this] { return mixed->Alloc(20); }, [this](void* p) { mixed->Dealloc2(p, 20); },
         "qorHeapMixed::Dealloc2: block released twice"},
        {"object allocator", 20, [] { return qorOAAlloc(20); }, [](void* p) { qorOADealloc(p, 20); },
         "qorOADealloc: object released twice"},
    };
  }
  std::unique_ptr<qorHeapCSO> cso{new qorHeapCSO};
  std::unique_ptr<qorHeapMixed> mixed;
  std::vector<Allocator> rows;
};

volatile char sink;
void readByte(const void* p, unsigned long i) { sink = static_cast<const volatile char*>(p)[i]; }

TEST_F(qorPoisoning, ReadsAfterReleaseAndPastTheRequestAreReported) {
#ifndef QOR_ASAN
  GTEST_SKIP() << "AddressSanitizer builds only";
#endif
  for (const Allocator& a : rows) {
    void* p = a.take();
    readByte(p, a.size - 1);
    EXPECT_DEATH(readByte(p, a.size), "AddressSanitizer: use-after-poison") << a.name;
    a.give(p);
    EXPECT_DEATH(readByte(p, 0), "AddressSanitizer: use-after-poison") << a.name;
  }
}

TEST_F(qorPoisoning, ASecondReleaseRaisesAndLeavesTheListAlone) {
#if !defined(QOR_ASAN) && !defined(QOR_CHECKED_HEAPS)
  GTEST_SKIP() << "AddressSanitizer builds and builds with QOR_CHECKED_HEAPS only";
#endif
  for (const Allocator& a : rows) {
    void* p = a.take();
    void* q = a.take();
    a.give(p);
    EXPECT_TRUE(::memtest::startsWith(::memtest::raisedText([&] { a.give(p); }), a.twice)) << a.name;
    EXPECT_EQ(a.take(), p) << a.name;
    EXPECT_NE(a.take(), p) << a.name;
    a.give(q);
  }
}

}  // namespace
