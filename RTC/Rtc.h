// The battery-backed real-time clock.
#pragma once

#include <linux/rtc.h>

#include <cstdint>
#include <string>

#include "base/Export.h"

namespace Quellon::RTC {

/// One real-time clock device. The clock holds local time. The device is opened for each operation
/// and closed again. Not locked: one thread at a time. Nothing is thrown or printed on failure.
/// Kernel interface: rtc(4), `RTC_RD_TIME` and `RTC_SET_TIME`.
class QUELLON_EXPORT Rtc {
 public:
  /// Names the device node, such as "/dev/rtc0". Touches no device.
  explicit Rtc(std::string path);
  Rtc(Rtc const&) = default;
  Rtc& operator=(Rtc const&) = default;
  virtual ~Rtc();

  /// Reads the clock into `rtcTime`. False when the device could not be opened or read; a
  /// time that could not be read is all zeros.
  bool Load();

  /// Sets the clock to `seconds` since the epoch, and then the system clock to the clock's time.
  /// False when either could not be set. Setting needs CAP_SYS_TIME.
  bool Set(long& seconds);
#if QUELLON_TIME64
  /// The same beyond the times of a `long`.
  bool Set(std::int64_t& seconds);
#endif

  /// Sets the system clock from `rtcTime`, which is normalised by that. Its daylight-saving flag
  /// counts: `Load` leaves it 0, winter time; set it to -1 in a zone with summer time. False when
  /// the kernel refused the time.
  bool SetSystemClock();

  /// Prints `rtcTime` and the system's local time on standard output, dates as month/day/year.
  /// Returns the result of printf(3).
  int Print();

  // Binary interface: these fields keep their order.
  std::string devicePath;  ///< as it was given
  rtc_time rtcTime;        ///< the time last read from or written to the device
};

}  // namespace Quellon::RTC
