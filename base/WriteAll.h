// A text handed to the kernel.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <string_view>

#include "base/Restart.h"

namespace Tarvik {

/// Writes the whole text with write(2), which may take parts of it or be interrupted by a signal.
/// False when it cannot; part of the text may have been written then.
inline bool WriteAll(int fd, std::string_view text) noexcept {
  while (!text.empty()) {
    ssize_t const written =
        RestartWhileInterrupted([&] { return write(fd, text.data(), text.size()); });
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace Tarvik
