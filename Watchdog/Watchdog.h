// The hardware watchdog.
#pragma once

#include "base/Export.h"

namespace Quellon {

/// Arms "/dev/watchdog" and kicks it. The device is opened for each operation and closed again
/// without the magic character, so closing does not disarm the timer, provided that its driver
/// knows that character, as nearly all do. The kernel says so each time, "watchdog did not stop!",
/// and that is meant. Once armed, the owner must call `Reset` well within `timeout` or the machine
/// restarts: every half of it leaves room for a kick that comes late. Messages go to the log, a
/// line for each kick. One thread at a time. Nothing is thrown for a failing device. The device
/// never becomes standard input, output or error, even in a process that was started without one of
/// those: what others print there would count as kicks. Kernel interface: watchdog API,
/// `WDIOC_SETTIMEOUT` and `WDIOC_GETTIMEOUT`.
class QUELLON_EXPORT Watchdog {
 public:
  /// Arms the watchdog with 90 seconds; whether that worked is not told, see `Init`.
  Watchdog();
  /// Arms the watchdog with `timeoutSeconds`.
  explicit Watchdog(int timeoutSeconds);
  Watchdog(Watchdog const&) = delete;
  Watchdog& operator=(Watchdog const&) = delete;
  /// Closes the device if it was left open; the timer goes on.
  virtual ~Watchdog();

  /// Sets the timeout and logs the one that the driver applied. False when the device could not be
  /// opened, or refused; then it is left open and the next `Reset` uses it.
  bool Init();

  /// Kicks the watchdog. False when the device could not be opened, which is logged, or written;
  /// then it is left open.
  bool Reset();

  /// Opens the device, anew if it was left open. False on failure; `fd` is -1 then.
  bool Open();

  /// Closes the device. False when it was not open.
  bool Close();

  // Binary interface: these fields keep their order.
  int fd = 0;   ///< 0 when closed, -1 after a failed open
  int timeout;  ///< seconds; after `Init` what the driver applied
};

}  // namespace Quellon
