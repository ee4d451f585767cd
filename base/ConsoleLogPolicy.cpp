#include "base/ConsoleLogPolicy.h"

#include "base/internal/Console.h"

namespace Tarvik::Ilog {

bool ConsoleLogPolicy::Write(std::string_view line) noexcept {
  Console::Write(line);
  return true;
}

}  // namespace Tarvik::Ilog
