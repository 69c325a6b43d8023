#include <qor/qor_assert.h>
#include <qor/qor_heapmixed.h>

#include <new>

#include "internal/link.h"

namespace {

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
    qorThrow("qorHeapMixed: both heaps are needed", "qor_heapmixed", __LINE__);
  }
  const unsigned long records = maxSmallSize + 1;
  if (records == 0 || __builtin_mul_overflow(records, sizeof(SmallObjInfo), &m_SmallObjsBytes)) {
    qorThrow("qorHeapMixed: maxSmallSize too large", "qor_heapmixed", __LINE__);
  }
  void* table = m_GeneralHeap->Alloc(m_SmallObjsBytes);
  if (table == nullptr) qorThrow("qorHeapMixed: no memory for the size table", "qor_heapmixed", __LINE__);
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
namespace {

using Info = qorHeapMixed::SmallObjInfo;

void insert(Info* info, void* p) {
  qor_internal::writeLink(p, info->freeList);
  info->freeList = p;
}

// The rare half of a small request: the size's first object, or a refill.
__attribute__((noinline)) void* allocSmallSlow(qorHeapMixed* heap, Info* info, unsigned long size) {
  if (!info->inUse) {
    void* p = heap->m_GeneralHeap->Alloc(size);
    if (p != nullptr) {
      info->inUse = true;
      info->firstObject = p;
    }
    return p;
  }
  for (unsigned long i = 0; i < heap->m_RefillCount; ++i) {
    void* q = heap->m_SmallObjHeap->Alloc(size);
    if (q == nullptr) break;  // keep what was fetched; the heap has no more
    insert(info, q);
  }
  void* p = info->freeList;
  if (p == nullptr) return nullptr;
  info->freeList = qor_internal::readLink(p);
  qor_internal::writeLink(p, nullptr);
  return p;
}

// Invariant: size <= heap->m_MaxSmallSize.
inline void* allocSmall(qorHeapMixed* heap, unsigned long size) {
  if (__builtin_expect(size < kSmallestSize, 0)) {
    // Without a record of 8 the table holds no list: pass through.
    if (heap->m_MaxSmallSize < kSmallestSize) return heap->m_GeneralHeap->Alloc(size);
    size = kSmallestSize;
  }
  Info* info = &heap->m_SmallObjs[size];
  void* p = info->freeList;
  if (__builtin_expect(p == nullptr, 0)) return allocSmallSlow(heap, info, size);
  info->freeList = qor_internal::readLink(p);
  qor_internal::writeLink(p, nullptr);
  return p;
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
    heap->m_GeneralHeap->Dealloc2(p, size);
    return;
  }
  insert(info, p);
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

void qorHeapMixed::FreeListInsert(SmallObjInfo* info, void* p) {
  if (info != nullptr && p != nullptr) insert(info, p);
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
