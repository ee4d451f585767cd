// The function that one of a test program replaces.
#pragma once

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "base/Widths.h"

/// What a program calls that function of the C library by: with 64-bit times and sizes on 32 bits
/// the compiler gives some another name.
constexpr char const* LinkedName(char const* function) {
#if QUELLON_TIME64
  using Names = std::pair<std::string_view, char const*>;
  constexpr std::array kOthers = {
      Names("clock_gettime", "__clock_gettime64"),
      Names("clock_settime", "__clock_settime64"),
      Names("fallocate", "fallocate64"),
      Names("fstat", "__fstat64_time64"),
      Names("ioctl", "__ioctl_time64"),
      Names("localtime_r", "__localtime64_r"),
      Names("lstat", "__lstat64_time64"),
      Names("nanosleep", "__nanosleep64"),
      Names("open", "open64"),
      Names("readdir", "readdir64"),
      Names("sem_clockwait", "__sem_clockwait64"),
      Names("stat", "__stat64_time64"),
      Names("statvfs", "statvfs64"),
  };
  auto const* const other = std::find_if(
      kOthers.begin(), kOthers.end(), [=](Names const& names) { return names.first == function; });
  if (other != kOthers.end()) return other->second;
#endif
  return function;
}

/// The function of that (mangled) name in the library behind this program; keep it in a static.
/// One of the C library by the name that its manual page has.
template <typename Function>
Function* TheReal(char const* symbol) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, LinkedName(symbol)));
}
