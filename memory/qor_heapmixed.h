// qorHeapMixed: a heap that caches small objects over two other heaps.
//
//   - Requests above maxSmallSize go straight to the general heap.
//   - The first request of each small size is served by the general heap;
//     that object is remembered as the size's first object, and goes back to
//     the general heap as soon as it is released.
//   - Every later request of that size comes from the size's own free list
//     (sizes 8 to maxSmallSize each have one; 0 to 7 share the list of 8).
//     An empty list is refilled with refillCount objects fetched one by one
//     from the small-object heap; the last one fetched is handed out first.
//   - Released small objects stay cached until Minimize or the destructor
//     gives them back to the small-object heap.
//
// With a maxSmallSize below 8 there is no list at all: every request and
// release goes straight to the general heap with the caller's size.
//
// Under AddressSanitizer the cached objects are poisoned, and a small object
// handed out is addressable for the bytes asked for only (a request below 8
// bytes too), so that ASan reports a read after release or past the request.
// Releasing a small object that is cached already raises "qorHeapMixed::
// Dealloc2: block released twice" under ASan, and in builds with
// QOR_CHECKED_HEAPS, which walk the size's list at every release; other
// builds do not check. Large objects and first objects are the two heaps'
// own business.
//
// The heap takes no lock: one thread at a time uses it. It owns neither of
// its heaps; keep both alive while it lives. Its table of
// (maxSmallSize + 1) records comes from the general heap.
#ifndef QOR_HEAPMIXED_H
#define QOR_HEAPMIXED_H

#include "qor_heapintf.h"

class QOR_API qorHeapMixed : public qorHeapIntf {
 public:
  // One small size: its cached objects, its first object while the caller
  // holds it, and whether the size was ever requested.
  struct SmallObjInfo {
    void* freeList;
    void* firstObject;
    bool inUse;
  };

  // Takes the table from generalHeap. A refillCount of 0 counts as 1. Raises
  // a qorException* when either heap is null, when the table's size does not
  // fit 64 bits, or when the general heap returns no memory for it.
  qorHeapMixed(qorHeapIntf* generalHeap, qorHeapIntf* smallObjHeap, unsigned long maxSmallSize,
               unsigned long refillCount, bool noFreeOnDestroy);
  // Unless noFreeOnDestroy, gives every cached object back to the small
  // heap and the table to the general heap. Objects still held by callers
  // are not touched; the two heaps are not destroyed.
  ~qorHeapMixed() override;

  // A block of size bytes; null only when the heap it comes from gives none
  // (a failed refill leaves the list as it was).
  void* Alloc(unsigned long size) override;
  // Releases p, requested with size. A null p does nothing. A cached p
  // raises under ASan and with QOR_CHECKED_HEAPS (see above).
  void Dealloc2(void* p, unsigned long size) override;
  // Gives every cached object back to the small-object heap, then calls
  // Minimize on the general heap and on the small-object heap.
  void Minimize() override;

  // The working steps, public for callers that route sizes themselves.
  // AllocSmall and DeallocSmall pass a size beyond maxSmallSize to the
  // general heap, as Alloc and Dealloc2 do; FreeListInsert puts p at the head
  // of info's list (poisoning its link only under ASan, and raising as
  // Dealloc2 does for a p on the list already) and ignores a null p; DeallocCachedObjects gives every
  // cached object back to the small-object heap with its record's size.
  void* AllocSmall(unsigned long size);
  void DeallocSmall(void* p, unsigned long size);
  void FreeListInsert(SmallObjInfo* info, void* p);
  void DeallocCachedObjects();

  qorHeapIntf* m_GeneralHeap;
  qorHeapIntf* m_SmallObjHeap;
  bool m_NoFreeOnDestroy;
  unsigned long m_MaxSmallSize;
  unsigned long m_RefillCount;
  SmallObjInfo* m_SmallObjs;
  unsigned long m_SmallObjsBytes;
};

#endif
