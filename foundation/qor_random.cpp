#include <qor/qor_hashutil.h>
#include <qor/qor_random.h>

#include <cstdint>

// Out-of-line definitions, so the constants can be bound to references.
const int qorrandom::MinSeed1;
const int qorrandom::MaxSeed1;
const int qorrandom::MinSeed2;
const int qorrandom::MaxSeed2;
const int qorrandom::MinOutput;
const int qorrandom::MaxOutput;

namespace {

// seed * multiplier mod modulus by Schrage's method (quotient q, remainder r
// of modulus / multiplier). Every intermediate fits 32 bits for any int seed;
// 64-bit arithmetic only keeps the compiler from having to prove it.
inline int schrage(int seed, int multiplier, int q, int r, int modulus) {
  const int64_t k = seed / q;
  int64_t next = multiplier * (seed - k * q) - r * k;
  if (next < 0) next += modulus;
  return static_cast<int>(next);
}

}  // namespace

qorrandom::qorrandom(int s1, int s2) { SetSeeds(s1, s2); }

qorrandom::qorrandom(const char* text) {
  int a = 1;
  int b = 1;
  MakeSeeds(text, a, b);
  SetSeeds(a, b);
}

qorrandom::~qorrandom() {}

void qorrandom::SetSeeds(int s1, int s2) {
  seed1 = s1;
  seed2 = s2;
}

void qorrandom::MakeSeeds(const char* text, int& s1, int& s2) {
  const unsigned a = qorXorHashString(text) % 2147483562u;
  const unsigned b = qorMultHashString(text) % 2147483398u;
  s1 = a == 0 ? 1 : static_cast<int>(a);
  s2 = b == 0 ? 1 : static_cast<int>(b);
}

int qorrandom::UniformRandom() {
  seed1 = schrage(seed1, 40014, 53668, 12211, 2147483563);
  seed2 = schrage(seed2, 40692, 52774, 3791, 2147483399);
  int64_t z = static_cast<int64_t>(seed1) - seed2;
  if (z <= 0) z += 2147483562;
  return static_cast<int>(z - 1);
}

unsigned qorrandom::UniformRandom32() {
  const unsigned a = static_cast<unsigned>(UniformRandom());
  const unsigned b = static_cast<unsigned>(UniformRandom());
  return (a << 16) | (b & 0xFFFFu);
}
