// Compiled into each library, whose interface and messages are those of the C library's plain
// types, 32 bits wide on the board. A build that was told otherwise, or for a C library that has no
// others, stops here; cmake/Options.cmake takes back what a build from outside asks for.
#include <sys/types.h>

#include <ctime>

static_assert(sizeof(off_t) == sizeof(long) && sizeof(std::time_t) == sizeof(long),
              "sizes and times must be as wide as long: _FILE_OFFSET_BITS and _TIME_BITS are set, "
              "or this C library always has wider ones");
