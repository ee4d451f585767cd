// Which descriptors code under test holds.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <vector>

#include "tests/support/Scoped.h"

namespace Descriptors {

/// The descriptors this process has open, ascending.
inline std::vector<int> Open() {
  constexpr int kMoreThanTestsUse = 1024;
  std::vector<int> open;
  for (int fd = 0; fd < kMoreThanTestsUse; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0) open.push_back(fd);
  }
  return open;
}

inline bool ClosesOnExec(int fd) {
  return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

/// Tells the descriptors opened since its construction and not closed again.
class Watch {
 public:
  [[nodiscard]] std::vector<int> Opened() const {
    auto const now = Open();
    std::vector<int> opened;
    std::ranges::set_difference(now, before, std::back_inserter(opened));
    return opened;
  }

 private:
  std::vector<int> before = Open();
};

/// While one exists, the process has neither standard input nor output nor error, as a service may
/// be started. What a test then expects should wait for the end: nobody would read of a failure.
class NoStandardOnes {
 public:
  NoStandardOnes() {
    for (int const fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(fd);
  }

 private:
  Scoped::AtEnd const input = Scoped::Descriptor(STDIN_FILENO);
  Scoped::AtEnd const output = Scoped::Descriptor(STDOUT_FILENO);
  Scoped::AtEnd const errors = Scoped::Descriptor(STDERR_FILENO);
};

}  // namespace Descriptors
