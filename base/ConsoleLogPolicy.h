// Where the logger's console sink writes.
#pragma once

#include <cstdio>
#include <string_view>

namespace Tarvik::Ilog {

enum LogType : int;

/// Writes lines to standard output, through the C library's stream, so that they keep their order
/// with what the program prints by other means.
class ConsoleLogPolicy {
 public:
  /// Called at the start of each line's header; the console shows lines as the file has them.
  void WriteHeader(LogType) noexcept {}

  /// Standard output is the program's, and stays open.
  void Close() noexcept {}

  /// Hands one completed line to the kernel. A console that cannot be written loses the line; the
  /// next one is tried all the same.
  bool Write(std::string_view line) noexcept {
    static_cast<void>(std::fwrite(line.data(), 1, line.size(), stdout));
    static_cast<void>(std::fflush(stdout));
    return true;
  }
};

}  // namespace Tarvik::Ilog
