// Pauses, clocks and the calendar.
#include <unistd.h>

#include "tests/machine/Calls.h"

using namespace Machine;
using std::chrono::nanoseconds;

namespace {

timespec ToTimespec(nanoseconds duration) {
  auto const seconds = std::chrono::floor<std::chrono::seconds>(duration);
  return {static_cast<time_t>(seconds.count()), static_cast<long>((duration - seconds).count())};
}

/// What is left of a pause when a signal arrives; nothing if none does.
std::optional<nanoseconds> Interrupted(nanoseconds pause) {
  if (FailureOf("nanosleep", "")) return pause / 2;
  return hooks().interrupt ? hooks().interrupt(pause) : std::nullopt;
}

/// What there is instead of a pause; false if there is nothing.
bool IsLeftOut(nanoseconds pause) {
  Record("sleep", pause.count(), "ns");
  if (hooks().sleep) hooks().sleep(pause);
  return hooks().sleep || !profile().sleeps;
}

}  // namespace

extern "C" {

int nanosleep(timespec const* duration, timespec* remaining) {
  auto const pause = std::chrono::seconds(duration->tv_sec) + nanoseconds(duration->tv_nsec);
  auto const left = Interrupted(pause);
  static auto* const next = TheReal<decltype(nanosleep)>("nanosleep");
  if (!IsLeftOut(pause - left.value_or(nanoseconds(0)))) return next(duration, remaining);
  if (!left) return 0;
  *remaining = ToTimespec(*left);
  return Fail(EINTR);
}

int usleep(useconds_t microseconds) {
  static auto* const next = TheReal<decltype(usleep)>("usleep");
  return IsLeftOut(std::chrono::microseconds(microseconds)) ? 0 : next(microseconds);
}

time_t time(time_t* result) noexcept {
  timespec clock{};
  static auto* const next = TheReal<int(clockid_t, timespec*)>("clock_gettime");
  if (!hooks().now) next(CLOCK_REALTIME, &clock);
  time_t const now = hooks().now ? static_cast<time_t>(*hooks().now) : clock.tv_sec;
  if (result != nullptr) *result = now;
  return now;
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static auto* const next = TheReal<int(clockid_t, timespec*)>("clock_gettime");
  bool const isTold = hooks().steady || hooks().monotonic;
  if (clock != CLOCK_MONOTONIC || !isTold) return next(clock, time);
  *time = hooks().steady ? ToTimespec(hooks().steady()) : *hooks().monotonic;
  return 0;
}

#if QUELLON_TIME64
// What the standard library calls, which was built with the plain widths.
struct PlainTime {
  std::int32_t seconds;
  std::int32_t nanoseconds;
};

int PlainClockTime(clockid_t clock, PlainTime* time) __asm__("clock_gettime");

int PlainClockTime(clockid_t clock, PlainTime* time) {
  timespec wide{};
  int const result = clock_gettime(clock, &wide);
  *time = {static_cast<std::int32_t>(wide.tv_sec), static_cast<std::int32_t>(wide.tv_nsec)};
  return result;
}
#endif

int clock_settime(clockid_t clock, timespec const* time) noexcept {
  Record("clock", time->tv_sec);
  static auto* const next = TheReal<int(clockid_t, timespec const*)>("clock_settime");
  return Outcome(
      "clock_settime", hooks().setClock,
      [=] { return profile().isReached ? next(clock, time) : Refuse(); },
      std::int64_t{time->tv_sec});
}

tm* localtime_r(time_t const* seconds, tm* calendar) noexcept {
  static auto* const next = TheReal<tm*(time_t const*, tm*)>("localtime_r");
  if (hooks().localTime) hooks().localTime();
  return next(seconds, calendar);
}

}  // extern "C"
