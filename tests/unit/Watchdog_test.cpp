#include "Watchdog/Watchdog.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/watchdog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "base/Logger.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Descriptors.h"
#include "tests/support/LogFile.h"

namespace {

using Machine::Answer;
using Machine::hooks;
using Tarvik::Ilog::Info;
using Tarvik::Ilog::LogLine;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr char const* kDevice = "/dev/watchdog";

/// The log line of that message, without a temperature.
auto IsLogLine(std::string const& message) {
  return MatchesRegex(LogFile::kHeader + "\\[WTD\\] " + message + "\n");
}

/// A device whose driver takes every timeout and applies `applied` seconds.
void DriverApplies(int applied) {
  Machine::MakeFile(kDevice, "");
  hooks().ioctl = [applied](unsigned long, void* argument) {
    *static_cast<int*>(argument) = applied;
    return Answer::Success();
  };
}

/// A device whose driver takes no timeout.
void DriverRefuses() {
  Machine::MakeFile(kDevice, "");
  hooks().ioctl = [](unsigned long, void*) { return Answer::Failure(EINVAL); };
}

/// The open watchdog of that descriptor takes `length` bytes of what is written to it.
void DriverTakes(int const& fd, ssize_t length) {
  hooks().write = [&fd, length](int written, auto&&...) -> std::optional<ssize_t> {
    if (written != fd) return std::nullopt;
    errno = EIO;
    return length;
  };
}

class Watchdog : public testing::Test {
 protected:
  // The log file stays open once it was written; these tests count descriptors.
  Watchdog() { LogFile::Enable(false, true); }

  /// Whether the device is open when the one line that `work` logs goes to the log file.
  template <typename Work>
  static bool IsOpenWhenTheLineIsWritten(int const& device, Work work) {
    LogFile::BeginAnew();
    Capture::Output([] { LogLine(Info) << "a file opened later might get the device's number"; });
    bool open = false;
    int lines = 0;
    hooks().write = [&](int, void const* data, std::size_t length) -> std::optional<ssize_t> {
      std::string const text(static_cast<char const*>(data), length);
      if (text.find("[WTD]") == std::string::npos) return std::nullopt;
      ++lines;
      open = fcntl(device, F_GETFD) >= 0;
      return std::nullopt;
    };
    Capture::Output(work);
    hooks().write = nullptr;
    EXPECT_EQ(lines, 1);
    Tarvik::Ilog::Logger::GetInstance()->Close();
    return open;
  }

