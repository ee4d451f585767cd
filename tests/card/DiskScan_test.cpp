// The scan of a card: test file, check, repair, and whether it may be used.
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <fstream>

#include "tests/card/DiskFixture.h"
#include "tests/support/Capture.h"

namespace {

namespace fs = std::filesystem;
using CardTests::CommandInFront;
using CardTests::ScanFailure;
using CardTests::TextOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char const* kLookAtTestFile = "debugfs -R 'cat check.tmp' /dev/mmcblk1p1 > /tmp/seen\n";

class DiskScan : public CardTests::DiskTest {};

TEST_F(DiskScan, ScanOfAGoodCardPassesAndLeavesNoTestFile) {
  auto disk = MakeDiskOfInsertedCard();
  Capture::Descriptor output(1);

  EXPECT_EQ(ScanFailure(disk), "");
  EXPECT_TRUE(disk.available);
  EXPECT_EQ(Status().fsckStatus, 0);
  EXPECT_EQ(Status().malfunction, 0);
  EXPECT_GT(Status().lifetimeWritesKB, 0U);
  EXPECT_EQ(CardTests::NamesIn(kMountPoint), std::set<std::string>{"lost+found"});
  EXPECT_THAT(output.Text(), StartsWith("Unmount SD card success.\n"));
  EXPECT_THAT(output.Text(), EndsWith("FSCK output: No errors\nMount SD card success\n"));
}

TEST_F(DiskScan, TestFileIsThereDuringTheCheckWithItsSixCharacters) {
  auto disk = MakeDiskOfInsertedCard();
  CommandInFront const fsck("fsck", kLookAtTestFile);

  EXPECT_EQ(ScanFailure(disk), "");
  EXPECT_EQ(TextOf("/tmp/seen"), "velmor");
}

TEST_F(DiskScan, LeftoverTestFileIsOverwrittenAndRemoved) {
  auto disk = MakeDiskOfInsertedCard();
  std::ofstream("/mnt/sdcard/check.tmp") << "left behind by an earlier scan that was interrupted";
  CommandInFront const fsck("fsck", kLookAtTestFile);

  EXPECT_EQ(ScanFailure(disk), "");
  EXPECT_EQ(TextOf("/tmp/seen"), "velmor");
  EXPECT_FALSE(fs::exists("/mnt/sdcard/check.tmp"));
}

TEST_F(DiskScan, DamagedFileSystemIsRepairedByTheScan) {
  card.DamageRepairably();
  auto disk = MakeDiskOfInsertedCard();
  Capture::Descriptor output(1);

  EXPECT_EQ(ScanFailure(disk), "");
  EXPECT_TRUE(disk.available);
  EXPECT_EQ(Status().fsckStatus, 1);
  EXPECT_THAT(output.Text(), HasSubstr("FSCK output: File system errors corrected\n"));

  EXPECT_EQ(ScanFailure(disk), "");
  EXPECT_EQ(Status().fsckStatus, 0);
}

TEST_F(DiskScan, CardWhoseCheckFailsIsUsedAsLongAsItKeepsItsFiles) {
  card.DamageCheckOnly();
  auto disk = MakeDiskOfInsertedCard();
  Capture::Descriptor errors(2);
  Capture::Descriptor output(1);

  EXPECT_EQ(ScanFailure(disk), "");
  EXPECT_TRUE(disk.available);
  EXPECT_EQ(Status().fsckStatus, 12);
  EXPECT_THAT(output.Text(), Not(HasSubstr("FSCK output")));
}

TEST_F(DiskScan, CardThatCannotBeRepairedIsNotFound) {
  card.DamageBeyondRepair();
  card.Insert();
  Capture::Descriptor output(1);
  auto disk = MakeDisk();

  EXPECT_EQ(output.Text(), "Disk exception Disk not found\n");
  EXPECT_FALSE(disk.available);
  EXPECT_TRUE(Status().present);
}

TEST_F(DiskScan, CardThatBreaksBeyondRepairDuringTheScanIsNotPresent) {
  auto disk = MakeDiskOfInsertedCard();
  CommandInFront const fsck("fsck",
                            "debugfs -w -R 'feature FEATURE_I29' /dev/mmcblk1p1 >/dev/null 2>&1\n"
                            "/sbin/fsck \"$@\"\n");
  Capture::Descriptor errors(2);
  Capture::Descriptor output(1);

  EXPECT_EQ(ScanFailure(disk), "Disk not present");
  EXPECT_FALSE(disk.available);
  EXPECT_EQ(Status().fsckStatus, 8);
  EXPECT_TRUE(Status().present);
  EXPECT_THAT(output.Text(), EndsWith("FSCK output: Operational error\nMount SD card FAILED.\n"));
}

TEST_F(DiskScan, CardPulledDuringTheCheckIsNotPresent) {
  auto disk = MakeDiskOfInsertedCard();
  CommandInFront const fsck("fsck", "rm /dev/mmcblk1 /dev/mmcblk1p1; exit 8\n");
  Capture::Descriptor errors(2);
  Capture::Descriptor output(1);

  EXPECT_EQ(ScanFailure(disk), "Disk not present");
  EXPECT_FALSE(disk.available);
  EXPECT_FALSE(Status().present);
  EXPECT_EQ(Status().fsckStatus, 8);
}

TEST_F(DiskScan, CardThatLosesTheTestFileIsRefusedForGood) {
  CardTests::LossyCheck const lossy(card);
  auto disk = MakeDiskOfInsertedCard();
  Capture::Descriptor output(1);

  EXPECT_EQ(ScanFailure(disk), "disk malfunction");
  EXPECT_FALSE(disk.available);
  EXPECT_EQ(Status().malfunction, 1);
  EXPECT_EQ(Status().fsckStatus, 0);

  Capture::Descriptor later(1);
  auto const next = MakeDisk();
  EXPECT_FALSE(next.available);
  EXPECT_EQ(later.Text(), "Disk exception Disk malfunction status had been set to read-only\n");
}

TEST_F(DiskScan, CardThatMountsReadOnlyMissesTheTestFileAndIsRefused) {
  auto disk = MakeDiskOfInsertedCard();
  ASSERT_EQ(mount(nullptr, kMountPoint, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  Capture::Descriptor output(1);

  EXPECT_EQ(ScanFailure(disk), "disk malfunction");
  EXPECT_EQ(Status().malfunction, 1);
}

TEST_F(DiskScan, OldTestFileOnACardThatMountsReadOnlyCountsForNothing) {
  auto disk = MakeDiskOfInsertedCard();
  std::ofstream("/mnt/sdcard/check.tmp") << "old";
  ASSERT_EQ(mount(nullptr, kMountPoint, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  Capture::Descriptor output(1);

  EXPECT_EQ(ScanFailure(disk), "disk malfunction");
  EXPECT_EQ(TextOf("/mnt/sdcard/check.tmp"), "old");
}

TEST_F(DiskScan, CardThatTurnsReadOnlyDuringTheScanIsNotAvailable) {
  auto disk = MakeDiskOfInsertedCard();
  card.ReportReadOnly(true);
  Capture::Descriptor output(1);

  EXPECT_EQ(ScanFailure(disk), "disk read only");
  EXPECT_FALSE(disk.available);
  EXPECT_TRUE(Status().readOnly);
  EXPECT_FALSE(fs::exists("/mnt/sdcard/check.tmp"));
}

TEST_F(DiskScan, ScanPassesWithoutALifetimeCounter) {
  auto disk = MakeDiskOfInsertedCard();
  fs::remove("/sys/fs/ext4/mmcblk1p1");
  Capture::Descriptor output(1);

  EXPECT_EQ(ScanFailure(disk), "");
  EXPECT_EQ(Status().lifetimeWritesKB, 0U);
  EXPECT_THAT(output.Text(), EndsWith("ERR: [/sys/fs/ext4/mmcblk1p1/lifetime_write_kbytes] does "
                                      "not exist !\n"));
}

constexpr char const* kOutside = "/root/outside";
constexpr char const* kNowhere = "/root/nowhere";

/// What somebody may have put in the place of the test file.
struct Thing {
  char const* name;
  void (*make)(fs::path const& place);
};

class DiskScanOfACraftedCard : public DiskScan, public testing::WithParamInterface<Thing> {
 protected:
  DiskScanOfACraftedCard() {
    std::ofstream(kOutside) << "outside";
    card.Edit([](fs::path const& root) {
      GetParam().make(root / "check.tmp");
      CardTests::RunQuietly("chattr +i " + root.string());  // so that nobody can remove it
    });
  }
  ~DiskScanOfACraftedCard() override { fs::remove(kOutside); }
};

TEST_P(DiskScanOfACraftedCard, RefusesItAndUsesNothingThatIsNoTestFile) {
  auto disk = MakeDiskOfInsertedCard();
  Capture::Descriptor output(1);

  EXPECT_EQ(ScanFailure(disk), "disk malfunction");
  EXPECT_EQ(TextOf(kOutside), "outside");
  EXPECT_FALSE(fs::exists(kNowhere));
}

INSTANTIATE_TEST_SUITE_P(
    Things, DiskScanOfACraftedCard,
    testing::Values(
        Thing{"ALink", [](fs::path const& place) { fs::create_symlink(kOutside, place); }},
        Thing{"ALinkThatLeadsNowhere",
              [](fs::path const& place) { fs::create_symlink(kNowhere, place); }},
        Thing{"APipe", [](fs::path const& place) { ASSERT_EQ(mkfifo(place.c_str(), 0600), 0); }},
        Thing{"ADevice",
              [](fs::path const& place) {
                ASSERT_EQ(mknod(place.c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);  // /dev/null
              }}),
    [](auto const& instance) { return instance.param.name; });

}  // namespace
