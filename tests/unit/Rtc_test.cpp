#include "RTC/Rtc.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/machine/Machine.h"
#include "tests/machine/Threads.h"
#include "tests/support/Capture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Gate.h"
#include "tests/support/Scoped.h"

namespace {

namespace RTC = Quellon::RTC;
using Machine::Answer;
using Machine::hooks;
using Machine::Trace;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char const* kDevice = "/dev/rtc0";
constexpr char const* kCentralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr rtc_time kTime{9, 5, 17, 4, 2, 121, 4, 62, 0};  // Thursday, 4 March 2021, 17:05:09
constexpr long kTimeInUtc = 1614877509;

std::array<int, 9> Fields(rtc_time const& time) {
  return {time.tm_sec,  time.tm_min,  time.tm_hour, time.tm_mday, time.tm_mon,
          time.tm_year, time.tm_wday, time.tm_yday, time.tm_isdst};
}

/// A clock that holds `time`, and to which it can be set.
void ClockHolds(rtc_time& time) {
  Machine::MakeFile(kDevice, "");
  hooks().ioctl = [&time](unsigned long request, void* argument) {
    auto& wanted = *static_cast<rtc_time*>(argument);
    if (request == RTC_RD_TIME) wanted = time;
    if (request == RTC_SET_TIME) time = wanted;
    return Answer::Success();
  };
}

/// A clock whose requests all give `answer`.
void ClockAnswers(Answer answer) {
  Machine::MakeFile(kDevice, "");
  hooks().ioctl = [answer](unsigned long, void*) { return answer; };
}

class Rtc : public testing::Test {
 protected:
  Rtc() {
    hooks().setClock = [](long) { return Answer::Success(); };
  }

  /// Sets the system clock from `time`, and returns the seconds it was set to.
  std::string SecondsOf(rtc_time const& time) {
    rtc.rtcTime = time;
    EXPECT_TRUE(rtc.SetSystemClock());
    return Trace().back();
  }

  /// What a setting that must fail prints.
  std::string SetInVain() {
    long seconds = kTimeInUtc;
    return Capture::AllOutput([&] { EXPECT_FALSE(rtc.Set(seconds)); });
  }

