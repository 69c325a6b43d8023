// A first look at libqor: raise and catch the library's exception, fill the
// hash table, print a few hashes and random numbers.
#include <qor/qor_exception.h>
#include <qor/qor_hashutil.h>
#include <qor/qor_random.h>
#include <qor/qor_strings.h>

#include <cstdio>
#include <string>

int main() {
  try {
    qorStrcpy(nullptr, "text");
  } catch (qorException* e) {
    std::printf("caught qorException*: %s", e->what());
    delete e;
  }

  qorHashInitialize();
  for (const char* key : {"", "a", "abc", "libqor"}) {
    std::printf("hash \"%s\": xor %u, no-case %u, mult %u, next table size for %zu keys: %u\n", key,
                qorXorHashString(key), qorXorHashStringNoCase(key), qorMultHashString(key),
                std::string(key).size() * 1000, qorNextHashSize(static_cast<unsigned>(std::string(key).size() * 1000)));
  }

  qorrandom random(12321, 32123);
  std::printf("random:");
  for (int i = 0; i < 5; ++i) std::printf(" %d", random.UniformRandom());
  std::printf("\n");

  std::string grouped;
  qorInsertCommas(grouped, std::to_string(random.UniformRandom()), 3, ',');
  std::printf("grouped: %s\n", grouped.c_str());
  return 0;
}
