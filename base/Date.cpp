#include "base/Date.h"

#include <pthread.h>

#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>
#include <thread>

namespace Tarvik::Util {

namespace {

// The C library's own lock on the time zone stays locked in the child of a process that forks while
// another thread has it. So no process forks while one of ours has it. Nobody waits long: a handler
// of a signal may fork, too, and interrupt the thread that has it.
class CalendarLock {
 public:
  static std::mutex& Get() {
    static std::mutex mutex;
    static int const registered = pthread_atfork(&Hold, &Release, &Release);
    static_cast<void>(registered);
    return mutex;
  }

 private:
  static void Hold() {
    constexpr int kPatience = 1000;
    held = Get().try_lock();
    for (int i = 0; i < kPatience && !held; ++i) {
      std::this_thread::yield();
      held = Get().try_lock();
    }
  }
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
