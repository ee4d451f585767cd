// Setting the system clock.
#pragma once

#include <ctime>

namespace Tarvik {

/// Sets the system clock to whole seconds since the epoch; true when the kernel took it, for which
/// the process needs CAP_SYS_TIME. Kernel interface: clock_settime(2).
inline bool SetSystemClock(time_t seconds) noexcept {
  timespec const now{seconds, 0};
  return clock_settime(CLOCK_REALTIME, &now) >= 0;
}

}  // namespace Tarvik
