// Bad input and failures that must never pass in silence, one row each, with
// threads among them: built as the stress program, which TSan runs too.
#include <sys/stat.h>

#include <atomic>
#include <thread>
#include <vector>

#include "stream_test_util.h"

using namespace streamtest;

namespace {

// Lines through readLine(std::string&), "!" and a message raised: "differ" unless both decoders agree.
std::string lines(const std::string& path, bool every) {
  std::string all[2];
  for (int fast = 0; fast < 2; ++fast) {
    const std::string raised = raisedText([&] {
      qorStreamReader r(path.c_str());
      switchOn(r, kGzip, fast == 1);
      r.readAllMembers(every);
      for (std::string s; r.readLine(s, false);) all[fast] += s + ",";
    });
    if (raised != qortest::kNothingRaised) all[fast] += "!" + raised.substr(0, 54);
  }
  return all[0] == all[1] ? all[0] : "differ";
}

// Each of n threads writes a text of its own (plain, gzip, raw deflate by
// turns) and reads it back line by line through readLine(bool), all at the
// same time, comparing every line. Returns the number of wrong lines.
int threadsWriteAndReadLines(const ScratchDir& dir, int n, size_t bytes) {
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < n; ++t) {
    threads.emplace_back([&, t] {
      std::string text, path = dir.file("t" + std::to_string(t));
      for (int i = 0; text.size() < bytes; ++i)
        text += std::string(1 + (i * 7 + t * 13) % 90, static_cast<char>('a' + t)) + "\n";
      const Format format = static_cast<Format>(t % 3);
      for (int round = 0; round < 2; ++round) {
        qorStreamWriter w(path.c_str(), 'w');
        switchOn(w, format);
        w.write(&text[0], static_cast<int>(text.size()));
        w.close();
        qorStreamReader r(path.c_str());
        switchOn(r, format, round == 1);
        size_t pos = 0;
        for (const char* line; (line = r.readLine(false)) != nullptr; pos = text.find('\n', pos) + 1)
          wrong += text.compare(pos, text.find('\n', pos) - pos, line) != 0;
        wrong += pos != text.size();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  return wrong;
}

struct BadRow {
  const char* label;
  std::string (*run)(const ScratchDir& dir);
  std::string expected;
} const kBadRows[] = {
    {"writer on /dev/full, plain and gzip: close() raises, failed() tells, writes after it raise; a good file: no "
     "error, all data",
     [](const ScratchDir& dir) {
       std::string out;
       for (int i = 0; i < 3; ++i) {
         qorStreamWriter w(i ? "/dev/full" : dir.file("ok").c_str(), 'w');
         if (i == 2) w.gzip(true);
         char b[] = "hello";
         w.write(b, 5);
         out += std::to_string(w.failed());
         out += raisedText([&] { w.close(); }).substr(0, 52);
         out += std::to_string(w.failed()) + raisedText([&] { w.write(b, 1); }).substr(0, 35);
         out += raisedText([&] { w.emptyBuf(); }).substr(0, 15) + raisedText([&] { w.close(); }) + "|";
       }
       return out + readFile(dir.file("ok"));
     },
     "0<no exception>0qorStreamWriter: the file is closedqorStreamWriter<no exception>|0Write failed for /dev/full: No "
     "space left on device\n1qorStreamWriter: the file is closedqorStreamWriter<no exception>|0Write failed for "
     "/dev/full: No space left on device\n1qorStreamWriter: the file is closedqorStreamWriter<no exception>|hello"},
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
    {"two gzip members, then trailing garbage: the first member by default; with the opt-in every line, then a raise",
     [](const ScratchDir& dir) {
       const std::string two = compress("a\nb\n", kGzip) + compress("c\n", kGzip);
       const std::string path = writeFile(dir.file("2.gz"), two), junk = writeFile(dir.file("j.gz"), two + "xyz");
       return lines(path, false) + "|" + lines(path, true) + "|" + lines(junk, false) + "|" + lines(junk, true);
     },
     "a,b,|a,b,c,|a,b,|a,b,c,!qorStreamReader: trailing garbage after gzip member in"},
    {"threads writing and reading lines through readLine(bool) at once, each with its own streams: no shared state",
     [](const ScratchDir& dir) { return std::to_string(threadsWriteAndReadLines(dir, 4, 2000000)); }, "0"},
};

}  // namespace

// Catches: each row's fault, named in its label (and races, under TSan).
TEST(qorStreamBadInput, Rows) {
  for (const BadRow& row : kBadRows) {
    ScratchDir dir;
    EXPECT_EQ(row.run(dir), row.expected) << row.label;
  }
}
