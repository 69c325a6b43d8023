// Internal: the statistics report shared by the object allocator and the
// common-size-object heap. Only the title line differs.
#ifndef QOR_INTERNAL_FREELIST_STATS_H
#define QOR_INTERNAL_FREELIST_STATS_H

#include <string>
#include <vector>

namespace qor_internal {

// One non-empty list: its index (object size) and the objects on it.
struct FreeListCount {
  unsigned int size;
  unsigned int entries;
};

// Counts the objects on every non-empty list of heads[0..count-1], in
// ascending index order. The caller keeps the lists still meanwhile.
std::vector<FreeListCount> countFreeLists(void* const* heads, unsigned long count);

// Replaces lines with the report: title, empty line, column header, dashes,
// one row per counted list, dashes and the total row. The totals are 32-bit
// and wrap.
void formatFreeListStats(const char* title, const std::vector<FreeListCount>& counts, std::vector<std::string>& lines);

}  // namespace qor_internal

#endif
