// The library exports a `main` of its own, so each test program brings this one.
#include <gtest/gtest.h>

#include "tests/support/Interpose.h"

namespace {

/// Every test begins with the default answers and an empty device.
class FreshDevice : public testing::EmptyTestEventListener {
  void OnTestStart(testing::TestInfo const&) override { Interpose::Reset(); }
};

}  // namespace

int main(int count, char** arguments) {
  testing::InitGoogleTest(&count, arguments);
  testing::UnitTest::GetInstance()->listeners().Append(new FreshDevice);
  return RUN_ALL_TESTS();
}
