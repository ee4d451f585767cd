#include "base/Date.h"

#include <pthread.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>
#include <thread>

namespace Tarvik::Util {

namespace {

constexpr std::chrono::seconds kLongestForkWait(1);

// The C library locks the time zone while it makes a calendar date. When a process forks meanwhile,
// that lock stays locked in the child, where nobody unlocks it, and the child's first line of the
// log would wait for ever. So this lock is held around each date, and fork(2) takes it first: no
// process forks while one of its threads makes a date. A signal handler may fork, too. In the
// middle of its own thread's date, fork does not take the lock, since that thread goes on in both
// processes. In the middle of its own thread's fork it cannot have the lock, and goes on without it
// after `kLongestForkWait`.
class CalendarLock {
 public:
  CalendarLock() {
    Mutex().lock();
    isMine = true;
  }
  CalendarLock(CalendarLock const&) = delete;
  CalendarLock& operator=(CalendarLock const&) = delete;
  ~CalendarLock() {
    isMine = false;
    Mutex().unlock();
  }

 private:
  static std::mutex& Mutex() {
    static std::mutex mutex;
    return mutex;
  }

  static bool LockInTime() {
    auto const end = std::chrono::steady_clock::now() + kLongestForkWait;
    while (!Mutex().try_lock()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::yield();  // so that whoever has the lock can go on
    }
    return true;
  }
  static void LockBeforeFork() { isHeldForFork = !isMine && LockInTime(); }
  static void UnlockAfterFork() {
    if (isHeldForFork) Mutex().unlock();
  }

  static inline thread_local bool isMine;
  static inline thread_local bool isHeldForFork;

  // Done when the library is loaded, since a fork may come at the time of the first date.
  static inline int const registered =
      pthread_atfork(&LockBeforeFork, &UnlockAfterFork, &UnlockAfterFork);
};

std::optional<tm> LocalTime(time_t seconds) {
  CalendarLock const lock;
  tm calendar{};
  if (localtime_r(&seconds, &calendar) == nullptr) return {};
  return calendar;
}

}  // namespace

std::string NewDate(std::string format) {
  return Date(time(nullptr), std::move(format));
}

std::string Date(long const& t, std::string format) {
  auto const calendar = LocalTime(t);
  if (!calendar) return std::to_string(t);
  format.resize(std::strlen(format.c_str()));  // strftime sees nothing behind a NUL
  format += ' ';  // so that no date is empty: strftime returns 0 for that as for a lack of room
  std::string text(64, '\0');
  std::size_t length;
  while ((length = strftime(text.data(), text.size(), format.c_str(), &*calendar)) == 0) {
    text.resize(2 * text.size());
  }
  text.resize(length - 1);
  return text;
}

}  // namespace Tarvik::Util
