// Where the logger's console sink writes.
#pragma once

#include <string_view>

#include "base/LogType.h"

namespace Tarvik::Ilog {

/// Writes lines to the descriptor of standard output.
class ConsoleLogPolicy {
 public:
  /// Called at the start of each line's header; the console shows lines as the file has them.
  void WriteHeader(LogType) noexcept {}

  /// Standard output is the program's, and stays open.
  void Close() noexcept {}

  /// Hands one completed line to the kernel, behind what the program has printed on the C library's
  /// stream until then. A console that cannot be written loses the line; the next one is tried all
  /// the same.
  bool Write(std::string_view line) noexcept;
};

}  // namespace Tarvik::Ilog
