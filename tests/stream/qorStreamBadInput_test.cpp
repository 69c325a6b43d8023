// Bad input and failures that must never pass in silence, one row each.
#include <sys/stat.h>

#include "stream_test_util.h"

using namespace streamtest;

namespace {

// Every line of the file through readLine(std::string&), or "!" and the
// message raised, with the fast decoder or zlib and with or without every
// member.
std::string lines(const std::string& path, bool fast, bool every) {
  std::string all;
  const std::string raised = raisedText([&] {
    qorStreamReader r(path.c_str());
    switchOn(r, kGzip, fast);
    r.readAllMembers(every);
    for (std::string s; r.readLine(s, false);) all += s + ",";
  });
  return raised == qortest::kNothingRaised ? all : all + "!" + raised.substr(0, raised.find(" [file"));
}

std::string inBothDecoders(const std::string& path, bool every) {
  const std::string zlib = lines(path, false, every), fast = lines(path, true, every);
  return zlib == fast ? zlib : "decoders differ: " + zlib + " / " + fast;
}

struct BadRow {
  const char* label;
  std::string (*run)(const ScratchDir& dir);
  std::string expected;
} const kBadRows[] = {
    {"writer on /dev/full: close() raises, failed() tells, writes after it raise, nothing silent",
     [](const ScratchDir&) {
       std::string out;
       for (bool gzip : {false, true}) {
         qorStreamWriter w("/dev/full", 'w');
         if (gzip) w.gzip(true);
         char b[] = "hello";
         w.write(b, 5);
         out += std::to_string(w.failed());
         out += raisedText([&] { w.close(); }).substr(0, 52);
         out += std::to_string(w.failed());
         out += "|" + raisedText([&] { w.write(b, 1); }).substr(0, 47) + raisedText([&] { w.emptyBuf(); }).substr(0, 5);
         out += raisedText([&] { w.close(); }) + "|";
       }
       return out;
     },
     "0Write failed for /dev/full: No space left on device\n1|qorStreamWriter: the file is closed: /dev/full\nqorSt"
     "<no exception>|0Write failed for /dev/full: No space left on device\n1|qorStreamWriter: the file is closed: "
     "/dev/full\nqorSt<no exception>|"},
    {"writer: close() on a good file raises nothing, output complete",
     [](const ScratchDir& dir) {
       qorStreamWriter w(dir.file("ok").c_str(), 'w');
       char b[] = "data";
       w.write(b, 4);
       const std::string raised = raisedText([&] { w.close(); });
       return raised + std::to_string(w.failed()) + readFile(dir.file("ok"));
     },
     "<no exception>0data"},
    {"constructors: null name, a missing folder, a directory to read",
     [](const ScratchDir& dir) {
       mkdir(dir.file("d").c_str(), 0700);
       return raisedText([] { qorStreamReader r(nullptr); }).substr(0, 18) +
              raisedText([] { qorStreamWriter w(nullptr, 'w'); }).substr(0, 18) +
              raisedText([] { qorStreamReader r("/nonexistent/f"); }).substr(0, 45) +
              raisedText([] { qorStreamWriter w("/nonexistent/f", 'w'); }).substr(0, 46) +
              std::to_string(startsWith(raisedText([&] { qorStreamReader r(dir.file("d").c_str()); }),
                                        "Unable to open file for read: " + dir.file("d") + "\n [file"));
     },
     "Filename is null! Filename is null! Unable to open file for read: /nonexistent/f\nUnable to open file for write: "
     "/nonexistent/f\n1"},
    {"a read error (EIO) ends the data; failed() and checkRead() report it",
     [](const ScratchDir&) {
       qorStreamReader r("/proc/self/mem");  // reading address 0 fails with EIO
       std::string s, out = raisedText([&] { r.checkRead(); });
       out += std::to_string(r.readLine(s, false));
       out += std::to_string(r.failed());
       return out + raisedText([&] { r.checkRead(); }).substr(0, 51);
     },
     "<no exception>01Read failed for /proc/self/mem: Input/output error\n"},
    {"two gzip members: the first by default, every line with the opt-in",
     [](const ScratchDir& dir) {
       const std::string path = writeFile(dir.file("2.gz"), compress("a\nb\n", kGzip) + compress("c\n", kGzip));
       return inBothDecoders(path, false) + "|" + inBothDecoders(path, true);
     },
     "a,b,|a,b,c,"},
    {"members our writer appends in mode 'a' are all read with the opt-in",
     [](const ScratchDir& dir) {
       for (const char* part : {"one\n", "two\n"}) {
         qorStreamWriter w(dir.file("a.gz").c_str(), 'a');
         w.gzip(true);
         w.write(const_cast<char*>(part), 4);
       }
       return inBothDecoders(dir.file("a.gz"), true);
     },
     "one,two,"},
    {"trailing garbage: dropped by default, raised with the opt-in after the members before it",
     [](const ScratchDir& dir) {
       const std::string path = writeFile(dir.file("g.gz"), compress("a\n", kGzip) + compress("b\n", kGzip) + "xyz");
       return inBothDecoders(path, false) + "|" + inBothDecoders(path, true).substr(0, 59);
     },
     "a,|a,b,!qorStreamReader: trailing garbage after gzip member in"},
    {"two threads with two readers reading lines through readLine(bool)",
     [](const ScratchDir& dir) { return std::to_string(twoThreadsReadLines(dir, 300000)); }, "0"},
};

}  // namespace

// Catches: each row's fault, named in its label.
TEST(qorStreamBadInput, Rows) {
  for (const BadRow& row : kBadRows) {
    ScratchDir dir;
    EXPECT_EQ(row.run(dir), row.expected) << row.label;
  }
}
