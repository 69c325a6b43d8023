// The failed-mmap paths of the page allocator, the object allocator and the
// common-size-object heap, driven through the mapping seam's test hook (only
// in builds configured with QOR_TESTING_HOOKS), so that they run under the
// sanitizers too. Catches a record left behind for a failed mapping, a
// mapping leaked when its record could not be kept, a counter advanced by a
// failed refill, and a free list left pointing at nothing.
#include <gtest/gtest.h>
#include <qor/qor_alloc.h>
#include <qor/qor_exception.h>
#include <qor/qor_heapcso.h>
#include <qor/qor_objectalloc.h>

#include <cstring>
#include <functional>
#include <string>

#include "qor_test_support.h"

// The hook: the nth mapping from now fails with ENOMEM.
void qorTestFailMapping(unsigned long nth);

// Runs call with the next mapping failing; returns the message it raised.
static std::string failFirstMapping(const std::function<void()>& call) {
  qorTestFailMapping(1);
  const std::string message = qortest::raisedText(call);
  qorTestFailMapping(0);
  return message;
}

TEST(qorMapFail, EveryAllocatorRaisesAndRecovers) {
  qorPageAlloc::Initialize();
  const unsigned long pages = qorPageAlloc::GetTotalPages();
  struct Row {
    const char* label;
    std::function<void()> call;
    const char* prefix;
  };
  qorHeapCSO heap;
  unsigned long got = 0;
  void* memory = nullptr;
  const Row rows[] = {
      {"page refill", [] { qorPageAlloc::Alloc(); },
       "qorPageAlloc: mmap failed: Cannot allocate memory\n [file qor_alloc"},
      {"permanent block", [&] { qorPageAlloc::PermanentAlloc(64, 10, got, memory); },
       "qorPageAlloc: mmap failed: Cannot allocate memory\n [file qor_alloc"},
      {"object refill", [] { qorOAAlloc(48); }, "qorPageAlloc: mmap failed: Cannot allocate memory\n [file qor_alloc"},
      {"heap refill", [&heap] { heap.Alloc(40); },
       "qorHeapCSO: mmap failed: Cannot allocate memory\n [file qor_heapcso"},
  };
  for (const Row& row : rows) {
    const std::string message = failFirstMapping(row.call);
    EXPECT_EQ(message.rfind(row.prefix, 0), 0u) << row.label << ": " << message;
    EXPECT_EQ(qorPageAlloc::GetTotalPages(), pages) << row.label;
    EXPECT_EQ(qorPageAlloc::m_FirstPermFree, nullptr) << row.label;  // no record of a failed mapping
    EXPECT_EQ(qorPageAlloc::m_FirstFree, nullptr) << row.label;
    EXPECT_EQ(heap.m_FirstRawBlock, nullptr) << row.label;
    EXPECT_EQ(heap.getTotalBytesAllocated(), 0.0) << row.label;
    EXPECT_TRUE(heap.m_Mutex.tryLock() && qorOAMutex.tryLock()) << row.label;
    heap.m_Mutex.unlock();
    qorOAMutex.unlock();
  }
  EXPECT_EQ(memory, nullptr);
  EXPECT_EQ(got, 0UL);
  // Nothing half done: each allocator maps afresh and hands out usable memory.
  void* page = qorPageAlloc::Alloc();
  std::memset(page, 1, qorPageAlloc::GetPageSize());
  qorPageAlloc::Dealloc(page);
  void* object = qorOAAlloc(48);
  std::memset(object, 2, 48);
  qorOADealloc(object, 48);
  void* block = heap.Alloc(40);
  std::memset(block, 3, 40);
  heap.Dealloc2(block, 40);
  EXPECT_GT(qorPageAlloc::GetTotalPages(), pages);
  qorPageAlloc::Uninitialize();
}
