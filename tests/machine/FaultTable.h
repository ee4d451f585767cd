// What comes of each call of a scenario that fails, by a table.
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

/// What comes of the failures that match a pattern of the shell, such as "stat /mnt/sdcard/ (1): *"
/// for the first such call whatever its `errno`.
struct Row {
  std::string failure;
  std::string outcome;
};

/// The outcome of a failure that does no harm.
inline constexpr char const* kNoHarm = "";

/// What each failure comes to by a table: its first row that matches decides.
class Verdicts {
 public:
  Verdicts(std::string undisturbedOutcome, std::vector<Row> const& rows)
      : undisturbed(std::move(undisturbedOutcome)), table(rows) {}
  Verdicts(Verdicts const&) = delete;
  Verdicts& operator=(Verdicts const&) = delete;
  /// A row that nothing matched says nothing.
  ~Verdicts() {
    for (auto const& row : table) EXPECT_TRUE(matched.contains(row.failure)) << row.failure;
  }

  /// A failure that matches no row may do no harm, nor may none.
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

/// `Scenario` prepares the device when it is made; its `Run` does the work, its `Outcome` tells how
/// that ended, and `undisturbed` if nothing failed. Runs it with each of its calls failing in each
/// way that the function knows.
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
