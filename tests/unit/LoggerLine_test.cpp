// The life of a line on its sinks: header, lock, text, end, signal, release.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "base/Logger.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/Gate.h"
#include "tests/support/LogFile.h"

namespace {

using LogFile::FileSink;
using LogFile::kHeader;
using Tarvik::Ilog::Info;
using Tarvik::Ilog::Logger;
using Tarvik::Ilog::LogLine;
using testing::EndsWith;
using testing::IsEmpty;
using testing::MatchesRegex;

std::mutex signalsMutex;
std::vector<sem_t const*> signals;  // the semaphores signalled, in order

class LoggerLine : public testing::Test {
 protected:
  void SetUp() override {
    LogFile::BeginAnew();
    signals.clear();
    Machine::hooks().raiseSemaphore = [](sem_t const* semaphore) {
      std::lock_guard const lock(signalsMutex);
      signals.push_back(semaphore);
    };
  }

  template <typename Sink>
  static bool SignalledBy(Sink const& sink, void const* semaphore) {
    auto const* const begin = reinterpret_cast<char const*>(&sink);
    return semaphore >= begin && semaphore < begin + sizeof(sink);
  }

  static inline Logger& logger = *Logger::GetInstance();
};

TEST_F(LoggerLine, SignalsEachSinkOnceTheFileFirst) {
  Capture::Output([] { LogLine(Info) << "text"; });
  ASSERT_EQ(signals.size(), 2U);
  EXPECT_TRUE(SignalledBy(*logger.fileSink, signals[0]));
  EXPECT_TRUE(SignalledBy(*logger.consoleSink, signals[1]));
}

TEST_F(LoggerLine, TheWriterTakesEverySignal) {
  Capture::Output([] { LogLine(Info) << "text"; });
  ASSERT_EQ(signals.size(), 2U);
  for (sem_t const* const signal : signals) {
    int count = -1;
    EXPECT_EQ(sem_getvalue(const_cast<sem_t*>(signal), &count), 0);
    EXPECT_EQ(count, 0);
  }
}

TEST_F(LoggerLine, SignalsOnlyAtItsNewline) {
  FileSink sink;
  sink.CheckEndOfStream();
  sink.WriteHeader(Info);
  sink.CheckEndOfStream();
  sink << "text";
  sink.CheckEndOfStream();
  sink << "\nmore";
  sink.CheckEndOfStream();
  EXPECT_THAT(signals, IsEmpty());
  EXPECT_EQ(LogFile::Text(), "");
  sink << "\n";
  EXPECT_THAT(signals, IsEmpty());
  sink.CheckEndOfStream();
  EXPECT_EQ(signals.size(), 1U);
  sink.CheckEndOfStream();
  EXPECT_EQ(signals.size(), 1U);
  EXPECT_THAT(LogFile::Text(), EndsWith("]text\nmore\n"));
}

TEST_F(LoggerLine, StaysOpenUntilItsNewline) {
  FileSink sink;
  sink.WriteHeader(Info);
  sink << "text";
  sink.CheckEndOfStream();
  std::atomic<bool> through = false;
  std::thread other([&] {
    sink.WriteHeader(Info);
    through = true;
    sink.EndLine();
  });
  EXPECT_TRUE(LogFile::IsTakenBeforeLong(sink, [&] {
    EXPECT_FALSE(through);
    sink.EndLine();
  }));
  other.join();
  EXPECT_TRUE(through);
}

TEST_F(LoggerLine, TakesTextFromItsOwnThreadOnly) {
  FileSink sink;
  sink.WriteHeader(Info);
  std::thread([&] {
    sink << "foreign" << 0L << 17;
    sink << "\n";
    sink.CheckEndOfStream();
    sink.EndLine();
  }).join();
  sink << "own";
  sink.EndLine();
  EXPECT_THAT(LogFile::Text(), EndsWith("]own\n"));
  EXPECT_EQ(LogFile::SplitLines(LogFile::Text()).size(), 1U);
}

TEST_F(LoggerLine, IsCompletedByItsOwnThreadOnly) {
  FileSink sink;
  sink.WriteHeader(Info);
  sink << "own\n";
  std::thread([&] { sink.CheckEndOfStream(); }).join();
  EXPECT_THAT(signals, IsEmpty());
  EXPECT_EQ(LogFile::Text(), "");
  sink.CheckEndOfStream();
  EXPECT_THAT(LogFile::Text(), EndsWith("]own\n"));
}

TEST_F(LoggerLine, IsOverAfterItsEnd) {
  FileSink sink;
  sink.EndLine();
  sink << "before any header";
  sink.WriteHeader(Info);
  sink << "line";
  sink.EndLine();
  sink << "after the end";
  sink.EndLine();
  EXPECT_THAT(LogFile::Text(), EndsWith("]line\n"));
  EXPECT_EQ(signals.size(), 1U);
}

TEST_F(LoggerLine, ASecondHeaderOnTheSameThreadIsAnError) {
  FileSink sink;
  sink.WriteHeader(Info);
  sink << "first";
  try {
    sink.WriteHeader(Info);
    FAIL() << "a line within a line";
  } catch (std::system_error const& e) {
    EXPECT_EQ(e.code(), std::errc::resource_deadlock_would_occur);
  }
  sink << " goes on";
  sink.EndLine();
  EXPECT_THAT(LogFile::Text(), EndsWith("]first goes on\n"));
  EXPECT_TRUE(LogFile::IsFree(sink));
}

TEST_F(LoggerLine, ALineWithinALineIsAnErrorAndLeavesNothingLocked) {
  std::string const console = Capture::Output([] {
    LogLine outer(Info);
    outer << "outer";
    EXPECT_THROW(LogLine(Info) << "inner", std::system_error);
    outer << " goes on";
  });
  EXPECT_THAT(console, EndsWith("]outer goes on\n"));
  EXPECT_EQ(console, LogFile::Text());
  EXPECT_TRUE(LogFile::IsFree());
}

TEST_F(LoggerLine, ALineOnOneSinkAloneRulesOutASecondOneOnBoth) {
  std::string const console = Capture::Output([] {
    logger.fileSink->enabled = false;
    LogLine outer(Info);
    logger.fileSink->enabled = true;
    EXPECT_THROW(LogLine(Info) << "inner", std::system_error);
    EXPECT_TRUE(LogFile::IsFree(*logger.fileSink));
    outer << "outer";
  });
  EXPECT_THAT(console, EndsWith("]outer\n"));
  EXPECT_EQ(LogFile::Text(), "");
  EXPECT_TRUE(LogFile::IsFree());
}

// The thread below would wait for the file, and the one that has the file for the console.
TEST_F(LoggerLine, ASecondLineIsRefusedBeforeItWaitsForAnybody) {
  Capture::Output([] {
    logger.consoleSink->WriteHeader(Info);
    std::thread other([] { LogLine(Info) << "has the file, waits for the console"; });
    EXPECT_TRUE(LogFile::IsTakenBeforeLong(*logger.fileSink, [] {
      EXPECT_THROW(logger.BeginLine(Info), std::system_error);
      logger.consoleSink->EndLine();
    }));
    other.join();
  });
  EXPECT_TRUE(LogFile::IsFree());
}

TEST_F(LoggerLine, WithBothSinksDisabledNothingHappens) {
  LogFile::Enable(false, false);
  EXPECT_EQ(Capture::Output([] {
              LogLine(Info) << "text" << 1 << 2L;
              logger.BeginLine(Info);
              logger << "text" << std::endl;
              logger.EndLine();
            }),
            "");
  EXPECT_EQ(LogFile::Text(), "");
  EXPECT_THAT(signals, IsEmpty());
}

TEST_F(LoggerLine, EachSinkIsEnabledForItself) {
  logger.fileSink->enabled = false;
  EXPECT_THAT(Capture::Output([] { LogLine(Info) << "console" << 1 << std::string("!"); }),
              EndsWith("]console1!\n"));
  EXPECT_EQ(LogFile::Text(), "");
  LogFile::Enable(true, false);
  EXPECT_EQ(Capture::Output([] { LogLine(Info) << "file" << 1 << std::string("!"); }), "");
  EXPECT_THAT(LogFile::Text(), EndsWith("]file1!\n"));
  EXPECT_EQ(signals.size(), 2U);
}

TEST_F(LoggerLine, ASinkWrittenToByItselfBetweenTwoPiecesHasThemAllInTheirOrder) {
  std::string const console = Capture::Output([] {
    logger.BeginLine(Info);
    logger << "one " << 2;
    *logger.fileSink << " file";
    logger << " three " << 4ULL;
    *logger.consoleSink << " console";
    logger << " five";
    logger.EndLine();
  });
  EXPECT_THAT(LogFile::Text(), MatchesRegex(kHeader + "one 2 file three 4 five\n"));
  EXPECT_THAT(console, MatchesRegex(kHeader + "one 2 three 4 console five\n"));
}

TEST_F(LoggerLine, EndedOnOneSinkItGoesOnOnTheOther) {
  std::string const console = Capture::Output([] {
    logger.BeginLine(Info);
    logger << "both";
    logger.fileSink->EndLine();
    logger << " console";
    logger.consoleSink->EndLine();
    logger.BeginLine(Info);
    logger << "both";
    logger.consoleSink->EndLine();
    logger << " file";
    logger.fileSink->EndLine();
  });
  EXPECT_THAT(LogFile::Text(), MatchesRegex(kHeader + "both\n" + kHeader + "both file\n"));
  EXPECT_THAT(console, MatchesRegex(kHeader + "both console\n" + kHeader + "both\n"));
  EXPECT_TRUE(LogFile::IsFree());
}

TEST_F(LoggerLine, ASinkDisabledInTheMiddleLeavesTheOtherTheWholeLine) {
  EXPECT_THAT(Capture::Output([] {
                LogLine line(Info);
                line << "one ";
                LogFile::Enable(false, true);
                line << "two";
              }),
              MatchesRegex(kHeader + "one two\n"));
  EXPECT_EQ(LogFile::Text(), "");
  EXPECT_EQ(Capture::Output([] {
              LogFile::Enable(true, true);
              LogLine line(Info);
              line << "one ";
              LogFile::Enable(true, false);
              line << "two";
            }),
            "");
  EXPECT_THAT(LogFile::Text(), MatchesRegex(kHeader + "one two\n"));
  EXPECT_TRUE(LogFile::IsFree());
}

TEST_F(LoggerLine, ItsTextIsOfTheLinesOwnThreadOnlyOnBothSinks) {
  std::string const console = Capture::Output([] {
    LogLine line(Info);
    line << "own";
    std::thread([] { logger << "another's" << 7; }).join();
  });
  EXPECT_THAT(console, MatchesRegex(kHeader + "own\n"));
  EXPECT_EQ(console, LogFile::Text());
}

TEST_F(LoggerLine, ADisabledSinkTakesNoLock) {
  FileSink sink;
  sink.WriteHeader(Info);
  sink << "under way";
  sink.enabled = false;
  EXPECT_TRUE(LogFile::AnotherThreadGetsThrough([&sink] {
    sink.WriteHeader(Info);
    sink << "dropped";
    sink.CheckEndOfStream();
    sink.EndLine();
  }));
  sink.enabled = true;
  sink.EndLine();
  EXPECT_THAT(LogFile::Text(), EndsWith("]under way\n"));
}

/// Whatever a line may go on with.
std::vector<std::function<void(FileSink&)>> Pieces() {
  return {[](FileSink& sink) { sink << "text"; },
          [](FileSink& sink) { sink << std::string("text"); },
          [](FileSink& sink) { sink << 7; },
          [](FileSink& sink) { sink << 7ULL; },
          [](FileSink& sink) { sink << 7L; },
          [](FileSink& sink) { sink << 0.5; },
          [](FileSink& sink) { sink << std::endl; },
          [](FileSink& sink) { sink << static_cast<char const*>(nullptr); },
          [](FileSink& sink) { sink.CheckEndOfStream(); },
          [](FileSink& sink) { sink.WriteHeader(Info); },
          [](FileSink& sink) { sink.EndLine(); }};
}

TEST_F(LoggerLine, ASinkDisabledInTheMiddleDropsItsLineAndIsFreeAtTheNextPiece) {
  for (auto const& piece : Pieces()) {
    FileSink sink;
    sink.WriteHeader(Info);
    sink << "begun\n";
    std::thread([&sink] { sink.enabled = false; }).join();
    piece(sink);
    EXPECT_TRUE(LogFile::IsFree(sink));
    EXPECT_FALSE(sink.enabled);
    sink.enabled = true;
    sink << "belongs to no line\n";
    sink.CheckEndOfStream();
    sink.EndLine();
  }
  EXPECT_EQ(LogFile::Text(), "");
  EXPECT_THAT(signals, IsEmpty());
}

TEST_F(LoggerLine, BothSinksDisabledInTheMiddleDropTheirLineForAnotherOneAndAreFree) {
  EXPECT_EQ(Capture::Output([] {
              LogLine outer(Info);
              LogFile::Enable(false, false);
              EXPECT_NO_THROW(LogLine(Info) << "inner");
              EXPECT_TRUE(LogFile::IsFree());
              LogFile::Enable(true, true);
              outer << "belongs to no line";
            }),
            "");
  EXPECT_EQ(LogFile::Text(), "");
  EXPECT_THAT(signals, IsEmpty());
}

TEST_F(LoggerLine, AfterADroppedLineTheNextOneIsWhole) {
  FileSink sink;
  sink.WriteHeader(Info);
  sink << "dropped" << static_cast<char const*>(nullptr);
  sink.enabled = false;
  sink.EndLine();
  sink.enabled = true;
  sink.WriteHeader(Info);
  sink << "next";
  sink.EndLine();
  EXPECT_EQ(LogFile::SplitLines(LogFile::Text()).size(), 1U);
  EXPECT_THAT(LogFile::Text(), EndsWith("]next\n"));
}

TEST_F(LoggerLine, ASinkEnabledInTheMiddleTakesNoPartInTheLine) {
  FileSink sink;
  sink.enabled = false;
  sink.WriteHeader(Info);
  sink << "half";
  std::thread([&sink] { sink.enabled = true; }).join();
  sink << " line" << 7 << 0L;
  sink.EndLine();
  EXPECT_EQ(LogFile::Text(), "");
  EXPECT_THAT(signals, IsEmpty());
  EXPECT_TRUE(LogFile::IsFree(sink));
}

TEST_F(LoggerLine, TextAfterANewlineIsPartOfTheLine) {
  std::string const console = Capture::Output([] {
    LogLine(Info) << "one" << std::endl << "two";
    LogLine(Info) << "three\n" << std::flush << "four" << std::flush << "five";
  });
  EXPECT_THAT(console, MatchesRegex(kHeader + "one\ntwo\n" + kHeader + "three\nfourfive\n"));
  EXPECT_EQ(console, LogFile::Text());
  EXPECT_EQ(signals.size(), 4U);
}

TEST_F(LoggerLine, AManipulatorCompletesNoLine) {
  FileSink sink;
  sink.WriteHeader(Info);
  sink << "text" << std::endl;
  EXPECT_THAT(signals, IsEmpty());
  EXPECT_EQ(LogFile::Text(), "");
  sink.CheckEndOfStream();
  EXPECT_EQ(signals.size(), 1U);
  EXPECT_THAT(LogFile::Text(), EndsWith("]text\n"));
  EXPECT_TRUE(LogFile::IsFree(sink));
}

TEST_F(LoggerLine, ALastEndlIsTheNewlineOfItsLine) {
  Capture::Output([] {
    LogLine(Info) << "one" << std::endl;
    LogLine(Info) << "two\n" << std::endl;
    LogLine(Info) << "three" << std::endl << "\n";
  });
  EXPECT_THAT(LogFile::Text(),
              MatchesRegex(kHeader + "one\n" + kHeader + "two\n\n" + kHeader + "three\n\n\n"));
}

TEST_F(LoggerLine, AsLongAsTheLastOneThatEndlEndedHasANewlineOfItsOwn) {
  Capture::Output([] {
    LogLine(Info) << "one" << std::endl;
    LogLine(Info) << "four";
  });
  EXPECT_THAT(LogFile::Text(), MatchesRegex(kHeader + "one\n" + kHeader + "four\n"));
}

TEST_F(LoggerLine, AfterANullTextAManipulatorAppendsNothingAndTheCheckEndsTheLine) {
  FileSink sink;
  sink.WriteHeader(Info);
  sink << "kept" << static_cast<char const*>(nullptr) << std::endl
       << "lost" << 1 << 2L << std::endl;
  EXPECT_THAT(signals, IsEmpty());
  sink.CheckEndOfStream();
  EXPECT_EQ(signals.size(), 1U);
  EXPECT_THAT(LogFile::Text(), EndsWith("]kept\n"));
  EXPECT_TRUE(LogFile::IsFree(sink));
  sink.WriteHeader(Info);
  sink << "whole again";
  sink.EndLine();
  EXPECT_THAT(LogFile::Text(), EndsWith("]whole again\n"));
}

TEST_F(LoggerLine, TheFileIsTakenBeforeTheConsole) {
  Capture::Output([] {
    logger.consoleSink->WriteHeader(Info);
    std::thread other([] { LogLine(Info) << "waits for the console"; });
    EXPECT_TRUE(
        LogFile::IsTakenBeforeLong(*logger.fileSink, [] { logger.consoleSink->EndLine(); }));
    other.join();
  });
  EXPECT_TRUE(LogFile::IsFree());
}

TEST_F(LoggerLine, FlushWaitsForTheLinesUnderWay) {
  Capture::Output([] {
    Gate gate;
    std::thread owner([&] {
      logger.BeginLine(Info);
      gate.Wait();
      for (int i = 0; i < 1000; ++i) std::this_thread::yield();
      logger << "flushed";
      logger.EndLine();
    });
    gate.AwaitThread();
    gate.Open();
    logger.Flush();
    EXPECT_THAT(LogFile::Text(), EndsWith("]flushed\n"));
    owner.join();
  });
}

TEST_F(LoggerLine, FlushWaitsForALineOnOneSinkAlone) {
  auto const waitsFor = [](auto& sink) {
    sink.WriteHeader(Info);
    bool const through =
        LogFile::AnotherThreadGetsThrough([] { logger.Flush(); }, std::chrono::milliseconds(50));
    sink.EndLine();
    return !through;
  };
  Capture::Output([&] {
    EXPECT_TRUE(waitsFor(*logger.fileSink));
    EXPECT_TRUE(waitsFor(*logger.consoleSink));
  });
}

TEST_F(LoggerLine, FlushOnTheThreadOfTheLineReturnsAtOnce) {
  Capture::Output([] {
    LogLine line(Info);
    line << "text";
    logger.Flush();
  });
  EXPECT_TRUE(LogFile::IsFree());
}

TEST_F(LoggerLine, FlushWithoutALineReturnsAtOnce) {
  logger.Flush();
  logger.fileSink->enabled = false;
  logger.Flush();
  EXPECT_TRUE(LogFile::IsFree());
}

TEST_F(LoggerLine, OnOneSinkAloneHasNothingOfAnotherThreadsOnTheOtherAfterALineOnBoth) {
  std::string const output = Capture::Output([] {
    LogLine(Info) << "on both";
    Gate gate;
    std::thread thread([&] {
      logger.consoleSink->WriteHeader(Info);
      *logger.consoleSink << "the console's";
      gate.Wait();
      logger.consoleSink->EndLine();
    });
    gate.AwaitThread();
    logger.fileSink->WriteHeader(Info);
    *logger.fileSink << "the file's";
    logger.fileSink->EndLine();
    gate.Open();
    thread.join();
  });
  EXPECT_THAT(output, MatchesRegex(kHeader + "on both\n" + kHeader + "the console's\n"));
  EXPECT_THAT(LogFile::Text(), MatchesRegex(kHeader + "on both\n" + kHeader + "the file's\n"));
}

TEST_F(LoggerLine, ValuesAndManipulatorsWithoutALineAreDropped) {
  std::string const output = Capture::Output([] {
    *logger.fileSink << 1.5 << std::hex << true;
    logger << 2.5;
    LogLine(Info) << 255;
  });
  EXPECT_THAT(output, MatchesRegex(kHeader + "255\n"));
  EXPECT_EQ(LogFile::Text(), output);
}

TEST_F(LoggerLine, AConsoleThatCannotBeWrittenLosesItsLineOnly) {
  std::string const console = Capture::Output([] {
    {
      Capture::Descriptor const full(1);
      int const device = open("/dev/full", O_WRONLY);
      dup2(device, 1);
      close(device);
      LogLine(Info) << "lost";
    }
    LogLine(Info) << "next";
  });
  EXPECT_EQ(LogFile::SplitLines(console).size(), 1U);
  EXPECT_THAT(console, EndsWith("]next\n"));
  EXPECT_EQ(LogFile::SplitLines(LogFile::Text()).size(), 2U);
  EXPECT_TRUE(LogFile::IsFree());
}

}  // namespace
