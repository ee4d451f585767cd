// The example recorder records while its catalogue is loaded.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "tests/support/RecorderTest.h"

namespace {

using namespace std::chrono_literals;
using Machine::hooks;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class RecorderLoad : public RecorderTest {};

TEST_F(RecorderLoad, RecordsWhileTheCatalogueIsLoaded) {
  MakeRecordings(3);
  auto const running = StartRecorder();
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
  auto const running = StartRecorder();
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
  auto const running = StartRecorder();
  load.Await();
  ASSERT_TRUE(Logs("Recorded rec_000006.gps"));
  load.LetGo();
  ExpectEachFileOnce();
}

TEST_F(RecorderLoad, AFullCardWaitsForTheCatalogueAndNothingIsDeletedMeanwhile) {
  MakeRecordings(3);
  freeBlocks = 0;
  auto const running = StartRecorder();
  load.Await();
  ASSERT_TRUE(ComesTrue([this] { return measured > 0; }));
  EXPECT_THAT(LinesWith("[REC] Recorded"), IsEmpty());
  EXPECT_THAT(Machine::Traced("unlink /mnt/sdcard/cr/"), IsEmpty());
  load.LetGo();
  ASSERT_TRUE(Logs("Recorded rec_000004.gps"));
  StopRecorder();
  auto const lines = LinesWith("[REC] ");
  EXPECT_THAT(lines[2], HasSubstr("Catalogue of 6 files"));
  EXPECT_THAT(lines[3], HasSubstr("Deleted 2 oldest"));
}

TEST_F(RecorderLoad, ACardWithoutInodesWaitsForTheCatalogueToo) {
  MakeRecordings(3);
  freeInodes = 0;
  hooks().unlink = [this](std::string const& path) -> std::optional<Machine::Answer> {
    freeInodes += path.starts_with(kRecordings) ? 1 : 0;
    return std::nullopt;
  };
  auto const running = StartRecorder();
  load.Await();
  ASSERT_TRUE(ComesTrue([this] { return measured > 0; }));
  EXPECT_THAT(LinesWith("[REC] Recorded"), IsEmpty());
  load.LetGo();
  ASSERT_TRUE(Logs("Recorded rec_000004.gps"));
  StopRecorder();
  auto const lines = LinesWith("[REC] ");
  EXPECT_THAT(lines[2], HasSubstr("Catalogue of 6 files"));
  EXPECT_THAT(lines[3], HasSubstr("Deleted 2 oldest"));
}

TEST_F(RecorderLoad, AFullCardWaitsNoLongerThanForTheCatalogue) {
  MakeRecordings(3);
  freeBlocks = 0;
  settings.periodMilliseconds = 3'600'000;
  auto const running = StartRecorder();
  load.Await();
  ASSERT_TRUE(ComesTrue([this] { return measured > 0; }));
  load.LetGo();
  EXPECT_TRUE(Logs("Recorded rec_000004.gps"));
}

TEST_F(RecorderLoad, ACardThatCannotBeMeasuredIsTriedAgain) {
  MakeRecordings(3);
  auto const running = StartRecorder();
  load.Await();
  ASSERT_TRUE(Logs("Recorded rec_000004.gps"));
  isMeasurable = false;
  ASSERT_TRUE(ComesTrue([] { return LinesWith("Get space stat error").size() > 2; }));
  load.LetGo();
  ASSERT_TRUE(ComesTrue([] {  // with the catalogue, and after it
    return LinesWith("[REC] Catalogue").size() > 2;
  }));
  auto const count = LinesWith("[REC] Recorded").size();
  isMeasurable = true;
  EXPECT_TRUE(ComesTrue([count] { return LinesWith("[REC] Recorded").size() > count; }));
  EXPECT_THAT(LinesWith("[ERROR]"), testing::Each("[ERROR][REC] Get space stat error"));
}

TEST_F(RecorderLoad, ACatalogueThatCannotBeLoadedIsLoadedAnew) {
  MakeRecordings(3);
  load.LetGo();
  std::atomic<int> denied = 3;  // of loads
  hooks().fault = [&denied](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function != "opendir" || isService || denied == 0) return {};
    --denied;
    return EIO;
  };
  auto const running = StartRecorder();
  EXPECT_TRUE(Logs("[REC] Catalogue of"));
  ASSERT_TRUE(Logs("Recorded rec_000005.gps"));
  StopRecorder();
  std::string const line = "[ERROR][REC] Could not open directory";
  EXPECT_THAT(LinesWith("[ERROR]"), ElementsAre(line, line, line));
}

