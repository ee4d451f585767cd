#include "DiskUtils/Disk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/machine/Allocation.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CardText.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FakeCard.h"
#include "tests/support/LogFile.h"
#include "tests/support/Refusal.h"

namespace {

namespace DiskUtils = Quellon::DiskUtils;
using namespace std::chrono_literals;
using CardText::kMountCall;
using Machine::Answer;
using Machine::hooks;
using Machine::Sleep;
using Machine::Trace;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char const* kSpaceLine = "Disk /mnt/sdcard/ free sapce 3906MB from 11718MB\n";

class Disk : public testing::Test {
 protected:
  /// Makes the Disk and returns what that prints.
  std::string Make(std::string const& mountPoint = FakeCard::kMountPoint) {
    return Capture::Output(
        [&] { disk.emplace(mountPoint, FakeCard::kPartition, FakeCard::kDevice); });
  }

  /// stat(2) of `path` fails.
  static void StatFails(std::string const& path, int error) {
    hooks().stat = [=](std::string const& asked, struct stat* status) {
      *status = {};
      return asked == path ? Answer::Failure(error) : Answer::Success();
    };
  }

  FakeCard card;
  std::optional<DiskUtils::Disk> disk;
};

TEST_F(Disk, IsAvailableAndMeasuredWithAGoodCard) {
  EXPECT_EQ(Make(), kSpaceLine);
  EXPECT_TRUE(disk->available);
  EXPECT_EQ(disk->mountPoint, "/mnt/sdcard/");
  EXPECT_EQ(disk->devicePath, "/dev/mmcblk1p1");
  EXPECT_EQ(disk->blockDevice, "mmcblk1");
  EXPECT_EQ(disk->reserveRatio, 0.055F);
  EXPECT_EQ(disk->totalBytes, 12288000000);
  EXPECT_EQ(disk->freeBytes, 4096000000);
  EXPECT_EQ(disk->sdCardInfo.name, "SD32G");
  EXPECT_THAT(Trace(), IsEmpty());
}

TEST_F(Disk, PrintsWhateverStandardExceptionItsMakingMeets) {
  std::optional<Machine::FailingAllocation> allocation;
  hooks().access = [&](std::string const& path, int /*mode*/) {
    if (path == "/dev/mmcblk1") allocation.emplace(1);
    return Answer::Success();
  };
  EXPECT_EQ(Make(), "Disk exception std::bad_alloc\n");
  EXPECT_TRUE(Machine::FailingAllocation::Happened());
  EXPECT_FALSE(disk->available);
}

TEST_F(Disk, RecordsTheCardInTheStatusTable) {
  Make();
  ASSERT_THAT(DiskUtils::Disk::deviceStatusList, SizeIs(1));
  DiskUtils::Disk::DeviceStatus const& status =
      DiskUtils::Disk::deviceStatusList.at("/mnt/sdcard/");
  EXPECT_STREQ(status.cid, FakeCard::kCid);
  EXPECT_TRUE(status.present);
  EXPECT_FALSE(status.readOnly);
  EXPECT_EQ(status.fsckStatus, 0);
  EXPECT_EQ(status.malfunction, 0);
  EXPECT_EQ(status.sizeBytes, 15931539456U);
  EXPECT_EQ(status.lifetimeWritesKB, 0U);
}

TEST_F(Disk, IsNotFoundWithoutItsBlockDevice) {
  Machine::RemoveFile("/dev/mmcblk1");
  FakeCard::Status().present = true;
  EXPECT_EQ(Make(), "Disk exception Disk not found\n");
  EXPECT_FALSE(disk->available);
  EXPECT_EQ(disk->totalBytes, 0);
  EXPECT_EQ(disk->freeBytes, 0);
  EXPECT_EQ(disk->reserveBytes, 0);
  EXPECT_FALSE(FakeCard::Status().present);
  EXPECT_EQ(disk->sdCardInfo.cid, "");
}

TEST_F(Disk, LeavesAZeroedEntryForACardThatIsMissing) {
  Machine::RemoveFile("/dev/mmcblk1");
  Make();
  ASSERT_THAT(DiskUtils::Disk::deviceStatusList, SizeIs(1));
  DiskUtils::Disk::DeviceStatus const& status = FakeCard::Status();
  EXPECT_STREQ(status.cid, "");
  EXPECT_FALSE(status.present || status.readOnly);
  EXPECT_EQ(status.fsckStatus + status.malfunction, 0);
  EXPECT_EQ(status.sizeBytes + status.lifetimeWritesKB, 0U);
}

TEST_F(Disk, KnowsTheIdentityOfACardWithoutItsPartition) {
  Machine::RemoveFile(FakeCard::kPartition);
  EXPECT_EQ(Make(), "Disk exception Disk not found\n");
  EXPECT_FALSE(disk->available);
  EXPECT_FALSE(FakeCard::Status().present);
  EXPECT_STREQ(FakeCard::Status().cid, FakeCard::kCid);
  EXPECT_EQ(FakeCard::Status().sizeBytes, 15931539456U);
}

TEST_F(Disk, IsPresentAndMeasuredButNotAvailableWhenTheCardIsReadOnly) {
  FakeCard::SetProperty("ro", "1\n");
  EXPECT_EQ(Make(), kSpaceLine);
  EXPECT_FALSE(disk->available);
  EXPECT_TRUE(FakeCard::Status().present);
  EXPECT_TRUE(FakeCard::Status().readOnly);
  EXPECT_EQ(disk->totalBytes, 12288000000);
}

TEST_F(Disk, TakesEveryNumberButZeroForTheReadOnlyFlag) {
  Make();
  for (auto const& [text, flag] : std::vector<std::pair<std::string, bool>>{
           {"2\n", true}, {"yes\n", false}, {"-1\n", true}, {"0\n", false}}) {
    FakeCard::SetProperty("ro", text);
    EXPECT_TRUE(disk->CheckDeviceStatus());
    EXPECT_EQ(FakeCard::Status().readOnly, flag) << text;
  }
}

TEST_F(Disk, TakesACardWithoutTheReadOnlyFlagForWritable) {
  Machine::RemoveFile("/sys/block/mmcblk1/ro");
  FakeCard::Status().readOnly = true;
  EXPECT_EQ(Make(), "ERR: [/sys/block/mmcblk1/ro] does not exist !\n" + std::string(kSpaceLine));
  EXPECT_FALSE(FakeCard::Status().readOnly);
  EXPECT_TRUE(disk->available);
}

TEST_F(Disk, RefusesAMountPointWhoseCardFailedBeforeItTouchesAnything) {
  FakeCard::Status().malfunction = 1;
  hooks().access = [](std::string const& path, int /*mode*/) {
    ADD_FAILURE() << path;
    return Answer::Success();
  };
  EXPECT_EQ(Make(), "Disk exception Disk malfunction status had been set to read-only\n");
  EXPECT_FALSE(disk->available);
  EXPECT_EQ(FakeCard::Status().malfunction, 1);
}

TEST_F(Disk, TakesACardAfterAMalfunctionOfAnyOtherNumber) {
  FakeCard::Status().malfunction = 2;
  Make();
  EXPECT_TRUE(disk->available);
}

TEST_F(Disk, ServesAnotherMountPointThoughTheCardOfOneFailed) {
  DiskUtils::Disk::deviceStatusList["/mnt/other/"].malfunction = 1;
  Make();
  EXPECT_TRUE(disk->available);
}

TEST_F(Disk, KeepsAtMost35CharactersOfTheCid) {
  FakeCard::SetProperty("device/cid", std::string(50, 'c'));
  Make();
  EXPECT_EQ(FakeCard::Status().cid, std::string(35, 'c'));
  EXPECT_EQ(disk->sdCardInfo.cid, std::string(50, 'c'));
  FakeCard::SetProperty("device/cid", "short");
  disk->CheckDeviceStatus();
  EXPECT_STREQ(FakeCard::Status().cid, "short");
}

TEST_F(Disk, MountsACardThatIsNotMounted) {
  card.mounted = false;
  EXPECT_EQ(Make(), kSpaceLine);
  EXPECT_TRUE(disk->available);
  EXPECT_THAT(Trace(), ElementsAre("umount /mnt/sdcard/", kMountCall));
}

TEST_F(Disk, IsNotFoundWhenItCannotBeMounted) {
  card.mounted = false;
  card.systemCallsWork = false;
  std::string output;
  Capture::ErrorOutput([&] { output = Make(); });
  EXPECT_EQ(output, "Disk exception Disk not found\n");
  EXPECT_FALSE(disk->available);
  EXPECT_TRUE(FakeCard::Status().present);
  EXPECT_THAT(Machine::Traced("umount2"), SizeIs(10));
  EXPECT_EQ(Trace().back(), kMountCall);
}

TEST_F(Disk, LooksForTheCardInAFixedOrder) {
  std::vector<std::string> asked;
  hooks().access = [&](std::string const& path, int mode) {
    asked.push_back(path);
    EXPECT_EQ(mode, path.starts_with("/sys/") ? R_OK : F_OK) << path;
    return Answer::Success();
  };
  Make();
  ASSERT_THAT(asked, SizeIs(10));
  EXPECT_EQ(asked.front(), "/dev/mmcblk1");
  EXPECT_EQ(asked[1], "/sys/block/mmcblk1/device/cid");
  EXPECT_EQ(asked.back(), "/dev/mmcblk1p1");
}

TEST_F(Disk, PrintsTheStatErrorOfAMountPointWithoutItsSlash) {
  EXPECT_EQ(Make("/mnt/sdcard"), "Disk exception Stat error (2)\n");
  EXPECT_FALSE(disk->available);
}

TEST_F(Disk, PrintsTheStatErrorOfAMissingMountPoint) {
  Machine::RemoveFile(FakeCard::kMountPoint);
  EXPECT_EQ(Make(), "Disk exception Stat error (1)\n");
  EXPECT_FALSE(disk->available);
}

TEST_F(Disk, PrintsThatItCannotBeMeasured) {
  hooks().statvfs = [](auto&&...) { return Answer::Failure(EIO); };
  EXPECT_EQ(Make(), "Disk exception Get space stat error\n");
  EXPECT_FALSE(disk->available);
}

TEST_F(Disk, ThrowsTheErrnoOfTheStatThatFailed) {
  Make();
  StatFails("/mnt/sdcard/", EACCES);
  auto const first = Thrown([&] { disk->CheckDiskPresence(); });
  EXPECT_STREQ(first.value().what(), "Stat error (1)");
  EXPECT_EQ(first->code, EACCES);
  StatFails("/mnt/sdcard/..", ENOTDIR);
  auto const second = Thrown([&] { disk->CheckDeviceStatus(); });
  EXPECT_STREQ(second.value().what(), "Stat error (2)");
  EXPECT_EQ(second->code, ENOTDIR);
}

TEST_F(Disk, ThrowsTheErrnoOfTheFailedCallThoughMakingTheExceptionChangesIt) {
  Make();
  Machine::errnoAfterMakingAnException = ENOMEM;
  StatFails("/mnt/sdcard/", EACCES);
  EXPECT_EQ(Thrown([&] { disk->CheckDiskPresence(); }).value().code, EACCES);
  StatFails("/mnt/sdcard/..", ENOTDIR);
  EXPECT_EQ(Thrown([&] { disk->CheckDiskPresence(); }).value().code, ENOTDIR);
  hooks().statvfs = [](auto&&...) { return Answer::Failure(EIO); };
  EXPECT_EQ(Thrown([&] { disk->LoadDiskInfo(); }).value().code, EIO);
  Machine::errnoAfterMakingAnException = 0;
}

TEST_F(Disk, ThrowsTheErrnoOfTheMeasurementAndKeepsItsFigures) {
  Make();
  hooks().statvfs = [](auto&&...) { return Answer::Failure(ENOSYS); };
  auto const exception = Thrown([&] { disk->LoadDiskInfo(); });
  EXPECT_STREQ(exception.value().what(), "Get space stat error");
  EXPECT_EQ(exception->code, ENOSYS);
  EXPECT_EQ(disk->totalBytes, 12288000000);
}

TEST_F(Disk, IsPresentWhileItsDeviceIsNotItsParents) {
  Make();
  EXPECT_TRUE(disk->CheckDiskPresence());
  card.mounted = false;
  EXPECT_FALSE(disk->CheckDiskPresence());
}

TEST_F(Disk, ReservesItsShareInSinglePrecision) {
  Make();
  EXPECT_EQ(disk->reserveBytes, 675840000);  // double precision: 675839996
}

TEST_F(Disk, RoundsHalvesOfTheReserveAwayFromZero) {
  Make();
  card.space.f_frsize = 100;
  for (auto const& [blocks, reserve] : std::vector<std::pair<unsigned, int>>{
           {3, 17}, {7, 39}, {11, 61}, {1, 6}, {0, 0}}) {  // 16.5, 38.5, 60.5, 5.5
    card.space.f_blocks = blocks;
    disk->LoadDiskInfo();
    EXPECT_EQ(disk->reserveBytes, reserve) << blocks;
  }
}

TEST_F(Disk, MeasuresCardsBeyond32Bits) {
  card.space.f_blocks = 4294967295U;
  card.space.f_bfree = 4294967294U;
  EXPECT_EQ(Make(), "Disk /mnt/sdcard/ free sapce 1.67772e+07MB from 1.67772e+07MB\n");
  EXPECT_EQ(disk->totalBytes, 17592186040320);
  EXPECT_EQ(disk->freeBytes, 17592186036224);
}

TEST_F(Disk, MeasuresInBlocksWhereTheKernelNamesNoOtherUnit) {
  card.space.f_frsize = 0;
  card.space.f_bsize = 4096;
  EXPECT_EQ(Make(), kSpaceLine);
  EXPECT_EQ(disk->totalBytes, 12288000000);
  EXPECT_EQ(disk->freeBytes, 4096000000);
  EXPECT_EQ(disk->reserveBytes, 675840000);
}

TEST_F(Disk, HasFiguresThatAreLoggedAsNumbers) {
  Make();
  LogFile::BeginAnew();
  Capture::Output([this] {
    Tarvik::Ilog::LogLine(Tarvik::Ilog::Info)
        << "free " << disk->freeBytes << " reserve " << disk->reserveBytes << " total "
        << disk->totalBytes;
  });
  EXPECT_THAT(Machine::ReadFile(LogFile::kPath),
              testing::EndsWith("free 4096000000 reserve 675840000 total 12288000000\n"));
  Tarvik::Ilog::Logger::GetInstance()->Close();
}

TEST_F(Disk, PrintsLessThanAMegabyteAsZero) {
  card.space.f_blocks = 255;
  card.space.f_bfree = 0;
  EXPECT_EQ(Make(), "Disk /mnt/sdcard/ free sapce 0MB from 0MB\n");
}

TEST_F(Disk, PrintsWholeMegabytesOnly) {
  card.space.f_blocks = 511;
  card.space.f_bfree = 256;
  EXPECT_EQ(Make(), "Disk /mnt/sdcard/ free sapce 1MB from 1MB\n");
}

TEST_F(Disk, MountsAndTellsWhetherTheKernelDidIt) {
  Make();
  EXPECT_TRUE(disk->Mount());
  hooks().mount = [](auto&&...) { return Answer{1, 0}; };
  EXPECT_TRUE(disk->Mount()) << "only a negative result is a failure";
  hooks().mount = [](auto&&...) { return Answer::Failure(EBUSY); };
  EXPECT_FALSE(disk->Mount());
  EXPECT_EQ(MS_NOEXEC | MS_NOATIME | MS_NODIRATIME, 3080);
  EXPECT_THAT(Trace(), ElementsAre(kMountCall, kMountCall, kMountCall));
}

TEST_F(Disk, UnmountsAtOnceWhereItCan) {
  Make();
  EXPECT_TRUE(disk->Umount());
  EXPECT_THAT(Trace(), ElementsAre("umount /mnt/sdcard/"));
}

TEST_F(Disk, ForcesAnUnmountTenTimesAndComplainsNineTimes) {
  Make();
  card.systemCallsWork = false;
  std::string const errors = Capture::ErrorOutput([&] { EXPECT_FALSE(disk->Umount()); });
  std::vector<std::string> trace{"umount /mnt/sdcard/"};
  std::string complaints;
  for (int attempt = 1; attempt <= 9; ++attempt) {
    trace.insert(trace.end(), {"umount2 /mnt/sdcard/ 1", "sync", Sleep(100ms)});
    complaints += "Unable to umount SD: Device or resource busy\n";
  }
  trace.push_back("umount2 /mnt/sdcard/ 1");
  EXPECT_THAT(Trace(), ElementsAreArray(trace));
  EXPECT_EQ(errors, complaints);
  EXPECT_EQ(Machine::Slept(), 900ms);
}

TEST_F(Disk, CountsAsUnmountedWhenForceHelpsInTheEnd) {
  Make();
  hooks().umount = [](auto&&) { return Answer::Failure(EBUSY); };
  hooks().umount2 = [tried = 0](auto&&...) mutable {
    return ++tried == 10 ? Answer::Success() : Answer::Failure(EBUSY);
  };
  Capture::ErrorOutput([&] { EXPECT_TRUE(disk->Umount()); });
  EXPECT_THAT(Machine::Traced("umount2"), SizeIs(10));
}

TEST_F(Disk, LeavesNoDescriptorOpen) {
  Descriptors::Watch const descriptors;
  Make();
  disk->CheckDeviceStatus();
  disk->LoadDiskInfo();
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

}  // namespace
