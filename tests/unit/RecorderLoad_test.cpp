// The example recorder records while its catalogue is loaded.
#include "examples/recorder/Recorder.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/mount.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/machine/Threads.h"
#include "tests/support/CatalogueTest.h"
#include "tests/support/FakeCard.h"
#include "tests/support/LogFile.h"

namespace {

std::atomic<bool> writesBack = true;

}  // namespace

// The recorder's own call: its source is a part of this program.
extern "C" int sync_file_range(int /*fd*/, off64_t /*offset*/, off64_t /*count*/,
                               unsigned int /*flags*/) {
  if (writesBack) return 0;
  errno = EIO;
  return -1;
}

namespace {

using namespace std::chrono_literals;
using Machine::hooks;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr auto kEntryPause = 1ms;
constexpr char const* kRecordings = "/mnt/sdcard/cr/";

/// Holds the load, at its first entry if not before, until it is let go.
class HeldLoad {
 public:
  HeldLoad() {
    hooks().sleep = [this](std::chrono::nanoseconds pause) {
      if (pause == kEntryPause) Hold();
    };
  }
  HeldLoad(HeldLoad const&) = delete;
  HeldLoad& operator=(HeldLoad const&) = delete;
  ~HeldLoad() { LetGo(); }

  void Hold() {
    isLoading = true;
    isLoading.notify_all();
    isOpen.wait(false);
  }
  void Await() { isLoading.wait(false); }
  bool IsHeld() { return !isOpen; }
  void LetGo() {
    isOpen = true;
    isOpen.notify_all();
  }

 private:
  std::atomic<bool> isLoading = false;
  std::atomic<bool> isOpen = false;
};

/// Whether `holds` becomes true before long, by the clock that no test here changes.
template <typename Condition>
bool ComesTrue(Condition holds) {
  auto const deadline = std::chrono::system_clock::now() + LogFile::kPatience;
  while (!holds() && std::chrono::system_clock::now() < deadline) std::this_thread::yield();
  return holds();
}

class RecorderLoad : public testing::Test {
 protected:
  RecorderLoad() {
    LogFile::BeginAnew();
    settings.recordingBytes = 100;
    settings.period = 1ms;
    settings.minimumFreeBytes = 0;
    threads.waitSemaphoreUntil = [this](sem_t* semaphore, auto&&...) { return Wait(semaphore); };
    hooks().statvfs = [this](auto&&, struct statvfs* space) {
      *space = card.space;
      space->f_bfree = freeBlocks;
      bool const hasCatalogue = LogFile::Text().find("Allocated disk space") != std::string::npos;
      if (hasCatalogue && load.IsHeld()) ++measured;
      return isMeasurable ? Machine::Answer::Success() : Machine::Answer::Failure(EIO);
    };
    hooks().fsync = [this](int) -> std::optional<Machine::Answer> {
      if (isWritable) return std::nullopt;
      return Machine::Answer::Failure(EIO);
    };
    hooks().unlink = [this](std::string const& path) -> std::optional<Machine::Answer> {
      if (path.starts_with(kRecordings)) freeBlocks += kEnough;
      return std::nullopt;
    };
  }

  ~RecorderLoad() override { EndRecorder(); }

  static void MakeRecordings(int count) {
    for (int number = 1; number <= count; ++number) {
      std::string const stem = kRecordings + ("rec_00000" + std::to_string(number));
      Machine::MakeFile(stem + ".dat", "1234567890");
      Machine::MakeFile(stem + ".gps", "12345");
    }
  }

  /// Runs the recorder on a thread of its own, as the service's first.
  void StartRecorder() {
    recorder = std::make_unique<Recorder>(settings);
    service = std::thread([this] {
      isService = true;
      recorder->Run();
    });
  }

  /// Waits for the recorder's thread, but not for a load that is held.
  void StopRecorder() {
    recorder->Stop();
    service.join();
  }

  void EndRecorder() {
    if (service.joinable()) StopRecorder();
    load.LetGo();
    recorder.reset();
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
    EXPECT_THAT(LinesWith("[REC] Catalogue"),
                ElementsAre("[REC] Catalogue of " + std::to_string(6 + meanwhile) + " files, " +
                            std::to_string(3 * 15 + meanwhile / 2 * (100 + 1024)) + " bytes"));
  }

