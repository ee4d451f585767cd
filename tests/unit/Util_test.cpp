#include "SysUtil/Util.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "tests/machine/Allocation.h"
#include "tests/machine/Machine.h"
#include "tests/machine/TheReal.h"
#include "tests/support/Capture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Scoped.h"

namespace {

using namespace std::chrono_literals;
using Machine::Answer;
using Machine::hooks;
using Machine::Sleep;
using Machine::Trace;
using Quellon::SysUtil::ClearCache;
using Quellon::SysUtil::DisplayOpenFiles;
using Quellon::SysUtil::ExecSystemCmdThroughPipe;
using Quellon::SysUtil::MountRamdisk;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char const* kDropCaches = "/proc/sys/vm/drop_caches";
constexpr char const* kUnmountRamdisk = "umount /mnt/ramdisk";
constexpr char const* kMountRamdisk =
    "mount -t tmpfs -o noatime,nosuid,nodev,mode=1777,size=192M tmpfs /mnt/ramdisk";

class Util : public testing::Test {
 protected:
  // Shells that only read may run.
  Util() {
    hooks().popen = [](std::string const& command, std::string const& mode) {
      return RealPopen(command.c_str(), mode.c_str());
    };
  }

  static FILE* RealPopen(char const* command, char const* mode) {
    static auto* const real = TheReal<decltype(popen)>("popen");
    return real(command, mode);
  }

  /// Asks before each read(2) for the `errno` of a failure, or 0.
  static void BeforeReading(std::function<int(int fd)> error) {
    hooks().read = [error = std::move(error)](int fd, auto&&...) -> std::optional<ssize_t> {
      int const failure = error(fd);
      if (failure == 0) return std::nullopt;
      errno = failure;
      return -1;
    };
  }

  Descriptors::Watch descriptors;
};

/// The kernel's control of its caches; it takes the request at the attempt of that number only.
class UtilClearCache : public Util {
 protected:
  UtilClearCache() { Machine::MakeFile(kDropCaches, ""); }

  void KernelTakesAttempt(int number, ssize_t refusal = -1) {
    hooks().write = [=, this](int fd, void const* data,
                              std::size_t length) mutable -> std::optional<ssize_t> {
      EXPECT_EQ(std::string(static_cast<char const*>(data), length), "3");
      EXPECT_THAT(descriptors.Opened(), ElementsAre(fd));
      EXPECT_TRUE(Descriptors::ClosesOnExec(fd));
      EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
      errno = EINTR;
      return ++written == number ? 1 : refusal;
    };
  }

