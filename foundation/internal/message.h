// Internal: composing error messages for qorThrow.
//
// Raising sites with a variable part build "<prefix><detail>\n" in a malloc
// buffer of exactly the needed size (qorThrowComposed, qor_assert.h). The
// exception that carries such a text owns it and releases it when it is
// deleted, whether or not what() ran.
#ifndef QOR_INTERNAL_MESSAGE_H
#define QOR_INTERNAL_MESSAGE_H

namespace qor_internal {

// "%s%s\n" of prefix and detail; a null detail composes as "(null)".
char* composeMessage(const char* prefix, const char* detail);

// "%s\n" of text.
char* composeLine(const char* text);

// Marks a malloc buffer as one the next exception built on it will own.
void adoptMessage(char* buffer);

}  // namespace qor_internal

#endif
