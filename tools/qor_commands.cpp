// The qor tool's commands: one table that drives the overview, each
// command's help, the dispatch and the manual page.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "qor_tool.h"

namespace qortool {

namespace {

#define QOR_FORMAT_OPTION                                                                 \
  "  --format F    how to read the input: auto (the default: gzip when the data starts\n" \
  "                with gzip's magic bytes, raw deflate when the name ends in .deflate\n" \
  "                or .zz, plain otherwise), plain, gzip or deflate\n"
#define QOR_CODEC_OPTIONS(format)                                                        \
  "  -c, --stdout   write to standard output\n"                                          \
  "  -f, --force    replace an existing OUT (and write compressed data to a terminal)\n" \
  "  -v, --verbose  print the sizes and the ratio on standard error, as gzip -v does\n"  \
  "  --format F     how to read IN: " format                                             \
  " (the default), or any of auto, plain,\n"                                             \
  "                 gzip and deflate as for qor lines\n"

const char kIntro[] =
    "Usage: qor COMMAND [ARGS]\n"
    "The libqor library's jobs from the command line.\n";

const char kInput[] =
    "FILE and IN may be - for standard input, and OUT - for standard output. Every command\n"
    "that reads a file takes --format auto|plain|gzip|deflate: auto reads gzip when the\n"
    "data starts with gzip's magic bytes (every member, as zcat does), raw deflate when the\n"
    "name ends in .deflate or .zz, and the bytes as they are otherwise; each input is\n"
    "opened once, so pipes, FIFOs and /dev/stdin work. Polygons are text files of 'x y'\n"
    "lines (contours separated by blank lines, # starts a comment, a UTF-8 byte-order mark\n"
    "is skipped), JSON arrays of rings of [x, y] points, or a GeoJSON Polygon, Feature or\n"
    "FeatureCollection of one feature; the built-in polygon when FILE is left out.\n";

const char kExit[] = "Exit status: 0 on success, 1 on bad input or a failed operation, 2 on a usage error.\n";

const std::vector<Command> kCommands = {
    {"triangulate", "Polygons", "triangulate a polygon with holes, optionally draw it (--svg)",
     "[FILE] [-o TRIANGLES] [--svg OUT.svg] [--fill RULE] [--strict] [--repeat N] [--format F]",
     "Triangulates a polygon with holes (the built-in one without FILE) and prints vertices,\n"
     "holes, what the triangulator repaired, triangles, the polygon's area against the\n"
     "triangles' and the time per call. Contours of one or two points are left out, with a note.\n"
     "  -o TRIANGLES  write the triangles, one a line, as 1-based numbers of the file's\n"
     "                points in file order (gzip when the name ends in .gz; - for standard\n"
     "                output, which moves the report to standard error)\n"
     "  --svg OUT     draw the polygon and its triangles\n"
     "  --fill RULE   evenodd or nonzero: take every contour as a closed ring of any\n"
     "                orientation whose edges may cross, and triangulate where the winding\n"
     "                number is odd, or not zero; the new vertices where edges cross go\n"
     "                into the -o file as 'v x y' lines before the triangles, numbered\n"
     "                after the file's points, and into the picture as red dots\n"
     "  --strict      check that no contours cross or touch, orient them and use the\n"
     "                plain triangulator instead of the one that repairs real-world rings\n"
     "  --repeat N    time N calls and print the median (default 1)\n" QOR_FORMAT_OPTION,
     cmdTriangulate},
    {"inside", nullptr, "is a point inside the polygon?", "[FILE] X Y [--format F]",
     "Prints whether the point (X, Y) lies inside the polygon (holes are outside).\n" QOR_FORMAT_OPTION, cmdInside},
    {"split", nullptr, "cut the outline along a line", "[FILE] --line X1,Y1,X2,Y2 [--svg OUT.svg] [--format F]",
     "Cuts the first contour along the line and prints each piece's vertices and area.\n" QOR_FORMAT_OPTION, cmdSplit},
    {"break", nullptr, "one axis-parallel cut", "[FILE] --rank R [--svg OUT.svg] [--format F]",
     "One axis-parallel cut through the vertex coordinate chosen by rank R (0: the median).\n"
     "A rank that cuts nothing is said so on standard error.\n" QOR_FORMAT_OPTION,
     cmdSplit},
    {"divide", nullptr, "cut into pieces of bounded size", "[FILE] --max N [--svg OUT.svg] [--format F]",
     "Peels pieces of at most about N vertices off the first contour. When nothing is cut,\n"
     "standard error says why.\n" QOR_FORMAT_OPTION,
     cmdSplit},
    {"lines", "Streams", "count lines and bytes (plain or gzip, as zcat -f reads them)", "[FILE...] [--format F]",
     "Line count, byte count and longest line of each file (standard input without FILE),\n"
     "and a total for several files. Lines are counted as wc -l counts them (line feeds);\n"
     "carriage returns are not counted as bytes. Memory stays the same for any line length.\n" QOR_FORMAT_OPTION,
     cmdLines},
    {"gzip", nullptr, "compress IN into IN.gz", "[-c] [-f] [-v] [--format F] [IN [OUT]]",
     "Compresses IN into the gzip file OUT (IN.gz when OUT is left out; standard output\n"
     "for standard input), keeping IN.\n" QOR_CODEC_OPTIONS("plain"),
     cmdCodec},
    {"gunzip", nullptr, "decompress IN.gz into IN", "[-c] [-f] [-v] [--format F] [IN [OUT]]",
     "Decompresses the gzip file IN (every member) into OUT (IN without .gz when OUT is\n"
     "left out, x.tar for x.tgz), keeping IN. --format auto copies input that is not gzip\n"
     "as it is, as zcat -f does.\n" QOR_CODEC_OPTIONS("gzip"),
     cmdCodec},
    {"deflate", nullptr, "compress IN into the raw deflate stream IN.deflate", "[-c] [-f] [-v] [--format F] [IN [OUT]]",
     "Compresses IN into a raw deflate stream OUT (zlib window bits -15; IN.deflate when\n"
     "OUT is left out), keeping IN.\n" QOR_CODEC_OPTIONS("plain"),
     cmdCodec},
    {"inflate", nullptr, "decompress a raw deflate stream", "[-c] [-f] [-v] [--format F] [IN [OUT]]",
     "Decompresses the raw deflate stream IN into OUT (IN without .deflate or .zz when OUT\n"
     "is left out), keeping IN.\n" QOR_CODEC_OPTIONS("deflate"),
     cmdCodec},
    {"sysinfo", "Host and memory", "what the host queries answer", "[--json]",
     "Every host query, one a line, or one JSON object.\n", cmdSysinfo},
    {"memstats", nullptr, "allocator workout and free-list reports", "[--threads N]",
     "A short workout of the object allocator (in N threads), a common-size-object heap and\n"
     "a mixed heap: free-list reports and nanoseconds per allocate-and-release pair\n"
     "against malloc.\n",
     cmdMemstats},
};

const Command* find(const std::string& name) {
  for (const Command& c : kCommands)
    if (name == c.name) return &c;
  return nullptr;
}

std::string overview() {
  std::string text = std::string(kIntro) + "\n";
  for (const Command& c : kCommands) {
    if (c.section != nullptr) text += std::string(c.section) + ":\n";
    char line[128];
    std::snprintf(line, sizeof line, "  %-12s %s\n", c.name, c.summary);
    text += line;
  }
  return text + "\n" + kInput +
         "\nqor COMMAND --help tells more, man qor tells all; qor --version prints the version.\n" + kExit;
}

// Text for roff: backslashes and minus signs escaped (so that options can be
// searched for and copied), and no line taken for a request.
std::string roff(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\')
      out += "\\e";
    else if (c == '-')
      out += "\\-";
    else if ((c == '.' || c == '\'') && (out.empty() || out.back() == '\n'))
      out += std::string("\\&") + c;
    else
      out += c;
  }
  return out;
}

// Help text in roff: lines "  -x ARG   text" (and the lines indented below
// them) become tagged paragraphs, other lines running text.
std::string roffBody(const std::string& text) {
  std::string out, line;
  for (size_t at = 0; at < text.size(); at += line.size() + 1) {
    line = text.substr(at, text.find('\n', at) - at);
    if (line.compare(0, 3, "  -") == 0) {
      // The option's words in bold, its arguments in italics.
      const size_t gap = std::min(line.find("  ", 2), line.size());
      out += ".TP\n";
      for (size_t w = 2, next; w < gap; w = next + 1) {
        next = std::min(line.find(' ', w), gap);
        out += (w == 2 ? "" : " ") + std::string(line[w] == '-' ? "\\fB" : "\\fI") + roff(line.substr(w, next - w)) +
               "\\fR";
      }
      const size_t body = line.find_first_not_of(' ', gap);
      out += "\n" + (body == std::string::npos ? "" : roff(line.substr(body)) + "\n");
    } else {
      const size_t first = line.find_first_not_of(' ');
      if (first != std::string::npos) out += roff(line.substr(first)) + "\n";
    }
  }
  return out;
}

std::string upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

[[noreturn]] void printHelp(const std::string& command) {
  std::fputs(helpText(command).c_str(), stdout);
  throw Failure{0, ""};
}

}  // namespace

