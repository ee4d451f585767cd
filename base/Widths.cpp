// Compiled into each library, whose interface and messages need the C library's plain types, 32
// bits wide on the board. A build with wider ones stops here. cmake/Options.cmake undefines the
// macros by which a project around this one may have asked for them.
#include <sys/types.h>

#include <ctime>

static_assert(sizeof(off_t) == sizeof(long) && sizeof(std::time_t) == sizeof(long),
              "sizes and times must be as wide as long: _FILE_OFFSET_BITS and _TIME_BITS are set, "
              "or this C library always has wider ones");
