// Runs the tests of a program, all of them.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

namespace WholeRun {

/// The program's exit status. It is a failure, too, when the filter leaves no test, or when a test
/// or the library ends the program, whatever status it ends with.
inline int OfAllTests() {
  static bool isOver = false;
  static pid_t const program = getpid();  // children that a test made end as they like
  std::atexit([] {
    if (isOver || getpid() != program) return;
    std::cerr << "ended in the middle of its tests" << std::endl;
    _exit(EXIT_FAILURE);
  });
  int const status = RUN_ALL_TESTS();
  isOver = true;
  if (testing::UnitTest::GetInstance()->test_to_run_count() != 0) return status;
  std::cerr << "no test to run" << std::endl;
  return EXIT_FAILURE;
}

}  // namespace WholeRun
