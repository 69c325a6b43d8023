// Helpers shared by every test program.
#ifndef QOR_TEST_SUPPORT_H
#define QOR_TEST_SUPPORT_H

#include <qor/qor_exception.h>

#include <string>

namespace qortest {

// What raisedText gives when nothing was raised.
inline const char kNothingRaised[] = "<no exception>";

// Runs f and returns the what() text of the qorException* it raises (the
// exception is deleted here), or kNothingRaised.
template <typename F>
std::string raisedText(F f) {
  try {
    f();
  } catch (qorException* e) {
    std::string text = e->what();
    delete e;
    return text;
  }
  return kNothingRaised;
}

inline bool startsWith(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }

}  // namespace qortest

#endif
