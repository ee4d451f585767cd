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
  /// any more, that needs SIGPIPE to be ignored. A full console that blocks is waited for without
  /// end. One that does not block, as `ConsoleGuard` makes it, is waited for during half a second,
  /// once; then lines are dropped at once, and counted, until it takes one again, which is told it
  /// first: "[CONSOLE] 12 lines dropped". Of a line that was dropped a part may be out; a newline
  /// ends it.
  bool Write(std::string_view line) noexcept;
};

}  // namespace Tarvik::Ilog
