// Raising errors: every failure in libqor goes through qorThrow.
#ifndef QOR_ASSERT_H
#define QOR_ASSERT_H

#include "qor_exception.h"

// A new, unthrown exception. A null or empty file becomes "<unknown>"; the
// message is stored as it arrives.
QOR_API qorException* qorMakeExceptionToThrow(char const* message, char const* file, unsigned long line);

// Throws the pointer as an exception of type qorException*. Never returns.
[[noreturn]] QOR_API void qorThrow(qorException* exception);

// Throws qorMakeExceptionToThrow(message, file, line). Never returns.
[[noreturn]] QOR_API void qorThrow(char const* message, char const* file, unsigned long line);

// Throws a message composed as "%s%s\n" of prefix and detail (a null detail
// reads "(null)") in a malloc buffer of exactly the needed size, which the
// exception owns and releases when it is deleted. Never returns.
[[noreturn]] QOR_API void qorThrowComposed(const char* prefix, const char* detail, const char* file,
                                           unsigned long line);

#endif
