// The process-wide log: every line goes to a file and to the console. Any thread may log; lines
// never mix, and a completed line is in the kernel's hands before the logging call returns.
#pragma once

#include <atomic>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>

#include "base/ConsoleLogPolicy.h"
#include "base/Export.h"
#include "base/FileLogPolicy.h"
#include "base/ISemaphore.h"
#include "base/LineBuffer.h"

namespace Tarvik::Ilog {

class Logger;

/// How grave a line is. Any other value is written as `Info`, without a tag.
enum LogType : int {
  Info = 0,
  Warning = 1,  ///< tagged "[WARNING]"
  Error = 2,    ///< tagged "[ERROR]"
};

/// One sink of the logger. A line begins with `WriteHeader`, which takes the sink's line lock, and
/// ends with `EndLine` (or a newline and `CheckEndOfStream`), which writes it and frees the sink;
/// both on the same thread. Whether the sink takes part in a line is settled at its header: a line
/// begun is finished even if the sink is disabled meanwhile, and text for a line that was not
/// begun is dropped.
template <typename Policy>
class LoggerBase {
 public:
  LoggerBase();
  LoggerBase(LoggerBase const&) = delete;
  LoggerBase& operator=(LoggerBase const&) = delete;
  ~LoggerBase() = default;

  /// Begins a line: "[date time]", "[temperature]" if it is known, and the tag of `type`. Waits
  /// while another thread's line is under way. Does nothing while the sink is disabled.
  /// Throws std::system_error when this thread has not ended its own last line.
  void WriteHeader(LogType type);

  /// Appends `t`, seconds since the epoch, as a date and time in local time, never as a number.
  LoggerBase& operator<<(long const& t);

  /// Appends a text. A null `text` spoils the rest of the line, as on a standard output stream.
  LoggerBase& operator<<(char const* text);

  /// Appends a text.
  LoggerBase& operator<<(std::string_view text);
  /// Appends a text.
  LoggerBase& operator<<(std::string const& text) { return *this << std::string_view(text); }

  /// Appends a number.
  LoggerBase& operator<<(int number);
  /// Appends a number.
  LoggerBase& operator<<(unsigned long long number);

  /// Appends a manipulator such as std::endl, also to a spoilt line; a line that then ends with a
  /// newline is complete.
  LoggerBase& operator<<(std::ostream& (*manipulator)(std::ostream&));

  /// Appends any other value as a standard output stream does.
  template <typename Value>
  LoggerBase& operator<<(Value const& value) {
    if (HoldsLine()) stream << value;
    return *this;
  }

  /// If the line under way ends with a newline, signals it and hands it to the sink's writer, and
  /// the sink is free again; otherwise does nothing.
  void CheckEndOfStream();

  /// Ends the line under way: appends a newline, signals the line and hands it to the sink's
  /// writer. Frees the sink in every case.
  void EndLine();

  /// Waits until no line of another thread is under way.
  void Flush();

  /// Waits likewise, and lets go of what the sink writes to until the next line.
  void Close();

 private:
  friend class Logger;

  [[nodiscard]] bool HoldsLine() const noexcept;
  void RequireNoLine() const;
  void AppendText(std::string_view text);
  template <typename Number>
  void AppendNumber(Number number);
  void BeginLine(LogType type);
  void AppendTime();
  void AppendTemperature();
  void AppendTag(LogType type);
  void WriteLine();
  void Abandon() noexcept;
  void Release() noexcept;
  void ForgetFormat() noexcept;

  Policy policy;
  LineBuffer line;
  std::ostream stream{&line};
  std::mutex lineLock;
  Interfaces::ISemaphore lineReady;
  std::atomic<std::thread::id> lineOwner;
  long stampSecond = -1;
  std::string stamp;

 public:
  /// False: the sink takes no part in new lines. Any thread may switch it. The library switches a
  /// sink off whose line could not be written, and leaves it to the application to switch it on.
  std::atomic<bool> enabled = true;
};

extern template class QUELLON_EXPORT LoggerBase<FileLogPolicy>;
extern template class QUELLON_EXPORT LoggerBase<ConsoleLogPolicy>;

/// Both sinks as one. Write lines with `LogLine`.
class QUELLON_EXPORT Logger {
 public:
  /// The one logger; never destroyed.
  static Logger* GetInstance();

  Logger();

  LoggerBase<FileLogPolicy>* fileSink;        ///< "/var/log/quellon.log"; owned by the library
  LoggerBase<ConsoleLogPolicy>* consoleSink;  ///< standard output; owned by the library

  /// Begins a line on the file sink, then on the console sink. Throws as `WriteHeader` does, and
  /// then holds neither.
  void BeginLine(LogType type);

  /// Ends the line on both sinks, in the same order.
  void EndLine();

  /// Returns when both sinks have written every completed line.
  void Flush();

  /// Closes the log file until the next line, so that its file system can be unmounted.
  void Close();

  /// @{ Append to the line under way, on the file sink and then on the console sink; see
  /// `LoggerBase`.
  Logger& operator<<(char const* text);
  Logger& operator<<(std::string_view text);
  Logger& operator<<(std::string const& text) { return *this << std::string_view(text); }
  Logger& operator<<(long const& t);
  template <typename Value>
  Logger& operator<<(Value const& value) {
    *fileSink << value;
    *consoleSink << value;
    return *this;
  }
  /// @}
  /// Appends a manipulator such as std::endl, also to a spoilt line; a line that then ends with a
  /// newline is complete.
  Logger& operator<<(std::ostream& (*manipulator)(std::ostream&));
};

/// One line, from its header to its end: `LogLine(Info) << "size " << size;`. The line ends with
/// the object. Keep it short-lived: other threads that log wait for it.
class QUELLON_EXPORT LogLine {
 public:
  /// Begins the line; throws as `Logger::BeginLine` does.
  explicit LogLine(LogType type);
  LogLine(LogLine const&) = delete;
  LogLine& operator=(LogLine const&) = delete;
  /// Ends the line.
  ~LogLine();

  /// Appends to the line, as `Logger` does.
  template <typename Value>
  LogLine& operator<<(Value const& value) {
    logger << value;
    return *this;
  }

 private:
  Logger& logger;
};

/// Writes the `Error` line "source: what" where nothing may be thrown any more; the line is lost if
/// it cannot be written.
QUELLON_EXPORT void LogFailure(char const* source, char const* what) noexcept;

}  // namespace Tarvik::Ilog
