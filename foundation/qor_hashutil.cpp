#include "qor_hashutil.h"

#include <cctype>

#include "qor_random.h"

const unsigned int qorHashPrimes[20] = {3,        11,       29,        83,        239,        673,        2027,
                                        6089,     18269,    54829,     164503,    493523,     1480571,    4441721,
                                        13325171, 39975553, 119926691, 359780077, 1079340313, 3238020943u};
const int qorNumHashPrimes = 20;
const unsigned int qorMaxHashPrime = 3238020943u;
const unsigned int qorMinHashPrime = 3;
unsigned int qorHashData[65536];

namespace {

// Entry of the byte at 0-based position `position`.
inline unsigned tableWord(unsigned position, unsigned char byte) {
  return qorHashData[(((position + 1) & 0xFFu) << 8) | byte];
}

inline unsigned char foldCase(char c) { return static_cast<unsigned char>(tolower(static_cast<signed char>(c))); }

}  // namespace

unsigned qorNextHashSize(unsigned n) {
  if (n <= qorMinHashPrime) return qorMinHashPrime;
  for (int i = 1; i < qorNumHashPrimes; ++i) {
    if (qorHashPrimes[i] >= n) return qorHashPrimes[i];
  }
  return qorMaxHashPrime;
}

void qorHashInitialize() {
  qorrandom generator(12321, 32123);
  for (unsigned& word : qorHashData) word = generator.UniformRandom32();
}

void qorHashUninitialize() {}

unsigned qorXorHashString(const char* const& s) {
  if (s == nullptr) return 0;
  unsigned h = 0;
  unsigned i = 0;
  for (; s[i] != '\0'; ++i) h ^= tableWord(i, static_cast<unsigned char>(s[i]));
  return h ^ tableWord(i, 0);
}

unsigned qorXorHashStringNoCase(const char* const& s) {
  if (s == nullptr) return 0;
  unsigned h = 0;
  unsigned i = 0;
  for (; s[i] != '\0'; ++i) h ^= tableWord(i, foldCase(s[i]));
  return h ^ tableWord(i, 0);
}

unsigned qorXorHashBytes(unsigned length, const void* data) {
  if (data == nullptr || length == 0) return 0;
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  unsigned h = 0;
  for (unsigned i = 0; i < length; ++i) h ^= tableWord(i, bytes[i]);
  return h;
}

unsigned qorMultHashString(const char* const& s) {
  if (s == nullptr) return 0;
  unsigned h = 0;
  for (const char* p = s; *p != '\0'; ++p) {
    const unsigned c = static_cast<unsigned>(static_cast<int>(static_cast<signed char>(*p)));
    h = (h + c * 733u) * 1973u;
  }
  return h;
}

unsigned qorPassthruHashUInt32(const unsigned& v) { return v; }
unsigned qorPassthruHashInt32(const int& v) { return static_cast<unsigned>(v); }
unsigned qorHashULong(const unsigned& v) { return v; }
unsigned qorHashLong(const int& v) { return static_cast<unsigned>(v); }
unsigned qorHashPointer(const void* const& p) { return qorXorHashBytes(8, p); }
