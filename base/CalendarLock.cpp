#include "base/internal/CalendarLock.h"

#include <pthread.h>

#include <chrono>
#include <mutex>
#include <thread>

namespace Tarvik {

namespace {

constexpr std::chrono::seconds kLongestForkWait(1);

std::mutex calendarMutex;

thread_local bool makesDate;    // and has the lock for that
thread_local int forks;         // under way: a signal handler may fork in the middle of a fork
thread_local int forkWithLock;  // which of them has the lock, from 1; 0 for none

bool LockInTime() {
  auto const end = std::chrono::steady_clock::now() + kLongestForkWait;
  while (!calendarMutex.try_lock()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();  // so that whoever has the lock can go on
  }
  return true;
}

void LockBeforeFork() {
  ++forks;
  if (!makesDate && forkWithLock == 0 && LockInTime()) forkWithLock = forks;
}

void UnlockAfterFork() {
  if (forkWithLock == forks) {
    forkWithLock = 0;
    calendarMutex.unlock();
  }
  --forks;
}

// Done when the library is loaded, since a fork may come at the time of the first date.
[[maybe_unused]] int const registered =
    pthread_atfork(&LockBeforeFork, &UnlockAfterFork, &UnlockAfterFork);

}  // namespace

CalendarLock::CalendarLock() : isTaken(forkWithLock == 0) {
  if (!isTaken) return;
  calendarMutex.lock();
  makesDate = true;
}

CalendarLock::~CalendarLock() {
  if (!isTaken) return;
  makesDate = false;
  calendarMutex.unlock();
}

}  // namespace Tarvik
