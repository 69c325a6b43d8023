// qorrandom: a deterministic generator with two 32-bit seeds (a combined
// multiplicative congruential generator, moduli 2147483563 and 2147483399).
// The same seeds give the same sequence on every machine.
#ifndef QOR_RANDOM_H
#define QOR_RANDOM_H

#include "qor_export.h"

class QOR_API qorrandom {
 public:
  static const int MinSeed1 = 1;
  static const int MaxSeed1 = 2147483562;
  static const int MinSeed2 = 1;
  static const int MaxSeed2 = 2147483398;
  static const int MinOutput = 0;
  static const int MaxOutput = 2147483561;

  qorrandom(int seed1, int seed2);
  // Seeds from MakeSeeds(text). A null text is never read and seeds (1, 1).
  explicit qorrandom(const char* text);
  ~qorrandom();

  // Stores both seeds as given, without a range check.
  void SetSeeds(int seed1, int seed2);
  // seed1 from qorXorHashString(text) mod 2147483562, seed2 from
  // qorMultHashString(text) mod 2147483398; a zero becomes 1. Run
  // qorHashInitialize first, or seed1 is always 1. A null text gives (1, 1).
  static void MakeSeeds(const char* text, int& seed1, int& seed2);
  // Next value in [MinOutput, MaxOutput].
  int UniformRandom();
  // The low 16 bits of two draws: (first << 16) | (second & 0xFFFF).
  unsigned UniformRandom32();

  int seed1;
  int seed2;
};

#endif
