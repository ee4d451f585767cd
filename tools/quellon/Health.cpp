// All subjects in one, for people and for programs.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "Command.h"
#include "Device.h"
#include "Reading.h"
#include "Report.h"
#include "base/UniqueFd.h"
#include "base/internal/OpenFile.h"
#include "base/internal/WriteAll.h"

namespace Quellon::Tool {

namespace {

void LookAtBoard(Report& report) {
  report.Begin("board");
  auto const uptime = ReadNumber("/proc/uptime");
  auto const millidegrees = ReadNumber("/sys/class/thermal/thermal_zone0/temp");
  std::string summary = "running";
  if (uptime) {
    report.Add("uptime_seconds", "uptime", *uptime, ShowDuration(*uptime));
    summary = "up for " + ShowDuration(*uptime);
  }
  if (millidegrees) {
    auto const degrees = *millidegrees / 1000;
    report.Add("temperature_celsius", "temperature", degrees, std::to_string(degrees) + " C");
    summary += ", " + std::to_string(degrees) + " C";
  }
  report.Summarize(summary);
}

// Somebody asks each minute.
constexpr std::chrono::seconds kLongestWalk(10);

Report LookAtAll() {
  Report report;
  LookAtBoard(report);
  LookAtCard(report, false);
  LookAtCatalogue(report, kRecordings, kLongestWalk);
  LookAtClock(report);
  LookAtWatchdog(report);
  LookAtCounter(report);
  return report;
}

// Who reads the file sees the old text or the new one, also after a power cut.
bool Replace(std::string const& path, std::string const& text) {
  struct stat old {};
  errno = EEXIST;  // "/dev/null" is to stay what it is
  if (lstat(path.c_str(), &old) == 0 && !S_ISREG(old.st_mode)) return false;
  std::string const next = path + ".new";
  constexpr mode_t kReadableByAll = 0644;
  unlink(next.c_str());  // of a run that was cut off; or somebody else's, who would be written to
  Tarvik::UniqueFd const file(
      Tarvik::OpenFile(next.c_str(), O_WRONLY | O_CREAT | O_EXCL, kReadableByAll));
  if (!file.IsOpen()) return false;
  bool const isWritten =
      Tarvik::WriteAll(file.Get(), text) == text.size() && fsync(file.Get()) == 0;
  if (isWritten && rename(next.c_str(), path.c_str()) == 0) return true;
  int const error = errno;
  unlink(next.c_str());
  errno = error;
  return false;
}

// What is wrong, the file tells: a failure of the program is that there is none.
Status Export(Report const& report, std::string const& path) {
  if (Replace(path, report.ToPrometheus())) return Fine;
  std::cerr << "quellon: " << path << ": " << std::strerror(errno) << std::endl;
  return Wrong;
}

}  // namespace

Status RunHealth(Arguments const& given) {
  Arguments arguments = given;
  bool const asJson = Take(arguments, "--json");
  bool const asMetrics = Take(arguments, "--prometheus");
  bool const hasFile = asMetrics && arguments.size() == 1 && !arguments[0].starts_with('-');
  if ((asJson && asMetrics) || (!arguments.empty() && !hasFile)) return ComplainOfUsage("health");
  Report const report = LookAtAll();
  if (hasFile) return Export(report, arguments[0]);
  std::cout << (asJson      ? report.ToJson()
                : asMetrics ? report.ToPrometheus()
                            : report.ToSummary())
            << std::flush;
  return report.GetStatus();
}

}  // namespace Quellon::Tool
