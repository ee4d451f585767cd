// The recorder's command line.
#include <getopt.h>

#include <charconv>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "RTC/Rtc.h"
#include "Recorder.h"
#include "base/ConsoleGuard.h"
#include "base/Logger.h"
#include "base/TemperatureMonitor.h"

namespace {

constexpr char const* kUsage =
    "usage: quellon-recorder [--size BYTES] [--rate BYTES-PER-SECOND] [--period MILLISECONDS]\n"
    "                        [--min-free BYTES] [--share 0..1] [--watchdog SECONDS]\n";

// False unless the whole text is a number that fits.
template <typename Number>
bool Read(std::string_view text, Number& number) {
  auto const [end, error] = std::from_chars(text.begin(), text.end(), number);
  return error == std::errc() && end == text.end();
}

bool Choose(std::string_view option, std::string_view value, Settings& settings) {
  auto& [size, rate, period, minimum, share, watchdog] = settings;
  // The library cannot tell the size of a larger one, which is less than 2 GiB on 32 bits.
  if (option == "size") return Read(value, size) && size > 0 && std::in_range<off_t>(size);
  if (option == "rate") return Read(value, rate) && rate > 0;
  if (option == "min-free") return Read(value, minimum);
  if (option == "share") return Read(value, share) && share > 0 && share <= 1;
  if (option == "watchdog") return Read(value, watchdog) && watchdog > 0;
  return Read(value, period) && period > 0;
}

// False when the command line is not understood.
bool Parse(int count, char** arguments, Settings& settings) {
  std::vector<option> options;
  for (auto const* name : {"size", "rate", "period", "min-free", "share", "watchdog"})
    options.push_back({name, required_argument, nullptr, 0});
  options.push_back({});
  int index = 0;
  for (int choice; (choice = getopt_long(count, arguments, "", options.data(), &index)) != -1;) {
    auto const* const name = options[static_cast<std::size_t>(index)].name;
    if (choice == 0 && Choose(name, optarg, settings)) continue;
    if (choice == 0)
      std::cerr << "quellon-recorder: " << optarg << " is no value of --" << name << "\n";
    return false;
  }
  return optind == count;
}

// The system clock starts at the epoch; the battery-backed one went on.
void RestoreClock() {
  Quellon::RTC::Rtc clock("/dev/rtc0");
  bool const read = clock.Load();
  clock.rtcTime.tm_isdst = -1;  // the clock does not know whether it is summer, the zone does
  if (!read || !clock.SetSystemClock())
    Tarvik::Ilog::LogLine(Tarvik::Ilog::Warning) << "[REC] The clock could not be restored";
}

}  // namespace

int main(int count, char** arguments) {
  std::optional<Tarvik::ConsoleGuard> console(std::in_place);
  Settings settings;
  if (!Parse(count, arguments, settings)) {
    std::cerr << kUsage;
    return EXIT_FAILURE;
  }
  static Recorder recorder(settings);  // the signal handler knows it
  if (!recorder.IsAlone()) return EXIT_FAILURE;
  RestoreClock();
  Tarvik::Util::TemperatureMonitor::GetInstance()->Start();
  // What is too large for a limit, or printed to nobody, fails, and does not end the service.
  for (int const signal : {SIGXFSZ, SIGPIPE}) static_cast<void>(std::signal(signal, SIG_IGN));
  // Notifies and no more: a handler that logs ends the program, or stops it for good.
  for (int const signal : {SIGTERM, SIGINT})
    static_cast<void>(std::signal(signal, [](int) { recorder.Stop(); }));
  recorder.Run();
  if (!recorder.IsLoading()) console.reset();  // a load must not print by what is gone
  std::quick_exit(EXIT_SUCCESS);  // without waiting for a catalogue that is still being loaded
}
