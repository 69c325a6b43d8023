// Internal: the line scanner of the stream readers.
//
// One pass over a run of bytes finds the first byte that needs a decision:
// the terminating byte (Stop), a carriage return when they are dropped
// (DropCR), a tab when tabs are expanded (Expand). The readers append the run
// before it in one piece and change only the rest of a line that holds such
// bytes, sixteen bytes at a time.
//
// BM_LineScan_FindSpecial in bench/bench_stream.cpp measures it against
// glibc's memchr (the README has the figures).
#ifndef QOR_LINESCAN_H
#define QOR_LINESCAN_H

#include <atomic>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace qor_internal {

// The first byte of [p, end) that is Stop, '\r' (when DropCR) or '\t' (when
// Expand); end when there is none. Sixteen bytes a step.
template <char Stop, bool DropCR, bool Expand>
inline const char* findSpecialSse2(const char* p, const char* end) {
#if defined(__SSE2__)
  const __m128i stop = _mm_set1_epi8(Stop);
  const __m128i cr = _mm_set1_epi8('\r');
  const __m128i tab = _mm_set1_epi8('\t');
  while (end - p >= 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    __m128i hit = _mm_cmpeq_epi8(v, stop);
    if (DropCR) hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, cr));
    if (Expand) hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, tab));
    const int bits = _mm_movemask_epi8(hit);
    if (bits != 0) return p + __builtin_ctz(static_cast<unsigned>(bits));
    p += 16;
  }
#endif
  for (; p < end; ++p) {
    const char c = *p;
    if (c == Stop || (DropCR && c == '\r') || (Expand && c == '\t')) return p;
  }
  return end;
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define QOR_LINESCAN_AVX2 1

// The bits of the 32 bytes at p that findSpecialAvx2 stops at.
template <char Stop, bool DropCR, bool Expand>
__attribute__((target("avx2"))) inline unsigned specialBitsAvx2(const char* p) {
  const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
  __m256i hit = _mm256_cmpeq_epi8(v, _mm256_set1_epi8(Stop));
  if (DropCR) hit = _mm256_or_si256(hit, _mm256_cmpeq_epi8(v, _mm256_set1_epi8('\r')));
  if (Expand) hit = _mm256_or_si256(hit, _mm256_cmpeq_epi8(v, _mm256_set1_epi8('\t')));
  return static_cast<unsigned>(_mm256_movemask_epi8(hit));
}

// The same scan, 64 bytes a step, for processors with AVX2 (ask hasAvx2()).
// Inline, so that a caller built for AVX2 scans without a call.
template <char Stop, bool DropCR, bool Expand>
__attribute__((target("avx2"))) inline const char* findSpecialAvx2(const char* p, const char* end) {
  for (; end - p >= 64; p += 64) {
    const unsigned long long bits = specialBitsAvx2<Stop, DropCR, Expand>(p) |
                                    static_cast<unsigned long long>(specialBitsAvx2<Stop, DropCR, Expand>(p + 32))
                                        << 32;
    if (bits != 0) return p + __builtin_ctzll(bits);
  }
  if (end - p >= 32) {
    const unsigned bits = specialBitsAvx2<Stop, DropCR, Expand>(p);
    if (bits != 0) return p + __builtin_ctz(bits);
    p += 32;
  }
  return findSpecialSse2<Stop, DropCR, Expand>(p, end);
}

// 0 until the first scan asks, then 1 (AVX2) or 2 (none).
extern std::atomic<int> g_Avx2;
int detectAvx2();

// Whether the processor has AVX2. Decided on first use rather than at load
// time, so that loading the library runs no code.
inline bool hasAvx2() {
  const int known = g_Avx2.load(std::memory_order_relaxed);
  return (known != 0 ? known : detectAvx2()) == 1;
}
#endif

// findSpecialAvx2 where the processor has AVX2, otherwise findSpecialSse2.
// Instantiated in qor_linescan.cpp for the four kinds of item the readers
// take: lines with or without tab expansion ('\n', DropCR) and zero-terminated
// strings ('\0', no DropCR).
template <char Stop, bool DropCR, bool Expand>
const char* findSpecial(const char* p, const char* end);

// Copies [p, end) into d up to the first Stop byte, dropping carriage returns
// and expanding tabs as asked; returns the position of the Stop byte, or end.
// d must have room for 4 * (end - p) + 16 bytes: whole blocks of sixteen are
// stored before they are examined.
template <char Stop, bool DropCR, bool Expand>
inline const char* transformRun(const char* p, const char* end, char*& d) {
#if defined(__SSE2__)
  const __m128i stop = _mm_set1_epi8(Stop);
  const __m128i cr = _mm_set1_epi8('\r');
  const __m128i tab = _mm_set1_epi8('\t');
  while (end - p >= 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), v);
    __m128i hit = _mm_cmpeq_epi8(v, stop);
    if (DropCR) hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, cr));
    if (Expand) hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, tab));
    const int bits = _mm_movemask_epi8(hit);
    if (bits == 0) {
      p += 16;
      d += 16;
      continue;
    }
    const int k = __builtin_ctz(static_cast<unsigned>(bits));
    p += k;
    d += k;
    if (*p == Stop) return p;
    if (Expand && *p == '\t') {
      memcpy(d, "    ", 4);
      d += 4;
    }
    ++p;
  }
#endif
  for (; p < end; ++p) {
    const char c = *p;
    if (c == Stop) return p;
    if (DropCR && c == '\r') continue;
    if (Expand && c == '\t') {
      memcpy(d, "    ", 4);
      d += 4;
    } else {
      *d++ = c;
    }
  }
  return end;
}

// Input bytes changed per staging round; the staging area holds their
// expansion.
const size_t kStageInput = 1024;
const size_t kStageSize = 4 * kStageInput + 16;

// Appends the bytes of [p, end) up to the first Stop byte to the sink,
// changed as asked, and returns the position of the Stop byte, or end. A line
// without carriage returns or (expanded) tabs costs one scan and one append.
template <char Stop, bool DropCR, bool Expand, typename Sink>
inline const char* copyItem(Sink& sink, const char* p, const char* end) {
  const char* q = findSpecial<Stop, DropCR, Expand>(p, end);
  sink.append(p, static_cast<size_t>(q - p));
  while (q != end && *q != Stop) {
    char stage[kStageSize];
    char* d = stage;
    const char* chunkEnd = end - q > static_cast<long>(kStageInput) ? q + kStageInput : end;
    const char* s = transformRun<Stop, DropCR, Expand>(q, chunkEnd, d);
    sink.append(stage, static_cast<size_t>(d - stage));
    if (s != chunkEnd) return s;
    q = chunkEnd;
  }
  return q;
}

}  // namespace qor_internal

#endif
