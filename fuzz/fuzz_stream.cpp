// libFuzzer target for the stream reader and writer. Byte 0 picks the format (plain, gzip, raw deflate),
// byte 1 seeds the order of the reading operations, the rest is the file: every reading operation runs over it
// until the data ends or a qorException* is raised. Then the writer writes the content in a format and in
// sizes drawn from it, and the reader must give it back unchanged.
#include <qor/qor_exception.h>
#include <qor/qor_stream.h>
#include <unistd.h>

#include <QString>
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

void check(bool ok) { ok ? void() : __builtin_trap(); }

// What the reading operations share within a run.
std::vector<char> gBuf(70000);
std::string gText;
QString gUnits;
double gRe, gIm;
bool gRewound;

// The reading operations, picked by the seed; false: the data has ended.
using Op = bool (*)(qorStreamReader& r, unsigned seed, bool expand);
const Op kOps[] = {
    [](qorStreamReader& r, unsigned s, bool) { return r.read(gBuf.data(), static_cast<int>((s >> 4) % 70000)) > 0; },
    [](qorStreamReader& r, unsigned s, bool) {
      return r.readString(gBuf.data(), static_cast<int>((s >> 4) % 300)) > 0 || r.m_BufSize != 0;
    },
    [](qorStreamReader& r, unsigned, bool expand) { return r.readLine(expand) != nullptr; },
    [](qorStreamReader& r, unsigned, bool expand) { return r.readLine(gText, expand); },
    [](qorStreamReader& r, unsigned, bool expand) { return r.readLine(gUnits, expand); },
    [](qorStreamReader& r, unsigned, bool expand) { return r.readString(gUnits, expand); },
    [](qorStreamReader& r, unsigned, bool expand) { return r.readString(gText, expand); },
    [](qorStreamReader& r, unsigned, bool) { return r.readFloat(gRe); },
    [](qorStreamReader& r, unsigned, bool) { return r.readComplex(gRe, gIm); },
    [](qorStreamReader& r, unsigned, bool) { return check(r.size() >= 0), true; },
    [](qorStreamReader& r, unsigned, bool) { return gRewound || (gRewound = true, r.rewind() == 0); },
    [](qorStreamReader& r, unsigned, bool) { return r.read(gBuf.data(), 1) == 1; },
    [](qorStreamReader& r, unsigned, bool) {
      std::string_view line;
      const bool more = r.readLineView(line);
      return check(line.find_first_of("\r\n") == std::string_view::npos), more;
    },
    [](qorStreamReader& r, unsigned s, bool) { return check(r.peek(gBuf.data(), (s >> 4) % 16385) >= 0), true; },
};

void switchOn(qorStreamReader& r, int f) { f == 1 ? r.gunzip(true) : f == 2 ? r.inflate(true) : void(); }

// Every reading operation, in an order drawn from the seed, until the end.
void readEverything(const std::string& path, int format, unsigned seed) {
  qorStreamReader r(path.c_str());
  r.useFastDecoder(seed & 2), r.readAllMembers(seed & 4);
  switchOn(r, format);
  gRewound = false;
  for (int step = 0; step < 100000; ++step) {
    seed = seed * 1103515245u + 12345u;
    const bool more = kOps[(seed >> 16) % (sizeof kOps / sizeof kOps[0])](r, seed, (seed >> 8) & 1);
    check(r.m_BufSize >= 0 && r.m_BufSize <= 65536 && r.m_BufLeft >= 0 && r.m_BufLeft <= r.m_BufSize);
    check((r.m_ZBuf != nullptr) == r.m_Compressed);
    if (!more && r.m_BufSize == 0) break;
  }
}

// The reader must give back exactly the content.
void checkReadsBack(const std::string& path, int format, const std::string& content) {
  qorStreamReader r(path.c_str());
  r.peek(&gBuf[0], 64);  // peeked bytes are decoded as the start of the data all the same
  switchOn(r, format);
  std::string back(content.size() + 1, '\0');
  check(r.read(&back[0], static_cast<int>(back.size())) == static_cast<long>(content.size()));
  check(back.compare(0, content.size(), content) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const int format = data[0] % 3, written = (format + data[1]) % 3;
  std::string content(reinterpret_cast<const char*>(data) + 2, size - 2);
  const std::string path = "/tmp/qor_fuzz_stream_" + std::to_string(getpid());
  if (!std::ofstream(path, std::ios::binary).write(content.data(), std::streamsize(content.size()))) return 0;
  try {
    readEverything(path, format, data[1]);
  } catch (qorException* e) {
    const char* text = e->what();
    check(text != nullptr && strstr(text, " [file qor_stream line ") != nullptr);
    delete e;
  }
  if (format == 0) checkReadsBack(path, 0, content);  // plain bytes come back exactly
  if (content.empty()) return unlink(path.c_str()), 0;
  {  // the writer, in write sizes drawn from the content, with an emptyBuf() now and then
    qorStreamWriter w(path.c_str(), 'w');
    written == 1 ? w.gzip(true) : written == 2 ? w.deflate(true) : void();
    for (size_t pos = 0, k = 0, n, length = content.size(); pos < length; pos += n) {
      n = std::min(1 + (static_cast<size_t>(static_cast<uint8_t>(content[k++ % length])) * 97) % 20000, length - pos);
      check(w.write(&content[pos], static_cast<int>(n)) == static_cast<long>(n));
      if (static_cast<uint8_t>(content[k % length]) == 0xEE) w.emptyBuf();
    }
  }
  checkReadsBack(path, written, content);
  unlink(path.c_str());
  return 0;
}
