#include "base/ISemaphore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <semaphore.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <thread>
#include <vector>

#include "tests/machine/Machine.h"
#include "tests/machine/Threads.h"

namespace {

using namespace std::chrono_literals;

class ISemaphore : public testing::Test {
 protected:
  ISemaphore() {
    threads.waitSemaphore = [this] {
      if (interruptions == 0) return 0;
      --interruptions;
      return EINTR;
    };
  }

  /// When a wait of `limit`, begun at `now`, ends at the latest.
  timespec Deadline(timespec now, std::chrono::milliseconds limit) {
    timespec deadline{};
    Machine::hooks().monotonic = now;
    threads.waitSemaphoreUntil = [&](sem_t*, clockid_t clock, timespec const& limitOfTheWait) {
      EXPECT_EQ(clock, CLOCK_MONOTONIC);
      deadline = limitOfTheWait;
      return ETIMEDOUT;
    };
    EXPECT_FALSE(semaphore.WaitFor(limit));
    Machine::hooks().monotonic.reset();
    return deadline;
  }

  Machine::ThreadHooks threads;
  std::atomic<int> interruptions = 0;  // how many plain waits a signal ends
  Tarvik::Interfaces::ISemaphore semaphore;
};

TEST_F(ISemaphore, BeginsAtZero) {
  EXPECT_FALSE(semaphore.TryWait());
}

TEST_F(ISemaphore, BeginsAtZeroWhateverItsMemoryHeldBefore) {
  using Semaphore = Tarvik::Interfaces::ISemaphore;
  alignas(Semaphore) std::array<std::byte, sizeof(Semaphore)> memory;
  memory.fill(std::byte{0xFF});
  auto* const made = new (memory.data()) Semaphore;
  EXPECT_FALSE(made->TryWait());
  made->Notify();
  EXPECT_TRUE(made->TryWait());
  EXPECT_FALSE(made->TryWait());
  std::destroy_at(made);
}

TEST_F(ISemaphore, CountsItsNotifications) {
  for (int i = 0; i < 3; ++i) semaphore.Notify();
  semaphore.Wait();
  EXPECT_TRUE(semaphore.TryWait());
  EXPECT_TRUE(semaphore.TryWait());
  EXPECT_FALSE(semaphore.TryWait());
}

TEST_F(ISemaphore, WaitsUntilItIsNotified) {
  std::atomic<bool> through = false;
  std::thread waiter([&] {
    semaphore.Wait();
    through = true;
  });
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  EXPECT_FALSE(through);
  semaphore.Notify();
  waiter.join();
  EXPECT_TRUE(through);
  EXPECT_FALSE(semaphore.TryWait());
}

TEST_F(ISemaphore, LetsOneWaiterThroughForEachNotification) {
  constexpr int kWaiters = 4;
  std::atomic<int> through = 0;
  std::vector<std::thread> waiters;
  waiters.reserve(kWaiters);
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      semaphore.Wait();
      ++through;
    });
  }
  for (int i = 1; i <= kWaiters; ++i) {
    semaphore.Notify();
    while (through < i) std::this_thread::yield();
    EXPECT_EQ(through, i);
  }
  for (auto& waiter : waiters) waiter.join();
}

TEST_F(ISemaphore, LosesAndMakesUpNothingBetweenManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kTimes = 10000;
  {
    std::vector<std::jthread> workers;
    for (int i = 0; i < kThreads; ++i) {
      workers.emplace_back([&] {
        for (int time = 0; time < kTimes; ++time) semaphore.Wait();
      });
      workers.emplace_back([&] {
        for (int time = 0; time < kTimes; ++time) semaphore.Notify();
      });
    }
  }  // a notification lost would leave a waiter here
  EXPECT_FALSE(semaphore.TryWait()) << "a waiter passed without a notification";
}

TEST_F(ISemaphore, ASignalDoesNotEndAWait) {
  interruptions = 3;
  semaphore.Notify();
  semaphore.Wait();
  EXPECT_EQ(interruptions, 0);
  EXPECT_FALSE(semaphore.TryWait());
}

TEST_F(ISemaphore, ASignalDoesNotLoseATry) {
  interruptions = 2;
  semaphore.Notify();
  EXPECT_TRUE(semaphore.TryWait());
  interruptions = 2;
  EXPECT_FALSE(semaphore.TryWait());
}

TEST_F(ISemaphore, ASignalDoesNotEndAWaitWithALimit) {
  int calls = 0;
  threads.waitSemaphoreUntil = [&](auto&&...) { return ++calls < 3 ? EINTR : 0; };
  EXPECT_TRUE(semaphore.WaitFor(1s));
  EXPECT_EQ(calls, 3);
  calls = 0;
  threads.waitSemaphoreUntil = [&](auto&&...) { return ++calls < 3 ? EINTR : ETIMEDOUT; };
  EXPECT_FALSE(semaphore.WaitFor(1s));
  EXPECT_EQ(calls, 3);
}

TEST_F(ISemaphore, AnInterruptedWaitKeepsItsDeadline) {
  std::vector<long> deadlines;
  Machine::hooks().monotonic = timespec{100, 0};
  threads.waitSemaphoreUntil = [&](sem_t*, clockid_t, timespec const& deadline) {
    deadlines.push_back(deadline.tv_sec);
    Machine::hooks().monotonic->tv_sec += 4;
    return deadlines.size() < 3 ? EINTR : ETIMEDOUT;
  };
  semaphore.WaitFor(10s);
  EXPECT_THAT(deadlines, testing::ElementsAre(110, 110, 110));
}

TEST_F(ISemaphore, ALimitIsCountedFromTheMonotonicClock) {
  timespec const deadline = Deadline({100, 250'000'000}, 10'500ms);
  EXPECT_EQ(deadline.tv_sec, 110);
  EXPECT_EQ(deadline.tv_nsec, 750'000'000);
}

TEST_F(ISemaphore, FractionsOfASecondCarryOver) {
  timespec const deadline = Deadline({100, 999'999'999}, 1ms);
  EXPECT_EQ(deadline.tv_sec, 101);
  EXPECT_EQ(deadline.tv_nsec, 999'999);
}

TEST_F(ISemaphore, ALimitBelowZeroIsOneOfZero) {
  for (auto const limit :
       {-1ms, std::chrono::milliseconds(-1h), std::chrono::milliseconds::min()}) {
    timespec const deadline = Deadline({100, 5}, limit);
    EXPECT_EQ(deadline.tv_sec, 100);
    EXPECT_EQ(deadline.tv_nsec, 5);
  }
}

TEST_F(ISemaphore, ALimitIsAYearAtMost) {
  constexpr std::chrono::hours kYear(24 * 365);
  for (auto const limit : {kYear - 1ms, kYear + 0ms}) {
    timespec const deadline = Deadline({100, 0}, limit);
    EXPECT_EQ(deadline.tv_sec * 1s + deadline.tv_nsec * 1ns, 100s + limit);
  }
  for (auto const limit : {kYear + 1ms, std::chrono::milliseconds::max()}) {
    timespec const deadline = Deadline({100, 5}, limit);
    EXPECT_EQ(deadline.tv_sec * 1s, 100s + kYear);
    EXPECT_EQ(deadline.tv_nsec, 5);
  }
}

TEST_F(ISemaphore, ALimitOfZeroIsOverAtOnce) {
  timespec const deadline = Deadline({100, 5}, 0ms);
  EXPECT_EQ(deadline.tv_sec, 100);
  EXPECT_EQ(deadline.tv_nsec, 5);
}

}  // namespace
