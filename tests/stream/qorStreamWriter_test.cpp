#include <gtest/gtest.h>
#include <qor/qor_stream.h>

#include <random>
#include <string>
#include <vector>

#include "stream_test_util.h"

using namespace streamtest;

namespace {

void switchOn(qorStreamWriter& w, Format format) {
  if (format == kGzip) w.gzip(true);
  if (format == kRaw) w.deflate(true);
}

std::string readBack(const std::string& path, Format format) {
  qorStreamReader r(path.c_str());
  if (format == kGzip) r.gunzip(true);
  if (format == kRaw) r.inflate(true);
  std::string all;
  std::vector<char> buf(65536);
  long got;
  while ((got = r.read(buf.data(), static_cast<int>(buf.size()))) > 0) all.append(buf.data(), static_cast<size_t>(got));
  return all;
}

// Writes data with the given pattern of write sizes; pattern 0 means random
// sizes from a seeded generator.
void writeWithPattern(qorStreamWriter& w, const std::string& data, int pattern, unsigned seed) {
  std::mt19937 rng(seed);
  size_t pos = 0;
  std::vector<char> copy(data.begin(), data.end());
  while (pos < data.size()) {
    size_t n = pattern > 0 ? static_cast<size_t>(pattern) : 1 + rng() % (rng() % 3 == 0 ? 40000 : 300);
    if (n > data.size() - pos) n = data.size() - pos;
    ASSERT_EQ(w.write(copy.data() + pos, static_cast<int>(n)), static_cast<long>(n));
    pos += n;
  }
}

std::string bytesOf(unsigned seed, size_t size) {
  std::mt19937 rng(seed);
  return makeText(rng, size);
}

}  // namespace

// Catches: append mode that truncates, or write mode that keeps old bytes.
TEST(qorStreamWriter, AppendKeepsWriteReplaces) {
  ScratchDir dir;
  const std::string path = dir.file("f");
  writeFile(path, "old");
  {
    qorStreamWriter w(path.c_str(), 'a');
    char more[] = "new";
    EXPECT_EQ(w.write(more, 3), 3);
  }
  EXPECT_TRUE(readFile(path) == "oldnew");
  {
    qorStreamWriter w(path.c_str(), 'x');
    char more[] = "z";
    w.write(more, 1);
  }
  EXPECT_TRUE(readFile(path) == "z");
}

// Catches: small writes reaching the file early, or a wrong byte count.
TEST(qorStreamWriter, SmallWritesStayBuffered) {
  ScratchDir dir;
  const std::string path = dir.file("f");
  std::string data = bytesOf(1, 10000);
  qorStreamWriter w(path.c_str(), 'w');
  for (int i = 0; i < 10; ++i) EXPECT_EQ(w.write(&data[static_cast<size_t>(i) * 1000], 1000), 1000);
  EXPECT_EQ(w.m_BufUsed, 10000);
  EXPECT_EQ(w.m_FileBytes, 0u);
  EXPECT_TRUE(readFile(path) == "");
  EXPECT_EQ(w.emptyBuf(), 0);
  EXPECT_EQ(w.m_FileBytes, 10000u);
  fflush(w.m_FileHandle);
  EXPECT_TRUE(readFile(path) == data);
  char none[1] = {'x'};
  EXPECT_EQ(w.write(none, 0), 0);
  EXPECT_EQ(w.write(none, -3), 0);
  EXPECT_EQ(w.m_BufUsed, 0);
}

// Catches: a large plain write reordered or cut at the buffer size, and the
// full-buffer rule (a write that fills the buffer exactly leaves it full).
TEST(qorStreamWriter, LargePlainWriteInOrder) {
  ScratchDir dir;
  const std::string path = dir.file("f");
  std::string data = bytesOf(2, 40000);
  {
    qorStreamWriter w(path.c_str(), 'w');
    EXPECT_EQ(w.write(&data[0], 40000), 40000);
    EXPECT_EQ(w.m_FileBytes, 32768u);
    EXPECT_EQ(w.m_BufUsed, 40000 - 32768);
  }
  EXPECT_TRUE(readFile(path) == data);
  qorStreamWriter w(path.c_str(), 'w');
  EXPECT_EQ(w.write(&data[0], 16384), 16384);
  EXPECT_EQ(w.m_BufUsed, 16384);
  EXPECT_EQ(w.m_FileBytes, 0u);
}

// Catches: rewind writing the buffered bytes, or not overwriting from the start.
TEST(qorStreamWriter, RewindDiscardsBufferedBytes) {
  ScratchDir dir;
  const std::string path = dir.file("f");
  {
    qorStreamWriter w(path.c_str(), 'w');
    char a[] = "aaaaaaaa";
    w.write(a, 8);
    w.emptyBuf();
    char b[] = "bbbb";
    w.write(b, 4);
    EXPECT_EQ(w.rewind(), 0);
    char c[] = "cc";
    w.write(c, 2);
  }
  EXPECT_TRUE(readFile(path) == "ccaaaaaa");
}

