// A good card brought into service, by the library and by a shell script that runs the same
// commands and pauses as long, in turns. Runs only in a private root, with a real ext4 card. One
// line of JSON with the seconds of each turn.
#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>

#include "DiskUtils/System.h"
#include "bench/support.h"
#include "tests/card/Card.h"
#include "tests/card/PrivateRoot.h"
#include "tests/support/OwnedSystem.h"

namespace {

constexpr int kTurns = 5;

void RunLibrary() {
  OwnedSystem system;
  auto const* const disk = system.InitDisk();
  if (disk == nullptr || !disk->available) throw std::runtime_error("the card was refused");
}

void RunScript() {
  CardTests::RunQuietly(START_UP_SCRIPT);
}

double SecondsOf(std::function<void()> const& start) {
  using Clock = std::chrono::steady_clock;
  auto const begin = Clock::now();
  start();
  double const seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  if (umount("/mnt/sdcard/") != 0) throw std::runtime_error("the card was not mounted");
  return seconds;
}

void Append(std::ostream& list, double seconds) {
  list << (list.tellp() == 0 ? "" : ", ") << seconds;
}

}  // namespace

int main() {
  CardTests::RequirePrivateRoot();
  Bench::PassOn();
  CardTests::Card card;
  card.Insert();
  int const output = dup(STDOUT_FILENO);
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
  std::ostringstream library;
  std::ostringstream script;
  for (int turn = 0; turn < kTurns; ++turn) {
    Append(library, SecondsOf(RunLibrary));
    Append(script, SecondsOf(RunScript));
  }
  dprintf(output, "{\"library\": [%s], \"script\": [%s]}\n", library.str().c_str(),
          script.str().c_str());
}
