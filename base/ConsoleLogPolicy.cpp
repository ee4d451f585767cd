#include "base/ConsoleLogPolicy.h"

#include <stdio_ext.h>

#include <cstdio>

#include "base/internal/WriteAll.h"

namespace Tarvik::Ilog {

// By write(2): in the stream's buffer the line would only be copied, and flushed at once. What the
// application left in that buffer comes first, unless another thread has the stream: that may wait
// for this line.
bool ConsoleLogPolicy::Write(std::string_view line) noexcept {
  if (ftrylockfile(stdout) == 0) {
    if (__fpending(stdout) > 0) static_cast<void>(std::fflush(stdout));
    funlockfile(stdout);
  }
  static_cast<void>(WriteAll(fileno(stdout), line));
  return true;
}

}  // namespace Tarvik::Ilog
