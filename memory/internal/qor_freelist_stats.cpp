#include <cstdio>

#include "freelist_stats.h"
#include "link.h"

namespace qor_internal {

std::vector<FreeListCount> countFreeLists(void* const* heads, unsigned long count) {
  std::vector<FreeListCount> counts;
  for (unsigned long i = 0; i < count; ++i) {
    unsigned int entries = 0;
    for (void* object = heads[i]; object != nullptr; object = readLink(object)) ++entries;
    if (entries != 0) counts.push_back({static_cast<unsigned int>(i), entries});
  }
  return counts;
}

void formatFreeListStats(const char* title, const std::vector<FreeListCount>& counts, std::vector<std::string>& lines) {
  lines.clear();
  lines.emplace_back(title);
  lines.emplace_back("");
  lines.emplace_back(" Size        Entries    Bytes");
  lines.emplace_back("----------  ---------  ---------");
  char buffer[256];
  unsigned int totalEntries = 0;
  unsigned int totalBytes = 0;
  for (const FreeListCount& row : counts) {
    const unsigned long long bytes = static_cast<unsigned long long>(row.size) * row.entries;
    snprintf(buffer, sizeof buffer, "%10u %10llu %10llu", row.size, static_cast<unsigned long long>(row.entries),
             bytes);
    lines.emplace_back(buffer);
    totalEntries += row.entries;
    totalBytes += static_cast<unsigned int>(bytes);
  }
  lines.emplace_back("---------- ---------- ----------");
  snprintf(buffer, sizeof buffer, "%10s %10llu %10llu", "Total", static_cast<unsigned long long>(totalEntries),
           static_cast<unsigned long long>(totalBytes));
  lines.emplace_back(buffer);
}

}  // namespace qor_internal
