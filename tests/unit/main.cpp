// The library exports a `main` of its own, so each test program brings this one.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/machine/Machine.h"
#include "tests/support/WholeRun.h"

namespace {

/// Every test begins with the default answers and an empty device.
class FreshMachine : public testing::EmptyTestEventListener {
  void OnTestStart(testing::TestInfo const&) override { Machine::Reset(); }
  // Hooks may refer to what has gone with the test.
  void OnTestEnd(testing::TestInfo const&) override { Machine::hooks() = {}; }
};

/// The tests of the source that the program has the name of; all of them under a name of its own.
std::string TestsOf(std::filesystem::path const& program) {
  auto const& all = *testing::UnitTest::GetInstance();
  std::string tests;
  for (int number = 0; number < all.total_test_suite_count(); ++number) {
    auto const& suite = *all.GetTestSuite(number);
    for (int place = 0; place < suite.total_test_count(); ++place) {
      auto const& test = *suite.GetTestInfo(place);
      if (std::filesystem::path(test.file()).stem() != program.filename()) continue;
      tests += std::string(suite.name()) + "." + test.name() + ":";
    }
  }
  return tests.empty() ? "*" : tests;
}

}  // namespace

int main(int count, char** arguments) {
  testing::InitGoogleTest(&count, arguments);
  if (GTEST_FLAG_GET(filter) == "*") GTEST_FLAG_SET(filter, TestsOf(arguments[0]));
  testing::UnitTest::GetInstance()->listeners().Append(new FreshMachine);
  return WholeRun::OfAllTests();
}
