#include "base/Logger.h"

#include <pthread.h>

#include "base/internal/Console.h"
#include "base/internal/Decimal.h"
#include "base/internal/NoDestructor.h"

namespace Tarvik::Ilog {

namespace {

template <typename Policy>
LoggerBase<Policy>* Sink() {
  static NoDestructor<LoggerBase<Policy>> sink;
  return sink.Get();
}

}  // namespace

Logger* Logger::GetInstance() {
  static NoDestructor<Logger> instance;
  return instance.Get();
}

// Built when the library is loaded: a child of a fork(2) in the middle of building it would wait
// for ever, and so would one whose own handlers for forks log before those of the logger.
[[gnu::constructor]] static void Build() {
  Logger::GetInstance();
}

Logger::Logger() : fileSink(Sink<FileLogPolicy>()), consoleSink(Sink<ConsoleLogPolicy>()) {
  static int const registered = pthread_atfork(nullptr, nullptr, &Logger::RecoverInChild);
  static_cast<void>(registered);
}

void Logger::RecoverInChild() noexcept {
  Sink<FileLogPolicy>()->RecoverInChild();
  Sink<ConsoleLogPolicy>()->RecoverInChild();
  Console::ForgetDropped();
}

// Looks for a line of this thread on both sinks before it waits for either: with a line on the
// console alone, begun while the file was disabled, it must not wait for the file, since the thread
// that has the file may wait for the console. A line on a sink disabled since is dropped first.
void Logger::BeginLine(LogType type) {
  bool const toFile = fileSink->IsEnabled();
  bool const toConsole = consoleSink->IsEnabled();
  if (!toFile) fileSink->DropLine();
  if (!toConsole) consoleSink->DropLine();
  fileSink->RequireNoLine();
  consoleSink->RequireNoLine();
  if (toFile && toConsole) {
    BeginSharedLine(type);
  } else if (toFile) {
    fileSink->BeginLine(type);
  } else if (toConsole) {
    consoleSink->BeginLine(type);
  }
}

// Where both sinks take part, the line is gathered once, in the `line` of the console, which ends
// last.
void Logger::BeginSharedLine(LogType type) {
  fileSink->JoinLine();
  try {
    consoleSink->BeginLine(type);
  } catch (...) {
    fileSink->DropLine();
    throw;
  }
  fileSink->lineLock.AssertHeld();
  consoleSink->lineLock.AssertHeld();
  fileSink->isShared = true;
  consoleSink->isShared = true;
}

// Before anything but a text, a plain number or the line's end reaches either sink, each gets the
// line as its own. This thread holds both locks.
void Logger::SeparateLines() noexcept {
  fileSink->lineLock.AssertHeld();
  consoleSink->lineLock.AssertHeld();
  fileSink->isShared = false;
  consoleSink->isShared = false;
  // Without memory nothing of the line reaches the file.
  bool const copied = fileSink->line.Append(consoleSink->line.View());
  fileSink->stream.setstate(copied ? consoleSink->stream.rdstate() : std::ios::badbit);
}

void Logger::EndLine() {
  if (EndSharedLine()) return;
  fileSink->EndLine();
  consoleSink->EndLine();
}

// False, with nothing done, where the line is no longer shared.
bool Logger::EndSharedLine() {
  if (!fileSink->IsEnabled() || !consoleSink->AppendShared("\n")) return false;
  fileSink->lineLock.AssertHeld();
  consoleSink->lineLock.AssertHeld();
  std::string_view const text = consoleSink->line.View();
  if (text.size() <= FileLogPolicy::kLongestLine) {
    fileSink->WriteLine(text);
  } else {
    SeparateLines();
    fileSink->WriteLine();  // cut
  }
  consoleSink->WriteLine(text);
  return true;
}

void Logger::Flush() {
  fileSink->Flush();
  consoleSink->Flush();
}

bool Logger::Close() noexcept {
  return fileSink->Close();
}

Logger& Logger::operator<<(char const* text) {
  if (text != nullptr) return *this << std::string_view(text);
  *fileSink << text;
  *consoleSink << text;
  return *this;
}

// `text` is what `value` looks like in a line that is shared.
template <typename Value>
Logger& Logger::Append(std::string_view text, Value const& value) {
  if (fileSink->IsEnabled() && consoleSink->AppendShared(text)) return *this;
  *fileSink << value;
  *consoleSink << value;
  return *this;
}

Logger& Logger::operator<<(std::string_view text) {
  return Append(text, text);
}

Logger& Logger::operator<<(int number) {
  return Append(Decimal(number).View(), number);
}

Logger& Logger::operator<<(unsigned long long number) {
  return Append(Decimal(number).View(), number);
}

Logger& Logger::operator<<(long const& t) {
  *fileSink << t;
  *consoleSink << t;
  return *this;
}

Logger& Logger::operator<<(std::ostream& (*manipulator)(std::ostream&)) {
  *fileSink << manipulator;
  *consoleSink << manipulator;
  return *this;
}

}  // namespace Tarvik::Ilog
