// Compressed input from other tools and bad input, with both decoders.
#include <vector>

#include "stream_test_util.h"

using namespace streamtest;

namespace {

const std::string kText = readFile(sample("text.txt"));

// A gzip member with FEXTRA, FNAME and FCOMMENT fields (name of n bytes).
std::string withHeaderFields(const std::string& text, size_t n) {
  const std::string m = compress(text, kGzip);
  return m.substr(0, 3) + '\x1c' + m.substr(4, 6) + std::string("\x04\0xtra", 6) + std::string(n, 'n') + '\0' +
         "comment" + '\0' + m.substr(10);
}

const char kCut[] = "!Unexpected end of compressed data in ";

std::string flip(std::string bytes, size_t fromEnd) {
  bytes[bytes.size() - fromEnd] ^= 1;
  return bytes;
}

struct DecodeRow {  // with readAllMembers(every), the bytes give the data or "!" and the message's start
  const char* label;
  std::string bytes;
  Format format;
  bool every;
  std::string expected;
};

std::vector<DecodeRow> decodeRows() {
  const std::string m = compress(kText, kGzip), raw = compress(kText, kRaw);
  const std::string zlibWrapped = "\x78\x9c" + raw;
  std::string z(5000000, 'z');
  return {
      {"gzip(1) -1, header with name and time", readFile(sample("text-1.txt.gz")), kGzip, false, kText},
      {"gzip(1) -9", readFile(sample("text-9.txt.gz")), kGzip, false, kText},
      {"raw deflate by Python's zlib, wbits -15", readFile(sample("text.raw")), kRaw, false, kText},
      {"extra, name and comment fields skipped", withHeaderFields("x\n", 10), kGzip, false, "x\n"},
      {"a 50000-byte name decodes to nothing for 3 fills: not the end", withHeaderFields("x\n", 50000), kGzip, false,
       "x\n"},
      {"16 KiB in to far more than 64 KiB out keeps the pending input", compress(z, kGzip, 9), kGzip, false, z},
      {"raw, output-bound", compress(z, kRaw, 9), kRaw, false, z},
      {"two members, default: the first only", m + compress("second\n", kGzip), kGzip, false, kText},
      {"two members, every member", m + compress("second\n", kGzip), kGzip, true, kText + "second\n"},
      {"junk after the member, default: dropped", m + "junk", kGzip, false, kText},
      {"junk after the member, every member: raises", m + compress("2\n", kGzip) + "junk", kGzip, true,
       "!qorStreamReader: trailing garbage after gzip member in "},
      {"one stray byte after the member, every member: raises", m + "\x1f", kGzip, true,
       "!qorStreamReader: trailing garbage after gzip member in "},
      {"every member on raw deflate: no effect", raw + "junk", kRaw, true, kText},
      {"CRC-32 of the trailer checked", flip(m, 8), kGzip, false, "!incorrect data check [file qor_stream line "},
      {"length of the trailer checked", flip(m, 4), kGzip, false, "!incorrect length check [file qor_stream line "},
      {"corrupt block", flip(m, m.size() / 2), kGzip, false, "!"},
      {"plain text as gzip", "plain text\n", kGzip, false, "!incorrect header check [file qor_stream line "},
      {"zlib wrapper as gzip", zlibWrapped, kGzip, false, "!incorrect header check [file qor_stream line "},
      {"gzip as raw deflate", m, kRaw, false, "!invalid block type [file qor_stream line "},
      {"empty file as gzip", "", kGzip, false, kCut},
      {"gzip cut in the header", m.substr(0, 5), kGzip, false, kCut},
      {"gzip cut in the data", m.substr(0, m.size() / 2), kGzip, false, kCut},
      {"gzip cut before the trailer", m.substr(0, m.size() - 8), kGzip, false, kCut},
      {"raw cut in the data", raw.substr(0, raw.size() - 9), kRaw, false, kCut},
  };
}

class qorStreamDecoders : public ::testing::TestWithParam<bool> {};

}  // namespace

// Catches: the fault in each row's label, with either decoder; and a
// decoder whose byte count from the file differs at the end of the data.
TEST_P(qorStreamDecoders, Table) {
  ScratchDir dir;
  for (const DecodeRow& row : decodeRows()) {
    const std::string path = writeFile(dir.file("f"), row.bytes);
    size_t fileBytes = 0;
    const std::string got = readAll(path, row.format, GetParam(), row.every, &fileBytes);
    if (row.expected[0] == '!') {
      EXPECT_TRUE(startsWith(got, row.expected)) << row.label << ": " << got.substr(0, 200);
    } else {
      EXPECT_TRUE(got == row.expected) << row.label << ": " << got.substr(0, 200);
      EXPECT_EQ(fileBytes, row.bytes.size()) << row.label;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, qorStreamDecoders, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "Fast" : "Zlib"; });

// Catches: a fast decoder that disagrees with zlib on damaged input (other
// data, another message, a crash or a hang), over seeded random damage.
TEST(qorStreamReader, DamagedInputSameInBothDecoders) {
  ScratchDir dir;
  for (unsigned seed = 1; seed <= 150; ++seed) {
    std::mt19937 rng(seed);
    const Format format = seed % 2 ? kGzip : kRaw;
    std::string bytes = compress(kText, format);
    for (int i = 1 + static_cast<int>(rng() % 4); i > 0; --i)
      bytes[rng() % bytes.size()] ^= static_cast<char>(1 + rng() % 255);
    if (seed % 5 == 0) bytes.resize(rng() % bytes.size());
    const std::string path = writeFile(dir.file("bad"), bytes);
    const std::string zlib = readAll(path, format, false, seed % 3 == 0);
    EXPECT_TRUE(readAll(path, format, true, seed % 3 == 0) == zlib) << "seed " << seed << ": " << zlib.substr(0, 100);
  }
}

// Catches: a default decoder other than zlib's: every fill gives exactly what
// inflate gives on the same 16 KiB pieces (the fast decoder may differ).
TEST(qorStreamReader, DefaultFillsAreZlibs) {
  ScratchDir dir;
  std::string bytes = compress(makeText(5, 400000), kGzip), gz = writeFile(dir.file("f"), bytes);
  qorStreamReader r(gz.c_str());
  r.gunzip(true);
  z_stream zs{};
  inflateInit2(&zs, 31);
  std::vector<char> out(65536);
  for (size_t in = 0, before; r.m_BufSize > 0;) {
    r.fillBuf();
    if (zs.avail_in == 0)
      zs.next_in = reinterpret_cast<Bytef*>(&bytes[in]), in += zs.avail_in = std::min<size_t>(16384, bytes.size() - in);
    zs.next_out = reinterpret_cast<Bytef*>(out.data()), zs.avail_out = 65536, before = zs.total_out;
    ::inflate(&zs, Z_SYNC_FLUSH);
    ASSERT_EQ(r.m_BufSize, static_cast<int>(zs.total_out - before)) << "at " << before;
  }
  inflateEnd(&zs);
}
