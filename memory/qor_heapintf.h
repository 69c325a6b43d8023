// qorHeapIntf: the one abstract interface of every heap in libqor.
//
// A block is always released with the size it was requested with: the
// size-class heaps find a block's list by that size, and no block carries a
// header. Minimize asks a heap to give back memory it holds in reserve.
//
// qorHeapCIntf adds Dealloc1, a release that needs no size.
#ifndef QOR_HEAPINTF_H
#define QOR_HEAPINTF_H

#include "qor_export.h"

class QOR_API qorHeapIntf {
 public:
  qorHeapIntf();
  // Does nothing. Defined in the library, so the interface's virtual table
  // lives in libqor.so.1 only.
  virtual ~qorHeapIntf();
  // A block of at least size bytes.
  virtual void* Alloc(unsigned long size) = 0;
  // Releases p, which came from Alloc(size) of this heap.
  virtual void Dealloc2(void* p, unsigned long size) = 0;
  // Gives back memory held in reserve. Does nothing here.
  virtual void Minimize();

  qorHeapIntf(const qorHeapIntf&) = delete;
  qorHeapIntf& operator=(const qorHeapIntf&) = delete;
};

class QOR_API qorHeapCIntf : public qorHeapIntf {
 public:
  qorHeapCIntf();
  ~qorHeapCIntf() override;
  // Releases p without its size.
  virtual void Dealloc1(void* p) = 0;
};

#endif
