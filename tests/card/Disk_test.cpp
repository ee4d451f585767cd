// One card, found, mounted, measured and formatted for real.
#include "DiskUtils/Disk.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <fstream>

#include "tests/card/DiskFixture.h"
#include "tests/card/Interpose.h"
#include "tests/support/Capture.h"

namespace CardTests {
namespace {

namespace fs = std::filesystem;
using Quellon::DiskUtils::CheckDisk;
using Quellon::DiskUtils::Disk;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

std::string MountOptions() {
  std::ifstream mounts("/proc/mounts");
  for (std::string line; std::getline(mounts, line);)
    if (line.find(" /mnt/sdcard ") != std::string::npos) return line;
  return {};
}

/// The value that blkid finds on the card for a tag such as "LABEL".
std::string Tag(std::string const& name) {
  return RunProgram("blkid --probe -o value -s " + name + " /dev/mmcblk1p1").output;
}

std::int64_t Megabytes(std::int64_t bytes) {
  return bytes >> 20;
}

/// A file kept open on the card, which so cannot be unmounted.
Tarvik::UniqueFd KeepBusy() {
  return Tarvik::UniqueFd(open("/mnt/sdcard/busy", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
}

}  // namespace

TEST_F(DiskTest, ConstructionMountsAndMeasuresTheCardAndSaysSo) {
  card.Insert();
  Capture::Descriptor output(1);
  Disk const disk = MakeDisk();

  EXPECT_TRUE(disk.available);
  EXPECT_THAT(MountOptions(), HasSubstr("ext4 rw,noexec,noatime,nodiratime,data=writeback"));
  EXPECT_EQ(output.Text(), "Disk /mnt/sdcard/ free sapce " +
                               std::to_string(Megabytes(disk.freeBytes)) + "MB from " +
                               std::to_string(Megabytes(disk.totalBytes)) + "MB\n");
}

TEST_F(DiskTest, SpaceFiguresAreThoseOfTheFileSystemWithTheSuperusersShare) {
  Disk disk = MakeDiskOfInsertedCard();
  WriteRecording("/mnt/sdcard/a", 3'000'000, 1000);
  disk.LoadDiskInfo();
  struct statvfs space {};
  ASSERT_EQ(statvfs(mountPoint, &space), 0);

  auto const blockSize = static_cast<std::int64_t>(space.f_frsize);
  EXPECT_EQ(disk.totalBytes, static_cast<std::int64_t>(space.f_blocks) * blockSize);
  EXPECT_EQ(disk.freeBytes, static_cast<std::int64_t>(space.f_bfree) * blockSize);
  EXPECT_GT(space.f_bfree, space.f_bavail);
  EXPECT_NEAR(static_cast<double>(disk.reserveBytes), static_cast<double>(disk.totalBytes) * 0.055,
              8.0);
}

TEST_F(DiskTest, IdentityComesFromSysfsAndIsPrinted) {
  Disk disk = MakeDiskOfInsertedCard();
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

TEST_F(DiskTest, KernelFiguresAreReadForTheCardsNames) {
  card.Insert();
  Disk const disk = MakeDisk();

  EXPECT_EQ(Disk::getSDCardTotalSize(device), Card::kDefaultBytes);
  EXPECT_FALSE(Disk::getSDCardReadOnlyFlag(device));
  EXPECT_GT(Disk::getSDCardLifetimeWrites("mmcblk1p1"), 0U);
}

TEST_F(DiskTest, WithoutACardNothingIsAvailable) {
  Capture::Descriptor output(1);
  Disk disk = MakeDisk();

  EXPECT_FALSE(disk.available);
  EXPECT_FALSE(Status().present);
  EXPECT_EQ(output.Text(), "Disk exception Disk not found\n");
  EXPECT_EQ(ScanFailure(disk), "The device is not available");
}

TEST_F(DiskTest, CardWithoutThePartitionIsIdentifiedButNotPresent) {
  card.Insert();
  fs::remove(partition);
  Capture::Descriptor output(1);
  Disk const disk = MakeDisk();

  EXPECT_EQ(output.Text(), "Disk exception Disk not found\n");
  EXPECT_FALSE(disk.available);
  EXPECT_FALSE(Status().present);
  EXPECT_EQ(Status().cid, card.identity.cid);
}

TEST_F(DiskTest, MountPointWithoutItsSlashIsComparedWithASiblingThatIsMissing) {
  card.Insert();
  Capture::Descriptor output(1);
  Disk const disk("/mnt/sdcard", partition, device);

  EXPECT_EQ(output.Text(), "Disk exception Stat error (2)\n");
  EXPECT_FALSE(disk.available);
}

TEST_F(DiskTest, WriteProtectedCardCannotBeMountedForWritingAndIsNotFound) {
  card.SetWriteProtected(true);
  card.Insert();
  Capture::Descriptor output(1);
  Disk disk = MakeDisk();

  EXPECT_EQ(output.Text(), "Disk exception Disk not found\n");
  EXPECT_FALSE(disk.available);
  EXPECT_TRUE(Status().present);
  EXPECT_TRUE(Status().readOnly);
  EXPECT_TRUE(Disk::getSDCardReadOnlyFlag(device));
}

TEST_F(DiskTest, WriteProtectedCardThatIsAlreadyMountedIsMeasuredButNotAvailable) {
  card.SetWriteProtected(true);
  card.Insert();
  ASSERT_EQ(mount(partition, mountPoint, "ext4", MS_RDONLY, nullptr), 0);
  Capture::Descriptor output(1);
  Disk disk = MakeDisk();

  EXPECT_THAT(output.Text(), StartsWith("Disk /mnt/sdcard/ free sapce "));
  EXPECT_GT(disk.totalBytes, 0);
  EXPECT_FALSE(disk.available);
  EXPECT_EQ(ScanFailure(disk), "The device is not available");
}

TEST_F(DiskTest, MountAndUmountDoWhatTheySay) {
  Disk disk = MakeDiskOfInsertedCard();

  EXPECT_TRUE(disk.CheckDiskPresence());
  EXPECT_TRUE(disk.Umount());
  EXPECT_FALSE(disk.CheckDiskPresence());
  EXPECT_FALSE(IsMounted(mountPoint));
  EXPECT_TRUE(disk.Mount());
  EXPECT_TRUE(disk.CheckDiskPresence());
  EXPECT_TRUE(IsMounted(mountPoint));
}

TEST_F(DiskTest, DeviceStatusMountsACardThatWasUnmounted) {
  Disk disk = MakeDiskOfInsertedCard();
  ASSERT_TRUE(disk.Umount());

  EXPECT_TRUE(disk.CheckDeviceStatus());
  EXPECT_TRUE(IsMounted(mountPoint));
}

TEST_F(DiskTest, UmountOfABusyCardComplainsAndPausesNineTimes) {
  Disk disk = MakeDiskOfInsertedCard();
  Tarvik::UniqueFd const busy = KeepBusy();
  ForgetMachineCalls();
  Capture::Descriptor errors(2);

  EXPECT_FALSE(disk.Umount());
  EXPECT_EQ(MachineCalls(), std::vector<std::string>(9, "sleep 100 ms"));
  std::string nineComplaints;
  for (int i = 0; i < 9; ++i) nineComplaints += "Unable to umount SD: Device or resource busy\n";
  EXPECT_EQ(errors.Text(), nineComplaints);
  EXPECT_TRUE(IsMounted(mountPoint));
}

TEST_F(DiskTest, UnmountCommandOnABusyCardIsTriedFourTimesASecondApart) {
  Disk disk = MakeDiskOfInsertedCard();
  Tarvik::UniqueFd const busy = KeepBusy();
  ForgetMachineCalls();
  Capture::Descriptor errors(2);
  Capture::Descriptor output(1);

  disk.UnMount();
  EXPECT_EQ(output.Text(), "Unmount SD card FAILED.\n");
  EXPECT_EQ(MachineCalls(), std::vector<std::string>(4, "sleep 1000 ms"));
  EXPECT_TRUE(IsMounted(mountPoint));
}

TEST_F(DiskTest, MountCommandWithoutAPartitionIsTriedFourTimesASecondApart) {
  Disk disk = MakeDiskOfInsertedCard();
  ASSERT_TRUE(disk.Umount());
  fs::remove(partition);
  ForgetMachineCalls();
  Capture::Descriptor errors(2);
  Capture::Descriptor output(1);

  disk.CheckDisk::Mount();
  EXPECT_EQ(output.Text(), "Mount SD card FAILED.\n");
  EXPECT_EQ(MachineCalls(), std::vector<std::string>(4, "sleep 1000 ms"));
}

TEST_F(DiskTest, UnmountAndMountCommandsSucceedWithoutAPause) {
  Disk disk = MakeDiskOfInsertedCard();
  ForgetMachineCalls();
  Capture::Descriptor output(1);

  disk.UnMount();
  EXPECT_FALSE(IsMounted(mountPoint));
  disk.CheckDisk::Mount();
  EXPECT_TRUE(IsMounted(mountPoint));
  EXPECT_EQ(output.Text(), "Unmount SD card success.\nMount SD card success\n");
  EXPECT_THAT(MountOptions(), HasSubstr("noatime,nodiratime,data=writeback"));
  EXPECT_THAT(MachineCalls(), IsEmpty());
}

TEST_F(DiskTest, CheckOfAMountedFileSystemFailsAndTheMountCommandToo) {
  Disk disk = MakeDiskOfInsertedCard();
  Tarvik::UniqueFd const busy = KeepBusy();
  Capture::Descriptor errors(2);
  Capture::Descriptor output(1);

  EXPECT_EQ(disk.DiskCheck(), 8);
  EXPECT_THAT(output.Text(), HasSubstr("Unmount SD card FAILED.\n"));
  EXPECT_THAT(output.Text(), HasSubstr("FSCK output: Operational error\n"));
  EXPECT_THAT(output.Text(), EndsWith("Mount SD card FAILED.\n"));
}

TEST_F(DiskTest, CheckThatWantsARebootSaysSoWaitsAndMountsAllTheSame) {
  Disk disk = MakeDiskOfInsertedCard();
  CommandInFront const fsck("fsck", "exit 2\n");
  ForgetMachineCalls();
  Capture::Descriptor output(1);

  EXPECT_EQ(disk.DiskCheck(), 2);
  EXPECT_EQ(output.Text(),
            "Unmount SD card success.\n"
            "FSCK output: System should be rebooted\n"
            "fcsk requested system reboot...\n"
            "===================================>>> REBOOT \n"
            "Mount SD card success\n");
  EXPECT_EQ(MachineCalls(), std::vector<std::string>{"sleep 3000 ms"});
}

TEST_F(DiskTest, FormatMakesALabelledFileSystemWithoutAJournal) {
  Disk disk = MakeDiskOfInsertedCard();
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

TEST_F(DiskTest, FormatWithTheBadBlockScanAsksForIt) {
  Disk disk = MakeDiskOfInsertedCard();
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
TEST_F(DiskTest, FormattedCardIsNotMountedByAKernelThatWantsAJournalForWriteback) {
  Disk disk = MakeDiskOfInsertedCard();
  Capture::Descriptor errors(2);
  Capture::Descriptor output(1);
  ASSERT_TRUE(disk.Fromat(false));

  EXPECT_FALSE(disk.CheckDiskPresence());
  EXPECT_FALSE(disk.Mount());
  EXPECT_EQ(mount(partition, mountPoint, "ext4", 0, nullptr), 0);
}

TEST_F(DiskTest, FormatOfACardThatIsNotAvailableLeavesItAlone) {
  card.SetWriteProtected(true);
  Disk disk = MakeDiskOfInsertedCard();
  Capture::Descriptor output(1);

  EXPECT_FALSE(disk.Fromat(false));
  EXPECT_EQ(output.Text(), "ERROR: The device is not available\n");
  EXPECT_EQ(Tag("LABEL"), "");
}

TEST_F(DiskTest, FormatIsTakenForDoneWhateverTheCommandSays) {
  Disk disk = MakeDiskOfInsertedCard();
  CommandInFront const mkfs("mkfs.ext4", "exit 1\n");
  Capture::Descriptor output(1);

  EXPECT_TRUE(disk.Fromat(false));
  EXPECT_THAT(output.Text(), EndsWith("Done format partition /dev/mmcblk1p1 ext4\n"));
  EXPECT_TRUE(IsMounted(mountPoint));
}

TEST_F(DiskTest, SpaceOfAMountPointThatIsGoneThrowsWithTheSystemsError) {
  Disk disk("/mnt/nowhere/", partition, device);

  try {
    disk.LoadDiskInfo();
    FAIL() << "nothing thrown";
  } catch (Tarvik::IException const& e) {
    EXPECT_STREQ(e.what(), "Get space stat error");
    EXPECT_EQ(e.code, ENOENT);
  }
}

}  // namespace CardTests
