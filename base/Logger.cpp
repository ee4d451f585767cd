#include "base/Logger.h"

#include <pthread.h>

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

Logger::Logger() : fileSink(Sink<FileLogPolicy>()), consoleSink(Sink<ConsoleLogPolicy>()) {
  static int const registered = pthread_atfork(nullptr, nullptr, &Logger::RecoverInChild);
  static_cast<void>(registered);
}

void Logger::RecoverInChild() noexcept {
  Sink<FileLogPolicy>()->RecoverInChild();
  Sink<ConsoleLogPolicy>()->RecoverInChild();
}

// Looks for a line of this thread on both sinks before it waits for either: with a line on the
// console alone, begun while the file was disabled, it must not wait for the file, since the thread
// that has the file may wait for the console. A line on a sink disabled since is dropped first.
void Logger::BeginLine(LogType type) {
  if (!fileSink->enabled) fileSink->DropLine();
  if (!consoleSink->enabled) consoleSink->DropLine();
  fileSink->RequireNoLine();
  consoleSink->RequireNoLine();
  if (fileSink->enabled) fileSink->BeginLine(type);
  try {
    if (consoleSink->enabled) BeginOnConsole(type);
  } catch (...) {
    fileSink->DropLine();
    throw;
  }
}

// Where both sinks take part, the line is gathered once, in the file's `line`.
void Logger::BeginOnConsole(LogType type) {
  if (!fileSink->HoldsLine()) {
    consoleSink->BeginLine(type);
    return;
  }
  consoleSink->JoinLine(type);
  fileSink->lineLock.AssertHeld();
  fileSink->isShared = true;
}

// Before anything but a text or a plain number reaches either sink, for example its end, each gets
// the line as its own. This thread holds both locks.
void Logger::SeparateLines() noexcept {
  fileSink->lineLock.AssertHeld();
  consoleSink->lineLock.AssertHeld();
  fileSink->isShared = false;
  consoleSink->isShared = false;
  // Without memory nothing of the line reaches the console.
  if (!consoleSink->line.Append(fileSink->line.View())) {
    consoleSink->stream.setstate(std::ios::badbit);
  }
}

void Logger::EndLine() {
  fileSink->EndLine();
  consoleSink->EndLine();
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
  if (consoleSink->enabled && fileSink->AppendShared(text)) return *this;
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
