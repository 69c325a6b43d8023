#include <qor/qor_assert.h>
#include <qor/qor_polycheck.h>

// Placeholder; raises until it is built.
std::string qorCheckPolygon(qorInt32, const qorInt32*, const double (*)[2]) {
  qorThrow("qorCheckPolygon: not built yet", "qor_polycheck", __LINE__);
}
