#include "base/TemperatureMonitor.h"

#include <chrono>
#include <fstream>

#include "base/internal/ByteFile.h"
#include "base/internal/NoDestructor.h"

namespace Tarvik::Util {

namespace {

constexpr char const* kSensor = "/sys/class/thermal/thermal_zone0/temp";
constexpr std::chrono::seconds kReadingPause(10);

}  // namespace

TemperatureMonitor* TemperatureMonitor::GetInstance() {
  static NoDestructor<TemperatureMonitor> instance;
  return instance.Get();
}

// Built when the library is loaded: a child of a fork(2) in the middle of building it would wait
// for ever. It reads nothing before it is started.
[[gnu::constructor]] static void Build() {
  TemperatureMonitor::GetInstance();
}

TemperatureMonitor::TemperatureMonitor() = default;

TemperatureMonitor::~TemperatureMonitor() {
  Cancel();
  Join();
}

// A `Cancel` that found the thread not waiting left its notification: it must end no later pause.
void TemperatureMonitor::RunBefore() {
  while (stop.TryWait()) {
  }
}

void TemperatureMonitor::Run() {
  Read();
  stop.WaitFor(kReadingPause);
}

// Nothing refreshes the temperature any more, so it is not shown as the present one.
void TemperatureMonitor::RunAfter() {
  valid = false;
}

void TemperatureMonitor::Stopping() {
  stop.Notify();
}

void TemperatureMonitor::Read() {
  int milliCelsius;
  ByteFile<std::ifstream> sensor(kSensor);
  bool const known = static_cast<bool>(sensor >> milliCelsius);
  if (known) temperature = milliCelsius / 1000;
  valid = known;
}

}  // namespace Tarvik::Util
