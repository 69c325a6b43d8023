// qorStreamReader: plain bytes, gzip members and raw deflate through one
// 64 KiB buffer, which every reading operation takes its bytes from through
// one cursor.
#include <qor/qor_stream.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <string>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "internal/qor_codec.h"
#include "internal/qor_linescan.h"
#include "internal/qor_streambase.h"

using qor_internal::copyItem;
using qor_internal::Decoded;
using qor_internal::Inflater;
using qor_internal::kBufferIsNull;
using qor_internal::kStreamUnit;

namespace {

const int kReaderBufSize = 65536;
const size_t kReaderZBufSize = 16384;
const int kPeekMax = 16384;

// What the reader decodes, and with which decoder while a stream runs. The
// fast decoder takes only gzip members (see Inflater::takes).
enum class Mode : unsigned char { kPlain, kGzip, kGzipFast, kRaw };

// Where the running compressed stream (gzip: member) stands.
enum class Phase : unsigned char {
  kStart,    // not begun: its decoder is chosen at its first step
  kRunning,  // being decoded
  kEnded,    // ended; the data ends with it unless every gzip member is asked for
  kGarbage,  // ended, and followed by bytes that start no member: every fill raises
};

struct ReaderSide {
  Mode mode = Mode::kPlain;
  Phase phase = Phase::kStart;
  bool fast = false;               // useFastDecoder(true): the decoder for the next stream
  bool allMembers = false;         // readAllMembers(true)
  int readErrno = 0;               // errno of the first failed read of the file; 0: none
  long long offset = 0;            // file offset of the next byte the reader takes (peeked bytes are not taken)
  long long streamStart = 0;       // file offset where the running stream began
  unsigned long long fastOut = 0;  // bytes of the running stream delivered by the fast decoder
  std::unique_ptr<Inflater> fastInflater;
  std::unique_ptr<char[]> peeked;  // kPeekMax bytes once peek() is used; [peekPos, peekEnd) not yet taken
  int peekPos = 0;
  int peekEnd = 0;
  std::string spill;  // readLineView's lines that cannot be shown inside m_Buf
};

ReaderSide& sideOf(const qorStreamReader& r) { return *qor_internal::sideAfter<ReaderSide>(r.m_Buf, kReaderBufSize); }

void setFill(qorStreamReader& r, int n) {
  r.m_BufSize = n;
  r.m_BufLeft = n;
}

// ---------------------------------------------------------------------------
// Input

// fread with the failure kept: a failed read ends the data here as the end of
// the file would; its errno is kept for failed() and checkRead().
size_t readRaw(qorStreamReader& r, char* dst, size_t n) {
  const size_t got = fread(dst, 1, n, r.m_FileHandle);
  if (got < n && ferror(r.m_FileHandle)) {
    ReaderSide& side = sideOf(r);
    if (side.readErrno == 0) side.readErrno = qor_internal::ioErrno();
  }
  return got;
}

// Takes up to n bytes of the file into dst, the peeked ones first, and counts
// them.
size_t readFile(qorStreamReader& r, char* dst, size_t n) {
  ReaderSide& side = sideOf(r);
  size_t got = 0;
  if (side.peekPos < side.peekEnd) {
    got = std::min(n, static_cast<size_t>(side.peekEnd - side.peekPos));
    memcpy(dst, side.peeked.get() + side.peekPos, got);
    side.peekPos += static_cast<int>(got);
  }
  if (got < n) got += readRaw(r, dst + got, n - got);
  r.m_FileBytes += got;
  side.offset += static_cast<long long>(got);
  return got;
}

// Moves the file to offset and forgets the peeked bytes. False when the file
// cannot seek, with the reader as it was.
bool seekTo(qorStreamReader& r, long long offset) {
  if (lseek(fileno(r.m_FileHandle), 0, SEEK_CUR) < 0 || fseeko(r.m_FileHandle, offset, SEEK_SET) != 0) return false;
  clearerr(r.m_FileHandle);
  ReaderSide& side = sideOf(r);
  side.offset = offset;
  side.peekPos = side.peekEnd = 0;
  return true;
}

// Replaces the pending input with the next piece of the file; returns its size.
size_t readInput(qorStreamReader& r) {
  z_stream* zs = r.m_ZStream;
  const size_t got = readFile(r, r.m_ZBuf, r.m_ZBufSize);
  zs->next_in = reinterpret_cast<Bytef*>(r.m_ZBuf);
  zs->avail_in = static_cast<uInt>(got);
  return got;
}

// Reads more input behind the pending bytes (moved to the front of m_ZBuf)
// until `need` bytes are pending or the file ends; returns the pending count.
size_t topUp(qorStreamReader& r, size_t need) {
  z_stream* zs = r.m_ZStream;
  while (zs->avail_in < need) {
    const size_t have = zs->avail_in;
    if (have > 0) memmove(r.m_ZBuf, zs->next_in, have);
    const size_t got = readFile(r, r.m_ZBuf + have, r.m_ZBufSize - have);
    zs->next_in = reinterpret_cast<Bytef*>(r.m_ZBuf);
    zs->avail_in = static_cast<uInt>(have + got);
    if (got == 0) break;
  }
  return zs->avail_in;
}

// ---------------------------------------------------------------------------
// Decoding

Mode formatOf(const qorStreamReader& r) {
  return qor_internal::windowBitsOf(r.m_ZStream) == qor_internal::kGzipWindowBits ? Mode::kGzip : Mode::kRaw;
}

Inflater& decoderOf(ReaderSide& side) {
  return side.mode == Mode::kGzipFast ? *side.fastInflater : qor_internal::zlibInflater();
}

// A new stream (gzip: member) starts with the pending input.
void restartStream(qorStreamReader& r) {
  ReaderSide& side = sideOf(r);
  ::inflateReset(r.m_ZStream);
  side.mode = formatOf(r);
  side.phase = Phase::kStart;
  side.streamStart = side.offset - static_cast<long long>(r.m_ZStream->avail_in);
  side.fastOut = 0;
}

// At the first step of a stream: the fast decoder when it is asked for, built
// in and takes the stream's header; zlib otherwise.
void beginStream(qorStreamReader& r, ReaderSide& side) {
  side.phase = Phase::kRunning;
  if (!side.fast || side.mode != Mode::kGzip) return;
  if (side.fastInflater == nullptr && (side.fastInflater = qor_internal::newFastInflater()) == nullptr) return;
  topUp(r, r.m_ZBufSize);  // the whole header, if it fits
  if (!side.fastInflater->takes(r.m_ZStream)) return;
  side.fastInflater->restart(r.m_ZStream);
  side.mode = Mode::kGzipFast;
}

void fillDecoded(qorStreamReader& r, ReaderSide& side);

// Goes back to the start of the running stream and decodes it with zlib,
// dropping the bytes the fast decoder has delivered already. zlib then raises
// what it finds wrong exactly as the default decoder does; where it finds
// nothing wrong, it simply carries on with the rest of the stream. Input that
// cannot seek cannot be read again, and the fault is raised in our words.
void fallBackToZlib(qorStreamReader& r, ReaderSide& side, bool fileEnded) {
  const long long taken = side.offset - side.streamStart;
  if (!seekTo(r, side.streamStart)) {
    setFill(r, 0);
    qorThrowComposed(fileEnded ? "Unexpected end of compressed data in " : "Corrupt compressed data in ", r.m_FileName,
                     kStreamUnit, __LINE__);
  }
  r.m_FileBytes -= static_cast<size_t>(taken);
  r.m_ZStream->next_in = Z_NULL;
  r.m_ZStream->avail_in = 0;
  unsigned long long skip = side.fastOut;
  restartStream(r);
  side.phase = Phase::kRunning;  // with zlib
  for (;;) {
    fillDecoded(r, side);
    if (r.m_BufSize == 0 || skip == 0) return;
    if (static_cast<unsigned long long>(r.m_BufSize) > skip) {
      const int keep = r.m_BufSize - static_cast<int>(skip);
      memmove(r.m_Buf, r.m_Buf + skip, static_cast<size_t>(keep));
      setFill(r, keep);
      return;
    }
    skip -= static_cast<unsigned long long>(r.m_BufSize);
  }
}

// Zero bytes up to the end of the file, the padding of tape blocks and dd,
// which gzip -dc takes as the end of the data. False at the first other byte,
// which is then the next pending byte.
bool onlyZerosLeft(qorStreamReader& r) {
  z_stream* zs = r.m_ZStream;
  for (;;) {
    Bytef* p = zs->next_in;
    Bytef* const end = p + zs->avail_in;
    while (p < end && *p == 0) ++p;
    zs->next_in = p;
    zs->avail_in = static_cast<uInt>(end - p);
    if (p != end) return false;
    if (readInput(r) == 0) return true;
  }
}

// After the end of a gzip member, with every member asked for: starts the
// next member, or returns false at the end of the file (after zero padding,
// too). Bytes that do not start a member (the gzip magic 1f 8b) raise, and so
// does every later fill.
bool startNextMember(qorStreamReader& r, ReaderSide& side) {
  z_stream* zs = r.m_ZStream;
  if (side.phase != Phase::kGarbage) {
    if (topUp(r, 2) == 0) return false;
    const bool padded = zs->next_in[0] == 0;
    if (padded && onlyZerosLeft(r)) return false;
    if (!padded && zs->avail_in >= 2 && zs->next_in[0] == 0x1f && zs->next_in[1] == 0x8b) {
      restartStream(r);
      return true;
    }
    side.phase = Phase::kGarbage;
  }
  qorThrowComposed("qorStreamReader: trailing garbage after gzip member in ", r.m_FileName, kStreamUnit, __LINE__);
}

// The compressed fill. A step that decodes nothing although the stream goes
// on (a long header, empty blocks) is tried again with more input, so that an
// empty buffer always means the end of the data. After the end of the stream,
// input is read and dropped, unless every gzip member is asked for.
void fillDecoded(qorStreamReader& r, ReaderSide& side) {
  z_stream* zs = r.m_ZStream;
  const bool everyMember = side.allMembers && formatOf(r) == Mode::kGzip;
  for (;;) {
    if (side.phase >= Phase::kEnded) {
      setFill(r, 0);
      if (!everyMember) {
        readInput(r);
        return;
      }
      if (!startNextMember(r, side)) return;
    }
    const bool fileEnded = zs->avail_in == 0 && readInput(r) == 0;
    if (side.phase == Phase::kStart) beginStream(r, side);
    const qor_internal::Step step = decoderOf(side).step(zs, r.m_Buf, kReaderBufSize);
    if (side.mode == Mode::kGzipFast) side.fastOut += static_cast<unsigned>(step.produced);
    switch (step.what) {
      case Decoded::kOutput:
        setFill(r, step.produced);
        return;
      case Decoded::kEnd:
        side.phase = Phase::kEnded;
        setFill(r, step.produced);
        if (step.produced > 0 || !everyMember) return;
        continue;
      case Decoded::kNeedInput:
        if (!fileEnded) continue;
        break;
      case Decoded::kFault:
        break;
    }
    // A fault, or a file that ends inside the stream.
    if (side.mode == Mode::kGzipFast) return fallBackToZlib(r, side, fileEnded);
    setFill(r, 0);
    qor_internal::raiseZlib(zs, step.code, r.m_FileName, fileEnded);
  }
}

// Ends the decoder and its record; the reader reads plain bytes again.
void endDecoder(qorStreamReader& r) {
  qor_internal::endCodec(r, false);
  sideOf(r).mode = Mode::kPlain;
}

void switchDecoder(qorStreamReader& r, bool on, int windowBits) {
  if (qor_internal::switchCodec(r, on, false, windowBits, kReaderZBufSize, endDecoder)) restartStream(r);
}

// ---------------------------------------------------------------------------
// The cursor

// Fills the buffer until it holds unread bytes; false at the end of the data.
// A call that has `copied` bytes of gzip members in the caller's array when
// it meets trailing garbage ends with them: the garbage raises at every
// fill, so the next call raises. Every other error raises at once, so that a
// short count still means the end of the data.
bool refill(qorStreamReader& r, long copied) {
  try {
    do {
      r.fillBuf();
      if (r.m_BufSize == 0) return false;
    } while (r.m_BufLeft <= 0);
    return true;
  } catch (qorException* e) {
    if (copied == 0 || sideOf(r).phase != Phase::kGarbage) throw;
    delete e;
    return false;
  }
}

// The reader's buffer as every reading operation sees it. After more() or
// buffered() said yes, the unread bytes are [pos(), end()); take() consumes
// them up to a point. The cursor keeps both ends itself, so that a loop
// over the buffer does not read the reader's fields again after each call
// that could in principle change them.
class Cursor {
 public:
  explicit Cursor(qorStreamReader& r) : r_(r) {}
  // Whether unread bytes are in the buffer, without refilling it.
  bool buffered() {
    if (r_.m_BufLeft <= 0) return false;
    end_ = r_.m_Buf + r_.m_BufSize;
    pos_ = end_ - r_.m_BufLeft;
    return true;
  }
  // Whether unread bytes are there, refilling when none are; false at the
  // end of the data. `copied`: see refill().
  bool more(long copied = 0) { return buffered() || (refill(r_, copied) && buffered()); }
  const char* pos() const { return pos_; }
  const char* end() const { return end_; }
  int left() const { return static_cast<int>(end_ - pos_); }
  void take(const char* upTo) {
    pos_ = upTo;
    r_.m_BufLeft = static_cast<int>(end_ - upTo);
  }