  int written = 0;
};

TEST_F(UtilClearCache, WritesASingleThreeWithoutFlushing) {
  EXPECT_TRUE(ClearCache());
  EXPECT_EQ(Machine::ReadFile(kDropCaches), "3");
  EXPECT_THAT(Trace(), IsEmpty());
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(UtilClearCache, SucceedsWithTheFirstThreeAttemptsOnly) {
  for (int const attempt : {1, 2, 3, 4}) {
    Machine::Reset();
    Machine::MakeFile(kDropCaches, "");
    written = 0;
    KernelTakesAttempt(attempt);
    EXPECT_EQ(ClearCache(), attempt <= 3) << attempt;
    EXPECT_EQ(written, attempt);
    EXPECT_EQ(Machine::Slept(), (attempt - 1) * 100ms);
  }
}

TEST_F(UtilClearCache, GivesUpAfterFourAttemptsAndFourPauses) {
  KernelTakesAttempt(0);
  EXPECT_FALSE(ClearCache());
  EXPECT_EQ(written, 4);
  EXPECT_THAT(Trace(), ElementsAre(Sleep(100ms), Sleep(100ms), Sleep(100ms), Sleep(100ms)));
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(UtilClearCache, GivesUpWithoutAWord) {
  hooks().write = [](int fd, auto&&...) -> std::optional<ssize_t> {
    return fd > 2 ? std::optional<ssize_t>(-1) : std::nullopt;
  };
  EXPECT_EQ(Capture::AllOutput([] { EXPECT_FALSE(ClearCache()); }), "");
}

TEST_F(UtilClearCache, NeverHasAStandardDescriptorForTheControl) {
  ChildProcess::Run([] {
    bool cleared = false;
    std::optional<int> control;
    {
      Descriptors::NoStandardOnes const none;
      hooks().write = [&](int fd, auto&&...) -> std::optional<ssize_t> {
        control = fd;
        return std::nullopt;
      };
      cleared = ClearCache();
    }
    EXPECT_TRUE(cleared);
    EXPECT_TRUE(control && *control > 2);  // the hook is not asked about others
  });
}

TEST_F(UtilClearCache, TakesAWriteOfNothingForAFailure) {
  KernelTakesAttempt(0, 0);
  EXPECT_FALSE(ClearCache());
  EXPECT_EQ(written, 4);
}

TEST_F(UtilClearCache, FailsAtOnceWithoutPermission) {
  hooks().fault = [](Machine::Call const& call) -> std::optional<int> {
    return call.function == "open" ? std::optional(EACCES) : std::nullopt;
  };
  EXPECT_EQ(Capture::AllOutput([] { EXPECT_FALSE(ClearCache()); }), "");
  EXPECT_THAT(Trace(), IsEmpty());
  EXPECT_EQ(Machine::ReadFile(kDropCaches), "");
}

TEST_F(Util, ReturnsAllThatACommandPrints) {
  EXPECT_EQ(ExecSystemCmdThroughPipe("echo one; echo two"), "one\ntwo\n");
  EXPECT_EQ(ExecSystemCmdThroughPipe("printf 'no end'"), "no end");
  EXPECT_THAT(Trace(), ElementsAre("popen echo one; echo two r", "popen printf 'no end' r"));
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(Util, ReturnsNothingForASilentCommand) {
  EXPECT_EQ(ExecSystemCmdThroughPipe("true"), "");
}

TEST_F(Util, IgnoresTheExitStatusAndStandardErrorOfACommand) {
  std::string const errors = Capture::ErrorOutput(
      [] { EXPECT_EQ(ExecSystemCmdThroughPipe("echo out; echo error >&2; exit 7"), "out\n"); });
  EXPECT_EQ(errors, "error\n");
}

TEST_F(Util, ReturnsNothingWhenTheCommandCannotBeStarted) {
  hooks().popen = [](auto&&...) -> FILE* {
    errno = EMFILE;
    return nullptr;
  };
  EXPECT_EQ(ExecSystemCmdThroughPipe("echo one"), "");
}

TEST_F(Util, ReturnsLongLinesWhole) {
  for (std::size_t const length : {1022U, 1023U, 1024U, 2046U, 5000U, 100000U}) {
    std::string const count = std::to_string(length);
    std::string const line(length, 'x');
    EXPECT_EQ(
        ExecSystemCmdThroughPipe("head -c " + count + " /dev/zero | tr '\\0' x; echo; echo y"),
        line + "\ny\n");
  }
}

TEST_F(Util, ReturnsEveryByteNulsToo) {
  EXPECT_EQ(ExecSystemCmdThroughPipe("printf 'one\\0two\\n\\0\\0three'"),
            std::string("one\0two\n\0\0three", 15));
}

TEST_F(Util, KeepsThePipeFromOtherCommands) {
  int pieces = 0;
  BeforeReading([&](int fd) {
    ++pieces;
    EXPECT_TRUE(Descriptors::ClosesOnExec(fd));
    return 0;
  });
  ExecSystemCmdThroughPipe("echo one");
  EXPECT_EQ(pieces, 2);
}

TEST_F(Util, ReturnsAllThoughASignalInterruptsEachPiece) {
  int reads = 0;
  BeforeReading([&](int) { return ++reads % 3 == 0 ? 0 : EINTR; });
  EXPECT_EQ(ExecSystemCmdThroughPipe("head -c 5000 /dev/zero | tr '\\0' x; echo end"),
            std::string(5000, 'x') + "end\n");
}

TEST_F(Util, ReturnsWhatItHasWhenThePipeFails) {
  int reads = 0;
  BeforeReading([&](int) { return ++reads == 2 ? EIO : 0; });
  EXPECT_EQ(ExecSystemCmdThroughPipe("echo one"), "one\n");
  EXPECT_EQ(reads, 2);
}

// The command writes once this process waits for it, and again after the signal.
TEST_F(Util, ReturnsAllThoughARealSignalArrivesWhileItWaits) {
  static int arrived;
  arrived = 0;
  struct sigaction count {};
  count.sa_handler = [](int) { ++arrived; };  // without SA_RESTART
  auto const action = Scoped::SignalAction(SIGUSR1, count);
  EXPECT_EQ(ExecSystemCmdThroughPipe("waits() { grep -q '^State:.S' /proc/$PPID/status; }\n"
                                     "printf 'no end'\n"
                                     "until waits; do :; done; kill -USR1 $PPID\n"
                                     "until waits; do :; done; echo ', and more'"),
            "no end, and more\n");
  EXPECT_EQ(arrived, 1);
}

TEST_F(Util, ClosesThePipeWhenMemoryRunsOut) {
  std::optional<Machine::FailingAllocation> allocation;
  BeforeReading([&](int) {
    if (!allocation) allocation.emplace(1);
    return 0;
  });
  EXPECT_THROW(ExecSystemCmdThroughPipe("echo one line that takes memory of its own"),
               std::bad_alloc);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

class UtilRamdisk : public Util {
 protected:
  /// Mounts with these results of system(3); what that prints.
  std::string Mount(Answer unmounting, Answer mounting) {
    hooks().system = [=](std::string const& command) {
      return command == kUnmountRamdisk ? unmounting : mounting;
    };
    return Capture::Output(MountRamdisk);
  }
};

TEST_F(UtilRamdisk, IsUnmountedAndMountedAnew) {
  EXPECT_EQ(Mount(Answer::Success(), Answer::Success()), "");
  EXPECT_THAT(Trace(), ElementsAre(std::string("system ") + kUnmountRamdisk,
                                   std::string("system ") + kMountRamdisk));
}

TEST_F(UtilRamdisk, IsSilentAboutCommandsThatFailed) {
  EXPECT_EQ(Mount({32 << 8, 0}, {32 << 8, 0}), "");
}

TEST_F(UtilRamdisk, ReportsCommandsThatCouldNotBeStarted) {
  EXPECT_EQ(Mount(Answer::Failure(EAGAIN), Answer::Success()), "Ramdisk umount error: 255\n");
  EXPECT_EQ(Mount(Answer::Success(), Answer::Failure(EAGAIN)), "Ramdisk mount error: 255\n");
  EXPECT_EQ(Mount(Answer::Failure(EAGAIN), Answer::Failure(EAGAIN)),
            "Ramdisk umount error: 255\nRamdisk mount error: 255\n");
}

TEST_F(UtilRamdisk, ReportsTheSecondByteOfANegativeStatus) {
  EXPECT_EQ(Mount({-256 * 3, 0}, {-256 * 256, 0}),
            "Ramdisk umount error: 253\nRamdisk mount error: 0\n");
}

TEST_F(UtilRamdisk, PrintsInOrderWithWhatTheCommandsPrint) {
  hooks().system = [](std::string const& command) {
    EXPECT_EQ(write(1, command.data(), 5), 5);
    return Answer::Failure(ENOMEM);
  };
  EXPECT_EQ(Capture::Output(MountRamdisk),
            "umounRamdisk umount error: 255\nmountRamdisk mount error: 255\n");
}

std::string OpenFilesOf(pid_t process, std::string const& files) {
  std::string const id = std::to_string(process);
  return "Try run [ls -l /proc/" + id + "/fd] on pipe\nOpen files on pid " + id + " :\n" + files +
         "\n";
}

TEST_F(Util, DisplaysTheOpenFilesOfThisProcessAndThenItsParent) {
  std::vector<std::string> commands;
  hooks().popen = [&](std::string const& command, auto&&) {
    commands.push_back(command);
    return RealPopen("echo 'a file'", "r");
  };
  EXPECT_EQ(Capture::Output(DisplayOpenFiles),
            OpenFilesOf(getpid(), "a file\n") + OpenFilesOf(getppid(), "a file\n"));
  EXPECT_THAT(commands, ElementsAre("ls -l /proc/" + std::to_string(getpid()) + "/fd",
                                    "ls -l /proc/" + std::to_string(getppid()) + "/fd"));
}

TEST_F(Util, DisplaysNothingWhereThePipeGivesNothing) {
  hooks().popen = [](auto&&...) -> FILE* { return nullptr; };
  EXPECT_EQ(Capture::Output(DisplayOpenFiles),
            OpenFilesOf(getpid(), "") + OpenFilesOf(getppid(), ""));
}

TEST_F(Util, DisplaysTheDescriptorsThatThisProcessReallyHolds) {
  FILE* const held = std::tmpfile();
  std::string const number = " " + std::to_string(fileno(held)) + " -> ";
  EXPECT_THAT(Capture::Output(DisplayOpenFiles), testing::HasSubstr(number));
  std::fclose(held);
}

TEST_F(Util, AnnouncesACommandBeforeItRuns) {
  hooks().popen = [](auto&&...) -> FILE* {
    EXPECT_EQ(write(1, "*", 1), 1);
    return nullptr;
  };
  EXPECT_THAT(Capture::Output(DisplayOpenFiles), testing::ContainsRegex("on pipe\n\\*Open files"));
}

}  // namespace
