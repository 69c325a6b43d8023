// The reading operations against a byte-by-byte model, and a table of edge
// cases, in every format and with both decoders.
#include <QString>
#include <vector>

#include "stream_test_util.h"

using namespace streamtest;

namespace {

// The readers' rules byte by byte over the decoded data: takes bytes up to
// limit or up to the stop byte (consumed, not delivered; -1: none), dropping
// CRs and expanding tabs as asked. True when the stop byte was met.
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
};

QString asUnits(const std::string& bytes) {
  QString s;
  for (char c : bytes) s.append(QChar(static_cast<ushort>(static_cast<short>(static_cast<signed char>(c)))));
  return s;
}

}  // namespace

// Catches: boundary bugs between the buffered readers (lost, repeated or
// changed bytes across refills), compared with the model over seeded random
// mixes of every reading operation, in every format, with both decoders.
TEST(qorStreamReader, MixedReadsMatchModel) {
  for (unsigned seed = 1; seed <= 12; ++seed) {
    std::mt19937 rng(seed);
    const Format format = static_cast<Format>(seed % 3);
    const bool fast = seed % 4 < 2;
    const std::string text =
        makeText(rng, seed % 4 == 0 ? 131072 + seed : 150000 + rng() % 150000, seed % 2 ? 200 : 3000);
    ScratchDir dir;
    const std::string path = writeFile(dir.file("f"), compress(text, format));
    qorStreamReader r(path.c_str());
    switchOn(r, format, fast);
    Model m{text};
    std::string expect, got;
    std::vector<char> buf(100000);
    for (int step = 0; m.pos < text.size(); ++step) {
      SCOPED_TRACE(::testing::Message() << "seed " << seed << " step " << step << " pos " << m.pos);
      const bool expand = rng() % 2 == 0;
      const int n = static_cast<int>(rng() % (rng() % 4 == 0 ? 90000 : 300));
      QString q("old");
      switch (rng() % 9) {
        case 0:
          m.item(expect, -1, false, false, static_cast<size_t>(n));
          ASSERT_EQ(r.read(buf.data(), n), static_cast<long>(expect.size()));
          ASSERT_EQ(std::string(buf.data(), expect.size()), expect);
          break;
        case 1:
          m.item(expect, '\0', false, false, static_cast<size_t>(n));
          ASSERT_EQ(r.readString(buf.data(), n), static_cast<long>(expect.size()));
          ASSERT_EQ(std::string(buf.data(), expect.size()), expect);
          break;
        case 2: {
          const bool e = m.item(expect, '\n', true, expand);
          const char* line = r.readLine(expand);
          ASSERT_EQ(line != nullptr, e);
          ASSERT_EQ(e ? std::string(line) : "", e ? expect.substr(0, expect.find('\0')) : "");
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
          ASSERT_EQ(r.readLine(q, expand), m.item(expect, '\n', true, expand));
          ASSERT_EQ(q, asUnits(expect));
          break;
        case 5:
          ASSERT_EQ(r.readString(q, expand), m.item(expect, '\0', false, expand));
          ASSERT_EQ(q, asUnits(expect));
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
    EXPECT_EQ(r.m_FileBytes, static_cast<size_t>(r.size())) << "seed " << seed;
  }
}

// Catches: the limits of readLine(bool) checked at the wrong byte (a count
// from 1 that raises on reaching 65536; the text and its terminator must fit
// 65536 bytes, which only expanded tabs can break), a write past its buffer,
// or the position after a refused line left in the wrong place, with lines
// near the limit crossing buffer boundaries and holding CRs and tabs.
TEST(qorStreamReader, StaticLineLimitsMatchModel) {
  for (unsigned seed = 1; seed <= 4; ++seed) {
    std::mt19937 rng(seed);
    std::string data = std::string(65534, 'x') + "\n" + std::string(65533, 'x') + "\r\r\n";
    while (data.size() < 600000) {
      const size_t length = rng() % 3 == 0 ? rng() % 100 : 65530 + rng() % 12;
      const unsigned tabRate = rng() % 3 == 0 ? 2 : 1000;
      for (size_t i = 0; i < length; ++i)
        data.push_back(rng() % tabRate == 0 ? '\t' : rng() % 500 == 0 ? '\r' : static_cast<char>('a' + rng() % 26));
      data.push_back('\n');
    }
    ScratchDir dir;
    const Format format = seed % 2 ? kPlain : kGzip;
    const std::string path = writeFile(dir.file("f"), compress(data, format));
    for (bool expand : {false, true}) {
      SCOPED_TRACE(::testing::Message() << "seed " << seed << " expand " << expand);
      std::vector<std::string> expected;  // "!" stands for a raise; reading goes on after it
      for (size_t pos = 0, end; (end = data.find('\n', pos)) != std::string::npos;) {
        std::string line;
        size_t count = 1;
        for (; pos <= end; ++pos) {
          const char c = data[pos];
          const size_t grows = c == '\r' ? 0 : (c == '\t' && expand) ? 4 : 1;
          if (c == '\n' || ++count == 65536 || line.size() + grows > 65535) break;
          line += (c == '\t' && expand) ? std::string("    ") : c == '\r' ? std::string() : std::string(1, c);
        }
        expected.push_back(data[pos] == '\n' ? line : "!");
        ++pos;
      }
      qorStreamReader r(path.c_str());
      switchOn(r, format, seed == 2);
      size_t i = 0;
      for (;; ++i) {
        const char* line = nullptr;
        const std::string raised = raisedText([&] { line = r.readLine(expand); });
        if (raised == qortest::kNothingRaised && line == nullptr) break;
        ASSERT_LT(i, expected.size());
        if (raised != qortest::kNothingRaised) {
          ASSERT_EQ(expected[i], "!") << "line " << i << ": " << raised;
          ASSERT_TRUE(startsWith(raised, "line > 64k chars in qorStreamReader::readLine [file qor_stream line "));
        } else {
          ASSERT_TRUE(line == expected[i]) << "line " << i << " got " << strlen(line) << " bytes";
        }
      }
      EXPECT_EQ(i, expected.size());
    }
  }
}

namespace {

// Runs a script of reading calls and returns what they gave, one item per
// call: l/L readLine(bool) without/with tab expansion ("null" at the end);
// s/S readLine(std::string&), q/Q readLine(QString&), y readString(std::string&),
// z/Z readString(QString&) ("T:" or "F:" and the text; QString units above
// 0x7F as <n>); 0-9 readString(char*, n), r read(4) ("n:bytes"); f readFloat,
// c readComplex; n the null-buffer calls; w three rewinds from different
// places, each followed by the first line; d every byte left.
std::string play(qorStreamReader& r, const std::string& script) {
  std::string out;
  for (char op : script) {
    const bool x = isupper(op);
    std::string s = "stale";
    QString q("stale");
    char buf[100];
    double a = 9, b = 9;
    if (!out.empty()) out += "|";
    if (op == 'l' || op == 'L') {
      const char* line = r.readLine(x);
      out += line == nullptr ? "null" : line;
    } else if (op == 's' || op == 'S' || op == 'y' || op == 'Y') {
      out += ((op == 'y' || op == 'Y' ? r.readString(s, x) : r.readLine(s, x)) ? "T:" : "F:") + s;
    } else if (op == 'q' || op == 'Q' || op == 'z' || op == 'Z') {
      out += (op == 'q' || op == 'Q' ? r.readLine(q, x) : r.readString(q, x)) ? "T:" : "F:";
      for (QChar c : q)
        out += c.unicode() < 0x80 ? std::string(1, static_cast<char>(c.unicode()))
                                  : "<" + std::to_string(c.unicode()) + ">";
    } else if (isdigit(op) || op == 'r') {
      const long got = op == 'r' ? r.read(buf, 4) : r.readString(buf, op - '0');
      out += std::to_string(got) + ":" + std::string(buf, static_cast<size_t>(std::max(0L, got)));
    } else if (op == 'f' || op == 'c') {
      const bool ok = op == 'f' ? r.readFloat(a) : r.readComplex(a, b);
      out += std::to_string(ok) + ":" + std::to_string(a) + "," + std::to_string(b);
    } else if (op == 'n') {
      out += std::to_string(r.read(nullptr, 0) + r.read(buf, -1)) +
             raisedText([&] { r.read(nullptr, 2); }).substr(0, 15) +
             raisedText([&] { r.readString(nullptr, 2); }).substr(0, 15);
    } else if (op == 'w') {
      for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 100 * round; ++i) r.read(buf, sizeof buf);
        if (round == 2) play(r, "d");
        r.rewind();
        out += (round ? "," : "") + play(r, "l");
      }
    } else if (op == 'd') {
      for (long got; (got = r.read(buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(got));
    }
  }
  return out;
}

const double kDoubles[5] = {1.5, -2.25, 1e300, 7, 7};
const std::string kHead = "first line\n" + std::string(200000, 'b');

struct EdgeRow {
  const char* label;
  std::string bytes, script, expected;
} const kEdgeRows[] = {
    {"empty file ends at once", "", "lsqr", "null|F:|F:|0:"},
    {"unterminated last line kept by the string reader", "abc", "sl", "F:abc|null"},
    {"unterminated last line dropped by readLine(bool)", "abc", "l", "null"},
    {"carriage returns dropped at the end and inside", "a\r\nb\nc\rd\n", "lsql", "a|T:b|T:cd|null"},
    {"tabs expanded only when asked, by every reader", std::string("\tx\n\tx\n\tx\n\tx\n\tx\n\tx\n\tx\n\tx\0\tx\0", 27),
     "LlSsQqYZz", "    x|\tx|T:    x|T:\tx|T:    x|T:\tx|T:    x|T:    x|T:\tx"},
    {"zero-terminated QStrings keep CR and LF", std::string("ab\0a\r\nb\0rest", 12), "zzz", "T:ab|T:a\r\nb|F:rest"},
    {"readString(std::string&) reads to a line feed, not a zero", std::string("ab\0cd\0", 6), "y",
     std::string("F:ab\0cd\0", 8)},
    {"readString(char*) stops at the size, at a zero, at the end", std::string("hello\0world", 11), "3303333",
     "3:hel|2:lo|0:|3:wor|2:ld|0:|0:"},
    {"QString takes bytes as signed code units", "A\x80\xff\x7f\n", "q", "T:A<65408><65535>\x7f"},
    {"doubles in host order; short ones store nothing", std::string(reinterpret_cast<const char*>(kDoubles), 36),
     "fccf", "1:1.500000,9.000000|1:-2.250000," + std::to_string(1e300) + "|0:9.000000,9.000000|0:9.000000,9.000000"},
    {"null buffers refused, nothing consumed", "data", "nr", "0Buffer is null!Buffer is null!|4:data"},
    {"rewind restarts from the first byte, mid-stream and at the end", kHead, "lw",
     "first line|first line,first line,first line"},
};

class qorStreamReaderEdge : public ::testing::TestWithParam<bool> {};

}  // namespace

// Catches: each row's fault (named in its label), in every format and with
// both decoders; and size() that follows the position or the decoded size.
TEST_P(qorStreamReaderEdge, Rows) {
  for (const EdgeRow& row : kEdgeRows) {
    for (Format format : {kPlain, kGzip, kRaw}) {
      ScratchDir dir;
      const std::string path = writeFile(dir.file("f"), compress(row.bytes, format));
      qorStreamReader r(path.c_str());
      switchOn(r, format, GetParam());
      EXPECT_EQ(play(r, row.script), row.expected) << row.label << " (" << formatName(format) << ")";
      EXPECT_EQ(r.size(), static_cast<long>(readFile(path).size()));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Decoders, qorStreamReaderEdge, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "Fast" : "Zlib"; });
