// The object allocator: one process-wide free list per object size.
//
// qorOAFreeLists[size] heads the list of free objects of size bytes. Lists are
// filled from permanent blocks of the page allocator (qor_alloc.h), at least
// 4,096 objects at a time, and nothing is ever given back: objects return to
// their list, and all of the memory goes away at qorPageAlloc::Uninitialize,
// which also empties every list. qorPageAlloc::Initialize must run before the
// first object is taken.
//
// qorOAAlloc and qorOADealloc are inline. Both raise the size to a multiple of
// 8 before it picks the list (so every object is 8-byte aligned and can hold
// its link), so an object is released with the size it was requested with,
// or any size of the same multiple of 8. A size of 0 or above 65,536 raises a
// qorException* on both sides.
//
// Built with AddressSanitizer (the library and the program both: the two
// inline functions below run in the program), free objects are poisoned and
// an object handed out is addressable for the bytes asked for only, so a read
// after release, or past the size asked for, is reported by ASan. Releasing
// an object that is free already raises "qorOADealloc: object released twice"
// there, and in builds with QOR_CHECKED_HEAPS (the library's and the
// program's), which walk the object's list at every release; in other builds
// it is not checked, and corrupts the list.
//
// Locking: qorOAMutex guards the lists and the byte total. A refill takes the
// page allocator's lock inside it (qorOAMutex first, then
// qorPageAlloc::m_Mutex). The statistics and the byte total are read under
// qorOAMutex too, so a report taken while other threads allocate is
// consistent.
#ifndef QOR_OBJECTALLOC_H
#define QOR_OBJECTALLOC_H

#include <QMutex>
#include <cstring>
#include <string>
#include <vector>

#include "qor_export.h"
#include "qor_mutex.h"

#ifdef QOR_ASAN
#include <sanitizer/asan_interface.h>
#endif

// Heads of the free lists, indexed by object size in bytes (0 to 65,536). A
// free object holds the next one's address in its first 8 bytes.
extern QOR_API void* qorOAFreeLists[65537];
// Guards qorOAFreeLists and qorOATotalBytesAllocated. Non-recursive.
extern QOR_API QMutex qorOAMutex;
// Bytes cut into objects so far; never reset.
extern QOR_API double qorOATotalBytesAllocated;

// Refills list size from a new permanent block of at least 4,096 objects,
// linked in ascending address order; the old head is overwritten, so call it
// only for an empty list. The caller holds qorOAMutex. Raises a qorException*
// for a size of 0 or above 65,536, and passes on the page allocator's
// exceptions (not initialised, mapping refused) with the list unchanged.
QOR_API void qorOAPopulateFreeList(unsigned long size);

// Bytes cut into objects so far.
QOR_API double qorOAGetTotalBytesAllocated();

// Replaces lines with the report of the non-empty lists: a title, a column
// header, one row per size and a total row.
QOR_API void qorOAGetFreeListStats(std::vector<std::string>& lines);

// Raises the qorException* for a size outside 1 to 65,536. Never returns.
[[noreturn]] QOR_API void qorOABadSize(unsigned long size);

// Raises "qorOADealloc: object released twice" when p is free already on
// list sizeClass: under ASan when p is poisoned, in a library built with
// QOR_CHECKED_HEAPS when p is on the list (a walk of it); a library built
// otherwise does not check. The caller holds qorOAMutex. qorOADealloc calls
// it in programs built with ASan or with QOR_CHECKED_HEAPS.
QOR_API void qorOACheckRelease(void* p, unsigned long sizeClass);

// The list a request of size bytes uses: size raised to a multiple of 8.
inline unsigned long qorOASizeClass(unsigned long size) {
  if (size - 1 >= 65536) qorOABadSize(size);  // 0 wraps round to a huge value
  return (size + 7) & ~7UL;
}

// An object of at least size bytes, 8-byte aligned, not cleared. Raises a
// qorException* for a size of 0 or above 65,536, when the page allocator is
// not initialised, and when a refill's mapping fails.
inline void* qorOAAlloc(unsigned long size) {
  const unsigned long c = qorOASizeClass(size);
  qorMutexLocker lock(qorOAMutex);
  if (qorOAFreeLists[c] == nullptr) qorOAPopulateFreeList(c);
  void* object = qorOAFreeLists[c];
#ifdef QOR_ASAN
  __asan_unpoison_memory_region(object, sizeof(void*));
  std::memcpy(&qorOAFreeLists[c], object, sizeof(void*));
  __asan_poison_memory_region(object, c);
  __asan_unpoison_memory_region(object, size);
#else
  std::memcpy(&qorOAFreeLists[c], object, sizeof(void*));
#endif
  return object;
}

// Puts p back on its list (last in, first out); size must be the size p was
// requested with. A null p is ignored. Under ASan, a p that is free already
// (or that ASan sees as unaddressable) raises "qorOADealloc: object released
// twice"; so does a p on its list with QOR_CHECKED_HEAPS (see
// qorOACheckRelease). The list is unchanged then.
inline void qorOADealloc(void* p, unsigned long size) {
  const unsigned long c = qorOASizeClass(size);
  if (p == nullptr) return;
  qorMutexLocker lock(qorOAMutex);
#if defined(QOR_ASAN) || defined(QOR_CHECKED_HEAPS)
  qorOACheckRelease(p, c);
#endif
#ifdef QOR_ASAN
  __asan_unpoison_memory_region(p, sizeof(void*));
  std::memcpy(p, &qorOAFreeLists[c], sizeof(void*));
  __asan_poison_memory_region(p, c);
#else
  std::memcpy(p, &qorOAFreeLists[c], sizeof(void*));
#endif
  qorOAFreeLists[c] = p;
}

#endif
