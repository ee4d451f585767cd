// Sinks that cannot be locked.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <system_error>

#include "base/Logger.h"
#include "tests/machine/Threads.h"
#include "tests/support/Capture.h"
#include "tests/support/LogFile.h"

namespace {

/// The memory that holds the lock which fails; none at first.
struct Failing {
  char const* begin = nullptr;
  char const* end = nullptr;
};
Failing failing;

using LogFile::FileSink;
using Tarvik::Ilog::Info;
using Tarvik::Ilog::Logger;
using Tarvik::Ilog::LogLine;

class LoggerLock : public testing::Test {
 protected:
  LoggerLock() {
    LogFile::BeginAnew();
    threads.lock = [](pthread_mutex_t const* mutex) {
      auto const* const place = reinterpret_cast<char const*>(mutex);
      bool const fails = failing.begin <= place && place < failing.end;
      return fails ? std::optional(EINVAL) : std::nullopt;
    };
  }
  ~LoggerLock() override { failing = {}; }

  template <typename Sink>
  static void Fail(Sink const& sink) {
    failing = {reinterpret_cast<char const*>(&sink), reinterpret_cast<char const*>(&sink + 1)};
  }

  /// Both sinks are free, and the next line goes to both.
  static void ExpectNextLineAlone() {
    failing = {};
    EXPECT_TRUE(LogFile::IsFree());
    std::string const console = Capture::Output([] { LogLine(Info) << "next"; });
    EXPECT_THAT(console, testing::MatchesRegex(LogFile::kHeader + "next\n"));
    EXPECT_EQ(LogFile::Text(), console);
  }

  Machine::ThreadHooks threads;
  static inline Logger& logger = *Logger::GetInstance();
};

TEST_F(LoggerLock, ThatFailsIsReportedByTheStandardLibraryAndTheSinkStaysUsable) {
  FileSink sink;
  Fail(sink);
  EXPECT_THROW(sink.WriteHeader(Info), std::system_error);
  sink << "belongs to no line";
  sink.EndLine();
  EXPECT_EQ(LogFile::Text(), "");
  failing = {};
  sink.WriteHeader(Info);
  sink << "next";
  sink.EndLine();
  EXPECT_THAT(LogFile::Text(), testing::MatchesRegex(LogFile::kHeader + "next\n"));
}

TEST_F(LoggerLock, ThatFailsForTheFileLeavesTheConsoleFree) {
  Fail(*logger.fileSink);
  EXPECT_EQ(Capture::Output([] { EXPECT_THROW(LogLine(Info) << "lost", std::system_error); }), "");
  ExpectNextLineAlone();
}

TEST_F(LoggerLock, ThatFailsForTheConsoleLeavesTheFileFreeAndWithoutTheLine) {
  Fail(*logger.consoleSink);
  EXPECT_EQ(Capture::Output([] { EXPECT_THROW(LogLine(Info) << "lost", std::system_error); }), "");
  EXPECT_EQ(LogFile::Text(), "");
  ExpectNextLineAlone();
}

TEST_F(LoggerLock, IsNotAskedForByASecondLineOfItsThread) {
  logger.fileSink->WriteHeader(Info);
  Fail(*logger.fileSink);
  try {
    logger.BeginLine(Info);
    ADD_FAILURE() << "a line within a line";
  } catch (std::system_error const& e) {
    EXPECT_EQ(e.code(), std::errc::resource_deadlock_would_occur);
  }
  failing = {};
  logger.fileSink->EndLine();
  EXPECT_TRUE(LogFile::IsFree());
}

TEST_F(LoggerLock, IsNotAskedForWhileTheSinkIsDisabled) {
  FileSink sink;
  sink.enabled = false;
  Fail(sink);
  EXPECT_NO_THROW(sink.WriteHeader(Info));
}

}  // namespace
