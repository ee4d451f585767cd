// Where the logger's console sink writes.
#pragma once

#include <string_view>

#include "base/LogType.h"

namespace Tarvik::Ilog {

/// Writes lines to the descriptor of standard output.
class ConsoleLogPolicy {
 public:
  /// Called before each line's header. Adds nothing: the console's lines are those of the file.
  void WriteHeader(LogType) noexcept {}

  /// Does nothing: standard output is the program's.
  void Close() noexcept {}

  /// Flushes the C library's stream, so that the line follows what was printed before it, unless
  /// another thread uses the stream, and hands the line to the kernel. Always true: where it cannot
  /// be written it is lost, and the next line is tried all the same. On a pipe that nobody reads
  /// any more, that needs SIGPIPE to be ignored; on one that does not block, a part of it may be
  /// lost.
  bool Write(std::string_view line) noexcept;
};

}  // namespace Tarvik::Ilog
