// qor: the library's jobs from the command line (triangulate and split
// polygons, count lines, compress, ask the host, exercise the allocators).
#include <qor/qor_exception.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "qor_tool.h"

namespace qortool {

namespace {

struct CommandHelp {
  const char* name;
  const char* text;
};

const CommandHelp kHelp[] = {
    {"triangulate",
     "Usage: qor triangulate [FILE] [--svg OUT.svg] [-o TRIANGLES] [--repeat N] [--strict]\n"
     "Triangulates a polygon with holes (the built-in one without FILE) and prints vertices,\n"
     "holes, triangles, the polygon's area against the triangles' and the time per call.\n"
     "  -o TRIANGLES  write the triangles, one a line, as 1-based numbers of the file's\n"
     "                points in file order (gzip when the name ends in .gz; - for stdout)\n"
     "  --svg OUT     draw the polygon and its triangles\n"
     "  --repeat N    time N calls and print the median (default 1)\n"
     "  --strict      check that no contours cross or touch, orient them and use the\n"
     "                plain triangulator instead of the one that repairs real-world rings\n"},
    {"inside",
     "Usage: qor inside [FILE] X Y\n"
     "Prints whether the point (X, Y) lies inside the polygon (holes are outside).\n"},
    {"split",
     "Usage: qor split [FILE] --line X1,Y1,X2,Y2 [--svg OUT.svg]\n"
     "Cuts the first contour along the line and prints each piece's vertices and area.\n"},
    {"break",
     "Usage: qor break [FILE] --rank R [--svg OUT.svg]\n"
     "One axis-parallel cut through the vertex coordinate chosen by rank R (0: the median).\n"},
    {"divide",
     "Usage: qor divide [FILE] --max N [--svg OUT.svg]\n"
     "Peels pieces of at most about N vertices off the first contour.\n"},
    {"lines",
     "Usage: qor lines FILE...\n"
     "Line count, byte count and longest line of each file (plain, gzip or raw deflate,\n"
     "chosen by content), and a total for several files.\n"},
    {"gzip", "Usage: qor gzip IN OUT\nCompresses IN into the gzip file OUT (- for stdout).\n"},
    {"gunzip", "Usage: qor gunzip IN OUT\nDecompresses the gzip file IN (every member) into OUT.\n"},
    {"deflate", "Usage: qor deflate IN OUT\nCompresses IN into a raw deflate stream OUT.\n"},
    {"inflate", "Usage: qor inflate IN OUT\nDecompresses the raw deflate stream IN into OUT.\n"},
    {"sysinfo", "Usage: qor sysinfo [--json]\nEvery host query, one a line, or one JSON object.\n"},
    {"memstats",
     "Usage: qor memstats [--threads N]\n"
     "A short workout of the object allocator (in N threads), a common-size-object heap and\n"
     "a mixed heap: free-list reports and nanoseconds per allocate-and-release pair\n"
     "against malloc.\n"},
};

const char kOverview[] =
    "Usage: qor COMMAND [ARGS]\n"
    "The libqor library's jobs from the command line.\n\n"
    "Polygons (a text file of 'x y' lines, contours separated by blank lines, plain or gzip;\n"
    "JSON rings or GeoJSON; the built-in polygon when FILE is left out):\n"
    "  triangulate  triangulate a polygon with holes, optionally draw it (--svg)\n"
    "  inside       is a point inside the polygon?\n"
    "  split        cut the outline along a line\n"
    "  break        one axis-parallel cut\n"
    "  divide       cut into pieces of bounded size\n"
    "Streams:\n"
    "  lines        count lines and bytes (plain, gzip, raw deflate)\n"
    "  gzip, gunzip, deflate, inflate   compress and decompress\n"
    "Host and memory:\n"
    "  sysinfo      what the host queries answer\n"
    "  memstats     allocator workout and free-list reports\n\n"
    "qor COMMAND --help tells more; qor --version prints the version.\n"
    "Exit status: 0 on success, 1 on bad input or a failed operation, 2 on a usage error.\n";

}  // namespace

std::string helpText(const std::string& command) {
  for (const CommandHelp& h : kHelp)
    if (command == h.name) return h.text;
  return kOverview;
}

void printHelpIfAsked(const std::string& command, int argc, char** argv) {
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--") == 0) return;
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::fputs(helpText(command).c_str(), stdout);
      throw Failure{0, ""};
    }
  }
}

int run(int argc, char** argv) {
  if (argc < 2) usage("no command given");
  const std::string command = argv[1];
  if (command == "--help" || command == "-h" || command == "help") {
    std::fputs(kOverview, stdout);
    return 0;
  }
  if (command == "--version") {
    std::printf("qor %s (libqor.so.1)\n", QOR_TOOL_VERSION);
    return 0;
  }
  argc -= 2;
  argv += 2;
  printHelpIfAsked(command, argc, argv);
  if (command == "triangulate") return cmdTriangulate(argc, argv);
  if (command == "inside") return cmdInside(argc, argv);
  if (command == "split" || command == "break" || command == "divide") return cmdSplit(command, argc, argv);
  if (command == "lines") return cmdLines(argc, argv);
  if (command == "gzip" || command == "gunzip" || command == "deflate" || command == "inflate")
    return cmdCodec(command, argc, argv);
  if (command == "sysinfo") return cmdSysinfo(argc, argv);
  if (command == "memstats") return cmdMemstats(argc, argv);
  usage("unknown command '" + command + "'");
}

}  // namespace qortool

int main(int argc, char** argv) {
  using namespace qortool;
  try {
    return run(argc, argv);
  } catch (const Failure& f) {
    if (!f.message.empty()) std::fprintf(stderr, "qor: %s\n", f.message.c_str());
    if (f.status == 2) std::fputs("Try 'qor --help' for more information.\n", stderr);
    return f.status;
  } catch (qorException* e) {
    std::fprintf(stderr, "qor: %s\n", exceptionText(e).c_str());
    return 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "qor: %s\n", e.what());
    return 1;
  }
}
