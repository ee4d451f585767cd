// The card brought into service, and the machine rebooted for one that fails, a fixed number of
// times. Each start of the device is a process of its own.
#include "DiskUtils/System.h"

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/statvfs.h>

#include <fstream>

#include "base/Json.h"
#include "tests/card/CardFixture.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CardText.h"
#include "tests/support/CounterFile.h"
#include "tests/support/OwnedSystem.h"

namespace {

using namespace std::chrono_literals;

using CardTests::IsMounted;
using CardTests::LossyCheck;
using CardTests::TextOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// How often `part` occurs in `text`.
int Occurrences(std::string const& text, std::string const& part) {
  int count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

bool RootIsReadOnly() {
  struct statvfs root {};
  statvfs("/", &root);
  return (root.f_flag & ST_RDONLY) != 0;
}

void MakeRootReadOnly() {
  ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
}

class System : public CardTests::CardTest {
 protected:
  /// Switches the device on and returns what it prints until its start has ended.
  static std::string PowerOn() {
    Boot();
    Capture::Descriptor errors(2);
    auto const start = CardTests::RunProgram(POWER_ON);
    EXPECT_EQ(start.exitCode, 0);
    EXPECT_THAT(start.output, EndsWith("end of this start\n"));
    return start.output;
  }

  /// Three starts that end in a reboot and a fourth that goes on without the card; returns what the
  /// fourth prints.
  static std::string StartUntilItGivesUp(std::string const& reason);

  static void SaveCount(int reboots) {
    std::ofstream(CounterFile::kPath) << CounterFile::Text(reboots);
  }
};

std::string System::StartUntilItGivesUp(std::string const& reason) {
  for (int reboots = 0; reboots < 3; ++reboots) {
    std::string const output = PowerOn();
    EXPECT_THAT(output,
                HasSubstr("Exception disk (0): " + reason + "\nFound SD card status counter " +
                          std::to_string(reboots) + " on file\nSave sdcard status counter " +
                          std::to_string(reboots + 1) +
                          " to file\nDone save counter, trigger reboot...\n"));
    EXPECT_THAT(output, HasSubstr("card: none\nhealth: {}\n"));
    EXPECT_THAT(output, HasSubstr("asked: system reboot\nasked: sleep 20000000000 ns\n"));
    EXPECT_THAT(output, HasSubstr("asked: reboot " + std::to_string(RB_AUTOBOOT) +
                                  "\nend of this start\n"));
    EXPECT_EQ(TextOf(CounterFile::kPath), CounterFile::Text(reboots + 1));
  }
  std::string last = PowerOn();
  EXPECT_THAT(last, HasSubstr("Exception disk (0): " + reason +
                              "\nFound SD card status counter 3 on file\n"
                              "Found SD card status counter 4 on file, passed limit\n" +
                              CardText::kNoCard));
  EXPECT_THAT(last, HasSubstr("card: unusable\n"));
  EXPECT_THAT(last, Not(HasSubstr("reboot")));
  EXPECT_EQ(TextOf(CounterFile::kPath), CounterFile::Text(3));
  return last;
}

TEST_F(System, GoodCardIsBroughtIntoServiceAndReported) {
  card.Insert();
  Capture::Descriptor output(1);
  OwnedSystem system;
  auto const* const disk = system.InitDisk();

  ASSERT_NE(disk, nullptr);
  EXPECT_EQ(disk, system.disk);
  EXPECT_TRUE(disk->available);
  EXPECT_FALSE(system.diskFault);
  EXPECT_EQ(Machine::Traced("sleep").back(), Machine::Sleep(1s));
  auto const& status = Quellon::DiskUtils::Disk::deviceStatusList[kMountPoint];
  EXPECT_THAT(output.Text(), EndsWith(CardText::kTitle + " size [67108864] B\n usable size [" +
                                      std::to_string(disk->totalBytes) + "] B \n writen [" +
                                      std::to_string(status.lifetimeWritesKB) +
                                      "] kB\n read only [0]\n fcsk status [0]\n cid [" +
                                      card.identity.cid + "]\n" + CardText::kRule));
}

TEST_F(System, HealthOfAGoodCardIsMeasured) {
  card.Insert();
  Capture::Descriptor output(1);
  OwnedSystem system;
  system.InitDisk();
  auto health = Tarvik::Json::Deserialize(system.GetHealthReport()).ToObject();

  EXPECT_EQ(static_cast<int>(health["zf"]), 0);
  EXPECT_EQ(health["zi"].ToString(), card.identity.cid);
  EXPECT_EQ(static_cast<int>(health["zr"]), 0);
  EXPECT_EQ(static_cast<double>(health["zs"]), 64.0 / 1024);
  EXPECT_GT(static_cast<double>(health["zl"]), 0);
  EXPECT_THAT(health["f"].ToString(), StartsWith("30.4|B140 ("));
  EXPECT_FALSE(health.HasKey("rtc-have-been-reset"));
}

TEST_F(System, RepairedCardIsUsedAndTheRepairReported) {
  card.DamageRepairably();
  card.Insert();
  std::string const output = PowerOn();

  EXPECT_THAT(output, HasSubstr("FSCK output: File system errors corrected\n"));
  EXPECT_THAT(output, HasSubstr(" fcsk status [1]\n"));
  EXPECT_THAT(output, HasSubstr("card: usable\n"));
  EXPECT_THAT(output, HasSubstr(R"("zf":1,)"));
}

TEST_F(System, CardThatLosesFilesCausesThreeRebootsAndIsReportedBroken) {
  LossyCheck const lossy(card);
  card.Insert();
  std::string const last = StartUntilItGivesUp("disk malfunction");
  EXPECT_THAT(last, HasSubstr(R"("zr":1,"zs":0.0625})"));
}

TEST_F(System, WriteProtectedCardCausesThreeRebootsAndIsReportedReadOnly) {
  card.SetWriteProtected(true);
  card.Insert();
  std::string const last = StartUntilItGivesUp("The device is not available");
  EXPECT_THAT(last, HasSubstr(R"("zr":2,)"));
}

TEST_F(System, CardBeyondRepairCausesThreeRebootsAndIsReportedUnusable) {
  card.DamageBeyondRepair();
  card.Insert();
  std::string const last = StartUntilItGivesUp("The device is not available");
  EXPECT_THAT(last, HasSubstr(R"("zr":3,"zs":0.0625})"));
}

TEST_F(System, CardThatComesBackAfterARebootIsUsedAndTheCountStays) {
  EXPECT_THAT(PowerOn(), HasSubstr("trigger reboot..."));
  card.Insert();
  std::string const output = PowerOn();

  EXPECT_THAT(output, HasSubstr("card: usable\n"));
  EXPECT_THAT(output, Not(HasSubstr("reboot")));
  EXPECT_EQ(TextOf(CounterFile::kPath), CounterFile::Text(1));
}

TEST_F(System, AnotherStartInTheSameProcessReplacesTheCardObject) {
  Capture::Descriptor errors(2);
  Capture::Descriptor output(1);
  SaveCount(3);
  OwnedSystem system;
  ASSERT_NE(system.InitDisk(), nullptr);
  EXPECT_FALSE(system.disk->available);
  EXPECT_TRUE(system.diskFault);

  card.Insert();
  ASSERT_NE(system.InitDisk(), nullptr);
  EXPECT_TRUE(system.disk->available);
  EXPECT_FALSE(system.diskFault);
}

TEST_F(System, CardFoundBrokenIsRefusedByLaterStartsInTheSameProcess) {
  Capture::Descriptor output(1);
  SaveCount(3);
  OwnedSystem system;
  {
    LossyCheck const lossy(card);
    card.Insert();
    system.InitDisk();
  }
  system.InitDisk();

  EXPECT_FALSE(system.disk->available);
  EXPECT_THAT(output.Text(),
              HasSubstr("Disk exception Disk malfunction status had been set to read-only\n"
                        "Exception disk (0): The device is not available\n"));
}

TEST_F(System, RebootLeavesCardAndRootUnmounted) {
  LossyCheck const lossy(card);
  card.Insert();
  EXPECT_THAT(PowerOn(), HasSubstr("asked: reboot " + std::to_string(RB_AUTOBOOT) + "\n"));

  EXPECT_FALSE(IsMounted(kMountPoint));
  EXPECT_TRUE(RootIsReadOnly());  // what the kernel makes of unmounting a process's own root
}

TEST_F(System, BusyCardDoesNotStopAReboot) {
  card.Insert();
  auto const disk = MakeDisk();
  auto const busy = CardTests::KeepBusy("/mnt/sdcard/busy");
  OwnedSystem system;
  Capture::Descriptor errors(2);

  EXPECT_EQ(system.Reboot(), -1);
  EXPECT_EQ(Occurrences(errors.Text(), "Unable to umount storage SD: Device or resource busy\n"),
            9);
  EXPECT_EQ(Machine::Trace().back(), "reboot " + std::to_string(RB_AUTOBOOT));
  EXPECT_TRUE(IsMounted(kMountPoint));
}

TEST_F(System, BusyRootIsGivenASecondAndTenForcedAttempts) {
  auto const busy = CardTests::KeepBusy("/busy");
  card.Insert();
  auto const disk = MakeDisk();
  OwnedSystem system;
  Machine::ForgetTrace();
  Capture::Descriptor errors(2);

  EXPECT_EQ(system.UnmountAll(), 0);
  EXPECT_EQ(Occurrences(errors.Text(), "Unable to umount root SD: "), 9);
  std::vector<std::string> pauses(10, Machine::Sleep(100ms));
  pauses.front() = Machine::Sleep(1s);
  EXPECT_EQ(Machine::Traced("sleep"), pauses);
  EXPECT_FALSE(IsMounted(kMountPoint));
}

TEST_F(System, CounterOnAReadOnlyRootCannotBeReadOrRemovedAndIsTakenForSaved) {
  OwnedSystem system;
  SaveCount(1);
  MakeRootReadOnly();
  Capture::Descriptor output(1);

  EXPECT_EQ(system.ReadSDCardStatusCounter(), -1);
  EXPECT_TRUE(system.SaveSDCardStatusCounter(2));
  EXPECT_FALSE(system.SaveSDCardStatusCounter(0));
  EXPECT_EQ(output.Text(),
            "Save sdcard status counter 2 to file\n"
            "Remove sdcard status file\nUnable to remove sd card status file\n");
  EXPECT_EQ(TextOf(CounterFile::kPath), CounterFile::Text(1));
}

}  // namespace
