#include "qor_linescan.h"

namespace qor_internal {

#if defined(QOR_LINESCAN_AVX2)
// Two threads that race here store the same answer.
std::atomic<int> g_Avx2{0};

int detectAvx2() {
  __builtin_cpu_init();
  const int known = __builtin_cpu_supports("avx2") ? 1 : 2;
  g_Avx2.store(known, std::memory_order_relaxed);
  return known;
}
#endif

template <char Stop, bool DropCR, bool Expand>
const char* findSpecial(const char* p, const char* end) {
#if defined(QOR_LINESCAN_AVX2)
  if (hasAvx2()) return findSpecialAvx2<Stop, DropCR, Expand>(p, end);
#endif
  return findSpecialSse2<Stop, DropCR, Expand>(p, end);
}

template const char* findSpecial<'\n', true, true>(const char*, const char*);
template const char* findSpecial<'\n', true, false>(const char*, const char*);
template const char* findSpecial<'\0', false, true>(const char*, const char*);
template const char* findSpecial<'\0', false, false>(const char*, const char*);

}  // namespace qor_internal
