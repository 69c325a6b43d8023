#include "qor_linescan.h"

#include <atomic>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace qor_internal {

namespace {

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define QOR_LINESCAN_AVX2 1

template <char Stop, bool DropCR, bool Expand>
__attribute__((target("avx2"))) const char* findSpecialAvx2(const char* p, const char* end) {
  const __m256i stop = _mm256_set1_epi8(Stop);
  const __m256i cr = _mm256_set1_epi8('\r');
  const __m256i tab = _mm256_set1_epi8('\t');
  while (end - p >= 32) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    __m256i hit = _mm256_cmpeq_epi8(v, stop);
    if (DropCR) hit = _mm256_or_si256(hit, _mm256_cmpeq_epi8(v, cr));
    if (Expand) hit = _mm256_or_si256(hit, _mm256_cmpeq_epi8(v, tab));
    const unsigned bits = static_cast<unsigned>(_mm256_movemask_epi8(hit));
    if (bits != 0) return p + __builtin_ctz(bits);
    p += 32;
  }
  return findSpecialSse2<Stop, DropCR, Expand>(p, end);
}

// 0 until the first scan asks, then 1 (AVX2) or 2 (none). Decided on first
// use rather than at load time, so that loading the library runs no code;
// two threads that race here store the same answer.
std::atomic<int> g_Avx2{0};

bool hasAvx2() {
  int known = g_Avx2.load(std::memory_order_relaxed);
  if (known == 0) {
    __builtin_cpu_init();
    known = __builtin_cpu_supports("avx2") ? 1 : 2;
    g_Avx2.store(known, std::memory_order_relaxed);
  }
  return known == 1;
}
#endif

}  // namespace

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
