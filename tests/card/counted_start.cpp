// A start of the device without a card, as far as its fixed storage is concerned. It stops at every
// step of the counter of reboots, says which on standard output, and goes on with the next line on
// standard input: whoever gave it does what a step asks of the storage. Nothing else is reached.
//
//   counted_start [--never-saved]    as if saving the count did nothing, to be found out
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>

#include "DiskUtils/System.h"
#include "tests/card/PrivateRoot.h"
#include "tests/machine/Machine.h"
#include "tests/support/CounterFile.h"

namespace {

using Machine::Answer;

void Step(std::string_view name) {
  std::cout << "step " << name << std::endl;
  std::string answer;
  std::getline(std::cin, answer);
}

bool IsCounter(int fd) {
  std::array<char, 64> path{};
  std::string const link = "/proc/self/fd/" + std::to_string(fd);
  return readlink(link.c_str(), path.data(), path.size() - 1) > 0 &&
         std::string_view(path.data()) == CounterFile::kPath;
}

/// It is opened to be read, and then to be saved, which empties it.
void StopWhereItIsOpened() {
  Machine::hooks().fault = [isRead = false](Machine::Call const& call) mutable {
    if (call.function == "fopen" && call.subject == CounterFile::kPath) {
      Step(isRead ? "empty" : "read");
      isRead = true;
    }
    return std::optional<Machine::Failure>();
  };
}

/// A step for the first of the two calls that write.
template <typename... Arguments>
std::optional<ssize_t> StopWhereItIsWritten(int fd, Arguments... /*data*/) {
  if (IsCounter(fd)) Step("write");
  return std::nullopt;
}

void StopWhereTheMachineIsReached() {
  Machine::hooks().sync = [] { Step("sync"); };
  Machine::hooks().system = [](std::string const& command) {
    if (command == "reboot") Step("restart");
    return Answer::Success();
  };
  Machine::hooks().umount = [](std::string const& target) {
    if (target == "/") Step("unmount");
    return Answer::Success();
  };
  Machine::hooks().reboot = [](int /*command*/) -> Answer { std::exit(0); };
}

}  // namespace

int main(int count, char** arguments) {
  CardTests::RequirePrivateRoot();
  static Machine::Profile const nothing;
  Machine::Reset(nothing);
  StopWhereItIsOpened();
  Machine::hooks().write = StopWhereItIsWritten<void const*, std::size_t>;
  Machine::hooks().writev = StopWhereItIsWritten<iovec const*, int>;
  StopWhereTheMachineIsReached();
  if (count > 1 && std::string_view(arguments[1]) == "--never-saved") {
    Machine::hooks().saveStatusCounter = [](int /*counter*/) { return true; };
  }
  Quellon::System::GetInstance()->InitDisk();
}
