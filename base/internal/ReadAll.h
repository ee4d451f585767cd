// So many bytes from a descriptor.
#pragma once

#include <unistd.h>

#include <cstddef>

#include "base/internal/Restart.h"

namespace Tarvik {

/// Reads `size` bytes with read(2), which may give parts of them or be interrupted by a signal.
/// Returns how many bytes were read: fewer than asked for when the kernel gave no more.
inline std::size_t ReadAll(int fd, char* data, std::size_t size) noexcept {
  std::size_t done = 0;
  while (done < size) {
    ssize_t const got = RestartWhileInterrupted([&] { return read(fd, data + done, size - done); });
    if (got <= 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

}  // namespace Tarvik
