// qor: the library's jobs from the command line (triangulate and split
// polygons, count lines, compress, ask the host, exercise the allocators).
#include <qor/qor_exception.h>

#include <cstdio>
#include <exception>

#include "qor_tool.h"

int main(int argc, char** argv) {
  using namespace qortool;
  try {
    return run(argc, argv);
  } catch (const Failure& f) {
    if (!f.message.empty()) std::fprintf(stderr, "qor: %s\n", f.message.c_str());
    if (f.status == 2) std::fputs("Try 'qor --help' for more information.\n", stderr);
    return f.status;
  } catch (qorException* e) {
    std::fprintf(stderr, "qor: %s\n", exceptionText(e).c_str());
    return 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "qor: %s\n", e.what());
    return 1;
  }
}
