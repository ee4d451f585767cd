// What the example recorder does for each recording, and with its watchdog.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/watchdog.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "tests/support/ModificationTime.h"
#include "tests/support/NotifySocket.h"
#include "tests/support/RecorderTest.h"

namespace {

using namespace std::chrono_literals;
using Machine::hooks;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::size_t kSlice = 64 << 10;

// The service's time goes by in its pauses alone.
class Recorder : public RecorderTest {
 protected:
  Recorder() {
    load.LetGo();
    settings.recordingBytes = 8 * kSlice;
    settings.bytesPerSecond = 2 * kSlice;
    settings.periodMilliseconds = 4'000'000'000;  // pauses are over at once, but not so many
    hooks().steady = [this] { return now.load(); };
    duringPause = [this](timespec const& deadline) {
      if (isHeld) return;
      now = std::chrono::seconds(deadline.tv_sec) + std::chrono::nanoseconds(deadline.tv_nsec);
      if (Written() >= pauseAt) isHeld = true;
    };
    hooks().fsync = [this](int) -> std::optional<Machine::Answer> {
      if (!isHeld) ++syncs;
      return std::nullopt;
    };
  }

  static std::uintmax_t Written() {
    std::error_code none;
    auto const bytes =
        std::filesystem::file_size(Machine::Real("/mnt/sdcard/cr/rec_000001.dat"), none);
    return none ? 0 : bytes;
  }

  std::atomic<std::uintmax_t> pauseAt = SIZE_MAX;  // bytes of the recording where time stands still
  std::atomic<std::chrono::nanoseconds> now{1000s};
  std::atomic<bool> isHeld = false;
  std::atomic<int> syncs = 0;
};

TEST_F(Recorder, BringsWhatItWritesToTheCardEachSecond) {
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000001.gps"));
  StopRecorder();
  EXPECT_EQ(Written(), 8 * kSlice);
  // A file and its folder each time: four times in 4 s, and where both files are complete.
  EXPECT_EQ(syncs, 2 * (4 + 2));
}

TEST_F(Recorder, BringsWhatComesInSlowlyToTheCardEachSecondToo) {
  settings.bytesPerSecond = 1000;
  settings.recordingBytes = 3000;
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000001.gps"));
  StopRecorder();
  EXPECT_EQ(syncs, 2 * (3 + 2));
}

TEST_F(Recorder, WritesOnThoughACardTakesLongerThanASecondToBeSafe) {
  hooks().fsync = [this](int) -> std::optional<Machine::Answer> {
    now = now.load() + 2s;
    ++syncs;
    return std::nullopt;
  };
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000001.gps"));
  StopRecorder();
  EXPECT_LE(syncs, 2 * (4 + 2));
}

TEST_F(Recorder, BeginsARecordingThatIsStoppedAtOnceWithWhatThereIs) {
  pauseAt = 1;
  auto const running = StartRecorder();
  ASSERT_TRUE(ComesTrue([this] { return isHeld.load(); }));
  StopRecorder();
  EXPECT_GE(Written(), kSlice / 16);  // what comes in in a 32nd of a second
}

TEST_F(Recorder, TakesACardBackThatWasSwappedBetweenTwoLooksAndGivesItTwoTries) {
  hasOthers = true;
  Machine::MakeFile(FakeCard::kPartition, std::string(4096, ' '));
  hooks().fsync = [](int fd) -> std::optional<Machine::Answer> {  // one on each card
    auto const path = Machine::DevicePath(fd).value_or("");
    if (!path.ends_with("rec_000002.dat") && !path.ends_with("rec_000003.dat")) return {};
    return Machine::Answer::Failure(EIO);
  };
  std::atomic<bool> isGone = false;
  hooks().fault = [&isGone](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function != "pread" || !isGone) return {};
    return ENODEV;
  };
  duringPause = [this, &isGone](timespec const& deadline) {
    now = std::chrono::seconds(deadline.tv_sec) + std::chrono::nanoseconds(deadline.tv_nsec);
    // Gone while the partition can be read: another card is there by now.
    isGone = LinesWith("Could not write").size() == 1 && LinesWith("Card released").empty();
    EXPECT_TRUE(!isGone || Logs("[REC] Card: the card is gone"));
  };
  settings.periodMilliseconds = 1;
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000004.gps"));
  StopRecorder();
  EXPECT_THAT(LinesWith("[REC] Health"), SizeIs(2));
  EXPECT_THAT(LinesWith("Could not write"), SizeIs(2));
  EXPECT_THAT(LinesWith("[REC] Card released"), SizeIs(2)) << "the second at the end";
}

