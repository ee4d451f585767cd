// The benchmarks' folder and pauses on the emulated board, whose own paths nobody minds: without
// the stand-in for the machine, whose instructions would be counted, too.
#include <unistd.h>

#include "bench/support.h"

namespace Bench {

namespace {

bool isPausing = true;

}  // namespace

std::filesystem::path const& Folder() {
  static std::filesystem::path const folder = "/var/log";
  return folder;
}

WithoutPauses::WithoutPauses() {
  isPausing = false;
}

WithoutPauses::~WithoutPauses() {
  isPausing = true;
}

// The thousand take some ms; a second that begins meanwhile is part of what they cost.
void StopClock() {}

}  // namespace Bench

// Stands before the C library's own.
extern "C" int usleep(useconds_t microseconds) {
  if (!Bench::isPausing) return 0;
  timespec const pause{0, static_cast<long>(microseconds) * 1000};
  return nanosleep(&pause, nullptr);
}
