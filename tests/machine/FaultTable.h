// A table of the outcomes of a scenario, one for each of its calls that fails.
#pragma once

#include <fnmatch.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/machine/Failures.h"
#include "tests/support/Descriptors.h"

namespace FaultTable {

/// The outcome of failures that match a pattern of the shell: "stat /mnt/sdcard/ (1): *" is the
/// first such call, whatever its `errno`.
struct Row {
  std::string failure;
  std::string outcome;
};

/// Stands for the outcome that the scenario has without a failure.
inline constexpr char const* kNoHarm = "";

/// The expected outcome of each failure: that of the table's first row that matches.
class Verdicts {
 public:
  Verdicts(std::string undisturbedOutcome, std::vector<Row> const& rows)
      : undisturbed(std::move(undisturbedOutcome)), table(rows) {}
  Verdicts(Verdicts const&) = delete;
  Verdicts& operator=(Verdicts const&) = delete;
  /// Fails for a row that no failure matched: it is out of date.
  ~Verdicts() {
    for (auto const& row : table) EXPECT_TRUE(matched.contains(row.failure)) << row.failure;
  }

  /// The expected outcome; that of an undisturbed run for no failure, or one that matches no row.
  std::string Of(std::string const& failure) {
    if (failure.empty()) return undisturbed;
    for (auto const& row : table) {
      if (fnmatch(row.failure.c_str(), failure.c_str(), 0) != 0) continue;
      matched.insert(row.failure);
      return row.outcome == kNoHarm ? undisturbed : row.outcome;
    }
    return undisturbed;
  }

 private:
  std::string undisturbed;
  std::vector<Row> const& table;
  std::set<std::string> matched;
};

/// `Scenario` prepares the device when it is made, `Run` does the work, and `Outcome` tells how it
/// ended: with `undisturbed` if nothing failed. Runs it with each of its calls failing in each of
/// the ways that Failures.cpp lists for the function.
template <typename Scenario>
void Try(std::string const& undisturbed, std::vector<Row> const& table) {
  Verdicts verdicts(undisturbed, table);
  Machine::ForEachFailure([&](Machine::Point const& point) {
    Machine::Reset();
    Scenario scenario;
    Descriptors::Watch const descriptors;
    Machine::Strike strike = false;
    std::string failure;
    {
      Machine::FailingCalls const failing({point});
      scenario.Run();
      failure = failing.Text();
      strike = failing.Result();
    }
    EXPECT_THAT(descriptors.Opened(), testing::IsEmpty()) << failure;
    EXPECT_EQ(scenario.Outcome(), verdicts.Of(failure)) << failure;
    return strike;
  });
}

}  // namespace FaultTable
