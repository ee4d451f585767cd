// Opening a file.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include "base/UniqueFd.h"

namespace Tarvik {

/// open(2), close-on-exec and above the standard descriptors: where one of those is closed the file
/// would get its number, and what is printed would go into the file. Returns the descriptor, which
/// the caller owns, or -1 with `errno` set.
inline int OpenFile(char const* path, int flags, mode_t mode = 0) noexcept {
  int const opened = open(path, flags | O_CLOEXEC, mode);
  if (opened < 0 || opened > STDERR_FILENO) return opened;
  UniqueFd const standard(opened);
  return fcntl(standard.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

}  // namespace Tarvik
