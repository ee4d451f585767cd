#include "base/Logger.h"

#include <pthread.h>

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
[[maybe_unused]] static Logger* const built = Logger::GetInstance();

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
    if (consoleSink->enabled) consoleSink->BeginLine(type);
  } catch (...) {
    fileSink->DropLine();
    throw;
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

Logger& Logger::operator<<(std::string_view text) {
  *fileSink << text;
  *consoleSink << text;
  return *this;
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