  static constexpr fsblkcnt_t kEnough = 1000000;
  std::atomic<fsblkcnt_t> freeBlocks = kEnough;
  std::atomic<int> measured = 0;  // how often, for room, before the load is let go
  std::atomic<bool> isMeasurable = true;
  std::atomic<bool> isWritable = true;
  Settings settings;
  Capture::Descriptor console{1};
  FakeCard card;
  HeldLoad load;
  std::unique_ptr<Recorder> recorder;
  std::thread service;
  std::function<void()> duringPause;  // of the service, on its thread
  static thread_local bool isService;

 private:
  /// The service's pauses are over at once. Those of who kicks the watchdog meanwhile never are.
  int Wait(sem_t* semaphore) {
    if (!isService) return sem_wait(semaphore) == 0 ? 0 : errno;
    if (sem_trywait(semaphore) == 0) return 0;
    if (duringPause) duringPause();
    return ETIMEDOUT;
  }

  Machine::ThreadHooks threads;
};

thread_local bool RecorderLoad::isService = false;

TEST_F(RecorderLoad, RecordsWhileTheCatalogueIsLoaded) {
  MakeRecordings(3);
  StartRecorder();
  load.Await();
  ASSERT_TRUE(Logs("Recorded rec_000005.gps"));
  EXPECT_THAT(LinesWith("[REC] Catalogue"), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists(Machine::Real("/mnt/sdcard/cr/rec_000000.dat")));
  EXPECT_THAT(LinesWith("[REC] Recorded")[0], HasSubstr("rec_000004.dat 100 bytes"));
  load.LetGo();
  ASSERT_TRUE(Logs("[REC] Catalogue"));
  StopRecorder();
}

TEST_F(RecorderLoad, CataloguesOnceWhatTheLoadDoesNotFind) {
  MakeRecordings(3);
  StartRecorder();
  load.Await();  // it has read the names by then
  ASSERT_TRUE(Logs("Recorded rec_000006.gps"));
  load.LetGo();
  ExpectEachFileOnce();
}

TEST_F(RecorderLoad, CataloguesOnceWhatTheLoadFindsToo) {
  MakeRecordings(3);
  hooks().fault = [this](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function == "readdir" && !isService) load.Hold();
    return {};
  };
  StartRecorder();
  load.Await();
  ASSERT_TRUE(Logs("Recorded rec_000006.gps"));
  load.LetGo();
  ExpectEachFileOnce();
}

TEST_F(RecorderLoad, AFullCardWaitsForTheCatalogueAndNothingIsDeletedMeanwhile) {
  MakeRecordings(3);
  freeBlocks = 0;
  StartRecorder();
  load.Await();
  ASSERT_TRUE(ComesTrue([this] { return measured > 0; }));
  EXPECT_THAT(LinesWith("[REC] Recorded"), IsEmpty());
  EXPECT_THAT(Machine::Traced("unlink /mnt/sdcard/cr/"), IsEmpty());
  load.LetGo();
  ASSERT_TRUE(Logs("Recorded rec_000004.gps"));
  StopRecorder();
  auto const lines = LinesWith("[REC] ");
  EXPECT_THAT(lines[1], HasSubstr("Catalogue of 6 files"));
  EXPECT_THAT(lines[2], HasSubstr("Deleted 2 oldest"));
}

TEST_F(RecorderLoad, AFullCardWaitsNoLongerThanForTheCatalogue) {
  MakeRecordings(3);
  freeBlocks = 0;
  settings.period = 1h;
  StartRecorder();
  load.Await();
  ASSERT_TRUE(ComesTrue([this] { return measured > 0; }));
  load.LetGo();
  EXPECT_TRUE(Logs("Recorded rec_000004.gps"));
}

TEST_F(RecorderLoad, ACardThatCannotBeMeasuredWaitsForTheCatalogue) {
  MakeRecordings(3);
  StartRecorder();
  load.Await();
  ASSERT_TRUE(Logs("Recorded rec_000004.gps"));
  isMeasurable = false;
  ASSERT_TRUE(ComesTrue([this, before = measured.load()] { return measured > before; }));
  EXPECT_THAT(LinesWith("[REC] Card released"), IsEmpty());
  load.LetGo();
  EXPECT_TRUE(Logs("[REC] Card released"));
  EXPECT_THAT(LinesWith("stat error"), ElementsAre("[ERROR][REC] Get space stat error"));
}

