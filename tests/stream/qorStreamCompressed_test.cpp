// The reader on compressed files: files from other tools, and bad input.
#include <gtest/gtest.h>
#include <qor/qor_stream.h>

#include <random>
#include <string>
#include <vector>

#include "stream_test_util.h"

using namespace streamtest;

namespace {

// Everything the reader delivers, through read().
std::string readAll(const std::string& path, Format format) {
  qorStreamReader r(path.c_str());
  if (format == kGzip) r.gunzip(true);
  if (format == kRaw) r.inflate(true);
  std::string all;
  std::vector<char> buf(50000);
  long got;
  while ((got = r.read(buf.data(), static_cast<int>(buf.size()))) > 0) all.append(buf.data(), static_cast<size_t>(got));
  return all;
}

// Every line through readLine(std::string&) then through readLine(bool).
std::string linesOf(const std::string& path, Format format) {
  qorStreamReader r(path.c_str());
  if (format == kGzip) r.gunzip(true);
  if (format == kRaw) r.inflate(true);
  std::string all, line;
  while (r.readLine(line, false)) all += line + "\n";
  return all;
}

// Reads with every method until the end or an exception; true when a
// qorException* ended it. Anything else (a crash, a hang) fails the test.
bool readsOrRaises(const std::string& path, Format format, std::string* text = nullptr) {
  try {
    std::string all = readAll(path, format);
    qorStreamReader r(path.c_str());
    if (format == kGzip) r.gunzip(true);
    if (format == kRaw) r.inflate(true);
    while (r.readLine(true) != nullptr) {
    }
    if (text != nullptr) *text = all;
    return false;
  } catch (qorException* e) {
    if (text != nullptr) *text = e->what();
    delete e;
    return true;
  }
}

std::string sampleText(unsigned seed, size_t size) {
  std::mt19937 rng(seed);
  return makeText(rng, size);
}

}  // namespace

// Catches: a gzip header with a file name and a time stamp (as the gzip
// command writes it) not skipped, at the fastest and the best level.
TEST(qorStreamReader, ReadsFilesOfTheGzipCommand) {
  if (!haveCommand("gzip")) GTEST_SKIP() << "no gzip command";
  ScratchDir dir;
  const std::string text = sampleText(3, 400000);
  for (const char* level : {"-1", "-9"}) {
    const std::string plain = dir.file("named.txt");
    writeFile(plain, text);
    const std::string command = std::string("gzip -f ") + level + " '" + plain + "'";
    ASSERT_EQ(system(command.c_str()), 0);
    const std::string gz = plain + ".gz";
    const std::string bytes = readFile(gz);
    ASSERT_GT(bytes.size(), 10u);
    EXPECT_EQ(static_cast<unsigned char>(bytes[3]) & 0x08, 0x08) << "gzip stored no file name";
    EXPECT_NE(bytes.substr(4, 4), std::string(4, '\0')) << "gzip stored no time";
    EXPECT_TRUE(readAll(gz, kGzip) == text) << level;
    // The model line split: CRs dropped, an unterminated last line kept.
    std::string expectLines, line;
    for (char c : text) {
      if (c == '\n') {
        expectLines += line + "\n";
        line.clear();
      } else if (c != '\r') {
        line.push_back(c);
      }
    }
    EXPECT_TRUE(linesOf(gz, kGzip) == expectLines) << level;
  }
}

// Catches: raw deflate decoded with a wrong window or wrapper setting, using
// Python's zlib (wbits -15) as the other implementation.
TEST(qorStreamReader, ReadsRawDeflateOfPython) {
  if (!haveCommand("python3")) GTEST_SKIP() << "no python3";
  ScratchDir dir;
  const std::string text = sampleText(5, 300000);
  writeFile(dir.file("in.txt"), text);
  const std::string command =
      "python3 -c \"import zlib,sys; d=open(sys.argv[1],'rb').read(); "
      "c=zlib.compressobj(9, zlib.DEFLATED, -15); "
      "open(sys.argv[2],'wb').write(c.compress(d)+c.flush())\" '" +
      dir.file("in.txt") + "' '" + dir.file("out.raw") + "'";
  ASSERT_EQ(system(command.c_str()), 0);
  EXPECT_TRUE(readAll(dir.file("out.raw"), kRaw) == text);
}

// Catches: a fill that returns an empty buffer (read as the end of the data)
// when 16 KiB of input decode to nothing, such as a long gzip file name.
TEST(qorStreamReader, LongGzipHeaderIsNotTheEnd) {
  ScratchDir dir;
  const std::string text = "after a long header\n";
  const std::string member = compress(text, kGzip);
  std::string header = member.substr(0, 10);
  header[3] = 0x08;  // FNAME
  const std::string withName = header + std::string(50000, 'n') + '\0' + member.substr(10);
  writeFile(dir.file("name.gz"), withName);
  EXPECT_TRUE(readAll(dir.file("name.gz"), kGzip) == text);
}

// Catches: data after the first gzip member delivered, or trailing bytes
// treated as an error.
TEST(qorStreamReader, StopsAtTheEndOfTheFirstMember) {
  ScratchDir dir;
  const std::string first = sampleText(8, 100000), second = "second member\n";
  writeFile(dir.file("two.gz"), compress(first, kGzip) + compress(second, kGzip) + "junk");
  EXPECT_TRUE(readAll(dir.file("two.gz"), kGzip) == first);
  writeFile(dir.file("junk.raw"), compress(first, kRaw) + std::string(40000, 'j'));
  EXPECT_TRUE(readAll(dir.file("junk.raw"), kRaw) == first);
}