TEST_F(RecorderLoad, NamesThatTheCardCannotReadGiveItUp) {
  MakeRecordings(3);
  hooks().fault = [](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function != "readdir") return {};
    return EIO;
  };
  auto const running = StartRecorder();
  EXPECT_TRUE(Logs("[REC] Card released"));
  std::string const line = "[ERROR][REC] Could not read /mnt/sdcard/cr/: Input/output error";
  EXPECT_THAT(LinesWith("[ERROR]"), ElementsAre(line, line));
  EXPECT_THAT(LinesWith("[REC] Recorded"), IsEmpty());
}

TEST_F(RecorderLoad, ADirectoryThatIsRemovedMeanwhileIsMadeAnewWhenTheLoadIsOver) {
  auto const running = StartRecorder();
  load.Await();
  ASSERT_TRUE(Logs("Recorded rec_000001.gps"));
  ASSERT_TRUE(ComesTrue([] {  // not while a recording is put there
    std::error_code inUse;
    std::filesystem::remove_all(Machine::Real("/mnt/sdcard/cr"), inUse);
    return !inUse;
  }));
  ASSERT_TRUE(Logs("Could not read /mnt/sdcard/cr/: No such file or directory"));
  load.LetGo();
  EXPECT_TRUE(Logs("[REC] Catalogue of"));
  EXPECT_THAT(LinesWith("[REC] Card released"), IsEmpty());
}

TEST_F(RecorderLoad, ACardThatFailsMeanwhileIsGivenUpWhenTheLoadIsOver) {
  auto const running = StartRecorder();
  load.Await();
  ASSERT_TRUE(Logs("Recorded rec_000001.gps"));
  isWritable = false;
  ASSERT_TRUE(Logs("[REC] Could not write"));
  EXPECT_THAT(LinesWith("[REC] Card released"), IsEmpty());
  load.LetGo();
  EXPECT_TRUE(Logs("[REC] Card released"));
  EXPECT_THAT(LinesWith("[REC] Catalogue"), IsEmpty());
}

TEST_F(RecorderLoad, PositionsThatCannotBeWrittenBackAreAFailureButTheirRecordingIsKept) {
  writesBack = false;
  load.LetGo();
  auto const running = StartRecorder();
  EXPECT_TRUE(Logs("[REC] Card released"));
  EXPECT_THAT(LinesWith("Could not write"),
              ElementsAre("[ERROR][REC] Could not write /mnt/sdcard/cr/rec_000001.gps: "
                          "Input/output error",
                          "[ERROR][REC] Could not write /mnt/sdcard/cr/rec_000002.gps: "
                          "Input/output error"));
  EXPECT_THAT(LinesWith("[REC] Recorded"), ElementsAre("[REC] Recorded rec_000001.dat 100 bytes",
                                                       "[REC] Recorded rec_000002.dat 100 bytes"));
}

TEST_F(RecorderLoad, StoppingDoesNotWaitForTheLoad) {
  auto const running = StartRecorder();
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
  auto const running = StartRecorder();
  load.Await();
  ASSERT_TRUE(ComesTrue([this] { return measured > 0; }));
  StopRecorder();
  EXPECT_TRUE(load.IsHeld());
  EXPECT_THAT(LinesWith("[REC] Recorded"), IsEmpty());
  EXPECT_THAT(LinesWith("[REC] ").back(), "[REC] Stopped");
}

