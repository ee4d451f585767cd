#include "DiskUtils/CheckDisk.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CardText.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Scoped.h"

namespace {

namespace DiskUtils = Quellon::DiskUtils;
using namespace std::chrono_literals;
using CardText::kFsck;
using CardText::kMount;
using CardText::kUmount;
using Machine::Answer;
using Machine::hooks;
using Machine::Sleep;
using Machine::Trace;
using testing::ElementsAre;
using testing::ElementsAreArray;
using Texts = std::vector<std::string>;

Answer Exited(int code) {
  return {code << 8, 0};
}

/// What system(3) returns for a command that a SIGKILL ended.
Answer Killed() {
  return {9, 0};
}

class CheckDisk : public testing::Test {
 protected:
  CheckDisk() {
    hooks().system = [](auto&&) { return Exited(0); };
  }

  /// Commands that begin with `start` get these answers one after the other, then the last again.
  static void Answers(std::string const& start, std::vector<Answer> answers) {
    hooks().system = [=, next = std::size_t{0}](std::string const& command) mutable {
      if (!command.starts_with(start)) return Exited(0);
      return answers[next + 1 < answers.size() ? next++ : next];
    };
  }

  /// Each pause puts a "*" between what was printed before and after it.
  static void PausesShow() {
    hooks().sleep = [](auto) { EXPECT_EQ(write(1, "*", 1), 1); };
  }

