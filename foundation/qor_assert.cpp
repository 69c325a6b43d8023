#include <qor/qor_assert.h>

#include <cstdio>
#include <cstdlib>
#include <new>

#include "internal/message.h"

namespace {

const char kUnknownFile[] = "<unknown>";

char* composeExactly(const char* format, const char* first, const char* second) {
  const int length = snprintf(nullptr, 0, format, first, second);
  char* buffer = static_cast<char*>(malloc(static_cast<size_t>(length) + 1));
  if (buffer == nullptr) throw std::bad_alloc();
  snprintf(buffer, static_cast<size_t>(length) + 1, format, first, second);
  qor_internal::adoptMessage(buffer);
  return buffer;
}

}  // namespace

qorException* qorMakeExceptionToThrow(char const* message, char const* file, unsigned long line) {
  const char* name = (file == nullptr || *file == '\0') ? kUnknownFile : file;
  return new qorException(message, const_cast<char*>(name), line);
}

void qorThrow(qorException* exception) { throw exception; }

void qorThrow(char const* message, char const* file, unsigned long line) {
  qorThrow(qorMakeExceptionToThrow(message, file, line));
}

char* qor_internal::composeMessage(const char* prefix, const char* detail) {
  return composeExactly("%s%s\n", prefix != nullptr ? prefix : "", detail != nullptr ? detail : "(null)");
}

char* qor_internal::composeLine(const char* text) { return composeExactly("%s\n%s", text != nullptr ? text : "", ""); }

void qorThrowComposed(const char* prefix, const char* detail, const char* file, unsigned long line) {
  qorThrow(qor_internal::composeMessage(prefix, detail), file, line);
}
