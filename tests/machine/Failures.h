// A scenario with every one of its calls, or of its allocations, failing in turn.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
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

/// In how many ways each call of a run can fail, in the order of the calls.
using Ways = std::vector<std::size_t>;

/// While one exists, the calls of those points fail, which are in the order of their numbers. Only
/// calls about the device count: its paths and whatever was opened by them, commands, requests,
/// pauses. Keeps the other hooks, which answer the calls that do not fail, and takes them all back
/// at its end.
class FailingCalls {
 public:
  explicit FailingCalls(std::vector<Point> failing);
  FailingCalls(FailingCalls const&) = delete;
  FailingCalls& operator=(FailingCalls const&) = delete;
  ~FailingCalls() { hooks() = {}; }

  /// The calls that failed and how, such as "access /dev/mmcblk1 (2): EIO" for the second such
  /// call, with ", then " between them; empty if there were fewer calls.
  [[nodiscard]] std::string const& Text() const { return text; }

  /// What came of the last point.
  [[nodiscard]] Strike Result() const { return {failed == points.size(), moreWays}; }

  /// Those of the calls until now.
  [[nodiscard]] Ways const& WaysOfCalls() const { return ways; }

 private:
  std::optional<Failure> Next(Call const& call);

  std::vector<Point> points;
  std::size_t failed = 0;
  Ways ways;
  std::map<std::string, int> calls;
  std::string text;
  bool moreWays = false;
};

/// Calls `run` without a failure, with each one, and then with pairs of them: calls that both come
/// in one run, the second as the failure of the first leaves it. `run` returns the ways of its
/// calls. QUELLON_PAIRS says how many pairs, or else `usual`, and QUELLON_SEED which; more than
/// there are is each once. Ends with the first run that fails the test.
void ForPairsOfFailures(std::function<Ways(std::vector<Point> const&)> const& run,
                        std::size_t usual);

}  // namespace Machine
