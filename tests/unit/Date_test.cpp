#include "base/Date.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/machine/Machine.h"
#include "tests/machine/Threads.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Gate.h"
#include "tests/support/Scoped.h"

namespace {

namespace Util = Tarvik::Util;

// What a test has done in the middle of a fork, as by the handler of a signal.
void (*duringFork)();

void RunDuringFork() {
  if (auto const work = std::exchange(duringFork, nullptr)) work();
}

// The first handler that is registered is the last before the fork: this is so early that all of
// the library's have been called.
void RegisterFirst(int, char**, char**) {
  pthread_atfork(&RunDuringFork, nullptr, nullptr);
}
[[gnu::section(".preinit_array"), gnu::used]] void (*const registerFirst)(int, char**,
                                                                          char**) = &RegisterFirst;

constexpr char const* kFormat = "%Y-%m-%d %H:%M:%S";

class Date : public testing::Test {
  Scoped::AtEnd const utc = Scoped::TimeZone("UTC");
};

TEST_F(Date, ShowsATimeInTheGivenFormat) {
  EXPECT_EQ(Util::Date(1614877509, kFormat), "2021-03-04 17:05:09");
  EXPECT_EQ(Util::Date(1614877509, "%d.%m.%Y"), "04.03.2021");
  EXPECT_EQ(Util::Date(1614877509, "%H"), "17");
}

TEST_F(Date, ShowsTheEpochAndWhatWasBefore) {
  EXPECT_EQ(Util::Date(0, kFormat), "1970-01-01 00:00:00");
  EXPECT_EQ(Util::Date(-1, kFormat), "1969-12-31 23:59:59");
}

TEST_F(Date, ShowsTheEndsOfA32BitClock) {
  EXPECT_EQ(Util::Date(2147483647, kFormat), "2038-01-19 03:14:07");
  EXPECT_EQ(Util::Date(-2147483647L - 1, kFormat), "1901-12-13 20:45:52");
}

TEST_F(Date, ShowsLeapDays) {
  EXPECT_EQ(Util::Date(1582934400, kFormat), "2020-02-29 00:00:00");
}

TEST_F(Date, ShowsLocalTime) {
  auto const east = Scoped::TimeZone("TEST-5:30");
  EXPECT_EQ(Util::Date(1614877509, kFormat), "2021-03-04 22:35:09");
  auto const west = Scoped::TimeZone("TEST8");
  EXPECT_EQ(Util::Date(1614877509, kFormat), "2021-03-04 09:05:09");
}

TEST_F(Date, ShowsSummerTime) {
  auto const zone = Scoped::TimeZone("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(Util::Date(1616893199, kFormat), "2021-03-28 01:59:59");
  EXPECT_EQ(Util::Date(1616893200, kFormat), "2021-03-28 03:00:00");
}

TEST_F(Date, KeepsTheTextAroundTheConversions) {
  EXPECT_EQ(Util::Date(0, ""), "");
  EXPECT_EQ(Util::Date(0, "no conversion"), "no conversion");
  EXPECT_EQ(Util::Date(0, "100%% at %H h"), "100% at 00 h");
}

TEST_F(Date, AFormatEndsAtItsFirstNul) {
  EXPECT_EQ(Util::Date(0, std::string("%Y\0%m", 5)), "1970");
  EXPECT_EQ(Util::Date(0, std::string("\0%m", 3)), "");
}

TEST_F(Date, HasNoLongestFormat) {
  std::string format;
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    format += "%Y";
    expected += "1970";
  }
  EXPECT_EQ(Util::Date(0, format), expected);
}

TEST_F(Date, ATimeWithoutADateIsShownAsItsNumber) {
  if (sizeof(time_t) == 4) GTEST_SKIP() << "every 32-bit time has a date";
  constexpr time_t kLast = std::numeric_limits<time_t>::max();
  constexpr time_t kFirst = std::numeric_limits<time_t>::min();
  EXPECT_EQ(Util::Date(kLast, kFormat), std::to_string(kLast));
  EXPECT_EQ(Util::Date(kFirst, kFormat), std::to_string(kFirst));
}

TEST_F(Date, NowIsTheSystemClocksTime) {
  Machine::hooks().now = 1614877509;
  EXPECT_EQ(Util::NewDate(kFormat), "2021-03-04 17:05:09");
  Machine::hooks().now = 0;
  EXPECT_EQ(Util::NewDate(kFormat), "1970-01-01 00:00:00");
}

TEST_F(Date, NowFollowsTheRealClock) {
  std::string const before = Util::Date(time(nullptr), kFormat);
  std::string const now = Util::NewDate(kFormat);
  EXPECT_LE(before, now);
  EXPECT_LE(now, Util::Date(time(nullptr), kFormat));
}

TEST_F(Date, ManyThreadsMayAskAtOnce) {
  std::vector<std::thread> threads;
  for (long i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      std::string const expected = "1970-01-0" + std::to_string(i + 1) + " 00:00:00";
      for (int round = 0; round < 200; ++round) EXPECT_EQ(Util::Date(i * 86400, kFormat), expected);
    });
  }
  for (auto& thread : threads) thread.join();
}

