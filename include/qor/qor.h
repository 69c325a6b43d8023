// libqor: the umbrella header. Includes every public header of the library
// except the triangulator's tables and internal steps (qor_traptree.h), whose
// short global names (seg, tr, qs, initialise, ...) would otherwise enter
// every user's namespace; include that one by name when you need it.
#ifndef QOR_H
#define QOR_H

// Foundation
#include "qor_assert.h"
#include "qor_base2.h"
#include "qor_exception.h"
#include "qor_hashutil.h"
#include "qor_random.h"
#include "qor_strings.h"

// Memory
#include "qor_alloc.h"
#include "qor_heapcnew.h"
#include "qor_heapcso.h"
#include "qor_heapintf.h"
#include "qor_heaplarge.h"
#include "qor_heapmixed.h"
#include "qor_heapnew.h"
#include "qor_objectalloc.h"

// Streams
#include "qor_stream.h"

// Host queries
#include "qor_sysinfo.h"

// Geometry
#include "qor_polysplit.h"
#include "qor_rings.h"
#include "qor_triangulate.h"

#endif