TEST_F(Recorder, EndsARecordingWhereItIsStopped) {
  pauseAt = 3 * kSlice;
  auto const running = StartRecorder();
  ASSERT_TRUE(ComesTrue([this] { return isHeld.load(); }));
  StopRecorder();
  EXPECT_THAT(LinesWith("[REC] Recorded"),
              ElementsAre("[REC] Recorded rec_000001.dat " + std::to_string(Written()) + " bytes",
                          "[REC] Recorded rec_000001.gps 1024 bytes"));
  EXPECT_GE(Written(), 3 * kSlice);
  EXPECT_LT(Written(), 8 * kSlice);
}

TEST_F(Recorder, GivesACardUpThatFailsInTheMiddleOfTwoRecordingsInARow) {
  hooks().fsync = [](int) -> std::optional<Machine::Answer> {
    return Machine::Answer::Failure(EIO);
  };
  settings.periodMilliseconds = 1;
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("[REC] Card released"));
  EXPECT_THAT(
      LinesWith("Could not write"),
      ElementsAre("[ERROR][REC] Could not write /mnt/sdcard/cr/rec_000001.dat: Input/output "
                  "error",
                  "[ERROR][REC] Could not write /mnt/sdcard/cr/rec_000002.dat: Input/output "
                  "error"));
  EXPECT_LT(Written(), 8 * kSlice);
}

TEST_F(Recorder, GivesNoCardUpWhereOthersAreAtFaultInBetween) {
  std::atomic<int> count = 0;
  hooks().fsync = [&count](int fd) -> std::optional<Machine::Answer> {
    if (!Machine::DevicePath(fd).value_or("").ends_with(".dat") || count == 5) return std::nullopt;
    return Machine::Answer::Failure(++count % 2 == 1 ? EIO : EDQUOT);
  };
  settings.periodMilliseconds = 1;
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000006.gps"));
  StopRecorder();
  EXPECT_THAT(LinesWith("Could not write"), SizeIs(5));
  EXPECT_THAT(LinesWith("[REC] Card released"), SizeIs(1));
}

TEST_F(Recorder, RecordsOnWhenOthersWhoFilledTheCardHaveMadeRoom) {
  freeBlocks = 0;
  settings.periodMilliseconds = 1;
  auto const running = StartRecorder();
  ASSERT_TRUE(ComesTrue([] { return LinesWith("Unable to make room").size() > 3; }));
  freeBlocks = kEnough;
  EXPECT_TRUE(Logs("Recorded rec_000001.gps"));
  EXPECT_THAT(LinesWith("[REC] Card released"), IsEmpty());
}

TEST_F(Recorder, FindsItsRecordingsAgainThatCouldNotBeDeletedForAWhile) {
  MakeRecordings(2);
  freeBlocks = 0;
  std::atomic<bool> isKept = true;
  hooks().unlink = [this, &isKept](std::string const&) -> std::optional<Machine::Answer> {
    if (isKept) return Machine::Answer::Failure(EPERM);
    freeBlocks = kEnough;
    return std::nullopt;
  };
  settings.periodMilliseconds = 1;
  auto const running = StartRecorder();
  ASSERT_TRUE(ComesTrue([] { return LinesWith("Unable to make room").size() > 2; }));
  isKept = false;
  EXPECT_TRUE(Logs("Recorded rec_000003.gps"));
  EXPECT_THAT(LinesWith("Deleted"), ElementsAre("[REC] Deleted 2 oldest recordings"));
}

