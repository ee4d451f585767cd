// A mutex whose use clang checks.
#pragma once

#include <mutex>

#include "base/Export.h"
#include "base/ThreadSafety.h"

namespace Tarvik {

/// A std::mutex, of the same size, that fields can be marked as guarded by. Its functions throw
/// std::system_error when the lock fails, as those of std::mutex do.
class QUELLON_LOCKABLE Mutex : public std::mutex {
 public:
  /// Waits for the lock.
  void lock() QUELLON_ACQUIRE() { std::mutex::lock(); }
  /// Gives the lock back.
  void unlock() QUELLON_RELEASE() { std::mutex::unlock(); }
  /// Takes the lock if it is free; false if it is not.
  bool try_lock() QUELLON_TRY_ACQUIRE(true) { return std::mutex::try_lock(); }
  /// Says that this thread holds the lock, where the compiler cannot see it. Does nothing.
  void AssertHeld() const QUELLON_ASSERT_CAPABILITY(this) {}
};
static_assert(sizeof(Mutex) == sizeof(std::mutex), "objects that hold one keep their shape");

}  // namespace Tarvik
