// The polygon validity check, qorCheckPolygon(), lives with the ring engine in qor_rings.h; this header stays for
// programs that include it by this name.
#ifndef QOR_POLYCHECK_H
#define QOR_POLYCHECK_H

#include "qor_rings.h"

#endif
