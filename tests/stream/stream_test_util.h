// Helpers shared by the stream tests: scratch files, zlib oracles and a
// way to catch the library's exceptions as text.
#ifndef QOR_STREAM_TEST_UTIL_H
#define QOR_STREAM_TEST_UTIL_H

#include <gtest/gtest.h>
#include <qor/qor_exception.h>
#include <stdlib.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>

#include "qor_test_support.h"

namespace streamtest {

// A scratch directory removed at the end of the test.
class ScratchDir {
 public:
  ScratchDir() {
    char pattern[] = "/tmp/qor_stream_test_XXXXXX";
    const char* made = mkdtemp(pattern);
    if (made == nullptr) throw std::runtime_error("mkdtemp failed");
    m_Path = made;
  }
  ~ScratchDir() {
    const std::string command = "rm -rf '" + m_Path + "'";
    if (system(command.c_str()) != 0) fprintf(stderr, "could not remove %s\n", m_Path.c_str());
  }
  std::string file(const std::string& name) const { return m_Path + "/" + name; }

 private:
  std::string m_Path;
};

inline void writeFile(const std::string& path, const std::string& bytes) {
  FILE* f = fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr) << path;
  ASSERT_EQ(fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
  fclose(f);
}

inline std::string readFile(const std::string& path) {
  std::string bytes;
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return "<missing>";
  char chunk[65536];
  size_t got;
  while ((got = fread(chunk, 1, sizeof chunk, f)) > 0) bytes.append(chunk, got);
  fclose(f);
  return bytes;
}

// zlib window bits of the three formats as the tests name them.
enum Format { kPlain, kGzip, kRaw };
inline const char* formatName(Format f) { return f == kPlain ? "plain" : f == kGzip ? "gzip" : "raw"; }
inline int windowBits(Format f) { return f == kGzip ? 31 : -15; }

// One-shot compression with zlib itself, the oracle for the reader.
inline std::string compress(const std::string& data, Format format, int level = Z_DEFAULT_COMPRESSION) {
  if (format == kPlain) return data;
  z_stream zs;
  memset(&zs, 0, sizeof zs);
  if (deflateInit2(&zs, level, Z_DEFLATED, windowBits(format), 8, Z_DEFAULT_STRATEGY) != Z_OK)
    throw std::runtime_error("deflateInit2");
  std::string out(deflateBound(&zs, data.size()) + 64, '\0');
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  zs.avail_in = static_cast<uInt>(data.size());
  zs.next_out = reinterpret_cast<Bytef*>(&out[0]);
  zs.avail_out = static_cast<uInt>(out.size());
  if (::deflate(&zs, Z_FINISH) != Z_STREAM_END) throw std::runtime_error("deflate");
  out.resize(zs.total_out);
  deflateEnd(&zs);
  return out;
}

// Decodes one complete stream with zlib; sets ok to false unless the stream
// ends exactly at the end of the bytes.
inline std::string decompress(const std::string& bytes, Format format, bool* ok) {
  *ok = false;
  if (format == kPlain) {
    *ok = true;
    return bytes;
  }
  z_stream zs;
  memset(&zs, 0, sizeof zs);
  if (inflateInit2(&zs, windowBits(format)) != Z_OK) return "";
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  zs.avail_in = static_cast<uInt>(bytes.size());
  std::string out;
  char chunk[65536];
  int ret;
  do {
    zs.next_out = reinterpret_cast<Bytef*>(chunk);
    zs.avail_out = sizeof chunk;
    ret = ::inflate(&zs, Z_NO_FLUSH);
    out.append(chunk, sizeof chunk - zs.avail_out);
  } while (ret == Z_OK);
  *ok = (ret == Z_STREAM_END && zs.avail_in == 0);
  inflateEnd(&zs);
  return out;
}

using qortest::raisedText;
using qortest::startsWith;

// Text with lines of 0 to maxLine bytes, some tabs, some CRs and some bytes
// above 0x7F.
inline std::string makeText(std::mt19937& rng, size_t bytes, int maxLine = 200) {
  std::string text;
  text.reserve(bytes + maxLine + 2);
  while (text.size() < bytes) {
    const int length = static_cast<int>(rng() % static_cast<unsigned>(maxLine + 1));
    for (int i = 0; i < length; ++i) {
      const unsigned r = rng() % 64;
      char c;
      if (r == 0) {
        c = '\t';
      } else if (r == 1) {
        c = '\r';
      } else if (r == 2) {
        c = static_cast<char>(0x80 + rng() % 128);
      } else if (r == 3) {
        c = '\0';
      } else {
        c = static_cast<char>(' ' + rng() % 95);
      }
      text.push_back(c);
    }
    if (rng() % 8 == 0) text.push_back('\r');
    text.push_back('\n');
  }
  text.resize(bytes);
  return text;
}

inline bool haveCommand(const char* name) {
  const std::string command = std::string("command -v ") + name + " >/dev/null 2>&1";
  return system(command.c_str()) == 0;
}

}  // namespace streamtest

#endif
