#include <qor/qor_stream.h>

#include <sys/stat.h>
#include <zlib.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include <qor/qor_assert.h>
#include <qor/qor_strings.h>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

const char kUnit[] = "qor_stream";
const char kBufferIsNull[] = "Buffer is null!";

const int kReaderBufSize = 65536;
const size_t kReaderZBufSize = 16384;
const int kWriterBufSize = 16384;
const size_t kWriterZBufSize = 65536;

// The static line buffer of readLine(bool): a line and its terminator.
const size_t kLineBufSize = 65536;
// readLine(bool) counts the bytes of a line from 1; reaching this count raises.
const size_t kLineCountLimit = 65536;

const int kGzipWindowBits = 31;
const int kRawWindowBits = -15;

// Full buffers inside write() are compressed with a sync flush: the stream
// goes on, and everything emptied so far can be decoded from the file.
const int kWriteFlush = Z_SYNC_FLUSH;

// zlib's record together with the window bits it was started with, so that a
// second switch-on can tell the formats apart. m_ZStream points at the first
// member.
struct ZRecord {
  z_stream zs;
  int windowBits;
};
static_assert(offsetof(ZRecord, zs) == 0, "m_ZStream must point at the start of its record");

ZRecord* recordOf(z_stream* zs) { return reinterpret_cast<ZRecord*>(zs); }

// Switches a reader's decoder or a writer's encoder on or off. `stop` ends the
// running codec; `start` initialises a fresh z_stream for `windowBits` and
// returns zlib's result. Switching on in the running format keeps the codec;
// another format ends it first. Nothing is installed unless zlib starts.
template <typename Stream, typename Stop, typename Start>
void switchCodec(Stream& s, bool on, int windowBits, size_t zbufSize, Stop stop, Start start) {
  if (!on) {
    stop(s);
    return;
  }
  if (s.m_ZBuf != nullptr) {
    if (recordOf(s.m_ZStream)->windowBits == windowBits) return;
    stop(s);
  }
  std::unique_ptr<char[]> zbuf(new char[zbufSize]);
  std::unique_ptr<ZRecord> record(new ZRecord());
  record->windowBits = windowBits;
  z_stream* zs = &record->zs;
  zs->zalloc = Z_NULL;
  zs->zfree = Z_NULL;
  zs->opaque = Z_NULL;
  zs->next_in = Z_NULL;
  zs->avail_in = 0;
  if (start(zs, windowBits) != Z_OK) qorThrow("Error initialising zlib", kUnit, __LINE__);
  s.m_ZBufSize = zbufSize;
  s.m_ZBuf = zbuf.release();
  s.m_ZStream = &record.release()->zs;
  s.m_Compressed = true;
}

// Releases the name copy and the buffer of a stream whose constructor fails.
struct OpenGuard {
  char* name;
  char* buf;
  ~OpenGuard() {
    delete[] name;
    delete[] buf;
  }
};

// Sets up the fields both streams share and opens the file: name copy,
// data buffer, no codec yet, nothing counted. A failed open raises
// "<failure><name>\n" and leaves nothing allocated.
template <typename Stream>
void openStream(Stream& s, char const* fileName, size_t bufSize, size_t zbufSize, const char* fopenMode,
                const char* failure) {
  if (fileName == nullptr) qorThrow("Filename is null!", kUnit, __LINE__);
  OpenGuard guard{qorStrdup(fileName), nullptr};
  guard.buf = new char[bufSize];
  s.m_FileName = guard.name;
  s.m_Compressed = false;
  s.m_ZBuf = nullptr;
  s.m_ZStream = nullptr;
  s.m_BufSize = bufSize;
  s.m_Buf = guard.buf;
  s.m_ZBufSize = zbufSize;
  s.m_FileBytes = 0;
  s.m_FileHandle = fopen(s.m_FileName, fopenMode);
  // Compose before the guard releases the name.
  if (s.m_FileHandle == nullptr) qorThrowComposed(failure, s.m_FileName, kUnit, __LINE__);
  guard.name = nullptr;
  guard.buf = nullptr;
}

