// Internal: the link word of intrusive free lists.
//
// A free block holds the address of the next free block in its first 8
// bytes. Blocks of odd sizes (100 bytes, say) sit at addresses that are not
// 8-byte aligned, so the link is copied byte-wise rather than read through a
// pointer cast: memcpy is defined at any address and compiles to one move.
//
// Under AddressSanitizer a free block is poisoned (poison.h), link included:
// only the allocator may touch it. There the link is read and written
// through a type of alignment 1 in functions left uninstrumented (an
// intercepted memcpy would be checked), and the block stays poisoned
// meanwhile.
#ifndef QOR_INTERNAL_LINK_H
#define QOR_INTERNAL_LINK_H

#include <qor/qor_export.h>

#include <cstring>

namespace qor_internal {

#ifdef QOR_ASAN
typedef void* UnalignedLink __attribute__((may_alias, aligned(1)));

__attribute__((no_sanitize_address)) inline void* readLink(const void* block) {
  return *static_cast<const UnalignedLink*>(block);
}

__attribute__((no_sanitize_address)) inline void writeLink(void* block, void* next) {
  *static_cast<UnalignedLink*>(block) = next;
}
#else
inline void* readLink(const void* block) {
  void* next;
  std::memcpy(&next, block, sizeof next);
  return next;
}

inline void writeLink(void* block, void* next) { std::memcpy(block, &next, sizeof next); }
#endif

// Links count blocks of stride bytes from base in ascending address order;
// the last one's link is null. Returns base.
inline void* linkBlocks(char* base, unsigned long stride, unsigned long count) {
  char* block = base;
  for (unsigned long i = 1; i < count; ++i, block += stride) writeLink(block, block + stride);
  if (count > 0) writeLink(block, nullptr);
  return base;
}

}  // namespace qor_internal

#endif