 private:
  qorStreamReader& r_;
  const char* pos_ = nullptr;
  const char* end_ = nullptr;
};

// ---------------------------------------------------------------------------
// Text readers: the scanner of internal/qor_linescan.h finds the bytes that
// need a decision, and a sink takes the result.

// Output into a standard string: bytes unchanged.
struct StringSink {
  void append(const char* p, size_t n) {
    if (n != 0) str->append(p, n);
  }
  std::string* str;
};

// Output into the line buffer of readLine(bool), up to cap bytes; a longer
// output sets overflow and stores nothing more.
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
      qorThrow("qorStreamReader: string too long for a QString", kStreamUnit, __LINE__);
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
  for (Cursor c(r); c.more();) {
    const char* stop = copyItem<Stop, DropCR, Expand>(sink, c.pos(), c.end());
    const bool found = stop != c.end();
    c.take(stop + found);
    if (found) return true;
  }
  return false;
}

void empty(std::string& s) { s.clear(); }
void empty(QString& s) { s.resize(0); }

template <char Stop, bool DropCR, bool Expand, typename Sink, typename Target>
bool readInto(qorStreamReader& r, Target& s) {
  empty(s);
  Sink sink{&s};
  return readItem<Stop, DropCR, Expand>(r, sink);
}

// Takes n bytes one buffer at a time. False when the data ends first; the
// bytes taken so far are consumed.
__attribute__((noinline)) bool takeBytesAcross(qorStreamReader& r, char* dst, int n) {
  for (Cursor c(r); n > 0;) {
    if (!c.more()) return false;
    const int k = std::min(c.left(), n);
    memcpy(dst, c.pos(), static_cast<size_t>(k));
    c.take(c.pos() + k);
    dst += k;
    n -= k;
  }
  return true;
}

