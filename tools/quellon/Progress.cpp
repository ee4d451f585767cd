#include "Progress.h"

#include <unistd.h>

#include <iostream>
#include <utility>

#include "Reading.h"
#include "Report.h"

namespace Quellon::Tool {

Progress::Progress(std::string what)
    : label(std::move(what)), isTerminal(isatty(STDOUT_FILENO) == 1) {}

Progress::~Progress() {
  if (hasLine) std::cout << std::endl;
}

void Progress::Show(std::uint64_t done, std::uint64_t all) {
  if (all == 0 || done == 0) return;
  constexpr std::uint64_t kPerCent = 100;
  constexpr std::uint64_t kTenths = 10;
  auto const now = Clock::now();
  std::uint64_t const tenth = done * kTenths / all;
  bool const isDue = isTerminal ? now - shownAt >= std::chrono::seconds(1) : tenth != shownTenth;
  if (!isDue) return;
  shownAt = now;
  shownTenth = tenth;
  std::chrono::duration<double> const passed = now - start;
  double const left = passed.count() * static_cast<double>(all - done) / static_cast<double>(done);
  std::string line = Line(label, std::to_string(done * kPerCent / all) + " %, " +
                                     ShowDuration(static_cast<long long>(left)) + " left");
  if (isTerminal) {
    line.pop_back();
    line = "\r" + line + "\x1b[K";  // the rest of a longer line goes
    hasLine = true;
  }
  std::cout << line << std::flush;
}

}  // namespace Quellon::Tool
