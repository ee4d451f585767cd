// Descriptors 0 to 2, for a process that was started without them.
#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace Tarvik {

/// Opens "/dev/null" on those of standard input, output and error that are closed. To be called
/// before a file is opened that stays open: it would get the lowest number that is free, and
/// whatever anybody prints would be written into it. They stay open, and commands inherit them:
/// closed again, their numbers could go to another thread's file. Opens nothing where all three are
/// open, as they nearly always are. Safe on any thread.
inline void OccupyStandardDescriptors() noexcept {
  for (int number = STDIN_FILENO; number <= STDERR_FILENO; ++number) {
    if (fcntl(number, F_GETFD) >= 0) continue;
    int const taken = open("/dev/null", O_RDWR);  // this number, unless another thread was quicker
    if (taken > STDERR_FILENO) close(taken);
  }
}

}  // namespace Tarvik
