// A counting semaphore between threads of one process.
#pragma once

#include <semaphore.h>

#include <chrono>

#include "base/Export.h"

namespace Tarvik::Interfaces {

/// A count that `Notify` raises and the waits lower. Every operation may be called from any
/// thread. Kernel interface: futex(2), through the C library's sem_post(3) and sem_wait(3).
class QUELLON_EXPORT ISemaphore {
 public:
  /// Starts at zero.
  ISemaphore() noexcept;
  ISemaphore(ISemaphore const&) = delete;
  ISemaphore& operator=(ISemaphore const&) = delete;
  ~ISemaphore();

  /// Raises the count by one and wakes one waiter. Safe in a signal handler.
  void Notify() noexcept;

  /// Waits until the count is above zero, then lowers it. A signal does not end the wait.
  void Wait() noexcept;

  /// Lowers the count if it is above zero; false, at once, if it is not.
  bool TryWait() noexcept;

  /// As `Wait`, for at most `limit` of the monotonic clock, so that setting the date does not
  /// matter, and for a year at most; false when the time is over.
  bool WaitFor(std::chrono::milliseconds limit) noexcept;

 private:
  sem_t semaphore;
};

}  // namespace Tarvik::Interfaces
