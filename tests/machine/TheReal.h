// The function that one of a test program replaces.
#pragma once

#include <dlfcn.h>

/// The function of that (mangled) name in the library behind this program; keep it in a static.
template <typename Function>
Function* TheReal(char const* symbol) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
}
