#include <qor/qor_stream.h>
#include <sys/stat.h>
#include <zlib.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#if defined(QOR_HAVE_ISAL)
#include <isa-l/igzip_lib.h>
#endif

#include <qor/qor_assert.h>
#include <qor/qor_strings.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "internal/qor_linescan.h"

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

// State beyond the public fields lives in a side record placed right
// after the data buffer, in the same allocation (m_Buf is 16-byte aligned and
// its size a multiple of 16), so that it exists in every state of the stream
// and the records keep their layout.
struct FastDecoder;

struct ReaderSide {
  int readErrno = 0;                 // errno of the first failed read of the file; 0: none
  bool allMembers = false;           // readAllMembers(true)
  bool fast = false;                 // useFastDecoder(true)
  bool fastActive = false;           // the current member is decoded by the fast decoder
  bool ended = false;                // the running stream (gzip: member) has ended
  bool started = false;              // input of the current member has been read
  long long memberStart = -1;        // file offset of the current member; -1: not yet known
  unsigned long long memberOut = 0;  // bytes of the current member delivered by the fast decoder
  FastDecoder* fastState = nullptr;  // the fast decoder's record, made on first use
};

struct WriterSide {
  int writeErrno = 0;   // errno of the first write that lost bytes; 0: none
  bool closed = false;  // close() ran
};

static_assert(kReaderBufSize % 16 == 0 && kWriterBufSize % 16 == 0, "side records must stay aligned");

ReaderSide* sideOf(const qorStreamReader& r) { return reinterpret_cast<ReaderSide*>(r.m_Buf + kReaderBufSize); }
WriterSide* sideOf(const qorStreamWriter& w) { return reinterpret_cast<WriterSide*>(w.m_Buf + kWriterBufSize); }

// Releases the name copy and the buffer of a stream whose constructor fails.
struct OpenGuard {
  char* name;
  char* buf;
  FILE* file;
  ~OpenGuard() {
    if (file != nullptr) fclose(file);
    delete[] name;
    delete[] buf;
  }
};

