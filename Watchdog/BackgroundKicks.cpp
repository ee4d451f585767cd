#include "Watchdog/BackgroundKicks.h"

#include <algorithm>

#include "SysUtil/ServiceManager.h"

namespace Quellon {

namespace {

constexpr std::chrono::hours kLongestKicks(8760);  // a year: clocks do not count to any time

}  // namespace

BackgroundKicks::BackgroundKicks(WatchdogGuard& kicked, std::chrono::seconds longest)
    : watchdog(kicked),
      end(std::chrono::steady_clock::now() +
          std::min<std::chrono::seconds>(longest, kLongestKicks)) {
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