TEST_F(Recorder, MakesItsDirectoryAnewThatSomebodyHasRemoved) {
  settings.periodMilliseconds = 1;
  duringPause = [this, wasRemoved = false](timespec const& deadline) mutable {
    now = std::chrono::seconds(deadline.tv_sec) + std::chrono::nanoseconds(deadline.tv_nsec);
    if (!wasRemoved && Written() > 2 * kSlice) {
      wasRemoved = true;
      while (recorder->IsLoading()) std::this_thread::yield();  // a load would fail, too
      Machine::RemoveFile("/mnt/sdcard/cr");
    }
  };
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000003.gps"));
  StopRecorder();
  EXPECT_THAT(LinesWith("[ERROR]"),
              ElementsAre("[ERROR][REC] Could not write /mnt/sdcard/cr/rec_000001.dat: No such "
                          "file or directory"));
}

// What lies in the directory of the mount point counts as the root's: that is another device.
TEST_F(Recorder, MakesNoDirectoryOnTheRootWhereTheCardIsNotMounted) {
  Machine::RemoveFile("/mnt/sdcard/cr");
  hooks().fstat = [](int fd, struct stat* status) -> std::optional<Machine::Answer> {
    if (!Machine::DevicePath(fd).value_or("").starts_with("/mnt/sdcard")) return std::nullopt;
    status->st_dev = 1;
    return Machine::Answer::Success();
  };
  settings.periodMilliseconds = 1;
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("[REC] Card released"));
  EXPECT_FALSE(std::filesystem::exists(Machine::Real("/mnt/sdcard/cr")));
  std::string const line = "[ERROR][REC] Could not read /mnt/sdcard/cr/: Invalid cross-device link";
  EXPECT_THAT(LinesWith("[ERROR]"), ElementsAre(line, line));
}

TEST_F(Recorder, TellsWhyItsDirectoryCannotBeMadeAndTriesAgain) {
  std::filesystem::remove(Machine::Real("/mnt/sdcard/cr"));
  std::atomic<int> denied = 3;
  hooks().fault = [&denied](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function != "mkdir" || denied == 0) return {};
    --denied;
    return ENOSPC;
  };
  settings.periodMilliseconds = 1;
  auto const running = StartRecorder();
  EXPECT_TRUE(Logs("Recorded rec_000001.gps"));
  std::string const line = "[ERROR][REC] Could not read /mnt/sdcard/cr/: No space left on device";
  EXPECT_THAT(LinesWith("[ERROR]"), ElementsAre(line, line, line));
}

TEST_F(Recorder, GoesOnWhenThereAreDescriptorsAgain) {
  std::atomic<int> left = 0;
  hooks().fault = [&left](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function != "open" || !call.subject.ends_with("/cr/") || left == 0) return {};
    --left;
    return EMFILE;
  };
  settings.periodMilliseconds = 1;
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000001.gps"));
  left = 9;
  ASSERT_TRUE(ComesTrue([&left] { return left == 0; }));
  auto const count = LinesWith("[REC] Recorded").size();
  EXPECT_TRUE(ComesTrue([count] { return LinesWith("[REC] Recorded").size() > count + 2; }));
  EXPECT_THAT(LinesWith("[ERROR]"),
              testing::Each("[ERROR][REC] Could not read /mnt/sdcard/cr/: Too many open files"));
  EXPECT_GE(LinesWith("[ERROR]").size(), 3U);
}

