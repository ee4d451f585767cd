// Owner of a locked mutex.
#pragma once

#include <condition_variable>
#include <mutex>

#include "base/Mutex.h"

namespace Tarvik {

/// Holds a mutex as long as it lives.
class QUELLON_SCOPED_LOCKABLE MutexLock {
 public:
  /// Waits for the mutex; throws std::system_error when the lock fails.
  explicit MutexLock(Mutex& mutex) QUELLON_ACQUIRE(mutex) : lock(mutex) {}
  MutexLock(MutexLock const&) = delete;
  MutexLock& operator=(MutexLock const&) = delete;
  ~MutexLock() QUELLON_RELEASE() = default;

  /// Waits until `condition` is notified, or wakes without that; the mutex is free meanwhile.
  void Wait(std::condition_variable& condition) { condition.wait(lock); }

 private:
  std::unique_lock<std::mutex> lock;
};

}  // namespace Tarvik
