// Belongs to the programs whose tests start no thread, so that the race detector need not run them.
#include <gtest/gtest.h>
#include <sys/resource.h>

namespace {

/// Whether a thread beside the main one has run: the page faults of those that ended are counted
/// with the process's.
bool AnotherThreadHasRun() {
  rusage all{};
  rusage mine{};
  getrusage(RUSAGE_SELF, &all);
  getrusage(RUSAGE_THREAD, &mine);
  return all.ru_minflt > mine.ru_minflt;
}

class OneThread : public testing::Environment {
  void TearDown() override {
    EXPECT_FALSE(AnotherThreadHasRun())
        << "the race detector leaves this program out: quellon_starts_threads() in "
           "tests/CMakeLists.txt does not find its threads";
  }
};

auto* const oneThread = testing::AddGlobalTestEnvironment(new OneThread);

}  // namespace
