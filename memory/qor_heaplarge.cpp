#include <malloc.h>
#include <qor/qor_heaplarge.h>

#include <cstdlib>

qorHeapLarge::qorHeapLarge() {}

qorHeapLarge::~qorHeapLarge() {}

void* qorHeapLarge::Alloc(unsigned long size) { return valloc(size); }

void qorHeapLarge::Dealloc2(void* p, unsigned long) { free(p); }
