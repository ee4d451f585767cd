// One line of the log. Include "base/Logger.h", which brings this and what it writes to.
#pragma once

#include <cstddef>
#include <ostream>

#include "base/Export.h"
#include "base/LogType.h"

namespace Tarvik::Ilog {

class Logger;

/// One line, from its header to its end: `LogLine(Info) << "size " << size;`. The line ends with
/// the object. Keep it short-lived: other threads that log wait for it. Call nothing in the same
/// expression that logs, too, such as `Ifile::CopyTo` or `Watchdog::Reset`: this thread cannot
/// begin a second line, so that call fails in the middle of its work. errno is left as it was, for
/// what the line tells of it.
class QUELLON_EXPORT LogLine {
 public:
  /// Begins the line; throws as `Logger::BeginLine` does.
  explicit LogLine(LogType type);
  LogLine(LogLine const&) = delete;
  LogLine& operator=(LogLine const&) = delete;
  /// Ends the line.
  ~LogLine();

  /// @{ Append to the line, as `Logger` does. std::endl does not end it: the object does.
  template <typename Value>
  LogLine& operator<<(Value const& value) {
    logger << value;
    return *this;
  }
  template <std::size_t kSize>
  LogLine& operator<<(char const (&text)[kSize]);
  LogLine& operator<<(std::ostream& (*manipulator)(std::ostream&));
  /// @}

 private:
  Logger& logger;
};

/// Writes the `Error` line "source: what" where nothing may be thrown any more; the line is lost if
/// it cannot be written.
QUELLON_EXPORT void LogFailure(char const* source, char const* what) noexcept;

}  // namespace Tarvik::Ilog