TEST_F(RecorderLoad, StoppingDoesNotWaitForTheLoadWhereACardThatFailedDoes) {
  isWritable = false;
  auto const running = StartRecorder();
  load.Await();
  ASSERT_TRUE(Logs("[REC] Could not write /mnt/sdcard/cr/rec_000002.dat"));
  StopRecorder();
  EXPECT_TRUE(load.IsHeld());
  EXPECT_THAT(Machine::Traced("umount2"),
              ElementsAre("umount2 /mnt/sdcard/ " + std::to_string(MNT_DETACH)));
  EXPECT_THAT(LinesWith("Could not write"), SizeIs(2));
  EXPECT_THAT(LinesWith("[REC] ").back(), "[REC] Stopped");
}

TEST_F(RecorderLoad, WhileAFullCardWaitsTheWatchdogIsKickedButNotForALoadThatHangs) {
  std::atomic<int> waited = 0;  // seconds
  hooks().steady = [&waited] { return std::chrono::seconds(1000 + waited); };
  duringPause = [&waited](timespec const&) { ++waited; };
  freeBlocks = 0;
  auto const running = StartRecorder();
  load.Await();
  ASSERT_TRUE(ComesTrue([&waited] { return waited > 4000; }));
  StopRecorder();
  // Each 22 seconds, a quarter of the timeout, for half an hour.
  // By the service alone; the first kick is that of the opening.
  EXPECT_EQ(kicks, 1 + 1800 / 22);
  EXPECT_THAT(LinesWith("[REC] Watchdog"), ElementsAre("[REC] Watchdog , 90 s"));
}

TEST_F(RecorderLoad, ACardThatTurnsReadOnlyWhileAFullOneWaitsIsNotTriedForRoom) {
  hasOthers = true;
  MakeRecordings(3);
  freeBlocks = 0;
  auto const running = StartRecorder();
  load.Await();
  Machine::MakeFile("/sys/class/block/mmcblk1p1/ro", "1\n");
  ASSERT_TRUE(Logs("[REC] Card: the card is read-only"));
  load.LetGo();
  EXPECT_TRUE(Logs("[REC] Card released"));
  EXPECT_THAT(Machine::Traced("unlink /mnt/sdcard/cr/"), IsEmpty());
}

TEST_F(RecorderLoad, ACardThatOthersUseIsDetachedAndSaysSo) {
  hooks().umount = [](auto&&) { return Machine::Answer::Failure(EBUSY); };
  hooks().umount2 = [](auto&&, int flags) {
    return flags == MNT_DETACH ? Machine::Answer::Success() : Machine::Answer::Failure(EBUSY);
  };
  load.LetGo();
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("[REC] Catalogue"));
  StopRecorder();
  EXPECT_THAT(LinesWith("[REC] Card"),
              ElementsAre("[REC] Card released when nobody uses it any more"));
  EXPECT_EQ(Machine::Traced("umount2").back(),
            "umount2 /mnt/sdcard/ " + std::to_string(MNT_DETACH));
}

// What is on top goes first, and the card below it is still mounted then.
TEST_F(RecorderLoad, ACardThatSomethingIsMountedOverIsDetachedToo) {
  hooks().umount = [](auto&&) { return Machine::Answer::Success(); };
  load.LetGo();
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("[REC] Catalogue"));
  StopRecorder();
  EXPECT_FALSE(card.mounted);
  EXPECT_THAT(LinesWith("[REC] Card"),
              ElementsAre("[REC] Card released when nobody uses it any more"));
}

TEST_F(RecorderLoad, ACardThatSomebodyHasUnmountedIsReleased) {
  hooks().umount = [](auto&&) { return Machine::Answer::Failure(EINVAL); };
  hooks().umount2 = [](auto&&, int) { return Machine::Answer::Failure(EINVAL); };
  load.LetGo();
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("[REC] Catalogue"));
  StopRecorder();
  EXPECT_THAT(LinesWith("[REC] Card"), ElementsAre("[REC] Card released"));
}

TEST_F(RecorderLoad, StoppingUnmountsOnceTheLoadIsOver) {
  load.LetGo();
  auto const running = StartRecorder();
  ASSERT_TRUE(Logs("[REC] Catalogue"));
  StopRecorder();
  EXPECT_THAT(Machine::Traced("umount "), ElementsAre("umount /mnt/sdcard/"));
  EXPECT_THAT(LinesWith("[REC] Card"), ElementsAre("[REC] Card released"));
}

}  // namespace
