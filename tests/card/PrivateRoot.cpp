#include "tests/card/PrivateRoot.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "tests/machine/Machine.h"

namespace CardTests {

namespace {

bool InPrivateRoot() {
  std::ifstream mounts("/proc/mounts");
  std::string source;
  std::string place;
  mounts >> source >> place;  // the root is always the first mount
  return source == "private_root" && place == "/";
}

}  // namespace

void RequirePrivateRoot() {
  constexpr int kSkipped = 77;
  if (InPrivateRoot()) return Machine::Reset(Machine::PrivateRoot());
  std::cerr << "skipped: this program runs only through tests/card/private_root" << std::endl;
  std::exit(kSkipped);
}

}  // namespace CardTests
