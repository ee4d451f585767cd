// Runs a scenario with every one of its calls failing in turn and compares how each run ended with
// a table.
#pragma once

#include <fnmatch.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Descriptors.h"
#include "tests/support/FailingCalls.h"
#include "tests/support/Interpose.h"

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

  /// A failure that matches no row may do no harm.
  std::string Of(std::string const& failure) {
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

/// How a run with a failing call went.
struct Trial {
  std::string outcome;
  std::string failure;  ///< the call that failed and how; empty if there were fewer calls
  bool hasMoreWays = false;
};

/// The call of that number, counted from 1, fails in the way of that number.
template <typename Scenario>
Trial RunOnce(int call, std::size_t way) {
  Interpose::Reset();
  Scenario scenario;
  Descriptors::Watch const descriptors;
  Trial trial;
  {
    FailingCalls::Plan const plan(call, way);
    scenario.Run();
    trial.failure = plan.Struck();
    trial.hasMoreWays = plan.HasMoreWays();
  }
  EXPECT_THAT(descriptors.Opened(), testing::IsEmpty()) << trial.failure;
  trial.outcome = scenario.Outcome();
  return trial;
}

/// `Scenario` prepares the device when it is made; its `Run` does the work, its `Outcome` tells how
/// that ended, and `undisturbed` if nothing failed. Runs it with the first, second, third ... call
/// failing in each way that the function knows, until a run in which none does. Reports how many
/// failures were tried.
template <typename Scenario>
void Try(std::string const& undisturbed, std::vector<Row> const& table) {
  Verdicts verdicts(undisturbed, table);
  int tried = 0;
  std::size_t way = 0;
  for (int call = 1;;) {
    Trial const trial = RunOnce<Scenario>(call, way);
    if (trial.failure.empty()) {
      EXPECT_EQ(trial.outcome, undisturbed);
      break;
    }
    EXPECT_EQ(trial.outcome, verdicts.Of(trial.failure)) << trial.failure;
    ++tried;
    way = trial.hasMoreWays ? way + 1 : 0;
    if (way == 0) ++call;
  }
  testing::Test::RecordProperty("faults_tried", tried);
  std::cout << "[  FAULTS  ] " << tried << " tried" << std::endl;
  EXPECT_GT(tried, 0);
}

}  // namespace FaultTable
