// Zero-terminated string helpers.
//
// Release rules: qorStrdup results with delete[]; qorMalloc results, and new
// strings from qorStradd, with qorFree.
#ifndef QOR_STRINGS_H
#define QOR_STRINGS_H

#include <string>

#include "qor_export.h"

// size zero bytes from calloc; a size of 0 gives null.
QOR_API char* qorMalloc(unsigned long size);
// free(p); null is ignored.
QOR_API void qorFree(char* p);
// A new[] copy of s, terminator included; null gives null.
QOR_API char* qorStrdup(char const* s);
// strcmp / strcasecmp, a null argument read as the empty string.
QOR_API int qorStrcmp(char const* a, char const* b);
QOR_API int qorStricmp(char const* a, char const* b);
// strcpy after checking dst, then src, for null; raises "NULL Pointer: dst"
// or "NULL Pointer: src". No length check.
QOR_API char* qorStrcpy(char* dst, char const* src);
// Exactly strncpy, with no checks.
QOR_API char* qorStrncpy(char* dst, char const* src, unsigned long count);
// dst followed by src in a new qorMalloc buffer (release with qorFree). A
// null src returns dst itself and allocates nothing; a null dst raises
// "NULL Pointer: dst". dst is never changed or released.
QOR_API char* qorStradd(char* dst, char const* src);
// In place, byte by byte under the current locale; null is ignored.
QOR_API void qorToLower(char* s);
QOR_API void qorToUpper(char* s);
// Writes into out the bytes of in with separator inserted between groups of
// frequency bytes counted from the right ("1234567", 3, ',' gives
// "1,234,567"). Every byte groups like a digit ("-123456" gives "-,123,456").
// out and in may be the same string. A frequency of 0 raises
// "frequency > 0".
QOR_API void qorInsertCommas(std::string& out, std::string const& in, unsigned int frequency, char separator);

#endif
