#include <qor/qor_assert.h>
#include <qor/qor_strings.h>
#include <strings.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "internal/message.h"

namespace {

const char kUnit[] = "qor_strings";

const char* orEmpty(const char* s) { return s != nullptr ? s : ""; }

[[noreturn]] void throwNullPointer(const char* name, unsigned long line) {
  qorThrowComposed("NULL Pointer: ", name, kUnit, line);
}

}  // namespace

char* qorMalloc(unsigned long size) {
  if (size == 0) return nullptr;
  return static_cast<char*>(calloc(size, 1));
}

void qorFree(char* p) { free(p); }

char* qorStrdup(char const* s) {
  if (s == nullptr) return nullptr;
  const size_t length = strlen(s);
  char* copy = new char[length + 1];
  memcpy(copy, s, length + 1);
  return copy;
}

int qorStrcmp(char const* a, char const* b) { return strcmp(orEmpty(a), orEmpty(b)); }

int qorStricmp(char const* a, char const* b) { return strcasecmp(orEmpty(a), orEmpty(b)); }

char* qorStrcpy(char* dst, char const* src) {
  if (dst == nullptr) throwNullPointer("dst", __LINE__);
  if (src == nullptr) throwNullPointer("src", __LINE__);
  return strcpy(dst, src);
}

char* qorStrncpy(char* dst, char const* src, unsigned long count) { return strncpy(dst, src, count); }

char* qorStradd(char* dst, char const* src) {
  if (dst == nullptr) throwNullPointer("dst", __LINE__);
  if (src == nullptr) return dst;
  const size_t first = strlen(dst);
  const size_t second = strlen(src);
  char* joined = qorMalloc(first + second + 1);
  memcpy(joined, dst, first);
  memcpy(joined + first, src, second);
  joined[first + second] = '\0';
  return joined;
}

void qorToLower(char* s) {
  if (s == nullptr) return;
  for (; *s != '\0'; ++s) {
    const int c = static_cast<signed char>(*s);
    if (isupper(c)) *s = static_cast<char>(tolower(c));
  }
}

void qorToUpper(char* s) {
  if (s == nullptr) return;
  for (; *s != '\0'; ++s) {
    const int c = static_cast<signed char>(*s);
    if (islower(c)) *s = static_cast<char>(toupper(c));
  }
}

void qorInsertCommas(std::string& out, std::string const& in, unsigned int frequency, char separator) {
  if (frequency == 0) qorThrow(qor_internal::composeLine("frequency > 0"), kUnit, __LINE__);
  if (&out == &in) {
    // The output is cleared before the input is read, so group a copy.
    const std::string copy(in);
    qorInsertCommas(out, copy, frequency, separator);
    return;
  }
  const size_t length = in.size();
  if (frequency >= length) {
    out = in;
    return;
  }
  out.clear();
  out.reserve(length + (length - 1) / frequency);
  size_t first = length % frequency;
  if (first == 0) first = frequency;
  out.append(in, 0, first);
  for (size_t at = first; at < length; at += frequency) {
    out.push_back(separator);
    out.append(in, at, frequency);
  }
}
