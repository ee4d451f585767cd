// The example recorder on a thread of its own, which no pause keeps.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/watchdog.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "examples/recorder/Recorder.h"
#include "tests/machine/Machine.h"
#include "tests/machine/Threads.h"
#include "tests/support/Capture.h"
#include "tests/support/FakeCard.h"
#include "tests/support/HeldLoad.h"
#include "tests/support/LogFile.h"
#include "tests/support/Scoped.h"

inline constexpr char const* kRecordings = "/mnt/sdcard/cr/";

class RecorderTest : public testing::Test {
 public:
  static inline std::atomic<bool> writesBack = true;  ///< what sync_file_range(2) answers

 protected:
  RecorderTest() {
    writesBack = true;
    LogFile::BeginAnew();
    settings.recordingBytes = 100;
    settings.periodMilliseconds = 1;
    settings.minimumFreeBytes = 0;
    Machine::MakeFile("/dev/watchdog", "");
    Machine::MakeFile("/proc/self/mountinfo", MountOfTheCard());
    Machine::hooks().ioctl = [this](unsigned long request, void* argument) {
      if (request == WDIOC_GETSUPPORT) {
        static_cast<watchdog_info*>(argument)->options = WDIOF_MAGICCLOSE;
      }
      if (request == WDIOC_GETTIMEOUT) *static_cast<int*>(argument) = 90;
      if (request == WDIOC_KEEPALIVE) ++kicks;
      return Machine::Answer::Success();
    };
    threads.waitSemaphoreUntil = [this](sem_t* semaphore, auto, timespec const& deadline) {
      return Wait(semaphore, deadline);
    };
    Machine::hooks().statvfs = [this](auto&&, struct statvfs* space) {
      *space = card.space;
      space->f_bfree = freeBlocks;
      space->f_ffree = freeInodes;
      bool const hasCatalogue = LogFile::Text().find("Allocated disk space") != std::string::npos;
      if (hasCatalogue && load.IsHeld()) ++measured;
      return isMeasurable ? Machine::Answer::Success() : Machine::Answer::Failure(EIO);
    };
    Machine::hooks().fsync = [this](int) -> std::optional<Machine::Answer> {
      if (isWritable) return std::nullopt;
      return Machine::Answer::Failure(EIO);
    };
    Machine::hooks().unlink = [this](std::string const& path) -> std::optional<Machine::Answer> {
      if (path.starts_with(kRecordings)) freeBlocks += kEnough;
      return std::nullopt;
    };
    Machine::hooks().umount2 = [this](auto&&...) {
      bool const wasMounted = std::exchange(card.mounted, false);
      return wasMounted ? Machine::Answer::Success() : Machine::Answer::Failure(EINVAL);
    };
  }

  static std::string MountOfTheCard() {
    struct stat partition {};
    fstatat(AT_FDCWD, Machine::Real(FakeCard::kPartition).c_str(), &partition, 0);
    return "35 21 " + std::to_string(major(partition.st_dev)) + ":" +
           std::to_string(minor(partition.st_dev)) +
           " / /mnt/sdcard rw,noatime - ext4 /dev/mmcblk1p1 rw\n";
  }

  static void MakeRecordings(int count) {
    for (int number = 1; number <= count; ++number) {
      std::string const stem = kRecordings + ("rec_00000" + std::to_string(number));
      Machine::MakeFile(stem + ".dat", "1234567890");
      Machine::MakeFile(stem + ".gps", "12345");
      for (auto const* extension : {".dat", ".gps"}) {
        namespace fs = std::filesystem;
        fs::last_write_time(Machine::Real(stem + extension),
                            fs::file_time_type::clock::now() - std::chrono::hours(1));
      }
    }
  }

  /// Runs the recorder on a thread of its own, as the service's first, while the result lasts: no
  /// longer than what a test's hooks refer to.
  [[nodiscard]] Scoped::AtEnd StartRecorder() {
    recorder = std::make_unique<Recorder>(settings);
    service = std::thread([this] {
      isService = true;
      recorder->Run();
    });
    return Scoped::AtEnd([this] {
      if (service.joinable()) StopRecorder();
      load.LetGo();
      recorder.reset();
    });
  }

  /// Waits for the recorder's thread, but not for a load that is held.
  void StopRecorder() {
    recorder->Stop();
    service.join();
  }

  static bool Logs(std::string const& text) {
    return ComesTrue([&text] { return LogFile::Text().find(text) != std::string::npos; });
  }

  static std::vector<std::string> LinesWith(std::string const& text) {
    std::vector<std::string> found;
    for (auto const& line : LogFile::SplitLines(LogFile::Text())) {
      if (line.find(text) != std::string::npos)
        found.push_back(line.substr(LogFile::kHeaderLength));
    }
    return found;
  }

  /// Expects the three recordings there were and what was recorded meanwhile in the catalogue.
  void ExpectEachFileOnce() {
    ASSERT_TRUE(Logs("[REC] Catalogue"));
    StopRecorder();
    std::size_t meanwhile = 0;
    for (auto const& line : LinesWith("[REC] ")) {
      if (line.starts_with("[REC] Catalogue")) break;
      meanwhile += line.starts_with("[REC] Recorded");
    }
    EXPECT_THAT(
        LinesWith("[REC] Catalogue"),
        testing::ElementsAre("[REC] Catalogue of " + std::to_string(6 + meanwhile) + " files, " +
                             std::to_string(3 * 15 + meanwhile / 2 * (100 + 1024)) + " bytes"));
  }

  static constexpr fsblkcnt_t kEnough = 1000000;
  std::atomic<fsblkcnt_t> freeBlocks = kEnough;
  std::atomic<fsfilcnt_t> freeInodes = 1000;
  std::atomic<int> kicks = 0;     // of the watchdog
  std::atomic<int> measured = 0;  // how often, for room, before the load is let go
  std::atomic<bool> isMeasurable = true;
  std::atomic<bool> isWritable = true;
  std::atomic<bool> hasOthers = false;  // that wait no longer than the service does
  Settings settings;
  Capture::Descriptor console{1};
  FakeCard card;
  HeldLoad load;
  std::unique_ptr<Recorder> recorder;
  std::thread service;
  std::function<void(timespec const& deadline)> duringPause;  // of the service, on its thread
  static inline thread_local bool isService = false;

 private:
  /// The service's pauses are over at once. Those of who kicks the watchdog meanwhile, or looks at
  /// the card, never are, unless it has such others.
  int Wait(sem_t* semaphore, timespec const& deadline) {
    if (!isService && !hasOthers) return sem_wait(semaphore) == 0 ? 0 : errno;
    if (sem_trywait(semaphore) == 0) return 0;
    if (isService && duringPause) duringPause(deadline);
    return ETIMEDOUT;
  }

  Machine::ThreadHooks threads;
};
