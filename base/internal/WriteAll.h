// A whole text to a descriptor.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <string_view>

#include "base/internal/Restart.h"

namespace Tarvik {

/// Writes the whole text with write(2), which may take parts of it or be interrupted by a signal.
/// Returns how many bytes were written: fewer than the text has when the kernel took no more.
inline std::size_t WriteAll(int fd, std::string_view text) noexcept {
  std::size_t done = 0;
  while (done < text.size()) {
    std::string_view const rest = text.substr(done);
    ssize_t const written =
        RestartWhileInterrupted([&] { return write(fd, rest.data(), rest.size()); });
    if (written <= 0) break;
    done += static_cast<std::size_t>(written);
  }
  return done;
}

}  // namespace Tarvik
