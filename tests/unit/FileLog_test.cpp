// The file behind the log: its size, its older copy, and what happens when it cannot be had.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>

#include "base/FileLogPolicy.h"
#include "base/Logger.h"
#include "tests/support/Capture.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Interpose.h"
#include "tests/support/LogFile.h"
#include "tests/support/TheReal.h"

namespace {

bool fstatFails = false;

}  // namespace

extern "C" int fstat(int fd, struct stat* status) noexcept {
  static auto* const next = TheReal<int(int, struct stat*)>("fstat");
  if (!fstatFails) return next(fd, status);
  errno = EIO;
  return -1;
}

namespace {

namespace fs = std::filesystem;
using LogFile::kOlderPath;
using LogFile::kPath;
using Tarvik::Ilog::FileLogPolicy;
using Tarvik::Ilog::Info;
using Tarvik::Ilog::LoggerBase;
using testing::EndsWith;

constexpr std::size_t kMiB = std::size_t{1} << 20;

class FileLog : public testing::Test {
 protected:
  void SetUp() override {
    Interpose::MakeFile(kPath, "");
    fs::remove(Interpose::Real(kPath));
  }
  void TearDown() override { fstatFails = false; }

  static std::string Older() { return Interpose::ReadFile(kOlderPath); }
  static bool Exists(char const* path) { return fs::exists(Interpose::Real(path)); }

