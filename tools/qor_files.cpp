// Input checks, atomic output files and the progress line of the qor tool.
#include <fcntl.h>
#include <qor/qor_exception.h>
#include <qor/qor_stream.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qor_tool.h"

namespace qortool {

Format formatOption(const Args& args, Format fallback) {
  if (!args.has("--format")) return fallback;
  const std::string f = args.get("--format");
  if (f == "auto") return Format::Auto;
  if (f == "plain") return Format::Plain;
  if (f == "gzip") return Format::Gzip;
  if (f == "deflate") return Format::Deflate;
  usage("--format: expected auto, plain, gzip or deflate, got '" + f + "'");
}

std::string shownName(const std::string& name) { return name == "-" ? "(standard input)" : name; }

namespace {

bool endsWith(const std::string& s, const char* tail) {
  const size_t n = std::strlen(tail);
  return s.size() > n && s.compare(s.size() - n, n, tail) == 0;
}

// The reader's messages name the file it opened; the user named it so.
[[noreturn]] void failReading(const std::string& name, const std::string& path, void* e) {
  fail(shownName(name) + ": " + replaceAll(exceptionText(e), path, shownName(name)));
}

// Where a name would be created: its folder resolved through links, then
// the last part; the name itself when the folder does not exist.
std::string placeOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  char* real = realpath(dir.c_str(), nullptr);
  if (real == nullptr) return path;
  const std::string place = std::string(real) + "/" + path.substr(slash + 1);
  std::free(real);
  return place;
}

}  // namespace

qorStreamReader* openInput(const std::string& name, Format format, const char** chosen) {
  // Standard input is opened by name once, like any file, so that the reader
  // owns it; nothing is read from it before the reader's peek.
  const std::string path = name == "-" ? "/dev/stdin" : name;
  struct stat st;
  if (name != "-" && stat(path.c_str(), &st) != 0) fail(name + ": " + std::strerror(errno));
  if (name != "-" && S_ISDIR(st.st_mode)) fail(name + ": " + std::strerror(EISDIR));
  qorStreamReader* r = nullptr;
  try {
    r = new qorStreamReader(path.c_str());
  } catch (qorException* e) {
    if (access(path.c_str(), R_OK) != 0) {
      delete e;
      fail(shownName(name) + ": " + std::strerror(errno));
    }
    failReading(name, path, e);
  }
  try {
    char magic[2];
    const bool gz = r->peek(magic, 2) == 2 && magic[0] == '\x1f' && magic[1] == '\x8b';
    if (format == Format::Auto)
      format = gz                                                    ? Format::Gzip
               : endsWith(name, ".deflate") || endsWith(name, ".zz") ? Format::Deflate
                                                                     : Format::Plain;
    if (format == Format::Gzip && !gz) fail(shownName(name) + ": not in gzip format");
    if (format == Format::Gzip) {
      r->gunzip(true);
      r->readAllMembers(true);
      r->useFastDecoder(true);
    } else if (format == Format::Deflate) {
      r->inflate(true);
    }
  } catch (qorException* e) {
    delete r;
    failReading(name, path, e);
  } catch (...) {
    delete r;
    throw;
  }
  if (chosen != nullptr) *chosen = format == Format::Gzip ? "gzip" : format == Format::Deflate ? "deflate" : "plain";
  return r;
}

void readFailure(const std::string& name, void* qorExceptionPointer) {
  failReading(name, name == "-" ? "/dev/stdin" : name, qorExceptionPointer);
}

bool sameTarget(const std::string& output, const std::string& other, bool otherIsOutput) {
  auto stdoutName = [](const std::string& name) { return name == "-" || name == "/dev/stdout"; };
  if (otherIsOutput && stdoutName(output) && stdoutName(other)) return true;
  const std::string a = output == "-" ? "/dev/stdout" : output;
  const std::string b = other == "-" ? (otherIsOutput ? "/dev/stdout" : "/dev/stdin") : other;
  struct stat sa, sb;
  const bool ea = stat(a.c_str(), &sa) == 0, eb = stat(b.c_str(), &sb) == 0;
  if (ea && eb) return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino && !S_ISCHR(sa.st_mode);
  return !ea && !eb && placeOf(a) == placeOf(b);
}

