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

// The C library's own lock on the time zone stays locked in the child of a process that forks while
// another thread has it. So no process forks while another of its threads has ours, which goes
// around it. A handler of a signal may fork, too, having interrupted the thread that has one of the
// two: that thread goes on in the child, and nobody waits for it, or not for long.
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

  static void Hold() {
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    isHeld = !isMine && Mutex().try_lock();
    while (!isMine && !isHeld && std::chrono::steady_clock::now() < end) {
      std::this_thread::yield();  // whoever has it needs the processor, however busy that is
      isHeld = Mutex().try_lock();
    }
  }
  static void Release() {
    if (isHeld) Mutex().unlock();
  }

  static inline thread_local bool isMine = false;
  static inline thread_local bool isHeld = false;

  // When the library is loaded: the first date and a fork may come at the same time.
  static inline int const registered = pthread_atfork(&Hold, &Release, &Release);
};

std::optional<tm> LocalTime(time_t seconds) {
  CalendarLock const lock;
  tm calendar{};
  if (localtime_r(&seconds, &calendar) == nullptr) return std::nullopt;
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
  format += ' ';  // so that no date is empty: strftime says so, too, when it has no room
  std::string text(64, '\0');
  std::size_t length;
  while ((length = strftime(text.data(), text.size(), format.c_str(), &*calendar)) == 0) {
    text.resize(2 * text.size());
  }
  text.resize(length - 1);
  return text;
}

}  // namespace Tarvik::Util
