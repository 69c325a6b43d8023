// A user's program: includes the umbrella header, links one library and
// touches every subsystem once, so a name left unexported fails here.
#include <qor/qor.h>

#include <cstdio>
#include <cstring>
#include <string>

// Names of the triangulator's tables and steps, which the umbrella header
// must not bring in: each of these would fail to compile if it did.
static int seg = 1;
static double tr[2] = {0.5, 0.25};
static int initialise(int n) { return n + seg; }

namespace {

bool foundationWorks() {
  qorHashInitialize();
  if (qorXorHashString("abc") != 3359717681u) return false;
  try {
    qorThrow("consumer", "consumer", 1);
  } catch (qorException* e) {
    const bool ok = strcmp(e->what(), "consumer [file consumer line 1]\n") == 0;
    delete e;
    return ok;
  }
  return false;
}

bool memoryWorks() {
  qorPageAlloc::Initialize();
  void* page = qorPageAlloc::Alloc();
  memset(page, 1, qorPageAlloc::GetPageSize());
  qorPageAlloc::Dealloc(page);
  qorHeapCSO heap;
  void* block = heap.Alloc(24);
  heap.Dealloc2(block, 24);
  qorPageAlloc::Uninitialize();
  return true;
}

bool streamsWork(const char* path) {
  {
    qorStreamWriter writer(path, 'w');
    writer.gzip(true);
    char text[] = "line one\nline two\n";
    writer.write(text, static_cast<int>(strlen(text)));
  }
  qorStreamReader reader(path);
  reader.gunzip(true);
  std::string line;
  return reader.readLine(line, false) && line == "line one";
}

bool geometryWorks() {
  PolySplitter splitter;
  const QPolygon square(QVector<QPoint>{{0, 0}, {10, 0}, {10, 10}, {0, 10}});
  if (splitter.Split(square, QLine(QPoint(5, -5), QPoint(5, 15))).size() != 2) return false;
  qorInt32 sizes[1] = {4};
  double points[5][2] = {{0, 0}, {0, 0}, {10, 0}, {10, 10}, {0, 10}};
  qorInt32 triangles[2][3];
  return triangulate(1, sizes, points, triangles) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string path = std::string(argc > 1 ? argv[1] : "/tmp") + "/qor-consumer.gz";
  if (!foundationWorks()) return 1;
  if (!memoryWorks()) return 2;
  if (!streamsWork(path.c_str())) return 3;
  if (qorGetNumProcessors() < 1) return 4;
  if (!geometryWorks()) return 5;
  if (initialise(1) != 2 || tr[0] != 0.5) return 6;
  std::puts("consumer ok");
  return 0;
}
