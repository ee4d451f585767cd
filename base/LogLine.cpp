#include "base/LogLine.h"

#include "base/Logger.h"

namespace Tarvik::Ilog {

LogLine::LogLine(LogType type) : logger(*Logger::GetInstance()) {
  logger.BeginLine(type);
}

LogLine::~LogLine() {
  logger.EndLine();
}

LogLine& LogLine::operator<<(std::ostream& (*manipulator)(std::ostream&)) {
  logger << manipulator;
  return *this;
}

void LogFailure(char const* source, char const* what) noexcept {
  try {
    LogLine(Error) << source << ": " << what;
  } catch (...) {  // NOLINT(bugprone-empty-catch): there is nowhere left to tell it
  }
}

}  // namespace Tarvik::Ilog
