# How wide times and file sizes are where `long` has 32 bits. Both are part of the interface: they
# are written into a header that is installed, by which an application with other widths does not
# compile.
include(CheckCXXSourceCompiles)

# What this C library has anyway, or the flags of a whole system's build ask for.
check_cxx_source_compiles("
#include <sys/types.h>
static_assert(sizeof(time_t) == 8 && sizeof(off_t) == 8 && sizeof(long) == 4);
int main() {}" QUELLON_TIME64_IS_USUAL)
option(QUELLON_TIME64 "64-bit times and file sizes where long has 32 bits"
  ${QUELLON_TIME64_IS_USUAL})

# The flags of a whole system's build come first: they are taken back where they ask for more.
set(has_time64 0)
set(width_definitions "")
set(width_options -U_FILE_OFFSET_BITS -U_TIME_BITS)
if(QUELLON_TIME64 AND CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(has_time64 1)
  set(width_definitions QUELLON_TIME64=1 _FILE_OFFSET_BITS=64 _TIME_BITS=64)
  list(APPEND width_options -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64)
endif()
list(APPEND width_options -DQUELLON_TIME64=${has_time64})
