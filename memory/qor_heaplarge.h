// qorHeapLarge: a heap of page-aligned blocks from valloc, released with
// free. It keeps no state and takes no lock.
#ifndef QOR_HEAPLARGE_H
#define QOR_HEAPLARGE_H

#include "qor_heapintf.h"

class QOR_API qorHeapLarge : public qorHeapIntf {
 public:
  qorHeapLarge();
  ~qorHeapLarge() override;
  // valloc(size): aligned to the system page size; null when valloc fails.
  void* Alloc(unsigned long size) override;
  // free(p); size is ignored and a null p does nothing.
  void Dealloc2(void* p, unsigned long size) override;
};

#endif
