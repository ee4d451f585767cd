// The recorder's command line.
#include <getopt.h>

#include <array>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string_view>

#include "RTC/Rtc.h"
#include "Recorder.h"
#include "base/Logger.h"
#include "base/TemperatureMonitor.h"

namespace {

constexpr char const* kUsage =
    "usage: recorder [--size BYTES] [--period MILLISECONDS] [--min-free BYTES]\n"
    "                [--share 0..1] [--watchdog SECONDS]\n";

Recorder* running = nullptr;

// Notifies and no more: a handler that logs ends the program, or stops it for good.
void StopRunning(int /*signal*/) {
  running->Stop();
}

// False unless the whole text is a number that fits.
template <typename Number>
bool Read(std::string_view text, Number& number) {
  auto const [end, error] = std::from_chars(text.begin(), text.end(), number);
  return error == std::errc() && end == text.end();
}

bool Read(std::string_view text, std::chrono::milliseconds& time) {
  std::uint32_t count = 0;
  if (!Read(text, count) || count == 0) return false;
  time = std::chrono::milliseconds(count);
  return true;
}

bool Choose(int choice, std::string_view value, Settings& settings) {
  switch (choice) {
    case 's':
      return Read(value, settings.recordingBytes) && settings.recordingBytes > 0;
    case 'p':
      return Read(value, settings.period);
    case 'm':
      return Read(value, settings.minimumFreeBytes);
    case 'f':
      return Read(value, settings.share) && settings.share > 0 && settings.share <= 1;
    case 'w':
      return Read(value, settings.watchdogSeconds) && settings.watchdogSeconds > 0;
    default:
      return false;
  }
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
    if (optarg == nullptr || !Choose(choice, optarg, settings)) return false;
  }
  return optind == count;
}

// The system clock starts at the epoch; the battery-backed one went on.
void RestoreClock() {
  Quellon::RTC::Rtc clock("/dev/rtc0");
  bool const read = clock.Load();
  clock.rtcTime.tm_isdst = -1;  // the clock does not know whether it is summer, the zone does
  if (!read || !clock.SetSystemClock()) {
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
  std::quick_exit(EXIT_SUCCESS);  // without waiting for a catalogue that is still being loaded
}
