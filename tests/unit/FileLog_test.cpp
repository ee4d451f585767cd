// The file behind the log: its size, its older copy, and what happens when it cannot be had.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "base/FileLogPolicy.h"
#include "base/Logger.h"
#include "base/UniqueFd.h"
#include "tests/machine/Machine.h"
#include "tests/machine/TheReal.h"
#include "tests/support/Capture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Descriptors.h"
#include "tests/support/LogFile.h"
#include "tests/support/Scoped.h"

namespace {

ssize_t RealWrite(int fd, void const* data, std::size_t length) {
  static auto* const next = TheReal<ssize_t(int, void const*, std::size_t)>("write");
  return next(fd, data, length);
}

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using LogFile::kOlderPath;
using LogFile::kPath;
using Tarvik::Ilog::FileLogPolicy;
using Tarvik::Ilog::Info;
using testing::EndsWith;

constexpr std::size_t kLimit = std::size_t{1} << 20;
constexpr std::size_t kMark = 960 * 1024;       // where one process alone begins a new file
constexpr std::size_t kUpperMark = 992 * 1024;  // where it does so without its turn

/// Whole lines, together of that many bytes.
std::string Lines(std::size_t size) {
  std::string text(size, 'a');
  for (std::size_t end = size; end > 0; end -= std::min<std::size_t>(end, 100)) {
    text[end - 1] = '\n';
  }
  return text;
}

class FileLog : public testing::Test {
 protected:
  void SetUp() override {
    Machine::MakeFile(kPath, "");
    fs::remove(Machine::Real(kPath));
  }

  static std::string Older() { return Machine::ReadFile(kOlderPath); }
  static bool Exists(char const* path) { return fs::exists(Machine::Real(path)); }

  /// Every write to the log goes through `answer`.
  template <typename Write>
  static void OnWrite(Write answer) {
    Machine::hooks().write = [answer](int fd, void const* data, std::size_t length) {
      return answer(fd, static_cast<char const*>(data), length);
    };
  }

  /// Every write fails with `error`.
  static void WritesFailWith(int error) {
    OnWrite([error](int, char const*, std::size_t) {
      errno = error;
      return -1;
    });
  }

  /// One line by way of a whole sink, which must not disturb its caller.
  template <typename Sink>
  static void Log(Sink& sink, char const* text) {
    EXPECT_NO_THROW({
      sink.WriteHeader(Info);
      sink << text;
      sink.EndLine();
    });
  }

  /// How often the file's place is looked at meanwhile.
  template <typename Work>
  static int CountLooks(Work work) {
    int looks = 0;
    Machine::hooks().lstat = [&looks](auto&&...) {
      ++looks;
      return std::nullopt;
    };
    work();
    Machine::hooks().lstat = nullptr;
    return looks;
  }

