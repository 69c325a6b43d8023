#include <qor/qor_base2.h>

unsigned int qorNextPowerOfTwoGreaterThan(unsigned int v) {
  for (unsigned int probe = 0x40000000u; probe != 0; probe >>= 1) {
    if (v & probe) return probe << 1;
  }
  return 1;
}
