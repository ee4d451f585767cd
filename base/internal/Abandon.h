// Objects that the library owns and does not destroy.
#pragma once

#ifdef QUELLON_LEAK_CHECKER
#include <sanitizer/lsan_interface.h>
#endif

namespace Tarvik {

/// Leaves `object` as it is until the process ends, on purpose: others were handed a pointer to it,
/// and may go on using it when the library no longer needs it. Returns `object`. Whatever the
/// library leaks on purpose comes through here, and a leak checker is told of it: any other leak is
/// an error.
template <typename Object>
Object* Abandon(Object* object) noexcept {
#ifdef QUELLON_LEAK_CHECKER
  __lsan_ignore_object(object);
#endif
  return object;
}

}  // namespace Tarvik
