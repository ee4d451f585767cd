// A watchdog that is kicked while its owner waits for something long.
#pragma once

#include <chrono>

#include "Watchdog/WatchdogGuard.h"
#include "base/Export.h"
#include "base/ISemaphore.h"
#include "base/IThread.h"

namespace Quellon {

/// Kicks a watchdog on a thread of its own, from construction on until the object ends, each
/// `WatchdogGuard::GetKickPeriod`: while a card is checked, which takes minutes when it is large.
/// But not for ever, a year at most: what takes longer than it may hangs, and is the watchdog's to
/// end. A service
/// manager is told each time that the service lives: see `SysUtil::NotifyServiceManager`.
///
/// The guard must outlive the object. Its destructor does not wait for a pause to end. Logs
/// nothing; the guard may be one that is not open.
class QUELLON_EXPORT BackgroundKicks : public Tarvik::Interfaces::IThread {
 public:
  /// Throws std::system_error when the system has no thread to give.
  BackgroundKicks(WatchdogGuard& kicked, std::chrono::seconds longest);
  BackgroundKicks(BackgroundKicks const&) = delete;
  BackgroundKicks& operator=(BackgroundKicks const&) = delete;
  ~BackgroundKicks() override;

 private:
  void Run() override;
  void Stopping() override;

  WatchdogGuard& watchdog;
  std::chrono::steady_clock::time_point end;
  Tarvik::Interfaces::ISemaphore over;
};

}  // namespace Quellon
