// A watchdog that its service has left armed.
#pragma once

#include <chrono>

#include "Watchdog/WatchdogGuard.h"
#include "base/ISemaphore.h"
#include "base/IThread.h"

namespace Quellon::Tool {

/// While one exists, a watchdog that is armed and that nobody holds is kicked: a service that was
/// stopped for long work on the card leaves it so, and the board would restart in the middle. At
/// the end it is left as it was found. One that is not armed, or held, is left alone.
class KicksMeanwhile : public Tarvik::Interfaces::IThread {
 public:
  KicksMeanwhile();
  KicksMeanwhile(KicksMeanwhile const&) = delete;
  KicksMeanwhile& operator=(KicksMeanwhile const&) = delete;
  /// Tells on standard output how long there is to start the service again.
  ~KicksMeanwhile() override;

  void Run() override;

 private:
  void Stopping() override { over.Notify(); }

  WatchdogGuard guard;
  std::chrono::seconds period{1};
  Tarvik::Interfaces::ISemaphore over;
};

}  // namespace Quellon::Tool