  /// Every write to the log goes through `answer`.
  template <typename Write>
  static void OnWrite(Write answer) {
    Interpose::hooks().write = [answer](int fd, void const* data, std::size_t length) {
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

  FileLogPolicy policy;
};

TEST_F(FileLog, IsMadeByItsFirstLine) {
  EXPECT_FALSE(Exists(kPath));
  EXPECT_TRUE(policy.Write("first\n"));
  EXPECT_EQ(LogFile::Text(), "first\n");
}

TEST_F(FileLog, CanBeReadByAllAndWrittenByItsOwner) {
  mode_t const before = umask(0);
  EXPECT_TRUE(policy.Write("line\n"));
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat(kPath, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644U);
}

TEST_F(FileLog, GoesOnAtTheEndOfAnEarlierOne) {
  Interpose::MakeFile(kPath, "from the last start\n");
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

TEST_F(FileLog, FillsItsFileToOneByteBelowTheLimit) {
  Interpose::MakeFile(kPath, std::string(kMiB - 10, 'a'));
  EXPECT_TRUE(policy.Write("12345678\n"));
  EXPECT_EQ(LogFile::Text().size(), kMiB - 1);
  EXPECT_FALSE(Exists(kOlderPath));
}

TEST_F(FileLog, BeginsANewFileBeforeTheLimitIsReached) {
  std::string const full(kMiB - 10, 'a');
  Interpose::MakeFile(kPath, full);
  EXPECT_TRUE(policy.Write("123456789\n"));
  EXPECT_EQ(LogFile::Text(), "123456789\n");
  EXPECT_EQ(Older(), full);
}

TEST_F(FileLog, KeepsOneOlderFileOnly) {
  Interpose::MakeFile(kOlderPath, "oldest");
  Interpose::MakeFile(kPath, std::string(kMiB, 'a'));
  EXPECT_TRUE(policy.Write("new\n"));
  EXPECT_EQ(Older(), std::string(kMiB, 'a'));
  EXPECT_EQ(LogFile::Text(), "new\n");
  auto const folder = Interpose::Real(kPath).parent_path();
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 2);
}

TEST_F(FileLog, StaysBelowTheLimitForeverAndLosesOnlyTheOldestLines) {
  std::string all;
  for (int i = 0; i < 30'000; ++i) {
    std::string const line = std::to_string(i) + std::string(94, '.') + "\n";
    ASSERT_TRUE(policy.Write(line));
    all += line;
  }
  EXPECT_LT(LogFile::Text().size(), kMiB);
  EXPECT_LT(Older().size(), kMiB);
  EXPECT_GT(Older().size(), kMiB - 200);
  EXPECT_THAT(all, EndsWith("\n" + Older() + LogFile::Text()));
}

TEST_F(FileLog, TakesALineLongerThanTheLimitWhole) {
  std::string const line(kMiB + 5, 'x');
  EXPECT_TRUE(policy.Write(line));
  EXPECT_EQ(LogFile::Text(), line);
  EXPECT_TRUE(policy.Write("next\n"));
  EXPECT_EQ(Older(), line);
  EXPECT_EQ(LogFile::Text(), "next\n");
}

TEST_F(FileLog, IsEmptiedWhereItCannotBeRenamed) {
  Interpose::MakeFile(kPath, std::string(kMiB, 'a'));
  Interpose::hooks().rename = [](auto const&, auto const&) {
    return Interpose::Answer::Failure(EACCES);
  };
  EXPECT_TRUE(policy.Write("new\n"));
  EXPECT_EQ(LogFile::Text(), "new\n");
  EXPECT_FALSE(Exists(kOlderPath));
}

TEST_F(FileLog, FailsWhereTheNewFileCannotBeMade) {
  EXPECT_TRUE(policy.Write(std::string(kMiB - 1, 'a')));
  Interpose::hooks().fault = [](std::string const& function) {
    return function == "open" ? std::optional(EROFS) : std::nullopt;
  };
  EXPECT_FALSE(policy.Write("lost\n"));
  Interpose::hooks().fault = nullptr;
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
  Interpose::hooks().write = nullptr;
  EXPECT_TRUE(policy.Write("back\n"));
  EXPECT_EQ(LogFile::Text(), "back\n");
}

TEST_F(FileLog, IsNotTrustedWhenItsSizeCannotBeRead) {
  fstatFails = true;
  EXPECT_FALSE(policy.Write("lost\n"));
  fstatFails = false;
  EXPECT_TRUE(policy.Write("back\n"));
  EXPECT_EQ(LogFile::Text(), "back\n");
}

TEST_F(FileLog, IsNeverWrittenThroughASymbolicLink) {
  Interpose::MakeFile("/root/precious", "precious");
  fs::create_symlink(Interpose::Real("/root/precious"), Interpose::Real(kPath));
  EXPECT_FALSE(policy.Write("line\n"));
  EXPECT_EQ(Interpose::ReadFile("/root/precious"), "precious");
}

TEST_F(FileLog, IsNotMadeThroughADanglingSymbolicLink) {
  fs::create_symlink(Interpose::Real("/var/log/elsewhere"), Interpose::Real(kPath));
  EXPECT_FALSE(policy.Write("line\n"));
  EXPECT_FALSE(Exists("/var/log/elsewhere"));
}

TEST_F(FileLog, APipeUnderItsNameDoesNotStopTheCaller) {
  std::string const pipe = Interpose::Real(kPath);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_FALSE(policy.Write("nobody reads\n"));
  int const reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
  EXPECT_FALSE(policy.Write("somebody reads\n"));
  char byte;
  EXPECT_EQ(read(reader, &byte, 1), 0);
  close(reader);
}

TEST_F(FileLog, ADirectoryUnderItsNameIsAFailure) {
  fs::create_directory(Interpose::Real(kPath));
  EXPECT_FALSE(policy.Write("line\n"));
}

TEST_F(FileLog, ASinkWithoutItsFolderDisablesItselfAndComesBackWhenEnabled) {
  fs::remove(Interpose::Real(kPath).parent_path());
  LoggerBase<FileLogPolicy> sink;
  Log(sink, "lost");
  EXPECT_FALSE(sink.enabled);
  EXPECT_TRUE(LogFile::IsFree(sink));
  Interpose::MakeFile(kPath, "");
  Log(sink, "still off");
  EXPECT_EQ(LogFile::Text(), "");
  sink.enabled = true;
  Log(sink, "back");
  EXPECT_THAT(LogFile::Text(), EndsWith("]back\n"));
  EXPECT_TRUE(sink.enabled);
}

TEST_F(FileLog, ASinkWithAFullDiskDisablesItselfAndComesBackWhenEnabled) {
  LoggerBase<FileLogPolicy> sink;
  WritesFailWith(ENOSPC);
  Log(sink, "lost");
  EXPECT_FALSE(sink.enabled);
  EXPECT_TRUE(LogFile::IsFree(sink));
  Interpose::hooks().write = nullptr;
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
