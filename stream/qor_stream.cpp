#include "qor_stream.h"

#include <sys/stat.h>
#include <zlib.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "qor_assert.h"
#include "qor_message.h"
#include "qor_strings.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

const char kUnit[] = "qor_stream";

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

// Full buffers inside write() are compressed without a flush: the stream goes
// on and deflate chooses its own block boundaries, as a one-shot deflate of
// the same data would.
const int kWriteFlush = Z_NO_FLUSH;

// zlib's record together with the window bits it was started with, so that a
// second switch-on can tell the formats apart. m_ZStream points at the first
// member.
struct ZRecord {
  z_stream zs;
  int windowBits;
};
static_assert(offsetof(ZRecord, zs) == 0, "m_ZStream must point at the start of its record");

ZRecord* recordOf(z_stream* zs) { return reinterpret_cast<ZRecord*>(zs); }

// Releases the name copy and the buffer of a stream whose constructor fails.
struct OpenGuard {
  char* name;
  char* buf;
  ~OpenGuard() {
    delete[] name;
    delete[] buf;
  }
};

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
// Scanning: the first byte of [p, end) that a text reader must look at, or
// end. Stop is the terminating byte; carriage returns and tabs are special
// when the reader drops or expands them. Sixteen bytes per step with SSE2.
template <char Stop, bool DropCR, bool Expand>
inline const char* findSpecial(const char* p, const char* end) {
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

// Bytes into a QString, one UTF-16 code unit each: the byte taken as signed
// and widened, so 0x80..0xFF give U+FF80..U+FFFF.
const int kMaxQStringUnits = INT_MAX / 2 - 64;

void appendUnits(QString& s, const char* p, size_t n, ushort fill = 0) {
  if (n == 0) return;
  const int old = s.size();
  if (n > static_cast<size_t>(kMaxQStringUnits - old))
    qorThrow("string too long for a QString in qorStreamReader", kUnit, __LINE__);
  s.resize(old + static_cast<int>(n));
  ushort* d = reinterpret_cast<ushort*>(s.data()) + old;
  if (fill != 0) {
    for (size_t i = 0; i < n; ++i) d[i] = fill;
  } else {
    for (size_t i = 0; i < n; ++i) d[i] = static_cast<ushort>(static_cast<short>(static_cast<signed char>(p[i])));
  }
}

// The text readers share one loop. Out is std::string or QString; Stop ends
// the item; DropCR drops carriage returns; Expand turns tabs into four blanks.
inline void appendRun(std::string& s, const char* p, size_t n) { s.append(p, n); }
inline void appendRun(QString& s, const char* p, size_t n) { appendUnits(s, p, n); }
inline void appendBlanks(std::string& s) { s.append(4, ' '); }
inline void appendBlanks(QString& s) { appendUnits(s, nullptr, 4, ' '); }

template <char Stop, bool DropCR, bool Expand, typename Out>
bool readItem(qorStreamReader& r, Out& out) {
  for (;;) {
    if (r.m_BufLeft <= 0) {
      r.fillBuf();
      if (r.m_BufSize == 0) return false;
      if (r.m_BufLeft <= 0) continue;
    }
    const char* p = r.m_Buf + (r.m_BufSize - r.m_BufLeft);
    const char* const end = r.m_Buf + r.m_BufSize;
    for (;;) {
      const char* q = findSpecial<Stop, DropCR, Expand>(p, end);
      appendRun(out, p, static_cast<size_t>(q - p));
      if (q == end) {
        r.m_BufLeft = 0;
        break;
      }
      const char c = *q;
      p = q + 1;
      if (c == Stop) {
        r.m_BufLeft = static_cast<int>(end - p);
        return true;
      }
      if (Expand && c == '\t') {
        // Keep the position right before anything that may throw.
        r.m_BufLeft = static_cast<int>(end - p);
        appendBlanks(out);
      }
      // A carriage return is dropped.
    }
  }
}

template <bool Expand>
bool readStdLine(qorStreamReader& r, std::string& s) {
  s.clear();
  return readItem<'\n', true, Expand>(r, s);
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
  if (fileName == nullptr) qorThrow("Filename is null!", kUnit, __LINE__);
  OpenGuard guard{qorStrdup(fileName), nullptr};
  guard.buf = new char[kReaderBufSize];
  m_FileName = guard.name;
  m_Compressed = false;
  m_ZBuf = nullptr;
  m_ZStream = nullptr;
  m_BufSize = kReaderBufSize;
  m_Buf = guard.buf;
  m_ZBufSize = kReaderZBufSize;
  m_BufLeft = 0;
  m_FileBytes = 0;
  m_FileHandle = fopen(m_FileName, "rb");
  if (m_FileHandle == nullptr) {
    // Compose before the guard releases the name.
    qorThrow(qorComposeMessage("Unable to open file for read: ", m_FileName), kUnit, __LINE__);
  }
  guard.name = nullptr;
  guard.buf = nullptr;
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
  if (!on) {
    endDecoder(r);
    return;
  }
  if (r.m_ZBuf != nullptr) {
    // Already decoding: the same format keeps its decoder, another one
    // replaces it.
    if (recordOf(r.m_ZStream)->windowBits == windowBits) return;
    endDecoder(r);
  }
  std::unique_ptr<char[]> zbuf(new char[kReaderZBufSize]);
  std::unique_ptr<ZRecord> record(new ZRecord());
  record->windowBits = windowBits;
  z_stream* zs = &record->zs;
  zs->zalloc = Z_NULL;
  zs->zfree = Z_NULL;
  zs->opaque = Z_NULL;
  zs->next_in = Z_NULL;
  zs->avail_in = 0;
  if (inflateInit2(zs, windowBits) != Z_OK) qorThrow("Error initialising zlib", kUnit, __LINE__);
  r.m_ZBufSize = kReaderZBufSize;
  r.m_ZBuf = zbuf.release();
  r.m_ZStream = &record.release()->zs;
  r.m_Compressed = true;
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

char* qorStreamReader::readLine(bool expandTabs) {
  static char line[kLineBufSize];
  // consumed counts the bytes of the line but its line feed; the line is
  // refused once consumed + 1 reaches kLineCountLimit, or when the written
  // text and its terminator would not fit the buffer.
  size_t consumed = 0;
  size_t written = 0;
  const size_t maxConsumed = kLineCountLimit - 1;  // 65535: the byte that raises
  const size_t maxWritten = kLineBufSize - 1;
  for (;;) {
    if (m_BufLeft <= 0) {
      fillBuf();
      if (m_BufSize == 0) return nullptr;
      if (m_BufLeft <= 0) continue;
    }
    const char* p = m_Buf + (m_BufSize - m_BufLeft);
    const char* const end = m_Buf + m_BufSize;
    for (;;) {
      const char* q = expandTabs ? findSpecial<'\n', true, true>(p, end) : findSpecial<'\n', true, false>(p, end);
      const size_t run = static_cast<size_t>(q - p);
      if (consumed + run >= maxConsumed || written + run > maxWritten) {
        // The byte that passes a limit is consumed, then the line is refused.
        const size_t byCount = maxConsumed - consumed;
        const size_t byRoom = maxWritten - written + 1;
        const size_t take = byCount < byRoom ? byCount : byRoom;
        m_BufLeft = static_cast<int>(end - (p + take));
        qorThrow("line > 64k chars in qorStreamReader::readLine", kUnit, __LINE__);
      }
      memcpy(line + written, p, run);
      written += run;
      consumed += run;
      if (q == end) {
        m_BufLeft = 0;
        break;
      }
      const char c = *q;
      p = q + 1;
      m_BufLeft = static_cast<int>(end - p);
      if (c == '\n') {
        line[written] = '\0';
        return line;
      }
      ++consumed;
      if (consumed >= maxConsumed) qorThrow("line > 64k chars in qorStreamReader::readLine", kUnit, __LINE__);
      if (c == '\t') {
        if (written + 4 > maxWritten) qorThrow("line > 64k chars in qorStreamReader::readLine", kUnit, __LINE__);
        memset(line + written, ' ', 4);
        written += 4;
      }
      // A carriage return is dropped.
    }
  }
}

bool qorStreamReader::readLine(QString& s, bool expandTabs) {
  s.resize(0);
  return expandTabs ? readItem<'\n', true, true>(*this, s) : readItem<'\n', true, false>(*this, s);
}

bool qorStreamReader::readLine(std::string& s, bool expandTabs) {
  return expandTabs ? readStdLine<true>(*this, s) : readStdLine<false>(*this, s);
}

bool qorStreamReader::readString(QString& s, bool expandTabs) {
  s.resize(0);
  return expandTabs ? readItem<'\0', false, true>(*this, s) : readItem<'\0', false, false>(*this, s);
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
  if (!on) {
    finishEncoder(w);
    return;
  }
  if (w.m_ZBuf != nullptr) {
    if (recordOf(w.m_ZStream)->windowBits == windowBits) return;
    finishEncoder(w);
  }
  std::unique_ptr<char[]> zbuf(new char[kWriterZBufSize]);
  std::unique_ptr<ZRecord> record(new ZRecord());
  record->windowBits = windowBits;
  z_stream* zs = &record->zs;
  zs->zalloc = Z_NULL;
  zs->zfree = Z_NULL;
  zs->opaque = Z_NULL;
  if (deflateInit2(zs, Z_DEFAULT_COMPRESSION, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY) != Z_OK)
    qorThrow("Error initialising zlib", kUnit, __LINE__);
  w.m_ZBufSize = kWriterZBufSize;
  w.m_ZBuf = zbuf.release();
  w.m_ZStream = &record.release()->zs;
  w.m_Compressed = true;
}

}  // namespace

qorStreamWriter::qorStreamWriter(char const* fileName, char mode) {
  if (fileName == nullptr) qorThrow("Filename is null!", kUnit, __LINE__);
  OpenGuard guard{qorStrdup(fileName), nullptr};
  guard.buf = new char[kWriterBufSize];
  m_FileName = guard.name;
  m_Compressed = false;
  m_ZBuf = nullptr;
  m_ZStream = nullptr;
  m_BufSize = kWriterBufSize;
  m_Buf = guard.buf;
  m_ZBufSize = kWriterZBufSize;
  m_BufUsed = 0;
  m_FileBytes = 0;
  m_FileHandle = fopen(m_FileName, mode == 'a' ? "ab" : "wb");
  if (m_FileHandle == nullptr) {
    qorThrow(qorComposeMessage("Unable to open file for write: ", m_FileName), kUnit, __LINE__);
  }
  guard.name = nullptr;
  guard.buf = nullptr;
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