// Catches: output-bound decoding (16 KiB inflating to far more than 64 KiB)
// losing the input still pending.
TEST(qorStreamReader, HighlyCompressibleData) {
  ScratchDir dir;
  std::string data(5000000, 'z');
  data[4999999] = '\n';
  for (Format format : {kGzip, kRaw}) {
    writeFile(dir.file("z"), compress(data, format, 9));
    EXPECT_TRUE(readAll(dir.file("z"), format) == data) << formatName(format);
    EXPECT_TRUE(linesOf(dir.file("z"), format) == data) << formatName(format);
  }
}

// Catches: a truncated stream read as a silent short end, or a null message.
TEST(qorStreamReader, TruncatedStreamRaisesClearly) {
  ScratchDir dir;
  const std::string text = sampleText(9, 200000);
  for (Format format : {kGzip, kRaw}) {
    const std::string whole = compress(text, format);
    for (size_t cut : {size_t(0), size_t(1), size_t(5), size_t(10), size_t(11), size_t(16384), whole.size() / 2,
                       whole.size() - 9, whole.size() - 1}) {
      if (format == kRaw && cut >= whole.size() - 9) cut = whole.size() - 1;
      const std::string path = dir.file("cut");
      writeFile(path, whole.substr(0, cut));
      std::string message;
      EXPECT_TRUE(readsOrRaises(path, format, &message)) << formatName(format) << " cut at " << cut;
      if (format == kRaw || cut + 8 <= whole.size() - 8 || cut < 10) {
        EXPECT_TRUE(startsWith(message, "Unexpected end of compressed data in " + path + "\n [file qor_stream line "))
            << formatName(format) << " cut at " << cut << ": " << message;
      } else {
        EXPECT_FALSE(message.empty());
      }
    }
  }
}

// Catches: a wrong format accepted, or the error raised without zlib's text.
TEST(qorStreamReader, WrongFormatRaisesZlibMessage) {
  ScratchDir dir;
  const std::string text = sampleText(10, 5000);
  writeFile(dir.file("g"), compress(text, kGzip));
  std::string message;
  EXPECT_TRUE(readsOrRaises(dir.file("g"), kRaw, &message));
  EXPECT_FALSE(message.empty());
  writeFile(dir.file("p"), "plain text\n");
  EXPECT_TRUE(readsOrRaises(dir.file("p"), kGzip, &message));
  EXPECT_TRUE(startsWith(message, "incorrect header check [file qor_stream line ")) << message;
  // A zlib-wrapped stream is refused by the gzip reader.
  z_stream zs{};
  ASSERT_EQ(deflateInit(&zs, 6), Z_OK);
  std::string z(deflateBound(&zs, text.size()), '\0');
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  zs.avail_in = static_cast<uInt>(text.size());
  zs.next_out = reinterpret_cast<Bytef*>(&z[0]);
  zs.avail_out = static_cast<uInt>(z.size());
  ASSERT_EQ(::deflate(&zs, Z_FINISH), Z_STREAM_END);
  z.resize(zs.total_out);
  deflateEnd(&zs);
  writeFile(dir.file("zl"), z);
  EXPECT_TRUE(readsOrRaises(dir.file("zl"), kGzip, &message));
}

// Catches: crashes, hangs or wrong data on corrupted streams: every damaged
// file either decodes or raises a qorException*.
TEST(qorStreamReader, CorruptStreamsNeverCrash) {
  ScratchDir dir;
  const std::string text = sampleText(12, 60000);
  int raised = 0;
  for (unsigned seed = 1; seed <= 150; ++seed) {
    std::mt19937 rng(seed);
    const Format format = seed % 2 ? kGzip : kRaw;
    std::string bytes = compress(text, format);
    const int flips = 1 + static_cast<int>(rng() % 4);
    for (int i = 0; i < flips; ++i) bytes[rng() % bytes.size()] ^= static_cast<char>(1 + rng() % 255);
    if (seed % 5 == 0) bytes.resize(rng() % bytes.size());
    const std::string path = dir.file("bad");
    writeFile(path, bytes);
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::string message;
    if (readsOrRaises(path, format, &message)) {
      ++raised;
      EXPECT_FALSE(message.empty());
    }
  }
  EXPECT_GT(raised, 60);
}

// Catches: a second switch-on that leaks the first decoder or restarts it in
// the middle of the stream.
TEST(qorStreamReader, SwitchingOnTwice) {
  ScratchDir dir;
  const std::string text = sampleText(13, 100000);
  writeFile(dir.file("g"), compress(text, kGzip));
  {
    qorStreamReader r(dir.file("g").c_str());
    r.gunzip(true);
    std::string line;
    ASSERT_TRUE(r.readLine(line, false));
    r.gunzip(true);  // the same format: keeps decoding where it is
    std::string rest;
    char buf[1000];
    long got;
    while ((got = r.read(buf, sizeof buf)) > 0) rest.append(buf, static_cast<size_t>(got));
    EXPECT_EQ(text.substr(0, text.find('\n') + 1) + rest, text);
  }
  {
    qorStreamReader r(dir.file("g").c_str());
    r.gunzip(true);
    r.inflate(true);  // another format replaces the decoder
    r.gunzip(true);
    EXPECT_NE(r.m_ZStream, nullptr);
    EXPECT_TRUE(readAll(dir.file("g"), kGzip) == text);
    r.gunzip(false);
    r.gunzip(false);
    EXPECT_EQ(r.m_ZBuf, nullptr);
    EXPECT_FALSE(r.m_Compressed);
    r.inflate(true);
    EXPECT_TRUE(r.m_Compressed);
    EXPECT_EQ(r.m_ZBufSize, 16384u);
  }
}