TEST_F(Recorder, WaitsASecondAfterARecordingThatFailedHoweverShortThePeriodIs) {
  freeBlocks = 0;
  settings.periodMilliseconds = 1;
  auto const begin = now.load();
  auto const running = StartRecorder();
  ASSERT_TRUE(ComesTrue([] { return LinesWith("Unable to make room").size() > 3; }));
  StopRecorder();
  auto const count = static_cast<int>(LinesWith("Unable to make room").size());
  EXPECT_GE(now.load() - begin, std::chrono::seconds(count - 1));
}

TEST_F(Recorder, LeavesRoomForAWholeRecordingWhateverElseIsToBeLeft) {
  constexpr std::size_t kWhole = 8 * kSlice + 1024;
  settings.share = 1;
  card.space.f_blocks = 1;  // no reserve, and no share that is used up
  settings.minimumFreeBytes = 4096;
  freeBlocks = kWhole / 4096;
  settings.periodMilliseconds = 1;
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Unable to make room"));
  freeBlocks = kWhole / 4096 + 1;
  EXPECT_TRUE(Logs("Recorded rec_000001.gps"));
}

TEST_F(Recorder, GoesOnWhereSomebodyDeletesEverySecondRecordingWhileItIsWritten) {
  settings.periodMilliseconds = 1;
  duringPause = [this](timespec const& deadline) {
    now = std::chrono::seconds(deadline.tv_sec) + std::chrono::nanoseconds(deadline.tv_nsec);
    for (auto const* name : {"rec_000001.dat", "rec_000003.dat"}) {
      Machine::RemoveFile(kRecordings + std::string(name));
    }
  };
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000004.gps"));
  StopRecorder();
  EXPECT_THAT(
      LinesWith("[ERROR]"),
      ElementsAre("[ERROR][REC] Could not write /mnt/sdcard/cr/rec_000001.dat: No such file "
                  "or directory",
                  "[ERROR][REC] Could not write /mnt/sdcard/cr/rec_000003.dat: No such file "
                  "or directory"));
}

TEST_F(Recorder, TellsWhyARecordingCannotBeWritten) {
  hooks().writev = [](int fd, iovec const*, int) -> std::optional<ssize_t> {
    auto const path = Machine::DevicePath(fd);
    if (!path || !path->ends_with("rec_000001.dat")) return std::nullopt;
    errno = ENOSPC;
    return -1;
  };
  settings.periodMilliseconds = 1;
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000002.gps"));
  StopRecorder();
  EXPECT_THAT(LinesWith("Could not write"),
              ElementsAre("[ERROR][REC] Could not write /mnt/sdcard/cr/rec_000001.dat: No space "
                          "left on device"));
}

// The catalogue would keep an object of each for as long as the service lives.
TEST_F(Recorder, CataloguesNothingOfARecordingThatCouldNotEvenBeMade) {
  std::atomic<int> lookedFor = 0;
  hooks().fault = [&lookedFor](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (!call.subject.ends_with("rec_000001.dat")) return {};
    if (call.function == "access") ++lookedFor;
    if (call.function != "fopen") return {};
    return ENOSPC;
  };
  settings.periodMilliseconds = 1;
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000002.gps"));
  StopRecorder();
  EXPECT_THAT(LinesWith("Could not write"),
              ElementsAre("[ERROR][REC] Could not write /mnt/sdcard/cr/rec_000001.dat: No space "
                          "left on device"));
  EXPECT_EQ(lookedFor, 0);
}

TEST_F(Recorder, TellsWhyPositionsCannotBeWritten) {
  hooks().writev = [](int fd, iovec const*, int) -> std::optional<ssize_t> {
    auto const path = Machine::DevicePath(fd);
    if (!path || !path->ends_with("rec_000001.gps")) return std::nullopt;
    errno = ENOSPC;
    return -1;
  };
  hooks().fsync = [](int) -> std::optional<Machine::Answer> {
    errno = EAGAIN;  // which says nothing after a success
    return std::nullopt;
  };
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000001.dat"));
  StopRecorder();
  EXPECT_THAT(LinesWith("Could not write"),
              ElementsAre("[ERROR][REC] Could not write /mnt/sdcard/cr/rec_000001.gps: No space "
                          "left on device"));
}

