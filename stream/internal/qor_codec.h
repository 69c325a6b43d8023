// Internal: the codecs of the compressed formats. zlib encodes for the writer;
// zlib and ISA-L decode for the reader, behind one interface, Inflater.
#ifndef QOR_CODEC_H
#define QOR_CODEC_H

#include <zlib.h>

#include <cstddef>
#include <memory>

namespace qor_internal {

// zlib's window bits of the two compressed formats.
const int kGzipWindowBits = 31;  // gzip wrapper, 32 KiB window
const int kRawWindowBits = -15;  // raw deflate, 32 KiB window

// zlib's record together with the window bits it was started with, so that a
// second switch-on can tell the formats apart. m_ZStream points at zs.
struct ZRecord {
  z_stream zs;
  int windowBits;
};
inline int windowBitsOf(const z_stream* zs) { return reinterpret_cast<const ZRecord*>(zs)->windowBits; }

// Starts a zlib record for decoding (inflateInit2) or encoding (deflateInit2
// at the default level, memory level 8, default strategy) with the window
// bits. Raises "Error initialising zlib" when zlib cannot start.
z_stream* startZlib(bool encode, int windowBits);
// Ends the codec of a record made by startZlib and releases the record.
void endZlib(z_stream* zs, bool encode);

// Ends the codec of a stream (reader or writer) and releases its record and
// buffer; the stream is plain again.
template <typename Stream>
void endCodec(Stream& s, bool encode) {
  if (s.m_ZBuf != nullptr) {
    endZlib(s.m_ZStream, encode);
    delete[] s.m_ZBuf;
    s.m_ZBuf = nullptr;
    s.m_ZStream = nullptr;
  }
  s.m_Compressed = false;
}

// Switches the codec of a stream (reader or writer): off ends the running one
// with stop(s); on in the running format keeps it; on in the other format
// ends the running one, then starts a fresh record with its input or output
// buffer. Nothing is installed unless zlib starts. True when a new codec
// started.
template <typename Stream, typename Stop>
bool switchCodec(Stream& s, bool on, bool encode, int windowBits, size_t zbufSize, Stop stop) {
  if (!on || s.m_ZBuf != nullptr) {
    if (on && windowBitsOf(s.m_ZStream) == windowBits) return false;
    stop(s);
    if (!on) return false;
  }
  std::unique_ptr<char[]> zbuf(new char[zbufSize]);
  s.m_ZStream = startZlib(encode, windowBits);
  s.m_ZBufSize = zbufSize;
  s.m_ZBuf = zbuf.release();
  s.m_Compressed = true;
  return true;
}

// A zlib failure as one message. zlib's own text is passed on unchanged;
// codes that carry no text get a message of ours naming the file.
[[noreturn]] void raiseZlib(z_stream* zs, int code, const char* fileName, bool fileEnded);

// What one decoding step did.
enum class Decoded : unsigned char {
  kOutput,     // produced bytes, and the stream goes on
  kEnd,        // the stream ended (gzip: its trailer checked), after `produced` bytes
  kNeedInput,  // used the pending input up without producing anything
  kFault,      // damaged data (`code`: zlib's code), or a decoder that stalls
};
struct Step {
  Decoded what;
  int produced;
  int code;
};

// A decoder of the running stream. Both kinds read the pending input from the
// zlib record (next_in, avail_in) and leave what they do not use there, so
// that either can take over the input of the other at any step.
class Inflater {
 public:
  virtual ~Inflater() = default;
  // Whether it decodes the stream that starts at the pending input exactly as
  // zlib does. The fast decoder declines what it would read differently; the
  // reader gives that to zlib.
  virtual bool takes(const z_stream* zs) const = 0;
  // A new stream (gzip: member) starts at the pending input.
  virtual void restart(z_stream* zs) = 0;
  // Decodes pending input into out, which has room for `room` bytes.
  virtual Step step(z_stream* zs, char* out, int room) = 0;
};

// zlib's inflate on the record's own state: one object serves every reader.
Inflater& zlibInflater();
// ISA-L's inflate with a state of its own, for one reader; null where the
// library was built without ISA-L.
std::unique_ptr<Inflater> newFastInflater();

}  // namespace qor_internal

#endif
