// How far long work is.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace Quellon::Tool {

/// Shows per cent and the time left: on a terminal in one line that is written anew each second,
/// elsewhere in a line for every 10 %.
class Progress {
 public:
  explicit Progress(std::string label);
  Progress(Progress const&) = delete;
  Progress& operator=(Progress const&) = delete;
  /// Ends the terminal's line.
  ~Progress();

  /// `done` of `all` is done. Call it as often as you like.
  void Show(std::uint64_t done, std::uint64_t all);

 private:
  using Clock = std::chrono::steady_clock;

  std::string const label;
  bool const isTerminal;
  Clock::time_point const start = Clock::now();
  Clock::time_point shownAt = start;
  std::uint64_t shownTenth = 0;
  bool hasLine = false;
};

}  // namespace Quellon::Tool
