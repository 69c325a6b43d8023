// Queries about the host. None of them raises: where the platform cannot
// answer, each returns the fallback its comment gives.
#ifndef QOR_SYSINFO_H
#define QOR_SYSINFO_H

#include <QList>
#include <QString>

#include "qor_export.h"

// The operating system's name and version as Qt reports it, in Latin-1,
// followed by a newline. A name longer than 254 bytes is cut to 254 bytes
// before the newline. Release with delete[].
QOR_API char* qorGetOSVersion();

// ctime() of now: 24 characters of local time and a newline. Points into
// libc's static buffer: never release it, and copy it before the next call
// or any other libc time formatting.
QOR_API char* qorGetCurrentTime();

// The effective user's login name, or "unknown" when the user has no
// password entry. Always a fresh copy: release with delete[].
QOR_API char* qorGetUserName();

// The host name, or "unknown" when gethostname fails. Always a fresh copy:
// release with delete[].
QOR_API char* qorGetHostName();

// The number of lines of /proc/cpuinfo that contain "processor" (one per
// logical processor on x86), read directly: no shell and no child process.
// When the file cannot be read or holds no such line,
// sysconf(_SC_NPROCESSORS_ONLN), and 1 when that fails too. Never 0.
QOR_API int qorGetNumProcessors();

// The machine's total physical memory in MiB (not the memory now free).
QOR_API long qorGetAvailableMemory();

// The hardware addresses of every interface that is not a loopback, in Qt's
// order, as Qt writes them ("AA:BB:CC:DD:EE:FF"). Interfaces without one
// contribute nothing; an empty list when none has one.
QOR_API QList<QString> qorGetMacAddress();

#endif
