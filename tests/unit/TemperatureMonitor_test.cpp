#include "base/TemperatureMonitor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <semaphore>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "tests/machine/Machine.h"
#include "tests/machine/Threads.h"

namespace {

using namespace std::chrono_literals;

constexpr char const* kSensor = "/sys/class/thermal/thermal_zone0/temp";

std::counting_semaphore pauses(0);  // one for each pause that has begun
std::counting_semaphore ticks(0);   // one for each pause that may end by itself
std::mutex lengthsMutex;
std::vector<std::chrono::milliseconds> lengths;  // of the pauses

class TemperatureMonitor : public testing::Test {
 protected:
  void SetUp() override {
    lengths.clear();
    while (pauses.try_acquire()) {
    }
    Machine::hooks().monotonic = timespec{0, 0};
    threads.waitSemaphoreUntil = Pause;
  }
  void TearDown() override {
    Stop();
    Machine::hooks().monotonic.reset();  // who takes the test's time reads the same clock
  }

  void StartWith(std::string const& reading) {
    Machine::MakeFile(kSensor, reading);
    monitor.Start();
    pauses.acquire();
  }
  void Stop() {
    monitor.Cancel();
    monitor.Join();
  }
  static void NextReading() {
    ticks.release();
    pauses.acquire();
  }
  static void NextReading(std::string const& reading) {
    Machine::MakeFile(kSensor, reading);
    NextReading();
  }

  /// A pause ends when the test lets it, or when it is woken.
  static int Pause(sem_t* semaphore, clockid_t, timespec const& deadline) {
    {
      std::lock_guard const lock(lengthsMutex);
      lengths.push_back(deadline.tv_sec * 1s + deadline.tv_nsec / 1'000'000 * 1ms);
    }
    pauses.release();
    while (!ticks.try_acquire()) {
      if (sem_trywait(semaphore) == 0) return 0;
      std::this_thread::yield();
    }
    return ETIMEDOUT;
  }

  Machine::ThreadHooks threads;
  Tarvik::Util::TemperatureMonitor monitor;
};

TEST_F(TemperatureMonitor, HasOneMonitorForTheWholeProcess) {
  EXPECT_NE(Tarvik::Util::TemperatureMonitor::GetInstance(), nullptr);
  EXPECT_EQ(Tarvik::Util::TemperatureMonitor::GetInstance(),
            Tarvik::Util::TemperatureMonitor::GetInstance());
  EXPECT_FALSE(Tarvik::Util::TemperatureMonitor::GetInstance()->valid);
}

TEST_F(TemperatureMonitor, IsNotKnownBeforeTheStart) {
  Machine::MakeFile(kSensor, "41000\n");
  EXPECT_FALSE(monitor.valid);
  EXPECT_EQ(monitor.temperature, 0);
}

TEST_F(TemperatureMonitor, IsReadAtTheStart) {
  StartWith("41234\n");
  EXPECT_TRUE(monitor.valid);
  EXPECT_EQ(monitor.temperature, 41);
}

TEST_F(TemperatureMonitor, IsReadEveryTenSeconds) {
  StartWith("41000\n");
  NextReading("42000\n");
  EXPECT_EQ(monitor.temperature, 42);
  NextReading("43000\n");
  EXPECT_EQ(monitor.temperature, 43);
  Stop();
  EXPECT_THAT(lengths, testing::ElementsAre(10s, 10s, 10s));
}

TEST_F(TemperatureMonitor, IsRoundedTowardZero) {
  struct {
    char const* reading;
    int degrees;
  } const table[] = {{"999\n", 0},    {"-999\n", 0},           {"-1000\n", -1}, {"-7999\n", -7},
                     {"41999\n", 41}, {"2147483647", 2147483}, {"0\n", 0}};
  StartWith("1000\n");
  for (auto const& [reading, degrees] : table) {
    NextReading(reading);
    EXPECT_TRUE(monitor.valid) << reading;
    EXPECT_EQ(monitor.temperature, degrees) << reading;
  }
}

TEST_F(TemperatureMonitor, IsUnknownWhileItsSensorCannotBeRead) {
  StartWith("41000\n");
  for (char const* reading : {"", "\n", "hot\n", "2147483648\n"}) {
    NextReading(reading);
    EXPECT_FALSE(monitor.valid) << reading;
    NextReading("41000\n");
    EXPECT_TRUE(monitor.valid);
  }
}

TEST_F(TemperatureMonitor, ComesBackWithItsSensor) {
  StartWith("41000\n");
  std::filesystem::remove(Machine::Real(kSensor));
  NextReading();
  EXPECT_FALSE(monitor.valid);
  EXPECT_EQ(monitor.temperature, 41);
  NextReading("42000\n");
  EXPECT_TRUE(monitor.valid);
  EXPECT_EQ(monitor.temperature, 42);
}

TEST_F(TemperatureMonitor, IsUnknownOnceTheMonitorHasEnded) {
  StartWith("41000\n");
  Stop();
  EXPECT_FALSE(monitor.valid);
}

TEST_F(TemperatureMonitor, ACancelDoesNotWaitForThePauseToEnd) {
  StartWith("41000\n");
  Stop();
  EXPECT_EQ(lengths.size(), 1U);
}

TEST_F(TemperatureMonitor, IsReadAgainAfterANewStart) {
  StartWith("41000\n");
  Stop();
  StartWith("42000\n");
  EXPECT_TRUE(monitor.valid);
  EXPECT_EQ(monitor.temperature, 42);
}

TEST_F(TemperatureMonitor, ACancelOfAnIdleMonitorDoesNotShortenALaterPause) {
  for (int i = 0; i < 5; ++i) monitor.Cancel();
  StartWith("41000\n");
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  EXPECT_FALSE(pauses.try_acquire());
}

TEST_F(TemperatureMonitor, AMonitorMayBeDestroyedWhileItRuns) {
  Machine::MakeFile(kSensor, "41000\n");
  {
    Tarvik::Util::TemperatureMonitor running;
    running.Start();
    pauses.acquire();
    // The thread may still use what the monitor has, and its base has not.
    threads.join = [&thread = static_cast<Tarvik::Interfaces::IThread&>(running)] {
      EXPECT_EQ(typeid(thread), typeid(Tarvik::Util::TemperatureMonitor));
    };
  }
  threads.join = nullptr;
  EXPECT_EQ(lengths.size(), 1U);
}

}  // namespace