// The same, in one piece where the buffer holds the n bytes.
inline bool takeBytes(qorStreamReader& r, char* dst, int n) {
  Cursor c(r);
  if (!c.buffered() || c.left() < n) return takeBytesAcross(r, dst, n);
  memcpy(dst, c.pos(), static_cast<size_t>(n));
  c.take(c.pos() + n);
  return true;
}

// The line buffer of readLine(bool) and its limits: a line and its
// terminator; the bytes of a line are counted from 1, and reaching the limit
// raises.
const size_t kLineBufSize = 65536;
const size_t kLineCountLimit = 65536;
const char kLineTooLong[] = "line > 64k chars in qorStreamReader::readLine";

// The byte-exact walk of readLine(bool) over a run that passes a limit: it
// consumes up to the byte that passes it, then raises.
[[noreturn]] void refuseLongLine(Cursor& c, const char* p, size_t consumed, size_t written, bool expandTabs) {
  for (; p < c.end(); ++p) {
    ++consumed;
    c.take(p + 1);
    if (consumed >= kLineCountLimit - 1) break;
    const size_t grows = *p == '\r' ? 0 : (*p == '\t' && expandTabs) ? 4 : 1;
    if (written + grows > kLineBufSize - 1) break;
    written += grows;
  }
  qorThrow(kLineTooLong, kStreamUnit, __LINE__);
}

