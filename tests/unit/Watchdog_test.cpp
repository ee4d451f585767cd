#include "Watchdog/Watchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/watchdog.h>

#include <cerrno>
#include <filesystem>

#include "tests/support/Capture.h"
#include "tests/support/Interpose.h"

namespace {

using Interpose::Answer;
using Quellon::Watchdog;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char const* kDevice = "/dev/watchdog";

/// A driver that takes every timeout and applies `applied` seconds.
void DriverApplies(int applied) {
  Interpose::MakeFile(kDevice, "");
  Interpose::hooks().ioctl = [applied](unsigned long request, void* argument) {
    EXPECT_TRUE(request == WDIOC_SETTIMEOUT || request == WDIOC_GETTIMEOUT);
    *static_cast<int*>(argument) = applied;
    return Answer::Success();
  };
}

TEST(Watchdog, ArmsWithNinetySecondsUnlessToldOtherwise) {
  Interpose::MakeFile(kDevice, "");
  int asked = 0;
  Interpose::hooks().ioctl = [&asked](unsigned long request, void* argument) {
    if (request == WDIOC_SETTIMEOUT) asked = *static_cast<int*>(argument);
    return Answer::Success();
  };
  Capture::Output([] { Watchdog(); });
  EXPECT_EQ(asked, 90);
  Capture::Output([] { Watchdog(17); });
  EXPECT_EQ(asked, 17);
}

TEST(Watchdog, LogsAndKeepsTheTimeoutThatTheDriverApplied) {
  DriverApplies(88);
  std::string const log = Capture::Output([] {
    Watchdog const watchdog(90);
    EXPECT_EQ(watchdog.timeout, 88);
    EXPECT_EQ(watchdog.fd, 0);
  });
  EXPECT_THAT(log, EndsWith("][WTD] Watchdog timeout have been set to 88 seconds\n"));
}

}  // namespace
