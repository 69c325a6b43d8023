#include "qor_mapping.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qor_message.h"

void* qorMapAnonymous(unsigned long length, const char* unit, unsigned long line) {
  void* address = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (address == MAP_FAILED) {
    const int error = errno;
    char buffer[256];
    qorThrowComposed("mmap failed: ", strerror_r(error, buffer, sizeof buffer), unit, line);
  }
  return address;
}

void qorUnmapOrExit(void* address, unsigned long length) {
  const int result = munmap(address, length);
  if (result != 0) {
    printf("Error in munmap: size = %ld addr=%lx\n", static_cast<long>(length),
           reinterpret_cast<unsigned long>(address));
    exit(result);
  }
}
