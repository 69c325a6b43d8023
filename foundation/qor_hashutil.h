// Hash functions for hash tables.
//
// The XOR hashes read qorHashData, a table of 65,536 random words that
// qorHashInitialize fills with the same values in every process; until it
// runs they return 0. The byte at position i selects entry
// ((i + 1) mod 256) * 256 + byte.
#ifndef QOR_HASHUTIL_H
#define QOR_HASHUTIL_H

#include "qor_export.h"

// Prime table sizes, each about three times the one before:
// 3, 11, 29, ..., 3238020943.
extern QOR_API const unsigned int qorHashPrimes[20];
extern QOR_API const int qorNumHashPrimes;
extern QOR_API const unsigned int qorMaxHashPrime;
extern QOR_API const unsigned int qorMinHashPrime;
extern QOR_API unsigned int qorHashData[65536];

// The smallest prime of qorHashPrimes that is at least n; 3238020943 for
// anything larger.
QOR_API unsigned qorNextHashSize(unsigned n);
// Fills qorHashData. Run it once, before any thread hashes.
QOR_API void qorHashInitialize();
// Does nothing; the table stays as it is.
QOR_API void qorHashUninitialize();

// XOR table hash of s and its terminator; null gives 0.
QOR_API unsigned qorXorHashString(const char* const& s);
// The same over the bytes lower-cased by the current locale; null gives 0.
QOR_API unsigned qorXorHashStringNoCase(const char* const& s);
// XOR table hash of length bytes (no terminator term); null data or a length
// of 0 gives 0.
QOR_API unsigned qorXorHashBytes(unsigned length, const void* data);
// h = (h + c * 733) * 1973 over the signed bytes of s; "" and null give 0.
QOR_API unsigned qorMultHashString(const char* const& s);

QOR_API unsigned qorPassthruHashUInt32(const unsigned& v);
QOR_API unsigned qorPassthruHashInt32(const int& v);
QOR_API unsigned qorHashULong(const unsigned& v);
QOR_API unsigned qorHashLong(const int& v);
// qorXorHashBytes(8, p): hashes the 8 bytes p points to; null gives 0.
QOR_API unsigned qorHashPointer(const void* const& p);

#endif
