// Internal: what AddressSanitizer is told about the allocators' blocks.
//
// The allocators carve their blocks out of large mappings, which ASan sees as
// one live region. Under ASan they tell it which bytes are free: a free block
// is poisoned to the end of its slot, and a block handed out is addressable
// for the bytes asked for only. A read after release, or past the request
// into the slack of the slot, is then reported where it happens. The link in
// a free block's first 8 bytes stays poisoned; the allocator alone reads and
// writes it, uninstrumented (link.h).
//
// Outside ASan builds every function here is empty and compiles to nothing,
// except alreadyFree in builds with QOR_CHECKED_HEAPS.
#ifndef QOR_INTERNAL_POISON_H
#define QOR_INTERNAL_POISON_H

#include <qor/qor_export.h>

#include <algorithm>

#include "link.h"

#ifdef QOR_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace qor_internal {

#ifdef QOR_ASAN
inline void poison(const void* p, unsigned long bytes) { __asan_poison_memory_region(p, bytes); }
inline void unpoison(const void* p, unsigned long bytes) { __asan_unpoison_memory_region(p, bytes); }
#else
inline void poison(const void*, unsigned long) {}
inline void unpoison(const void*, unsigned long) {}
#endif

// Hands out the block p of slot bytes for a request of size bytes: the first
// size bytes become addressable, the rest of the slot stays poisoned. A
// request of 0 gets one byte, so that the block's first byte tells a live
// block from a free one.
inline void handOut(void* p, unsigned long size, unsigned long slot) {
  poison(p, slot);
  unpoison(p, std::max(size, 1UL));
}

// Whether p, about to be released to a list whose head is head, is free
// already. Under ASan the block's first byte says so (poisoned: free, or
// never handed out); with QOR_CHECKED_HEAPS the list is walked, which costs
// time in proportion to its length; otherwise nothing is checked.
inline bool alreadyFree([[maybe_unused]] const void* head, [[maybe_unused]] const void* p) {
#ifdef QOR_ASAN
  return __asan_address_is_poisoned(p);
#elif defined(QOR_CHECKED_HEAPS)
  for (const void* block = head; block != nullptr; block = readLink(block)) {
    if (block == p) return true;
  }
  return false;
#else
  return false;
#endif
}

}  // namespace qor_internal

#endif
