// The last lines of the log.
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <deque>
#include <iostream>
#include <optional>
#include <sstream>

#include "Command.h"
#include "Device.h"
#include "Reading.h"
#include "Report.h"
#include "Users.h"

namespace Quellon::Tool {

namespace {

constexpr std::size_t kLargest = std::size_t{2} << 20;  // each file is kept below half of that
constexpr std::size_t kUsualLines = 20;

// "[date][41C][ERROR]message": the tag follows the date, and the temperature if there is one.
bool IsErrorOrWarning(std::string_view line) {
  std::size_t const date = line.find(']');
  if (date == std::string_view::npos) return false;
  line.remove_prefix(date + 1);
  if (std::size_t const end = line.find("C]"); line.starts_with('[') && end < 6) {
    line.remove_prefix(end + 2);
  }
  return line.starts_with("[ERROR]") || line.starts_with("[WARNING]");
}

struct Choice {
  std::size_t lines = kUsualLines;
  bool errorsAlone = false;
};

std::optional<Choice> Parse(Arguments arguments) {
  Choice choice;
  choice.errorsAlone = Take(arguments, "--errors");
  if (arguments.empty()) return choice;
  if (arguments.size() != 2 || arguments[0] != "-n") return std::nullopt;
  std::string const& text = arguments[1];
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), choice.lines);
  bool const isRead = error == std::errc() && end == text.data() + text.size();
  return isRead ? std::optional(choice) : std::nullopt;
}

std::deque<std::string> LastLines(std::string const& text, Choice const& choice) {
  std::deque<std::string> last;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (choice.errorsAlone && !IsErrorOrWarning(line)) continue;
    last.push_back(line);
    if (last.size() > choice.lines) last.pop_front();
  }
  return last;
}

}  // namespace

Status RunLog(Arguments const& arguments) {
  auto const choice = Parse(arguments);
  if (!choice) return ComplainOfUsage("log");
  auto const older = ReadFile(kOlderLog, kLargest);
  auto const newer = ReadFile(kLog, kLargest);
  int const error = newer ? 0 : errno;
  for (auto const& line : LastLines(older.value_or("") + newer.value_or(""), *choice)) {
    std::cout << line << '\n';
  }
  Report report;
  Users const writers = UsersOf({kLog});
  report.Tell("written by", Show(writers));
  if (error != 0 && error != ENOENT) {
    report.Miss(std::string(kLog) + ": " + std::strerror(error));
  } else if (!newer) {
    report.Complain("there is no log", "see whether the service runs and /var/log is writable");
  } else if (writers.found.empty() && writers.isComplete) {
    report.Complain("nobody writes the log",
                    "start the service; if it runs, see whether /var/log is full or read-only");
  }
  return Print(report);
}

}  // namespace Quellon::Tool
