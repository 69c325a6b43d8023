#include <qor/qor_hashutil.h>
#include <qor/qor_random.h>

#include <cctype>
#include <cstddef>
#include <cstring>

const unsigned int qorHashPrimes[20] = {3,        11,       29,        83,        239,        673,        2027,
                                        6089,     18269,    54829,     164503,    493523,     1480571,    4441721,
                                        13325171, 39975553, 119926691, 359780077, 1079340313, 3238020943u};
const int qorNumHashPrimes = 20;
const unsigned int qorMaxHashPrime = 3238020943u;
const unsigned int qorMinHashPrime = 3;
unsigned int qorHashData[65536];

namespace {

// Entry of the byte at 0-based position `position`.
inline unsigned tableWord(size_t position, unsigned char byte) {
  return qorHashData[(((position + 1) & 0xFFu) << 8) | byte];
}

inline unsigned char sameByte(unsigned char c) { return c; }

inline unsigned char foldCase(unsigned char c) {
  return static_cast<unsigned char>(tolower(static_cast<signed char>(c)));
}

// A byte taken as a signed char, as an unsigned 32-bit value.
inline unsigned signedByte(unsigned char c) {
  return static_cast<unsigned>(static_cast<int>(static_cast<signed char>(c)));
}

// XOR of the table words of `length` bytes, each passed through `map`. Four
// independent accumulators let the table loads overlap.
template <typename Map>
inline unsigned xorOfBytes(const unsigned char* bytes, size_t length, Map map) {
  unsigned h0 = 0, h1 = 0, h2 = 0, h3 = 0;
  size_t i = 0;
  for (; i + 4 <= length; i += 4) {
    h0 ^= tableWord(i, map(bytes[i]));
    h1 ^= tableWord(i + 1, map(bytes[i + 1]));
    h2 ^= tableWord(i + 2, map(bytes[i + 2]));
    h3 ^= tableWord(i + 3, map(bytes[i + 3]));
  }
  for (; i < length; ++i) h0 ^= tableWord(i, map(bytes[i]));
  return h0 ^ h1 ^ h2 ^ h3;
}

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
  const size_t length = strlen(s);
  return xorOfBytes(reinterpret_cast<const unsigned char*>(s), length, sameByte) ^ tableWord(length, 0);
}

unsigned qorXorHashStringNoCase(const char* const& s) {
  if (s == nullptr) return 0;
  const size_t length = strlen(s);
  return xorOfBytes(reinterpret_cast<const unsigned char*>(s), length, foldCase) ^ tableWord(length, 0);
}

unsigned qorXorHashBytes(unsigned length, const void* data) {
  if (data == nullptr || length == 0) return 0;
  return xorOfBytes(static_cast<const unsigned char*>(data), length, sameByte);
}

unsigned qorMultHashString(const char* const& s) {
  if (s == nullptr) return 0;
  // h = (h + c * 733) * 1973 = h * M + c * K, with M = 1973 and K = 733 * 1973,
  // all modulo 2^32. Four steps at once are h * M^4 + (c0 M^3 + c1 M^2 + c2 M + c3) K,
  // which leaves one multiplication per four bytes on the dependency chain.
  const unsigned M = 1973u;
  const unsigned K = 733u * 1973u;
  const unsigned M2 = M * M;
  const unsigned M3 = M2 * M;
  const unsigned M4 = M3 * M;
  const size_t length = strlen(s);
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(s);
  unsigned h = 0;
  size_t i = 0;
  for (; i + 4 <= length; i += 4) {
    const unsigned mixed = signedByte(bytes[i]) * M3 + signedByte(bytes[i + 1]) * M2 + signedByte(bytes[i + 2]) * M +
                           signedByte(bytes[i + 3]);
    h = h * M4 + mixed * K;
  }
  for (; i < length; ++i) h = h * M + signedByte(bytes[i]) * K;
  return h;
}

unsigned qorPassthruHashUInt32(const unsigned& v) { return v; }
unsigned qorPassthruHashInt32(const int& v) { return static_cast<unsigned>(v); }
unsigned qorHashULong(const unsigned& v) { return v; }
unsigned qorHashLong(const int& v) { return static_cast<unsigned>(v); }
unsigned qorHashPointer(const void* const& p) { return qorXorHashBytes(8, p); }
