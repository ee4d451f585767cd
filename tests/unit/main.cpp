// The library exports a `main` of its own, so each test program brings this one.
#include <gtest/gtest.h>

#include "tests/machine/Machine.h"
#include "tests/support/WholeRun.h"

namespace {

/// Every test begins with the default answers and an empty device.
class FreshMachine : public testing::EmptyTestEventListener {
  void OnTestStart(testing::TestInfo const&) override { Machine::Reset(); }
  // Hooks may refer to what has gone with the test.
  void OnTestEnd(testing::TestInfo const&) override { Machine::hooks() = {}; }
};

}  // namespace

int main(int count, char** arguments) {
  testing::InitGoogleTest(&count, arguments);
  testing::UnitTest::GetInstance()->listeners().Append(new FreshMachine);
  return WholeRun::OfAllTests();
}
