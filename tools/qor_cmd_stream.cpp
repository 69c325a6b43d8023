// The stream commands of the qor tool: lines, gzip, gunzip, deflate, inflate.
#include <qor/qor_exception.h>
#include <qor/qor_stream.h>
#include <unistd.h>

#include <algorithm>
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

// Counts with the line rules of the library (a line feed ends a line,
// carriage returns are not part of it) straight from the reader's buffer:
// a line of any length costs no memory beyond the buffer, where the
// reader's line calls would put together a line that spans refills in a
// buffer as long as the line.
Counts countLines(const std::string& name, Format format, const char** chosen) {
  // Line by line through the reader's views: a line that lies whole in the reader's buffer is counted where it lies,
  // and only a longer one is gathered in the reader's spill buffer, so memory grows with the longest line.
  std::unique_ptr<qorStreamReader> r(openInput(name, format, chosen));
  Counts c;
  std::string_view line;
  try {
    Progress progress("lines " + shownName(name), r->size());
    bool ended = false;
    while (!ended) {
      ended = !r->readLineView(line);
      if (ended && line.empty()) break;
      c.lines += !ended;
      c.bytes += line.size() + !ended;
      c.longest = std::max<unsigned long long>(c.longest, line.size());
      if ((c.lines & 0xffff) == 0) progress.update(r->m_FileBytes);
    }
    r->checkRead();
  } catch (qorException* e) {
    readFailure(name, e);
  }
  return c;
}

bool endsWith(const std::string& s, const std::string& tail) {
  return s.size() > tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0 &&
         s[s.size() - tail.size() - 1] != '/';
}

// The output beside IN that the command writes when OUT is left out, as
// gzip names it.
std::string defaultOutput(const std::string& command, const std::string& in) {
  if (command == "gzip") return in + ".gz";
  if (command == "deflate") return in + ".deflate";
  if (command == "gunzip" && endsWith(in, ".tgz")) return in.substr(0, in.size() - 4) + ".tar";
  for (const char* suffix : {".gz", ".deflate", ".zz"})
    if ((command == "gunzip") == (std::strcmp(suffix, ".gz") == 0) && endsWith(in, suffix))
      return in.substr(0, in.size() - std::strlen(suffix));
  usage(command + ": " + in + ": unknown suffix; name the output (qor " + command + " IN OUT) or use -c");
}

}  // namespace

int cmdLines(const std::string& command, int argc, char** argv) {
  const Args args = parseArgs(command, argc, argv, {"--format"}, {});
  const Format format = formatOption(args, Format::Auto);
  std::vector<std::string> names = args.positional;
  if (names.empty()) names.push_back("-");
  Counts total;
  int status = 0;
  for (const std::string& name : names) {
    try {
      const char* chosen = "";
      const Counts c = countLines(name, format, &chosen);
      std::printf("%12llu lines %14llu bytes  longest %8llu  %s (%s)\n", c.lines, c.bytes, c.longest, name.c_str(),
                  chosen);
      total.lines += c.lines, total.bytes += c.bytes;
      total.longest = std::max(total.longest, c.longest);
    } catch (const Failure& f) {
      note(f.message);
      status = 1;
    }
  }
  if (names.size() > 1)
    std::printf("%12llu lines %14llu bytes  longest %8llu  total\n", total.lines, total.bytes, total.longest);
  return status;
}

int cmdCodec(const std::string& command, int argc, char** argv) {
  const Args args = parseArgs(command, argc, argv, {"--format"}, {"-c|--stdout", "-f|--force", "-v|--verbose"});
  const bool packs = command == "gzip" || command == "deflate";
  const Format format = formatOption(args, command == "gunzip"    ? Format::Gzip
                                           : command == "inflate" ? Format::Deflate
                                                                  : Format::Plain);
  if (args.positional.size() > 2) usage(command + ": expected [IN [OUT]]");
  if (args.positional.size() == 2 && args.has("-c")) usage(command + ": -c and OUT both name the output");
  const std::string in = args.positional.empty() ? "-" : args.positional[0];
  const std::string out = args.positional.size() == 2   ? args.positional[1]
                          : args.has("-c") || in == "-" ? "-"
                                                        : defaultOutput(command, in);
  if (sameTarget(out, in, false)) usage(command + ": " + shownName(in) + " and " + out + " are the same file");
  if (packs && out == "-" && !args.has("-f") && isatty(1))
    fail("compressed data not written to a terminal; -f writes it anyway");
  unsigned long long bytesIn = 0, bytesOut = 0;
  {
    std::unique_ptr<qorStreamReader> r(openInput(in, format, nullptr));
    Output o(out, command == "gzip", command == "deflate", args.has("-f"));
    try {
      Progress progress(command + " " + shownName(in), r->size());
      for (;;) {
        if (r->m_BufLeft <= 0) r->fillBuf();
        if (r->m_BufSize == 0) break;
        o.write(r->m_Buf + (r->m_BufSize - r->m_BufLeft), r->m_BufLeft);
        r->m_BufLeft = 0;
        progress.update(r->m_FileBytes);
      }
      r->checkRead();
    } catch (qorException* e) {
      readFailure(in, e);
    }
    o.commit();
    bytesIn = r->m_FileBytes;
    bytesOut = o.fileBytes();
  }
  if (args.has("-v")) {
    // As gzip -v: the share of the plain size that compression saves.
    const unsigned long long plain = packs ? bytesIn : bytesOut, packed = packs ? bytesOut : bytesIn;
    char ratio[32] = "empty";
    if (plain > 0) std::snprintf(ratio, sizeof ratio, "%.1f%%", 100.0 - 100.0 * double(packed) / double(plain));
    note(shownName(in) + ": " + ratio + " -- " + std::to_string(bytesIn) + " -> " + std::to_string(bytesOut) +
         " bytes" + (out == "-" ? "" : ", written to " + out));
  }
  return 0;
}

}  // namespace qortool
