// Internal: what the triangulation stage needs to know about the map.
#ifndef QOR_TRAPTREE_INTERNAL_H
#define QOR_TRAPTREE_INTERNAL_H

#include "qor_base2.h"
#include "qor_export.h"

// One past the last trapezoid issued since the map was last reset; every
// trapezoid at or beyond it is zero.
QOR_HIDDEN qorInt32 qorTrapLimit();

#endif
