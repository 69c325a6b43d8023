// The reader and the writer in every format, with both decoders, against a
// byte-by-byte model of the reading operations, zlib and files from other tools.
#include <QString>
#include <memory>
#include <vector>

#include "stream_test_util.h"

using namespace streamtest;

namespace {

// The readers' rules byte by byte: takes bytes up to limit or the stop byte (consumed, not delivered;
// -1: none), dropping CRs and expanding tabs as asked. True when the stop byte was met.
struct Model {
  std::string data;
  size_t pos = 0;
  bool item(std::string& out, int stop, bool dropCR, bool expand, size_t limit = ~size_t(0)) {
    out.clear();
    while (out.size() < limit && pos < data.size()) {
      const char c = data[pos++];
      if (c == static_cast<char>(stop) && stop >= 0) return true;
      if (dropCR && c == '\r') continue;
      out += (c == '\t' && expand) ? std::string("    ") : std::string(1, c);
    }
    return false;
  }
  // readLine(bool): the line, "null" at the end (an unterminated last line is not delivered), or "!" when
  // a count from 1 reaches 65536 or the text outgrows 65535 bytes; the byte that raises is consumed.
  std::string staticLine(bool expand) {
    std::string out;
    for (size_t count = 1; pos < data.size();) {
      const char c = data[pos++];
      if (c == '\n') return out.substr(0, out.find('\0'));
      const size_t grows = c == '\r' ? 0 : (c == '\t' && expand) ? 4 : 1;
      if (++count == 65536 || out.size() + grows > 65535) return "!";
      out += (c == '\t' && expand) ? std::string("    ") : c == '\r' ? std::string() : std::string(1, c);
    }
    return "null";
  }
};

QString asUnits(const std::string& bytes) {  // each byte sign-extended to one code unit
  QString s;
  for (char c : bytes) s.append(QChar(static_cast<ushort>(static_cast<signed char>(c))));
  return s;
}

// Lines near the 65534-byte limit of readLine(bool), some with many tabs.
std::string longLines(std::mt19937& rng) {
  std::string data = std::string(65534, 'x') + "\n" + std::string(65533, 'x') + "\r\r\n" + std::string(16383, '\t') +
                     "abc\n" + std::string(16384, '\t') + "\n";
  while (data.size() < 600000) {
    const size_t length = rng() % 3 == 0 ? rng() % 100 : 65530 + rng() % 12;
    const unsigned tabRate = rng() % 3 == 0 ? 2 : 1000;
    for (size_t i = 0; i < length; ++i)
      data.push_back(rng() % tabRate == 0 ? '\t' : rng() % 500 == 0 ? '\r' : static_cast<char>('a' + rng() % 26));
    data.push_back('\n');
  }
  return data;
}

}  // namespace

