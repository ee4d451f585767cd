#include "Kicks.h"

#include <algorithm>
#include <iostream>

#include "Device.h"
#include "Reading.h"
#include "Report.h"
#include "Users.h"

namespace Quellon::Tool {

KicksMeanwhile::KicksMeanwhile() {
  std::string const properties = kWatchdogProperties;
  auto const timeout = static_cast<int>(ReadNumber(properties + "timeout").value_or(0));
  bool const isArmed = ReadLine(properties + "state") == "active";
  if (!isArmed || timeout < 1 || !UsersOf({kWatchdog}).found.empty()) return;
  if (guard.Open(timeout) != WatchdogGuard::Result::Done) return;
  period = std::max(period, std::chrono::seconds(timeout / 4));
  Start();
}

KicksMeanwhile::~KicksMeanwhile() {
  Cancel();
  Join();
  if (!guard.IsOpen()) return;
  guard.Kick();
  std::cout << Line("watchdog", "armed: start the service within " +
                                    ShowDuration(guard.GetTimeout()) + ", or the board restarts")
            << std::flush;
}

void KicksMeanwhile::Run() {
  if (!over.WaitFor(period)) guard.Kick();
}

}  // namespace Quellon::Tool
