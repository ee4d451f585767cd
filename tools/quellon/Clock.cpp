// The system clock and the battery-backed one.
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <optional>

#include "Command.h"
#include "Device.h"
#include "RTC/Rtc.h"
#include "Reading.h"
#include "Refusal.h"
#include "Report.h"
#include "base/internal/CalendarLock.h"

namespace Quellon::Tool {

namespace {

constexpr long long kSlack = 60;  // seconds that the two may differ
constexpr char const* kHowToSet = "quellon clock --set 'YEAR-MONTH-DAY HOUR:MINUTE:SECOND'";
constexpr char const* kSeconds = "/sys/class/rtc/rtc0/since_epoch";

// The clock holds local time, which the kernel takes for UTC. Read from sysfs, the device need not
// be opened, which one process alone may do at a time.
std::optional<std::time_t> BatteryClock() {
  auto const shown = ReadNumber(kSeconds);
  if (!shown) return std::nullopt;
  auto const seconds = static_cast<std::time_t>(*shown);
  Tarvik::CalendarLock const lock;
  tm calendar{};
  gmtime_r(&seconds, &calendar);
  calendar.tm_isdst = -1;
  return mktime(&calendar);
}

// When the log was written last; 0 without one.
std::time_t LastLogged() {
  struct stat status {};
  return stat(kLog, &status) == 0 ? status.st_mtime : 0;
}

std::string Verdict(std::time_t now) {
  if (now < kFirstPlausible) return "reset";
  return now < LastLogged() - kSlack ? "behind the log" : "plausible";
}

void ComplainOfClocks(Report& report, std::time_t now, std::optional<std::time_t> battery) {
  std::string const remedy = kHowToSet;
  if (std::string const verdict = Verdict(now); verdict != "plausible") {
    report.Complain("the system clock is " + verdict, remedy);
  }
  if (!battery) return;
  if (*battery < kFirstPlausible) {
    report.Complain("the battery-backed clock was reset", remedy + "; replace its battery");
  } else if (std::abs(static_cast<long long>(*battery) - now) > kSlack) {
    report.Complain("the clocks differ", "quellon clock --set, if the system clock is right");
  }
}

Status SetClocks(std::time_t seconds) {
  if (auto const refused = RefuseWhileCardIsUsed("the times of recordings would be out of order")) {
    return *refused;
  }
  if (RTC::Rtc(kClock).Set(seconds)) return Fine;
  std::cerr << "quellon: " << kClock << ": " << std::strerror(errno) << std::endl;
  return Wrong;
}

// Why a time that was asked for makes no sense, where it does not; `seconds` and `found` are what
// has become of it.
char const* WhyNot(tm const& asked, std::time_t seconds, tm const& found) {
  constexpr int kFirstYear = 2020 - 1900;
  bool const isHeld = seconds != -1;  // on 32 bits, until 2038
  if (asked.tm_year < kFirstYear || (isHeld && seconds < kFirstPlausible)) {
    return " is before 2020: what is recorded then is deleted first";
  }
  if (!isHeld) return " is too late for this device";
  return found.tm_mday == asked.tm_mday ? nullptr : " is in no calendar";
}

Status SetClocksTo(std::string const& text) {
  tm asked{};
  char const* const end = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &asked);
  if (end == nullptr || *end != '\0') return ComplainOfUsage("clock");
  asked.tm_isdst = -1;
  tm found = asked;
  std::time_t const seconds = [&found] {
    Tarvik::CalendarLock const lock;
    return mktime(&found);
  }();
  char const* const why = WhyNot(asked, seconds, found);
  return why == nullptr ? SetClocks(seconds) : Refuse(text + why, kHowToSet);
}

// A clock that was reset is none to set another by.
Status SetFromSystemClock() {
  std::time_t const now = time(nullptr);
  if (now < kFirstPlausible) return Refuse("the system clock was reset", kHowToSet);
  return SetClocks(now);
}

}  // namespace

void LookAtClock(Report& report) {
  report.Begin("clock");
  std::time_t const now = time(nullptr);
  auto const battery = BatteryClock();
  report.Add("system_seconds", "system", now, ShowTime(now));
  if (battery) {
    long long const difference = static_cast<long long>(*battery) - now;
    report.Add("battery_seconds", "battery-backed", *battery, ShowTime(*battery));
    report.Add("difference_seconds", "difference", difference, ShowDuration(difference));
  } else {
    report.Miss(std::string(kSeconds) + ": " + std::strerror(errno));
  }
  report.Add("reset", "verdict", now < kFirstPlausible, Verdict(now));
  report.Summarize(ShowTime(now) + ", " + Verdict(now));
  ComplainOfClocks(report, now, battery);
}

Status RunClock(Arguments const& given) {
  Arguments arguments = given;
  bool const sets = Take(arguments, "--set");
  if (arguments.size() > (sets ? 1U : 0U)) return ComplainOfUsage("clock");
  if (sets) {
    Status const status = arguments.empty() ? SetFromSystemClock() : SetClocksTo(arguments[0]);
    if (status != Fine) return status;
  }
  Report report;
  LookAtClock(report);
  return Print(report);
}

}  // namespace Quellon::Tool
