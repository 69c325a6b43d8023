#include "qor_codec.h"

#include <qor/qor_assert.h>

#include <cstring>

#if defined(QOR_HAVE_ISAL)
#include <isa-l/igzip_lib.h>
#endif

#include "qor_streambase.h"

namespace qor_internal {

static_assert(offsetof(ZRecord, zs) == 0, "m_ZStream must point at the start of its record");

z_stream* startZlib(bool encode, int windowBits) {
  std::unique_ptr<ZRecord> record(new ZRecord());
  record->windowBits = windowBits;
  z_stream* zs = &record->zs;
  zs->zalloc = Z_NULL;
  zs->zfree = Z_NULL;
  zs->opaque = Z_NULL;
  zs->next_in = Z_NULL;
  zs->avail_in = 0;
  const int ret = encode ? deflateInit2(zs, Z_DEFAULT_COMPRESSION, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY)
                         : inflateInit2(zs, windowBits);
  if (ret != Z_OK) qorThrow("Error initialising zlib", kStreamUnit, __LINE__);
  return &record.release()->zs;
}

void endZlib(z_stream* zs, bool encode) {
  encode ? deflateEnd(zs) : inflateEnd(zs);
  delete reinterpret_cast<ZRecord*>(zs);
}

void raiseZlib(z_stream* zs, int code, const char* fileName, bool fileEnded) {
  if (zs->msg != nullptr) qorThrow(zs->msg, kStreamUnit, __LINE__);
  switch (code) {
    case Z_BUF_ERROR:
      if (fileEnded) qorThrowComposed("Unexpected end of compressed data in ", fileName, kStreamUnit, __LINE__);
      qorThrowComposed("Compressed stream makes no progress in ", fileName, kStreamUnit, __LINE__);
    case Z_DATA_ERROR:
      qorThrowComposed("Corrupt compressed data in ", fileName, kStreamUnit, __LINE__);
    case Z_NEED_DICT:
      qorThrowComposed("Compressed data needs a preset dictionary in ", fileName, kStreamUnit, __LINE__);
    case Z_MEM_ERROR:
      qorThrowComposed("zlib is out of memory for ", fileName, kStreamUnit, __LINE__);
    case Z_STREAM_ERROR:
      qorThrowComposed("zlib stream state is inconsistent for ", fileName, kStreamUnit, __LINE__);
    default:
      qorThrowComposed("zlib failed on ", fileName, kStreamUnit, __LINE__);
  }
}

namespace {

class ZlibInflater : public Inflater {
 public:
  bool takes(const z_stream*) const override { return true; }
  // inflateReset keeps the pending input.
  void restart(z_stream* zs) override { ::inflateReset(zs); }
  Step step(z_stream* zs, char* out, int room) override {
    zs->next_out = reinterpret_cast<Bytef*>(out);
    zs->avail_out = static_cast<uInt>(room);
    const uLong before = zs->total_out;
    const uInt inBefore = zs->avail_in;
    const int ret = ::inflate(zs, Z_SYNC_FLUSH);
    const int produced = static_cast<int>(zs->total_out - before);
    if (ret == Z_STREAM_END) return {Decoded::kEnd, produced, ret};
    if (ret != Z_OK && ret != Z_BUF_ERROR) return {Decoded::kFault, produced, ret};
    if (produced > 0) return {Decoded::kOutput, produced, ret};
    // Nothing decoded and the stream goes on (a long header, empty blocks):
    // more input helps while input is being used.
    if (zs->avail_in == 0 || (ret == Z_OK && zs->avail_in != inBefore)) return {Decoded::kNeedInput, 0, Z_BUF_ERROR};
    return {Decoded::kFault, 0, Z_BUF_ERROR};
  }
};

#if defined(QOR_HAVE_ISAL)
class FastInflater : public Inflater {
 public:
  // Zeroed first: isal_inflate_init leaves some fields (the history size,
  // among others) as it finds them, and the decoder must not depend on what
  // the memory held before.
  FastInflater() : state_() { isal_inflate_init(&state_); }

  // Only gzip members whose header ISA-L reads as zlib does: the magic, the
  // deflate method, no header CRC and no reserved flag bits (ISA-L takes
  // those where zlib raises "unknown header flags set"); and only when the
  // whole header is in the pending input, because ISA-L forgets the header's
  // flags between two calls and would read the rest of a split header by
  // what its stack happens to hold. Raw deflate carries no check value, so
  // ISA-L's acceptance of Huffman tables that zlib refuses would pass
  // unnoticed there; zlib decodes it.
  bool takes(const z_stream* zs) const override {
    const Bytef* p = zs->next_in;
    const size_t n = zs->avail_in;
    if (windowBitsOf(zs) != kGzipWindowBits || n < 10 || p[0] != 0x1f || p[1] != 0x8b || p[2] != 8 ||
        (p[3] & 0xe2) != 0)
      return false;
    size_t length = 10;
    if ((p[3] & 0x04) != 0) length = n < 12 ? n + 1 : 12 + (p[10] | p[11] << 8);  // FEXTRA
    for (const int field : {0x08, 0x10}) {                                        // FNAME, FCOMMENT
      if ((p[3] & field) == 0) continue;
      const void* zero = length < n ? memchr(p + length, 0, n - length) : nullptr;
      length = zero == nullptr ? n + 1 : static_cast<size_t>(static_cast<const Bytef*>(zero) - p) + 1;
    }
    return length <= n;
  }

  void restart(z_stream* zs) override {
    isal_inflate_reset(&state_);
    state_.crc_flag = windowBitsOf(zs) == kGzipWindowBits ? ISAL_GZIP : ISAL_DEFLATE;
  }

  Step step(z_stream* zs, char* out, int room) override {
    state_.next_in = zs->next_in;
    state_.avail_in = zs->avail_in;
    state_.next_out = reinterpret_cast<uint8_t*>(out);
    state_.avail_out = static_cast<uint32_t>(room);
    const uint32_t before = state_.total_out;
    const int ret = isal_inflate(&state_);
    zs->next_in = state_.next_in;
    zs->avail_in = state_.avail_in;
    const int produced = static_cast<int>(state_.total_out - before);
    if (ret < 0) return {Decoded::kFault, produced, Z_DATA_ERROR};
    if (state_.block_state == ISAL_BLOCK_FINISH) return {Decoded::kEnd, produced, Z_STREAM_END};
    if (produced > 0) return {Decoded::kOutput, produced, Z_OK};
    if (zs->avail_in == 0) return {Decoded::kNeedInput, 0, Z_BUF_ERROR};
    return {Decoded::kFault, 0, Z_BUF_ERROR};  // input left, nothing decoded: not a state ISA-L should stop in
  }

 private:
  inflate_state state_;
};
#endif

}  // namespace

Inflater& zlibInflater() {
  static ZlibInflater zlib;
  return zlib;
}

std::unique_ptr<Inflater> newFastInflater() {
#if defined(QOR_HAVE_ISAL)
  return std::unique_ptr<Inflater>(new FastInflater());
#else
  return nullptr;
#endif
}

}  // namespace qor_internal
