// Shared pieces of the qor command-line tool: errors, options, polygons,
// input and output files and the commands themselves.
#ifndef QOR_TOOL_H
#define QOR_TOOL_H

#include <QPolygon>
#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

class qorStreamReader;

namespace qortool {

// An error that ends the program: one line on standard error and an exit
// status (1 for bad input or a failed operation, 2 for a usage error).
struct Failure {
  int status;
  std::string message;
};
[[noreturn]] void fail(const std::string& message);
[[noreturn]] void usage(const std::string& message);
// One line on standard error that does not end the program.
void note(const std::string& message);
// The message of a qorException* on one line (the raising unit and line
// left out); deletes the exception.
std::string exceptionText(void* qorExceptionPointer);
// text with every occurrence of from replaced by to.
std::string replaceAll(std::string text, const std::string& from, const std::string& to);

// --- The commands (qor_main.cpp): one table drives --help, the dispatch
// and the manual page. ---
struct Command {
  const char* name;
  const char* section;  // heading of the group of commands this one starts, or null
  const char* summary;  // one line of the overview
  const char* usage;    // the arguments after "qor NAME"
  const char* details;  // what it does, then its options ("  -x ARG   text" lines)
  int (*handler)(const std::string& name, int argc, char** argv);
};
const std::vector<Command>& commands();
// Help text of one command, or of the whole program for "".
std::string helpText(const std::string& command);
// The manual page qor.1 in roff, from the same table.
std::string manPage(const std::string& version);
// Runs the command line argv[1...]; returns the exit status.
int run(int argc, char** argv);

// --- Arguments (qor_args.cpp). ---
struct Args {
  std::string command;
  std::vector<std::string> positional;
  std::map<std::string, std::string> options;  // "--svg" -> "out.svg"; flags map to ""
  bool has(const std::string& name) const { return options.count(name) != 0; }
  std::string get(const std::string& name, const std::string& fallback = "") const;
};
// Splits argv after the command; `valued` lists the options that take a
// value, `flags` those that do not. An entry "-c|--stdout" accepts either
// spelling and records the first. Single-letter flags may be joined ("-cf").
// Anything else is a usage error.
Args parseArgs(const std::string& command, int argc, char** argv, const std::vector<std::string>& valued,
               const std::vector<std::string>& flags);
double parseNumber(const std::string& text, const std::string& what);
long parseCount(const std::string& text, const std::string& what, long low, long high);

// --- Polygons (qor_polyinput.cpp). ---
struct Polygon {
  std::string name;                           // the name shown in messages, or "(built-in)"
  std::vector<int> sizes;                     // points per contour, contour 0 the outer one
  std::vector<std::array<double, 2>> points;  // every contour's points in file order
  std::vector<long> lines;                    // line where each contour starts (text), 0 for JSON
};
enum class Format { Auto, Plain, Gzip, Deflate };
// Reads text or JSON in the given format; an empty name gives the built-in
// default, "-" standard input. Contours of one or two points are kept.
Polygon readPolygon(const std::string& name, Format format);
// "" or one line naming the contours of one or two points, which enclose nothing.
std::string shortContours(const Polygon& poly);
double signedArea(const std::array<double, 2>* p, int n);

// --- Input and output files (qor_files.cpp). ---
// The --format option (auto, plain, gzip, deflate), or fallback without it.
Format formatOption(const Args& args, Format fallback);
// What messages call an input: "(standard input)" for "-".
std::string shownName(const std::string& name);
// Opens the input once ("-": standard input) and chooses how to decode it
// from its first bytes, taken with the reader's peek, and its name: auto is
// gzip when the data starts with gzip's magic bytes, raw deflate when the
// name ends in .deflate or .zz, plain otherwise; gzip fails unless the data
// starts with the magic. Gzip input is read member after member. chosen (if
// not null) gets "plain", "gzip" or "deflate".
qorStreamReader* openInput(const std::string& name, Format format, const char** chosen);
// Fails with a reader's exception, naming the input as the user gave it.
[[noreturn]] void readFailure(const std::string& name, void* qorExceptionPointer);
// True when writing output (an output name, "-" for standard output) would
// replace or interleave with other (an input or output name). Devices such
// as /dev/null are never the same target; standard output ("-" or
// /dev/stdout) named twice always is.
bool sameTarget(const std::string& output, const std::string& other, bool otherIsOutput);
// An output file written under a temporary name beside the target and renamed
// over it by commit(); "-", pipes and devices are written directly. Without
// commit() the temporary file is removed. Gzip when gz, raw deflate when raw.
// An existing file is refused unless replace. Messages name the target.
class Output {
 public:
  Output(const std::string& name, bool gz, bool raw, bool replace = true);
  ~Output();
  void write(const char* data, size_t size);
  void write(const std::string& text) { write(text.data(), text.size()); }
  void commit();
  uint64_t fileBytes() const;

 private:
  [[noreturn]] void failWith(void* qorExceptionPointer);
  std::string m_Name, m_Path, m_Temp;
  void* m_Writer = nullptr;
};
// A progress line on standard error while a large input is read from a
// terminal session: nothing unless stderr is a terminal and total > 64 MiB.
class Progress {
 public:
  Progress(const std::string& label, long total);
  ~Progress();
  void update(uint64_t done);

 private:
  std::string m_Label;
  long m_Total;
  bool m_On;
  double m_Next = 0;
};

// --- Pictures (qor_svg.cpp). ---
struct Picture {
  const Polygon* polygon = nullptr;
  std::vector<std::vector<std::array<double, 2>>> pieces;  // triangles or pieces, filled
  std::vector<std::array<double, 2>> marks;                // points drawn as dots (new vertices)
  bool nonZero = false;                                    // backdrop filled by the non-zero rule
  bool hasLine = false;
  std::array<double, 4> line{};  // x1, y1, x2, y2
  std::string caption;
};
std::string renderSvg(const Picture& picture);

// --- Command handlers; each returns the exit status. ---
int cmdTriangulate(const std::string& name, int argc, char** argv);
int cmdInside(const std::string& name, int argc, char** argv);
int cmdSplit(const std::string& name, int argc, char** argv);
int cmdLines(const std::string& name, int argc, char** argv);
int cmdCodec(const std::string& name, int argc, char** argv);
int cmdSysinfo(const std::string& name, int argc, char** argv);
int cmdMemstats(const std::string& name, int argc, char** argv);

}  // namespace qortool

#endif
