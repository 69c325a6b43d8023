#include <qor/qor_heapcnew.h>

#include <new>

qorHeapCNew::qorHeapCNew() {}

qorHeapCNew::~qorHeapCNew() {}

void* qorHeapCNew::Alloc(unsigned long size) { return ::operator new(size); }

void qorHeapCNew::Dealloc2(void* p, unsigned long) { Dealloc1(p); }

void qorHeapCNew::Dealloc1(void* p) { ::operator delete(p); }