// Catches: open failures that leak, raise the wrong text, or raise nothing.
TEST(qorStreamWriter, ConstructorFailures) {
  EXPECT_TRUE(
      startsWith(raisedText([] { qorStreamWriter w(nullptr, 'w'); }), "Filename is null! [file qor_stream line "));
  EXPECT_TRUE(startsWith(raisedText([] { qorStreamWriter w("/nonexistent/dir/file", 'w'); }),
                         "Unable to open file for write: /nonexistent/dir/file\n [file qor_stream line "));
}

// Catches: compressed output ended early (at a partly filled buffer), ended
// twice, or not ended, for every total size around the buffer boundaries and
// every pattern of write sizes; zlib, our reader and the plain bytes agree.
TEST(qorStreamWriter, RoundTripsAllFormatsSizesAndPatterns) {
  ScratchDir dir;
  const std::vector<size_t> sizes = {0,     1,     100,   16383, 16384, 16385, 32767,
                                     32768, 32769, 65535, 65536, 65537, 70000, 200001};
  const std::vector<int> patterns = {1, 16383, 16384, 16385, 70000, 0};
  const std::string source = bytesOf(3, 200001);
  for (Format format : {kPlain, kGzip, kRaw}) {
    for (size_t size : sizes) {
      for (int pattern : patterns) {
        if (pattern == 1 && size > 70000) continue;
        SCOPED_TRACE(::testing::Message() << formatName(format) << " size " << size << " pattern " << pattern);
        const std::string data = source.substr(0, size);
        const std::string path = dir.file("rt");
        {
          qorStreamWriter w(path.c_str(), 'w');
          switchOn(w, format);
          writeWithPattern(w, data, pattern, static_cast<unsigned>(size));
        }
        bool ok = false;
        ASSERT_TRUE(decompress(readFile(path), format, &ok) == data);
        ASSERT_TRUE(ok) << "not exactly one complete stream";
        ASSERT_TRUE(readBack(path, format) == data);
      }
    }
  }
}

// Catches: an output the gzip command refuses (bad trailer, second member,
// trailing bytes).
TEST(qorStreamWriter, GzipCommandAcceptsOutput) {
  if (!haveCommand("gzip")) GTEST_SKIP() << "no gzip command";
  ScratchDir dir;
  const std::string data = bytesOf(4, 300000);
  for (int pattern : {1, 16384, 70000, 0}) {
    const std::string path = dir.file("out.gz");
    {
      qorStreamWriter w(path.c_str(), 'w');
      w.gzip(true);
      writeWithPattern(w, data, pattern, 17);
    }
    EXPECT_EQ(system(("gzip -t '" + path + "' 2>&1").c_str()), 0) << "pattern " << pattern;
    ASSERT_EQ(system(("gzip -dc '" + path + "' > '" + dir.file("out.txt") + "'").c_str()), 0);
    EXPECT_TRUE(readFile(dir.file("out.txt")) == data) << "pattern " << pattern;
  }
}

// Catches: raw deflate output with a header or trailer, checked by Python's
// zlib with wbits -15.
TEST(qorStreamWriter, PythonDecodesRawDeflate) {
  if (!haveCommand("python3")) GTEST_SKIP() << "no python3";
  ScratchDir dir;
  const std::string data = bytesOf(5, 100000);
  const std::string path = dir.file("out.raw");
  {
    qorStreamWriter w(path.c_str(), 'w');
    w.deflate(true);
    writeWithPattern(w, data, 0, 23);
  }
  const std::string command =
      "python3 -c \"import zlib,sys; d=zlib.decompressobj(-15); "
      "o=d.decompress(open(sys.argv[1],'rb').read()); "
      "assert d.eof and not d.unused_data; open(sys.argv[2],'wb').write(o)\" '" +
      path + "' '" + dir.file("out.txt") + "'";
  ASSERT_EQ(system(command.c_str()), 0);
  EXPECT_TRUE(readFile(dir.file("out.txt")) == data);
}

// Catches: gzip(false) that does not end the member, and plain bytes after it
// swallowed into the stream.
TEST(qorStreamWriter, SwitchOffEndsTheMember) {
  ScratchDir dir;
  const std::string path = dir.file("f");
  const std::string data = bytesOf(6, 50000);
  {
    qorStreamWriter w(path.c_str(), 'w');
    w.gzip(true);
    writeWithPattern(w, data, 0, 1);
    w.gzip(false);
    EXPECT_EQ(w.m_ZBuf, nullptr);
    EXPECT_FALSE(w.m_Compressed);
    char tail[] = "plain tail";
    w.write(tail, 10);
  }
  const std::string bytes = readFile(path);
  ASSERT_GT(bytes.size(), 10u);
  EXPECT_EQ(bytes.substr(bytes.size() - 10), "plain tail");
  bool ok = false;
  EXPECT_TRUE(decompress(bytes.substr(0, bytes.size() - 10), kGzip, &ok) == data);
  EXPECT_TRUE(ok);
  EXPECT_TRUE(readBack(path, kGzip) == data);
}

