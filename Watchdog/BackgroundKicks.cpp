#include "Watchdog/BackgroundKicks.h"

#include "SysUtil/ServiceManager.h"

namespace Quellon {

BackgroundKicks::BackgroundKicks(WatchdogGuard& kicked, std::chrono::seconds longest)
    : watchdog(kicked), end(std::chrono::steady_clock::now() + longest) {
  Start();
}

BackgroundKicks::~BackgroundKicks() {
  Cancel();
  Join();
}

void BackgroundKicks::Run() {
  if (over.WaitFor(watchdog.GetKickPeriod())) return;
  watchdog.Kick();
  SysUtil::NotifyServiceManager("WATCHDOG=1");
  if (std::chrono::steady_clock::now() > end) Cancel();
}

void BackgroundKicks::Stopping() {
  over.Notify();
}

}  // namespace Quellon
