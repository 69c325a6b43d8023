#include <qor/qor_assert.h>
#include <qor/qor_heapmixed.h>

#include <new>

#include "internal/link.h"
#include "internal/poison.h"

namespace {

const char kUnit[] = "qor_heapmixed";

constexpr unsigned long kSmallestSize = 8;

}  // namespace

qorHeapMixed::qorHeapMixed(qorHeapIntf* generalHeap, qorHeapIntf* smallObjHeap, unsigned long maxSmallSize,
                           unsigned long refillCount, bool noFreeOnDestroy)
    : m_GeneralHeap(generalHeap),
      m_SmallObjHeap(smallObjHeap),
      m_NoFreeOnDestroy(noFreeOnDestroy),
      m_MaxSmallSize(maxSmallSize),
      m_RefillCount(refillCount == 0 ? 1 : refillCount),
      m_SmallObjs(nullptr),
      m_SmallObjsBytes(0) {
  if (generalHeap == nullptr || smallObjHeap == nullptr) {
    qorThrow("qorHeapMixed: both heaps are needed", kUnit, __LINE__);
  }
  const unsigned long records = maxSmallSize + 1;
  if (records == 0 || __builtin_mul_overflow(records, sizeof(SmallObjInfo), &m_SmallObjsBytes)) {
    qorThrow("qorHeapMixed: maxSmallSize too large", kUnit, __LINE__);
  }
  void* table = m_GeneralHeap->Alloc(m_SmallObjsBytes);
  if (table == nullptr) qorThrow("qorHeapMixed: no memory for the size table", kUnit, __LINE__);
  m_SmallObjs = static_cast<SmallObjInfo*>(table);
  for (unsigned long k = 0; k < records; ++k) new (&m_SmallObjs[k]) SmallObjInfo{nullptr, nullptr, false};
}

qorHeapMixed::~qorHeapMixed() {
  if (m_NoFreeOnDestroy) return;
  DeallocCachedObjects();
  m_GeneralHeap->Dealloc2(m_SmallObjs, m_SmallObjsBytes);
}

// The small-object paths are written once, here, and used both by the
// virtual operations and by the named steps, so that a request costs one
// virtual call and no further call through the symbol table.
//
// A request of `request` bytes uses the record of `size` bytes (8 for
// requests below 8); both heaps see `size` only. Under AddressSanitizer an
// object on a list is poisoned, and one handed out is addressable for the
// request's bytes only; before an object goes back to either heap it is
// addressable for `size` bytes again, as that heap handed it out.
namespace {

using Info = qorHeapMixed::SmallObjInfo;

// p joins the list as a free object, poisoned over `poisoned` bytes.
void insert(Info* info, void* p, unsigned long poisoned) {
  qor_internal::writeLink(p, info->freeList);
  qor_internal::poison(p, poisoned);
  info->freeList = p;
}

// A caller gives p back to the list.
void release(Info* info, void* p, unsigned long poisoned) {
  if (qor_internal::alreadyFree(info->freeList, p)) {
    qorThrow("qorHeapMixed::Dealloc2: block released twice", kUnit, __LINE__);
  }
  insert(info, p, poisoned);
}

// Takes the head off the non-empty list of info and hands it out.
inline void* takeHead(Info* info, unsigned long request, unsigned long size) {
  void* p = info->freeList;
  info->freeList = qor_internal::readLink(p);
  qor_internal::writeLink(p, nullptr);
  qor_internal::handOut(p, request, size);
  return p;
}

// The rare half of a small request: the size's first object, or a refill.
__attribute__((noinline)) void* allocSmallSlow(qorHeapMixed* heap, Info* info, unsigned long size,
                                               unsigned long request) {
  if (!info->inUse) {
    void* p = heap->m_GeneralHeap->Alloc(size);
    if (p != nullptr) {
      info->inUse = true;
      info->firstObject = p;
      qor_internal::handOut(p, request, size);
    }
    return p;
  }
  for (unsigned long i = 0; i < heap->m_RefillCount; ++i) {
    void* q = heap->m_SmallObjHeap->Alloc(size);
    if (q == nullptr) break;  // keep what was fetched; the heap has no more
    insert(info, q, size);
  }
  if (info->freeList == nullptr) return nullptr;
  return takeHead(info, request, size);
}

// Invariant: request <= heap->m_MaxSmallSize.
inline void* allocSmall(qorHeapMixed* heap, unsigned long request) {
  unsigned long size = request;
  if (__builtin_expect(size < kSmallestSize, 0)) {
    // Without a record of 8 the table holds no list: pass through.
    if (heap->m_MaxSmallSize < kSmallestSize) return heap->m_GeneralHeap->Alloc(size);
    size = kSmallestSize;
  }
  Info* info = &heap->m_SmallObjs[size];
  if (__builtin_expect(info->freeList == nullptr, 0)) return allocSmallSlow(heap, info, size, request);
  return takeHead(info, request, size);
}

// Invariant: p is not null and size <= heap->m_MaxSmallSize.
inline void deallocSmall(qorHeapMixed* heap, void* p, unsigned long size) {
  if (__builtin_expect(size < kSmallestSize, 0)) {
    if (heap->m_MaxSmallSize < kSmallestSize) {
      heap->m_GeneralHeap->Dealloc2(p, size);
      return;
    }
    size = kSmallestSize;
  }
  Info* info = &heap->m_SmallObjs[size];
  if (__builtin_expect(p == info->firstObject, 0)) {
    info->firstObject = nullptr;
    qor_internal::unpoison(p, size);
    heap->m_GeneralHeap->Dealloc2(p, size);
    return;
  }
  release(info, p, size);
}

}  // namespace

void* qorHeapMixed::Alloc(unsigned long size) {
  if (size <= m_MaxSmallSize) return allocSmall(this, size);
  return m_GeneralHeap->Alloc(size);
}

// Called directly with a size beyond the table, it behaves as Alloc.
void* qorHeapMixed::AllocSmall(unsigned long size) {
  if (size > m_MaxSmallSize) return m_GeneralHeap->Alloc(size);
  return allocSmall(this, size);
}

// The record's size is not known here: the link alone is poisoned, and the
// rest when the object is handed out.
void qorHeapMixed::FreeListInsert(SmallObjInfo* info, void* p) {
  if (info != nullptr && p != nullptr) release(info, p, sizeof(void*));
}

void qorHeapMixed::Dealloc2(void* p, unsigned long size) {
  if (p == nullptr) return;
  if (size <= m_MaxSmallSize) {
    deallocSmall(this, p, size);
  } else {
    m_GeneralHeap->Dealloc2(p, size);
  }
}

// Called directly, it behaves as Dealloc2.
void qorHeapMixed::DeallocSmall(void* p, unsigned long size) { Dealloc2(p, size); }

void qorHeapMixed::DeallocCachedObjects() {
  for (unsigned long k = 0; k <= m_MaxSmallSize; ++k) {
    void* object = m_SmallObjs[k].freeList;
    m_SmallObjs[k].freeList = nullptr;
    while (object != nullptr) {
      void* next = qor_internal::readLink(object);
      qor_internal::unpoison(object, k);
      m_SmallObjHeap->Dealloc2(object, k);
      object = next;
    }
  }
}

void qorHeapMixed::Minimize() {
  DeallocCachedObjects();
  m_GeneralHeap->Minimize();
  m_SmallObjHeap->Minimize();
}
