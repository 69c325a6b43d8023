#include <qor/qor_alloc.h>
#include <qor/qor_assert.h>
#include <qor/qor_objectalloc.h>

#include "internal/freelist_stats.h"
#include "internal/link.h"
#include "internal/poison.h"

void* qorOAFreeLists[65537] = {};
// Non-recursive; constant-initialised, so it is usable before any dynamic
// initialiser runs.
QMutex qorOAMutex;
double qorOATotalBytesAllocated = 0.0;

namespace {

const char kUnit[] = "qor_objectalloc";

constexpr unsigned long kMaxObjectSize = 65536;
constexpr unsigned long kObjectsPerRefill = 4096;

}  // namespace

void qorOABadSize(unsigned long size) {
  if (size == 0) qorThrow("qorOAAlloc: object size of 0", kUnit, __LINE__);
  qorThrow("qorOAAlloc: object size above 65536", kUnit, __LINE__);
}

void qorOACheckRelease(void* p, unsigned long sizeClass) {
  if (qor_internal::alreadyFree(qorOAFreeLists[sizeClass], p)) {
    qorThrow("qorOADealloc: object released twice", kUnit, __LINE__);
  }
}

void qorOAPopulateFreeList(unsigned long size) {
  if (size == 0 || size > kMaxObjectSize) qorOABadSize(size);
  unsigned long count = 0;
  void* base = nullptr;
  qorPageAlloc::PermanentAlloc(size, kObjectsPerRefill, count, base);
  qorOATotalBytesAllocated += static_cast<double>(size * count);
  qorOAFreeLists[size] = qor_internal::linkBlocks(static_cast<char*>(base), size, count);
#ifdef QOR_ASAN
  // The whole block: the bytes after the last object belong to no one.
  qor_internal::poison(base, qorPageAlloc::ComputeEfficientSize(size, kObjectsPerRefill));
#endif
}

double qorOAGetTotalBytesAllocated() {
  qorMutexLocker lock(qorOAMutex);
  return qorOATotalBytesAllocated;
}

void qorOAGetFreeListStats(std::vector<std::string>& lines) {
  std::vector<qor_internal::FreeListCount> counts;
  {
    qorMutexLocker lock(qorOAMutex);
    counts = qor_internal::countFreeLists(qorOAFreeLists, kMaxObjectSize + 1);
  }
  qor_internal::formatFreeListStats(" Cache Stats:", counts, lines);
}