// Catches: emptyBuf() while compressing ending the stream (later writes
// would then fail) instead of flushing it.
TEST(qorStreamWriter, EmptyBufFlushesWithoutEnding) {
  ScratchDir dir;
  const std::string path = dir.file("f");
  const std::string data = bytesOf(7, 30000);
  {
    qorStreamWriter w(path.c_str(), 'w');
    w.deflate(true);
    std::string copy = data;
    w.write(&copy[0], 1000);
    w.emptyBuf();
    w.emptyBuf();  // a repeated flush has nothing to do and is no error
    fflush(w.m_FileHandle);
    // Everything so far is decodable from the file.
    z_stream zs{};
    ASSERT_EQ(inflateInit2(&zs, -15), Z_OK);
    std::string part = readFile(path), out(2000, '\0');
    zs.next_in = reinterpret_cast<Bytef*>(&part[0]);
    zs.avail_in = static_cast<uInt>(part.size());
    zs.next_out = reinterpret_cast<Bytef*>(&out[0]);
    zs.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(::inflate(&zs, Z_SYNC_FLUSH), Z_OK);
    EXPECT_EQ(out.substr(0, zs.total_out), data.substr(0, 1000));
    inflateEnd(&zs);
    w.write(&copy[1000], static_cast<int>(data.size() - 1000));
  }
  bool ok = false;
  EXPECT_TRUE(decompress(readFile(path), kRaw, &ok) == data);
  EXPECT_TRUE(ok);
}

// Catches: a rewound compressing writer that continues its old stream in the
// middle of the file, giving undecodable output.
TEST(qorStreamWriter, RewindRestartsTheStream) {
  ScratchDir dir;
  const std::string path = dir.file("f");
  const std::string first = bytesOf(8, 100000), second = bytesOf(9, 40000);
  {
    qorStreamWriter w(path.c_str(), 'w');
    w.gzip(true);
    writeWithPattern(w, first, 0, 2);
    w.rewind();
    writeWithPattern(w, second, 0, 3);
  }
  EXPECT_TRUE(readBack(path, kGzip) == second);
}

// Catches: a second switch-on that leaks or restarts the running stream, and
// a format change that does not end the first stream.
TEST(qorStreamWriter, SwitchingOnTwice) {
  ScratchDir dir;
  const std::string path = dir.file("f");
  const std::string data = bytesOf(10, 40000);
  {
    qorStreamWriter w(path.c_str(), 'w');
    w.gzip(true);
    writeWithPattern(w, data.substr(0, 20000), 0, 4);
    w.gzip(true);
    writeWithPattern(w, data.substr(20000), 0, 5);
  }
  EXPECT_TRUE(readBack(path, kGzip) == data);
  {
    qorStreamWriter w(path.c_str(), 'w');
    w.gzip(true);
    writeWithPattern(w, data, 0, 6);
    w.deflate(true);  // ends the gzip member, starts a raw stream after it
    std::string more = "raw part";
    w.write(&more[0], 8);
    w.deflate(false);
    w.deflate(false);
  }
  EXPECT_TRUE(readBack(path, kGzip) == data);
}

// Catches: bytes buffered before switching on written plain, or lost.
TEST(qorStreamWriter, BytesBufferedBeforeSwitchOnAreCompressed) {
  ScratchDir dir;
  const std::string path = dir.file("f");
  {
    qorStreamWriter w(path.c_str(), 'w');
    char head[] = "head ";
    w.write(head, 5);
    w.gzip(true);
    char body[] = "body";
    w.write(body, 4);
  }
  EXPECT_TRUE(readBack(path, kGzip) == "head body");
}

// Catches: a null caller array dereferenced instead of refused.
TEST(qorStreamWriter, NullBufferRaises) {
  ScratchDir dir;
  const std::string path = dir.file("f");
  writeFile(path, "data");
  qorStreamWriter w(dir.file("g").c_str(), 'w');
  EXPECT_EQ(w.write(nullptr, 0), 0);
  EXPECT_TRUE(startsWith(raisedText([&] { w.write(nullptr, 5); }), "Buffer is null! [file qor_stream line "));
  qorStreamReader r(path.c_str());
  EXPECT_EQ(r.read(nullptr, 0), 0);
  EXPECT_TRUE(startsWith(raisedText([&] { r.read(nullptr, 2); }), "Buffer is null! [file qor_stream line "));
  EXPECT_TRUE(startsWith(raisedText([&] { r.readString(nullptr, 2); }), "Buffer is null! [file qor_stream line "));
  char buf[4];
  EXPECT_EQ(r.read(buf, 4), 4);  // nothing was consumed by the refused calls
  EXPECT_EQ(std::string(buf, 4), "data");
}
