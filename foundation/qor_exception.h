// qorException: the one exception type of libqor.
//
// Every failure inside the library is raised with qorThrow (qor_assert.h),
// which throws a pointer to a qorException created with new. Catch it as
// qorException*, call what() once for the text, then delete it:
//
//   try { ... } catch (qorException* e) { log(e->what()); delete e; }
//
// A handler for qorException or qorException& does not catch it.
#ifndef QOR_EXCEPTION_H
#define QOR_EXCEPTION_H

#include "qor_export.h"

class QOR_API qorException {
 public:
  // Sets the message to null, the file to "<unknown>" and the line to 0.
  qorException();
  // Stores the three values as given; no text is copied. The message must
  // stay valid while the exception lives.
  qorException(const char* message, char* file, unsigned long line);
  // Releases every text the exception owns: the texts composed by what() and
  // a message that the library composed for this exception. A message that
  // the caller passed in (a constant, or a buffer of the caller's) is never
  // released, whether or not what() ran.
  ~qorException();

  // Composes "<message> [file <file> line <line>]\n", stores it as the new
  // message and returns it. The text belongs to the exception and stays valid
  // until the exception is deleted. Each call wraps the current message again,
  // so call it once. A null message prints as "(null)".
  char* what();

  const char* m_Message;
  char* m_File;
  unsigned long m_Line;
};

#endif
