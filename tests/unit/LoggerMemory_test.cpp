// Lines that the memory does not suffice for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <new>
#include <string>

#include "base/Logger.h"
#include "tests/machine/Allocation.h"
#include "tests/support/Capture.h"
#include "tests/support/LogFile.h"

namespace {

using LogFile::FileSink;
using Tarvik::Ilog::Info;
using Tarvik::Ilog::Logger;
using Tarvik::Ilog::LogLine;
using testing::EndsWith;

class LoggerMemory : public testing::Test {
 protected:
  void SetUp() override {
    LogFile::BeginAnew();
    LogFile::Enable(true, false);
  }

  static constexpr int kMoreThanALineNeeds = 50;
};

TEST_F(LoggerMemory, ALineWithoutMemoryForItsEndIsLostAndItsSinkIsFree) {
  int lost = 0;
  for (std::size_t length = 0; length < 1000; ++length) {
    FileSink sink;
    sink.WriteHeader(Info);
    sink.EndLine();
    auto const before = std::filesystem::file_size(Machine::Real(LogFile::kPath));
    sink.WriteHeader(Info);
    sink << std::string(length, 'x');
    Machine::FailingAllocation const failing(1);
    sink.EndLine();
    if (!Machine::FailingAllocation::Happened()) continue;
    ++lost;
    EXPECT_EQ(std::filesystem::file_size(Machine::Real(LogFile::kPath)), before);
    EXPECT_TRUE(LogFile::IsFree(sink));
  }
  EXPECT_GT(lost, 0);
}

TEST_F(LoggerMemory, ATextThatThereIsNoMemoryForSpoilsTheRestOfItsLineOnly) {
  FileSink sink;
  std::string const text(5000, 'x');
  sink.WriteHeader(Info);
  sink << "kept";
  {
    Machine::FailingAllocation const failing(1);
    sink << text;
    EXPECT_TRUE(Machine::FailingAllocation::Happened());
  }
  sink << "would look like what follows";
  sink.EndLine();
  EXPECT_THAT(LogFile::Text(), EndsWith("]kept\n"));
  sink.WriteHeader(Info);
  sink << text;
  sink.EndLine();
  EXPECT_THAT(LogFile::Text(), EndsWith("]" + text + "\n"));
}

TEST_F(LoggerMemory, TheMemoryOfAUsualLineIsKeptAndThatOfALongOneGivenBack) {
  FileSink sink;
  auto const needsMemory = [&sink](std::size_t length) {
    std::string const text(length, 'x');
    Machine::FailingAllocation const failing(1);
    sink.WriteHeader(Info);
    sink << text;
    Machine::FailingAllocation::Stop();
    sink.EndLine();
    return Machine::FailingAllocation::Happened();
  };
  auto const log = [&sink](std::size_t length) {
    sink.WriteHeader(Info);
    sink << std::string(length, 'x');
    sink.EndLine();
  };
  Machine::hooks().now = 1;
  log(10'000);
  EXPECT_FALSE(needsMemory(9'000));
  log(200'000);
  EXPECT_TRUE(needsMemory(9'000));
}

TEST_F(LoggerMemory, AnAllocationThatFailsAnywhereKeepsNoLockAndHarmsNoLaterLine) {
  Machine::ForEachFailure([](Machine::Point const& point) {
    Machine::hooks().now = point.number;
    bool failed = false;
    std::string const text(5000, 'x');
    {
      Machine::FailingAllocation const failing(point);
      try {
        LogLine(Info) << text << 0L << 12;
      } catch (std::bad_alloc const&) {
        EXPECT_TRUE(Machine::FailingAllocation::Happened());
      }
      failed = Machine::FailingAllocation::Happened();
    }
    EXPECT_TRUE(LogFile::IsFree(*Logger::GetInstance()->fileSink));
    LogLine(Info) << "next";
    EXPECT_THAT(LogFile::Text(), EndsWith("]next\n"));
    return failed;
  });
}

TEST_F(LoggerMemory, AConsoleWithoutMemoryForItsHeaderLeavesNothingInTheFile) {
  auto& logger = *Logger::GetInstance();
  int refused = 0;
  for (int number = 1; number < kMoreThanALineNeeds; ++number) {
    Machine::hooks().now = 1000 + number;
    LogFile::Enable(true, true);
    std::string const before = LogFile::Text();
    Capture::Output([&] {
      Machine::FailingAllocation const failing(number);
      try {
        logger.BeginLine(Info);
        Machine::FailingAllocation::Stop();
        logger.EndLine();
      } catch (std::bad_alloc const&) {
        ++refused;
        EXPECT_EQ(LogFile::Text(), before);
      }
    });
    EXPECT_TRUE(LogFile::IsFree());
  }
  EXPECT_GE(refused, 2);
}

TEST_F(LoggerMemory, WhereTheFileHasNoneForALineOfItsOwnTheConsoleHasItWholeAndBothAreFree) {
  auto& logger = *Logger::GetInstance();
  int lost = 0;
  Capture::Output([] { LogLine(Info) << "the header's"; });
  for (int number = 1; number < kMoreThanALineNeeds; ++number) {
    LogFile::Enable(true, true);
    LogFile::BeginAnew();
    std::string const text(100'000, 'x');  // no line's memory of that length is kept
    bool failed = false;
    std::string const console = Capture::Output([&] {
      logger.BeginLine(Info);
      logger << text;
      {
        Machine::FailingAllocation const failing(number);
        logger.fileSink->EndLine();
        failed = Machine::FailingAllocation::Happened();
      }
      logger.consoleSink->EndLine();
    });
    lost += failed ? 1 : 0;
    EXPECT_TRUE(LogFile::IsFree());
    EXPECT_THAT(console, EndsWith(text + "\n"));
    EXPECT_EQ(LogFile::Text(), failed ? "" : console);
    EXPECT_EQ(Capture::Output([] { LogLine(Info) << "next"; }).substr(21), "next\n");
  }
  EXPECT_GT(lost, 0);
}

TEST_F(LoggerMemory, ALineWithoutMemoryForItsHeaderIsOnNeitherSink) {
  Machine::hooks().now = 1;
  LogFile::Enable(true, true);
  std::string const text(100'000, 'x');
  Capture::Output([&] { LogLine(Info) << text; });
  LogFile::BeginAnew();
  std::string const console = Capture::Output([] {
    Machine::FailingAllocation const failing(1);
    LogLine(Info) << "without a header" << 1 << 2ULL;
    EXPECT_TRUE(Machine::FailingAllocation::Happened());
  });
  EXPECT_EQ(console, "");
  EXPECT_EQ(LogFile::Text(), "");
  EXPECT_TRUE(LogFile::IsFree());
}

TEST_F(LoggerMemory, AUsualLineNeedsNoneOnEitherSink) {
  Machine::hooks().now = 1;
  LogFile::Enable(true, true);
  Capture::Output([] {
    LogLine(Info) << std::string(100'000, 'x');  // no memory of that length is kept
    LogLine(Info) << std::string(100, 'u');
  });
  LogFile::BeginAnew();
  std::string const console = Capture::Output([] {
    Machine::FailingAllocation const failing(1);
    LogLine(Info) << "no memory for " << 1.5 << " MB";
    EXPECT_FALSE(Machine::FailingAllocation::Happened());
  });
  EXPECT_THAT(console, EndsWith("]no memory for 1.5 MB\n"));
  EXPECT_EQ(LogFile::Text(), console);
}

}  // namespace
