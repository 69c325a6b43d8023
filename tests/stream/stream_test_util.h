// Helpers of the stream tests: scratch files, zlib oracles, both decoders.
#ifndef QOR_STREAM_TEST_UTIL_H
#define QOR_STREAM_TEST_UTIL_H

#include <gtest/gtest.h>
#include <qor/qor_stream.h>
#include <zlib.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>

#include "qor_test_support.h"

namespace streamtest {

using qortest::raisedText;
using qortest::startsWith;

// A scratch directory removed at the end of the test.
struct ScratchDir {
  std::string path = mkdtemp(&(std::string("/tmp/qor_stream_test_XXXXXX") + '\0')[0]);
  ~ScratchDir() { std::filesystem::remove_all(path); }
  std::string file(const std::string& name) const { return path + "/" + name; }
};

inline std::string writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline std::string sample(const std::string& name) { return std::string(QOR_TEST_DATA_DIR) + "/stream/" + name; }

enum Format { kPlain, kGzip, kRaw };

// zlib itself, the oracle: compresses (decode false) or decodes the bytes in
// one go. ok becomes true when one complete stream ends exactly at their end.
inline std::string zlibCodec(const std::string& bytes, Format format, bool decode, int level = -1, bool* ok = nullptr) {
  if (ok != nullptr) *ok = format == kPlain;
  if (format == kPlain) return bytes;
  z_stream zs{};
  const int bits = format == kGzip ? 31 : -15;
  if ((decode ? inflateInit2(&zs, bits) : deflateInit2(&zs, level, Z_DEFLATED, bits, 8, Z_DEFAULT_STRATEGY)) != Z_OK)
    throw std::runtime_error("zlib init");
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  zs.avail_in = static_cast<uInt>(bytes.size());
  std::string out;
  char chunk[65536];
  int ret;
  do {
    zs.next_out = reinterpret_cast<Bytef*>(chunk);
    zs.avail_out = sizeof chunk;
    ret = decode ? ::inflate(&zs, Z_NO_FLUSH) : ::deflate(&zs, Z_FINISH);
    out.append(chunk, sizeof chunk - zs.avail_out);
  } while (ret == Z_OK);
  if (ok != nullptr) *ok = ret == Z_STREAM_END && zs.avail_in == 0;
  decode ? inflateEnd(&zs) : deflateEnd(&zs);
  return out;
}
inline std::string compress(const std::string& d, Format f, int level = -1) { return zlibCodec(d, f, false, level); }

// Switches a writer, or a reader (with the fast decoder or zlib), to the format.
inline void switchOn(qorStreamWriter& w, Format f) { f == kGzip ? w.gzip(true) : f == kRaw ? w.deflate(true) : void(); }
inline void switchOn(qorStreamReader& r, Format format, bool fast = false) {
  r.useFastDecoder(fast);
  format == kGzip ? r.gunzip(true) : format == kRaw ? r.inflate(true) : void();
}

// The decoding modes: the default decoder (zlib) and the fast one.
class qorStreamDecoders : public ::testing::TestWithParam<bool> {};

// A labelled case: in a scratch directory of its own, run (fast: the decoder to use) gives the expected text.
struct Row {
  const char* label;
  std::string (*run)(const ScratchDir& dir, bool fast);
  std::string expected;
};
template <size_t N>
void expectRows(const Row (&rows)[N], bool fast = false) {
  for (const Row& row : rows) {
    ScratchDir dir;
    EXPECT_EQ(row.run(dir, fast), row.expected) << row.label;
  }
}

// Everything a reader delivers through read(), or "!" and the message it
// raised; with the bytes counted from the file once the data ended, and what
// was delivered, raised or not.
inline std::string readAll(const std::string& path, Format format, bool fast, bool every = false,
                           size_t* fileBytes = nullptr, std::string* delivered = nullptr) {
  std::string all;
  const std::string raised = raisedText([&] {
    qorStreamReader r(path.c_str());
    switchOn(r, format, fast);
    r.readAllMembers(every);
    char buf[50000];
    for (long got; (got = r.read(buf, sizeof buf)) > 0;) all.append(buf, static_cast<size_t>(got));
    if (fileBytes != nullptr) *fileBytes = r.m_FileBytes;
  });
  if (delivered != nullptr) *delivered = all;
  return raised == qortest::kNothingRaised ? all : "!" + raised;
}

// Text with lines of 0 to maxLine bytes, some tabs, CRs, zero bytes and bytes
// above 0x7F.
inline std::string makeText(unsigned seed, size_t bytes, int maxLine = 200) {
  std::mt19937 rng(seed);
  std::string text;
  while (text.size() < bytes) {
    for (unsigned i = rng() % static_cast<unsigned>(maxLine + 1), r; i > 0; --i)
      r = rng() % 64, text.push_back(r < 5 ? "\t\r\0\x80\xff"[r] : static_cast<char>(' ' + rng() % 95));
    text += rng() % 8 == 0 ? "\r\n" : "\n";
  }
  text.resize(bytes);
  return text;
}

}  // namespace streamtest

#endif