// Catches: lost, repeated or changed bytes across refills, and the limits of
// readLine(bool) checked at the wrong byte, a write past its buffer or a wrong
// position after a refused line: the model against seeded random mixes of
// every reading operation, in every format, with both decoders.
TEST(qorStreamReader, MixedReadsMatchModel) {
  for (unsigned seed = 0; seed <= 14; ++seed) {
    std::mt19937 rng(seed);
    const Format format = static_cast<Format>(seed % 3);
    const bool longOnes = seed > 10;
    const std::string text = longOnes    ? longLines(rng)
                             : seed == 0 ? std::string()
                                         : makeText(seed + 100, seed % 4 == 0 ? 131072 + seed : 150000 + rng() % 150000,
                                                    seed % 2 ? 200 : 3000);
    ScratchDir dir;
    const std::string path = writeFile(dir.file("f"), compress(text, format));
    qorStreamReader r(path.c_str());
    switchOn(r, format, seed % 4 < 2);
    Model m{text};
    bool rewound = false;
    std::string expect, got;
    QString q;
    std::vector<char> buf(100000);
    for (int step = 0; m.pos < text.size(); ++step) {
      SCOPED_TRACE(::testing::Message() << "seed " << seed << " step " << step << " pos " << m.pos);
      const bool expand = rng() % 2 == 0;
      const int n = static_cast<int>(rng() % (rng() % 4 == 0 ? 90000 : 300));
      q = "old";
      switch (longOnes ? 2 : rng() % 10) {
        case 0:
        case 1:  // read(), readString(char*)
          m.item(expect, expand ? -1 : '\0', false, false, static_cast<size_t>(n));
          ASSERT_EQ(expand ? r.read(buf.data(), n) : r.readString(buf.data(), n), static_cast<long>(expect.size()));
          ASSERT_EQ(std::string(buf.data(), expect.size()), expect);
          break;
        case 2: {
          const char* line = nullptr;
          const std::string raised = raisedText([&] { line = r.readLine(expand); }).substr(0, 45);
          got = raised != qortest::kNothingRaised ? "!" : line == nullptr ? "null" : line;
          ASSERT_TRUE(got == m.staticLine(expand)) << got.size() << " bytes";
          ASSERT_TRUE(got != "!" || raised == "line > 64k chars in qorStreamReader::readLine");
          break;
        }
        case 3:
        case 6: {  // readLine, readString and readLineView (which never expands tabs)
          std::string_view view;
          const bool viewed = n % 3 == 0, e = m.item(expect, '\n', true, expand && !viewed);
          ASSERT_EQ(viewed ? r.readLineView(view) : n % 2 ? r.readLine(got, expand) : r.readString(got, expand), e);
          ASSERT_EQ(viewed ? std::string(view) : got, expect);
          break;
        }
        case 4:
        case 5:
          ASSERT_EQ(n % 2 ? r.readLine(q, expand) : r.readString(q, expand),
                    m.item(expect, n % 2 ? '\n' : '\0', n % 2, expand));
          ASSERT_EQ(q, asUnits(expect));
          break;
        case 9:  // back to the start, from wherever the reader stands
          if (rng() % 8 == 0) r.rewind(), m.pos = 0, rewound = true;
          break;
        default: {
          const size_t k = rng() % 2 ? 8 : 16;
          m.item(expect, -1, false, false, k);
          const bool e = expect.size() == k;
          double ab[2] = {0, 0};
          ASSERT_EQ(k == 8 ? r.readFloat(ab[0]) : r.readComplex(ab[0], ab[1]), e);
          ASSERT_EQ(std::string(reinterpret_cast<char*>(ab), e ? k : 0), e ? expect : "");
        }
      }
    }
    EXPECT_EQ(r.read(buf.data(), 10) + r.read(nullptr, 0) + r.read(buf.data(), -1), 0);
    EXPECT_FALSE(r.readLine(false) || r.readLine(expect, false) || r.readLine(q, false) || expect.size() + q.size());
    EXPECT_EQ(r.size(), static_cast<long>(readFile(path).size()));
    EXPECT_TRUE(rewound || r.m_FileBytes == static_cast<size_t>(r.size())) << "seed " << seed;
    EXPECT_EQ(raisedText([&] { r.read(nullptr, 2); }).substr(0, 16) +
                  raisedText([&] { r.readString(nullptr, 2); }).substr(0, 16),
              "Buffer is null! Buffer is null! ");
  }
}

