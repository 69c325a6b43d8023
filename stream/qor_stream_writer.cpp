// qorStreamWriter: plain bytes, a gzip member or a raw deflate stream through
// one 16 KiB buffer.
#include <qor/qor_stream.h>

#include <cstring>
#include <string>

#include "internal/qor_codec.h"
#include "internal/qor_streambase.h"

using qor_internal::kBufferIsNull;
using qor_internal::kStreamUnit;

namespace {

const int kWriterBufSize = 16384;
const size_t kWriterZBufSize = 65536;

// Full buffers inside write() are compressed with a sync flush: the stream
// goes on, and everything emptied so far can be decoded from the file.
const int kWriteFlush = Z_SYNC_FLUSH;

struct WriterSide {
  int writeErrno = 0;   // errno of the first write that lost bytes; 0: none
  bool closed = false;  // close() or the destructor has finished the file
};

WriterSide& sideOf(const qorStreamWriter& w) { return *qor_internal::sideAfter<WriterSide>(w.m_Buf, kWriterBufSize); }

void keepError(WriterSide& side) {
  if (side.writeErrno == 0) side.writeErrno = qor_internal::ioErrno();
}

// Writes n bytes with fwrite and counts what it reports. A short write
// (a full disk, say) is kept, with its errno, for failed() and close().
void writeFile(qorStreamWriter& w, const char* src, size_t n) {
  const size_t put = fwrite(src, 1, n, w.m_FileHandle);
  w.m_FileBytes += put;
  if (put < n) keepError(sideOf(w));
}

// Raises when the writer has been closed: nothing may reach the file after
// close().
void requireOpen(const qorStreamWriter& w) {
  if (sideOf(w).closed) qorThrowComposed("qorStreamWriter: the file is closed: ", w.m_FileName, kStreamUnit, __LINE__);
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
    if (ret < 0 && ret != Z_BUF_ERROR) qor_internal::raiseZlib(zs, ret, w.m_FileName, false);
    const size_t produced = static_cast<size_t>(zs->total_out - before);
    if (produced > 0) writeFile(w, w.m_ZBuf, produced);
    if (zs->avail_out != 0) break;
  }
  w.m_BufUsed = 0;
}

// Writes out the buffered bytes: compressed with the given flush while
// compressing, as they are otherwise.
void writeOut(qorStreamWriter& w, int flush) {
  if (w.m_ZBuf != nullptr) return compressBuf(w, flush);
  if (w.m_BufUsed > 0) writeFile(w, w.m_Buf, static_cast<size_t>(w.m_BufUsed));
  w.m_BufUsed = 0;
}

void endEncoder(qorStreamWriter& w) { qor_internal::endCodec(w, true); }

// Ends the running compressed stream (the buffered bytes first) and the
// encoder.
void finishEncoder(qorStreamWriter& w) {
  if (w.m_ZBuf != nullptr) compressBuf(w, Z_FINISH);
  endEncoder(w);
}

void switchEncoder(qorStreamWriter& w, bool on, int windowBits) {
  if (on) requireOpen(w);
  qor_internal::switchCodec(w, on, true, windowBits, kWriterZBufSize, finishEncoder);
}

// The last step of every writer, for close() and the destructor alike: writes
// out the buffered bytes, ends a running compressed stream, flushes and
// closes the file; every byte lost on the way is kept in writeErrno. The
// writer is closed afterwards, whatever happened. A zlib error while ending
// the stream raises, after the file has been closed.
void finish(qorStreamWriter& w) {
  WriterSide& side = sideOf(w);
  qorException* error = nullptr;
  try {
    writeOut(w, Z_FINISH);
  } catch (qorException* e) {
    error = e;
  }
  endEncoder(w);
  // Bytes may still wait in stdio's buffer: a full disk shows at the flush.
  if (fflush(w.m_FileHandle) != 0) keepError(side);
  if (fclose(w.m_FileHandle) != 0) keepError(side);
  w.m_FileHandle = nullptr;
  side.closed = true;
  // A full buffer sends every later write() to its slow path, which raises.
  w.m_BufUsed = w.m_BufSize;
  if (error != nullptr) qorThrow(error);
}

}  // namespace

qorStreamWriter::qorStreamWriter(char const* fileName, char mode) {
  m_BufUsed = 0;
  qor_internal::openStream<WriterSide>(*this, fileName, kWriterBufSize, kWriterZBufSize, mode == 'a' ? "ab" : "wb",
                                       "Unable to open file for write: ");
}

qorStreamWriter::~qorStreamWriter() {
  if (!sideOf(*this).closed) {
    try {
      finish(*this);
    } catch (qorException* e) {
      // A destructor cannot raise; the error is lost (see the header).
      delete e;
    }
  }
  qor_internal::releaseStream<WriterSide>(*this, kWriterBufSize);
}

void qorStreamWriter::gzip(bool on) { switchEncoder(*this, on, qor_internal::kGzipWindowBits); }

void qorStreamWriter::deflate(bool on) { switchEncoder(*this, on, qor_internal::kRawWindowBits); }

long qorStreamWriter::write(char* buf, int n) {
  if (n <= 0) return 0;
  if (buf == nullptr) qorThrow(kBufferIsNull, kStreamUnit, __LINE__);
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
    writeOut(*this, Z_SYNC_FLUSH);
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
  writeOut(*this, Z_SYNC_FLUSH);
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
  WriterSide& side = sideOf(*this);
  if (side.closed) return;
  finish(*this);
  if (side.writeErrno != 0) {
    const std::string prefix = std::string("Write failed for ") + m_FileName + ": ";
    qorThrowComposed(prefix.c_str(), strerror(side.writeErrno), kStreamUnit, __LINE__);
  }
}

bool qorStreamWriter::failed() const { return sideOf(*this).writeErrno != 0; }
