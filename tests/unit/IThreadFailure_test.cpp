// A worker thread that fails, or that cannot be had.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

#include "base/IException.h"
#include "base/Logger.h"
#include "tests/support/Capture.h"
#include "tests/support/Gate.h"
#include "tests/support/LogFile.h"
#include "tests/support/ScriptedThread.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;

class IThreadFailure : public testing::Test {
 protected:
  void SetUp() override { LogFile::BeginAnew(); }
  void TearDown() override { ScriptedThread::Fail(0); }

  /// One start of the thread, and the lines it logged.
  std::vector<std::string> LinesOfAStart() {
    return LogFile::SplitLines(Capture::Output([this] {
      thread.Start();
      thread.Join();
    }));
  }

  ScriptedThread thread;
};

TEST_F(IThreadFailure, AnExceptionThatLeavesRunIsLoggedAndEndsTheThread) {
  thread.run = [] { throw Tarvik::IException("card gone", ENODEV); };
  EXPECT_THAT(LinesOfAStart(), ElementsAre(EndsWith("][ERROR]IThread: card gone")));
  EXPECT_THAT(thread.Events(), ElementsAre("before", "run", "after"));
}

TEST_F(IThreadFailure, AnExceptionOutsideTheStandardFamilyDoesTheSame) {
  thread.run = [] { throw 42; };
  EXPECT_THAT(LinesOfAStart(), ElementsAre(EndsWith("][ERROR]IThread: unknown exception")));
  EXPECT_THAT(thread.Events(), ElementsAre("before", "run", "after"));
}

TEST_F(IThreadFailure, AnExceptionThatLeavesTheFirstHookLeavesOutTheRun) {
  thread.runBefore = [] { throw std::runtime_error("not ready"); };
  EXPECT_THAT(LinesOfAStart(), ElementsAre(EndsWith("][ERROR]IThread: not ready")));
  EXPECT_THAT(thread.Events(), ElementsAre("before", "after"));
}

TEST_F(IThreadFailure, AnExceptionThatLeavesTheLastHookEndsTheThreadOnly) {
  thread.run = [this] { thread.Cancel(); };
  thread.runAfter = [] { throw std::runtime_error("not tidy"); };
  EXPECT_THAT(LinesOfAStart(), ElementsAre(EndsWith("][ERROR]IThread: not tidy")));
  EXPECT_THAT(thread.Events(), ElementsAre("before", "run", "after"));
}

TEST_F(IThreadFailure, EachExceptionHasItsLine) {
  thread.run = [] { throw std::runtime_error("first"); };
  thread.runAfter = [] { throw std::runtime_error("second"); };
  EXPECT_THAT(LinesOfAStart(), ElementsAre(EndsWith("first"), EndsWith("second")));
}

TEST_F(IThreadFailure, StartsAgainAfterAnException) {
  thread.run = [this] {
    if (thread.Count("run") == 1) throw std::runtime_error("once");
    thread.Cancel();
  };
  EXPECT_EQ(LinesOfAStart().size(), 1U);
  EXPECT_EQ(LinesOfAStart().size(), 0U);
  EXPECT_THAT(thread.Events(), ElementsAre("before", "run", "after", "before", "run", "after"));
}

TEST_F(IThreadFailure, AStartAfterAnExceptionIsNotLostWhileTheThreadEnds) {
  Gate gate;
  thread.run = [this] {
    if (thread.Count("run") == 1) throw std::runtime_error("once");
    thread.Cancel();
  };
  thread.runAfter = [&] {
    if (thread.Count("after") > 1) return;
    gate.Wait();
  };
  Capture::Output([&] {
    thread.Start();
    gate.AwaitThread();
    thread.Start();
    gate.Open();
    thread.Join();
  });
  EXPECT_EQ(thread.Count("run"), 2);
}

TEST_F(IThreadFailure, AnExceptionInTheLastPassEndsItOnce) {
  thread.run = [this] {
    thread.Cancel();
    throw std::runtime_error("too late");
  };
  EXPECT_EQ(LinesOfAStart().size(), 1U);
  EXPECT_THAT(thread.Events(), ElementsAre("before", "run", "after"));
}

TEST_F(IThreadFailure, AStartInAPassThatThenFailsIsNotLost) {
  thread.run = [this] {
    thread.Cancel();
    if (thread.Count("run") > 1) return;
    thread.Start();
    throw std::runtime_error("once");
  };
  EXPECT_EQ(LinesOfAStart().size(), 1U);
  EXPECT_EQ(thread.Count("run"), 2);
}

TEST_F(IThreadFailure, AnExceptionThatCannotBeLoggedIsNoHarm) {
  auto& logger = *Tarvik::Ilog::Logger::GetInstance();
  thread.run = [&] {
    logger.BeginLine(Tarvik::Ilog::Info);
    logger << "a line under way";
    throw std::runtime_error("in the middle of a line");
  };
  thread.runAfter = [&] { logger.EndLine(); };
  EXPECT_THAT(LinesOfAStart(), ElementsAre(EndsWith("]a line under way")));
  EXPECT_TRUE(LogFile::IsFree(*logger.fileSink));
}

TEST_F(IThreadFailure, AStartWithoutAThreadThrowsAndLeavesTheObjectIdle) {
  thread.run = [this] { thread.Cancel(); };
  ScriptedThread::Fail(EAGAIN);
  try {
    thread.Start();
    FAIL() << "started without a thread";
  } catch (std::system_error const& e) {
    EXPECT_EQ(e.code(), std::errc::resource_unavailable_try_again);
  }
  thread.Join();
  EXPECT_EQ(ScriptedThread::Created(), 0);
  ScriptedThread::Fail(0);
  thread.Start();
  thread.Join();
  EXPECT_THAT(thread.Events(), ElementsAre("before", "run", "after"));
}

TEST_F(IThreadFailure, ARestartWithoutAThreadThrowsToo) {
  thread.run = [this] { thread.Cancel(); };
  LinesOfAStart();
  ScriptedThread::Fail(EAGAIN);
  EXPECT_THROW(thread.Start(), std::system_error);
  thread.Cancel();
  thread.Join();
  EXPECT_EQ(thread.Count("run"), 1);
}

}  // namespace
