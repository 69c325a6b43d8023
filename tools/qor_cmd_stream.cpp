// The stream commands of the qor tool: lines, gzip, gunzip, deflate, inflate.
#include <qor/qor_exception.h>
#include <qor/qor_stream.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "qor_tool.h"

namespace qortool {

namespace {

struct Counts {
  unsigned long long lines = 0, bytes = 0, longest = 0;
};

// Counts with the line rules of the library (carriage returns are not part
// of a line). A line that lies whole in the reader's buffer is not copied.
Counts countLines(const std::string& name, const char** format) {
  std::unique_ptr<qorStreamReader> r(openInput(name, format));
  Counts c;
  try {
    Progress progress("lines " + name, r->size());
    std::string_view line;
    for (bool ended = true; ended;) {
      ended = r->readLineView(line);
      c.lines += ended;
      c.bytes += line.size() + ended;
      if (line.size() > c.longest) c.longest = line.size();
      if ((c.lines & 1023) == 0) progress.update(r->m_FileBytes);
    }
    r->checkRead();
  } catch (qorException* e) {
    fail(name + ": " + exceptionText(e));
  }
  return c;
}

}  // namespace

int cmdLines(int argc, char** argv) {
  const Args args = parseArgs("lines", argc, argv, {}, {});
  if (args.positional.empty()) usage("lines: no file given");
  Counts total;
  int status = 0;
  for (const std::string& name : args.positional) {
    try {
      const char* format = "";
      const Counts c = countLines(name, &format);
      std::printf("%12llu lines %14llu bytes  longest %8llu  %s (%s)\n", c.lines, c.bytes, c.longest, name.c_str(),
                  format);
      total.lines += c.lines, total.bytes += c.bytes;
      if (c.longest > total.longest) total.longest = c.longest;
    } catch (const Failure& f) {
      std::fprintf(stderr, "qor: %s\n", f.message.c_str());
      status = 1;
    }
  }
  if (args.positional.size() > 1)
    std::printf("%12llu lines %14llu bytes  longest %8llu  total\n", total.lines, total.bytes, total.longest);
  return status;
}

int cmdCodec(const std::string& command, int argc, char** argv) {
  const Args args = parseArgs(command, argc, argv, {}, {});
  if (args.positional.size() != 2) usage(command + ": expected IN OUT");
  const std::string in = args.positional[0], out = args.positional[1];
  checkInput(in);
  checkNotSame(in, out);
  if (command == "gunzip") {
    unsigned char magic[2] = {0, 0};
    FILE* f = std::fopen(in.c_str(), "rb");
    const size_t got = f == nullptr ? 0 : std::fread(magic, 1, 2, f);
    if (f != nullptr) std::fclose(f);
    if (got < 2 || magic[0] != 0x1f || magic[1] != 0x8b) fail(in + ": not in gzip format");
  }
  unsigned long long bytesIn = 0, bytesOut = 0;
  try {
    qorStreamReader r(in.c_str());
    if (command == "gunzip") r.gunzip(true), r.readAllMembers(true);
    if (command == "inflate") r.inflate(true);
    if (command == "gunzip" || command == "inflate") r.useFastDecoder(true);
    Output o(out, command == "gzip", command == "deflate");
    Progress progress(command + " " + in, r.size());
    for (;;) {
      if (r.m_BufLeft <= 0) r.fillBuf();
      if (r.m_BufSize == 0) break;
      o.write(r.m_Buf + (r.m_BufSize - r.m_BufLeft), r.m_BufLeft);
      r.m_BufLeft = 0;
      progress.update(r.m_FileBytes);
    }
    r.checkRead();
    o.commit();
    bytesIn = r.m_FileBytes;
    bytesOut = o.fileBytes();
  } catch (qorException* e) {
    fail(in + ": " + exceptionText(e));
  }
  const bool packs = command == "gzip" || command == "deflate";
  const unsigned long long plain = packs ? bytesIn : bytesOut, packed = packs ? bytesOut : bytesIn;
  std::fprintf(out == "-" ? stderr : stdout, "%s: %llu bytes -> %s: %llu bytes (compressed %.1f%% of plain)\n",
               in.c_str(), bytesIn, out.c_str(), bytesOut, plain == 0 ? 0.0 : 100.0 * packed / plain);
  return 0;
}

}  // namespace qortool