// A zlib failure as one message. zlib's own text is passed on unchanged; codes
// that carry no text get a message of ours naming the file.
[[noreturn]] void raiseZlib(z_stream* zs, int code, const char* fileName, bool fileEnded) {
  if (zs->msg != nullptr) qorThrow(zs->msg, kUnit, __LINE__);
  switch (code) {
    case Z_BUF_ERROR:
      if (fileEnded) qorThrowComposed("Unexpected end of compressed data in ", fileName, kUnit, __LINE__);
      qorThrowComposed("Compressed stream makes no progress in ", fileName, kUnit, __LINE__);
    case Z_DATA_ERROR:
      qorThrowComposed("Corrupt compressed data in ", fileName, kUnit, __LINE__);
    case Z_NEED_DICT:
      qorThrowComposed("Compressed data needs a preset dictionary in ", fileName, kUnit, __LINE__);
    case Z_MEM_ERROR:
      qorThrowComposed("zlib is out of memory for ", fileName, kUnit, __LINE__);
    case Z_STREAM_ERROR:
      qorThrowComposed("zlib stream state is inconsistent for ", fileName, kUnit, __LINE__);
    default:
      qorThrowComposed("zlib failed on ", fileName, kUnit, __LINE__);
  }
}

// ---------------------------------------------------------------------------
// Text readers. One pass over the buffer finds the first byte that needs a
// decision: the terminating byte (Stop), a carriage return when they are
// dropped, a tab when tabs are expanded. The run before it is appended in one
// piece, so a line without such bytes costs one scan and one copy. The rest
// of a line that holds them is copied and changed in the same pass into a
// small staging area, sixteen bytes at a time, and appended from there.

// The first byte of [p, end) that is Stop, '\r' (when DropCR) or '\t' (when
// Expand); end when there is none.
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
#define QOR_STREAM_AVX2 1
// The same scan, 32 bytes per step, on processors that have AVX2.
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

const bool kHasAvx2 = (__builtin_cpu_init(), __builtin_cpu_supports("avx2") != 0);
#endif

template <char Stop, bool DropCR, bool Expand>
inline const char* findSpecial(const char* p, const char* end) {
#if defined(QOR_STREAM_AVX2)
  if (kHasAvx2) return findSpecialAvx2<Stop, DropCR, Expand>(p, end);
#endif
  return findSpecialSse2<Stop, DropCR, Expand>(p, end);
}

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
// changed as asked, and returns the position of the Stop byte, or end.
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

// Output into a standard string: bytes unchanged.
struct StringSink {
  void append(const char* p, size_t n) {
    if (n != 0) str->append(p, n);
  }
  std::string* str;
};

// Output into the static line buffer, up to cap bytes; a longer output sets
// overflow and stores nothing more.
struct LineSink {
  void append(const char* p, size_t n) {
    if (n > cap - used) {
      overflow = true;
      return;
    }
    memcpy(base + used, p, n);
    used += n;
  }
  char* base;
  size_t used;
  size_t cap;
  bool overflow;
};

// Output into a QString: each byte becomes one UTF-16 code unit, taken as a
// signed byte and widened, so 0x80..0xFF give U+FF80..U+FFFF.
const int kMaxQStringUnits = INT_MAX / 2 - 64;

struct UnitSink {
  void append(const char* p, size_t n) {
    if (n == 0) return;
    const int old = str->size();
    if (n > static_cast<size_t>(kMaxQStringUnits - old))
      qorThrow("string too long for a QString in qorStreamReader", kUnit, __LINE__);
    str->resize(old + static_cast<int>(n));
    ushort* d = reinterpret_cast<ushort*>(str->data()) + old;
    size_t i = 0;
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128();
    for (; i + 16 <= n; i += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
      const __m128i sign = _mm_cmpgt_epi8(zero, v);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), _mm_unpacklo_epi8(v, sign));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i + 8), _mm_unpackhi_epi8(v, sign));
    }
#endif
    for (; i < n; ++i) d[i] = static_cast<ushort>(static_cast<short>(static_cast<signed char>(p[i])));
  }
  QString* str;
};

// Reads up to the Stop byte (consumed, not delivered) into the sink. False
// at the end of the data.
template <char Stop, bool DropCR, bool Expand, typename Sink>
bool readItem(qorStreamReader& r, Sink& sink) {
  for (;;) {
    if (r.m_BufLeft <= 0) {
      r.fillBuf();
      if (r.m_BufSize == 0) return false;
      if (r.m_BufLeft <= 0) continue;
    }
    const char* p = r.m_Buf + (r.m_BufSize - r.m_BufLeft);
    const char* const end = r.m_Buf + r.m_BufSize;
    const char* stop = copyItem<Stop, DropCR, Expand>(sink, p, end);
    if (stop != end) {
      r.m_BufLeft = static_cast<int>(end - (stop + 1));
      return true;
    }
    r.m_BufLeft = 0;
  }
}