TEST_F(RecorderLoad, ACatalogueThatCannotBeLoadedGivesTheCardUp) {
  std::atomic<bool> hasRead = false;  // the names, before the load
  hooks().fault = [&hasRead](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function == "readdir") hasRead = true;
    if (call.function != "opendir" || !hasRead) return {};
    return EIO;
  };
  StartRecorder();
  EXPECT_TRUE(Logs("[REC] Card released"));
  EXPECT_THAT(LinesWith("[ERROR]"), ElementsAre("[ERROR][REC] Could not open directory"));
}

TEST_F(RecorderLoad, NamesThatCannotBeReadGiveTheCardUp) {
  MakeRecordings(3);
  hooks().fault = [](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function != "readdir") return {};
    return EIO;
  };
  StartRecorder();
  EXPECT_TRUE(Logs("[REC] Card released"));
  EXPECT_THAT(LinesWith("[ERROR]"), ElementsAre("[ERROR][REC] Could not read /mnt/sdcard/cr/"));
  EXPECT_THAT(LinesWith("[REC] Recorded"), IsEmpty());
}

TEST_F(RecorderLoad, ACardThatFailsMeanwhileIsGivenUpWhenTheLoadIsOver) {
  StartRecorder();
  load.Await();
  ASSERT_TRUE(Logs("Recorded rec_000001.gps"));
  isWritable = false;
  ASSERT_TRUE(Logs("[REC] Could not write"));
  EXPECT_THAT(LinesWith("[REC] Card released"), IsEmpty());
  load.LetGo();
  EXPECT_TRUE(Logs("[REC] Card released"));
  EXPECT_THAT(LinesWith("[REC] Catalogue"), IsEmpty());
}

TEST_F(RecorderLoad, PositionsThatCannotBeWrittenBackAreAFailure) {
  writesBack = false;
  load.LetGo();
  StartRecorder();
  EXPECT_TRUE(Logs("[REC] Card released"));
  EXPECT_THAT(LinesWith("Could not write"),
              ElementsAre("[ERROR][REC] Could not write /mnt/sdcard/cr/rec_000001.gps"));
  EXPECT_THAT(LinesWith("[REC] Recorded"), IsEmpty());
  EndRecorder();
  writesBack = true;
}

TEST_F(RecorderLoad, StoppingDoesNotWaitForTheLoad) {
  StartRecorder();
  load.Await();
  ASSERT_TRUE(Logs("Recorded rec_000001.gps"));
  StopRecorder();
  EXPECT_TRUE(load.IsHeld());
  EXPECT_THAT(Machine::Traced("umount2"),
              ElementsAre("umount2 /mnt/sdcard/ " + std::to_string(MNT_DETACH)));
  EXPECT_THAT(LinesWith("[REC] ").back(), "[REC] Stopped");
}

TEST_F(RecorderLoad, StoppingDoesNotWaitForTheLoadWhereAFullCardDoes) {
  freeBlocks = 0;
  StartRecorder();
  load.Await();
  ASSERT_TRUE(ComesTrue([this] { return measured > 0; }));
  StopRecorder();
  EXPECT_TRUE(load.IsHeld());
  EXPECT_THAT(LinesWith("[REC] Recorded"), IsEmpty());
  EXPECT_THAT(LinesWith("[REC] ").back(), "[REC] Stopped");
}

TEST_F(RecorderLoad, StoppingDoesNotWaitForTheLoadWhereACardThatFailedDoes) {
  isWritable = false;
  StartRecorder();
  load.Await();
  ASSERT_TRUE(Logs("[REC] Could not write"));
  StopRecorder();
  EXPECT_TRUE(load.IsHeld());
  EXPECT_THAT(Machine::Traced("umount2"),
              ElementsAre("umount2 /mnt/sdcard/ " + std::to_string(MNT_DETACH)));
  EXPECT_THAT(LinesWith("Could not write"), SizeIs(1));
  EXPECT_THAT(LinesWith("[REC] ").back(), "[REC] Stopped");
}

TEST_F(RecorderLoad, WhileAFullCardWaitsTheWatchdogIsKickedButNotForALoadThatHangs) {
  Machine::MakeFile("/dev/watchdog", "");
  hooks().monotonic = timespec{1000, 0};
  std::atomic<int> waited = 0;  // seconds
  duringPause = [&waited] { hooks().monotonic->tv_sec = 1000 + ++waited; };
  freeBlocks = 0;
  StartRecorder();
  load.Await();
  ASSERT_TRUE(ComesTrue([&waited] { return waited > 4000; }));
  StopRecorder();
  // Each 22 seconds, a quarter of the timeout, for half an hour.
  EXPECT_THAT(LinesWith("Watchdog have been reset"), SizeIs(1800 / 22));
}