namespace {

const std::string kText = readFile(sample("text.txt"));
const bool kFastBuiltIn = QOR_FAST_DECODER != 0;  // the library was built with ISA-L

// A gzip member with FEXTRA, FNAME and FCOMMENT fields (name of n bytes).
std::string withHeaderFields(const std::string& text, size_t n) {
  const std::string m = compress(text, kGzip);
  return m.substr(0, 3) + '\x1c' + m.substr(4, 6) + std::string("\x04\0xtra", 6) + std::string(n, 'n') + '\0' +
         "comment" + '\0' + m.substr(10);
}

std::string flip(std::string bytes, size_t fromEnd, int bits = 1) {
  bytes[bytes.size() - fromEnd] ^= static_cast<char>(bits);
  return bytes;
}

// The member with a header CRC (FHCRC): the low 16 bits of the header's CRC-32, plus `wrong`.
std::string withHeaderCrc(const std::string& m, int wrong) {
  std::string header = m.substr(0, 10);
  header[3] |= 2;
  const uLong crc = crc32(0, reinterpret_cast<const Bytef*>(header.data()), 10) + static_cast<uLong>(wrong);
  return header + static_cast<char>(crc & 0xff) + static_cast<char>((crc >> 8) & 0xff) + m.substr(10);
}

// The bytes a writer on a new file leaves after the steps (and its destructor).
template <typename Steps>
std::string written(Steps steps) {
  ScratchDir dir;
  steps(*std::make_unique<qorStreamWriter>(dir.file("w").c_str(), 'w'));
  return readFile(dir.file("w"));
}

const char kCut[] = "!Unexpected end of compressed data in ", kJunk[] = "!qorStreamReader: trailing garbage after gzip";

struct DecodeRow {  // with readAllMembers(every), the bytes give the data or "!" and the message's start
  const char* label;
  std::string bytes;
  Format format;
  bool every;
  std::string expected;
};

std::vector<DecodeRow> decodeRows() {
  const std::string m = compress(kText, kGzip), raw = compress(kText, kRaw), z(5000000, 'z'), zeros(40000, '\0');
  std::string t = kText, tail = compress("tail", kGzip), seq;
  for (int i = 1; i <= 3000; ++i) seq += std::to_string(i) + "\n";
  const std::string lens = compress(seq, kRaw, 9);
  return {
      {"gzip(1) -1, header with name and time", readFile(sample("text-1.txt.gz")), kGzip, false, kText},
      {"gzip(1) -9", readFile(sample("text-9.txt.gz")), kGzip, false, kText},
      {"raw deflate by Python's zlib, wbits -15", readFile(sample("text.raw")), kRaw, false, kText},
      {"extra, name and comment fields skipped", withHeaderFields("x\n", 10), kGzip, false, "x\n"},
      {"a 50000-byte name: fills that decode nothing", withHeaderFields("x\n", 50000), kGzip, false, "x\n"},
      {"16 KiB in to far more than 64 KiB out keeps the pending input", compress(z, kGzip, 9), kGzip, false, z},
      {"two members, every member", m + compress("second\n", kGzip), kGzip, true, kText + "second\n"},
      {"junk after the member, default: dropped", m + "junk", kGzip, false, kText},
      {"junk after the member, every member: raises", m + compress("2\n", kGzip) + "junk", kGzip, true, kJunk},
      {"one stray byte after the member, every member: raises", m + "\x1f", kGzip, true, kJunk},
      {"zero bytes to the end after the last member, every member: the end, as gzip -dc takes it", m + zeros, kGzip,
       true, kText},
      {"zero bytes, then a member: trailing garbage, as gzip -dc says", m + zeros + m, kGzip, true, kJunk},
      {"reserved flag bits in a gzip header", flip(m, m.size() - 3, 0x20), kGzip, false, "!unknown header flags set"},
      {"a header CRC that matches", withHeaderCrc(m, 0), kGzip, false, kText},
      {"a header CRC that does not match", withHeaderCrc(m, 1), kGzip, false, "!header crc mismatch"},
      {"a Huffman table that zlib refuses (and ISA-L would read)", flip(lens, lens.size() - 18, 2), kRaw, false,
       "!invalid literal/lengths set"},
      {"every member on raw deflate: no effect", raw + "junk", kRaw, true, kText},
      {"CRC-32 of the trailer checked", flip(m, 8), kGzip, false, "!incorrect data check [file qor_stream line "},
      {"length of the trailer checked", flip(m, 4), kGzip, false, "!incorrect length check [file qor_stream line "},
      {"corrupt block", flip(m, m.size() / 2), kGzip, false, "!"},
      {"plain text as gzip", "plain text\n", kGzip, false, "!incorrect header check [file qor_stream line "},
      {"zlib wrapper as gzip", "\x78\x9c" + raw, kGzip, false, "!incorrect header check [file qor_stream line "},
      {"gzip as raw deflate", m, kRaw, false, "!invalid block type [file qor_stream line "},
      {"empty file as gzip", "", kGzip, false, kCut},
      {"gzip cut in the header", m.substr(0, 5), kGzip, false, kCut},
      {"gzip cut in the data", m.substr(0, m.size() / 2), kGzip, false, kCut},
      {"gzip cut before the trailer", m.substr(0, m.size() - 8), kGzip, false, kCut},
      {"raw cut in the data", raw.substr(0, raw.size() - 9), kRaw, false, kCut},
      {"a damaged member spanning reads is decoded again from its own start",
       flip(compress(makeText(9, 300000), kGzip), 8), kGzip, false, "!incorrect data check [file qor_stream line "},
      {"every member: a second member whose long name outlasts the pending input is not cut short",
       m + withHeaderFields("x\n", 50000), kGzip, true, kText + "x\n"},
      {"every member: a damaged second member spanning reads is decoded again from its own start",
       m + flip(withHeaderFields("x\n", 50000), 8), kGzip, true, "!incorrect data check [file qor_stream line "},
      {"writer: rewind discards the buffered bytes and writes from the start; older bytes stay",
       written([&](qorStreamWriter& w) {
         w.write(&t[0], 30000), w.emptyBuf(), w.write(&t[9], 4), w.rewind(), w.write(&t[20], 2);
       }),
       kPlain, false, t.substr(20, 2) + t.substr(2, 29998)},
      {"writer: rewind while compressing starts the stream anew at the start of the file",
       written([&](qorStreamWriter& w) {
         w.gzip(true), w.write(&t[0], 30000), w.emptyBuf(), w.write(&t[9], 4), w.rewind(), w.write(&t[20], 2);
       }),
       kGzip, false, t.substr(20, 2)},
      {"writer: gzip(false) ends the member and later bytes are plain; bytes buffered before switch-on are compressed",
       written([&](qorStreamWriter& w) {
         w.write(&t[0], 5), w.gzip(true), w.write(&t[5], 70000), w.gzip(false),
             w.write(&tail[0], static_cast<int>(tail.size()));
       }),
       kGzip, true, t.substr(0, 70005) + "tail"},
  };
}

// Writes data in pieces of `pattern` bytes; 0: seeded random sizes, with now and then an emptyBuf() or a
// second switch-on in the running format, which must neither end nor restart the stream.
void writeWithPattern(qorStreamWriter& w, std::string data, int pattern, unsigned seed, Format format) {
  std::mt19937 rng(seed);
  for (size_t pos = 0, n; pos < data.size(); pos += n) {
    n = pattern > 0 ? static_cast<size_t>(pattern) : 1 + rng() % (rng() % 3 == 0 ? 40000 : 300);
    if (pattern == 0 && rng() % 40 == 0) rng() % 2 ? (void)w.emptyBuf() : switchOn(w, format);
    n = std::min(n, data.size() - pos);
    ASSERT_EQ(w.write(&data[pos], static_cast<int>(n)), static_cast<long>(n));
  }
}

const Row kRows[] = {
    {"read() and readString(char*) across trailing garbage: the call delivers every member before it, the next "
     "call raises, and so does every later one",
     [](const ScratchDir& dir, bool fast) {
       const std::string a(150000, 'a'), path = dir.file("g");
       writeFile(path, compress(a, kGzip) + compress("b\n", kGzip) + "junk");
       std::string got(200000, '\0'), out;
       for (int call = 0; call < 2; ++call) {
         qorStreamReader r(path.c_str());
         switchOn(r, kGzip, fast);
         r.readAllMembers(true);
         // readString(char*) in two calls, the first across refills and ended by its count
         const long n = call ? r.readString(&got[0], 100000) : r.read(&got[0], 200000);
         const long m = call && n == 100000 ? r.readString(&got[100000], 100000) : 0;
         out += std::to_string(got.substr(0, static_cast<size_t>(n + m)) == a + "b\n");
         for (int i = 0; i < 2; ++i) out += raisedText([&] { r.read(&got[0], 1); }).substr(0, 54) + "|";
       }
       return out;
     },
     "1qorStreamReader: trailing garbage after gzip member in|qorStreamReader: trailing garbage after gzip member in|"
     "1qorStreamReader: trailing garbage after gzip member in|qorStreamReader: trailing garbage after gzip member in|"},
    {"peek() on a file: the first bytes, the same again and more, decoded afterwards as the start of the data; after "
     "a read, the bytes past those taken into the buffers, with the data unchanged; rewind() drops them; bad sizes",
     [](const ScratchDir& dir, bool fast) {
       const std::string text = makeText(12, 200000), path = writeFile(dir.file("p"), compress(text, kGzip));
       const std::string bytes = readFile(path);
       qorStreamReader r(path.c_str());
       std::string got(text.size(), '\0');
       char b[16384];
       int wrong = r.peek(b, 2) != 2 || r.peek(b, 16384) != 16384 || memcmp(b, bytes.data(), 16384) != 0;
       switchOn(r, kGzip, fast);
       wrong += r.read(&got[0], 10) != 10 || r.peek(b, 4) != 4 || memcmp(b, &bytes[r.m_FileBytes], 4) != 0;
       wrong += r.read(&got[10], 100) != 100 || got.compare(0, 110, text, 0, 110) != 0;
       wrong += r.rewind() != 0 || r.read(&got[0], static_cast<int>(got.size())) != 200000 || got != text;
       wrong += r.m_ZStream->total_out != (fast && kFastBuiltIn ? 0 : 200000);  // the fast decoder leaves zlib idle
       return std::to_string(wrong) + raisedText([&] { r.peek(b, 16385); }).substr(0, 52) +
              raisedText([&] { r.peek(nullptr, 1); }).substr(0, 16) + std::to_string(r.peek(nullptr, 0));
     },
     "0qorStreamReader::peek: more than 16384 bytes asked [Buffer is null! 0"},
    {"switched to gzip after plain bytes: the buffered byte as it is, then decoded from here (readString(char*) "
     "too); switched on again midway: same decoder; doubles and complex values straddling refills come back whole",
     [](const ScratchDir& dir, bool fast) {
       std::vector<double> v(40002);
       for (size_t i = 0; i < v.size(); ++i) v[i] = 1.25 * i - 7e5 / (i + 1);
       const std::string plain = makeText(7, 65536), numbers(reinterpret_cast<char*>(v.data()), v.size() * 8);
       const std::string path = writeFile(dir.file("n"), plain + compress(std::string("ab\0", 3) + numbers, kGzip));
       qorStreamReader r(path.c_str());
       r.useFastDecoder(fast);
       std::string got(65538, '\0');
       int wrong = r.read(&got[0], 65535) != 65535;  // one plain byte stays buffered
       r.gunzip(true);
       wrong += r.readString(&got[65535], 5) != 3 || got != plain + "ab";
       for (size_t i = 0; i < v.size(); i += 3) {
         double a, b, c;
         if (i == 30000) r.gunzip(true);
         wrong += !r.readFloat(a) || !r.readComplex(b, c) || a != v[i] || b != v[i + 1] || c != v[i + 2];
       }
       wrong += r.readFloat(v[0]) || r.m_FileBytes != readFile(path).size();  // the data has ended
       return std::to_string(wrong);
     },
     "0"},
    {"small writes stay buffered until emptyBuf(); n <= 0 writes nothing, a null buffer raises; big writes go out "
     "in whole buffers, and a buffer filled exactly stays full",
     [](const ScratchDir& dir, bool) {
       std::string data = makeText(2, 40000), path = dir.file("f");
       qorStreamWriter w(path.c_str(), 'w'), w2(dir.file("2").c_str(), 'w');
       for (int i = 0; i < 10; ++i) w.write(&data[0], 1000);
       std::string out = std::to_string(w.m_BufUsed) + " " + std::to_string(w.m_FileBytes) + readFile(path) + " ";
       w.emptyBuf();
       out += std::to_string(w.m_FileBytes + w.write(nullptr, 0) + w.write(&data[0], -3) + w.m_BufUsed) + " ";
       w.write(&data[0], 40000), w2.write(&data[0], 16384);
       return out + raisedText([&] { w.write(nullptr, 5); }).substr(0, 16) + std::to_string(w.m_FileBytes) + " " +
              std::to_string(w.m_BufUsed) + " " + std::to_string(w2.m_BufUsed);
     },
     "10000 0 10000 Buffer is null! 42768 7232 16384"},
};

}  // namespace

