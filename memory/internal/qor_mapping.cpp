#include <qor/qor_assert.h>
#include <qor/qor_export.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mapping.h"
#include "poison.h"

namespace {

#ifdef QOR_TESTING_HOOKS
// Calls of mapAnonymous to let through before one fails; 0: none fails.
unsigned long mapCallsBeforeFailure = 0;

bool failThisMapping() { return mapCallsBeforeFailure != 0 && --mapCallsBeforeFailure == 0; }
#else
constexpr bool failThisMapping() { return false; }
#endif

}  // namespace

#ifdef QOR_TESTING_HOOKS
// Test hook, only in builds configured with QOR_TESTING_HOOKS: the nth call
// of the mapping seam from now on (1 for the next) fails as mmap does with
// ENOMEM, and the calls after it succeed again; 0 cancels a pending failure.
// Not thread-safe: a test arms it while no other thread maps.
QOR_API void qorTestFailMapping(unsigned long nth) { mapCallsBeforeFailure = nth; }
#endif

namespace qor_internal {

void* mapAnonymous(unsigned long length, const char* owner, const char* unit, unsigned long line) {
  const bool fail = failThisMapping();
  void* address = fail ? MAP_FAILED : mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (address == MAP_FAILED) {
    const int error = fail ? ENOMEM : errno;
    char buffer[256];
    const std::string prefix = std::string(owner) + ": mmap failed: ";
    qorThrowComposed(prefix.c_str(), strerror_r(error, buffer, sizeof buffer), unit, line);
  }
#ifndef NDEBUG
  std::memset(address, 0xA5, length);
#endif
  return address;
}

void unmapOrExit(void* address, unsigned long length) {
  // Free blocks in it are poisoned; whatever is mapped here next starts clean.
  unpoison(address, length);
  const int result = munmap(address, length);
  if (result != 0) {
    printf("Error in munmap: size = %ld addr=%lx\n", static_cast<long>(length),
           reinterpret_cast<unsigned long>(address));
    exit(result);
  }
}

}  // namespace qor_internal
