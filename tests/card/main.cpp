#include <gtest/gtest.h>

#include "tests/card/PrivateRoot.h"
#include "tests/support/WholeRun.h"

// The library exports a `main` of its own; this one goes first.
int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  CardTests::RequirePrivateRoot();
  return WholeRun::OfAllTests();
}
