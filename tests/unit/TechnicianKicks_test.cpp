// A watchdog that the service has left armed while a technician works on the card.
#include <gtest/gtest.h>
#include <linux/watchdog.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include "tests/machine/Machine.h"
#include "tests/machine/Threads.h"
#include "tests/support/FakeDevice.h"
#include "tests/support/ToolRun.h"

namespace {

using Machine::Answer;
using Machine::hooks;

class TechnicianKicks : public testing::Test {
 protected:
  TechnicianKicks() {
    FakeDevice::StopService();
    FakeDevice::Mount("tmpfs /tmp tmpfs rw");
    FakeDevice::SetWatchdog("timeout", "60");
    Machine::MakeFile("/dev/watchdog", "");
    hooks().ioctl = [this](unsigned long request, void* argument) {
      if (request == WDIOC_KEEPALIVE) ++kicks;
      if (request == WDIOC_SETOPTIONS) isStopped = true;
      if (request == WDIOC_SETTIMEOUT) timeout = *static_cast<int*>(argument);
      if (request == WDIOC_GETTIMEOUT) *static_cast<int*>(argument) = timeout;
      return Answer::Success();
    };
    // Each pause is over at once.
    threads.waitSemaphoreUntil = [](auto&&...) {
      std::this_thread::yield();
      return ETIMEDOUT;
    };
  }

  /// A check of the card that takes until the watchdog was kicked so often.
  ToolRun Check(int until) {
    hooks().system = [this, until](std::string const& command) {
      EXPECT_EQ(command, "fsck -f -n /dev/mmcblk1p1");
      auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
      while (kicks < until && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
      }
      kicksInTime = kicks;
      return Answer::Success();
    };
    return ToolRun({"card", "check"});
  }

  FakeDevice device;
  Machine::ThreadHooks threads;
  std::atomic<int> kicks = 0;
  int kicksInTime = 0;
  bool isStopped = false;
  int timeout = 0;
};

TEST_F(TechnicianKicks, KeepTheBoardFromRestartingInTheMiddleOfACheck) {
  ToolRun const run = Check(5);
  EXPECT_EQ(run.status, Quellon::Tool::Fine) << run.output;
  EXPECT_GE(kicksInTime, 5);
  EXPECT_EQ(timeout, 60) << "the timeout is the one that was set";
  EXPECT_FALSE(isStopped);
  EXPECT_TRUE(run.Shows("watchdog",
                        "armed: start the service within 1 min 0 s, or the board "
                        "restarts"))
      << run.output;
}

TEST_F(TechnicianKicks, ComeFourTimesInATimeout) {
  std::chrono::seconds pause{};
  threads.waitSemaphoreUntil = [&](sem_t*, clockid_t clock, timespec const& deadline) {
    timespec now{};
    clock_gettime(clock, &now);
    pause = std::chrono::seconds(deadline.tv_sec - now.tv_sec);
    return ETIMEDOUT;
  };
  Check(5);
  EXPECT_GE(pause.count(), 14);
  EXPECT_LE(pause.count(), 16);
}

TEST_F(TechnicianKicks, AreNotForAWatchdogThatIsNotArmed) {
  FakeDevice::SetWatchdog("state", "inactive");
  EXPECT_EQ(Check(0).output.find("watchdog"), std::string::npos);
  EXPECT_EQ(kicks, 0);
  EXPECT_EQ(timeout, 0) << "it was opened, and so armed";
}

TEST_F(TechnicianKicks, AreNotForAWatchdogThatSomebodyHolds) {
  FakeDevice::Start("1", "systemd", "");
  FakeDevice::Open("1", 30, "/dev/watchdog0");
  EXPECT_EQ(Check(0).output.find("watchdog"), std::string::npos);
  EXPECT_EQ(kicks, 0);
}

// Kernels without CONFIG_WATCHDOG_SYSFS do not tell whether it is armed: it may be.
TEST_F(TechnicianKicks, AreForAWatchdogOfWhichTheKernelTellsNothing) {
  Machine::RemoveFile("/sys/class/watchdog");
  ToolRun const run = Check(2);
  EXPECT_EQ(run.status, Quellon::Tool::Fine) << run.output;
  EXPECT_GE(kicksInTime, 2);
  EXPECT_FALSE(isStopped) << "it may have been armed";
  EXPECT_TRUE(run.Shows("watchdog",
                        "armed: start the service within 1 min 0 s, or the board "
                        "restarts"))
      << run.output;
}

TEST_F(TechnicianKicks, ComeWithinAMinuteWhereTheKernelTellsNoTimeout) {
  FakeDevice::SetWatchdog("timeout", "0");
  Check(2);
  EXPECT_GE(kicksInTime, 2);
  EXPECT_EQ(timeout, 60);
}

// What takes longer hangs, and is the watchdog's to end.
TEST_F(TechnicianKicks, EndAfterTwoHours) {
  using std::chrono::nanoseconds;
  std::atomic<std::int64_t> passed = 0;
  hooks().steady = [&passed] { return nanoseconds(passed); };
  threads.waitSemaphoreUntil = [&](auto&&...) {
    passed += nanoseconds(std::chrono::seconds(15)).count();
    std::this_thread::yield();
    return ETIMEDOUT;
  };
  auto const await = [&](std::chrono::hours time, std::chrono::milliseconds limit) {
    timespec real{};
    auto const now = [&] {
      clock_gettime(CLOCK_MONOTONIC_RAW, &real);
      return std::chrono::seconds(real.tv_sec) + nanoseconds(real.tv_nsec);
    };
    auto const deadline = now() + limit;
    while (nanoseconds(passed) < time && now() < deadline) std::this_thread::yield();
    return nanoseconds(passed);
  };
  nanoseconds end{};
  hooks().system = [&](std::string const&) {
    EXPECT_GE(await(std::chrono::hours(2), std::chrono::seconds(60)), std::chrono::hours(2));
    end = await(std::chrono::hours(4), std::chrono::milliseconds(20));
    return Answer::Success();
  };
  ToolRun({"card", "check"});
  hooks().steady = nullptr;
  EXPECT_LT(end, std::chrono::hours(2) + std::chrono::minutes(1));
}

// The proof of a large card takes longer than anything that hangs may.
TEST_F(TechnicianKicks, GoOnAsLongAsAProofDoes) {
  FakeDevice::Mount("/dev/mmcblk1p1 /mnt/sdcard ext4 rw");
  device.card.space.f_blocks = 4096;
  device.card.space.f_bfree = 4096;
  std::atomic<int> passed = 0;  // minutes
  hooks().steady = [&passed] { return std::chrono::minutes(passed); };
  threads.waitSemaphoreUntil = [](sem_t* semaphore, auto&&...) {
    sem_wait(semaphore);
    return 0;
  };
  hooks().write = [&](int, void const*, std::size_t size) -> std::optional<ssize_t> {
    if (size > 4096) passed += 30;
    return std::nullopt;
  };
  EXPECT_EQ(ToolRun({"card", "prove", "--erase"}).status, Quellon::Tool::Fine);
  hooks().steady = nullptr;
  EXPECT_GE(kicks, 15);
}

TEST_F(TechnicianKicks, AreLeftOutWhereTheWatchdogCannotBeOpened) {
  Machine::RemoveFile("/dev/watchdog");
  EXPECT_EQ(Check(0).status, Quellon::Tool::Fine);
}

}  // namespace
