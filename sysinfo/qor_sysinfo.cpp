#include <pwd.h>
#include <qor/qor_strings.h>
#include <qor/qor_sysinfo.h>
#include <unistd.h>

#include <QNetworkInterface>
#include <QSysInfo>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

const int kTextBufferSize = 256;
const char kUnknown[] = "unknown";

}  // namespace

char* qorGetOSVersion() {
  const QByteArray name = QSysInfo::prettyProductName().toLatin1();
  char buffer[kTextBufferSize];
  // snprintf cuts a long name so that the text and its terminator fit; the
  // newline is put back so the result always ends in one.
  const int written = snprintf(buffer, sizeof buffer, "%s\n", name.constData());
  if (written >= kTextBufferSize) {
    buffer[kTextBufferSize - 2] = '\n';
    buffer[kTextBufferSize - 1] = '\0';
  }
  return qorStrdup(buffer);
}

char* qorGetCurrentTime() {
  const time_t now = time(nullptr);
  return ctime(&now);
}

char* qorGetUserName() {
  const struct passwd* entry = getpwuid(geteuid());
  if (entry == nullptr || entry->pw_name == nullptr) return qorStrdup(kUnknown);
  return qorStrdup(entry->pw_name);
}

char* qorGetHostName() {
  char buffer[kTextBufferSize];
  if (gethostname(buffer, sizeof buffer) != 0) return qorStrdup(kUnknown);
  buffer[kTextBufferSize - 1] = '\0';  // a name that was cut may lack its terminator
  return qorStrdup(buffer);
}

int qorGetNumProcessors() {
  // Counted here rather than by a shell pipeline: no child process, and
  // nothing found through PATH.
  long count = 0;
  if (FILE* cpuinfo = fopen("/proc/cpuinfo", "re")) {
    char* line = nullptr;  // grown by getline to the longest line (the flags run long)
    size_t capacity = 0;
    while (getline(&line, &capacity, cpuinfo) != -1) {
      if (strstr(line, "processor") != nullptr) ++count;
    }
    free(line);
    fclose(cpuinfo);
  }
  if (count > 0) return static_cast<int>(count);
  const long online = sysconf(_SC_NPROCESSORS_ONLN);
  return online > 0 ? static_cast<int>(online) : 1;
}

long qorGetAvailableMemory() {
  const int64_t pages = sysconf(_SC_PHYS_PAGES);
  const int64_t pageSize = sysconf(_SC_PAGESIZE);
  return static_cast<long>(pages * pageSize / 1048576);
}

QList<QString> qorGetMacAddress() {
  QList<QString> addresses;
  for (const QNetworkInterface& interface : QNetworkInterface::allInterfaces()) {
    if (interface.flags() & QNetworkInterface::IsLoopBack) continue;
    const QString address = interface.hardwareAddress();
    if (!address.isEmpty()) addresses.append(address);
  }
  return addresses;
}