template <bool Expand>
bool readStdLine(qorStreamReader& r, std::string& s) {
  s.clear();
  StringSink sink{&s};
  return readItem<'\n', true, Expand>(r, sink);
}

template <char Stop, bool DropCR, bool Expand>
bool readQString(qorStreamReader& r, QString& s) {
  s.resize(0);
  UnitSink sink{&s};
  return readItem<Stop, DropCR, Expand>(r, sink);
}

// Taking n bytes one buffer at a time, refilling as needed. False when the
// data ends first; the bytes taken so far are consumed.
bool takeBytes(qorStreamReader& r, char* dst, int n) {
  while (n > 0) {
    if (r.m_BufLeft <= 0) {
      r.fillBuf();
      if (r.m_BufSize == 0) return false;
      continue;
    }
    const int k = r.m_BufLeft < n ? r.m_BufLeft : n;
    memcpy(dst, r.m_Buf + (r.m_BufSize - r.m_BufLeft), static_cast<size_t>(k));
    r.m_BufLeft -= k;
    dst += k;
    n -= k;
  }
  return true;
}

}  // namespace

// ===========================================================================
// qorStreamReader

qorStreamReader::qorStreamReader(char const* fileName) {
  m_BufLeft = 0;
  openStream(*this, fileName, kReaderBufSize, kReaderZBufSize, "rb", "Unable to open file for read: ");
}

qorStreamReader::~qorStreamReader() {
  if (m_FileHandle != nullptr) fclose(m_FileHandle);
  delete[] m_FileName;
  delete[] m_Buf;
  if (m_ZBuf != nullptr) {
    ::inflateEnd(m_ZStream);
    delete[] m_ZBuf;
    delete recordOf(m_ZStream);
  }
}

long qorStreamReader::size() {
  struct stat st;
  if (fstat(fileno(m_FileHandle), &st) != 0) qorThrowComposed("fstat failed: ", strerror(errno), kUnit, __LINE__);
  return static_cast<long>(st.st_size);
}

namespace {

void endDecoder(qorStreamReader& r) {
  if (r.m_ZBuf != nullptr) {
    ::inflateEnd(r.m_ZStream);
    delete[] r.m_ZBuf;
    delete recordOf(r.m_ZStream);
    r.m_ZBuf = nullptr;
    r.m_ZStream = nullptr;
  }
  r.m_Compressed = false;
}

void switchDecoder(qorStreamReader& r, bool on, int windowBits) {
  switchCodec(r, on, windowBits, kReaderZBufSize, endDecoder,
              [](z_stream* zs, int bits) { return inflateInit2(zs, bits); });
}

}  // namespace

void qorStreamReader::gunzip(bool on) { switchDecoder(*this, on, kGzipWindowBits); }

void qorStreamReader::inflate(bool on) { switchDecoder(*this, on, kRawWindowBits); }

int qorStreamReader::rewind() {
  ::rewind(m_FileHandle);
  m_BufLeft = 0;
  if (m_ZBuf != nullptr) {
    ::inflateReset(m_ZStream);
    m_ZStream->next_in = Z_NULL;
    m_ZStream->avail_in = 0;
  }
  return 0;
}