TEST_F(Recorder, EndsARecordingAtOnceOnACardThatIsLostMeanwhile) {
  hasOthers = true;
  duringPause = [this](timespec const& deadline) {
    now = std::chrono::seconds(deadline.tv_sec) + std::chrono::nanoseconds(deadline.tv_nsec);
    if (Written() < kSlice || Written() > 3 * kSlice) return;
    Machine::MakeFile("/sys/class/block/mmcblk1p1/ro", "1\n");
    EXPECT_TRUE(Logs("[REC] Card: the card is read-only"));
  };
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("[REC] Card released"));
  EXPECT_THAT(LinesWith("Could not write"),
              ElementsAre("[ERROR][REC] Could not write /mnt/sdcard/cr/rec_000001.dat: Operation "
                          "canceled"));
  EXPECT_LT(Written(), 8 * kSlice);
}

TEST_F(Recorder, DeletesWithTheOldestWhatThereIsOfARecordingThatFailed) {
  hooks().fsync = [this](int fd) -> std::optional<Machine::Answer> {
    if (Machine::DevicePath(fd) != "/mnt/sdcard/cr/rec_000001.dat") return std::nullopt;
    freeBlocks = 0;
    return Machine::Answer::Failure(EIO);
  };
  settings.periodMilliseconds = 1;
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000002.gps"));
  StopRecorder();
  EXPECT_THAT(Machine::Traced("unlink /mnt/sdcard/cr/"),
              ElementsAre("unlink /mnt/sdcard/cr/rec_000001.dat"));
  EXPECT_THAT(LinesWith("Deleted"), ElementsAre("[REC] Deleted 1 oldest recordings"));
}

TEST_F(Recorder, RecordsWithoutAPauseWhatHasNoRate) {
  settings.bytesPerSecond = 0;
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000001.gps"));
  StopRecorder();
  EXPECT_EQ(Written(), 8 * kSlice);
  EXPECT_EQ(syncs, 2 * 2);
}

TEST_F(Recorder, WritesOverNoRecordingWhereNumbersBeginAnew) {
  Machine::MakeFile("/mnt/sdcard/cr/rec_999999.dat", "newer");
  Machine::MakeFile("/mnt/sdcard/cr/rec_000001.dat", "newest");
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000002.gps"));
  StopRecorder();
  EXPECT_EQ(Machine::ReadFile("/mnt/sdcard/cr/rec_000001.dat"), "newest");
}

TEST_F(Recorder, FollowsNoLinkInThePlaceOfARecordingOrItsPositions) {
  Machine::MakeFile("/mnt/sdcard/cr/rec_999999.dat", "newer");
  Machine::MakeFile("/root/own.dat", "the device's");
  namespace fs = std::filesystem;
  fs::create_symlink(Machine::Real("/root/own.dat"),
                     Machine::Real("/mnt/sdcard/cr/rec_000001.gps"));
  fs::create_symlink(Machine::Real("/root/new"), Machine::Real("/mnt/sdcard/cr/rec_000002.dat"));
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000003.gps"));
  StopRecorder();
  EXPECT_EQ(Machine::ReadFile("/root/own.dat"), "the device's");
  EXPECT_FALSE(fs::exists(Machine::Real("/root/new")));
}

// What nobody can delete stands for the device's own files.
TEST_F(Recorder, TakesNoDirectoryForTheRecordingsThatIsNotOnTheCard) {
  std::filesystem::create_directory_symlink("/proc/sys/fs/inotify",
                                            Machine::Real("/mnt/sdcard/cr"));
  settings.periodMilliseconds = 1;
  auto const running = StartRecorder();
  EXPECT_TRUE(Logs("[REC] Card released"));
  EXPECT_TRUE(Logs("[ERROR][REC] Could not read /mnt/sdcard/cr/"));
  EXPECT_EQ(LogFile::Text().find("[SYSTEM]"), std::string::npos) << "no catalogue";
}

