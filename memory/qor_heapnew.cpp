#include <qor/qor_heapnew.h>

#include <new>

qorHeapNew::qorHeapNew() {}

qorHeapNew::~qorHeapNew() {}

void* qorHeapNew::Alloc(unsigned long size) { return ::operator new(size); }

void qorHeapNew::Dealloc2(void* p, unsigned long) { ::operator delete(p); }