TEST_F(RecorderLoad, StoppingUnmountsOnceTheLoadIsOver) {
  load.LetGo();
  StartRecorder();
  ASSERT_TRUE(Logs("[REC] Catalogue"));
  StopRecorder();
  EXPECT_THAT(Machine::Traced("umount"), ElementsAre("umount /mnt/sdcard/"));
}

class LoadsMeanwhileTest : public CatalogueTest {
 protected:
  std::unique_ptr<FilesManager> catalogue = NewCatalogue();

  /// Loads, adds these meanwhile and finishes.
  bool LoadWith(std::vector<std::string> const& added) {
    LoadsMeanwhile load(*catalogue);
    for (auto const& name : added) load.Add(name);
    EXPECT_TRUE(ComesTrue([&load] { return load.IsOver(); }));
    return load.Finish();
  }
};

TEST_F(LoadsMeanwhileTest, WhatTheLoadFoundTooIsCataloguedOnceAsTheNewestWithTheSizeItHasThen) {
  for (auto const* name : {"a.dat", "b.dat", "c.dat"}) MakeRecording(name, 10, 1'600'000'000);
  LoadsMeanwhile load(*catalogue);
  load.Add("b.dat");
  ASSERT_TRUE(ComesTrue([&load] { return load.IsOver(); }));
  ASSERT_THAT(Names(*catalogue), testing::UnorderedElementsAre("a.dat", "b.dat", "c.dat"));
  MakeRecording("b.dat", 25, 1'600'000'000);
  EXPECT_TRUE(load.Finish());
  EXPECT_THAT(Names(*catalogue), testing::UnorderedElementsAre("a.dat", "b.dat", "c.dat"));
  EXPECT_EQ(Names(*catalogue).back(), "b.dat");
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 45U);
}

TEST_F(LoadsMeanwhileTest, WhatWasAddedKeepsItsOrder) {
  for (auto const* name : {"z.dat", "z.gps", "a.dat"}) MakeRecording(name, 10);
  EXPECT_TRUE(LoadWith({"z.dat", "z.gps", "a.dat"}));
  EXPECT_THAT(Names(*catalogue), ElementsAre("z.dat", "z.gps", "a.dat"));
}

TEST_F(LoadsMeanwhileTest, AFileThatIsGoneDoesNotKeepTheOthersOut) {
  MakeRecording("b.dat");
  LoadsMeanwhile load(*catalogue);
  load.Add("a.dat");
  load.Add("b.dat");
  EXPECT_TRUE(load.Finish());
  EXPECT_THAT(load.GetGone(), ElementsAre("a.dat"));
  EXPECT_THAT(Names(*catalogue), ElementsAre("b.dat"));
}

TEST_F(LoadsMeanwhileTest, IsDoneAtItsEndWhereThereIsNoThread) {
  MakeRecording("a.dat");
  Machine::ThreadHooks threads;
  threads.create = [] { return EAGAIN; };
  LoadsMeanwhile load(*catalogue);
  EXPECT_TRUE(load.IsOver());
  EXPECT_FALSE(load.Hangs());
  EXPECT_TRUE(load.Finish());
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.dat"));
}

TEST_F(LoadsMeanwhileTest, AFailedLoadIsAFailure) {
  card.available = false;
  EXPECT_FALSE(LoadWith({}));
  EXPECT_EQ(catalogue->GetError(), "The disk is not available");
}

TEST_F(LoadsMeanwhileTest, WhatTheLoadThrewIsThrownToItsOwner) {
  hooks().sleep = [](auto) { throw std::bad_alloc(); };
  LoadsMeanwhile load(*catalogue);
  EXPECT_THROW(load.Finish(), std::bad_alloc);
}

TEST_F(LoadsMeanwhileTest, HangsWhenItHasNotEndedAfterHalfAnHour) {
  HeldLoad held;
  MakeRecording("a.dat");
  hooks().monotonic = timespec{1000, 0};
  LoadsMeanwhile load(*catalogue);
  held.Await();
  hooks().monotonic = timespec{1000 + 1800, 0};
  EXPECT_FALSE(load.Hangs());
  hooks().monotonic = timespec{1000 + 1801, 0};
  EXPECT_TRUE(load.Hangs());
  held.LetGo();
  hooks().monotonic.reset();
  ASSERT_TRUE(ComesTrue([&load] { return load.IsOver(); }));
}

}  // namespace
