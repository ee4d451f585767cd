// What a log line looks like, byte by byte.
#include "base/Logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iomanip>
#include <limits>
#include <sstream>
#include <string>

#include "base/TemperatureMonitor.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/GroupedNumbers.h"
#include "tests/support/LogFile.h"
#include "tests/support/Scoped.h"

namespace {

namespace Ilog = Tarvik::Ilog;
using Ilog::Error;
using Ilog::Info;
using Ilog::LogLine;
using Ilog::LogType;
using Ilog::Warning;
using LogFile::FileSink;
using Tarvik::Util::TemperatureMonitor;

constexpr long kNow = 1614877509;  // 2021-03-04 17:05:09 UTC
constexpr char const* kHeader = "[2021-03-04 17:05:09]";

class Logger : public testing::Test {
 protected:
  void SetUp() override {
    Machine::hooks().now = kNow;
    LogFile::BeginAnew();
  }
  void TearDown() override { TemperatureMonitor::GetInstance()->valid = false; }

  static void BoardHas(int degrees) {
    TemperatureMonitor::GetInstance()->temperature = degrees;
    TemperatureMonitor::GetInstance()->valid = true;
  }

  /// The text that both sinks got from `write`.
  template <typename Write>
  static std::string Logged(Write write) {
    std::string const before = LogFile::Text();
    std::string const console = Capture::Output(write);
    EXPECT_EQ(LogFile::Text(), before + console);
    return console;
  }

  /// One line of `type` with `message`, whichever its kind, on both sinks.
  template <typename Message>
  static std::string Line(Message const& message, LogType type = Info) {
    return Logged([&] { LogLine(type) << message; });
  }

