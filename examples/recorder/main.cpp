// The recorder's command line.
#include <getopt.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <iostream>

#include "RTC/Rtc.h"
#include "Recorder.h"
#include "base/Logger.h"
#include "base/TemperatureMonitor.h"

namespace {

constexpr char const* kUsage =
    "usage: recorder [--size BYTES] [--period MILLISECONDS] [--min-free BYTES]\n"
    "                [--share 0..1] [--watchdog SECONDS]\n";

Recorder* running = nullptr;

void StopRunning(int /*signal*/) {
  running->Stop();
}

// False when the command line is not understood.
bool Parse(int count, char** arguments, Settings& settings) {
  static constexpr std::array<option, 6> kOptions = {{
      {"size", required_argument, nullptr, 's'},
      {"period", required_argument, nullptr, 'p'},
      {"min-free", required_argument, nullptr, 'm'},
      {"share", required_argument, nullptr, 'f'},
      {"watchdog", required_argument, nullptr, 'w'},
      {nullptr, 0, nullptr, 0},
  }};
  int choice;
  while ((choice = getopt_long(count, arguments, "", kOptions.data(), nullptr)) != -1) {
    if (choice == '?') return false;
    auto const value = std::strtoull(optarg, nullptr, 10);
    if (choice == 's') settings.recordingBytes = static_cast<std::size_t>(value);
    if (choice == 'p') settings.period = std::chrono::milliseconds(value);
    if (choice == 'm') settings.minimumFreeBytes = value;
    if (choice == 'f') settings.share = std::strtof(optarg, nullptr);
    if (choice == 'w') settings.watchdogSeconds = static_cast<int>(value);
  }
  return optind == count && settings.recordingBytes > 0;
}

// The system clock starts at the epoch; the battery-backed one went on.
void RestoreClock() {
  Quellon::RTC::Rtc clock("/dev/rtc0");
  if (!clock.Load() || !clock.SetSystemClock()) {
    Tarvik::Ilog::LogLine(Tarvik::Ilog::Warning) << "[REC] The clock could not be restored";
  }
}

}  // namespace

int main(int count, char** arguments) {
  Settings settings;
  if (!Parse(count, arguments, settings)) {
    std::cerr << kUsage;
    return EXIT_FAILURE;
  }
  RestoreClock();
  Tarvik::Util::TemperatureMonitor::GetInstance()->Start();
  static Recorder recorder(settings);  // the signal handler knows it
  running = &recorder;
  struct sigaction stop {};
  stop.sa_handler = StopRunning;
  sigaction(SIGTERM, &stop, nullptr);
  sigaction(SIGINT, &stop, nullptr);
  recorder.Run();
  return EXIT_SUCCESS;
}
