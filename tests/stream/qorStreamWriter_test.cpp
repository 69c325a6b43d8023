#include <vector>

#include "stream_test_util.h"

using namespace streamtest;

namespace {

// Writes data in pieces of `pattern` bytes; 0: seeded random sizes, with now
// and then an emptyBuf() or a second switch-on in the running format, which
// must neither end nor restart the stream.
void writeWithPattern(qorStreamWriter& w, std::string data, int pattern, unsigned seed, Format format = kPlain) {
  std::mt19937 rng(seed);
  for (size_t pos = 0, n; pos < data.size(); pos += n) {
    n = pattern > 0 ? static_cast<size_t>(pattern) : 1 + rng() % (rng() % 3 == 0 ? 40000 : 300);
    if (pattern == 0 && rng() % 40 == 0) rng() % 2 ? (void)w.emptyBuf() : switchOn(w, format);
    n = std::min(n, data.size() - pos);
    ASSERT_EQ(w.write(&data[pos], static_cast<int>(n)), static_cast<long>(n));
  }
}

}  // namespace

// Catches: compressed output ended early (at a partly filled buffer), twice,
// or not at all, for every total size around the buffer boundaries and every
// pattern of write sizes; and a byte count m_FileBytes that is not the
// file's size. zlib, our reader and the plain bytes must agree.
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
          if (pattern == 0) {
            w.close();
            counted = w.m_FileBytes;
          }
        }
        const std::string bytes = readFile(path);
        bool ok = false;
        ASSERT_TRUE(decompress(bytes, format, &ok) == data);
        ASSERT_TRUE(ok) << "not exactly one complete stream";
        ASSERT_TRUE(readAll(path, format, size % 2 == 0) == data);
        ASSERT_EQ(counted, pattern == 0 ? bytes.size() : 0);
      }
    }
  }
}

namespace {

struct WriterRow {
  const char* label;
  std::string (*run)(const std::string& path, std::string data);  // data: 40000 bytes of text
  std::string expected;
} const kWriterRows[] = {
    {"small writes stay buffered until emptyBuf(); n <= 0 writes nothing, a null buffer raises; big writes go out "
     "in whole buffers",
     [](const std::string& path, std::string data) {
       qorStreamWriter w(path.c_str(), 'w'), w2((path + "2").c_str(), 'w');
       for (int i = 0; i < 10; ++i) w.write(&data[0], 1000);
       std::string out = std::to_string(w.m_BufUsed) + " " + std::to_string(w.m_FileBytes) + readFile(path) + " ";
       w.emptyBuf();
       out += std::to_string(w.m_FileBytes + w.write(nullptr, 0) + w.write(&data[0], -3) + w.m_BufUsed) + " ";
       w.write(&data[0], 40000);
       w2.write(&data[0], 16384);  // a buffer filled exactly stays full
       out += raisedText([&] { w.write(nullptr, 5); }).substr(0, 16);
       return out + std::to_string(w.m_FileBytes) + " " + std::to_string(w.m_BufUsed) + " " +
              std::to_string(w2.m_BufUsed);
     },
     "10000 0 10000 Buffer is null! 42768 7232 16384"},
    {"rewind discards the buffered bytes and writes from the start; a compressed stream starts anew",
     [](const std::string& path, std::string data) {
       std::string out;
       for (Format format : {kPlain, kGzip}) {
         {
           qorStreamWriter w(path.c_str(), 'w');
           switchOn(w, format);
           writeWithPattern(w, data.substr(0, 30000), 0, 2);
           w.emptyBuf();
           w.write(&data[10], 4);
           w.rewind();
           w.write(&data[20], 2);
         }
         out += std::to_string(format == kPlain ? readFile(path) == data.substr(20, 2) + data.substr(2, 29998)
                                                : readAll(path, kGzip, false) == data.substr(20, 2));
       }
       return out;
     },
     "11"},
    {"gzip(false) ends the member and later bytes are plain; bytes buffered before switch-on are compressed",
     [](const std::string& path, std::string data) {
       {
         qorStreamWriter w(path.c_str(), 'w');
         w.write(&data[0], 5);
         w.gzip(true);
         writeWithPattern(w, data.substr(5), 0, 1);
         w.gzip(false);
         w.write(&data[0], 5);
       }
       const std::string bytes = readFile(path);
       return std::to_string(readAll(path, kGzip, false) == data) +
              std::to_string(bytes.substr(bytes.size() - 5) == data.substr(0, 5));
     },
     "11"},
};

}  // namespace

// Catches: each row's fault, named in its label.
TEST(qorStreamWriter, Rows) {
  for (const WriterRow& row : kWriterRows) {
    ScratchDir dir;
    EXPECT_EQ(row.run(dir.file("f"), makeText(2, 40000)), row.expected) << row.label;
  }
}
