// Input checks, atomic output files and the progress line of the qor tool.
#include <fcntl.h>
#include <qor/qor_exception.h>
#include <qor/qor_stream.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "qor_tool.h"

namespace qortool {

void checkInput(const std::string& name) {
  struct stat st;
  if (stat(name.c_str(), &st) != 0) fail(name + ": " + std::strerror(errno));
  if (S_ISDIR(st.st_mode)) fail(name + ": " + std::strerror(EISDIR));
  const int fd = open(name.c_str(), O_RDONLY);
  if (fd < 0) fail(name + ": " + std::strerror(errno));
  close(fd);
}

void checkNotSame(const std::string& in, const std::string& out) {
  struct stat a, b;
  if (out == "-" || stat(in.c_str(), &a) != 0 || stat(out.c_str(), &b) != 0) return;
  if (a.st_dev == b.st_dev && a.st_ino == b.st_ino && S_ISREG(b.st_mode))
    fail(in + " and " + out + " are the same file");
}

// A regular file (or a name not yet taken) is replaced atomically; standard
// output, pipes and devices are written in place.
Output::Output(const std::string& name, bool gz, bool raw) : m_Name(name) {
  std::string target = name == "-" ? "/dev/stdout" : name;
  struct stat st;
  const bool exists = stat(target.c_str(), &st) == 0;
  if (exists && S_ISDIR(st.st_mode)) fail(name + ": " + std::strerror(EISDIR));
  if (name != "-" && (!exists || S_ISREG(st.st_mode))) {
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
    qorStreamWriter* w = new qorStreamWriter(target.c_str(), 'w');
    m_Writer = w;
    if (gz) w->gzip(true);
    if (raw) w->deflate(true);
  } catch (qorException* e) {
    if (!m_Temp.empty()) unlink(m_Temp.c_str());
    fail(exceptionText(e));
  }
}

Output::~Output() {
  delete static_cast<qorStreamWriter*>(m_Writer);
  if (!m_Temp.empty()) unlink(m_Temp.c_str());
}

void Output::write(const char* data, size_t size) {
  qorStreamWriter* w = static_cast<qorStreamWriter*>(m_Writer);
  while (size > 0) {
    const int n = size > (1u << 30) ? (1 << 30) : static_cast<int>(size);
    w->write(const_cast<char*>(data), n);
    data += n;
    size -= n;
  }
}

uint64_t Output::fileBytes() const { return static_cast<qorStreamWriter*>(m_Writer)->m_FileBytes; }

void Output::commit() {
  qorStreamWriter* w = static_cast<qorStreamWriter*>(m_Writer);
  try {
    w->close();
  } catch (qorException* e) {
    fail(exceptionText(e));
  }
  if (!m_Temp.empty()) {
    if (rename(m_Temp.c_str(), m_Name.c_str()) != 0) fail("cannot write " + m_Name + ": " + std::strerror(errno));
    m_Temp.clear();
  }
}

qorStreamReader* openInput(const std::string& name, const char** format) {
  checkInput(name);
  unsigned char magic[2] = {0, 0};
  FILE* f = std::fopen(name.c_str(), "rb");
  const size_t got = f == nullptr ? 0 : std::fread(magic, 1, 2, f);
  if (f != nullptr) std::fclose(f);
  int kind = got == 2 && magic[0] == 0x1f && magic[1] == 0x8b ? 1 : 0;
  if (kind == 0 && got > 0) {
    // Raw deflate has no signature: it is taken for deflate when its start
    // decodes without error, which text and other data practically never do.
    try {
      qorStreamReader probe(name.c_str());
      probe.inflate(true);
      static char scratch[65536];
      probe.read(scratch, sizeof scratch);
      kind = 2;
    } catch (qorException* e) {
      delete e;
    }
  }
  qorStreamReader* r = nullptr;
  try {
    r = new qorStreamReader(name.c_str());
    if (kind == 1) {
      r->gunzip(true);
      r->readAllMembers(true);
    } else if (kind == 2) {
      r->inflate(true);
    }
    if (kind != 0) r->useFastDecoder(true);
  } catch (qorException* e) {
    delete r;
    fail(name + ": " + exceptionText(e));
  }
  if (format != nullptr) *format = kind == 1 ? "gzip" : kind == 2 ? "deflate" : "plain";
  return r;
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
