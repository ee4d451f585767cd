// Marks what the libraries export; everything else is hidden. Also makes the compiler refuse an
// application whose options change the types that the libraries were built with.
#pragma once

#include <ctime>

#include "base/Widths.h"

#ifdef _GLIBCXX_DEBUG
#error "Quellon's containers are the plain ones: compile without _GLIBCXX_DEBUG (-U_GLIBCXX_DEBUG)"
#endif

#define QUELLON_EXPORT __attribute__((visibility("default")))

#if QUELLON_TIME64
static_assert(sizeof(std::time_t) == 8,
              "Quellon's times have 64 bits: compile with -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64");
#else
static_assert(sizeof(std::time_t) == sizeof(long),
              "Quellon's times are as wide as long: compile without _TIME_BITS=64 (-U_TIME_BITS)");
#endif