void qorStreamReader::fillBuf() {
  m_BufSize = kReaderBufSize;
  if (!m_Compressed || m_ZBuf == nullptr) {
    const size_t got = fread(m_Buf, 1, kReaderBufSize, m_FileHandle);
    m_BufLeft = static_cast<int>(got);
    if (got < static_cast<size_t>(kReaderBufSize)) m_BufSize = static_cast<int>(got);
    m_FileBytes += got;
    return;
  }

  z_stream* zs = m_ZStream;
  // A fill that decodes nothing although the stream goes on (a long header,
  // empty blocks) tries again with more input, so that an empty buffer always
  // means the end of the data.
  for (;;) {
    bool fileEnded = false;
    if (!(zs->avail_out == 0 && zs->avail_in != 0)) {
      const size_t got = fread(m_ZBuf, 1, m_ZBufSize, m_FileHandle);
      m_FileBytes += got;
      zs->next_in = reinterpret_cast<Bytef*>(m_ZBuf);
      zs->avail_in = static_cast<uInt>(got);
      fileEnded = (got == 0);
    }
    zs->next_out = reinterpret_cast<Bytef*>(m_Buf);
    zs->avail_out = static_cast<uInt>(kReaderBufSize);
    const uLong before = zs->total_out;
    const uInt inBefore = zs->avail_in;
    const int ret = ::inflate(zs, Z_SYNC_FLUSH);
    const int produced = static_cast<int>(zs->total_out - before);
    if (ret == Z_STREAM_END || ((ret == Z_OK || ret == Z_BUF_ERROR) && produced > 0)) {
      m_BufSize = produced;
      m_BufLeft = produced;
      return;
    }
    if (ret != Z_OK && ret != Z_BUF_ERROR) raiseZlib(zs, ret, m_FileName, fileEnded);
    // Nothing decoded and the stream goes on: a file that has ended was cut
    // inside the stream. Otherwise go on while input is being consumed.
    if (fileEnded) raiseZlib(zs, Z_BUF_ERROR, m_FileName, true);
    if (zs->avail_in == 0) continue;
    if (ret == Z_OK && zs->avail_in != inBefore) continue;
    raiseZlib(zs, Z_BUF_ERROR, m_FileName, false);
  }
}

long qorStreamReader::read(char* buf, int n) {
  if (n <= 0) return 0;
  if (buf == nullptr) qorThrow(kBufferIsNull, kUnit, __LINE__);
  if (m_BufLeft > n) {
    memcpy(buf, m_Buf + (m_BufSize - m_BufLeft), static_cast<size_t>(n));
    m_BufLeft -= n;
    return n;
  }
  long done = 0;
  for (;;) {
    if (m_BufLeft > 0) {
      memcpy(buf + done, m_Buf + (m_BufSize - m_BufLeft), static_cast<size_t>(m_BufLeft));
      done += m_BufLeft;
    }
    m_BufLeft = 0;
    fillBuf();
    if (done >= n) return done;
    if (m_BufSize == 0) return done;
    const long rest = n - done;
    if (rest < m_BufLeft) {
      memcpy(buf + done, m_Buf, static_cast<size_t>(rest));
      m_BufLeft -= static_cast<int>(rest);
      return n;
    }
  }
}

long qorStreamReader::readString(char* buf, int n) {
  if (n <= 0) return 0;
  if (buf == nullptr) qorThrow(kBufferIsNull, kUnit, __LINE__);
  long count = 0;
  for (;;) {
    if (m_BufLeft <= 0) {
      fillBuf();
      if (m_BufSize == 0) return count;
      continue;
    }
    const char* p = m_Buf + (m_BufSize - m_BufLeft);
    const long want = m_BufLeft < n - count ? m_BufLeft : n - count;
    const char* zero = static_cast<const char*>(memchr(p, 0, static_cast<size_t>(want)));
    if (zero != nullptr) {
      const long k = zero - p;
      memcpy(buf + count, p, static_cast<size_t>(k));
      m_BufLeft -= static_cast<int>(k + 1);
      return count + k;
    }
    memcpy(buf + count, p, static_cast<size_t>(want));
    m_BufLeft -= static_cast<int>(want);
    count += want;
    if (count == n) return count;
  }
}

namespace {

const char kLineTooLong[] = "line > 64k chars in qorStreamReader::readLine";

// The byte-exact walk of readLine(bool) over a run that passes a limit: it
// consumes up to the byte that passes it, then raises.
[[noreturn]] void refuseLongLine(qorStreamReader& r, const char* p, const char* end, size_t consumed, size_t written,
                                 bool expandTabs) {
  for (; p < end; ++p) {
    ++consumed;
    r.m_BufLeft -= 1;
    if (consumed >= kLineCountLimit - 1) break;
    const size_t grows = *p == '\r' ? 0 : (*p == '\t' && expandTabs) ? 4 : 1;
    if (written + grows > kLineBufSize - 1) break;
    written += grows;
  }
  qorThrow(kLineTooLong, kUnit, __LINE__);
}

}  // namespace

