// The process-wide log: every line goes to a file and to the console. Any thread may log; lines
// never mix, and a completed line is in the kernel's hands before the logging call returns.
#pragma once

#include <atomic>
#include <cstddef>
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
/// both on the same thread. Text for a line that was not begun is dropped. A sink that is disabled
/// in the middle of a line drops the whole line, and is free again at the line's next piece, at its
/// end, or when its thread begins another one.
///
/// Never log in a signal handler: one that interrupts a line of its own thread ends the program.
/// Set a flag there, or call write(2). A child made by fork(2) may log; a line that another thread
/// had under way is the parent's alone.
template <typename Policy>
class LoggerBase {
 public:
  LoggerBase();
  LoggerBase(LoggerBase const&) = delete;
  LoggerBase& operator=(LoggerBase const&) = delete;
  ~LoggerBase() = default;

  /// Begins a line: "[date time]", "[temperature]" if it is known, and the tag of `type`. Waits
  /// while another thread's line is under way. Does nothing while the sink is disabled, but for
  /// dropping a line of this thread.
  /// Throws std::system_error when this thread has not ended its own last line.
  void WriteHeader(LogType type);

  /// Appends `t`, seconds since the epoch, as a date and time in local time, never as a number.
  /// Where 64 bits are a `long`, that goes for std::int64_t: hand a number over as `long long`.
  LoggerBase& operator<<(long const& t);

  /// Appends a text. After a null `text` no more of the line is taken, as on a standard output
  /// stream; the line still ends at its end.
  LoggerBase& operator<<(char const* text);

  /// Appends a text.
  LoggerBase& operator<<(std::string_view text);
  /// Appends a text.
  LoggerBase& operator<<(std::string const& text) { return *this << std::string_view(text); }

  /// Appends a number.
  LoggerBase& operator<<(int number);
  /// Appends a number.
  LoggerBase& operator<<(unsigned long long number);

  /// Applies a manipulator. std::endl appends its newline, but completes no line: see
  /// `CheckEndOfStream` and `EndLine`.
  LoggerBase& operator<<(std::ostream& (*manipulator)(std::ostream&));

  /// Appends any other value as a standard output stream does.
  template <typename Value>
  LoggerBase& operator<<(Value const& value) {
    if (TakesPart()) stream << value;
    return *this;
  }

  /// If the line under way ends with a newline, or takes no more text, signals it and hands it to
  /// the sink's writer, and the sink is free again; otherwise does nothing.
  void CheckEndOfStream();

  /// Ends the line under way: appends a newline, unless a manipulator such as std::endl was its
  /// last piece, signals the line and hands it to the sink's writer. Frees the sink in every case.
  void EndLine();

  /// Waits until no line of another thread is under way.
  void Flush();

  /// Lets go of what the sink writes to, until the next line. Never waits: false, with nothing
  /// changed, while a line is under way.
  bool Close() noexcept requires requires(Policy& sinkPolicy) { sinkPolicy.Close(); };

 private:
  friend class Logger;

  [[nodiscard]] bool HoldsLine() const noexcept;
  [[nodiscard]] bool TakesPart() noexcept;
  void RequireNoLine() const;
  void AppendText(std::string_view text);
  template <typename Number>
  void AppendNumber(Number number);
  void BeginLine(LogType type);
  void AppendTime();
  void AppendTemperature();
  void AppendTag(LogType type);
  [[nodiscard]] bool EndsWithNewline() const noexcept;
  void WriteLine();
  void Abandon() noexcept;
  void Release() noexcept;
  void RecoverInChild() noexcept;
  void ForgetFormat() noexcept;

  Policy policy;
  LineBuffer line;
  std::ostream stream{&line};
  std::mutex lineLock;
  Interfaces::ISemaphore lineReady;
  std::atomic<std::thread::id> lineOwner;
  std::size_t manipulatedLength =
      0;  // of the line, when a manipulator last ended it with a newline
  long stampSecond = -1;
  std::string stamp;

 public:
  /// False: the sink ignores everything. Any thread may switch it. The library switches a sink off
  /// whose line could not be written, and leaves it to the application to switch it on.
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
  static void RecoverInChild() noexcept;
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

  /// @{ Append to the line, as `Logger` does. std::endl does not end it: the object does.
  template <typename Value>
  LogLine& operator<<(Value const& value) {
    logger << value;
    return *this;
  }
  LogLine& operator<<(std::ostream& (*manipulator)(std::ostream&)) {
    logger << manipulator;
    return *this;
  }
  /// @}

 private:
  Logger& logger;
};

/// Writes the `Error` line "source: what" where nothing may be thrown any more; the line is lost if
/// it cannot be written.
QUELLON_EXPORT void LogFailure(char const* source, char const* what) noexcept;

}  // namespace Tarvik::Ilog