  FileLogPolicy policy;
};

TEST_F(FileLog, IsMadeByItsFirstLine) {
  EXPECT_FALSE(Exists(kPath));
  EXPECT_TRUE(policy.Write("first\n"));
  EXPECT_EQ(LogFile::Text(), "first\n");
}

TEST_F(FileLog, CanBeReadByAllAndWrittenByItsOwner) {
  auto const mask = Scoped::Umask(0);
  EXPECT_TRUE(policy.Write("line\n"));
  struct stat status {};
  ASSERT_EQ(stat(kPath, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644U);
}

TEST_F(FileLog, GoesOnAtTheEndOfAnEarlierOne) {
  Machine::MakeFile(kPath, "from the last start\n");
  EXPECT_TRUE(policy.Write("now\n"));
  EXPECT_EQ(LogFile::Text(), "from the last start\nnow\n");
}

TEST_F(FileLog, IsOpenedOnceForAppendingAndNotForChildren) {
  Descriptors::Watch const watch;
  EXPECT_TRUE(policy.Write("one\n"));
  EXPECT_TRUE(policy.Write("two\n"));
  auto const opened = watch.Opened();
  ASSERT_EQ(opened.size(), 1U);
  EXPECT_TRUE(Descriptors::ClosesOnExec(opened[0]));
  EXPECT_NE(fcntl(opened[0], F_GETFL) & O_APPEND, 0);
}

TEST_F(FileLog, ClosesItsFileInTheEnd) {
  Descriptors::Watch const watch;
  FileLogPolicy().Write("line\n");
  EXPECT_THAT(watch.Opened(), testing::IsEmpty());
}

TEST_F(FileLog, FillsItsFileToOneByteBelowTheMark) {
  Machine::MakeFile(kPath, Lines(kMark - 10));
  EXPECT_TRUE(policy.Write("12345678\n"));
  EXPECT_EQ(LogFile::Text().size(), kMark - 1);
  EXPECT_FALSE(Exists(kOlderPath));
}

TEST_F(FileLog, BeginsANewFileBeforeTheMarkIsReached) {
  std::string const full = Lines(kMark - 10);
  Machine::MakeFile(kPath, full);
  EXPECT_TRUE(policy.Write("123456789\n"));
  EXPECT_EQ(LogFile::Text(), "123456789\n");
  EXPECT_TRUE(Older() == full);
}

TEST_F(FileLog, KeepsOneOlderFileOnly) {
  Machine::MakeFile(kOlderPath, "oldest");
  Machine::MakeFile(kPath, Lines(kLimit));
  EXPECT_TRUE(policy.Write("new\n"));
  EXPECT_TRUE(Older() == Lines(kLimit));
  EXPECT_EQ(LogFile::Text(), "new\n");
  auto const folder = Machine::Real(kPath).parent_path();
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 2);
}

TEST_F(FileLog, StaysBelowTheLimitForeverAndLosesOnlyTheOldestLines) {
  std::string all;
  for (int i = 0; i < 30'000; ++i) {
    std::string const line = std::to_string(i) + std::string(94, '.') + "\n";
    ASSERT_TRUE(policy.Write(line));
    all += line;
  }
  EXPECT_LT(LogFile::Text().size(), kLimit);
  EXPECT_LT(Older().size(), kLimit);
  EXPECT_GT(Older().size(), kMark - 200);
  EXPECT_TRUE(all.ends_with("\n" + Older() + LogFile::Text()));
}

TEST_F(FileLog, TakesALongLineWholeAndCutsOneThatNoFileCouldHold) {
  LogFile::FileSink sink;
  constexpr std::size_t kRoom = kMark - LogFile::kHeaderLength - 1;  // and a newline
  for (std::size_t const length : {kRoom, kRoom + 1, 3 * kLimit}) {
    Log(sink, std::string(length, 'x').c_str());
    EXPECT_EQ(LogFile::Text().size(), kMark);
    EXPECT_LE(Older().size(), kMark);
    std::string const end = length == kRoom ? "]" + std::string(kRoom, 'x') + "\n" : "xxx [cut]\n";
    EXPECT_TRUE(LogFile::Text().ends_with(end)) << length;
  }
  Log(sink, "next");
  EXPECT_THAT(LogFile::Text(), testing::MatchesRegex(LogFile::kHeader + "next\n"));
}

TEST_F(FileLog, LeavesALongLineWholeOnTheConsole) {
  for (std::size_t const over : {0U, 1U}) {
    LogFile::BeginAnew();
    std::string const text(kMark - LogFile::kHeaderLength - 1 + over, 'x');
    auto const console = Capture::Output([&] { Tarvik::Ilog::LogLine(Info) << text; });
    EXPECT_TRUE(console.ends_with("]" + text + "\n"));
    EXPECT_EQ(console.size(), kMark + over);
    EXPECT_EQ(LogFile::Text().size(), kMark);
    EXPECT_TRUE(LogFile::Text().ends_with(over == 0 ? "xxx\n" : "xxx [cut]\n"));
    EXPECT_TRUE(LogFile::IsFree());
  }
}

TEST_F(FileLog, IsEmptiedWhereItCannotBeRenamed) {
  Machine::MakeFile(kPath, Lines(kLimit));
  Machine::hooks().rename = [](auto const&, auto const&) {
    return Machine::Answer::Failure(EACCES);
  };
  EXPECT_TRUE(policy.Write("new\n"));
  EXPECT_EQ(LogFile::Text(), "new\n");
  EXPECT_FALSE(Exists(kOlderPath));
}

TEST_F(FileLog, FailsWhereTheNewFileCannotBeMade) {
  EXPECT_TRUE(policy.Write("first\n"));
  std::ofstream(Machine::Real(kPath), std::ios::app) << Lines(kMark);
  Machine::hooks().now = 1;
  Machine::hooks().fault = [](Machine::Call const& call) {
    return call.function == "open" && call.subject == kPath ? std::optional(EROFS) : std::nullopt;
  };
  EXPECT_FALSE(policy.Write("lost\n"));
  Machine::hooks().fault = nullptr;
  EXPECT_TRUE(policy.Write("back\n"));
  EXPECT_EQ(LogFile::Text(), "back\n");
}

TEST_F(FileLog, WritesALineInPiecesWhereTheKernelTakesPieces) {
  OnWrite([](int fd, char const* data, std::size_t length) -> std::optional<ssize_t> {
    if (length <= 3) return std::nullopt;
    return write(fd, data, 3);
  });
  EXPECT_TRUE(policy.Write("in several pieces\n"));
  EXPECT_EQ(LogFile::Text(), "in several pieces\n");
}

TEST_F(FileLog, ASignalDoesNotLoseALine) {
  int interrupted = 0;
  OnWrite([&](int, char const*, std::size_t) -> std::optional<ssize_t> {
    if (++interrupted > 5) return std::nullopt;
    errno = EINTR;
    return -1;
  });
  EXPECT_TRUE(policy.Write("after five signals\n"));
  EXPECT_EQ(LogFile::Text(), "after five signals\n");
  EXPECT_EQ(interrupted, 6);
}

TEST_F(FileLog, AKernelThatTakesNothingIsAFailure) {
  OnWrite([](int, char const*, std::size_t) { return 0; });
  EXPECT_FALSE(policy.Write("line\n"));
}

TEST_F(FileLog, AfterAFailureTheNextLineOpensTheFileAgain) {
  Descriptors::Watch const watch;
  WritesFailWith(EIO);
  EXPECT_FALSE(policy.Write("lost\n"));
  EXPECT_THAT(watch.Opened(), testing::IsEmpty());
  Machine::hooks().write = nullptr;
  EXPECT_TRUE(policy.Write("back\n"));
  EXPECT_EQ(LogFile::Text(), "back\n");
}

TEST_F(FileLog, IsNotTrustedWhenItsSizeCannotBeRead) {
  Machine::hooks().fstat = [](auto&&...) { return Machine::Answer::Failure(EIO); };
  EXPECT_FALSE(policy.Write("lost\n"));
  Machine::hooks().fstat = nullptr;
  EXPECT_TRUE(policy.Write("back\n"));
  EXPECT_EQ(LogFile::Text(), "back\n");
}

TEST_F(FileLog, ALineThatDoesNotFitOnTheDiskLeavesNoFragment) {
  EXPECT_TRUE(policy.Write("whole\n"));
  for (std::size_t const fits : {1U, 5U}) {
    int calls = 0;
    OnWrite([&](int fd, char const* data, std::size_t) -> std::optional<ssize_t> {
      if (++calls == 1) return RealWrite(fd, data, fits);
      errno = ENOSPC;
      return -1;
    });
    EXPECT_FALSE(policy.Write("does not fit\n"));
    EXPECT_EQ(LogFile::Text(), "whole\n");
  }
  Machine::hooks().write = nullptr;
  EXPECT_TRUE(policy.Write("back\n"));
  EXPECT_EQ(LogFile::Text(), "whole\nback\n");
}

TEST_F(FileLog, AFragmentWithAnotherLineBehindItStaysAndTheNextLineBeginsAnew) {
  EXPECT_TRUE(policy.Write("whole\n"));
  int calls = 0;
  OnWrite([&](int fd, char const* data, std::size_t) -> std::optional<ssize_t> {
    if (++calls == 1) {
      RealWrite(fd, data, 5);
      Tarvik::UniqueFd const other(open(kPath, O_WRONLY | O_APPEND | O_CLOEXEC));
      RealWrite(other.Get(), "another process\n", 16);
      return 5;
    }
    errno = ENOSPC;
    return -1;
  });
  EXPECT_FALSE(policy.Write("does not fit\n"));
  Machine::hooks().write = nullptr;
  EXPECT_TRUE(policy.Write("back\n"));
  EXPECT_EQ(LogFile::Text(), "whole\ndoes another process\nback\n");
}

TEST_F(FileLog, WhatAPowerCutLeftOfALineIsEndedBeforeTheNext) {
  for (std::string const left : {"whole\nfragm", "f"}) {
    Machine::MakeFile(kPath, left);
    EXPECT_TRUE(FileLogPolicy().Write("next\n"));
    EXPECT_EQ(LogFile::Text(), left + "\nnext\n");
  }
}

TEST_F(FileLog, GivesALineWithoutAnEndThreeMillisecondsToGetIt) {
  Machine::MakeFile(kPath, "fragm");
  EXPECT_TRUE(policy.Write("next\n"));
  EXPECT_THAT(Machine::Traced("sleep"),
              testing::AllOf(testing::SizeIs(3), testing::Each(Machine::Sleep(1ms))));
}

TEST_F(FileLog, DeletedByOthersItIsThereAgainASecondLater) {
  Machine::hooks().now = 100;
  EXPECT_TRUE(policy.Write("lost\n"));
  fs::remove(Machine::Real(kPath));
  Machine::hooks().now = 101;
  EXPECT_TRUE(policy.Write("there\n"));
  EXPECT_EQ(LogFile::Text(), "there\n");
}

TEST_F(FileLog, RenamedByOthersItGoesOnUnderItsOwnNameASecondLater) {
  Machine::hooks().now = 100;
  EXPECT_TRUE(policy.Write("before\n"));
  fs::rename(Machine::Real(kPath), Machine::Real("/var/log/kept"));
  Machine::hooks().now = 99;  // a clock that was set back tells the time as well
  EXPECT_TRUE(policy.Write("after\n"));
  EXPECT_EQ(LogFile::Text(), "after\n");
  EXPECT_EQ(Machine::ReadFile("/var/log/kept"), "before\n");
}

TEST_F(FileLog, ReplacedByOthersItIsTheirFileASecondLater) {
  Machine::hooks().now = 100;
  EXPECT_TRUE(policy.Write("before\n"));
  Machine::MakeFile("/var/log/new", "theirs\n");
  fs::rename(Machine::Real("/var/log/new"), Machine::Real(kPath));
  Machine::hooks().now = 101;
  EXPECT_TRUE(policy.Write("after\n"));
  EXPECT_EQ(LogFile::Text(), "theirs\nafter\n");
}

TEST_F(FileLog, DeletedByOthersWithinTheSecondItLosesTwoKilobytesAtMost) {
  Machine::hooks().now = 100;
  EXPECT_TRUE(policy.Write(Lines(48)));
  fs::remove(Machine::Real(kPath));
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(policy.Write(Lines(100)));
  EXPECT_FALSE(Exists(kPath));
  EXPECT_TRUE(policy.Write("there\n"));
  EXPECT_EQ(LogFile::Text(), "there\n");
}

TEST_F(FileLog, ReplacedByOthersWithinTheSecondItLosesTwoKilobytesAtMost) {
  Machine::hooks().now = 100;
  EXPECT_TRUE(policy.Write(Lines(48)));
  Machine::MakeFile("/var/log/new", "theirs\n");
  fs::rename(Machine::Real("/var/log/new"), Machine::Real(kPath));
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(policy.Write(Lines(100)));
  EXPECT_TRUE(policy.Write("there\n"));
  EXPECT_EQ(LogFile::Text(), "theirs\nthere\n");
}

TEST_F(FileLog, SetAsideTwiceWithinTheSecondByAnotherProcessItLosesTwoKilobytesAtMost) {
  Machine::hooks().now = 100;
  EXPECT_TRUE(policy.Write(Lines(48)));
  for (char const* text : {"newer\n", "newest\n"}) {
    fs::rename(Machine::Real(kPath), Machine::Real(kOlderPath));
    Machine::MakeFile(kPath, text);
  }
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(policy.Write(Lines(100)));
  EXPECT_TRUE(policy.Write("there\n"));
  EXPECT_EQ(LogFile::Text(), "newest\nthere\n");
}

TEST_F(FileLog, DeletedWhileALineTakesSecondsItIsThereAgainAtTheLinesEnd) {
  LogFile::FileSink sink;
  Machine::hooks().now = 100;
  Log(sink, "lost");
  sink.WriteHeader(Info);
  fs::remove(Machine::Real(kPath));
  Machine::hooks().now = 105;
  sink << "there";
  sink.EndLine();
  EXPECT_THAT(LogFile::Text(), EndsWith("]there\n"));
}

TEST_F(FileLog, IsAskedForItsPlaceOnceASecond) {
  Machine::hooks().now = 100;
  EXPECT_TRUE(policy.Write("first\n"));
  auto const writeMany = [this] {
    for (int i = 0; i < 100; ++i) EXPECT_TRUE(policy.Write(Lines(100)));
  };
  EXPECT_EQ(CountLooks(writeMany), 0);
  Machine::hooks().now = 101;
  EXPECT_EQ(CountLooks(writeMany), 1);
}

TEST_F(FileLog, IsAskedForItsSizeEveryTwoKilobytes) {
  Machine::hooks().now = 100;
  EXPECT_TRUE(policy.Write(Lines(48)));
  int asked = 0;
  Machine::hooks().fstat = [&asked](auto&&...) {
    ++asked;
    return std::nullopt;
  };
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(policy.Write(Lines(100)));
  EXPECT_EQ(asked, 0);
  for (int i = 0; i < 60; ++i) EXPECT_TRUE(policy.Write(Lines(100)));
  EXPECT_EQ(asked, 3);
}

TEST_F(FileLog, FilledByAnotherProcessWithinTheSecondItMakesWayForANewOne) {
  Machine::hooks().now = 100;
  EXPECT_TRUE(policy.Write("first\n"));
  FileLogPolicy other;
  EXPECT_TRUE(other.Write(Lines(kMark - 10)));
  for (int i = 0; i < 21; ++i) EXPECT_TRUE(policy.Write(Lines(100)));
  EXPECT_LT(Older().size(), kMark + 2'048);
  EXPECT_EQ(Older().size() + LogFile::Text().size(), 6 + (kMark - 10) + 21 * 100);
  EXPECT_GT(LogFile::Text().size(), 0U);
}

TEST_F(FileLog, RenamedByAnotherProcessItIsNotFilledBeyondTheMarkWithinTheSecond) {
  Machine::hooks().now = 100;
  EXPECT_TRUE(policy.Write("first\n"));
  fs::rename(Machine::Real(kPath), Machine::Real(kOlderPath));
  for (std::size_t i = 0; i < kMark / 1'000; ++i) EXPECT_TRUE(policy.Write(Lines(1'000)));
  EXPECT_LT(Older().size(), kMark);
  EXPECT_TRUE(policy.Write(Lines(2'000)));
  EXPECT_TRUE(policy.Write(Lines(2'000)));
  EXPECT_LT(Older().size(), kMark + 2'048);
  EXPECT_GT(LogFile::Text().size(), 0U);
}

/// Processes that meet at the file get out of each other's way only when their pauses are real.
void SleepReally(std::chrono::nanoseconds duration) {
  timespec const time{0, static_cast<long>(duration.count())};
  clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr);
}

/// Writes numbered lines as a process of its own does, and ends.
pid_t StartWriter(int writer, int lines, std::size_t longest = 150, std::size_t step = 1) {
  return ChildProcess::Start([=] {
    Machine::hooks().now.reset();
    Machine::hooks().sleep = SleepReally;
    FileLogPolicy own;
    bool written = true;
    for (int i = 0; i < lines; ++i) {
      written = own.Write(std::to_string(writer) + " " + std::to_string(i) + " " +
                          std::string(static_cast<std::size_t>(i) * step % longest, 'x') + ".\n") &&
                written;
    }
    return written ? 0 : 1;
  });
}

TEST_F(FileLog, TwoProcessesRotateItTogetherAndLoseNoLine) {
  constexpr int kLines = 9'000;  // together they fill the file once, but not twice
  pid_t const one = StartWriter(1, kLines);
  pid_t const two = StartWriter(2, kLines);
  EXPECT_EQ(ChildProcess::Wait(one), 0);
  EXPECT_EQ(ChildProcess::Wait(two), 0);
  EXPECT_LT(LogFile::Text().size(), kLimit);
  EXPECT_LT(Older().size(), kLimit);
  EXPECT_GT(Older().size(), kMark - 200);
  std::map<int, int> next;
  for (auto const& line : LogFile::SplitLines(Older() + LogFile::Text())) {
    std::istringstream words(line);
    int writer = 0;
    int number = -1;
    std::string rest;
    words >> writer >> number >> rest;
    EXPECT_EQ(number, next[writer]++) << line;
    EXPECT_EQ(rest, std::string(static_cast<std::size_t>(number % 150), 'x') + ".");
  }
  EXPECT_EQ(next, (std::map<int, int>{{1, kLines}, {2, kLines}}));
}

TEST_F(FileLog, ManyProcessesKeepItsLimitAndItsLinesWhole) {
  std::vector<pid_t> writers;
  for (int writer = 0; writer < 8; ++writer) writers.push_back(StartWriter(writer, 9'000));
  for (pid_t const writer : writers) EXPECT_EQ(ChildProcess::Wait(writer), 0);
  EXPECT_LT(LogFile::Text().size(), kLimit);
  EXPECT_LT(Older().size(), kLimit);
  std::regex const whole(R"(\d \d+ x*\.)");
  for (auto const& line : LogFile::SplitLines(Older() + LogFile::Text())) {
    EXPECT_TRUE(std::regex_match(line, whole)) << line;
  }
}

TEST_F(FileLog, ALineThatAnotherProcessWritesWhileTheFileIsRenamedStays) {
  FileLogPolicy other;
  Machine::MakeFile(kPath, Lines(kMark));
  Machine::hooks().rename = [&](std::string const& from, std::string const& to) {
    renameat(AT_FDCWD, Machine::Real(from).c_str(), AT_FDCWD, Machine::Real(to).c_str());
    EXPECT_TRUE(other.Write("another's\n"));
    return Machine::Answer::Success();
  };
  EXPECT_TRUE(policy.Write("own\n"));
  EXPECT_EQ(LogFile::Text(), "another's\nown\n");
  EXPECT_EQ(Older().size(), kMark);
}

TEST_F(FileLog, ProcessesWithLongLinesKeepItsLimitToo) {
  std::vector<pid_t> writers;
  for (int writer = 0; writer < 2; ++writer) {
    writers.push_back(StartWriter(writer, 200, 300'000, 7'919));
  }
  for (pid_t const writer : writers) EXPECT_EQ(ChildProcess::Wait(writer), 0);
  EXPECT_LT(LogFile::Text().size(), kLimit);
  EXPECT_LT(Older().size(), kLimit);
}

/// The turn, which another process has.
Tarvik::UniqueFd TakeTheTurn() {
  Tarvik::UniqueFd folder(open("/var/log/", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(flock(folder.Get(), LOCK_EX), 0);
  return folder;
}

TEST_F(FileLog, AProcessThatKeepsTheTurnForItselfStopsNobodyAndTheLimitHolds) {
  EXPECT_TRUE(policy.Write("first\n"));
  Tarvik::UniqueFd const turn = TakeTheTurn();
  std::string const line(999, 'x');
  for (int i = 0; i < 2'000; ++i) {
    ASSERT_TRUE(policy.Write(line + "\n"));
    ASSERT_LT(fs::file_size(Machine::Real(kPath)), kLimit);
  }
  EXPECT_LT(Older().size(), kLimit);
  EXPECT_GT(Older().size(), kUpperMark - 2'000);
}

TEST_F(FileLog, WhatAProcessWritesUnseenFitsBehindAFileThatAnotherOneEndedWithoutItsTurn) {
  Machine::hooks().now = 100;
  Machine::MakeFile(kPath, Lines(kMark - 10));
  EXPECT_TRUE(policy.Write("first\n"));
  Tarvik::UniqueFd const turn = TakeTheTurn();
  FileLogPolicy other;
  while (!Exists(kOlderPath)) ASSERT_TRUE(other.Write(Lines(1'000)));
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(policy.Write(Lines(100)));
  EXPECT_GT(Older().size(), kUpperMark);
  EXPECT_LT(Older().size(), kLimit);
}

TEST_F(FileLog, IsLookedAtWithEachLineWithoutTheTurn) {
  Machine::hooks().now = 100;
  Tarvik::UniqueFd const turn = TakeTheTurn();
  EXPECT_TRUE(policy.Write("first\n"));
  fs::remove(Machine::Real(kPath));
  EXPECT_TRUE(policy.Write("second\n"));
  EXPECT_EQ(LogFile::Text(), "second\n");
}

TEST_F(FileLog, IsLookedAtNoMoreOftenWithoutTheTurnWhereThereIsRoomInPlace) {
  Machine::hooks().now = 100;
  EXPECT_TRUE(policy.Write("first\n"));
  Tarvik::UniqueFd const turn = TakeTheTurn();
  Machine::hooks().now = 101;
  int const looks = CountLooks([this] {
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(policy.Write(Lines(100)));
  });
  EXPECT_EQ(looks, 1);
  EXPECT_EQ(LogFile::Text().size(), 6U + 20 * 100);
}

TEST_F(FileLog, WaitsForTheTurnToOpenItAndWithALineTheMarksLeaveNoRoomFor) {
  Machine::hooks().now = 100;
  Tarvik::UniqueFd turn = TakeTheTurn();
  Machine::hooks().sleep = [&](auto&&) { turn = Tarvik::UniqueFd(); };
  EXPECT_TRUE(policy.Write("first\n"));
  EXPECT_FALSE(turn.IsOpen());
  turn = TakeTheTurn();
  Machine::hooks().now = 101;
  EXPECT_TRUE(policy.Write("short\n"));
  EXPECT_TRUE(turn.IsOpen());
  EXPECT_TRUE(policy.Write(Lines(kMark - 12)));
  EXPECT_FALSE(turn.IsOpen());
  EXPECT_EQ(Older(), "first\nshort\n") << "with its turn it keeps to the mark";
}

TEST_F(FileLog, WaitsTwentyMillisecondsForTheTurnAndNoLonger) {
  Tarvik::UniqueFd const turn = TakeTheTurn();
  EXPECT_TRUE(policy.Write("first\n"));
  EXPECT_THAT(Machine::Traced("sleep"),
              testing::AllOf(testing::SizeIs(20), testing::Each(Machine::Sleep(1ms))));
}

/// Whether a line waits for the turn, which another process has until somebody waits.
bool WaitsForTheTurn(FileLogPolicy& policy, std::string const& line) {
  Tarvik::UniqueFd turn = TakeTheTurn();
  Machine::hooks().sleep = [&](auto&&) { turn = Tarvik::UniqueFd(); };
  EXPECT_TRUE(policy.Write(line));
  Machine::hooks().sleep = nullptr;
  return !turn.IsOpen();
}

TEST_F(FileLog, WaitsForTheTurnWhereItWasDeletedOrHasNoRoom) {
  Machine::hooks().now = 100;
  EXPECT_TRUE(policy.Write("first\n"));
  Machine::hooks().now = 101;
  EXPECT_FALSE(WaitsForTheTurn(policy, "there is room\n"));
  fs::remove(Machine::Real(kPath));
  Machine::hooks().now = 102;
  EXPECT_TRUE(WaitsForTheTurn(policy, "another file\n"));
  EXPECT_EQ(LogFile::Text(), "another file\n");
  fs::resize_file(Machine::Real(kPath), kUpperMark);
  Machine::hooks().now = 103;
  EXPECT_TRUE(WaitsForTheTurn(policy, "a new file\n"));
  EXPECT_EQ(LogFile::Text(), "a new file\n");
}

TEST_F(FileLog, WaitsForTheTurnWithALineLongerThanAProcessMayWriteUnchecked) {
  EXPECT_TRUE(policy.Write("first\n"));
  for (std::size_t const size :
       {std::size_t{6}, kMark}) {  // where the turn is not asked for, and is
    fs::resize_file(Machine::Real(kPath), size);
    EXPECT_FALSE(WaitsForTheTurn(policy, Lines(2048)));
    EXPECT_TRUE(WaitsForTheTurn(policy, Lines(2049)));
  }
}

TEST_F(FileLog, KeepsTheOlderOneThoughALineFillsANewFileAlone) {
  Machine::MakeFile(kOlderPath, "older\n");
  EXPECT_TRUE(policy.Write(Lines(kMark)));
  EXPECT_EQ(LogFile::Text().size(), kMark);
  EXPECT_EQ(Older(), "older\n");
}

TEST_F(FileLog, AChildForkedWhileItIsLookedAtDoesNotKeepTheTurn) {
  std::vector<pid_t> children;
  Machine::hooks().lstat = [&](auto const&, struct stat*) {
    children.push_back(ChildProcess::Start(pause));
    return Machine::Answer::Failure(ENOENT);
  };
  EXPECT_TRUE(policy.Write("first\n"));
  Machine::hooks().now = 1;
  EXPECT_TRUE(policy.Write("looks\n"));
  EXPECT_GE(children.size(), 2U) << "before it had its turn, and with it";
  Tarvik::UniqueFd const folder(open("/var/log/", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(flock(folder.Get(), LOCK_EX | LOCK_NB), 0);
  for (pid_t const child : children) {
    kill(child, SIGKILL);
    ChildProcess::Wait(child);
  }
}

TEST_F(FileLog, IsNeverAStandardStream) {
  ChildProcess::Run([this] {
    Machine::MakeFile(kPath, "");
    for (int fd : {0, 1, 2}) close(fd);
    Descriptors::Watch const watch;
    bool const written = policy.Write("line\n");
    auto const opened = watch.Opened();
    std::printf("printed\n");
    std::fflush(stdout);
    if (!written || opened.size() != 1 || opened[0] < 3 || LogFile::Text() != "line\n") _exit(3);
    EXPECT_TRUE(Descriptors::ClosesOnExec(opened[0]));
  });
}

TEST_F(FileLog, IsNeverWrittenThroughASymbolicLink) {
  Machine::MakeFile("/mnt/precious", "precious");
  fs::create_symlink(Machine::Real("/mnt/precious"), Machine::Real(kPath));
  EXPECT_FALSE(policy.Write("line\n"));
  EXPECT_EQ(Machine::ReadFile("/mnt/precious"), "precious");
}

TEST_F(FileLog, IsNotMadeThroughADanglingSymbolicLink) {
  fs::create_symlink(Machine::Real("/var/log/elsewhere"), Machine::Real(kPath));
  EXPECT_FALSE(policy.Write("line\n"));
  EXPECT_FALSE(Exists("/var/log/elsewhere"));
}

TEST_F(FileLog, APipeUnderItsNameDoesNotStopTheCaller) {
  std::string const pipe = Machine::Real(kPath);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_FALSE(policy.Write("nobody reads\n"));
  int const reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
  EXPECT_FALSE(policy.Write("somebody reads\n"));
  char byte;
  EXPECT_EQ(read(reader, &byte, 1), 0);
  close(reader);
}

TEST_F(FileLog, ADirectoryUnderItsNameIsAFailure) {
  fs::create_directory(Machine::Real(kPath));
  EXPECT_FALSE(policy.Write("line\n"));
}

TEST_F(FileLog, ASinkWithoutItsFolderDisablesItselfAndComesBackWhenEnabled) {
  fs::remove(Machine::Real(kPath).parent_path());
  LogFile::FileSink sink;
  Log(sink, "lost");
  EXPECT_FALSE(sink.enabled);
  EXPECT_TRUE(LogFile::IsFree(sink));
  Machine::MakeFile(kPath, "");
  Log(sink, "still off");
  EXPECT_EQ(LogFile::Text(), "");
  sink.enabled = true;
  Log(sink, "back");
  EXPECT_THAT(LogFile::Text(), EndsWith("]back\n"));
  EXPECT_TRUE(sink.enabled);
}

TEST_F(FileLog, ASinkWithAFullDiskDisablesItselfAndComesBackWhenEnabled) {
  LogFile::FileSink sink;
  WritesFailWith(ENOSPC);
  Log(sink, "lost");
  EXPECT_FALSE(sink.enabled);
  EXPECT_TRUE(LogFile::IsFree(sink));
  Machine::hooks().write = nullptr;
  sink.enabled = true;
  Log(sink, "back");
  EXPECT_EQ(LogFile::SplitLines(LogFile::Text()).size(), 1U);
}

TEST_F(FileLog, TheConsoleGoesOnWithoutTheFile) {
  LogFile::BeginAnew();
  WritesFailWith(EROFS);
  auto const line = [](char const* text) {
    return Capture::Output([text] { Tarvik::Ilog::LogLine(Info) << text; });
  };
  EXPECT_THAT(line("one"), EndsWith("]one\n"));
  EXPECT_THAT(line("two"), EndsWith("]two\n"));
  EXPECT_FALSE(Tarvik::Ilog::Logger::GetInstance()->fileSink->enabled);
}

}  // namespace
