#include "base/ConsoleLogPolicy.h"

#include <cstdio>

#include "base/internal/WriteAll.h"

namespace Tarvik::Ilog {

// By write(2): in the stream's buffer the line would only be copied, and flushed at once.
bool ConsoleLogPolicy::Write(std::string_view line) noexcept {
  static_cast<void>(std::fflush(stdout));
  static_cast<void>(WriteAll(fileno(stdout), line));
  return true;
}

}  // namespace Tarvik::Ilog