int run(int argc, char** argv) {
  if (argc < 2) usage("no command given");
  const std::string name = argv[1];
  if (name == "--help" || name == "-h") printHelp("");
  if (name == "help") {
    const std::string topic = argc > 2 ? argv[2] : "";
    if (!topic.empty() && find(topic) == nullptr) usage("unknown command '" + topic + "'");
    printHelp(topic);
  }
  if (name == "--version") {
    std::printf("qor %s (libqor.so.1)\n", QOR_TOOL_VERSION);
    return 0;
  }
  const Command* command = find(name);
  if (command == nullptr) usage("unknown command '" + name + "'");
  for (int i = 2; i < argc && std::strcmp(argv[i], "--") != 0; ++i)
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) printHelp(name);
  return command->handler(name, argc - 2, argv + 2);
}

const std::vector<Command>& commands() { return kCommands; }

std::string helpText(const std::string& name) {
  const Command* c = find(name);
  if (c == nullptr) return overview();
  return std::string("Usage: qor ") + c->name + " " + c->usage + "\n" + c->details;
}

std::string manPage(const std::string& version) {
  std::string page = ".TH QOR 1 \"\" \"qor " + version +
                     "\" \"User Commands\"\n"
                     ".SH NAME\nqor \\- the libqor library's jobs from the command line\n"
                     ".SH SYNOPSIS\n\\fBqor\\fR \\fICOMMAND\\fR [\\fIARGS\\fR]\n.br\n"
                     "\\fBqor\\fR \\fICOMMAND\\fR \\fB\\-\\-help\\fR\n.br\n\\fBqor \\-\\-version\\fR\n"
                     ".SH DESCRIPTION\n" +
                     roff(std::strchr(kIntro, '\n') + 1) + ".PP\n" + roff(kInput);
  for (const Command& c : kCommands) {
    if (c.section != nullptr) page += ".SH \"" + upper(c.section) + "\"\n";
    page += ".SS \"qor " + std::string(c.name) + "\"\n\\fBqor " + c.name + "\\fR " + roff(c.usage) + "\n.PP\n" +
            roffBody(c.details);
  }
  return page + ".SH \"EXIT STATUS\"\n" + roff(kExit) +
         ".SH \"SEE ALSO\"\n\\fBgzip\\fR(1), \\fBzcat\\fR(1), \\fBwc\\fR(1)\n";
}

}  // namespace qortool