// The card is full, and its recordings have the names of what lies there.
TEST_F(Recorder, DeletesNothingWhereALinkLeadsThatSomebodyHasPutInThePlaceOfItsDirectory) {
  settings.periodMilliseconds = 1;
  duringPause = [this](timespec const& deadline) {
    now = std::chrono::seconds(deadline.tv_sec) + std::chrono::nanoseconds(deadline.tv_nsec);
    namespace fs = std::filesystem;
    auto const directory = Machine::Real("/mnt/sdcard/cr");
    if (LinesWith("rec_000002.gps").empty() || fs::is_symlink(directory)) return;
    Machine::RemoveFile("/mnt/sdcard/cr");
    fs::create_directory_symlink("/proc/sys/fs/inotify", directory);
    freeBlocks = 0;
  };
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("[REC] Card released"));
  std::string const line = "[ERROR][REC] Could not read /mnt/sdcard/cr/: Invalid cross-device link";
  EXPECT_THAT(LinesWith("[ERROR]"), ElementsAre(line, line));
  EXPECT_THAT(Machine::Traced("unlink /mnt/sdcard/cr/"), IsEmpty());
}

TEST_F(Recorder, ReleasesACardThatIsLostBetweenTwoRecordings) {
  hasOthers = true;
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000001.gps"));
  pauseAt = 0;
  Machine::MakeFile("/sys/class/block/mmcblk1p1/ro", "1\n");
  ASSERT_TRUE(Logs("[REC] Card released"));
  EXPECT_THAT(
      LinesWith("[REC] Card:"),
      ElementsAre("[ERROR][REC] Card: the card is read-only, 0 errors, 0 warnings, 0 of the "
                  "controller"));
}

TEST_F(Recorder, IsNotAloneWhileAnotherOneIsRunning) {
  {
    ::Recorder first(settings);
    ::Recorder second(settings);
    EXPECT_TRUE(first.IsAlone());
    EXPECT_FALSE(second.IsAlone());
  }
  EXPECT_TRUE(::Recorder(settings).IsAlone());
  EXPECT_THAT(LinesWith("[REC]"), ElementsAre("[ERROR][REC] Another recorder is running"));
}

TEST_F(Recorder, IsAloneWhereNothingCanBeLocked) {
  Machine::RemoveFile("/proc");
  EXPECT_TRUE(::Recorder(settings).IsAlone());
  EXPECT_THAT(LinesWith("[REC]"), IsEmpty());
}

