// qorHeapCSO: a heap for many small objects of a few common sizes.
//
// One free list per size class (multiples of 8 from 8 to 65,536 bytes). A
// request of size bytes takes an object of its class: size raised to a
// multiple of 8, and a request of 0 to 8 bytes takes an 8-byte object. An
// empty list is refilled by mapping whole allocation units for at least 4,096
// objects and cutting them into equal objects, linked in ascending address
// order. Objects carry no header; release them with the size they were
// requested with. Memory goes back to the system only when the heap is
// destroyed, in one sweep; Minimize gives nothing back.
//
// The heap maps and records its own memory; it takes only the page size and
// the allocation unit from qorPageAlloc, so qorPageAlloc::Initialize must
// have run (at some time) before the first refill. qorPageAlloc::Uninitialize
// does not touch the heap.
//
// Locking: one non-recursive mutex per heap, held for each Alloc and Dealloc2
// (refill included), by the destructor, and by the statistics and the byte
// total, so a report taken while other threads allocate is consistent. The
// heap never takes the page allocator's lock.
//
// Under AddressSanitizer free objects are poisoned, and an object handed out
// is addressable for the bytes asked for only (one byte for a request of 0),
// so that ASan reports a read after release or past the request. Releasing
// an object that is free already raises "qorHeapCSO::Dealloc2: block
// released twice" under ASan, and in builds with QOR_CHECKED_HEAPS, which
// walk the class's list at every release; other builds do not check.
//
// The object holds its 65,537-entry list table (about 512 KiB): create heaps
// with new rather than on a thread's stack.
#ifndef QOR_HEAPCSO_H
#define QOR_HEAPCSO_H

#include <QMutex>
#include <string>
#include <vector>

#include "qor_heapintf.h"

class QOR_API qorHeapCSO : public qorHeapIntf {
 public:
  // One mapping of this heap; the list runs from the newest to the oldest.
  struct RawBlock {
    void* address;
    RawBlock* next;
    unsigned long length;
  };

  // Empty lists, no mappings, a total of 0.
  qorHeapCSO();
  // Unmaps every mapping of the heap; every object it handed out becomes
  // invalid. A failing munmap prints "Error in munmap: size = <length>
  // addr=<hex address>" on standard output and ends the process with exit.
  ~qorHeapCSO() override;

  // An object of size's class, not cleared (its first word still holds the
  // old link). Raises a qorException* for a size above 65,536, when
  // qorPageAlloc was never initialised and a refill is due ("qorPageAlloc not
  // initialised!"), and when a refill's mapping fails (the heap is then
  // unchanged and stays usable).
  void* Alloc(unsigned long size) override;
  // Puts p back on its class's list (last in, first out); the next Alloc of
  // that class returns it. A null p does nothing; a size above 65,536 raises
  // a qorException*, and so does a p that is free already under ASan or
  // with QOR_CHECKED_HEAPS (the list is unchanged then).
  void Dealloc2(void* p, unsigned long size) override;

  // Bytes cut into objects so far.
  double getTotalBytesAllocated();
  // Replaces lines with the report of the non-empty lists: a title, a column
  // header, one row per class and a total row.
  void getFreeListStats(std::vector<std::string>& lines);

  // Refills the empty list of sizeClass (a multiple of 8 from 8 to 65,536;
  // anything else raises a qorException*). The caller holds m_Mutex.
  void populateFreeList(unsigned long sizeClass);
  // Maps ComputeEfficientSize(objectSize, objectCount) bytes through
  // AllocRawPages and reports how many whole objects fit. Takes no lock.
  // Raises a qorException* for an objectSize or objectCount of 0.
  void PermanentAlloc(unsigned long objectSize, unsigned long objectCount, unsigned long& objectsObtained,
                      void*& memory);
  // objectSize x objectCount raised to a multiple of the page allocator's
  // unit; raises "qorPageAlloc not initialised!" while the unit is unknown.
  unsigned long ComputeEfficientSize(unsigned long objectSize, unsigned long objectCount);
  // Maps pages x the page size and records the mapping in this heap. Raises
  // "qorHeapCSO: mmap failed: <reason>" (nothing recorded) when the system refuses.
  void* AllocRawPages(unsigned long pages);

  void* m_FreeLists[65537];
  double m_TotalBytesAllocated;
  RawBlock* m_FirstRawBlock;
  QMutex m_Mutex;
};

#endif
