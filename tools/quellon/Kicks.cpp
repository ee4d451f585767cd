#include "Kicks.h"

#include <iostream>

#include "Device.h"
#include "Reading.h"
#include "Report.h"
#include "Users.h"

namespace Quellon::Tool {

// Not every kernel tells the state and the timeout.
KicksMeanwhile::KicksMeanwhile() {
  constexpr int kUsualTimeout = 60;
  std::string const properties = kWatchdogProperties;
  bool const mayBeArmed = ReadLine(properties + "state").value_or("active") == "active";
  if (!mayBeArmed || !WatchdogHolders().found.empty()) return;
  auto const told = static_cast<int>(ReadNumber(properties + "timeout").value_or(0));
  int const timeout = told > 0 ? told : kUsualTimeout;
  if (guard.Open(timeout) == WatchdogGuard::Result::Done) GoOn();
}

KicksMeanwhile::~KicksMeanwhile() {
  kicks.reset();
  if (!guard.IsOpen()) return;
  guard.Kick();
  std::cout << Line("watchdog", "armed: start the service within " +
                                    ShowDuration(guard.GetTimeout()) + ", or the board restarts")
            << std::flush;
}

void KicksMeanwhile::GoOn() {
  if (!guard.IsOpen()) return;
  guard.Kick();
  kicks.emplace(guard, std::chrono::hours(2));
}

}  // namespace Quellon::Tool
