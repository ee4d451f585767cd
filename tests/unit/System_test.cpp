#include "DiskUtils/System.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/rtc.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/Logger.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Gate.h"
#include "tests/support/LogFile.h"
#include "tests/support/Scoped.h"

namespace {

using namespace std::chrono_literals;
using Machine::Answer;
using Machine::hooks;
using Machine::Sleep;
using Machine::Trace;
using Tarvik::Ilog::LogLine;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

constexpr char const* kRoot = "/";
constexpr char const* kCard = "/mnt/sdcard/";

void EveryUnmountSucceeds() {
  hooks().umount = [](auto&&...) { return Answer::Success(); };
}

/// `mountPoint` gives way to the forced attempt of that number only, counted from 1; 0: to none.
void IsBusyUntilForced(std::string const& mountPoint, int attempt) {
  hooks().umount = [=](std::string const& target) {
    return target == mountPoint ? Answer::Failure(EBUSY) : Answer::Success();
  };
  hooks().umount2 = [=, tried = 0](std::string const&, int flags) mutable {
    EXPECT_EQ(flags, MNT_FORCE);
    return ++tried == attempt ? Answer::Success() : Answer::Failure(EBUSY);
  };
}

/// The trace of failed forced attempts, each followed by a pause unless it is the tenth.
void AppendForcedAttempts(Texts& trace, std::string const& mountPoint, int failures) {
  for (int attempt = 1; attempt <= failures; ++attempt) {
    trace.push_back("umount2 " + mountPoint + " " + std::to_string(MNT_FORCE));
    if (attempt == 10) return;
    trace.insert(trace.end(), {"sync", Sleep(100ms)});
  }
}

std::string Repeated(int times, std::string const& line) {
  std::string text;
  for (int i = 0; i < times; ++i) text += line;
  return text;
}

class System : public testing::Test {
 protected:
  /// What a setting of the real-time clock that must fail prints.
  std::string SetRTCInVain() {
    long seconds = 1614877509;
    return Capture::AllOutput([&] { EXPECT_FALSE(system.SetRTC(seconds)); });
  }

