// Internal: the one place where the allocators map and unmap memory.
#ifndef QOR_MAPPING_H
#define QOR_MAPPING_H

#include "qor_export.h"

// `length` bytes of fresh anonymous private read-write memory. A failed
// mmap raises "mmap failed: <strerror>" with the caller's unit and line;
// nothing is mapped then.
QOR_HIDDEN void* qorMapAnonymous(unsigned long length, const char* unit, unsigned long line);

// Unmaps a mapping given back in bulk. A failing munmap cannot be recovered
// from: it prints "Error in munmap: size = <length> addr=<hex address>" on
// standard output and ends the process with munmap's result.
QOR_HIDDEN void qorUnmapOrExit(void* address, unsigned long length);

#endif
