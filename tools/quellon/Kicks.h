// A watchdog that its service has left armed.
#pragma once

#include <optional>

#include "Watchdog/BackgroundKicks.h"
#include "Watchdog/WatchdogGuard.h"

namespace Quellon::Tool {

/// While one exists, a watchdog that nobody holds, and that is armed or may be, is kicked: a
/// service that was stopped for long work on the card leaves it armed, and the board would restart
/// in the middle. At the end it stays armed. One that is not, or is held, is left alone.
class KicksMeanwhile {
 public:
  KicksMeanwhile();
  KicksMeanwhile(KicksMeanwhile const&) = delete;
  KicksMeanwhile& operator=(KicksMeanwhile const&) = delete;
  /// Tells on standard output how long there is to start the service again.
  ~KicksMeanwhile();

  /// Kicks for two hours from now on. What has taken so long without a sign of life hangs, and is
  /// the watchdog's to end.
  void GoOn();

 private:
  WatchdogGuard guard;
  std::optional<BackgroundKicks> kicks;
};

}  // namespace Quellon::Tool
