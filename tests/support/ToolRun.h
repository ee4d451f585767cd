// The technician's command, run in the test's own process.
#pragma once

#include <string>
#include <utility>

#include "tests/support/Capture.h"
#include "tools/quellon/Command.h"

/// What a run of the command printed, and its exit code.
struct ToolRun {
  /// `arguments` are those behind "quellon".
  explicit ToolRun(Quellon::Tool::Arguments const& arguments) {
    output = Capture::AllOutput([&] { status = Quellon::Tool::Run(arguments); });
  }

  /// Whether there is a line with this label, and this text behind it.
  [[nodiscard]] bool Shows(std::string const& label, std::string const& text) const {
    std::size_t const begin = ("\n" + output).find("\n" + label + " ");
    if (begin == std::string::npos) return false;
    for (std::size_t line = begin; line < output.size();) {
      std::size_t const end = output.find('\n', line);
      std::string const shown = output.substr(line, end - line);
      bool const hasLabel = shown.starts_with(label + " ");
      if (hasLabel && shown.substr(shown.find_first_not_of(' ', label.size())) == text) return true;
      if (end == std::string::npos) break;
      line = end + 1;
    }
    return false;
  }

  Quellon::Tool::Status status{};
  std::string output;
};
