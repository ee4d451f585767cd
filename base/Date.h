// Dates as text, in local time.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <utility>

#include "base/Export.h"

namespace Tarvik::Util {

/// The system clock's current time, formatted with the conversions of strftime(3). A format
/// ends at its first NUL. Any thread.
QUELLON_EXPORT std::string NewDate(std::string format);

/// The time `t`, in seconds since the epoch, formatted the same way; the plain number where `t`
/// has no calendar date. Any thread.
QUELLON_EXPORT std::string Date(long const& t, std::string format);
#if QUELLON_TIME64
/// The same beyond the times of a `long`.
QUELLON_EXPORT std::string Date(std::int64_t const& t, std::string format);
/// The same of any other number, which could be either.
template <std::convertible_to<std::int64_t> Number>
std::string Date(Number const& t, std::string format) {
  return Date(static_cast<std::int64_t>(t), std::move(format));
}
#endif

}  // namespace Tarvik::Util
