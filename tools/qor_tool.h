// Shared pieces of the qor command-line tool: errors, options, polygons,
// output files and the commands themselves.
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
// The message of a qorException* on one line (the raising unit and line
// left out); deletes the exception.
std::string exceptionText(void* qorExceptionPointer);

// --- Arguments (qor_args.cpp). ---
struct Args {
  std::string command;
  std::vector<std::string> positional;
  std::map<std::string, std::string> options;  // "--svg" -> "out.svg"; flags map to ""
  bool has(const std::string& name) const { return options.count(name) != 0; }
  std::string get(const std::string& name, const std::string& fallback = "") const;
};
// Splits argv after the command; `valued` lists the options that take a
// value, `flags` those that do not. Anything else is a usage error.
Args parseArgs(const std::string& command, int argc, char** argv, const std::vector<std::string>& valued,
               const std::vector<std::string>& flags);
double parseNumber(const std::string& text, const std::string& what);
long parseCount(const std::string& text, const std::string& what, long low, long high);

// --- Polygons (qor_polyinput.cpp). ---
struct Polygon {
  std::string name;                           // file name, or "(built-in)"
  std::vector<int> sizes;                     // points per contour, contour 0 the outer one
  std::vector<std::array<double, 2>> points;  // every contour's points in file order
};
// Reads text (plain or gzip) or JSON; an empty name gives the built-in default.
Polygon readPolygon(const std::string& name);
double signedArea(const std::array<double, 2>* p, int n);

// --- Input and output files (qor_files.cpp). ---
// Fails with a clear message unless name is a readable file (not a directory).
void checkInput(const std::string& name);
// A reader for the file, decoding gzip (every member) or raw deflate when the
// content is such; format (if not null) gets "plain", "gzip" or "deflate".
qorStreamReader* openInput(const std::string& name, const char** format);
// Fails when both names are one existing file.
void checkNotSame(const std::string& in, const std::string& out);
// An output file written under a temporary name beside the target and renamed
// over it by commit(); "-", pipes and devices are written directly. Without
// commit() the temporary file is removed. Gzip when gz, raw deflate when raw.
class Output {
 public:
  Output(const std::string& name, bool gz, bool raw);
  ~Output();
  void write(const char* data, size_t size);
  void write(const std::string& text) { write(text.data(), text.size()); }
  void commit();
  uint64_t fileBytes() const;

 private:
  std::string m_Name, m_Temp;
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
  bool hasLine = false;
  std::array<double, 4> line{};  // x1, y1, x2, y2
  std::string caption;
};
std::string renderSvg(const Picture& picture);

// --- Commands; each returns the exit status. ---
int cmdTriangulate(int argc, char** argv);
int cmdInside(int argc, char** argv);
int cmdSplit(const std::string& command, int argc, char** argv);
int cmdLines(int argc, char** argv);
int cmdCodec(const std::string& command, int argc, char** argv);
int cmdSysinfo(int argc, char** argv);
int cmdMemstats(int argc, char** argv);

// Help text of one command, or of the whole program for "".
std::string helpText(const std::string& command);
void printHelpIfAsked(const std::string& command, int argc, char** argv);

}  // namespace qortool

#endif
