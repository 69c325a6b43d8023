// qor_manpage FILE: writes the manual page qor.1 at build time, from the
// same command table as the tool's --help.
#include <cstdio>

#include "qor_tool.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string page = qortool::manPage(QOR_TOOL_VERSION);
  FILE* f = std::fopen(argv[1], "w");
  if (f == nullptr) return 1;
  const bool written = std::fwrite(page.data(), 1, page.size(), f) == page.size();
  return std::fclose(f) == 0 && written ? 0 : 1;
}
