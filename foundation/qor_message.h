// Internal: composing error messages for qorThrow.
//
// Raising sites with a variable part build "<prefix><detail>\n" in a malloc
// buffer of exactly the needed size. The exception that carries such a text
// owns it and releases it when it is deleted, whether or not what() ran.
#ifndef QOR_MESSAGE_H
#define QOR_MESSAGE_H

#include "qor_export.h"

// "%s%s\n" of prefix and detail; a null detail composes as "(null)".
QOR_HIDDEN char* qorComposeMessage(const char* prefix, const char* detail);

// "%s\n" of text.
QOR_HIDDEN char* qorComposeLine(const char* text);

// qorThrow of qorComposeMessage(prefix, detail).
[[noreturn]] QOR_HIDDEN void qorThrowComposed(const char* prefix, const char* detail, const char* file,
                                              unsigned long line);

// Marks a malloc buffer as one the next exception built on it will own.
QOR_HIDDEN void qorAdoptMessage(char* buffer);

#endif
