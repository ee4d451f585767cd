#include "base/Date.h"

#include <pthread.h>

#include <chrono>
#include <ctime>
#include <mutex>
#include <optional>

namespace Tarvik::Util {

namespace {

// The C library's own lock on the time zone, when a process forks, stays locked in the child if
// another thread had it. So no process forks while one of ours has it. Not waited for long: a
// handler of a signal may fork, too.
class CalendarLock {
 public:
  static std::timed_mutex& Get() {
    static std::timed_mutex mutex;
    static int const registered = pthread_atfork(&Hold, &Release, &Release);
    static_cast<void>(registered);
    return mutex;
  }

 private:
  static void Hold() { held = Get().try_lock_for(std::chrono::seconds(1)); }
  static void Release() {
    if (held) Get().unlock();
  }

  static inline thread_local bool held = false;
};

std::optional<tm> LocalTime(time_t seconds) {
  std::lock_guard const lock(CalendarLock::Get());
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
