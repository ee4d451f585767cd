// What another process sees of the log: its order among the program's other output, and what is
// left of it when the program dies.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <regex>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "base/Date.h"
#include "base/Logger.h"
#include "tests/support/Capture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Gate.h"
#include "tests/support/LogFile.h"
#include "tests/support/Scoped.h"

namespace {

using ChildProcess::EndInTime;
using ChildProcess::Outcome;
using ChildProcess::ThroughPipe;
using LogFile::kHeader;
using Tarvik::Ilog::Error;
using Tarvik::Ilog::Info;
using Tarvik::Ilog::LogLine;
using testing::EndsWith;
using testing::MatchesRegex;

// What a child does first. Applications register such handlers before they log for the first time.
void (*firstInChild)();

void DoFirstInChild() {
  if (firstInChild != nullptr) firstInChild();
}

[[maybe_unused]] int const registered = pthread_atfork(nullptr, nullptr, &DoFirstInChild);

class LoggerProcess : public testing::Test {
 protected:
  void SetUp() override {
    LogFile::BeginAnew();
    Machine::hooks().now = 1614877509;  // each sink takes the time for itself
  }
};

TEST_F(LoggerProcess, APipeHasAllLinesInTheOrderOfTheProgram) {
  auto const [output, status] = ThroughPipe([] {
    std::cout << "1 cout\n";
    std::puts("2 puts");
    LogLine(Info) << "3 log";
    std::printf("4 printf\n");
    LogLine(Error) << "5 log";
    std::cout << "6 cout" << std::endl;
    std::puts("7 puts");
    std::cout << "8 cout\n";
    std::printf("9 printf\n");
    LogLine(Info) << "10 log";
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(std::regex_replace(output, std::regex(kHeader), "*"),
            "1 cout\n2 puts\n*3 log\n4 printf\n*[ERROR]5 log\n6 cout\n7 puts\n8 cout\n9 printf\n"
            "*10 log\n");
}

TEST_F(LoggerProcess, OneByteThatWasPrintedComesBeforeTheNextLine) {
  auto const [output, status] = ThroughPipe([] {
    std::putchar('x');
    LogLine(Info) << "log";
  });
  EXPECT_EQ(status, 0);
  EXPECT_THAT(output, MatchesRegex("x" + kHeader + "log\n"));
}

TEST_F(LoggerProcess, ACompletedLineSurvivesAKillRightAfterIt) {
  auto const [output, status] = ThroughPipe([] {
    std::puts("before");
    LogLine(Info) << "the last line";
    kill(getpid(), SIGKILL);
  });
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
  EXPECT_THAT(LogFile::Text(), MatchesRegex(kHeader + "the last line\n"));
  EXPECT_EQ(output, "before\n" + LogFile::Text());
}

TEST_F(LoggerProcess, AnUnfinishedLineDoesNotSurviveAKillInHalves) {
  auto const [output, status] = ThroughPipe([] {
    LogLine(Info) << "whole";
    LogLine line(Info);
    line << "half";
    kill(getpid(), SIGKILL);
  });
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_THAT(LogFile::Text(), EndsWith("]whole\n"));
  EXPECT_EQ(output, LogFile::Text());
}

TEST_F(LoggerProcess, StaticObjectsMayLogWhileTheProgramEnds) {
  auto const [output, status] = ThroughPipe([] {
    LogLine(Info) << "running";
    struct Late {
      ~Late() {
        LogLine(Info) << "ending";
        _exit(7);
      }
    };
    static Late const late;
    std::exit(0);
  });
  EXPECT_EQ(WEXITSTATUS(status), 7);
  EXPECT_THAT(output, EndsWith("]ending\n"));
  EXPECT_EQ(output, LogFile::Text());
}

/// Another thread in the middle of a line on both sinks, as long as the object lives.
class LineUnderWay {
 public:
  LineUnderWay() { gate.AwaitThread(); }
  LineUnderWay(LineUnderWay const&) = delete;
  LineUnderWay& operator=(LineUnderWay const&) = delete;
  ~LineUnderWay() {
    gate.Open();
    thread.join();
  }

 private:
  Gate gate;
  std::thread thread{[this] {
    LogLine line(Info);
    line << "the parent's " << std::string(1000, 'x');
    gate.Wait();
    line << " line";
  }};
};

TEST_F(LoggerProcess, AChildLogsWhileAnotherThreadOfItsParentIsInTheMiddleOfALine) {
  Outcome outcome;
  std::string const parents = Capture::Output([&] {
    LineUnderWay const line;
    outcome = ThroughPipe([] {
      EndInTime();
      LogLine(Info) << "one";
      LogLine(Error) << "two";
    });
  });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output, MatchesRegex(kHeader + "one\n" + kHeader + "\\[ERROR\\]two\n"));
  EXPECT_TRUE(std::regex_match(parents, std::regex(kHeader + "the parent's x{1000} line\n")));
  EXPECT_EQ(LogFile::Text(), outcome.output + parents);
}

TEST_F(LoggerProcess, AHandlerForForksLogsWhileAnotherThreadIsInTheMiddleOfALine) {
  Scoped::AtEnd const none([] { firstInChild = nullptr; });
  Outcome outcome;
  Capture::Output([&] {
    LineUnderWay const line;
    firstInChild = [] {
      EndInTime();
      LogLine(Info) << "forked";
    };
    outcome = ThroughPipe([] {});
  });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(LogFile::Text(), testing::ContainsRegex(kHeader + "forked\n"));
}

TEST_F(LoggerProcess, ALineDoesNotWaitForAThreadThatHasTheStreamOfStandardOutput) {
  Gate gate;
  std::thread thread([&] {
    flockfile(stdout);
    gate.Wait();
    funlockfile(stdout);
  });
  gate.AwaitThread();
  EndInTime();
  LogLine(Info) << "one";
  alarm(0);
  gate.Open();
  thread.join();
  EXPECT_THAT(LogFile::Text(), MatchesRegex(kHeader + "one\n"));
}

TEST_F(LoggerProcess, AChildKeepsASinkSwitchedOffThatAnotherThreadOfItsParentHas) {
  auto& file = *Tarvik::Ilog::Logger::GetInstance()->fileSink;
  Capture::Output([&] {
    LineUnderWay const line;
    file.enabled = false;
    auto const [output, status] = ThroughPipe([&] {
      EndInTime();
      LogLine(Info) << "console only";
      file.enabled = true;
      LogLine(Info) << "both";
    });
    file.enabled = true;
    EXPECT_EQ(status, 0);
    EXPECT_EQ(LogFile::SplitLines(output).size(), 2U);
    EXPECT_THAT(LogFile::Text(), MatchesRegex(kHeader + "both\n"));
  });
}

TEST_F(LoggerProcess, ALineUnderWayOnTheForkingThreadGoesOnInBoth) {
  Outcome child;
  std::string const parent = Capture::Output([&] {
    LogLine line(Info);
    line << "begun";
    child = ThroughPipe([&] {
      EndInTime();
      line << " in the child";
      Tarvik::Ilog::Logger::GetInstance()->EndLine();
    });
    line << " in the parent";
  });
  EXPECT_EQ(child.status, 0);
  EXPECT_THAT(child.output, EndsWith("]begun in the child\n"));
  EXPECT_THAT(parent, EndsWith("]begun in the parent\n"));
  EXPECT_EQ(LogFile::Text(), child.output + parent);
}

TEST_F(LoggerProcess, AChildSharesNoDescriptorOfTheLogWithItsParent) {
  Descriptors::Watch const watch;
  Capture::Output([] { LogLine(Info) << "the parent's"; });
  ASSERT_EQ(watch.Opened().size(), 1U);
  int const file = watch.Opened().front();
  ChildProcess::Run([file] { EXPECT_LT(fcntl(file, F_GETFD), 0); });
}

TEST_F(LoggerProcess, AChildHasDatesThoughAnotherThreadWasLongAboutOne) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the race detector misses the parent's thread in the child";
#endif
  std::atomic<bool> calendarIsSlow = true;
  std::binary_semaphore calendarIsAsked{0};
  Machine::hooks().localTime = [&] {
    if (!calendarIsSlow.exchange(false)) return;
    calendarIsAsked.release();
    poll(nullptr, 0, 50);  // as a thread that is not given the processor: slept for real
  };
  std::thread other([] { Tarvik::Util::Date(0, "%Y"); });
  calendarIsAsked.acquire();
  pid_t const child = ChildProcess::Start([] {
    EndInTime();
    Tarvik::Util::Date(0, "%Y");
    return 0;
  });
  other.join();
  EXPECT_EQ(ChildProcess::Wait(child), 0);
}

TEST_F(LoggerProcess, NoChildHangsWhateverOtherThreadsLogMeanwhile) {
  constexpr int kChildren = 100;
  Machine::hooks().now.reset();
  std::atomic<bool> stop = false;
  Capture::Output([&] {
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&] {
        for (long t = 0; !stop; ++t) LogLine(Info) << t << " " << t << 0.5;
      });
    }
    for (int i = 0; i < kChildren && !HasFailure(); ++i) {
      pid_t const child = ChildProcess::Start([] {
        EndInTime();
        LogLine(Info) << "child " << 5L;
        return 0;
      });
      EXPECT_EQ(ChildProcess::Wait(child), 0);
    }
    stop = true;
    for (auto& thread : threads) thread.join();
  });
}

}  // namespace
