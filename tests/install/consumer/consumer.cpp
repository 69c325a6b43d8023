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

int main(int argc, char** argv) {
  qorHashInitialize();
  if (qorXorHashString("abc") != 3359717681u) return 1;
  try {
    qorThrow("consumer", "consumer", 1);
  } catch (qorException* e) {
    delete e;
  }
  qorPageAlloc::Initialize();
  qorHeapCSO heap;
  heap.Dealloc2(heap.Alloc(24), 24);
  qorPageAlloc::Uninitialize();
  const std::string path = std::string(argc > 1 ? argv[1] : "/tmp") + "/qor-consumer.gz";
  {
    qorStreamWriter writer(path.c_str(), 'w');
    writer.gzip(true);
    char text[] = "line one\nline two\n";
    writer.write(text, static_cast<int>(strlen(text)));
  }
  qorStreamReader reader(path.c_str());
  reader.gunzip(true);
  std::string line;
  if (!reader.readLine(line, false) || line != "line one") return 3;
  if (qorGetNumProcessors() < 1) return 4;
  PolySplitter splitter;
  const QPolygon square(QVector<QPoint>{{0, 0}, {10, 0}, {10, 10}, {0, 10}});
  if (splitter.Split(square, QLine(QPoint(5, -5), QPoint(5, 15))).size() != 2) return 5;
  qorInt32 sizes[1] = {4};
  double points[5][2] = {{0, 0}, {0, 0}, {10, 0}, {10, 10}, {0, 10}};
  qorInt32 triangles[2][3];
  if (triangulate(1, sizes, points, triangles) != 0) return 5;
  if (initialise(1) != 2 || tr[0] != 0.5) return 6;
  std::puts("consumer ok");
  return 0;
}
