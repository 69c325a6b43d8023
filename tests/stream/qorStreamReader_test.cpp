// The reading operations against a byte-by-byte model, in every format and
// with both decoders.
#include <QString>
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
  // readLine(bool): the line, "null" at the end (an unterminated last line is
  // not delivered), or "!" when a count from 1 reaches 65536 or the text
  // outgrows 65535 bytes; the byte that raises is consumed.
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

// Catches: boundary bugs between the buffered readers (lost, repeated or
// changed bytes across refills), and the limits of readLine(bool) checked at
// the wrong byte, a write past its buffer or a wrong position after a refused
// line, compared with the model over seeded random mixes of every reading
// operation, in every format, with both decoders.
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
        case 6: {
          const bool e = m.item(expect, '\n', true, expand);
          ASSERT_EQ(n % 2 ? r.readLine(got, expand) : r.readString(got, expand), e);
          ASSERT_EQ(got, expect);
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
    EXPECT_EQ(r.read(buf.data(), 10), 0);
    EXPECT_EQ(r.readLine(false), nullptr);
    EXPECT_FALSE(r.readLine(expect, false) || r.readLine(q, false) || !expect.empty() || !q.isEmpty());
    EXPECT_EQ(r.size(), static_cast<long>(readFile(path).size()));
    EXPECT_TRUE(rewound || r.m_FileBytes == static_cast<size_t>(r.size())) << "seed " << seed;
    EXPECT_EQ(r.read(nullptr, 0) + r.read(buf.data(), -1), 0);
    EXPECT_TRUE(startsWith(raisedText([&] { r.read(nullptr, 2); }), "Buffer is null! [file qor_stream line "));
    EXPECT_TRUE(startsWith(raisedText([&] { r.readString(nullptr, 2); }), "Buffer is null! [file qor_stream line "));
  }
}