// Catches: the fault in each row's label, with either decoder; and a
// decoder whose byte count from the file differs at the end of the data.
TEST_P(qorStreamDecoders, Table) {
  ScratchDir dir;
  for (const DecodeRow& row : decodeRows()) {
    size_t fileBytes = 0;
    const std::string got = readAll(writeFile(dir.file("f"), row.bytes), row.format, GetParam(), row.every, &fileBytes);
    const bool raises = row.expected[0] == '!';
    EXPECT_TRUE(raises ? startsWith(got, row.expected) : got == row.expected) << row.label << ": " << got.substr(0, 99);
    EXPECT_TRUE(raises || fileBytes == row.bytes.size()) << row.label;
  }
}

// Catches: each row's fault, named in its label, with either decoder.
TEST_P(qorStreamDecoders, Rows) { expectRows(kRows, GetParam()); }

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
    // What each decoder delivered, before it raised too, begins zlib's own decoding of the bytes.
    std::string zlibData, fastData, oracle = zlibCodec(bytes, format, true);
    const std::string zlib = readAll(path, format, false, seed % 3 == 0, nullptr, &zlibData);
    EXPECT_TRUE(readAll(path, format, true, seed % 3 == 0, nullptr, &fastData) == zlib &&
                oracle.compare(0, zlibData.size(), zlibData) == 0 && oracle.compare(0, fastData.size(), fastData) == 0)
        << "seed " << seed << ": " << zlib.substr(0, 100) << " " << zlibData.size() << " " << fastData.size() << " "
        << oracle.size();
  }
}

