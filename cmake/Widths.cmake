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

set(has_time64 0)
set(width_definitions "")
set(width_suffix "")  # of the libraries' names: no program is to start with those of other widths
if(QUELLON_TIME64 AND CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(has_time64 1)
  set(width_suffix t64)
  set(width_definitions QUELLON_TIME64=1 _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

# The flags of a whole system's build come first: they are taken back where they ask for more.
list(TRANSFORM width_definitions PREPEND -D OUTPUT_VARIABLE width_options)
list(PREPEND width_options -UQUELLON_TIME64 -U_FILE_OFFSET_BITS -U_TIME_BITS)
