#include <qor/qor_alloc.h>
#include <qor/qor_assert.h>
#include <qor/qor_heapcso.h>
#include <qor/qor_mutex.h>

#include "internal/freelist_stats.h"
#include "internal/link.h"
#include "internal/mapping.h"
#include "internal/poison.h"

namespace {

const char kUnit[] = "qor_heapcso";

constexpr unsigned long kMaxClass = 65536;
constexpr unsigned long kObjectsPerRefill = 4096;

// The class of a request: size raised to a multiple of 8, and 8 for 0.
// Sizes above the largest class raise. The one compare covers both ends:
// the largest class is a power of two.
inline unsigned long sizeClass(unsigned long size) {
  if (__builtin_expect(size > kMaxClass, 0)) {
    qorThrow("qorHeapCSO: object size above 65536", kUnit, __LINE__);
  }
  const unsigned long c = (size + 7) & ~7UL;
  return c == 0 ? 8 : c;
}

}  // namespace

qorHeapCSO::qorHeapCSO() : m_FreeLists(), m_TotalBytesAllocated(0.0), m_FirstRawBlock(nullptr), m_Mutex() {}

qorHeapCSO::~qorHeapCSO() {
  qorMutexLocker lock(m_Mutex);
  qor_internal::unmapAll(m_FirstRawBlock);
  m_TotalBytesAllocated = 0.0;
  for (void*& head : m_FreeLists) head = nullptr;
}

void* qorHeapCSO::Alloc(unsigned long size) {
  const unsigned long c = sizeClass(size);
  qorMutexLocker lock(m_Mutex);
  void* object = m_FreeLists[c];
  if (__builtin_expect(object == nullptr, 0)) {
    populateFreeList(c);
    object = m_FreeLists[c];
  }
  m_FreeLists[c] = qor_internal::readLink(object);
  qor_internal::handOut(object, size, c);
  return object;
}

void qorHeapCSO::Dealloc2(void* p, unsigned long size) {
  const unsigned long c = sizeClass(size);
  if (p == nullptr) return;
  qorMutexLocker lock(m_Mutex);
  if (qor_internal::alreadyFree(m_FreeLists[c], p)) {
    qorThrow("qorHeapCSO::Dealloc2: block released twice", kUnit, __LINE__);
  }
  qor_internal::writeLink(p, m_FreeLists[c]);
  qor_internal::poison(p, c);
  m_FreeLists[c] = p;
}

double qorHeapCSO::getTotalBytesAllocated() {
  qorMutexLocker lock(m_Mutex);
  return m_TotalBytesAllocated;
}

void qorHeapCSO::getFreeListStats(std::vector<std::string>& lines) {
  std::vector<qor_internal::FreeListCount> counts;
  {
    qorMutexLocker lock(m_Mutex);
    counts = qor_internal::countFreeLists(m_FreeLists, kMaxClass + 1);
  }
  qor_internal::formatFreeListStats(" Heap Cache Stats:", counts, lines);
}

void qorHeapCSO::populateFreeList(unsigned long c) {
  if (c == 0 || c > kMaxClass || c % 8 != 0) {
    qorThrow("qorHeapCSO: size class must be a multiple of 8 from 8 to 65536", kUnit, __LINE__);
  }
  unsigned long count = 0;
  void* base = nullptr;
  PermanentAlloc(c, kObjectsPerRefill, count, base);
  m_TotalBytesAllocated += static_cast<double>(c * count);
  m_FreeLists[c] = qor_internal::linkBlocks(static_cast<char*>(base), c, count);
  // The whole mapping: the bytes after the last object belong to no one.
  qor_internal::poison(base, m_FirstRawBlock->length);
}

void qorHeapCSO::PermanentAlloc(unsigned long objectSize, unsigned long objectCount, unsigned long& objectsObtained,
                                void*& memory) {
  if (objectSize == 0) qorThrow("qorHeapCSO: permanent allocation with an object size of 0", kUnit, __LINE__);
  if (objectCount == 0) qorThrow("qorHeapCSO: permanent allocation of 0 objects", kUnit, __LINE__);
  const unsigned long bytes = ComputeEfficientSize(objectSize, objectCount);
  memory = AllocRawPages(bytes / qorPageAlloc::GetPageSize());
  objectsObtained = bytes / objectSize;
}

unsigned long qorHeapCSO::ComputeEfficientSize(unsigned long objectSize, unsigned long objectCount) {
  return qorPageAlloc::ComputeEfficientSize(objectSize, objectCount);
}

void* qorHeapCSO::AllocRawPages(unsigned long pages) {
  const unsigned long pageSize = qorPageAlloc::GetPageSize();
  if (pageSize == 0) qorThrow("qorPageAlloc not initialised!", kUnit, __LINE__);
  unsigned long length;
  if (pages == 0 || __builtin_mul_overflow(pages, pageSize, &length)) {
    qorThrow("qorHeapCSO: page count is 0 or too large", kUnit, __LINE__);
  }
  return qor_internal::mapAndRecord(m_FirstRawBlock, length, "qorHeapCSO", kUnit, __LINE__);
}
