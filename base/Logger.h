// The process-wide log: every line goes to a file and to the console. Any thread may log; lines
// never mix, and a completed line is in the kernel's hands before the logging call returns.
#pragma once

#include <cstring>
#include <ostream>
#include <string>
#include <string_view>

#include "base/ConsoleLogPolicy.h"
#include "base/Export.h"
#include "base/FileLogPolicy.h"
#include "base/LogLine.h"
#include "base/LogType.h"
#include "base/LoggerBase.h"

namespace Tarvik::Ilog {

/// Both sinks as one. Write lines with `LogLine`.
class QUELLON_EXPORT Logger {
 public:
  /// The one logger; never destroyed.
  static Logger* GetInstance();

  Logger();

  // Binary interface: these fields keep their order.
  LoggerBase<FileLogPolicy>* fileSink;        ///< "/var/log/quellon.log"; owned by the library
  LoggerBase<ConsoleLogPolicy>* consoleSink;  ///< standard output; owned by the library

  /// Begins a line on the file sink, then on the console sink. Throws as `WriteHeader` does, and
  /// then has begun one on neither.
  void BeginLine(LogType type);

  /// Ends the line on both sinks, in the same order.
  void EndLine();

  /// Returns when both sinks have written every completed line.
  void Flush();

  /// Closes the log file until the next line, so that its file system can be unmounted. Never
  /// waits: false, with the file still open, while a line is under way on the file sink.
  bool Close() noexcept;

  /// @{ Append to the line under way, on the file sink and then on the console sink; see
  /// `LoggerBase`.
  Logger& operator<<(char const* text);
  Logger& operator<<(std::string_view text);
  Logger& operator<<(std::string const& text) { return *this << std::string_view(text); }
  Logger& operator<<(int number);
  Logger& operator<<(unsigned long long number);
  Logger& operator<<(long const& t);
  template <typename Value>
  Logger& operator<<(Value const& value) {
    *fileSink << value;
    *consoleSink << value;
    return *this;
  }
  Logger& operator<<(std::ostream& (*manipulator)(std::ostream&));
  /// @}

 private:
  template <typename Policy>
  friend class LoggerBase;

  template <typename Value>
  Logger& Append(std::string_view text, Value const& value);
  void BeginSharedLine(LogType type);
  bool EndSharedLine();
  void SeparateLines() noexcept;
  static void RecoverInChild() noexcept;
};

// Always inline, and with a length of its own, since the compiler knows that of most texts: where
// it builds for size, it asks for it at run time otherwise.
template <std::size_t kSize>
[[gnu::always_inline]] inline LogLine& LogLine::operator<<(char const (&text)[kSize]) {
  logger << std::string_view(text, std::strlen(text));
  return *this;
}

}  // namespace Tarvik::Ilog
