#include "qor_heaplarge.h"

#include <malloc.h>

#include <cstdlib>

qorHeapLarge::qorHeapLarge() {}

qorHeapLarge::~qorHeapLarge() {}

void* qorHeapLarge::Alloc(unsigned long size) { return valloc(size); }

void qorHeapLarge::Dealloc2(void* p, unsigned long) { free(p); }