class RecorderOfAFullCard : public Recorder {
 protected:
  RecorderOfAFullCard() {
    MakeRecordings(3);
    SetModificationTime(Machine::Real("/mnt/sdcard/cr/rec_000001.dat"), 1'600'000'000);
    freeBlocks = 0;
  }

  /// What becomes of a recording that is to be deleted; the others leave their room.
  void OnUnlink(std::string const& name, std::function<void()> const& happens, int error) {
    hooks().unlink = [=, this](std::string const& path) -> std::optional<Machine::Answer> {
      if (path == kRecordings + name) {
        happens();
        return Machine::Answer::Failure(error);
      }
      if (path.ends_with(".dat")) freeBlocks += kEnough;
      return std::nullopt;
    };
  }
};

TEST_F(RecorderOfAFullCard, KeepsThePositionsOfWhatCannotBeDeletedAndDoesNotCountIt) {
  OnUnlink(
      "rec_000001.dat", [] {}, EPERM);
  Machine::MakeFile("/mnt/sdcard/cr/theirs.gps", "somebody's");
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000004.gps"));
  StopRecorder();
  EXPECT_TRUE(std::filesystem::exists(Machine::Real("/mnt/sdcard/cr/rec_000001.gps")));
  EXPECT_FALSE(std::filesystem::exists(Machine::Real("/mnt/sdcard/cr/rec_000002.gps")));
  EXPECT_TRUE(std::filesystem::exists(Machine::Real("/mnt/sdcard/cr/theirs.gps")));
  EXPECT_THAT(LinesWith("Deleted"), ElementsAre("[REC] Deleted 2 oldest recordings"));
}

// Three recordings fit, and others have taken the three oldest.
TEST_F(RecorderOfAFullCard, UsesTheRoomOfWhatOthersHaveDeleted) {
  freeBlocks = kEnough;
  hooks().unlink = nullptr;
  card.space.f_blocks = 10 * 8 * kSlice / 4096;
  settings.share = 0.45F;  // of which one is never used: a recording is made behind a share
  settings.periodMilliseconds = 1;
  duringPause = [this, wasDone = false](timespec const& deadline) mutable {
    now = std::chrono::seconds(deadline.tv_sec) + std::chrono::nanoseconds(deadline.tv_nsec);
    if (wasDone || LinesWith("rec_000013.gps").empty()) return;
    wasDone = true;
    for (auto const* name : {"rec_000010.dat", "rec_000011.dat", "rec_000012.dat"})
      Machine::RemoveFile(kRecordings + std::string(name));
  };
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000020.gps"));
  StopRecorder();
  int kept = 0;
  for (auto const& entry : std::filesystem::directory_iterator(Machine::Real(kRecordings)))
    kept += entry.path().extension() == ".dat" && entry.file_size() == 8 * kSlice;
  EXPECT_GE(kept, 3);
}

// As small recordings leave it: their inodes are used up long before their blocks.
TEST_F(RecorderOfAFullCard, DeletesItsOldestWhereInodesRunOutBeforeTheRoomDoes) {
  freeBlocks = kEnough;
  freeInodes = 0;
  hooks().unlink = [this](std::string const& path) -> std::optional<Machine::Answer> {
    freeInodes += path.starts_with(kRecordings) ? 1 : 0;
    return std::nullopt;
  };
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000004.gps"));
  StopRecorder();
  EXPECT_THAT(LinesWith("Deleted"), ElementsAre("[REC] Deleted 2 oldest recordings"));
  EXPECT_EQ(freeInodes, 2 * 2) << "with their positions";
}

TEST_F(RecorderOfAFullCard, TriesToRecordWhereOthersHaveAllInodes) {
  freeBlocks = kEnough;
  freeInodes = 0;
  hooks().unlink = [](auto&&) { return std::nullopt; };
  auto const running = StartRecorder();
  EXPECT_TRUE(Logs("Recorded rec_000004.gps"));
  EXPECT_THAT(LinesWith("Deleted"), ElementsAre("[REC] Deleted 3 oldest recordings"));
}

TEST_F(RecorderOfAFullCard, IsKickedForWhileItIsTriedForRoom) {
  hasOthers = true;
  std::atomic<int> kicked = 0;
  auto const waits = [this, &kicked] {
    int const before = kicks;
    if (ComesTrue([this, before] { return kicks > before + 2; })) ++kicked;
  };
  OnUnlink("rec_000001.dat", waits, EROFS);
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000004.gps"));
  StopRecorder();
  EXPECT_EQ(kicked, 3);
}

TEST_F(Recorder, TellsTheServiceManagerThatItIsReadyAndThenThatItLives) {
  NotifySocket manager;
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000001.gps"));
  StopRecorder();
  auto const told = manager.Take();
  ASSERT_THAT(told, testing::SizeIs(testing::Ge(2U)));
  EXPECT_EQ(told[0], "WATCHDOG=1");
  EXPECT_EQ(told[1], "READY=1");
  EXPECT_THAT(std::vector(told.begin() + 2, told.end()), testing::Each("READY=1\nWATCHDOG=1"));
}

// What systemd does not take at once is lost, and before it has taken this nothing has started.
TEST_F(Recorder, TellsAgainThatItIsReadyWithEachKick) {
  NotifySocket manager;
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000001.gps"));
  std::vector<std::string> told = manager.Take();
  EXPECT_THAT(told, testing::Contains("READY=1"));
  told.clear();
  ASSERT_TRUE(ComesTrue([&] {
    if (told.empty()) told = manager.Take();
    return !told.empty();
  }));
  StopRecorder();
  EXPECT_THAT(told, testing::Each("READY=1\nWATCHDOG=1"));
}

TEST_F(Recorder, IsReadyAlsoWithoutACard) {
  NotifySocket manager;
  Machine::RemoveFile(FakeCard::kPartition);
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("going on without recordings"));
  StopRecorder();
  EXPECT_THAT(manager.Take(), testing::Contains("READY=1").Times(1));
}

