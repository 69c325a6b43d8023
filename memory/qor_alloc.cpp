#include <qor/qor_alloc.h>
#include <qor/qor_assert.h>
#include <qor/qor_mutex.h>
#include <qor/qor_objectalloc.h>
#include <unistd.h>

#include <cstdint>

#include "internal/link.h"
#include "internal/mapping.h"
#include "internal/poison.h"

// Non-recursive; constant-initialised, so it is usable before any dynamic
// initialiser of the library or of an application runs.
QMutex qorPageAlloc::m_Mutex;
unsigned long qorPageAlloc::m_TotalPages = 0;
unsigned long qorPageAlloc::m_PagesToAllocAtOnce = 0;
unsigned long qorPageAlloc::m_PageSize = 0;
qorPageAlloc::PermBlock* qorPageAlloc::m_FirstPermFree = nullptr;
bool qorPageAlloc::m_Initialized = false;
void* qorPageAlloc::m_FirstFree = nullptr;

namespace {

const char kUnit[] = "qor_alloc";

constexpr unsigned long kMinPageSize = 4096;
constexpr unsigned long kMinPagesPerUnit = 8;
constexpr unsigned long kUnitTarget = 65536;
constexpr unsigned long kPoolBytes = 16777216;

#if defined(QOR_CHECKED_HEAPS) && !defined(QOR_ASAN)
// Checked builds mark a released page in its second word (a constant xored
// with the page's address) and look for a released page on the free list
// only when it carries the mark: releasing a page in use then costs no walk
// of thousands of pages. Only the walk raises, so a stray mark costs time,
// never a false report.
struct FreePage {
  void* link;
  std::uintptr_t mark;
};
constexpr std::uintptr_t kFreePageMark = 0x51ed9a6e0f7ee5a5;

std::uintptr_t markOf(void* page) { return kFreePageMark ^ reinterpret_cast<std::uintptr_t>(page); }
void markFree(void* page, bool free) { static_cast<FreePage*>(page)->mark = free ? markOf(page) : std::uintptr_t{}; }
bool maybeFree(void* page) { return static_cast<FreePage*>(page)->mark == markOf(page); }
#else
void markFree(void*, bool) {}
bool maybeFree(void*) { return true; }
#endif

}  // namespace

void qorPageAlloc::Initialize() {
  if (m_Initialized) qorThrow("qorPageAlloc already initialised!", kUnit, __LINE__);
  long system = sysconf(_SC_PAGESIZE);
  if (system <= 0) system = static_cast<long>(kMinPageSize);  // never seen on Linux; keeps the arithmetic sound
  const unsigned long s = static_cast<unsigned long>(system);
  m_PageSize = s;
  m_PagesToAllocAtOnce = kUnitTarget / s;
  if (s < kMinPageSize) m_PageSize = kMinPageSize;
  if (m_PagesToAllocAtOnce < kMinPagesPerUnit) m_PagesToAllocAtOnce = kMinPagesPerUnit;
  m_Initialized = true;
}

void qorPageAlloc::Uninitialize() {
  if (!m_Initialized) qorThrow("qorPageAlloc not initialised!", kUnit, __LINE__);
  qor_internal::unmapAll(m_FirstPermFree);
  m_FirstFree = nullptr;
  for (void*& head : qorOAFreeLists) head = nullptr;
  m_Initialized = false;
}

unsigned long qorPageAlloc::GetPageSize() { return m_PageSize; }

unsigned long qorPageAlloc::GetTotalPages() {
  qorMutexLocker lock(m_Mutex);
  return m_TotalPages;
}

unsigned long qorPageAlloc::GetFreePages() {
  qorMutexLocker lock(m_Mutex);
  unsigned long count = 0;
  for (void* page = m_FirstFree; page != nullptr; page = qor_internal::readLink(page)) ++count;
  return count;
}

void* qorPageAlloc::Alloc() {
  qorMutexLocker lock(m_Mutex);
  if (!m_Initialized) qorThrow("qorPageAlloc not initialised!", kUnit, __LINE__);
  if (m_FirstFree == nullptr) PopulateFreeList();
  void* page = m_FirstFree;
  m_FirstFree = qor_internal::readLink(page);
  qor_internal::unpoison(page, m_PageSize);
  markFree(page, false);
  return page;
}

void qorPageAlloc::Dealloc(void* page) {
  if (page == nullptr) return;
  qorMutexLocker lock(m_Mutex);
  if (maybeFree(page) && qor_internal::alreadyFree(m_FirstFree, page)) {
    qorThrow("qorPageAlloc::Dealloc: page released twice", kUnit, __LINE__);
  }
  qor_internal::writeLink(page, m_FirstFree);
  markFree(page, true);
  qor_internal::poison(page, m_PageSize);
  m_FirstFree = page;
}

unsigned long qorPageAlloc::GetPermanentAllocMinimum() { return m_PageSize * m_PagesToAllocAtOnce; }

unsigned long qorPageAlloc::ComputeEfficientSize(unsigned long objectSize, unsigned long objectCount) {
  const unsigned long unit = GetPermanentAllocMinimum();
  if (unit == 0) qorThrow("qorPageAlloc not initialised!", kUnit, __LINE__);
  unsigned long bytes;
  if (__builtin_mul_overflow(objectSize, objectCount, &bytes) || bytes > ~0UL - (unit - 1)) {
    qorThrow("qorPageAlloc::ComputeEfficientSize: object size times count overflows", kUnit, __LINE__);
  }
  return ((bytes + unit - 1) / unit) * unit;
}

void qorPageAlloc::PermanentAlloc(unsigned long objectSize, unsigned long objectCount, unsigned long& objectsObtained,
                                  void*& memory) {
  if (objectSize == 0) qorThrow("qorPageAlloc::PermanentAlloc: object size of 0", kUnit, __LINE__);
  if (objectCount == 0) qorThrow("qorPageAlloc::PermanentAlloc: 0 objects requested", kUnit, __LINE__);
  qorMutexLocker lock(m_Mutex);
  if (!m_Initialized) qorThrow("qorPageAlloc not initialised!", kUnit, __LINE__);
  const unsigned long bytes = ComputeEfficientSize(objectSize, objectCount);
  memory = AllocRawPages(bytes / m_PageSize);
  objectsObtained = bytes / objectSize;
}

void* qorPageAlloc::AllocRawPages(unsigned long pages) {
  if (m_PageSize == 0) qorThrow("qorPageAlloc not initialised!", kUnit, __LINE__);
  unsigned long length;
  if (pages == 0 || __builtin_mul_overflow(pages, m_PageSize, &length)) {
    qorThrow("qorPageAlloc::AllocRawPages: page count is 0 or too large", kUnit, __LINE__);
  }
  void* address = qor_internal::mapAndRecord(m_FirstPermFree, length, "qorPageAlloc", kUnit, __LINE__);
  m_TotalPages += pages;
  return address;
}

void qorPageAlloc::PopulateFreeList() {
  const unsigned long unit = m_PageSize * m_PagesToAllocAtOnce;
  if (unit == 0) qorThrow("qorPageAlloc not initialised!", kUnit, __LINE__);
  unsigned long k = kPoolBytes / unit;
  if (k == 0) k = 1;
  const unsigned long n = m_PagesToAllocAtOnce * k;
  char* base = static_cast<char*>(AllocRawPages(n));
  m_FirstFree = qor_internal::linkBlocks(base, m_PageSize, n);
  qor_internal::poison(base, n * m_PageSize);
}
