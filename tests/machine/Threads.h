// Threads, locks and semaphores as a test wants them.
#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <ctime>
#include <functional>
#include <optional>

namespace Machine {

/// A test's own answers for threads and what they wait for, in force while the object lives; one at
/// a time. An empty hook, or none of an answer, leaves the call to the system. Threads that may ask
/// a hook end first.
struct ThreadHooks {
  ThreadHooks();
  ThreadHooks(ThreadHooks const&) = delete;
  ThreadHooks& operator=(ThreadHooks const&) = delete;
  ~ThreadHooks();

  /// The error number of a failure to make a thread, or 0 for one that goes on.
  std::function<int()> create;
  /// What happens first where a thread is joined.
  std::function<void()> join;
  /// What taking a lock returns.
  std::function<std::optional<int>(pthread_mutex_t const*)> lock;
  std::function<std::optional<int>(pthread_mutex_t const*)> tryLock;
  std::function<void(pthread_mutex_t const*)> unlock;
  /// The `errno` of a semaphore's waiting or trying; 0 for one that goes on.
  std::function<int()> waitSemaphore;
  /// The same with a limit, which is never waited for: 0 for a semaphore that was raised in time.
  std::function<int(sem_t*, clockid_t clock, timespec const& deadline)> waitSemaphoreUntil;
};

}  // namespace Machine
