// Bad input and failures that must never pass in silence, one row each, with
// threads among them: built as the stress program, which TSan runs too.
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <future>
#include <thread>
#include <vector>

#include "stream_test_util.h"

using namespace streamtest;

namespace {

// A pipe that a thread fills with the bytes: the first `first` of them at once, the rest after release(). Input
// that cannot seek; and a reader that waited there for more bytes than it asked for would hang.
struct PipeFeed {
  PipeFeed(const std::string& bytes, size_t first) {
    signal(SIGPIPE, SIG_IGN);  // a reader that stops early ends the writer with EPIPE, not the program
    if (pipe(fds) != 0) throw std::runtime_error("pipe");
    writer = std::thread([this, bytes, first, later = go.get_future()] {
      const size_t cut = std::min(first, bytes.size());
      if (put(bytes.data(), cut)) later.wait(), put(bytes.data() + cut, bytes.size() - cut);
      close(fds[1]);
    });
  }
  ~PipeFeed() {
    release();
    close(fds[0]);
    writer.join();
  }
  bool put(const char* p, size_t n) {
    for (ssize_t k = 0; n > 0; p += k, n -= static_cast<size_t>(k))
      if ((k = write(fds[1], p, n)) <= 0) return false;
    return true;
  }
  void release() { released ? void() : (released = true, go.set_value()); }
  std::string path() const { return "/dev/fd/" + std::to_string(fds[0]); }
  int fds[2];
  bool released = false;
  std::promise<void> go;
  std::thread writer;
};

const std::string kClosed = "qorStreamWriter: the file is closedqorStreamWriter<no exception>|",
                  kFull = "0Write failed for /dev/full: No space left on device\n1";

const Row kBadRows[] = {
    {"writer on /dev/full, plain and gzip: close() raises, failed() tells, writes after it raise; a good file: no "
     "error, all data; a big write fails at once with the reason",
     [](const ScratchDir& dir, bool) {
       std::string out;
       for (int i = 0; i < 3; ++i) {
         qorStreamWriter w(i ? "/dev/full" : dir.file("ok").c_str(), 'w');
         if (i == 2) w.gzip(true);
         char b[] = "hello";
         w.write(b, 5);
         out += std::to_string(w.failed()), out += raisedText([&] { w.close(); }).substr(0, 52);
         out += std::to_string(w.failed()) + raisedText([&] { w.write(b, 1); }).substr(0, 35);
         out += raisedText([&] { w.emptyBuf(); }).substr(0, 15) + raisedText([&] { w.close(); }) + "|";
       }
       qorStreamWriter full("/dev/full", 'w');  // bytes beyond stdio's buffer fail at once, before close()
       full.write(&std::string(40000, 'x')[0], 40000);
       out += readFile(dir.file("ok")) + std::to_string(full.failed());
       return out + raisedText([&] { full.close(); }).substr(0, 52);
     },
     "0<no exception>0" + kClosed + kFull + kClosed + kFull + kClosed + "hello1" + kFull.substr(1, 52)},
    {"constructors: null name, a missing folder, a directory to read",
     [](const ScratchDir& dir, bool) {
       std::filesystem::create_directory(dir.file("d"));
       return raisedText([] { qorStreamReader r(nullptr); }).substr(0, 18) +
              raisedText([] { qorStreamWriter w(nullptr, 'w'); }).substr(0, 18) +
              raisedText([] { qorStreamReader r("/nonexistent/f"); }).substr(0, 45) +
              raisedText([] { qorStreamWriter w("/nonexistent/f", 'w'); }).substr(0, 46) +
              std::to_string(startsWith(raisedText([&] { qorStreamReader r(dir.file("d").c_str()); }),
                                        "Unable to open file for read: " + dir.file("d") + "\n [file"));
     },
     "Filename is null! Filename is null! Unable to open file for read: /nonexistent/f\nUnable to open file for write: "
     "/nonexistent/f\n1"},
    {"input that cannot seek (a pipe), each format and decoder: peek() waits only for the bytes it asks for, and "
     "they are decoded as the start of the data; rewind() raises and the reader reads on; a cut member raises in "
     "zlib's words with either decoder",
     [](const ScratchDir&, bool) {
       const std::string text = makeText(4, 300000);
       std::string out;
       for (int f = 0; f < 8; ++f) {
         const Format format = f % 4 == 3 ? kGzip : static_cast<Format>(f % 4);  // 3: gzip cut short
         const std::string bytes = compress(text, format);
         PipeFeed feed(f % 4 == 3 ? bytes.substr(0, 99999) : bytes, 3);
         qorStreamReader r(feed.path().c_str());
         char head[16384];
         out += std::to_string(r.peek(head, 3));
         feed.release();
         out += std::to_string(r.peek(head, 16384) == 16384 && memcmp(head, bytes.data(), 16384) == 0);
         switchOn(r, format, f > 3);
         std::string got(text.size(), '\0');
         long n = r.read(&got[0], 100000);
         const std::string raised = raisedText([&] { r.rewind(); });
         out += std::to_string(raised == "qorStreamReader: cannot rewind " + feed.path() + ": Illegal seek\n [file " +
                                             raised.substr(raised.find(" [file ") + 7));
         const std::string end =
             raisedText([&] { n += r.read(&got[static_cast<size_t>(n)], 300000 - static_cast<int>(n)); });
         out += std::to_string(n == 300000 && got == text) + end.substr(0, 36) + "|";
       }
       return out;
     },
     "3111<no exception>|3111<no exception>|3111<no exception>|3110Unexpected end of compressed data in|"
     "3111<no exception>|3111<no exception>|3111<no exception>|3110Unexpected end of compressed data in|"},
    {"a read error (EIO) ends the data; failed() and checkRead() report it",
     [](const ScratchDir&, bool) {
       qorStreamReader r("/proc/self/mem");  // reading address 0 fails with EIO
       std::string s, out = raisedText([&] { r.checkRead(); });
       out += std::to_string(r.readLine(s, false)), out += std::to_string(r.failed());
       return out + raisedText([&] { r.checkRead(); }).substr(0, 51);
     },
     "<no exception>01Read failed for /proc/self/mem: Input/output error\n"},
    {"threads (plain, gzip, raw deflate by turns) that write a text each and read it back through readLine(bool), "
     "with zlib then the fast decoder, all at once: no shared state",
     [](const ScratchDir& dir, bool) {
       std::atomic<int> wrong{0};
       std::vector<std::thread> threads;
       for (int t = 0; t < 4; ++t) {
         threads.emplace_back([&, t] {
           std::string text, path = dir.file("t" + std::to_string(t));
           for (int i = 0; text.size() < 2000000; ++i) text += std::string(1 + (i * 7 + t * 13) % 90, 'a' + t) + "\n";
           for (int fast = 0; fast < 2; ++fast) {
             qorStreamWriter w(path.c_str(), 'w');
             switchOn(w, static_cast<Format>(t % 3));
             w.write(&text[0], static_cast<int>(text.size()));
             w.close();
             qorStreamReader r(path.c_str());
             switchOn(r, static_cast<Format>(t % 3), fast == 1);
             std::string back;
             for (const char* line; (line = r.readLine(false)) != nullptr;) back += line + std::string("\n");
             wrong += back != text;
           }
         });
       }
       for (std::thread& thread : threads) thread.join();
       return std::to_string(wrong);
     },
     "0"},
};

}  // namespace

// Catches: each row's fault, named in its label (and races, under TSan).
TEST(qorStreamBadInput, Rows) { expectRows(kBadRows); }