  Scoped::AtEnd const zone = Scoped::TimeZone("UTC0");
  RTC::Rtc rtc{kDevice};
  Descriptors::Watch descriptors;
};

TEST_F(Rtc, TouchesNoDeviceWhenItIsMade) {
  hooks().fault = [](Machine::Call const& call) -> std::optional<int> {
    ADD_FAILURE() << call.function;
    return std::nullopt;
  };
  RTC::Rtc const made("/dev/rtc7");
  EXPECT_EQ(made.devicePath, "/dev/rtc7");
  EXPECT_THAT(Fields(made.rtcTime), testing::Each(0));
}

TEST_F(Rtc, LoadsTheTimeThatTheClockHolds) {
  rtc_time held = kTime;
  ClockHolds(held);
  EXPECT_TRUE(rtc.Load());
  EXPECT_EQ(Fields(rtc.rtcTime), Fields(kTime));
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
  EXPECT_THAT(Trace(), IsEmpty());
}

TEST_F(Rtc, KeepsItsTimeWhenThereIsNoDeviceToLoadFrom) {
  rtc.rtcTime = kTime;
  EXPECT_EQ(Capture::AllOutput([this] { EXPECT_FALSE(rtc.Load()); }), "");
  EXPECT_EQ(Fields(rtc.rtcTime), Fields(kTime));
}

class RtcFailedLoad : public Rtc, public testing::WithParamInterface<int> {};

TEST_P(RtcFailedLoad, ZeroesTheTimeAndClosesTheDevice) {
  ClockAnswers({GetParam(), EIO});
  rtc.rtcTime = kTime;
  EXPECT_EQ(Capture::AllOutput([this] { EXPECT_FALSE(rtc.Load()); }), "");
  EXPECT_THAT(Fields(rtc.rtcTime), testing::Each(0));
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(AnyResultButZero, RtcFailedLoad, testing::Values(-1, 1));

TEST_F(Rtc, OpensTheDeviceForReadingAndWritingAndKeepsItFromCommands) {
  Machine::MakeFile(kDevice, "");
  int requests = 0;
  hooks().ioctl = [&](unsigned long request, void*) {
    EXPECT_EQ(request, requests++ == 0 ? RTC_RD_TIME : RTC_SET_TIME);
    int const fd = descriptors.Opened().back();
    EXPECT_TRUE(Descriptors::ClosesOnExec(fd));
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    return Answer::Success();
  };
  long seconds = kTimeInUtc;
  rtc.Load();
  rtc.Set(seconds);
  EXPECT_EQ(requests, 2);
}

TEST_F(Rtc, NeverHasAStandardDescriptorForItsDevice) {
  ChildProcess::Run([this] {
    std::vector<int> opened;
    {
      Descriptors::NoStandardOnes const none;
      Descriptors::Watch const watch;
      Machine::MakeFile(kDevice, "");
      hooks().ioctl = [&](unsigned long, void*) {
        for (int const fd : watch.Opened()) opened.push_back(fd);
        return Answer::Success();
      };
      long seconds = kTimeInUtc;
      rtc.Load();
      rtc.Set(seconds);
    }
    EXPECT_THAT(opened, ElementsAre(testing::Gt(2), testing::Gt(2)));
  });
}

TEST_F(Rtc, SetsTheClockAndThenTheSystemClock) {
  rtc_time held{};
  ClockHolds(held);
  long seconds = kTimeInUtc;
  hooks().setClock = [&](long) {
    EXPECT_EQ(Fields(held), Fields(kTime));
    EXPECT_THAT(descriptors.Opened(), IsEmpty());
    return Answer::Success();
  };
  EXPECT_TRUE(rtc.Set(seconds));
  EXPECT_EQ(seconds, kTimeInUtc);
  EXPECT_EQ(Fields(rtc.rtcTime), Fields(kTime));
  EXPECT_THAT(Trace(), ElementsAre("clock 1614877509"));
}

TEST_F(Rtc, HoldsLocalTime) {
  auto const berlin = Scoped::TimeZone(kCentralEurope);
  rtc_time held{};
  ClockHolds(held);
  long seconds = 1625068800;  // 30 June 2021, 16:00 UTC
  EXPECT_TRUE(rtc.Set(seconds));
  EXPECT_EQ(held.tm_hour, 18);
  EXPECT_EQ(held.tm_isdst, 1);
  EXPECT_THAT(Trace(), ElementsAre("clock 1625068800"));
}

TEST_F(Rtc, BreaksTheTimeDownThoughThereIsNoDeviceToSet) {
  EXPECT_EQ(SetInVain(), "");
  EXPECT_EQ(Fields(rtc.rtcTime), Fields(kTime));
  EXPECT_THAT(Trace(), IsEmpty());
}

TEST_F(Rtc, LeavesTheSystemClockAloneWhenTheDeviceRefusesTheTime) {
  ClockAnswers(Answer::Failure(EINVAL));
  EXPECT_EQ(SetInVain(), "");
  EXPECT_THAT(Trace(), IsEmpty());
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(Rtc, TakesAnyResultOfSettingThatIsNotNegativeForASuccess) {
  ClockAnswers({1, 0});
  hooks().setClock = [](long) { return Answer{1, 0}; };
  long seconds = kTimeInUtc;
  EXPECT_TRUE(rtc.Set(seconds));
  EXPECT_TRUE(rtc.SetSystemClock());
}

TEST_F(Rtc, FailsWhenTheKernelRefusesTheTime) {
  rtc_time held{};
  ClockHolds(held);
  hooks().setClock = [](long) { return Answer::Failure(EPERM); };
  EXPECT_EQ(SetInVain(), "");
  EXPECT_EQ(Capture::AllOutput([this] { EXPECT_FALSE(rtc.SetSystemClock()); }), "");
  EXPECT_THAT(Trace(), ElementsAre("clock 1614877509", "clock 1614877509"));
}

TEST_F(Rtc, SetsTheSystemClockToTheLoadedTime) {
  rtc_time held = kTime;
  ClockHolds(held);
  rtc.Load();
  EXPECT_TRUE(rtc.SetSystemClock());
  EXPECT_THAT(Trace(), ElementsAre("clock 1614877509"));
}

TEST_F(Rtc, NormalisesItsTimeInPlace) {
  rtc_time const odd{75, 59, 23, 31, 11, 120, 0, 0, 0};  // 31 December 2020, 23:59:75
  EXPECT_EQ(SecondsOf(odd), "clock 1609459215");
  EXPECT_EQ(Fields(rtc.rtcTime), Fields({15, 0, 0, 1, 0, 121, 5, 0, 0}));
}

TEST_F(Rtc, KeepsATimeThatNoCalendarHas) {
  constexpr int kNever = std::numeric_limits<int>::max();
  rtc_time const never{9, 5, 17, 4, kNever, kNever, 4, 62, 0};
  SecondsOf(never);
  EXPECT_EQ(Fields(rtc.rtcTime), Fields(never));
}

TEST_F(Rtc, MovesATimeOfTheSpringGapOutOfIt) {
  auto const berlin = Scoped::TimeZone(kCentralEurope);
  rtc_time const skipped{0, 30, 2, 28, 2, 121, 0, 0, 0};  // 2:30 winter time is 3:30 summer time
  EXPECT_EQ(SecondsOf(skipped), "clock 1616895000");
  EXPECT_EQ(Fields(rtc.rtcTime), Fields({0, 30, 3, 28, 2, 121, 0, 86, 1}));
}

TEST_F(Rtc, TakesTheHourThatComesTwiceByItsDaylightSavingFlag) {
  auto const berlin = Scoped::TimeZone(kCentralEurope);
  rtc_time twice{0, 30, 2, 31, 9, 121, 0, 0, 1};  // 31 October 2021, 2:30
  EXPECT_EQ(SecondsOf(twice), "clock 1635640200");
  twice.tm_isdst = 0;
  EXPECT_EQ(SecondsOf(twice), "clock 1635643800");
}

TEST_F(Rtc, NeverWritesBeyondItsTime) {
  struct Guarded {
    RTC::Rtc rtc{kDevice};
    std::array<unsigned char, 64> guard{};
  } guarded;
  guarded.guard.fill(0xA5);
  guarded.rtc.rtcTime = kTime;
  ClockAnswers(Answer::Success());
  long seconds = kTimeInUtc;
  auto const berlin =
      Scoped::TimeZone(kCentralEurope);  // an offset and a name that the C library would write
  guarded.rtc.Set(seconds);
  guarded.rtc.SetSystemClock();
  EXPECT_EQ(std::ranges::count(guarded.guard, 0xA5), 64);
  EXPECT_GT(sizeof(tm), sizeof(rtc_time));
}

TEST_F(Rtc, PrintsItsTimeAndTheSystemsAsMonthDayYear) {
  rtc.rtcTime = kTime;
  hooks().now = 951782400 + 3600 + 120 + 3;  // 29 February 2000, 1:02:03
  std::string const expected = "RTC: 3/4/2021 17:05:09\nSystem: 2/29/2000 01:02:03\n";
  int printed = 0;
  EXPECT_EQ(Capture::Output([&] { printed = rtc.Print(); }), expected);
  EXPECT_EQ(printed, static_cast<int>(expected.size()));
}

TEST_F(Rtc, HasPrintedItsTimeThoughTheProcessEndsRightAfterIt) {
  hooks().now = 0;
  auto const [output, status] = ChildProcess::ThroughPipe([this] {
    rtc.Print();
    _exit(0);
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(output, "RTC: 1/0/1900 00:00:00\nSystem: 1/1/1970 00:00:00\n");
}

TEST_F(Rtc, PrintsTheSystemsTimeInAZoneThatWasJustChosen) {
  hooks().now = 1625068800;
  setenv("TZ", "XYZ-3", 1);
  EXPECT_EQ(Capture::Output([this] { rtc.Print(); }),
            "RTC: 1/0/1900 00:00:00\nSystem: 6/30/2021 19:00:00\n");
}

TEST_F(Rtc, PrintsTheSystemsTimeInLocalTime) {
  auto const berlin = Scoped::TimeZone(kCentralEurope);
  hooks().now = 1625068800;
  EXPECT_EQ(Capture::Output([this] { rtc.Print(); }),
            "RTC: 1/0/1900 00:00:00\nSystem: 6/30/2021 18:00:00\n");
}

// A date that is made meanwhile would keep the child's first one waiting for ever.
TEST_F(Rtc, AForkWaitsForTheThreadThatPrints) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the race detector misses the parent's thread in the child";
#endif
  int tries = 0;
  Gate gate;
  hooks().localTime = [&, isFirst = true]() mutable {
    if (std::exchange(isFirst, false)) gate.Wait();
  };
  std::thread thread([this] { Capture::Output([this] { rtc.Print(); }); });
  gate.AwaitThread();
  Machine::ThreadHooks threads;
  threads.tryLock = [&](auto&&...) {
    if (++tries == 2) gate.Open();
    return std::nullopt;
  };
  pid_t const child = ChildProcess::Start([] { return 0; });
  if (tries < 2) gate.Open();
  thread.join();
  EXPECT_GE(tries, 2);
  EXPECT_EQ(ChildProcess::Wait(child), 0);
}

}  // namespace
