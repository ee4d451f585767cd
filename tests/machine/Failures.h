// A scenario with every one of its calls, or of its allocations, failing in turn.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "tests/machine/Machine.h"

namespace Machine {

/// What fails in a run: the number of the call or allocation, from 1, and which of its possible
/// failures that is, from 0.
struct Point {
  int number = 1;
  std::size_t way = 0;
};

/// Whether a run reached its `Point`.
struct Strike {
  Strike(bool hasHappened, bool hasMoreWays = false)
      : happened(hasHappened), moreWays(hasMoreWays) {}

  bool happened;  ///< false: there was no such call or allocation
  bool moreWays;  ///< whether it can fail in yet another way
};

/// Calls `run` with one point after the other, until a run that does not reach its point; `run`
/// returns whether it did. Reports how many failures were tried.
template <typename Run>
void ForEachFailure(Run run) {
  int tried = 0;
  for (Point point;; ++tried) {
    SCOPED_TRACE("failure " + std::to_string(point.number) + ", way " + std::to_string(point.way));
    Strike const strike = run(point);
    if (!strike.happened) break;
    point = strike.moreWays ? Point{point.number, point.way + 1} : Point{point.number + 1, 0};
  }
  testing::Test::RecordProperty("failures_tried", tried);
  std::cout << "[ FAILURES ] " << tried << " tried" << std::endl;
  EXPECT_GT(tried, 0);
}

/// While one exists, the call of that point fails. Only calls about the device count: its paths and
/// whatever was opened by them, commands, requests, pauses. Keeps the other hooks, which answer the
/// calls that do not fail, and takes them all back at its end.
class FailingCall {
 public:
  explicit FailingCall(Point const& failing);
  FailingCall(FailingCall const&) = delete;
  FailingCall& operator=(FailingCall const&) = delete;
  ~FailingCall() { hooks() = {}; }

  /// The call that failed and how, such as "access /dev/mmcblk1 (2): EIO" for the second such call;
  /// empty if there were fewer calls.
  [[nodiscard]] std::string const& Text() const { return text; }

  [[nodiscard]] Strike Result() const { return {!text.empty(), moreWays}; }

 private:
  std::optional<Failure> Next(Call const& call);

  Point point;
  int left;
  std::map<std::string, int> calls;
  std::string text;
  bool moreWays = false;
};

}  // namespace Machine
