// Tests of what a process has once: singletons, the buffering of standard output.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>

namespace ChildProcess {

/// Does `work` in a copy of this process. What it changes goes with the copy; a failed expectation
/// in it fails the test.
template <typename Work>
void Run(Work work) {
  auto const copy = [&] {
    work();
    std::exit(testing::Test::HasFailure() ? 1 : 0);
  };
  EXPECT_EXIT(copy(), testing::ExitedWithCode(0), "");
}

}  // namespace ChildProcess