class RecorderWatchdog : public Recorder {
 protected:
  RecorderWatchdog() {
    hooks().ioctl = [this](unsigned long request, void* argument) {
      if (request == WDIOC_GETSUPPORT) {
        auto& driver = *static_cast<watchdog_info*>(argument);
        driver.options = options;
        std::strcpy(reinterpret_cast<char*>(driver.identity), "tester");
      }
      if (request == WDIOC_GETTIMEOUT) *static_cast<int*>(argument) = 90;
      return Machine::Answer::Success();
    };
  }

  unsigned options = WDIOF_MAGICCLOSE;
};

TEST_F(RecorderWatchdog, IsToldOnce) {
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000001.gps"));
  StopRecorder();
  EXPECT_THAT(LinesWith("atchdog"), ElementsAre("[REC] Watchdog tester, 90 s"));
}

TEST_F(RecorderWatchdog, ThatEndsWithTheServiceAndCannotBeKeptIsWarnedOf) {
  options = 0;
  hooks().fault = [](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function != "fork") return std::nullopt;
    return EAGAIN;
  };
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000001.gps"));
  StopRecorder();
  EXPECT_THAT(LinesWith("atchdog"),
              ElementsAre("[REC] Watchdog tester, 90 s",
                          "[WARNING][REC] The watchdog stops when the service ends"));
}

TEST_F(RecorderWatchdog, IsKickedWhileTheCardIsLookedThrough) {
  hasOthers = true;
  std::atomic<int> kicked = 0;
  auto const waits = [this, &kicked] {
    int const before = kicks;
    if (ComesTrue([this, before] { return kicks > before + 2; })) ++kicked;
  };
  MakeRecordings(1);
  hooks().ioctl = [this, driver = hooks().ioctl](unsigned long request, void* argument) {
    if (request == WDIOC_KEEPALIVE) ++kicks;
    return driver(request, argument);
  };
  hooks().fault =
      [=, isFirst = true](Machine::Call const& call) mutable -> std::optional<Machine::Failure> {
    if (!isService || call.subject.find("/cr") == std::string::npos) return {};
    if (call.function == "lstat" && call.subject.ends_with("rec_000001.dat")) waits();
    if (call.function == "readdir" && LogFile::Text().find("[REC] Clock") != std::string::npos &&
        std::exchange(isFirst, false))
      waits();
    return {};
  };
  hooks().now = 0;  // so that the times of the recordings are asked for
  hooks().setClock = [](long) { return Machine::Answer::Success(); };
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("Recorded rec_000002.gps"));
  StopRecorder();
  EXPECT_EQ(kicked, 2);
}

TEST_F(RecorderWatchdog, ThatComesLaterIsOpenedThen) {
  std::atomic<int> attempts = 0;
  hooks().fault = [&attempts](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function != "open" || call.subject != "/dev/watchdog") return {};
    if (++attempts > 2) return {};
    return EBUSY;
  };
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("[REC] Watchdog tester, 90 s"));
  StopRecorder();
  EXPECT_THAT(LinesWith("atchdog"),
              ElementsAre("[ERROR][REC] Watchdog: the watchdog is held by another process",
                          "[REC] Watchdog tester, 90 s"));
}

}  // namespace