// The line buffer of readLine(bool): one per thread, made on the thread's
// first call and released when the thread ends. A pointer, not the buffer
// itself, is thread-local: a 64 KiB thread_local array would take static TLS
// space, which programs that load the library with dlopen may not have. The
// pointer uses the initial-exec model (eight bytes, which glibc's reserve for
// dlopen covers), so a call reads it with one load instead of two calls to
// __tls_get_addr, which readLine(bool) felt on short lines
// (BM_qorStreamReader/PlainReadLineStatic).
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

// readLineView's line when it cannot be shown inside m_Buf: it spans a
// refill, holds a carriage return, or is the end of the data.
__attribute__((noinline)) bool spillLine(qorStreamReader& r, std::string_view& line) {
  std::string& spill = sideOf(r).spill;
  spill.clear();
  StringSink sink{&spill};
  const bool ended = readItem<'\n', true, false>(r, sink);
  line = spill;
  return ended;
}

// readLineView: a line that lies whole in the buffer without a carriage
// return is shown where it is, one scan and no copy; every other line is
// spilled. The fast path runs once a line, so it is built twice, to scan
// without a call: for every processor, and for those with AVX2.
template <const char* (*Find)(const char*, const char*)>
__attribute__((always_inline)) inline bool viewLineWith(qorStreamReader& r, std::string_view& line) {
  Cursor c(r);
  if (c.buffered()) {
    const char* p = c.pos();
    const char* q = Find(p, c.end());
    if (q != c.end() && *q == '\n') {
      line = std::string_view(p, static_cast<size_t>(q - p));
      c.take(q + 1);
      return true;
    }
  }
  return spillLine(r, line);
}