char* qorStreamReader::readLine(bool expandTabs) {
  static char line[kLineBufSize];
  // consumed counts the bytes of the line but its line feed, and the line is
  // refused at the byte that makes it reach 65535 (a count from 1 reaching
  // 65536). The stored text and its terminator must fit the buffer too,
  // which only expanded tabs can prevent.
  size_t consumed = 0;
  LineSink sink{line, 0, kLineBufSize - 1, false};
  for (;;) {
    if (m_BufLeft <= 0) {
      fillBuf();
      if (m_BufSize == 0) return nullptr;
      if (m_BufLeft <= 0) continue;
    }
    const char* p = m_Buf + (m_BufSize - m_BufLeft);
    const char* const end = m_Buf + m_BufSize;
    // Up to `allowed` more bytes may precede the line feed.
    const size_t allowed = kLineCountLimit - 2 - consumed;
    const bool capped = static_cast<size_t>(end - p) > allowed;
    const char* const window = capped ? p + allowed + 1 : end;
    const size_t writtenBefore = sink.used;
    const char* stop =
        expandTabs ? copyItem<'\n', true, true>(sink, p, window) : copyItem<'\n', true, false>(sink, p, window);
    if (sink.overflow || (stop == window && capped)) refuseLongLine(*this, p, end, consumed, writtenBefore, expandTabs);
    consumed += static_cast<size_t>(stop - p);
    if (stop != end) {
      m_BufLeft = static_cast<int>(end - (stop + 1));
      line[sink.used] = '\0';
      return line;
    }
    m_BufLeft = 0;
  }
}

bool qorStreamReader::readLine(QString& s, bool expandTabs) {
  return expandTabs ? readQString<'\n', true, true>(*this, s) : readQString<'\n', true, false>(*this, s);
}

bool qorStreamReader::readLine(std::string& s, bool expandTabs) {
  return expandTabs ? readStdLine<true>(*this, s) : readStdLine<false>(*this, s);
}

bool qorStreamReader::readString(QString& s, bool expandTabs) {
  return expandTabs ? readQString<'\0', false, true>(*this, s) : readQString<'\0', false, false>(*this, s);
}

bool qorStreamReader::readString(std::string& s, bool expandTabs) { return readLine(s, expandTabs); }

bool qorStreamReader::readFloat(double& value) {
  char bytes[sizeof(double)];
  if (!takeBytes(*this, bytes, sizeof bytes)) return false;
  memcpy(&value, bytes, sizeof value);
  return true;
}

bool qorStreamReader::readComplex(double& re, double& im) {
  char bytes[2 * sizeof(double)];
  if (!takeBytes(*this, bytes, sizeof bytes)) return false;
  memcpy(&re, bytes, sizeof re);
  memcpy(&im, bytes + sizeof re, sizeof im);
  return true;
}

// ===========================================================================
// qorStreamWriter

namespace {

// Compresses the buffered bytes with the given flush and writes out what
// deflate produces. Z_FINISH ends the stream.
void compressBuf(qorStreamWriter& w, int flush) {
  z_stream* zs = w.m_ZStream;
  zs->next_in = reinterpret_cast<Bytef*>(w.m_Buf);
  zs->avail_in = static_cast<uInt>(w.m_BufUsed);
  for (;;) {
    zs->next_out = reinterpret_cast<Bytef*>(w.m_ZBuf);
    zs->avail_out = static_cast<uInt>(w.m_ZBufSize);
    const uLong before = zs->total_out;
    const int ret = ::deflate(zs, flush);
    // Z_BUF_ERROR only says that there was nothing to do (a repeated flush).
    if (ret < 0 && ret != Z_BUF_ERROR) raiseZlib(zs, ret, w.m_FileName, false);
    const size_t produced = static_cast<size_t>(zs->total_out - before);
    if (produced > 0) w.m_FileBytes += fwrite(w.m_ZBuf, 1, produced, w.m_FileHandle);
    if (zs->avail_out != 0) break;
  }
  w.m_BufUsed = 0;
}

void endEncoder(qorStreamWriter& w) {
  if (w.m_ZBuf != nullptr) {
    ::deflateEnd(w.m_ZStream);
    delete[] w.m_ZBuf;
    delete recordOf(w.m_ZStream);
    w.m_ZBuf = nullptr;
    w.m_ZStream = nullptr;
  }
  w.m_Compressed = false;
}

// Ends the running compressed stream (the buffered bytes first) and the
// encoder.
void finishEncoder(qorStreamWriter& w) {
  if (w.m_ZBuf != nullptr) compressBuf(w, Z_FINISH);
  endEncoder(w);
}

void switchEncoder(qorStreamWriter& w, bool on, int windowBits) {
  switchCodec(w, on, windowBits, kWriterZBufSize, finishEncoder, [](z_stream* zs, int bits) {
    return deflateInit2(zs, Z_DEFAULT_COMPRESSION, Z_DEFLATED, bits, 8, Z_DEFAULT_STRATEGY);
  });
}

}  // namespace