  Scoped::AtEnd const utc = Scoped::TimeZone("UTC");
};

TEST_F(Logger, IsOneForTheWholeProcess) {
  EXPECT_NE(Ilog::Logger::GetInstance(), nullptr);
  EXPECT_EQ(Ilog::Logger::GetInstance(), Ilog::Logger::GetInstance());
  EXPECT_EQ(Ilog::Logger().fileSink, Ilog::Logger::GetInstance()->fileSink);
  EXPECT_EQ(Ilog::Logger().consoleSink, Ilog::Logger::GetInstance()->consoleSink);
}

TEST_F(Logger, BothSinksAreEnabledFromTheStart) {
  FileSink const file;
  LogFile::ConsoleSink const console;
  EXPECT_TRUE(file.enabled);
  EXPECT_TRUE(console.enabled);
}

TEST_F(Logger, WithoutTemperatureTheHeaderHas21Bytes) {
  EXPECT_EQ(Line("Path: /mnt/sdcard/cr/a.gps"),
            "[2021-03-04 17:05:09]Path: /mnt/sdcard/cr/a.gps\n");
  EXPECT_EQ(Line("").size(), 22U);
}

TEST_F(Logger, TheTemperatureFollowsTheDate) {
  BoardHas(41);
  EXPECT_EQ(Line("Path: /mnt/sdcard/cr/a.gps"),
            "[2021-03-04 17:05:09][41C]Path: /mnt/sdcard/cr/a.gps\n");
}

TEST_F(Logger, ATemperatureBelowZeroHasItsSign) {
  BoardHas(-7);
  EXPECT_EQ(Line("cold"), "[2021-03-04 17:05:09][-7C]cold\n");
}

TEST_F(Logger, ATemperatureOfZeroIsATemperature) {
  BoardHas(0);
  EXPECT_EQ(Line("ice"), "[2021-03-04 17:05:09][0C]ice\n");
}

TEST_F(Logger, ATemperatureThatIsNotValidIsLeftOut) {
  BoardHas(55);
  TemperatureMonitor::GetInstance()->valid = false;
  EXPECT_EQ(Line("lost"), "[2021-03-04 17:05:09]lost\n");
}

TEST_F(Logger, WarningsAndErrorsAreTaggedAndNothingElseIs) {
  struct {
    int type;
    char const* tag;
  } const table[] = {{0, ""}, {1, "[WARNING]"}, {2, "[ERROR]"}, {3, ""}, {17, ""}, {-1, ""}};
  for (auto const& [type, tag] : table) {
    EXPECT_EQ(Line("text", static_cast<LogType>(type)), std::string(kHeader) + tag + "text\n");
  }
  EXPECT_EQ(Info, 0);
  EXPECT_EQ(Warning, 1);
  EXPECT_EQ(Error, 2);
}

TEST_F(Logger, TheTagComesAfterTheTemperature) {
  BoardHas(41);
  EXPECT_EQ(Line("hot", Error), "[2021-03-04 17:05:09][41C][ERROR]hot\n");
  EXPECT_EQ(Line("hot", Warning), "[2021-03-04 17:05:09][41C][WARNING]hot\n");
}

TEST_F(Logger, TheHeaderFollowsTheClock) {
  Line("first");
  Machine::hooks().now = kNow + 1;
  EXPECT_EQ(Line("second"), "[2021-03-04 17:05:10]second\n");
  Machine::hooks().now = kNow - 86400;
  EXPECT_EQ(Line("set back"), "[2021-03-03 17:05:09]set back\n");
}

TEST_F(Logger, TheFirstHeaderHasItsDateWhateverTheClockShows) {
  for (long const now : {-1L, 0L}) {
    Machine::hooks().now = now;
    FileSink sink;
    sink.WriteHeader(Info);
    sink.EndLine();
  }
  EXPECT_EQ(LogFile::Text(), "[1969-12-31 23:59:59]\n[1970-01-01 00:00:00]\n");
}

TEST_F(Logger, TheHeaderShowsLocalTime) {
  auto const zone = Scoped::TimeZone("TEST-5:30");
  Machine::hooks().now = kNow + 3600;
  EXPECT_EQ(Line("local"), "[2021-03-04 23:35:09]local\n");
}

TEST_F(Logger, ALongIsAlwaysADate) {
  EXPECT_EQ(Line(0L), std::string(kHeader) + "1970-01-01 00:00:00\n");
  EXPECT_EQ(Line(kNow), std::string(kHeader) + "2021-03-04 17:05:09\n");
  EXPECT_EQ(Line(-1L), std::string(kHeader) + "1969-12-31 23:59:59\n");
}

TEST_F(Logger, OtherValuesLookAsOnAStandardStream) {
  EXPECT_EQ(Line(std::string("a text")), std::string(kHeader) + "a text\n");
  EXPECT_EQ(Line(-42), std::string(kHeader) + "-42\n");
  EXPECT_EQ(Line(std::numeric_limits<unsigned long long>::max()),
            std::string(kHeader) + "18446744073709551615\n");
  EXPECT_EQ(Line(0.9F), std::string(kHeader) + "0.9\n");
  EXPECT_EQ(Line(14235.34375), std::string(kHeader) + "14235.3\n");
  EXPECT_EQ(Line('c'), std::string(kHeader) + "c\n");
}

TEST_F(Logger, NumbersOfAnyLengthLookAsOnAStandardStream) {
  using Limits = std::numeric_limits<int>;
  for (int const number : {Limits::min(), -10, -1, 0, 9, 10, Limits::max()}) {
    EXPECT_EQ(Line(number), kHeader + std::to_string(number) + "\n");
  }
  for (unsigned long long number = 1; number <= 1'000'000'000'000'000'000; number *= 10) {
    EXPECT_EQ(Line(number), kHeader + std::to_string(number) + "\n");
    EXPECT_EQ(Line(number - 1), kHeader + std::to_string(number - 1) + "\n");
  }
  for (unsigned long long const number : {0xFFFF'FFFFULL, 0x1'0000'0000ULL}) {
    EXPECT_EQ(Line(number), kHeader + std::to_string(number) + "\n");
  }
}

TEST_F(Logger, PiecesFollowEachOtherWithoutSeparator) {
  EXPECT_EQ(Logged([] {
              LogLine(Info) << "[SYSTEM] free " << 524288000ULL << "B"
                            << " at " << 0L << std::string("!");
            }),
            "[2021-03-04 17:05:09][SYSTEM] free 524288000B at 1970-01-01 00:00:00!\n");
}

TEST_F(Logger, AMessageIsWrittenAsItIs) {
  std::string const bytes("tab\t nul\0 high\xFF percent%s", 25);
  EXPECT_EQ(Line(bytes), kHeader + bytes + "\n");
  EXPECT_EQ(Line("two\nlines"), std::string(kHeader) + "two\nlines\n");
  EXPECT_EQ(Line("ends itself\n"), std::string(kHeader) + "ends itself\n\n");
}

TEST_F(Logger, ALongMessageIsWrittenWholeAndLeavesNoTrace) {
  std::string const message(200'000, 'x');
  EXPECT_EQ(Line(message), kHeader + message + "\n");
  EXPECT_EQ(Line("short"), std::string(kHeader) + "short\n");
}

TEST_F(Logger, ANullTextSpoilsTheRestOfItsLineOnly) {
  char const* const nothing = nullptr;
  EXPECT_EQ(Logged([&] { LogLine(Info) << "kept " << nothing << "dropped" << 1 << 2L; }),
            std::string(kHeader) + "kept \n");
  EXPECT_EQ(Line("whole again"), std::string(kHeader) + "whole again\n");
}

TEST_F(Logger, ANullTextThatIsNotConstantDoesTheSame) {
  char* const nothing = nullptr;
  EXPECT_EQ(Logged([&] { LogLine(Info) << "kept" << nothing << "dropped"; }),
            std::string(kHeader) + "kept\n");
}

TEST_F(Logger, ALineWithANullTextEndsAtItsEndAndFreesBothSinks) {
  char const* const nothing = nullptr;
  Ilog::Logger& logger = *Ilog::Logger::GetInstance();
  std::string const log = Capture::Output([&] {
    logger.fileSink->WriteHeader(Info);
    logger.consoleSink->WriteHeader(Info);
    logger << "kept" << nothing << "lost" << std::endl;
    logger.fileSink->CheckEndOfStream();
    logger.consoleSink->CheckEndOfStream();
    LogLine(Info) << "next";
  });
  EXPECT_EQ(log, std::string(kHeader) + "kept\n" + kHeader + "next\n");
}

TEST_F(Logger, ANullTextWithoutALineDoesNothing) {
  char const* const nothing = nullptr;
  *Ilog::Logger::GetInstance() << nothing;
  EXPECT_EQ(Line("whole"), std::string(kHeader) + "whole\n");
}

TEST_F(Logger, TheStepsOfBothSinksMakeALine) {
  auto& logger = *Ilog::Logger::GetInstance();
  EXPECT_EQ(Logged([&] {
              logger.fileSink->WriteHeader(Info);
              logger.consoleSink->WriteHeader(Info);
              logger << "by hand " << 7 << std::endl;
              logger.fileSink->CheckEndOfStream();
              logger.consoleSink->CheckEndOfStream();
            }),
            std::string(kHeader) + "by hand 7\n");
  EXPECT_TRUE(LogFile::IsFree());
}

TEST_F(Logger, EndLineAddsNoNewlineToThatOfEndl) {
  auto& logger = *Ilog::Logger::GetInstance();
  EXPECT_EQ(Logged([&] {
              logger.BeginLine(Info);
              logger << "a" << std::flush << "b" << std::endl;
              logger.EndLine();
            }),
            std::string(kHeader) + "ab\n");
}

TEST_F(Logger, TheStepsOfOneSinkMakeTheSameLine) {
  FileSink sink;
  sink.WriteHeader(Warning);
  sink << "Time: " << 0L << std::string(" size ") << 12;
  sink << "\n";
  EXPECT_EQ(LogFile::Text(), "");
  sink.CheckEndOfStream();
  EXPECT_EQ(LogFile::Text(), std::string(kHeader) + "[WARNING]Time: 1970-01-01 00:00:00 size 12\n");
}

TEST_F(Logger, HowOneLineShowsNumbersDoesNotReachTheNext) {
  BoardHas(41);
  EXPECT_EQ(Logged([] {
              LogLine(Info) << std::hex << 255 << std::setprecision(2) << std::fixed << 0.125
                            << std::setfill('0') << std::setw(4) << 1 << std::setw(40);
            }),
            "[2021-03-04 17:05:09][41C]ff0.120001\n");
  EXPECT_EQ(Logged([] { LogLine(Info) << 255 << " " << 0.125 << std::setw(3) << 1; }),
            "[2021-03-04 17:05:09][41C]255 0.125  1\n");
}

/// A value that is written with a locale of its own.
struct Grouped {
  friend std::ostream& operator<<(std::ostream& stream, Grouped const& grouped) {
    stream.imbue(std::locale());
    return stream << grouped.number;
  }
  unsigned number;
};

/// A value whose writing throws where the stream fails.
struct Strict {
  friend std::ostream& operator<<(std::ostream& stream, Strict const& strict) {
    stream.exceptions(std::ios::badbit | std::ios::failbit);
    return stream << strict.number;
  }
  int number;
};

/// A value that looks at its stream's flags.
struct Looking {
  friend std::ostream& operator<<(std::ostream& stream, Looking const&) {
    return stream << (stream.flags() == std::ostringstream().flags() ? "standard" : "other");
  }
};

TEST_F(Logger, EveryLineBeginsWithTheFlagsOfAStandardStream) {
  for (int line = 0; line < 2; ++line) {
    EXPECT_EQ(Line(Looking{}), std::string(kHeader) + "standard\n");
  }
}

TEST_F(Logger, TheLocaleThatAValueSetDoesNotReachTheNextLine) {
  BoardHas(41);
  GroupedNumbers const locale;
  EXPECT_EQ(Logged([] { LogLine(Info) << Grouped{1234567}; }),
            "[2021-03-04 17:05:09][41C]1.234.567\n");
  EXPECT_EQ(Logged([] { LogLine(Info) << 1234567U << " " << 0.5; }),
            "[2021-03-04 17:05:09][41C]1234567 0.5\n");
}

TEST_F(Logger, TheExceptionsThatAValueAskedForDoNotReachTheNextLine) {
  BoardHas(41);
  EXPECT_EQ(Logged([] { LogLine(Info) << Strict{1}; }), "[2021-03-04 17:05:09][41C]1\n");
  char const* const nothing = nullptr;
  EXPECT_EQ(Logged([&] { LogLine(Info) << "a" << nothing << "b"; }),
            "[2021-03-04 17:05:09][41C]a\n");
}

TEST_F(Logger, TextsAndNumbersAreFilledUpToTheWidthAskedForOnce) {
  BoardHas(41);
  EXPECT_EQ(Logged([] {
              LogLine(Info) << std::setw(5) << "ab"
                            << "c" << std::left << std::setw(4) << std::string("de") << std::right
                            << std::setw(4) << -7 << 18ULL << std::showpos << 2 << std::setw(1)
                            << ""
                            << ".";
            }),
            "[2021-03-04 17:05:09][41C]   abcde    -718+2 .\n");
}

TEST_F(Logger, TheLocaleOfTheApplicationChangesNothing) {
  BoardHas(1000);
  GroupedNumbers const locale;
  FileSink sink;
  sink.WriteHeader(Info);
  sink << 524288000 << " " << 14235.5 << " " << 0L;
  sink.EndLine();
  EXPECT_EQ(LogFile::Text(), "[2021-03-04 17:05:09][1000C]524288000 14235.5 1970-01-01 00:00:00\n");
}

}  // namespace
