// qorHeapNew: a heap that passes every request to operator new and every
// release to operator delete. It keeps no state and takes no lock.
#ifndef QOR_HEAPNEW_H
#define QOR_HEAPNEW_H

#include "qor_heapintf.h"

class QOR_API qorHeapNew : public qorHeapIntf {
 public:
  qorHeapNew();
  ~qorHeapNew() override;
  // operator new(size); its std::bad_alloc reaches the caller.
  void* Alloc(unsigned long size) override;
  // operator delete(p); size is ignored and a null p does nothing.
  void Dealloc2(void* p, unsigned long size) override;
};

#endif
