#include "DiskUtils/internal/Complain.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace Quellon::DiskUtils {

void Complain(char const* what) {
  int const error = errno;
  pollfd output{STDERR_FILENO, POLLOUT, {}};
  // A pipe whose reader has gone is ready as well, but with POLLERR: writing to it would raise
  // SIGPIPE.
  bool const ready = poll(&output, 1, 0) == 1 && output.revents == POLLOUT;
  errno = error;
  if (ready) std::perror(what);
}

}  // namespace Quellon::DiskUtils
