// libqor: the umbrella header. Includes every public header of the library.
#ifndef QOR_H
#define QOR_H

#include "qor_assert.h"
#include "qor_base2.h"
#include "qor_exception.h"
#include "qor_hashutil.h"
#include "qor_random.h"
#include "qor_strings.h"

#endif
