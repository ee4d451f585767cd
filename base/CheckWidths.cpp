// Compiled into each library: a build with other widths than base/Widths.h tells stops here.
// cmake/Widths.cmake sees to the macros by which a project around this one may have asked for them.
#include <sys/types.h>

#include <ctime>

#include "base/Export.h"

static_assert(sizeof(off_t) == sizeof(std::time_t),
              "sizes must be as wide as times: see QUELLON_TIME64");