  std::string directory = "/mnt/sdcard/";
  std::string device = "/dev/mmcblk1p1";
  DiskUtils::CheckDisk checkDisk{directory.data(), device.data()};
};

/// As system(3) does it: the code of a process that is waited for.
Answer Waited(int code) {
  int const status = ChildProcess::Wait(ChildProcess::Start([code] { return code; }));
  return {status, errno};
}

/// How a process may have its children go without a word.
struct Ignoring {
  char const* name;
  void (*handler)(int);
  int flags;
};

class CheckDiskOfAProcessThatIgnoresItsChildren : public CheckDisk,
                                                  public testing::WithParamInterface<Ignoring> {};

TEST_P(CheckDiskOfAProcessThatIgnoresItsChildren, LearnsHowACommandEndedAllTheSame) {
  hooks().system = [](std::string const& command) {
    return Waited(command.starts_with("fsck") ? 4 : 0);
  };
  struct sigaction ignoring {};
  ignoring.sa_handler = GetParam().handler;
  ignoring.sa_flags = GetParam().flags;
  auto const action = Scoped::SignalAction(SIGCHLD, ignoring);
  EXPECT_EQ(Capture::Output([&] { EXPECT_EQ(checkDisk.DiskCheck(), 4); }),
            "Unmount SD card success.\n"
            "FSCK output: File system errors left uncorrected\n"
            "Mount SD card success\n");
  struct sigaction after {};
  sigaction(SIGCHLD, nullptr, &after);
  EXPECT_THAT(Trace(), ElementsAre(kUmount, kFsck, kMount));
  EXPECT_EQ(after.sa_handler, GetParam().handler);
  EXPECT_EQ(after.sa_flags & SA_NOCLDWAIT, GetParam().flags);
}

INSTANTIATE_TEST_SUITE_P(InEveryWay, CheckDiskOfAProcessThatIgnoresItsChildren,
                         testing::Values(Ignoring{"ByTheSignal", SIG_IGN, 0},
                                         Ignoring{"ByItsFlag", SIG_DFL, SA_NOCLDWAIT},
                                         Ignoring{"ByItsFlagWithAHandler", [](int) {},
                                                  SA_NOCLDWAIT}),
                         [](auto const& instance) { return instance.param.name; });

TEST_F(CheckDisk, GivesCommandsStandardDescriptorsThatTheProcessDoesNotHave) {
  ChildProcess::Run([this] {
    hooks().system = [](auto&&) {
      for (int number : {0, 1, 2}) EXPECT_GE(fcntl(number, F_GETFD), 0);
      return Exited(0);
    };
    for (int number : {0, 1, 2}) close(number);
    EXPECT_EQ(checkDisk.DiskCheck(), 0);
    EXPECT_EQ(Trace().size(), 3U);
  });
}

TEST_F(CheckDisk, KeepsCopiesOfBothPathsAndIgnoresTheNumber) {
  DiskUtils::CheckDisk const plain(directory.data(), device.data());
  DiskUtils::CheckDisk const numbered(42, directory.data(), device.data());
  directory[1] = 'X';
  device[1] = 'X';
  for (DiskUtils::CheckDisk const* const made : {&plain, &numbered}) {
    EXPECT_EQ(made->mountPoint, "/mnt/sdcard/");
    EXPECT_EQ(made->devicePath, "/dev/mmcblk1p1");
  }
}

TEST_F(CheckDisk, TakesMissingPathsForEmptyOnes) {
  DiskUtils::CheckDisk const made(nullptr, nullptr);
  EXPECT_EQ(made.mountPoint, "");
  EXPECT_EQ(made.devicePath, "");
}

TEST_F(CheckDisk, UnmountsByCommand) {
  EXPECT_EQ(Capture::Output([&] { checkDisk.UnMount(); }), "Unmount SD card success.\n");
  EXPECT_THAT(Trace(), ElementsAre(kUmount));
}

TEST_F(CheckDisk, MountsByCommand) {
  EXPECT_EQ(Capture::Output([&] { checkDisk.Mount(); }), "Mount SD card success\n");
  EXPECT_THAT(Trace(), ElementsAre(kMount));
}

TEST_F(CheckDisk, GivesUpUnmountingAfterFourAttemptsAndFourSeconds) {
  Answers("umount", {Exited(32)});
  PausesShow();
  EXPECT_EQ(Capture::Output([&] { checkDisk.UnMount(); }), "****Unmount SD card FAILED.\n");
  EXPECT_THAT(Trace(), ElementsAre(kUmount, Sleep(1s), kUmount, Sleep(1s), kUmount, Sleep(1s),
                                   kUmount, Sleep(1s)));
}

TEST_F(CheckDisk, GivesUpMountingAfterFourAttemptsAndFourSeconds) {
  Answers("mount", {Exited(32)});
  PausesShow();
  EXPECT_EQ(Capture::Output([&] { checkDisk.Mount(); }), "****Mount SD card FAILED.\n");
  EXPECT_THAT(Trace(), ElementsAre(kMount, Sleep(1s), kMount, Sleep(1s), kMount, Sleep(1s), kMount,
                                   Sleep(1s)));
}

TEST_F(CheckDisk, MayStillSucceedWithTheFourthAttempt) {
  Answers("umount", {Exited(1), Exited(255), Exited(32), Exited(0)});
  EXPECT_EQ(Capture::Output([&] { checkDisk.UnMount(); }), "Unmount SD card success.\n");
  EXPECT_EQ(Machine::Slept(), 3s);
}

TEST_F(CheckDisk, TakesACommandThatASignalEndedForASuccess) {
  hooks().system = [](auto&&) { return Killed(); };
  EXPECT_EQ(Capture::Output([&] { EXPECT_EQ(checkDisk.DiskCheck(), 0); }), CardText::kChecked);
  EXPECT_THAT(Trace(), ElementsAre(kUmount, kFsck, kMount));
}

TEST_F(CheckDisk, TakesACommandThatCouldNotBeStartedForAFailure) {
  hooks().system = [](auto&&) { return Answer::Failure(ENOMEM); };
  EXPECT_EQ(Capture::Output([&] { EXPECT_EQ(checkDisk.DiskCheck(), 255); }),
            "Unmount SD card FAILED.\nMount SD card FAILED.\n");
  EXPECT_EQ(Machine::Slept(), 8s);
}

TEST_F(CheckDisk, WaitsWholeSecondsThoughSignalsArrive) {
  Answers("mount", {Exited(32), Exited(0)});
  hooks().interrupt = [](std::chrono::nanoseconds pause) {
    return pause == 1s ? std::optional<std::chrono::nanoseconds>(400ms) : std::nullopt;
  };
  Capture::Output([&] { checkDisk.Mount(); });
  EXPECT_THAT(Machine::Traced("sleep"), ElementsAre(Sleep(600ms), Sleep(400ms)));
}

TEST_F(CheckDisk, ChecksAndMountsThoughTheUnmountFailed) {
  Answers("umount", {Exited(32)});
  EXPECT_EQ(Capture::Output([&] { checkDisk.DiskCheck(); }),
            "Unmount SD card FAILED.\nFSCK output: No errors\nMount SD card success\n");
  Texts expected;
  for (int attempt = 0; attempt < 4; ++attempt) {
    expected.insert(expected.end(), {kUmount, Sleep(1s)});
  }
  expected.insert(expected.end(), {kFsck, kMount});
  EXPECT_THAT(Trace(), ElementsAreArray(expected));
}

struct Result {
  int code;
  char const* lines;
};

class CheckDiskResult : public CheckDisk, public testing::WithParamInterface<Result> {};

TEST_P(CheckDiskResult, IsPrintedAndReturned) {
  auto const [code, lines] = GetParam();
  Answers("fsck", {Exited(code)});
  std::string const output =
      Capture::Output([&, expected = code] { EXPECT_EQ(checkDisk.DiskCheck(), expected); });
  EXPECT_EQ(output, "Unmount SD card success.\n" + std::string(lines) + "Mount SD card success\n");
  EXPECT_EQ(Machine::Slept(), code == 2 ? 3s : 0s);
  EXPECT_THAT(Machine::Traced("system"), ElementsAre(kUmount, kFsck, kMount));
}

INSTANTIATE_TEST_SUITE_P(
    Codes, CheckDiskResult,
    testing::Values(Result{0, "FSCK output: No errors\n"},
                    Result{1, "FSCK output: File system errors corrected\n"},
                    Result{2,
                           "FSCK output: System should be rebooted\n"
                           "fcsk requested system reboot...\n"
                           "===================================>>> REBOOT \n"},
                    Result{3, ""}, Result{4, "FSCK output: File system errors left uncorrected\n"},
                    Result{5, ""}, Result{6, ""}, Result{7, ""},
                    Result{8, "FSCK output: Operational error\n"}, Result{12, ""},
                    Result{16, "FSCK output: Usage or syntax error\n"},
                    Result{32, "FSCK output: Fsck canceled by user request\n"}, Result{64, ""},
                    Result{127, ""}, Result{128, "FSCK output: Shared library error\n"},
                    Result{129, ""}, Result{255, ""}),
    [](auto const& instance) { return "Code" + std::to_string(instance.param.code); });

TEST_F(CheckDisk, WaitsThreeSecondsBetweenTheRebootLineAndMountingAndRebootsNothing) {
  Answers("fsck", {Exited(2)});
  PausesShow();
  EXPECT_EQ(Capture::Output([&] { checkDisk.DiskCheck(); }),
            "Unmount SD card success.\nFSCK output: System should be rebooted\n"
            "fcsk requested system reboot...\n"
            "===================================>>> REBOOT \n*Mount SD card success\n");
  EXPECT_THAT(Trace(), ElementsAre(kUmount, kFsck, Sleep(3s), kMount));
}

TEST_F(CheckDisk, PrintsInOrderWithWhatTheCommandsPrint) {
  hooks().system = [](std::string const& command) {
    std::string const line = command.substr(0, command.find(' ')) + " speaks\n";
    EXPECT_EQ(write(1, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    return Exited(0);
  };
  EXPECT_EQ(Capture::Output([&] { checkDisk.DiskCheck(); }),
            "umount speaks\nUnmount SD card success.\nfsck speaks\nFSCK output: No errors\n"
            "mount speaks\nMount SD card success\n");
}

}  // namespace
