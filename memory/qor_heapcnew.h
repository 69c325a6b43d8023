// qorHeapCNew: like qorHeapNew (operator new and operator delete), with a
// release that needs no size. Dealloc2 calls Dealloc1 through the virtual
// table, so a class that replaces Dealloc1 sees every release.
#ifndef QOR_HEAPCNEW_H
#define QOR_HEAPCNEW_H

#include "qor_heapintf.h"

class QOR_API qorHeapCNew : public qorHeapCIntf {
 public:
  qorHeapCNew();
  ~qorHeapCNew() override;
  // operator new(size); its std::bad_alloc reaches the caller.
  void* Alloc(unsigned long size) override;
  // Dealloc1(p); size is ignored.
  void Dealloc2(void* p, unsigned long size) override;
  // operator delete(p); a null p does nothing.
  void Dealloc1(void* p) override;
};

#endif