  Quellon::System system;
};

TEST(SystemObject, GivesTheSameInstanceTwiceAndAnnouncesItOnce) {
  ChildProcess::Run([] {
    std::string const output = Capture::Output(
        [] { EXPECT_EQ(Quellon::System::GetInstance(), Quellon::System::GetInstance()); });
    EXPECT_EQ(output, "start instance of system class \n");
    EXPECT_EQ(Quellon::System::GetInstance()->disk, nullptr);
  });
}

TEST(SystemObject, HasNoInstanceBeforeItIsAskedForOne) {
  ChildProcess::Run([] {
    EXPECT_EQ(Quellon::System::instance, nullptr);
    Quellon::System* given = nullptr;
    Capture::Output([&] { given = Quellon::System::GetInstance(); });
    EXPECT_EQ(Quellon::System::instance, given);
    EXPECT_NE(given, nullptr);
  });
}

TEST(SystemObject, BeginsWithoutADiskAndWithTheFaultSet) {
  std::string const output = Capture::Output([] {
    Quellon::System const system;
    EXPECT_EQ(system.disk, nullptr);
    EXPECT_TRUE(system.diskFault);
    EXPECT_EQ(system.GetHealthReport(), "{}");
  });
  EXPECT_EQ(output, "start instance of system class \n");
}

TEST(SystemObject, LeavesTheDiskAloneWhenItGoes) {
  struct WatchedDisk : Quellon::DiskUtils::Disk {
    explicit WatchedDisk(bool& flag) : Disk(kCard, "/dev/mmcblk1p1", "mmcblk1"), gone(flag) {}
    ~WatchedDisk() override { gone = true; }
    bool& gone;
  };
  bool gone = false;
  std::optional<WatchedDisk> disk(gone);
  {
    Quellon::System system;
    system.disk = &*disk;
  }
  EXPECT_FALSE(gone);
}

TEST_F(System, LetsGoOfTheLogFileBeforeItUnmounts) {
  EveryUnmountSucceeds();
  std::filesystem::create_directories(Machine::Real("/var/log/"));
  Descriptors::Watch const descriptors;
  Capture::Output([] { LogLine(Tarvik::Ilog::Info) << "before"; });
  EXPECT_EQ(descriptors.Opened().size(), 1U);
  system.UnmountAll();
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
  Capture::Output([] { LogLine(Tarvik::Ilog::Info) << "after"; });
  EXPECT_THAT(Machine::ReadFile("/var/log/quellon.log"),
              testing::AllOf(testing::HasSubstr("]before\n"), testing::HasSubstr("]after\n")));
  Tarvik::Ilog::Logger::GetInstance()->Close();
}

TEST_F(System, WaitsForNoLineOfTheLog) {
  LogFile::BeginAnew();
  EveryUnmountSucceeds();
  auto& logger = *Tarvik::Ilog::Logger::GetInstance();
  Capture::Output([&] {
    Gate gate;
    std::thread other([&] {
      LogLine line(Tarvik::Ilog::Info);
      gate.Wait();
    });
    gate.AwaitThread();
    EXPECT_TRUE(LogFile::AnotherThreadGetsThrough([this] { system.UnmountAll(); }));
    EXPECT_FALSE(logger.Close());
    gate.Open();
    other.join();
    EXPECT_TRUE(logger.Close());
    LogLine const own(Tarvik::Ilog::Info);
    EXPECT_FALSE(logger.Close());
  });
  EXPECT_THAT(Trace(), ElementsAre("chdir /", "sync", "umount /", "umount /mnt/sdcard/"));
}

TEST_F(System, UnmountsRootAndThenTheCard) {
  EveryUnmountSucceeds();
  std::string const errors = Capture::ErrorOutput([&] { EXPECT_EQ(system.UnmountAll(), 0); });
  EXPECT_EQ(errors, "");
  EXPECT_THAT(Trace(), ElementsAre("chdir /", "sync", "umount /", "umount /mnt/sdcard/"));
}

TEST_F(System, GoesOnUnmountingWhenItCannotLeaveItsDirectory) {
  EveryUnmountSucceeds();
  hooks().chdir = [](auto&&) { return Answer::Failure(EACCES); };
  std::string const errors = Capture::ErrorOutput([&] { EXPECT_EQ(system.UnmountAll(), 0); });
  EXPECT_EQ(errors, "Unable to change dir to /: Permission denied\n");
  EXPECT_THAT(Trace(), ElementsAre("chdir /", "sync", "umount /", "umount /mnt/sdcard/"));
}

TEST_F(System, ForcesABusyRootTenTimesAfterASecondAndComplainsNineTimes) {
  IsBusyUntilForced(kRoot, 0);
  std::string const errors = Capture::ErrorOutput([&] { EXPECT_EQ(system.UnmountAll(), 0); });
  EXPECT_EQ(errors, Repeated(9, "Unable to umount root SD: Device or resource busy\n"));
  Texts expected{"chdir /", "sync", "umount /", Sleep(1s)};
  AppendForcedAttempts(expected, kRoot, 10);
  expected.push_back("umount /mnt/sdcard/");
  EXPECT_THAT(Trace(), ElementsAreArray(expected));
  EXPECT_EQ(Machine::Slept(), 1900ms);
}

TEST_F(System, StopsForcingTheRootOnceItGivesWay) {
  IsBusyUntilForced(kRoot, 3);
  std::string const errors = Capture::ErrorOutput([&] { EXPECT_EQ(system.UnmountAll(), 0); });
  EXPECT_EQ(errors, Repeated(2, "Unable to umount root SD: Device or resource busy\n"));
  Texts expected{"chdir /", "sync", "umount /", Sleep(1s)};
  AppendForcedAttempts(expected, kRoot, 2);
  expected.insert(expected.end(), {"umount2 / 1", "umount /mnt/sdcard/"});
  EXPECT_THAT(Trace(), ElementsAreArray(expected));
}

TEST_F(System, ForcesABusyCardAtOnceAndReturnsTheFailureOfTheTenthAttempt) {
  IsBusyUntilForced(kCard, 0);
  std::string const errors = Capture::ErrorOutput([&] { EXPECT_EQ(system.UnmountAll(), -1); });
  EXPECT_EQ(errors, Repeated(9, "Unable to umount storage SD: Device or resource busy\n"));
  Texts expected{"chdir /", "sync", "umount /", "umount /mnt/sdcard/"};
  AppendForcedAttempts(expected, kCard, 10);
  EXPECT_THAT(Trace(), ElementsAreArray(expected));
  EXPECT_EQ(Machine::Slept(), 900ms);
}

class SystemForcedCard : public System, public testing::WithParamInterface<int> {};

TEST_P(SystemForcedCard, CountsAsUnmountedWithWhicheverAttemptItGivesWay) {
  IsBusyUntilForced(kCard, GetParam());
  std::string const errors = Capture::ErrorOutput([&] { EXPECT_EQ(system.UnmountAll(), 0); });
  EXPECT_EQ(errors,
            Repeated(GetParam() - 1, "Unable to umount storage SD: Device or resource busy\n"));
  EXPECT_EQ(Machine::Traced("umount2").size(), GetParam());
}

INSTANTIATE_TEST_SUITE_P(EveryAttempt, SystemForcedCard, testing::Values(1, 2, 9, 10));

TEST_F(System, ComplainsWithTheErrorOfTheAttemptThatFailedAndNotOfAnyOtherCall) {
  IsBusyUntilForced(kCard, 0);
  hooks().sync = [] { errno = EIO; };
  hooks().umount2 = [tried = 0](auto&&...) mutable {
    return ++tried == 1 ? Answer::Failure(EINVAL) : Answer::Success();
  };
  EXPECT_EQ(Capture::ErrorOutput([&] { system.UnmountAll(); }),
            "Unable to umount storage SD: Invalid argument\n");
}

TEST_F(System, PausesInFullThoughSignalsArrive) {
  IsBusyUntilForced(kRoot, 2);
  hooks().interrupt = [arrived = 0](std::chrono::nanoseconds pause) mutable {
    return ++arrived % 2 == 1 ? std::optional(pause / 4) : std::nullopt;
  };
  Capture::ErrorOutput([&] { system.UnmountAll(); });
  EXPECT_THAT(Machine::Traced("sleep"),
              ElementsAre(Sleep(750ms), Sleep(250ms), Sleep(75ms), Sleep(25ms)));
}

/// While one exists, standard error is a pipe that nobody reads, full or without a reader.
class DeafStandardError {
 public:
  enum Kind { Full, Closed };

