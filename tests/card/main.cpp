#include <gtest/gtest.h>

#include "tests/card/PrivateRoot.h"

// The library exports a `main` of its own; this one goes first.
int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  CardTests::RequirePrivateRoot();
  return RUN_ALL_TESTS();
}
