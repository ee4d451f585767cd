#include "tests/machine/Threads.h"

#include <atomic>

#include "tests/machine/Calls.h"

using Machine::Fail;
using Machine::ThreadHooks;

namespace {

std::atomic<ThreadHooks const*> current = nullptr;

/// The hook in force, if there is one.
template <typename Hook>
Hook const* InForce(Hook ThreadHooks::*hook) {
  ThreadHooks const* const hooks = current.load();
  return hooks != nullptr && hooks->*hook ? &(hooks->*hook) : nullptr;
}

/// What a lock's hook says, else what the system does.
int Locked(decltype(ThreadHooks::lock) ThreadHooks::*hook, int (*next)(pthread_mutex_t*),
           pthread_mutex_t* mutex) {
  if (auto const* const answers = InForce(hook)) {
    if (auto const answer = (*answers)(mutex)) return *answer;
  }
  return next(mutex);
}

/// The same for a semaphore.
int Waited(int (*next)(sem_t*), sem_t* semaphore) {
  auto const* const answers = InForce(&ThreadHooks::waitSemaphore);
  int const error = answers != nullptr ? (*answers)() : 0;
  return error != 0 ? Fail(error) : next(semaphore);
}

}  // namespace

ThreadHooks::ThreadHooks() {
  current = this;
}

ThreadHooks::~ThreadHooks() {
  current = nullptr;
}

extern "C" {

int pthread_create(pthread_t* thread, pthread_attr_t const* attributes, void* (*start)(void*),
                   void* argument) noexcept {
  static auto* const next =
      TheReal<int(pthread_t*, pthread_attr_t const*, void* (*)(void*), void*)>("pthread_create");
  auto const* const hook = InForce(&ThreadHooks::create);
  int const error = hook != nullptr ? (*hook)() : 0;
  return error != 0 ? error : next(thread, attributes, start, argument);
}

int pthread_join(pthread_t thread, void** result) {
  static auto* const next = TheReal<int(pthread_t, void**)>("pthread_join");
  if (auto const* const hook = InForce(&ThreadHooks::join)) (*hook)();
  return next(thread, result);
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static auto* const next = TheReal<int(pthread_mutex_t*)>("pthread_mutex_lock");
  return Locked(&ThreadHooks::lock, next, mutex);
}

int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
  static auto* const next = TheReal<int(pthread_mutex_t*)>("pthread_mutex_trylock");
  return Locked(&ThreadHooks::tryLock, next, mutex);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  static auto* const next = TheReal<int(pthread_mutex_t*)>("pthread_mutex_unlock");
  if (auto const* const hook = InForce(&ThreadHooks::unlock)) (*hook)(mutex);
  return next(mutex);
}

int sem_post(sem_t* semaphore) noexcept {
  static auto* const next = TheReal<int(sem_t*)>("sem_post");
  if (auto const& hook = Machine::hooks().raiseSemaphore) hook(semaphore);
  return next(semaphore);
}

int sem_wait(sem_t* semaphore) {
  static auto* const next = TheReal<int(sem_t*)>("sem_wait");
  return Waited(next, semaphore);
}

int sem_trywait(sem_t* semaphore) noexcept {
  static auto* const next = TheReal<int(sem_t*)>("sem_trywait");
  return Waited(next, semaphore);
}

int sem_clockwait(sem_t* semaphore, clockid_t clock, timespec const* deadline) {
  static auto* const next = TheReal<int(sem_t*, clockid_t, timespec const*)>("sem_clockwait");
  auto const* const hook = InForce(&ThreadHooks::waitSemaphoreUntil);
  if (hook == nullptr) return next(semaphore, clock, deadline);
  int const error = (*hook)(semaphore, clock, *deadline);
  return error != 0 ? Fail(error) : 0;
}

}  // extern "C"
