// libFuzzer target for the stream reader and writer.
//
// Input: byte 0 picks the format (plain, gzip, raw deflate) and byte 1 seeds
// the order of the reading operations; the rest is the content of the file.
// The reader runs every reading operation over the file until the data ends
// or a qorException* is raised. A second pass writes the content with the
// writer in the chosen format, in write sizes taken from the content itself,
// and reads it back: any difference stops the run.
#include <qor/qor_exception.h>
#include <qor/qor_stream.h>
#include <unistd.h>

#include <QString>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::string scratchPath(const char* what) {
  return std::string("/tmp/qor_fuzz_stream_") + std::to_string(getpid()) + "_" + what;
}

bool writeAll(const std::string& path, const uint8_t* data, size_t size) {
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = fwrite(data, 1, size, f) == size;
  return fclose(f) == 0 && ok;
}

void check(bool ok) {
  if (!ok) __builtin_trap();
}

void checkInvariants(const qorStreamReader& r) {
  check(r.m_BufSize >= 0 && r.m_BufSize <= 65536);
  check(r.m_BufLeft >= 0 && r.m_BufLeft <= r.m_BufSize);
  check((r.m_ZBuf != nullptr) == r.m_Compressed);
}

void switchOn(qorStreamReader& r, int format) {
  if (format == 1) r.gunzip(true);
  if (format == 2) r.inflate(true);
}

// Every reading operation, in an order drawn from the seed, until the end.
void readEverything(const std::string& path, int format, unsigned seed) {
  qorStreamReader r(path.c_str());
  switchOn(r, format);
  std::vector<char> buf(70000);
  std::string s;
  QString q;
  bool rewound = false;
  for (int step = 0; step < 100000; ++step) {
    seed = seed * 1103515245u + 12345u;
    const unsigned op = (seed >> 16) % 12;
    const bool expand = (seed >> 8) & 1;
    bool more = true;
    switch (op) {
      case 0:
        more = r.read(buf.data(), static_cast<int>((seed >> 4) % 70000)) > 0;
        break;
      case 1:
        more = r.readString(buf.data(), static_cast<int>((seed >> 4) % 300)) > 0 || r.m_BufSize != 0;
        break;
      case 2:
        more = r.readLine(expand) != nullptr;
        break;
      case 3:
        more = r.readLine(s, expand);
        break;
      case 4:
        more = r.readLine(q, expand);
        break;
      case 5:
        more = r.readString(q, expand);
        break;
      case 6:
        more = r.readString(s, expand);
        break;
      case 7: {
        double d;
        more = r.readFloat(d);
        break;
      }
      case 8: {
        double a, b;
        more = r.readComplex(a, b);
        break;
      }
      case 9:
        check(r.size() >= 0);
        break;
      case 10:
        if (!rewound) {
          r.rewind();
          rewound = true;
        }
        break;
      default:
        more = r.read(buf.data(), 1) == 1;
        break;
    }
    checkInvariants(r);
    if (!more && r.m_BufSize == 0) break;
  }
}

// Writes the content in the format, in sizes drawn from the content, and
// checks that the reader gives it back unchanged.
void roundTrip(const uint8_t* data, size_t size, int format) {
  const std::string path = scratchPath("w");
  std::vector<char> copy(data, data + size);
  {
    qorStreamWriter w(path.c_str(), 'w');
    if (format == 1) w.gzip(true);
    if (format == 2) w.deflate(true);
    size_t pos = 0, k = 0;
    while (pos < size) {
      size_t n = 1 + (static_cast<size_t>(data[k++ % size]) * 97) % 20000;
      if (n > size - pos) n = size - pos;
      check(w.write(copy.data() + pos, static_cast<int>(n)) == static_cast<long>(n));
      pos += n;
      if (data[k % size] == 0xEE) w.emptyBuf();
    }
  }
  qorStreamReader r(path.c_str());
  switchOn(r, format);
  std::vector<char> back(size + 1);
  check(r.read(back.data(), static_cast<int>(size + 1)) == static_cast<long>(size));
  check(memcmp(back.data(), data, size) == 0);
  unlink(path.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const int format = data[0] % 3;
  const unsigned seed = data[1];
  const uint8_t* content = data + 2;
  const size_t length = size - 2;
  const std::string path = scratchPath("r");
  if (!writeAll(path, content, length)) return 0;
  try {
    readEverything(path, format, seed);
  } catch (qorException* e) {
    const char* text = e->what();
    check(text != nullptr && strstr(text, " [file qor_stream line ") != nullptr);
    delete e;
  }
  if (format == 0) {
    // Plain bytes come back exactly.
    qorStreamReader r(path.c_str());
    std::vector<char> back(length + 1);
    check(r.read(back.data(), static_cast<int>(length + 1)) == static_cast<long>(length));
    check(length == 0 || memcmp(back.data(), content, length) == 0);
  }
  unlink(path.c_str());
  if (length > 0) roundTrip(content, length, (format + seed) % 3);
  return 0;
}
