// Base types and bit utilities.
#ifndef QOR_BASE2_H
#define QOR_BASE2_H

#include "qor_export.h"

// The library's 32-bit signed integer.
typedef int qorInt32;

// The smallest power of two strictly greater than v, for v below 2^31:
// 0 gives 1, 4 gives 8, 0x7FFFFFFF gives 0x80000000. Bit 31 is ignored, so
// an argument of 2^31 or more gives the answer for its low 31 bits
// (0x80000000 gives 1).
QOR_API unsigned int qorNextPowerOfTwoGreaterThan(unsigned int v);

#endif
