#include "base/ConsoleLogPolicy.h"

#include <cstdio>

#include "base/internal/WriteAll.h"

namespace Tarvik::Ilog {

// Past the stream's buffer, which a line would only be copied into to be flushed at once.
bool ConsoleLogPolicy::Write(std::string_view line) noexcept {
  static_cast<void>(std::fflush(stdout));
  static_cast<void>(WriteAll(fileno(stdout), line));
  return true;
}

}  // namespace Tarvik::Ilog
