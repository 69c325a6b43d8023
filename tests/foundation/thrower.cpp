// A separate shared object that raises through libqor.
#include <qor/qor_assert.h>

extern "C" __attribute__((visibility("default"))) void qorTestThrowFromOtherObject() {
  qorThrow("raised elsewhere", "thrower", 42);
}
