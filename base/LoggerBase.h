// One sink of the log: the file, or the console.
#pragma once

#include <atomic>
#include <cstddef>
#include <ctime>
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
#include "base/LogType.h"
#include "base/Mutex.h"
#include "base/ThreadSafety.h"

namespace Tarvik::Ilog {

/// One sink of the logger. A line begins with `WriteHeader`, which takes the sink's line lock, and
/// ends with `EndLine` (or a newline and `CheckEndOfStream`), which writes it and frees the sink;
/// both on the same thread. Text for a line that was not begun is dropped. A sink that is disabled
/// in the middle of a line drops the whole line, and is free again at the line's next piece, at its
/// end, or when its thread begins another one.
///
/// Never log in a signal handler: one that interrupts a line of its own thread ends the program.
/// Set a flag there, or call write(2). A child made by fork(2) may log; a line that another thread
/// had under way is the parent's alone. It may wait for ever if another thread of the parent was
/// in a function of the C library that uses the time zone, called by the application itself: use
/// `Util::Date`. A handler of pthread_atfork(3) that runs before a fork may log only if it was
/// registered after the library was loaded.
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
  /// Where `long` has 64 bits, std::int64_t is one, too: pass numbers as `long long`. Where it has
  /// 32 and times have 64, pass a time as `Util::Date` makes it.
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

  /// If the line under way ends with a newline, or takes no more text, signals `lineReady` once,
  /// writes the line and frees the sink; otherwise does nothing.
  void CheckEndOfStream();

  /// Ends the line under way: appends a newline, unless a manipulator such as std::endl was its
  /// last piece, signals as above and writes the line. Frees the sink in every case.
  void EndLine();

  /// Waits until no line of another thread is under way.
  void Flush();

  /// Lets go of what the sink writes to, until the next line. Never waits: false, with nothing
  /// changed, while a line is under way.
  bool Close() noexcept requires requires(Policy& sinkPolicy) { sinkPolicy.Close(); };

 private:
  friend class Logger;

  // Only the owner finds its own id here, so the answer never depends on another thread's store.
  [[nodiscard]] bool HoldsLine() const noexcept {
    return lineOwner.load(std::memory_order_relaxed) == std::this_thread::get_id();
  }
  // Nothing else hangs on it that a thread must see, too, so that it needs no barriers.
  [[nodiscard]] bool IsEnabled() const noexcept { return enabled.load(std::memory_order_relaxed); }
  // True when this thread has a line under way, and so holds the lock, on a sink that is enabled.
  // The compiler takes the lock for held after the call: do nothing with the line after false.
  [[nodiscard]] bool GoesOn() noexcept QUELLON_ASSERT_CAPABILITY(lineLock);
  // The same; `stream` may be used then, and its format is forgotten at the line's end.
  [[nodiscard]] bool TakesPart() noexcept QUELLON_ASSERT_CAPABILITY(lineLock);
  void RequireNoLine() const {
    if (HoldsLine()) RefuseLine();
  }
  [[noreturn]] static void RefuseLine();
  void AppendText(std::string_view text) QUELLON_REQUIRES(lineLock);
  template <typename Number>
  void AppendNumber(Number number) QUELLON_REQUIRES(lineLock);
  void BeginLine(LogType type);
  void JoinLine();
  void KeepLine(std::unique_lock<Mutex>& lock) noexcept QUELLON_REQUIRES(lineLock);
  // False, with nothing appended, where the line is this sink's own, or there is no memory.
  [[nodiscard]] bool AppendShared(std::string_view text) noexcept {
    if (!HoldsLine()) return false;
    lineLock.AssertHeld();
    return isShared && IsEnabled() && stream.good() && line.Append(text);
  }
  void AppendTime() QUELLON_REQUIRES(lineLock);
  void AppendTemperature() QUELLON_REQUIRES(lineLock);
  void AppendTag(LogType type) QUELLON_REQUIRES(lineLock);
  [[nodiscard]] bool EndsWithNewline() const noexcept QUELLON_REQUIRES(lineLock);
  void WriteLine() QUELLON_RELEASE(lineLock);
  void WriteLine(std::string_view text) QUELLON_RELEASE(lineLock);
  void DropLine() noexcept;
  void Release() noexcept QUELLON_RELEASE(lineLock);
  // Not checked: it runs in a child's only thread.
  void RecoverInChild() noexcept QUELLON_NO_THREAD_SAFETY_ANALYSIS;
  void ForgetFormat() noexcept QUELLON_REQUIRES(lineLock);

  // Binary interface: these fields keep their order.
  Policy policy QUELLON_GUARDED_BY(lineLock);
  LineBuffer line QUELLON_GUARDED_BY(lineLock);
  std::ostream stream QUELLON_GUARDED_BY(lineLock){&line};
  Mutex lineLock;
  Interfaces::ISemaphore lineReady;
  std::atomic<std::thread::id> lineOwner;
  // The line's length when a manipulator such as std::endl last appended a newline.
  std::size_t manipulatedLength QUELLON_GUARDED_BY(lineLock) = 0;
  std::time_t stampSecond QUELLON_GUARDED_BY(lineLock) = -1;
  std::string stamp QUELLON_GUARDED_BY(lineLock);

 public:
  /// False: the sink ignores everything. Any thread may switch it. The library switches a sink off
  /// whose line could not be written, and leaves it to the application to switch it on.
  std::atomic<bool> enabled = true;

 private:
  // The line of both sinks is gathered in the console's `line`; see Logger::SeparateLines.
  bool isShared QUELLON_GUARDED_BY(lineLock) = false;
  bool isStreamUsed QUELLON_GUARDED_BY(lineLock) = false;
};

extern template class QUELLON_EXPORT LoggerBase<FileLogPolicy>;
extern template class QUELLON_EXPORT LoggerBase<ConsoleLogPolicy>;

}  // namespace Tarvik::Ilog
