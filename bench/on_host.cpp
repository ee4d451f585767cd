// The benchmarks' folder, pauses and clock on this machine, whose own log must not be written: the
// stand-in for the machine leads its paths elsewhere.
#include "bench/support.h"
#include "tests/machine/Machine.h"

namespace Bench {

namespace {

// Before anything can be logged.
bool const isPrepared = (PassOn(), true);

}  // namespace

void PassOn() {
  Machine::Reset(Machine::PassOn());
  std::filesystem::create_directories(Folder());
}

std::filesystem::path const& Folder() {
  static std::filesystem::path const folder = Machine::Real("/var/log/");
  return folder;
}

WithoutPauses::WithoutPauses() {
  Machine::hooks().sleep = [](auto) {};
}

WithoutPauses::~WithoutPauses() {
  Machine::hooks().sleep = nullptr;
}

void StopClock() {
  Machine::hooks().now = 1'700'000'000;
}

}  // namespace Bench
