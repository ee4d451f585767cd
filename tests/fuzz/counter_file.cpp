// Whatever the counter file holds, reading it gives a number, and a card that is missing for ever
// causes no more than three reboots.
#include <unistd.h>

#include "DiskUtils/System.h"
#include "tests/fuzz/Target.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CounterFile.h"
#include "tests/support/OwnedSystem.h"

namespace {

constexpr int kAllowedReboots = 3;

int RebootsWithoutCard(Quellon::System& system) {
  int reboots = 0;
  while (reboots <= kAllowedReboots && system.InitDisk() == nullptr) ++reboots;
  return reboots;
}

}  // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  Machine::Reset();
  Machine::MakeFile(CounterFile::kPath, std::string(Fuzz::Text(data, size)));
  Capture::Descriptor const quiet(STDOUT_FILENO);
  Capture::Descriptor const silent(STDERR_FILENO);
  OwnedSystem system;
  int const counter = system.ReadSDCardStatusCounter();
  int const reboots = RebootsWithoutCard(system);
  Fuzz::Require(reboots <= kAllowedReboots, "bounded reboots");
  Fuzz::Require((counter < 0 || counter >= kAllowedReboots) == (reboots == 0),
                "a count in bounds, and only that, allows a reboot");
  return 0;
}