  explicit DeafStandardError(Kind kind) {
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
    std::array<char, 4096> const block{};
    while (kind == Full && write(ends[1], block.data(), block.size()) > 0) {
    }
    if (kind == Closed) close(ends[0]);
    fcntl(ends[1], F_SETFL, 0);  // as others' pipes are: writing to it waits
    dup2(ends[1], STDERR_FILENO);
  }

 private:
  Scoped::AtEnd const errors = Scoped::Descriptor(STDERR_FILENO);
  std::array<int, 2> ends{};
};

class SystemWithADeafStandardError : public System,
                                     public testing::WithParamInterface<DeafStandardError::Kind> {};

// In a child process, which ends by a signal if it waits, or writes where nobody reads.
TEST_P(SystemWithADeafStandardError, KeepsNothingFromBeingUnmounted) {
  ChildProcess::Run([this] {
    ChildProcess::EndInTime();
    hooks().chdir = [](auto&&) { return Answer::Failure(EACCES); };
    hooks().reboot = [](int) { return Answer::Success(); };
    int result = -1;
    bool unmounted = true;
    {
      DeafStandardError const deaf(GetParam());
      result = system.Reboot();
      unmounted = Quellon::DiskUtils::Disk(kCard, "/dev/mmcblk1p1", "mmcblk1").Umount();
    }
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(unmounted);
    EXPECT_THAT(Machine::Traced("umount2"), testing::SizeIs(30));
    EXPECT_THAT(Machine::Traced("reboot"), testing::SizeIs(1));
  });
}

INSTANTIATE_TEST_SUITE_P(Pipes, SystemWithADeafStandardError,
                         testing::Values(DeafStandardError::Full, DeafStandardError::Closed));

TEST_F(System, RebootsByCommandThenUnmountsAndHasTheKernelRestart) {
  EveryUnmountSucceeds();
  hooks().system = [](auto&&) { return Answer::Success(); };
  hooks().reboot = [](int command) {
    EXPECT_EQ(command, RB_AUTOBOOT);
    return Answer::Failure(EPERM);
  };
  EXPECT_EQ(system.Reboot(), -1);
  EXPECT_THAT(Trace(), ElementsAre("system reboot", Sleep(20s), "chdir /", "sync", "umount /",
                                   "umount /mnt/sdcard/", "reboot 19088743"));
}

TEST_F(System, RebootsThoughNeitherTheCommandNorTheUnmountsWork) {
  hooks().reboot = [](int) { return Answer::Success(); };
  int result = -1;
  Capture::ErrorOutput([&] { result = system.Reboot(); });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(Machine::Traced("umount2 /").size(), 20U);
  EXPECT_EQ(Trace().back(), "reboot 19088743");
}

TEST_F(System, GivesTheRebootCommandTwentySecondsThoughASignalArrives) {
  EveryUnmountSucceeds();
  hooks().interrupt = [](std::chrono::nanoseconds pause) {
    return pause == 20s ? std::optional<std::chrono::nanoseconds>(13s) : std::nullopt;
  };
  system.Reboot();
  EXPECT_THAT(Machine::Traced("sleep"), ElementsAre(Sleep(7s), Sleep(13s)));
}

TEST_F(System, SetsTheDateAndTellsWhetherTheKernelTookIt) {
  long seconds = 1614877509;
  EXPECT_FALSE(system.SetDate(seconds));
  for (int const result : {0, 1}) {
    hooks().setClock = [result](long) { return Answer{result, 0}; };
    EXPECT_TRUE(system.SetDate(seconds));
  }
  EXPECT_EQ(seconds, 1614877509);
  EXPECT_THAT(Trace(), testing::Each("clock 1614877509"));
  EXPECT_THAT(Trace(), testing::SizeIs(3));
}

/// A real-time clock; the system clock can be set `settings` times.
void ClockTakesSettings(int settings) {
  Machine::MakeFile("/dev/rtc0", "");
  hooks().ioctl = [](unsigned long request, void*) {
    EXPECT_EQ(request, RTC_SET_TIME);
    return Answer::Success();
  };
  hooks().setClock = [settings](long) mutable {
    return settings-- > 0 ? Answer::Success() : Answer::Failure(EINVAL);
  };
}

TEST_F(System, SetsTheSystemClockTwiceFromTheRealTimeClock) {
  ClockTakesSettings(2);
  long seconds = 1614877509;
  EXPECT_TRUE(system.SetRTC(seconds));
  EXPECT_EQ(seconds, 1614877509);
  EXPECT_THAT(Trace(), ElementsAre("clock 1614877509", "clock 1614877509"));
}

TEST_F(System, FailsToSetTheRealTimeClockWhenTheSecondSettingFails) {
  ClockTakesSettings(1);
  EXPECT_EQ(SetRTCInVain(), "");
  EXPECT_THAT(Trace(), ElementsAre("clock 1614877509", "clock 1614877509"));
}

TEST_F(System, TriesNoSecondSettingAfterTheFirstFailed) {
  ClockTakesSettings(0);
  EXPECT_EQ(SetRTCInVain(), "");
  EXPECT_THAT(Trace(), ElementsAre("clock 1614877509"));
}

TEST_F(System, LeavesTheSystemClockAloneWithoutARealTimeClock) {
  EXPECT_EQ(SetRTCInVain(), "");
  EXPECT_THAT(Trace(), IsEmpty());
}

}  // namespace
