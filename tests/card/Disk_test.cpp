// One card, found, mounted, measured and formatted for real.
#include "DiskUtils/Disk.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <fstream>

#include "tests/card/DiskFixture.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"

namespace {

using namespace std::chrono_literals;

namespace DiskUtils = Quellon::DiskUtils;
using CardTests::Card;
using CardTests::CommandInFront;
using CardTests::IsMounted;
using CardTests::RunProgram;
using CardTests::ScanFailure;
using CardTests::WriteRecording;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

/// What the card's entry in the table of mounts says.
std::string MountOptions() {
  auto const mounts = CardTests::MountsOn("/mnt/sdcard");
  return mounts.empty() ? "" : mounts.front();
}

/// The value that blkid finds on the card for a tag such as "LABEL".
std::string Tag(std::string const& name) {
  return RunProgram("blkid --probe -o value -s " + name + " /dev/mmcblk1p1").output;
}

std::int64_t Megabytes(std::int64_t bytes) {
  return bytes >> 20;
}

class Disk : public CardTests::DiskTest {};

TEST_F(Disk, ConstructionMountsAndMeasuresTheCardAndSaysSo) {
  card.Insert();
  Capture::Descriptor output(1);
  auto const disk = MakeDisk();

  EXPECT_TRUE(disk.available);
  EXPECT_THAT(MountOptions(), HasSubstr("ext4 rw,noexec,noatime,nodiratime,data=writeback"));
  EXPECT_EQ(output.Text(), "Disk /mnt/sdcard/ free sapce " +
                               std::to_string(Megabytes(disk.freeBytes)) + "MB from " +
                               std::to_string(Megabytes(disk.totalBytes)) + "MB\n");
}

TEST_F(Disk, SpaceFiguresAreThoseOfTheFileSystemWithTheSuperusersShare) {
  auto disk = MakeDiskOfInsertedCard();
  WriteRecording("/mnt/sdcard/a", 3'000'000, 1000);
  disk.LoadDiskInfo();
  struct statvfs space {};
  ASSERT_EQ(statvfs(kMountPoint, &space), 0);

  auto const blockSize = static_cast<std::int64_t>(space.f_frsize);
  EXPECT_EQ(disk.totalBytes, static_cast<std::int64_t>(space.f_blocks) * blockSize);
  EXPECT_EQ(disk.freeBytes, static_cast<std::int64_t>(space.f_bfree) * blockSize);
  EXPECT_GT(space.f_bfree, space.f_bavail);
  EXPECT_NEAR(static_cast<double>(disk.reserveBytes), static_cast<double>(disk.totalBytes) * 0.055,
              8.0);
}

TEST_F(Disk, IdentityComesFromSysfsAndIsPrinted) {
  auto disk = MakeDiskOfInsertedCard();
  Capture::Descriptor output(1);
  disk.PrintInfo();

  EXPECT_EQ(output.Text(), " Disk info:\n CID " + card.identity.cid + "\n CSD " +
                               card.identity.csd + "\n Manfield " + card.identity.manfid +
                               "\n Name " + card.identity.name + "\n OemId " + card.identity.oemid +
                               "\n RO 0\n Serial " + card.identity.serial + "\n Size " +
                               std::to_string(Card::kDefaultBytes) + "\n");
  EXPECT_EQ(Status().cid, card.identity.cid);
  EXPECT_TRUE(Status().present);
  EXPECT_FALSE(Status().readOnly);
  EXPECT_EQ(Status().sizeBytes, Card::kDefaultBytes);
}

TEST_F(Disk, KernelFiguresAreReadForTheCardsNames) {
  card.Insert();
  auto const disk = MakeDisk();

  EXPECT_EQ(DiskUtils::Disk::getSDCardTotalSize(kDevice), Card::kDefaultBytes);
  EXPECT_FALSE(DiskUtils::Disk::getSDCardReadOnlyFlag(kDevice));
  EXPECT_GT(DiskUtils::Disk::getSDCardLifetimeWrites("mmcblk1p1"), 0U);
}

TEST_F(Disk, WriteProtectedCardCannotBeMountedForWritingAndIsNotFound) {
  card.SetWriteProtected(true);
  card.Insert();
  Capture::Descriptor output(1);
  auto disk = MakeDisk();

  EXPECT_EQ(output.Text(), "Disk exception Disk not found\n");
  EXPECT_FALSE(disk.available);
  EXPECT_TRUE(Status().present);
  EXPECT_TRUE(Status().readOnly);
  EXPECT_TRUE(DiskUtils::Disk::getSDCardReadOnlyFlag(kDevice));
}

TEST_F(Disk, WriteProtectedCardThatIsAlreadyMountedIsMeasuredButNotAvailable) {
  card.SetWriteProtected(true);
  card.Insert();
  ASSERT_EQ(mount(kPartition, kMountPoint, "ext4", MS_RDONLY, nullptr), 0);
  Capture::Descriptor output(1);
  auto disk = MakeDisk();

  EXPECT_THAT(output.Text(), StartsWith("Disk /mnt/sdcard/ free sapce "));
  EXPECT_GT(disk.totalBytes, 0);
  EXPECT_FALSE(disk.available);
  EXPECT_EQ(ScanFailure(disk), "The device is not available");
}

TEST_F(Disk, MountAndUmountDoWhatTheySay) {
  auto disk = MakeDiskOfInsertedCard();

  EXPECT_TRUE(disk.CheckDiskPresence());
  EXPECT_TRUE(disk.Umount());
  EXPECT_FALSE(disk.CheckDiskPresence());
  EXPECT_FALSE(IsMounted(kMountPoint));
  EXPECT_TRUE(disk.Mount());
  EXPECT_TRUE(disk.CheckDiskPresence());
  EXPECT_TRUE(IsMounted(kMountPoint));
}

TEST_F(Disk, DeviceStatusMountsACardThatWasUnmounted) {
  auto disk = MakeDiskOfInsertedCard();
  ASSERT_TRUE(disk.Umount());

  EXPECT_TRUE(disk.CheckDeviceStatus());
  EXPECT_TRUE(IsMounted(kMountPoint));
}

TEST_F(Disk, UmountOfABusyCardComplainsAndPausesNineTimes) {
  auto disk = MakeDiskOfInsertedCard();
  auto const busy = CardTests::KeepBusy("/mnt/sdcard/busy");
  Machine::ForgetTrace();
  Capture::Descriptor errors(2);

  EXPECT_FALSE(disk.Umount());
  EXPECT_EQ(Machine::Traced("sleep"), std::vector<std::string>(9, Machine::Sleep(100ms)));
  std::string nineComplaints;
  for (int i = 0; i < 9; ++i) nineComplaints += "Unable to umount SD: Device or resource busy\n";
  EXPECT_EQ(errors.Text(), nineComplaints);
  EXPECT_TRUE(IsMounted(kMountPoint));
}

TEST_F(Disk, UnmountCommandOnABusyCardIsTriedFourTimesASecondApart) {
  auto disk = MakeDiskOfInsertedCard();
  auto const busy = CardTests::KeepBusy("/mnt/sdcard/busy");
  Machine::ForgetTrace();
  Capture::Descriptor errors(2);
  Capture::Descriptor output(1);

  disk.UnMount();
  EXPECT_EQ(output.Text(), "Unmount SD card FAILED.\n");
  EXPECT_EQ(Machine::Traced("sleep"), std::vector<std::string>(4, Machine::Sleep(1s)));
  EXPECT_TRUE(IsMounted(kMountPoint));
}

TEST_F(Disk, UnmountAndMountCommandsSucceedWithoutAPause) {
  auto disk = MakeDiskOfInsertedCard();
  Machine::ForgetTrace();
  Capture::Descriptor output(1);

  disk.UnMount();
  EXPECT_FALSE(IsMounted(kMountPoint));
  disk.DiskUtils::CheckDisk::Mount();
  EXPECT_TRUE(IsMounted(kMountPoint));
  EXPECT_EQ(output.Text(), "Unmount SD card success.\nMount SD card success\n");
  EXPECT_THAT(MountOptions(), HasSubstr("noatime,nodiratime,data=writeback"));
  EXPECT_THAT(Machine::Traced("sleep"), IsEmpty());
}

TEST_F(Disk, IsExecutableAfterTheCheckUntilItIsRemounted) {
  auto disk = MakeDiskOfInsertedCard();
  disk.DiskUtils::CheckDisk::DiskCheck();
  EXPECT_THAT(MountOptions(), HasSubstr("ext4 rw,noatime,nodiratime,data=writeback"));

  CardTests::RunQuietly("mount -o remount,bind,noexec,nosuid,nodev,noatime,nodiratime /mnt/sdcard");
  EXPECT_THAT(MountOptions(),
              HasSubstr("ext4 rw,nosuid,nodev,noexec,noatime,nodiratime,data=writeback"));
}

TEST_F(Disk, CheckOfAMountedFileSystemFailsAndTheMountCommandToo) {
  auto disk = MakeDiskOfInsertedCard();
  auto const busy = CardTests::KeepBusy("/mnt/sdcard/busy");
  Capture::Descriptor errors(2);
  Capture::Descriptor output(1);

  EXPECT_EQ(disk.DiskCheck(), 8);
  EXPECT_THAT(output.Text(), HasSubstr("Unmount SD card FAILED.\n"));
  EXPECT_THAT(output.Text(), HasSubstr("FSCK output: Operational error\n"));
  EXPECT_THAT(output.Text(), EndsWith("Mount SD card FAILED.\n"));
}

TEST_F(Disk, CheckThatWantsARebootSaysSoWaitsAndMountsAllTheSame) {
  auto disk = MakeDiskOfInsertedCard();
  CommandInFront const fsck("fsck", "exit 2\n");
  Machine::ForgetTrace();
  Capture::Descriptor output(1);

  EXPECT_EQ(disk.DiskCheck(), 2);
  EXPECT_EQ(output.Text(),
            "Unmount SD card success.\n"
            "FSCK output: System should be rebooted\n"
            "fcsk requested system reboot...\n"
            "===================================>>> REBOOT \n"
            "Mount SD card success\n");
  EXPECT_THAT(Machine::Traced("sleep"), ElementsAre(Machine::Sleep(3s)));
}

TEST_F(Disk, FormatMakesALabelledFileSystemWithoutAJournal) {
  auto disk = MakeDiskOfInsertedCard();
  WriteRecording("/mnt/sdcard/cr/a.dat", 1000, 1000);
  Capture::Descriptor errors(2);
  Capture::Descriptor output(1);

  EXPECT_TRUE(disk.Fromat(false));
  EXPECT_THAT(output.Text(),
              StartsWith("Try format partition: mkfs.ext4 -v -F -O ^has_journal  -L storage "
                         "/dev/mmcblk1p1\n"));
  EXPECT_THAT(output.Text(), EndsWith("Done format partition /dev/mmcblk1p1 ext4\n"));
  EXPECT_EQ(Tag("TYPE"), "ext4\n");
  EXPECT_EQ(Tag("LABEL"), "storage\n");
  std::string const features = RunProgram("dumpe2fs -h /dev/mmcblk1p1 2>/dev/null").output;
  EXPECT_THAT(features, HasSubstr("Filesystem features:"));
  EXPECT_THAT(features, Not(HasSubstr("has_journal")));
  EXPECT_TRUE(disk.available);
}

TEST_F(Disk, FormatWithTheBadBlockScanAsksForIt) {
  auto disk = MakeDiskOfInsertedCard();
  Capture::Descriptor errors(2);
  Capture::Descriptor output(1);

  EXPECT_TRUE(disk.Fromat(true));
  EXPECT_THAT(output.Text(),
              StartsWith("Try format partition: mkfs.ext4 -v -F -O ^has_journal -c -L storage "
                         "/dev/mmcblk1p1\n"));
  EXPECT_EQ(Tag("LABEL"), "storage\n");
}

// Kernels since 4.4 refuse data=writeback, which every mount of the card asks for, where there is
// no journal.
TEST_F(Disk, FormattedCardIsNotMountedByAKernelThatWantsAJournalForWriteback) {
  auto disk = MakeDiskOfInsertedCard();
  Capture::Descriptor errors(2);
  Capture::Descriptor output(1);
  ASSERT_TRUE(disk.Fromat(false));

  EXPECT_FALSE(disk.CheckDiskPresence());
  EXPECT_FALSE(disk.Mount());
  EXPECT_EQ(mount(kPartition, kMountPoint, "ext4", 0, nullptr), 0);
}

TEST_F(Disk, FormatOfACardThatIsNotAvailableLeavesItAlone) {
  card.SetWriteProtected(true);
  auto disk = MakeDiskOfInsertedCard();
  Capture::Descriptor output(1);

  EXPECT_FALSE(disk.Fromat(false));
  EXPECT_EQ(output.Text(), "ERROR: The device is not available\n");
  EXPECT_EQ(Tag("LABEL"), "");
}

TEST_F(Disk, FormatIsTakenForDoneWhateverTheCommandSays) {
  auto disk = MakeDiskOfInsertedCard();
  CommandInFront const mkfs("mkfs.ext4", "exit 1\n");
  Capture::Descriptor output(1);

  EXPECT_TRUE(disk.Fromat(false));
  EXPECT_THAT(output.Text(), EndsWith("Done format partition /dev/mmcblk1p1 ext4\n"));
  EXPECT_TRUE(IsMounted(kMountPoint));
}

}  // namespace