  Descriptors::Watch descriptors;
};

TEST_F(Watchdog, ArmsWithNinetySecondsUnlessToldOtherwise) {
  Machine::MakeFile(kDevice, "");
  std::vector<int> asked;
  hooks().ioctl = [&asked](unsigned long request, void* argument) {
    if (request == WDIOC_SETTIMEOUT) asked.push_back(*static_cast<int*>(argument));
    return Answer::Success();
  };
  Capture::Output([] {
    Quellon::Watchdog();
    Quellon::Watchdog(17);
    Quellon::Watchdog(0);
  });
  EXPECT_THAT(asked, ElementsAre(90, 17, 0));
}

TEST_F(Watchdog, LogsAndKeepsTheTimeoutThatTheDriverApplied) {
  DriverApplies(88);
  std::string const log = Capture::Output([] {
    Quellon::Watchdog const watchdog(90);
    EXPECT_EQ(watchdog.timeout, 88);
    EXPECT_EQ(watchdog.fd, 0);
  });
  EXPECT_THAT(log, IsLogLine("Watchdog timeout have been set to 88 seconds"));
}

TEST_F(Watchdog, SetsTheTimeoutFirstAndLogsTheOneItReadsBack) {
  Machine::MakeFile(kDevice, "");
  std::vector<unsigned long> requests;
  hooks().ioctl = [&requests](unsigned long request, void* argument) {
    requests.push_back(request);
    if (request == WDIOC_GETTIMEOUT) {
      EXPECT_EQ(*static_cast<int*>(argument), 0);
      *static_cast<int*>(argument) = 64;
    }
    return Answer::Success();
  };
  std::string const log = Capture::Output([] { EXPECT_EQ(Quellon::Watchdog(60).timeout, 60); });
  EXPECT_THAT(requests, ElementsAre(WDIOC_SETTIMEOUT, WDIOC_GETTIMEOUT));
  EXPECT_THAT(log, IsLogLine("Watchdog timeout have been set to 64 seconds"));
}

TEST_F(Watchdog, ClosesTheDeviceWhereItsLineCannotBeLogged) {
  DriverApplies(60);
  Capture::Output([] {
    LogLine const line(Info);  // this thread cannot begin another one
    EXPECT_THROW(Quellon::Watchdog(60), std::system_error);
  });
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(Watchdog, LogsZeroSecondsWhenTheTimeoutCannotBeReadBack) {
  Machine::MakeFile(kDevice, "");
  hooks().ioctl = [](unsigned long request, void*) {
    return request == WDIOC_SETTIMEOUT ? Answer::Success() : Answer::Failure(ENOTTY);
  };
  std::string const log = Capture::Output([] {
    Quellon::Watchdog watchdog(30);
    EXPECT_TRUE(watchdog.Init());
  });
  EXPECT_THAT(log.substr(0, log.find('\n') + 1),
              IsLogLine("Watchdog timeout have been set to 0 seconds"));
}

TEST_F(Watchdog, OpensTheDeviceForReadingAndWritingAndKeepsItFromCommands) {
  Machine::MakeFile(kDevice, "");
  hooks().ioctl = [this](unsigned long, void*) {
    int const fd = descriptors.Opened().back();
    EXPECT_TRUE(Descriptors::ClosesOnExec(fd));
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    return Answer::Success();
  };
  Capture::Output([] { Quellon::Watchdog(); });
}

TEST_F(Watchdog, ClosesTheDeviceAfterArmingAndAfterEveryKick) {
  DriverApplies(90);
  std::optional<Quellon::Watchdog> watchdog;
  Capture::Output([&] { watchdog.emplace(); });
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
  Capture::Output([&] { EXPECT_TRUE(watchdog->Reset()); });
  EXPECT_EQ(watchdog->fd, 0);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(Watchdog, TakesAnyResultOfSettingTheTimeoutThatIsNotNegativeForASuccess) {
  Machine::MakeFile(kDevice, "");
  hooks().ioctl = [](unsigned long, void*) { return Answer{1, 0}; };
  Capture::Output([] {
    Quellon::Watchdog watchdog;
    EXPECT_EQ(watchdog.fd, 0);
    EXPECT_TRUE(watchdog.Init());
  });
}

TEST_F(Watchdog, LogsItsTimeoutBeforeItClosesTheDevice) {
  Machine::MakeFile(kDevice, "");
  int device = -1;
  hooks().ioctl = [&](unsigned long, void*) {
    device = descriptors.Opened().back();
    return Answer::Success();
  };
  EXPECT_TRUE(IsOpenWhenTheLineIsWritten(device, [] { Quellon::Watchdog(); }));
}

TEST_F(Watchdog, ClosesTheDeviceBeforeItLogsAKick) {
  Quellon::Watchdog watchdog;
  Machine::MakeFile(kDevice, "");
  ASSERT_TRUE(watchdog.Open());
  int const device = watchdog.fd;
  EXPECT_FALSE(IsOpenWhenTheLineIsWritten(device, [&] { EXPECT_TRUE(watchdog.Reset()); }));
}

TEST_F(Watchdog, IsMadeSilentlyWithoutADevice) {
  std::string const log = Capture::Output([] {
    Quellon::Watchdog watchdog(45);
    EXPECT_EQ(watchdog.fd, -1);
    EXPECT_EQ(watchdog.timeout, 45);
    EXPECT_FALSE(watchdog.Init());
  });
  EXPECT_EQ(log, "");
}

TEST_F(Watchdog, LogsEveryKickThatFindsNoDevice) {
  Quellon::Watchdog watchdog;
  for (int kick = 0; kick < 2; ++kick) {
    std::string const log = Capture::Output([&] { EXPECT_FALSE(watchdog.Reset()); });
    EXPECT_THAT(log, IsLogLine("Watchdog could not be open"));
    EXPECT_EQ(watchdog.fd, -1);
  }
}

TEST_F(Watchdog, FindsADeviceThatAppearsLater) {
  Quellon::Watchdog watchdog;
  Machine::MakeFile(kDevice, "");
  Capture::Output([&] { EXPECT_TRUE(watchdog.Reset()); });
}

TEST_F(Watchdog, KicksWithTheFourBytesOfAOneAndNothingElse) {
  DriverApplies(90);
  std::string const log = Capture::Output([] {
    Quellon::Watchdog watchdog;
    EXPECT_EQ(Machine::ReadFile(kDevice), "");  // arming writes nothing
    EXPECT_TRUE(watchdog.Reset());
  });
  std::string const written = Machine::ReadFile(kDevice);
  ASSERT_EQ(written.size(), 4U);
  std::int32_t kick = 0;
  std::memcpy(&kick, written.data(), sizeof kick);
  EXPECT_EQ(kick, 1);
  EXPECT_THAT(log.substr(log.find('\n') + 1), IsLogLine("Watchdog have been reset"));
}

TEST_F(Watchdog, StaysOpenSilentlyWhenTheDriverRefusesTheTimeout) {
  DriverRefuses();
  std::string const log = Capture::Output([this] {
    Quellon::Watchdog const watchdog(5);
    EXPECT_GT(watchdog.fd, 0);
    EXPECT_EQ(watchdog.timeout, 5);
    EXPECT_THAT(descriptors.Opened(), testing::Contains(watchdog.fd));
  });
  Capture::Output([] { EXPECT_FALSE(Quellon::Watchdog().Init()); });
  EXPECT_EQ(log, "");
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(Watchdog, KicksThroughTheDescriptorThatWasLeftOpen) {
  DriverRefuses();
  Quellon::Watchdog watchdog;
  int const left = watchdog.fd;
  int opened = 0;
  hooks().fault = [&](Machine::Call const& call) -> std::optional<int> {
    if (call.function == "open") ++opened;
    return std::nullopt;
  };
  hooks().write = [left](int fd, auto&&...) -> std::optional<ssize_t> {
    return fd == left ? std::optional<ssize_t>(4) : std::nullopt;
  };
  Capture::Output([&] { EXPECT_TRUE(watchdog.Reset()); });
  EXPECT_EQ(opened, 0);
  EXPECT_EQ(watchdog.fd, 0);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

class WatchdogUnwrittenKick : public Watchdog, public testing::WithParamInterface<int> {};

TEST_P(WatchdogUnwrittenKick, FailsSilentlyAndLeavesTheDeviceOpenForTheNext) {
  Quellon::Watchdog watchdog;
  Machine::MakeFile(kDevice, "");
  ASSERT_TRUE(watchdog.Open());
  DriverTakes(watchdog.fd, GetParam());
  std::string const log = Capture::Output([&] { EXPECT_FALSE(watchdog.Reset()); });
  EXPECT_EQ(log, "");
  int const left = watchdog.fd;
  EXPECT_THAT(descriptors.Opened(), ElementsAre(left));
  Capture::Output([&] { EXPECT_FALSE(watchdog.Reset()); });
  EXPECT_EQ(watchdog.fd, left);
  hooks().write = nullptr;
  Capture::Output([&] { EXPECT_TRUE(watchdog.Reset()); });
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(FewerThanFourBytes, WatchdogUnwrittenKick, testing::Values(-1, 0, 1, 3));

TEST_F(Watchdog, ClosesOnlyADescriptorAboveZero) {
  Quellon::Watchdog watchdog;
  watchdog.fd = -1;
  EXPECT_FALSE(watchdog.Close());
  EXPECT_EQ(watchdog.fd, -1);
  watchdog.fd = 0;
  EXPECT_FALSE(watchdog.Close());
  EXPECT_GE(fcntl(0, F_GETFD), 0);
}

TEST_F(Watchdog, KicksThroughAndClosesADescriptorOfOneToo) {
  Machine::MakeFile(kDevice, "");
  ChildProcess::Run([] {
    Quellon::Watchdog watchdog;
    ASSERT_TRUE(watchdog.Open());
    Machine::RemoveFile(kDevice);  // so that it cannot be opened again
    dup2(watchdog.fd, 1);
    watchdog.Close();
    watchdog.fd = 1;
    EXPECT_TRUE(watchdog.Reset());
    EXPECT_EQ(watchdog.fd, 0);
    EXPECT_LT(fcntl(1, F_GETFD), 0);
  });
}

TEST_F(Watchdog, ArmsAgainWithoutKeepingTheDescriptorThatWasLeftOpen) {
  DriverRefuses();
  Quellon::Watchdog watchdog;
  DriverApplies(30);
  Capture::Output([&] { EXPECT_TRUE(watchdog.Init()); });
  EXPECT_EQ(watchdog.fd, 0);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(Watchdog, IsArmedAndKickedInAProcessWithoutStandardDescriptors) {
  ChildProcess::Run([] {
    std::vector<int> armed;
    std::vector<int> left;
    bool kicked = false;
    {
      Descriptors::NoStandardOnes const none;
      Descriptors::Watch const watch;
      Machine::MakeFile(kDevice, "");
      hooks().ioctl = [&](unsigned long, void*) {
        armed = watch.Opened();
        return Answer::Success();
      };
      Quellon::Watchdog watchdog;
      kicked = watchdog.Reset();
      left = watch.Opened();
    }
    EXPECT_THAT(armed, ElementsAre(testing::Gt(2)));
    EXPECT_TRUE(kicked);
    EXPECT_THAT(left, IsEmpty());
    EXPECT_EQ(Machine::ReadFile(kDevice).size(), 4U);
  });
}

TEST_F(Watchdog, OpensAndClosesOnItsOwn) {
  Quellon::Watchdog watchdog;
  Machine::MakeFile(kDevice, "");
  EXPECT_TRUE(watchdog.Open());
  EXPECT_THAT(descriptors.Opened(), ElementsAre(watchdog.fd));
  EXPECT_TRUE(watchdog.Close());
  EXPECT_EQ(watchdog.fd, 0);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

}  // namespace
