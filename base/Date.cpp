#include "base/Date.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <optional>
#include <utility>

#include "base/internal/CalendarLock.h"

namespace Tarvik::Util {

namespace {

// What a line of the log tells of an error must not be that the time zone has no file.
std::optional<tm> LocalTime(time_t seconds) {
  int const error = errno;
  CalendarLock const lock;
  tm calendar{};
  bool const exists = localtime_r(&seconds, &calendar) != nullptr;
  errno = error;
  return exists ? std::optional(calendar) : std::nullopt;
}

}  // namespace

std::string NewDate(std::string format) {
  return Date(time(nullptr), std::move(format));
}

#if QUELLON_TIME64
std::string Date(long const& t, std::string format) {
  return Date(std::int64_t{t}, std::move(format));
}
#endif

std::string Date(time_t const& t, std::string format) {
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
