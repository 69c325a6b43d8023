#include "qor_heapmixed.h"

#include <new>

#include "qor_assert.h"
#include "qor_link.h"

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

void* qorHeapMixed::Alloc(unsigned long size) {
  if (size <= m_MaxSmallSize) return AllocSmall(size);
  return m_GeneralHeap->Alloc(size);
}

void* qorHeapMixed::AllocSmall(unsigned long size) {
  if (size < kSmallestSize) {
    // Without a record of 8 the table holds no list: pass through.
    if (m_MaxSmallSize < kSmallestSize) return m_GeneralHeap->Alloc(size);
    size = kSmallestSize;
  }
  SmallObjInfo* info = &m_SmallObjs[size];
  void* p = info->freeList;
  if (__builtin_expect(p == nullptr, 0)) {
    if (!info->inUse) {
      p = m_GeneralHeap->Alloc(size);
      if (p != nullptr) {
        info->inUse = true;
        info->firstObject = p;
      }
      return p;
    }
    for (unsigned long i = 0; i < m_RefillCount; ++i) {
      void* q = m_SmallObjHeap->Alloc(size);
      if (q == nullptr) break;
      FreeListInsert(info, q);
    }
    p = info->freeList;
    if (p == nullptr) return nullptr;
  }
  info->freeList = qor_internal::readLink(p);
  qor_internal::writeLink(p, nullptr);
  return p;
}

void qorHeapMixed::FreeListInsert(SmallObjInfo* info, void* p) {
  qor_internal::writeLink(p, info->freeList);
  info->freeList = p;
}

void qorHeapMixed::Dealloc2(void* p, unsigned long size) {
  if (p == nullptr) return;
  if (size <= m_MaxSmallSize) {
    DeallocSmall(p, size);
  } else {
    m_GeneralHeap->Dealloc2(p, size);
  }
}

void qorHeapMixed::DeallocSmall(void* p, unsigned long size) {
  if (size < kSmallestSize) {
    if (m_MaxSmallSize < kSmallestSize) {
      m_GeneralHeap->Dealloc2(p, size);
      return;
    }
    size = kSmallestSize;
  }
  SmallObjInfo* info = &m_SmallObjs[size];
  if (__builtin_expect(p == info->firstObject, 0)) {
    info->firstObject = nullptr;
    m_GeneralHeap->Dealloc2(p, size);
    return;
  }
  FreeListInsert(info, p);
}

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
