// The hardware watchdog, without opening it: that would arm it.
#include <linux/watchdog.h>

#include <array>
#include <optional>
#include <string>

#include "Command.h"
#include "Device.h"
#include "Reading.h"
#include "Report.h"
#include "Users.h"

namespace Quellon::Tool {

namespace {

std::string PathOf(char const* property) {
  return std::string(kWatchdogProperties) + property;
}

std::optional<long long> NumberOf(char const* property) {
  return ReadNumber(PathOf(property));
}

// Why the board started, as drivers tell it. Most know the first alone.
constexpr struct {
  int flag;
  char const* text;
} kReasons[] = {{WDIOF_CARDRESET, "the watchdog"},
                {WDIOF_OVERHEAT, "too hot"},
                {WDIOF_FANFAULT, "a fan"},
                {WDIOF_EXTERN1, "an outside signal"},
                {WDIOF_EXTERN2, "a second outside signal"},
                {WDIOF_POWERUNDER, "too little power"},
                {WDIOF_POWEROVER, "too much power"}};

std::string ReasonsOf(long long flags) {
  std::string text;
  for (auto const& reason : kReasons) {
    if ((flags & reason.flag) != 0) text += (text.empty() ? "" : ", ") + std::string(reason.text);
  }
  return text.empty() ? "not the watchdog, as far as its driver tells" : text;
}

void AddTimes(Report& report) {
  if (auto const timeout = NumberOf("timeout")) {
    report.Add("timeout_seconds", "timeout", *timeout, ShowDuration(*timeout));
  }
  if (auto const left = NumberOf("timeleft")) {
    report.Add("left_seconds", "left", *left, ShowDuration(*left));
  }
}

void AddWhatClosingDoes(Report& report) {
  auto const noWayOut = NumberOf("nowayout");
  auto const options = NumberOf("options");  // unknown to older kernels
  if (noWayOut) {
    report.Add("nowayout", "may be stopped", *noWayOut, *noWayOut == 0 ? "yes" : "no");
  }
  bool const isStopped = noWayOut == 0 && options && (*options & WDIOF_MAGICCLOSE) == 0;
  if (isStopped) {
    report.Complain("the end of the service stops the watchdog", "load its driver with nowayout=1");
  }
}

void AddLastStart(Report& report) {
  auto const flags = NumberOf("bootstatus");
  if (!flags) return;
  report.Add("boot_status", "last start by", *flags, ReasonsOf(*flags));
  if ((*flags & WDIOF_CARDRESET) != 0) {
    report.Complain("the watchdog has restarted the board",
                    "quellon log: what the service did before");
  }
}

}  // namespace

void LookAtWatchdog(Report& report) {
  report.Begin("watchdog");
  if (!Exists(kWatchdogProperties)) {
    report.Summarize("none");
    return report.Complain("there is no watchdog", "load its driver");
  }
  std::string const state = ReadLine(PathOf("state")).value_or("unknown");
  Users const holders = WatchdogHolders();
  report.Add("driver", "driver", ReadLine(PathOf("identity")).value_or("unknown"));
  report.Add("active", "armed", state == "active", state == "active" ? "yes" : "no");
  report.Tell("held by", Show(holders));
  AddTimes(report);
  AddWhatClosingDoes(report);
  AddLastStart(report);
  report.Summarize((state == "active" ? "armed, held by " : "not armed, held by ") + Show(holders));
  if (state != "active") {
    report.Complain("nothing guards the board: the watchdog is not armed", "start the service");
  }
  if (!holders.isComplete) report.Miss("/proc/*/fd: who holds the watchdog; needs root");
}

Status RunWatchdog(Arguments const& arguments) {
  if (!arguments.empty()) return ComplainOfUsage("watchdog");
  Report report;
  LookAtWatchdog(report);
  return Print(report);
}

}  // namespace Quellon::Tool