__attribute__((noinline)) bool viewLine(qorStreamReader& r, std::string_view& line) {
  return viewLineWith<qor_internal::findSpecialSse2<'\n', true, false>>(r, line);
}

#if defined(QOR_LINESCAN_AVX2)
__attribute__((target("avx2"))) bool viewLineAvx2(qorStreamReader& r, std::string_view& line) {
  return viewLineWith<qor_internal::findSpecialAvx2<'\n', true, false>>(r, line);
}
#endif

}  // namespace

// ===========================================================================
// qorStreamReader

qorStreamReader::qorStreamReader(char const* fileName) {
  m_BufLeft = 0;
  qor_internal::openStream<ReaderSide>(*this, fileName, kReaderBufSize, kReaderZBufSize, "rb",
                                       "Unable to open file for read: ");
}

qorStreamReader::~qorStreamReader() {
  if (m_FileHandle != nullptr) fclose(m_FileHandle);
  endDecoder(*this);
  qor_internal::releaseStream<ReaderSide>(*this, kReaderBufSize);
}

long qorStreamReader::size() {
  struct stat st;
  if (fstat(fileno(m_FileHandle), &st) != 0) qorThrowComposed("fstat failed: ", strerror(errno), kStreamUnit, __LINE__);
  return static_cast<long>(st.st_size);
}

void qorStreamReader::gunzip(bool on) { switchDecoder(*this, on, qor_internal::kGzipWindowBits); }

void qorStreamReader::inflate(bool on) { switchDecoder(*this, on, qor_internal::kRawWindowBits); }

int qorStreamReader::rewind() {
  if (!seekTo(*this, 0)) {
    const int err = errno;
    const std::string prefix = std::string("qorStreamReader: cannot rewind ") + m_FileName + ": ";
    qorThrowComposed(prefix.c_str(), strerror(err), kStreamUnit, __LINE__);
  }
  m_BufLeft = 0;
  if (m_ZBuf != nullptr) {
    m_ZStream->next_in = Z_NULL;
    m_ZStream->avail_in = 0;
    restartStream(*this);
  }
  return 0;
}

void qorStreamReader::fillBuf() {
  ReaderSide& side = sideOf(*this);
  m_BufSize = kReaderBufSize;
  if (side.mode == Mode::kPlain) {
    const int got = static_cast<int>(readFile(*this, m_Buf, kReaderBufSize));
    m_BufLeft = got;
    if (got < kReaderBufSize) m_BufSize = got;
    return;
  }
  fillDecoded(*this, side);
}

long qorStreamReader::read(char* buf, int n) {
  if (n <= 0) return 0;
  if (buf == nullptr) qorThrow(kBufferIsNull, kStreamUnit, __LINE__);
  Cursor c(*this);
  long done = 0;
  while (done < n && c.more(done)) {
    const int k = static_cast<int>(std::min<long>(c.left(), n - done));
    memcpy(buf + done, c.pos(), static_cast<size_t>(k));
    c.take(c.pos() + k);
    done += k;
  }
  return done;
}

long qorStreamReader::readString(char* buf, int n) {
  if (n <= 0) return 0;
  if (buf == nullptr) qorThrow(kBufferIsNull, kStreamUnit, __LINE__);
  Cursor c(*this);
  long count = 0;
  while (count < n && c.more(count)) {
    const char* p = c.pos();
    const long want = std::min<long>(c.left(), n - count);
    const char* zero = static_cast<const char*>(memchr(p, 0, static_cast<size_t>(want)));
    const long k = zero != nullptr ? zero - p : want;
    memcpy(buf + count, p, static_cast<size_t>(k));
    count += k;
    c.take(p + k + (zero != nullptr));
    if (zero != nullptr) break;
  }
  return count;
}

