// qorPageAlloc: the process-wide page allocator.
//
// Memory comes from the operating system as anonymous private mappings and
// goes back only in bulk, at Uninitialize. Three services:
//   - single pages from an intrusive free list, refilled 16 MiB at a time;
//   - permanent blocks for fixed-size objects, whole allocation units that are
//     never released one by one (the object allocator fills its lists from
//     them);
//   - the page size and the allocation unit, which size every other mapping
//     of the memory subsystem.
//
// The class has only static members; no object of it is ever created.
//
// Under AddressSanitizer free pages are poisoned, so that ASan reports a
// read of a page after its release. Releasing a page that is free already
// raises "qorPageAlloc::Dealloc: page released twice" under ASan, and in
// builds with QOR_CHECKED_HEAPS, which walk the free list at every release;
// other builds do not check. Permanent blocks are not poisoned: they are the
// caller's from the start.
//
// Call Initialize once before anything else, and Uninitialize at the end;
// after Uninitialize every page and permanent block is invalid, the object
// allocator's lists are empty, and Initialize may be called again.
//
// Locking: Alloc, Dealloc, PermanentAlloc, GetFreePages and GetTotalPages take
// m_Mutex. The object allocator calls PermanentAlloc while it holds
// qorOAMutex, so the order is always qorOAMutex, then m_Mutex; nothing is
// locked while m_Mutex is held. Initialize and Uninitialize take no lock: they
// run while no other thread uses the allocator.
#ifndef QOR_ALLOC_H
#define QOR_ALLOC_H

#include <QMutex>

#include "qor_export.h"

class QOR_API qorPageAlloc {
 public:
  // One mapping; the list of them runs from the newest to the oldest.
  struct PermBlock {
    PermBlock* next;
    void* address;
    unsigned long length;
  };

  qorPageAlloc() = delete;

  // Reads the system page size and derives the allocation unit: the page size
  // is at least 4,096 bytes, the unit at least 8 pages (65,536 bytes with
  // 4,096-byte pages). Raises "qorPageAlloc already initialised!" (state
  // unchanged) when called twice without Uninitialize.
  static void Initialize();

  // Unmaps every mapping made since load (pool refills and permanent blocks),
  // empties the free list and every list of the object allocator, and returns
  // to the uninitialised state. The page size, unit and page total keep their
  // values. Raises "qorPageAlloc not initialised!" (state unchanged) when not
  // initialised. A failing munmap prints "Error in munmap: size = <length>
  // addr=<hex address>" on standard output and ends the process with exit.
  static void Uninitialize();

  // The page size in bytes; 0 before the first Initialize.
  static unsigned long GetPageSize();
  // Pages obtained from the operating system so far; never reset.
  static unsigned long GetTotalPages();
  // Pages now on the free list (walks it under the lock).
  static unsigned long GetFreePages();

  // One page of GetPageSize() bytes, not cleared: its first word still holds
  // the free-list link. Maps a new 16 MiB pool when the list is empty.
  // Raises "qorPageAlloc not initialised!" outside Initialize/Uninitialize,
  // and "qorPageAlloc: mmap failed: <reason>" when the system refuses the mapping (the
  // allocator is then unchanged and stays usable).
  static void* Alloc();
  // Puts a page back on the free list (last in, first out). Null is ignored;
  // a page that is free already raises under ASan or with QOR_CHECKED_HEAPS
  // (see above), and the list is unchanged then.
  static void Dealloc(void* page);

  // The allocation unit in bytes (page size x pages per unit); 0 before the
  // first Initialize.
  static unsigned long GetPermanentAllocMinimum();

  // objectSize x objectCount raised to a multiple of the allocation unit; a
  // zero product gives 0. Raises "qorPageAlloc not initialised!" before the
  // first Initialize (the unit is not known yet), and a qorException* when the
  // product or its rounding does not fit 64 bits.
  static unsigned long ComputeEfficientSize(unsigned long objectSize, unsigned long objectCount);

  // Maps ComputeEfficientSize(objectSize, objectCount) bytes in one block and
  // reports in objectsObtained how many whole objects of objectSize bytes fit
  // in it (never fewer than objectCount). The block is neither cleared nor
  // linked, and stays mapped until Uninitialize. Raises a qorException* for an
  // objectSize or objectCount of 0, when not initialised, and when the
  // mapping fails (memory and objectsObtained are then left untouched).
  static void PermanentAlloc(unsigned long objectSize, unsigned long objectCount, unsigned long& objectsObtained,
                             void*& memory);

  // Maps pages x GetPageSize() bytes and records the mapping for
  // Uninitialize. The caller holds m_Mutex. Raises "qorPageAlloc: mmap failed: <reason>"
  // (nothing recorded) when the system refuses the mapping.
  static void* AllocRawPages(unsigned long pages);

  // Maps a new pool (as many whole units as fit in 16 MiB, at least one) and
  // links its pages in ascending address order onto the empty free list. The
  // caller holds m_Mutex.
  static void PopulateFreeList();

  static QMutex m_Mutex;
  static unsigned long m_TotalPages;
  static unsigned long m_PagesToAllocAtOnce;
  static unsigned long m_PageSize;
  static PermBlock* m_FirstPermFree;
  static bool m_Initialized;
  static void* m_FirstFree;
};

#endif