// A regular file (or a name not yet taken) is replaced atomically; standard
// output, pipes and devices are written in place. Standard output is opened
// for appending, so that output after what a shell or an earlier command
// wrote there does not truncate it.
Output::Output(const std::string& name, bool gz, bool raw, bool replace)
    : m_Name(name == "-" ? "(standard output)" : name) {
  const bool toStdout = name == "-" || name == "/dev/stdout";
  m_Path = toStdout ? "/dev/stdout" : name;
  struct stat st;
  const bool exists = stat(m_Path.c_str(), &st) == 0;
  if (exists && S_ISDIR(st.st_mode)) fail(name + ": " + std::strerror(EISDIR));
  if (!toStdout && !replace && (exists ? S_ISREG(st.st_mode) : lstat(m_Path.c_str(), &st) == 0))
    fail(name + " already exists; -f replaces it");
  std::string target = m_Path;
  if (!toStdout && (!exists || S_ISREG(st.st_mode))) {
    const size_t slash = target.rfind('/');
    const std::string dir = slash == std::string::npos ? "" : target.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    std::string temp = dir + "." + base + ".qor-XXXXXX";
    const int fd = mkstemp(&temp[0]);
    if (fd < 0) fail("cannot create " + name + ": " + std::strerror(errno));
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, exists ? (st.st_mode & 07777) : (0666 & ~mask));
    ::close(fd);
    m_Temp = temp;
    target = temp;
  }
  try {
    qorStreamWriter* w = new qorStreamWriter(target.c_str(), toStdout ? 'a' : 'w');
    m_Writer = w;
    if (gz) w->gzip(true);
    if (raw) w->deflate(true);
  } catch (qorException* e) {
    failWith(e);
  }
}

Output::~Output() {
  delete static_cast<qorStreamWriter*>(m_Writer);
  if (!m_Temp.empty()) unlink(m_Temp.c_str());
}

// The writer's messages name the file it wrote, which may be the hidden
// temporary one; the user knows the target.
void Output::failWith(void* e) {
  std::string text = exceptionText(e);
  if (!m_Temp.empty()) text = replaceAll(text, m_Temp, m_Name);
  if (m_Path == "/dev/stdout") text = replaceAll(text, m_Path, m_Name);
  delete static_cast<qorStreamWriter*>(m_Writer);
  m_Writer = nullptr;
  if (!m_Temp.empty()) unlink(m_Temp.c_str());
  m_Temp.clear();
  fail(text);
}

void Output::write(const char* data, size_t size) {
  qorStreamWriter* w = static_cast<qorStreamWriter*>(m_Writer);
  try {
    while (size > 0) {
      const int n = size > (1u << 30) ? (1 << 30) : static_cast<int>(size);
      w->write(const_cast<char*>(data), n);
      data += n;
      size -= n;
    }
  } catch (qorException* e) {
    failWith(e);
  }
}

uint64_t Output::fileBytes() const { return static_cast<qorStreamWriter*>(m_Writer)->m_FileBytes; }

void Output::commit() {
  qorStreamWriter* w = static_cast<qorStreamWriter*>(m_Writer);
  try {
    w->close();
  } catch (qorException* e) {
    failWith(e);
  }
  if (!m_Temp.empty()) {
    if (rename(m_Temp.c_str(), m_Path.c_str()) != 0) fail("cannot write " + m_Name + ": " + std::strerror(errno));
    m_Temp.clear();
  }
}

static double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Progress::Progress(const std::string& label, long total)
    : m_Label(label), m_Total(total), m_On(isatty(2) && total > (64L << 20)) {}

Progress::~Progress() {
  if (m_On) std::fputs("\r\033[K", stderr);
}

void Progress::update(uint64_t done) {
  if (!m_On) return;
  const double t = now();
  if (t < m_Next) return;
  m_Next = t + 0.2;
  std::fprintf(stderr, "\rqor: %s %3d%% (%llu of %ld MiB)", m_Label.c_str(),
               static_cast<int>(100.0 * static_cast<double>(done) / static_cast<double>(m_Total)),
               static_cast<unsigned long long>(done >> 20), m_Total >> 20);
}

}  // namespace qortool