char* qorStreamReader::readLine(bool expandTabs) {
  char* const line = lineBuffer();
  // consumed counts the bytes of the line but its line feed, and the line is
  // refused at the byte that makes it reach 65535 (a count from 1 reaching
  // 65536). The stored text and its terminator must fit the buffer too,
  // which only expanded tabs can prevent.
  size_t consumed = 0;
  LineSink sink{line, 0, kLineBufSize - 1, false};
  for (Cursor c(*this); c.more();) {
    const char* p = c.pos();
    // Up to `allowed` more bytes may precede the line feed.
    const size_t allowed = kLineCountLimit - 2 - consumed;
    const bool capped = static_cast<size_t>(c.end() - p) > allowed;
    const char* const window = capped ? p + allowed + 1 : c.end();
    const size_t writtenBefore = sink.used;
    const char* stop =
        expandTabs ? copyItem<'\n', true, true>(sink, p, window) : copyItem<'\n', true, false>(sink, p, window);
    if (sink.overflow || (stop == window && capped)) refuseLongLine(c, p, consumed, writtenBefore, expandTabs);
    consumed += static_cast<size_t>(stop - p);
    if (stop != c.end()) {
      c.take(stop + 1);
      line[sink.used] = '\0';
      return line;
    }
    c.take(stop);
  }
  return nullptr;
}

bool qorStreamReader::readLine(QString& s, bool expandTabs) {
  return expandTabs ? readInto<'\n', true, true, UnitSink>(*this, s) : readInto<'\n', true, false, UnitSink>(*this, s);
}

bool qorStreamReader::readLine(std::string& s, bool expandTabs) {
  return expandTabs ? readInto<'\n', true, true, StringSink>(*this, s)
                    : readInto<'\n', true, false, StringSink>(*this, s);
}

bool qorStreamReader::readString(QString& s, bool expandTabs) {
  return expandTabs ? readInto<'\0', false, true, UnitSink>(*this, s)
                    : readInto<'\0', false, false, UnitSink>(*this, s);
}

bool qorStreamReader::readString(std::string& s, bool expandTabs) { return readLine(s, expandTabs); }

bool qorStreamReader::readLineView(std::string_view& line) {
#if defined(QOR_LINESCAN_AVX2)
  if (qor_internal::hasAvx2()) return viewLineAvx2(*this, line);
#endif
  return viewLine(*this, line);
}

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

long qorStreamReader::peek(char* buf, int n) {
  if (n <= 0) return 0;
  if (buf == nullptr) qorThrow(kBufferIsNull, kStreamUnit, __LINE__);
  if (n > kPeekMax) qorThrow("qorStreamReader::peek: more than 16384 bytes asked", kStreamUnit, __LINE__);
  ReaderSide& side = sideOf(*this);
  if (side.peeked == nullptr) side.peeked.reset(new char[kPeekMax]);
  char* const peeked = side.peeked.get();
  const int have = side.peekEnd - side.peekPos;
  if (have < n) {
    // Only the missing bytes are read, so that a pipe is not waited on for more.
    memmove(peeked, peeked + side.peekPos, static_cast<size_t>(have));
    side.peekPos = 0;
    side.peekEnd = have + static_cast<int>(readRaw(*this, peeked + have, static_cast<size_t>(n - have)));
  }
  const int k = std::min(n, side.peekEnd - side.peekPos);
  memcpy(buf, peeked + side.peekPos, static_cast<size_t>(k));
  return k;
}

// ---------------------------------------------------------------------------
// Errors and choices beside the original calls

bool qorStreamReader::failed() const { return sideOf(*this).readErrno != 0; }

void qorStreamReader::checkRead() const {
  const int err = sideOf(*this).readErrno;
  if (err == 0) return;
  const std::string prefix = std::string("Read failed for ") + m_FileName + ": ";
  qorThrowComposed(prefix.c_str(), strerror(err), kStreamUnit, __LINE__);
}

void qorStreamReader::readAllMembers(bool on) { sideOf(*this).allMembers = on; }

// A running stream keeps its decoder; the choice holds from the next stream
// (member, rewind() or switch-on) on.
void qorStreamReader::useFastDecoder(bool on) { sideOf(*this).fast = on; }