// Catches: a default decoder other than zlib's: every fill gives exactly what
// inflate gives on the same 16 KiB pieces (the fast decoder may differ).
TEST(qorStreamReader, DefaultFillsAreZlibs) {
  ScratchDir dir;
  std::string bytes = compress(makeText(5, 400000), kGzip);
  qorStreamReader r(writeFile(dir.file("f"), bytes).c_str());
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

// Catches: compressed output ended early (at a partly filled buffer), twice or
// not at all, for sizes around the buffer boundaries and patterns of write
// sizes, ended by close() or the destructor; a byte count m_FileBytes that is
// not the file's size. zlib, our reader and the plain bytes must agree.
TEST(qorStreamWriter, RoundTripsAllFormatsSizesAndPatterns) {
  ScratchDir dir;
  const std::string source = makeText(3, 200001), path = dir.file("rt");
  for (Format format : {kPlain, kGzip, kRaw}) {
    for (size_t size : {0, 1, 100, 16383, 16384, 16385, 32768, 32769, 65536, 70000, 200001}) {
      for (int pattern : {1, 16383, 16384, 16385, 70000, 0}) {
        if (pattern == 1 && size > 70000) continue;
        SCOPED_TRACE(::testing::Message() << "format " << format << " size " << size << " pattern " << pattern);
        const std::string data = source.substr(0, size);
        size_t counted = 0;
        {
          qorStreamWriter w(path.c_str(), 'w');
          switchOn(w, format);
          writeWithPattern(w, data, pattern, static_cast<unsigned>(size), format);
          if (pattern % 2 == 0) w.close(), counted = w.m_FileBytes;
        }
        const std::string bytes = readFile(path);
        bool ok = false;
        ASSERT_TRUE(zlibCodec(bytes, format, true, -1, &ok) == data && ok) << "not exactly one complete stream";
        ASSERT_TRUE(readAll(path, format, size % 2 == 0) == data);
        ASSERT_EQ(counted, pattern % 2 == 0 ? bytes.size() : 0);
      }
    }
  }
}