qorStreamWriter::qorStreamWriter(char const* fileName, char mode) {
  m_BufUsed = 0;
  openStream(*this, fileName, kWriterBufSize, kWriterZBufSize, mode == 'a' ? "ab" : "wb",
             "Unable to open file for write: ");
}

qorStreamWriter::~qorStreamWriter() {
  try {
    if (m_ZBuf != nullptr) {
      finishEncoder(*this);
    } else {
      emptyBuf();
    }
  } catch (qorException* e) {
    // A destructor cannot raise; the error is lost (see the header).
    delete e;
  }
  endEncoder(*this);
  if (m_FileHandle != nullptr) fclose(m_FileHandle);
  delete[] m_FileName;
  delete[] m_Buf;
}

void qorStreamWriter::gzip(bool on) { switchEncoder(*this, on, kGzipWindowBits); }

void qorStreamWriter::deflate(bool on) { switchEncoder(*this, on, kRawWindowBits); }

long qorStreamWriter::write(char* buf, int n) {
  if (n <= 0) return 0;
  if (buf == nullptr) qorThrow(kBufferIsNull, kUnit, __LINE__);
  if (static_cast<long>(m_BufUsed) + n < m_BufSize) {
    memcpy(m_Buf + m_BufUsed, buf, static_cast<size_t>(n));
    m_BufUsed += n;
    return n;
  }
  const char* src = buf;
  int left = n;
  if (m_ZBuf != nullptr) {
    // Compressed: only full buffers go to deflate, so the stream continues
    // until the last emptying ends it. A buffer filled exactly by the last
    // bytes stays full until then.
    while (left > 0) {
      if (m_BufUsed == m_BufSize) compressBuf(*this, kWriteFlush);
      const int room = m_BufSize - m_BufUsed;
      const int k = left < room ? left : room;
      memcpy(m_Buf + m_BufUsed, src, static_cast<size_t>(k));
      m_BufUsed += k;
      src += k;
      left -= k;
    }
    return n;
  }
  for (;;) {
    emptyBuf();
    if (left < m_BufSize) {
      memcpy(m_Buf, src, static_cast<size_t>(left));
      m_BufUsed = left;
      return n;
    }
    memcpy(m_Buf, src, static_cast<size_t>(m_BufSize));
    m_BufUsed = m_BufSize;
    src += m_BufSize;
    left -= m_BufSize;
    if (left == 0) return n;
  }
}

int qorStreamWriter::emptyBuf() {
  if (m_ZBuf != nullptr) {
    compressBuf(*this, Z_SYNC_FLUSH);
    return 0;
  }
  if (m_BufUsed > 0) m_FileBytes += fwrite(m_Buf, 1, static_cast<size_t>(m_BufUsed), m_FileHandle);
  m_BufUsed = 0;
  return 0;
}

int qorStreamWriter::rewind() {
  ::rewind(m_FileHandle);
  m_BufUsed = 0;
  if (m_ZBuf != nullptr) ::deflateReset(m_ZStream);
  return 0;
}

// Placeholders of the calls that report I/O errors and choose the decoder;
// each raises until it is built.
bool qorStreamReader::failed() const { return false; }
void qorStreamReader::checkRead() const {}
void qorStreamReader::readAllMembers(bool) {
  qorThrow("qorStreamReader::readAllMembers: not built yet", "qor_stream", __LINE__);
}
void qorStreamReader::useFastDecoder(bool) {}
bool qorStreamWriter::failed() const { return false; }
void qorStreamWriter::close() { qorThrow("qorStreamWriter::close: not built yet", "qor_stream", __LINE__); }
