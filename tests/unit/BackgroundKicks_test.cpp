#include "Watchdog/BackgroundKicks.h"

#include <gtest/gtest.h>
#include <linux/watchdog.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <string>
#include <system_error>
#include <vector>

#include "tests/machine/Machine.h"
#include "tests/machine/Threads.h"
#include "tests/support/HeldLoad.h"
#include "tests/support/NotifySocket.h"

namespace {

using namespace std::chrono_literals;
using Machine::Answer;
using Machine::hooks;
using Quellon::WatchdogGuard;

class BackgroundKicks : public testing::Test {
 protected:
  BackgroundKicks() {
    Machine::MakeFile("/dev/watchdog", "");
    hooks().steady = [this] { return std::chrono::seconds(now.load()); };
    hooks().ioctl = [this](unsigned long request, void* argument) {
      if (request == WDIOC_GETTIMEOUT) *static_cast<int*>(argument) = timeout;
      if (request == WDIOC_KEEPALIVE) ++kicks;
      return Answer::Success();
    };
    // The worker's pauses are over at once, but not before the object is told to end.
    threads.waitSemaphoreUntil = [this](sem_t* over, auto, timespec const& deadline) {
      if (sem_trywait(over) == 0) return 0;
      if (goesOn) now = deadline.tv_sec;
      return ETIMEDOUT;
    };
    EXPECT_EQ(guard.Open(timeout), WatchdogGuard::Result::Done);
    kicks = 0;
  }
  ~BackgroundKicks() override { Machine::Reset(); }

  static constexpr long kBegin = 1000;
  static constexpr std::chrono::seconds kLongest = 100s;
  int timeout = 40;
  std::atomic<long> now = kBegin;
  std::atomic<int> kicks = 0;
  std::atomic<bool> goesOn = true;
  Machine::ThreadHooks threads;
  WatchdogGuard guard;
};

TEST_F(BackgroundKicks, AreAQuarterOfTheTimeoutApartAndEndWithWhatMayTakeNoLonger) {
  {
    Quellon::BackgroundKicks const kicked(guard, kLongest);
    EXPECT_TRUE(ComesTrue([this] { return kicks > 10; }));
  }
  EXPECT_EQ(kicks, 11);
  EXPECT_EQ(now, kBegin + 110);
}

TEST_F(BackgroundKicks, AreToldToTheServiceManager) {
  NotifySocket manager;
  {
    Quellon::BackgroundKicks const kicked(guard, kLongest);
    EXPECT_TRUE(ComesTrue([this] { return kicks > 10; }));
  }
  EXPECT_EQ(manager.Take(), std::vector<std::string>(11, "WATCHDOG=1"));
}

TEST_F(BackgroundKicks, GoOnWhereTheirLimitIsMoreThanAClockCountsTo) {
  Quellon::BackgroundKicks const kicked(guard, std::chrono::seconds::max());
  EXPECT_TRUE(ComesTrue([this] { return kicks > 10; }));
}

TEST_F(BackgroundKicks, EndAtOnceWithTheObject) {
  goesOn = false;
  { Quellon::BackgroundKicks const kicked(guard, kLongest); }
  EXPECT_EQ(now, kBegin);
}

TEST_F(BackgroundKicks, DoNoHarmWithoutAWatchdog) {
  WatchdogGuard none;
  {
    Quellon::BackgroundKicks const kicked(none, kLongest);
    EXPECT_TRUE(ComesTrue([this] { return now > kBegin + kLongest.count(); }));
  }
  EXPECT_EQ(kicks, 0);
}

TEST_F(BackgroundKicks, NeedAThread) {
  threads.create = [] { return EAGAIN; };
  EXPECT_THROW(Quellon::BackgroundKicks(guard, kLongest), std::system_error);
}

}  // namespace