// Sets up the fields both streams share and opens the file: name copy,
// data buffer with the side record after it, no codec yet, nothing counted.
// A failed open, or a directory where a reader expects a file, raises
// "<failure><name>\n" and leaves nothing allocated.
template <typename Side, typename Stream>
void openStream(Stream& s, char const* fileName, size_t bufSize, size_t zbufSize, const char* fopenMode,
                const char* failure) {
  if (fileName == nullptr) qorThrow("Filename is null!", kUnit, __LINE__);
  OpenGuard guard{qorStrdup(fileName), nullptr, nullptr};
  guard.buf = new char[bufSize + sizeof(Side)];
  new (guard.buf + bufSize) Side();
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
  guard.file = s.m_FileHandle;
  // fopen(dir, "rb") succeeds and the first read fails: refuse it here, or it
  // would read as an empty file.
  struct stat st;
  if (fstat(fileno(s.m_FileHandle), &st) == 0 && S_ISDIR(st.st_mode))
    qorThrowComposed(failure, s.m_FileName, kUnit, __LINE__);
  guard.name = nullptr;
  guard.buf = nullptr;
  guard.file = nullptr;
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
// Text readers: the scanner of internal/qor_linescan.h finds the bytes that
// need a decision, and a sink takes the result.

using qor_internal::copyItem;

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
      qorThrow("qorStreamReader: string too long for a QString", kUnit, __LINE__);
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

namespace {

void fillDecoded(qorStreamReader& r);

#if defined(QOR_HAVE_ISAL)
// ---------------------------------------------------------------------------
// The fast decoder: ISA-L's inflate on the same input and output buffers.
// The pending input stays in the z_stream's next_in/avail_in, so the two
// decoders can hand over to each other at any fill.

struct FastDecoder {
  inflate_state state;
};

void resetFast(FastDecoder* fast) { isal_inflate_reset(&fast->state); }

enum FastResult { kFastDone, kFastMore, kFastFault };

FastResult decodeFast(qorStreamReader& r, ReaderSide& side, bool everyMember) {
  z_stream* zs = r.m_ZStream;
  if (side.fastState == nullptr) {
    // Zeroed first: isal_inflate_init leaves some fields (the history size,
    // among others) as it finds them, and the decoder must not depend on
    // what the memory held before.
    side.fastState = new FastDecoder();
    isal_inflate_init(&side.fastState->state);
  }
  inflate_state* st = &side.fastState->state;
  st->crc_flag = recordOf(zs)->windowBits == kGzipWindowBits ? ISAL_GZIP : ISAL_DEFLATE;
  st->next_in = zs->next_in;
  st->avail_in = zs->avail_in;
  st->next_out = reinterpret_cast<uint8_t*>(r.m_Buf);
  st->avail_out = static_cast<uint32_t>(kReaderBufSize);
  const uint32_t before = st->total_out;
  const int ret = isal_inflate(st);
  zs->next_in = st->next_in;
  zs->avail_in = st->avail_in;
  if (ret < 0) return kFastFault;
  const int produced = static_cast<int>(st->total_out - before);
  r.m_BufSize = produced;
  r.m_BufLeft = produced;
  side.memberOut += static_cast<unsigned>(produced);
  if (st->block_state == ISAL_BLOCK_FINISH) {
    side.ended = true;
    return produced > 0 || !everyMember ? kFastDone : kFastMore;
  }
  if (produced > 0) return kFastDone;
  if (zs->avail_in == 0) return kFastMore;
  return kFastFault;  // input left, nothing decoded: not a state ISA-L should stop in
}

// Goes back to the start of the current member and decodes it with zlib,
// dropping the bytes the fast decoder has delivered already. zlib then
// raises what it finds wrong exactly as the default decoder does; where it
// finds nothing wrong, it simply carries on with the rest of the member.
void fallBackToZlib(qorStreamReader& r, ReaderSide& side) {
  unsigned long long skip = side.memberOut;
  side.fastActive = false;
  const long long pos = ftello(r.m_FileHandle);
  if (side.memberStart < 0 || pos < 0 || fseeko(r.m_FileHandle, side.memberStart, SEEK_SET) != 0)
    qorThrowComposed("Corrupt compressed data in ", r.m_FileName, kUnit, __LINE__);
  r.m_FileBytes -= static_cast<size_t>(pos - side.memberStart);
  z_stream* zs = r.m_ZStream;
  ::inflateReset(zs);
  zs->next_in = Z_NULL;
  zs->avail_in = 0;
  for (;;) {
    fillDecoded(r);
    if (r.m_BufSize == 0 || skip == 0) return;
    if (static_cast<unsigned long long>(r.m_BufSize) > skip) {
      const int keep = r.m_BufSize - static_cast<int>(skip);
      memmove(r.m_Buf, r.m_Buf + skip, static_cast<size_t>(keep));
      r.m_BufSize = keep;
      r.m_BufLeft = keep;
      return;
    }
    skip -= static_cast<unsigned long long>(r.m_BufSize);
  }
}
#endif

// ---------------------------------------------------------------------------
// Decoding

// Reads up to n bytes of the file into dst and counts them. A failed read
// ends the data here as the end of the file would; its errno is kept for
// failed() and checkRead().
size_t readFile(qorStreamReader& r, char* dst, size_t n) {
  const size_t got = fread(dst, 1, n, r.m_FileHandle);
  r.m_FileBytes += got;
  if (got < n && ferror(r.m_FileHandle)) {
    ReaderSide& side = *sideOf(r);
    if (side.readErrno == 0) side.readErrno = errno != 0 ? errno : EIO;
  }
  return got;
}

// A member (or a raw stream) starts at file offset `start` (-1: unknown).
void restartMember(ReaderSide& side, long long start) {
  side.ended = false;
  side.started = false;
  side.memberStart = start;
  side.memberOut = 0;
  side.fastActive = side.fast;
#if defined(QOR_HAVE_ISAL)
  if (side.fastState != nullptr) resetFast(side.fastState);
#endif
}

void endDecoder(qorStreamReader& r) {
  ReaderSide& side = *sideOf(r);
  if (r.m_ZBuf != nullptr) {
    ::inflateEnd(r.m_ZStream);
    delete[] r.m_ZBuf;
    delete recordOf(r.m_ZStream);
    r.m_ZBuf = nullptr;
    r.m_ZStream = nullptr;
  }
#if defined(QOR_HAVE_ISAL)
  delete side.fastState;
#endif
  side.fastState = nullptr;
  r.m_Compressed = false;
}

void switchDecoder(qorStreamReader& r, bool on, int windowBits) {
  switchCodec(r, on, windowBits, kReaderZBufSize, endDecoder, [&r](z_stream* zs, int bits) {
    restartMember(*sideOf(r), -1);
    return inflateInit2(zs, bits);
  });
}

// After the end of a gzip member, with every member asked for: starts the
// next member, or returns false at the end of the file. Bytes that do not
// start a member (the gzip magic 1f 8b) raise.
bool startNextMember(qorStreamReader& r) {
  z_stream* zs = r.m_ZStream;
  while (zs->avail_in < 2) {
    const size_t have = zs->avail_in;
    if (have == 1) r.m_ZBuf[0] = static_cast<char>(*zs->next_in);
    const size_t got = readFile(r, r.m_ZBuf + have, r.m_ZBufSize - have);
    zs->next_in = reinterpret_cast<Bytef*>(r.m_ZBuf);
    zs->avail_in = static_cast<uInt>(have + got);
    if (got == 0) break;
  }
  if (zs->avail_in == 0) return false;
  if (zs->avail_in < 2 || zs->next_in[0] != 0x1f || zs->next_in[1] != 0x8b)
    qorThrowComposed("qorStreamReader: trailing garbage after gzip member in ", r.m_FileName, kUnit, __LINE__);
  ::inflateReset(zs);  // keeps the pending input
  const long long pos = ftello(r.m_FileHandle);
  restartMember(*sideOf(r), pos < 0 ? -1 : pos - static_cast<long long>(zs->avail_in));
  sideOf(r)->started = true;
  return true;
}

// One decoding attempt into m_Buf. Returns true when the fill is done
// (m_BufSize and m_BufLeft set), false to try again with more input.
bool decodeZlib(qorStreamReader& r, ReaderSide& side, bool fileEnded, bool everyMember) {
  z_stream* zs = r.m_ZStream;
  zs->next_out = reinterpret_cast<Bytef*>(r.m_Buf);
  zs->avail_out = static_cast<uInt>(kReaderBufSize);
  const uLong before = zs->total_out;
  const uInt inBefore = zs->avail_in;
  const int ret = ::inflate(zs, Z_SYNC_FLUSH);
  const int produced = static_cast<int>(zs->total_out - before);
  r.m_BufSize = produced;
  r.m_BufLeft = produced;
  if (ret == Z_STREAM_END) {
    side.ended = true;
    return produced > 0 || !everyMember;
  }
  if ((ret == Z_OK || ret == Z_BUF_ERROR) && produced > 0) return true;
  if (ret != Z_OK && ret != Z_BUF_ERROR) raiseZlib(zs, ret, r.m_FileName, fileEnded);
  // Nothing decoded and the stream goes on: a file that has ended was cut
  // inside the stream. Otherwise go on while input is being consumed.
  if (fileEnded) raiseZlib(zs, Z_BUF_ERROR, r.m_FileName, true);
  if (zs->avail_in == 0) return false;
  if (ret == Z_OK && zs->avail_in != inBefore) return false;
  raiseZlib(zs, Z_BUF_ERROR, r.m_FileName, false);
}

// The compressed fill. A fill that decodes nothing although the stream goes
// on (a long header, empty blocks) tries again with more input, so that an
// empty buffer always means the end of the data. After the end of the
// stream, input is read and dropped as before, unless every gzip member is
// asked for.
void fillDecoded(qorStreamReader& r) {
  ReaderSide& side = *sideOf(r);
  z_stream* zs = r.m_ZStream;
  const bool everyMember = side.allMembers && recordOf(zs)->windowBits == kGzipWindowBits;
  for (;;) {
    if (side.ended && everyMember && !startNextMember(r)) {
      r.m_BufSize = 0;
      r.m_BufLeft = 0;
      return;
    }
    bool fileEnded = false;
    if (zs->avail_in == 0 || side.ended) {
      const size_t got = readFile(r, r.m_ZBuf, r.m_ZBufSize);
      zs->next_in = reinterpret_cast<Bytef*>(r.m_ZBuf);
      zs->avail_in = static_cast<uInt>(got);
      fileEnded = (got == 0);
      if (!side.started && !side.ended) {
        side.started = true;
        const long long pos = ftello(r.m_FileHandle);
        side.memberStart = pos < 0 ? -1 : pos - static_cast<long long>(got);
      }
    }
    if (side.ended) {
      r.m_BufSize = 0;
      r.m_BufLeft = 0;
      return;
    }
#if defined(QOR_HAVE_ISAL)
    if (side.fastActive) {
      const FastResult result = decodeFast(r, side, everyMember);
      if (result == kFastDone) return;
      if (result == kFastMore && !fileEnded) continue;
      // A fault, or a file that ends inside the stream: decode the member
      // again with zlib, which reports it in its own words.
      fallBackToZlib(r, side);
      return;
    }
#endif
    if (decodeZlib(r, side, fileEnded, everyMember)) return;
  }
}

}  // namespace

// ===========================================================================
// qorStreamReader

qorStreamReader::qorStreamReader(char const* fileName) {
  m_BufLeft = 0;
  openStream<ReaderSide>(*this, fileName, kReaderBufSize, kReaderZBufSize, "rb", "Unable to open file for read: ");
}

qorStreamReader::~qorStreamReader() {
  if (m_FileHandle != nullptr) fclose(m_FileHandle);
  endDecoder(*this);
  delete[] m_FileName;
  delete[] m_Buf;
}

long qorStreamReader::size() {
  struct stat st;
  if (fstat(fileno(m_FileHandle), &st) != 0) qorThrowComposed("fstat failed: ", strerror(errno), kUnit, __LINE__);
  return static_cast<long>(st.st_size);
}

void qorStreamReader::gunzip(bool on) { switchDecoder(*this, on, kGzipWindowBits); }

void qorStreamReader::inflate(bool on) { switchDecoder(*this, on, kRawWindowBits); }

int qorStreamReader::rewind() {
  ::rewind(m_FileHandle);
  m_BufLeft = 0;
  if (m_ZBuf != nullptr) {
    ::inflateReset(m_ZStream);
    m_ZStream->next_in = Z_NULL;
    m_ZStream->avail_in = 0;
    restartMember(*sideOf(*this), 0);
  }
  return 0;
}

void qorStreamReader::fillBuf() {
  m_BufSize = kReaderBufSize;
  if (!m_Compressed || m_ZBuf == nullptr) {
    const size_t got = readFile(*this, m_Buf, kReaderBufSize);
    m_BufLeft = static_cast<int>(got);
    if (got < static_cast<size_t>(kReaderBufSize)) m_BufSize = static_cast<int>(got);
    return;
  }
  fillDecoded(*this);
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

namespace {

// The line buffer of readLine(bool): one per thread, made on the thread's
// first call and released when the thread ends. A pointer, not the buffer
// itself, is thread-local: a 64 KiB thread_local array would take static TLS
// space, which programs that load the library with dlopen may not have. The
// pointer uses the initial-exec model (eight bytes, which glibc's reserve for
// dlopen covers), so a call reads it with one load instead of two calls to
// __tls_get_addr: that cost readLine(bool) 12 to 18 per cent on lines of 70
// bytes (BM_qorStreamReader_PlainReadLineStatic).
__attribute__((tls_model("initial-exec"))) thread_local char* t_LineBuffer = nullptr;

// Owns the thread's buffer; its destructor runs when the thread ends.
struct LineBufferOwner {
  std::unique_ptr<char[]> buffer;
  ~LineBufferOwner() { t_LineBuffer = nullptr; }
};

char* makeLineBuffer() {
  static thread_local LineBufferOwner owner;
  owner.buffer.reset(new char[kLineBufSize]);
  t_LineBuffer = owner.buffer.get();
  return t_LineBuffer;
}

inline char* lineBuffer() {
  char* const line = t_LineBuffer;
  return line != nullptr ? line : makeLineBuffer();
}

}  // namespace

char* qorStreamReader::readLine(bool expandTabs) {
  char* const line = lineBuffer();
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

// Writes n bytes with fwrite and counts what it reports. A short write
// (a full disk, say) is kept, with its errno, for failed() and close().
void writeFile(qorStreamWriter& w, const char* src, size_t n) {
  const size_t put = fwrite(src, 1, n, w.m_FileHandle);
  w.m_FileBytes += put;
  if (put < n) {
    WriterSide& side = *sideOf(w);
    if (side.writeErrno == 0) side.writeErrno = errno != 0 ? errno : EIO;
  }
}

// Raises when the writer has been closed: nothing may reach the file after
// close().
void requireOpen(const qorStreamWriter& w) {
  if (sideOf(w)->closed) qorThrowComposed("qorStreamWriter: the file is closed: ", w.m_FileName, kUnit, __LINE__);
}

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
    if (produced > 0) writeFile(w, w.m_ZBuf, produced);
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
  if (on) requireOpen(w);
  switchCodec(w, on, windowBits, kWriterZBufSize, finishEncoder, [](z_stream* zs, int bits) {
    return deflateInit2(zs, Z_DEFAULT_COMPRESSION, Z_DEFLATED, bits, 8, Z_DEFAULT_STRATEGY);
  });
}

}  // namespace

qorStreamWriter::qorStreamWriter(char const* fileName, char mode) {
  m_BufUsed = 0;
  openStream<WriterSide>(*this, fileName, kWriterBufSize, kWriterZBufSize, mode == 'a' ? "ab" : "wb",
                         "Unable to open file for write: ");
}

qorStreamWriter::~qorStreamWriter() {
  if (sideOf(*this)->closed) {
    delete[] m_FileName;
    delete[] m_Buf;
    return;
  }
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
  // After close() the buffer is marked full, so every write comes here.
  requireOpen(*this);
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
  requireOpen(*this);
  if (m_ZBuf != nullptr) {
    compressBuf(*this, Z_SYNC_FLUSH);
    return 0;
  }
  if (m_BufUsed > 0) writeFile(*this, m_Buf, static_cast<size_t>(m_BufUsed));
  m_BufUsed = 0;
  return 0;
}

int qorStreamWriter::rewind() {
  requireOpen(*this);
  ::rewind(m_FileHandle);
  m_BufUsed = 0;
  if (m_ZBuf != nullptr) ::deflateReset(m_ZStream);
  return 0;
}

void qorStreamWriter::close() {
  WriterSide& side = *sideOf(*this);
  if (side.closed) return;
  try {
    if (m_ZBuf != nullptr) {
      finishEncoder(*this);
    } else {
      emptyBuf();
    }
  } catch (qorException*) {
    side.closed = true;
    endEncoder(*this);
    fclose(m_FileHandle);
    m_FileHandle = nullptr;
    m_BufUsed = m_BufSize;
    throw;
  }
  side.closed = true;
  // Bytes may still wait in stdio's buffer: a full disk shows at the flush.
  if (fflush(m_FileHandle) != 0 && side.writeErrno == 0) side.writeErrno = errno != 0 ? errno : EIO;
  if (fclose(m_FileHandle) != 0 && side.writeErrno == 0) side.writeErrno = errno != 0 ? errno : EIO;
  m_FileHandle = nullptr;
  // A full buffer sends every later write() to its slow path, which raises.
  m_BufUsed = m_BufSize;
  if (side.writeErrno != 0) {
    const std::string prefix = std::string("Write failed for ") + m_FileName + ": ";
    qorThrowComposed(prefix.c_str(), strerror(side.writeErrno), kUnit, __LINE__);
  }
}

bool qorStreamWriter::failed() const { return sideOf(*this)->writeErrno != 0; }

// ===========================================================================
// Reader: errors and choices beside the original calls

bool qorStreamReader::failed() const { return sideOf(*this)->readErrno != 0; }

void qorStreamReader::checkRead() const {
  const int err = sideOf(*this)->readErrno;
  if (err == 0) return;
  const std::string prefix = std::string("Read failed for ") + m_FileName + ": ";
  qorThrowComposed(prefix.c_str(), strerror(err), kUnit, __LINE__);
}

void qorStreamReader::readAllMembers(bool on) { sideOf(*this)->allMembers = on; }

void qorStreamReader::useFastDecoder(bool on) {
  ReaderSide& side = *sideOf(*this);
  side.fast = on;
  // A member being decoded keeps its decoder; the choice holds from the next
  // member, rewind() or switch-on.
  if (!side.started) side.fastActive = on;
}
