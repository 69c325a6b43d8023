// A user's program: includes the umbrella header and links one library.
#include <qor/qor.h>

#include <cstdio>
#include <cstring>

int main() {
  qorHashInitialize();
  if (qorXorHashString("abc") != 3359717681u) return 1;
  try {
    qorThrow("consumer", "consumer", 1);
  } catch (qorException* e) {
    const bool ok = strcmp(e->what(), "consumer [file consumer line 1]\n") == 0;
    delete e;
    if (!ok) return 2;
  }
  std::puts("consumer ok");
  return 0;
}