// As a handler of a signal does that interrupts the thread. The fork would wait in vain for a lock
// that its own thread holds.
TEST_F(Date, AForkOfTheThreadThatAsksStopsNeitherParentNorChild) {
  pid_t child = -1;
  Machine::ThreadHooks threads;
  threads.tryLock = [parent = getpid()](auto&&...) {
    if (getpid() == parent) ADD_FAILURE() << "the fork asks for a lock";
    return std::nullopt;
  };
  ChildProcess::EndInTime();
  Machine::hooks().localTime = [&, asked = false]() mutable {
    if (std::exchange(asked, true)) return;
    child = fork();
    if (child == 0) ChildProcess::EndInTime();
  };
  std::string const date = Util::Date(0, kFormat);
  std::string const next = Util::Date(1, kFormat);
  bool const right = date == "1970-01-01 00:00:00" && next == "1970-01-01 00:00:01";
  if (child == 0) _exit(right ? 0 : 1);
  alarm(0);
  EXPECT_TRUE(right);
  EXPECT_EQ(ChildProcess::Wait(child), 0);
}

int ExitCodeOfADate() {
  ChildProcess::EndInTime();
  return Util::Date(1, kFormat) == "1970-01-01 00:00:01" ? 0 : 1;
}

// The child would otherwise wait for a thread that it does not have.
TEST_F(Date, AForkWaitsForTheThreadThatAsks) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the race detector misses the parent's thread in the child";
#endif
  Gate gate;
  Machine::hooks().localTime = [&, asked = false]() mutable {
    if (std::exchange(asked, true)) return;
    gate.Wait();
  };
  std::thread thread([] { EXPECT_EQ(Util::Date(0, kFormat), "1970-01-01 00:00:00"); });
  gate.AwaitThread();
  int tries = 0;
  Machine::ThreadHooks threads;
  threads.tryLock = [&](auto&&...) {
    if (++tries == 2) gate.Open();
    return std::nullopt;
  };
  pid_t const child = ChildProcess::Start(&ExitCodeOfADate);
  if (tries < 2) gate.Open();
  thread.join();
  EXPECT_GE(tries, 2);
  EXPECT_EQ(ChildProcess::Wait(child), 0);
}

TEST_F(Date, AForkWaitsForTheThreadThatAsksForASecondAtMost) {
  Machine::hooks().monotonic = timespec{100, 0};
  int tries = 0;
  pthread_mutex_t const* lock = nullptr;
  bool isUnlocked = false;
  Machine::ThreadHooks threads;
  threads.tryLock = [&, parent = getpid()](pthread_mutex_t const* mutex) -> std::optional<int> {
    if (getpid() != parent || ++tries > 2) return std::nullopt;
    lock = mutex;
    timespec& now = *Machine::hooks().monotonic;
    now = tries == 1 ? timespec{101, 0} : timespec{101, 1};
    return EBUSY;
  };
  threads.unlock = [&](pthread_mutex_t const* mutex) { isUnlocked |= mutex == lock; };
  pid_t const child = ChildProcess::Start([] { return 0; });
  EXPECT_EQ(tries, 2);
  EXPECT_FALSE(isUnlocked) << "which is another thread's";
  EXPECT_EQ(ChildProcess::Wait(child), 0);
}

/// Counts how often a fork tries to take its lock in this process, and how often that is given
/// back.
class ForksLock {
 public:
  ForksLock() {
    threads.tryLock = [this](pthread_mutex_t const* mutex) -> std::optional<int> {
      if (getpid() != parent) return std::nullopt;
      ++tries;
      lock = mutex;
      return std::nullopt;
    };
    threads.unlock = [this](pthread_mutex_t const* mutex) { unlocks += mutex == lock; };
  }

  int tries = 0;
  int unlocks = 0;

 private:
  pid_t const parent = getpid();
  pthread_mutex_t const* lock = nullptr;
  Machine::ThreadHooks threads;
};

TEST_F(Date, AForkInTheMiddleOfItsOwnThreadsStopsNeitherParentNorChild) {
  static pid_t inner;
  duringFork = [] { inner = ChildProcess::Start(&ExitCodeOfADate); };
  {
    ForksLock const lock;
    pid_t const outer = ChildProcess::Start(&ExitCodeOfADate);
    EXPECT_EQ(lock.tries, 1);
    EXPECT_EQ(lock.unlocks, 1);
    EXPECT_EQ(ChildProcess::Wait(outer), 0);
  }
  EXPECT_EQ(ChildProcess::Wait(inner), 0);
  ChildProcess::EndInTime();
  EXPECT_EQ(Util::Date(0, kFormat), "1970-01-01 00:00:00");
  std::thread([] { EXPECT_EQ(Util::Date(0, kFormat), "1970-01-01 00:00:00"); }).join();
  alarm(0);
}

TEST_F(Date, CanBeAskedForInTheMiddleOfAFork) {
  duringFork = [] { EXPECT_EQ(Util::Date(0, kFormat), "1970-01-01 00:00:00"); };
  ChildProcess::EndInTime();
  ForksLock const lock;
  pid_t const child = ChildProcess::Start(&ExitCodeOfADate);
  EXPECT_EQ(lock.unlocks, 1) << "the fork has the lock, and keeps it";
  EXPECT_EQ(ChildProcess::Wait(child), 0);
  alarm(0);
}

TEST_F(Date, LeavesErrnoAsItWas) {
  Machine::hooks().localTime = [] { errno = ENOENT; };  // as where a time zone has no file
  errno = EACCES;
  std::string const date = Util::Date(0, kFormat);
  EXPECT_EQ(errno, EACCES);
}

}  // namespace
