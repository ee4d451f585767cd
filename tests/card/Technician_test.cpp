// What a technician sees of a real card, and what is done to it by hand.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "tests/card/BareCard.h"
#include "tests/card/CardFixture.h"
#include "tests/support/FoundCards.h"
#include "tests/support/ToolRun.h"

namespace {

namespace fs = std::filesystem;
using CardTests::RunQuietly;
using CardTests::WriteRecording;
using Quellon::Tool::Fine;
using Quellon::Tool::Refused;
using Quellon::Tool::Wrong;
using testing::HasSubstr;
using testing::IsEmpty;

/// Another process with a file open, until the end.
class Reader {
 public:
  explicit Reader(std::string const& path) : file(CardTests::KeepBusy(path)), child(fork()) {
    if (child == 0) {
      pause();
      _exit(0);
    }
    file = Tarvik::UniqueFd();
  }
  Reader(Reader const&) = delete;
  Reader& operator=(Reader const&) = delete;
  ~Reader() {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }

  [[nodiscard]] std::string Id() const { return std::to_string(child); }

 private:
  Tarvik::UniqueFd file;
  pid_t child;
};

class Technician : public CardTests::CardTest {
 protected:
  void Mount(std::string const& options = "rw") {
    RunQuietly("mount -o " + options + " " + kPartition + " " + kMountPoint);
  }

  static void ExpectWrong(Quellon::Tool::Arguments const& command, std::string const& what) {
    ToolRun const run(command);
    EXPECT_EQ(run.status, Wrong) << run.output;
    EXPECT_TRUE(run.Shows("wrong", what)) << run.output;
  }
};

TEST_F(Technician, FindsNothingWrongWithAGoodCard) {
  card.Edit([](fs::path const& root) { WriteRecording(root / "cr/a.dat", 4096, 1700000000); });
  card.Insert();
  Mount("rw,noatime,data=writeback");
  ToolRun const run({"card"});
  EXPECT_EQ(run.status, Fine) << run.output;
  EXPECT_TRUE(run.Shows("CID", card.identity.cid));
  EXPECT_TRUE(run.Shows("size", "64.0 MiB"));
  EXPECT_TRUE(run.Shows("mounted", "/dev/mmcblk1p1, ext4"));
  EXPECT_TRUE(run.Shows("errors", "0"));
  EXPECT_TRUE(run.Shows("used by", "nobody"));
  EXPECT_TRUE(run.Shows("state", "in service"));
  ToolRun const catalogue({"catalogue"});
  EXPECT_EQ(catalogue.status, Fine) << catalogue.output;
  EXPECT_TRUE(catalogue.Shows("files", "1, 4.0 KiB, 0.0 % of the card")) << catalogue.output;
}

TEST_F(Technician, FindsNoCard) {
  ExpectWrong({"card"}, "no card in the slot");
}

TEST_F(Technician, FindsAWriteProtectedCard) {
  card.SetWriteProtected(true);
  card.Insert();
  ExpectWrong({"card"}, "the card is write-protected");
}

TEST_F(Technician, FindsANewCard) {
  RunQuietly("dd if=/dev/zero bs=1M count=64 conv=notrunc of=" + card.ImagePath());
  card.Insert();
  ExpectWrong({"card"}, "the card holds no ext4");
}

TEST_F(Technician, PreparesANewCardAndProvesIt) {
  auto const cards = FoundCards::All();
  auto const bought = std::ranges::find_if(
      cards, [](auto const& found) { return found.description == "MBR: FAT"; });
  ASSERT_NE(bought, cards.end());
  CardTests::BareCard bare(*bought);
  bare.Insert();
  ExpectWrong({"card"}, "the card holds no ext4");
  EXPECT_TRUE(ToolRun({"card"}).Shows("holds", "MBR: FAT"));

  ToolRun const prepared({"card", "prepare"});
  EXPECT_EQ(prepared.status, Fine) << prepared.output;
  EXPECT_TRUE(prepared.Shows("step", "making the file system"));
  EXPECT_TRUE(ToolRun({"card"}).Shows("wrong", "the card is not mounted"));
  ToolRun const proved({"card", "prove"});
  EXPECT_EQ(proved.status, Fine) << proved.output;
  EXPECT_THAT(CardTests::MountsOn("/mnt/sdcard"), IsEmpty());
  EXPECT_TRUE(ToolRun({"card", "check"}).Shows("verdict", "no errors"));
}

TEST_F(Technician, ErasesRecordingsOnlyWhenItIsAskedTo) {
  card.Edit([](fs::path const& root) { WriteRecording(root / "cr/a.dat", 4096, 1700000000); });
  card.Insert();
  EXPECT_EQ(ToolRun({"card", "prepare"}).status, Refused);
  EXPECT_EQ(ToolRun({"card", "prove"}).status, Refused);
  EXPECT_THAT(CardTests::MountsOn("/mnt/sdcard"), IsEmpty());
  card.Edit([](fs::path const& root) { EXPECT_TRUE(fs::exists(root / "cr/a.dat")); });
}

TEST_F(Technician, FindsACardThatIsNotMounted) {
  card.Insert();
  ExpectWrong({"card"}, "the card is not mounted");
}

TEST_F(Technician, FindsACardThatFails) {
  RunQuietly("debugfs -w -R 'set_super_value error_count 3' " + card.ImagePath());
  card.Insert();
  Mount();
  ExpectWrong({"card"}, "the file system has met errors");
  EXPECT_TRUE(ToolRun({"card"}).Shows("errors", "3"));
}

TEST_F(Technician, FindsAFileSystemThatHasBecomeReadOnly) {
  card.Insert();
  Mount("ro");
  ExpectWrong({"card"}, "the file system is read-only, the card is not");
}

TEST_F(Technician, FindsWhoUsesTheCard) {
  card.Insert();
  Mount();
  Reader const reader("/mnt/sdcard/open");
  EXPECT_THAT(ToolRun({"card"}).output, HasSubstr(" (" + reader.Id() + ")\n"));
}

TEST_F(Technician, ChecksAGoodCardAndChangesNothing) {
  card.Insert();
  RunQuietly("md5sum </dev/mmcblk1p1 >/tmp/before");
  ToolRun const run({"card", "check"});
  EXPECT_EQ(run.status, Fine) << run.output;
  EXPECT_TRUE(run.Shows("verdict", "no errors")) << run.output;
  RunQuietly("md5sum </dev/mmcblk1p1 | cmp - /tmp/before");
  EXPECT_THAT(CardTests::MountsOn("/mnt/sdcard"), IsEmpty());
}

TEST_F(Technician, RepairsACardWhenItIsAskedTo) {
  card.DamageRepairably();
  card.Insert();
  ToolRun const looked({"card", "check"});
  EXPECT_EQ(looked.status, Wrong);
  EXPECT_TRUE(looked.Shows("wrong", "the file system has errors")) << looked.output;
  EXPECT_TRUE(looked.Shows("to do", "quellon card check --repair"));
  EXPECT_TRUE(ToolRun({"card", "check", "--repair"}).Shows("verdict", "errors corrected"));
  EXPECT_TRUE(ToolRun({"card", "check"}).Shows("verdict", "no errors"));
}

// Before its first superblock there is nothing that leads to it, neither here nor in a lost table.
TEST_F(Technician, RepairsAFileSystemThatHasLostItsBeginning) {
  card.Edit([](fs::path const& root) { WriteRecording(root / "cr/a.dat", 4096, 1700000000); });
  RunQuietly("dd if=/dev/zero bs=4096 count=1 conv=notrunc of=" + card.ImagePath());
  card.Insert();
  ExpectWrong({"card"}, "the card has lost its partition table");
  EXPECT_EQ(ToolRun({"card", "prepare"}).status, Refused);
  ToolRun const repaired({"card", "check", "--repair"});
  EXPECT_TRUE(repaired.Shows("verdict", "errors corrected")) << repaired.output;
  card.Remove();
  card.Edit([](fs::path const& root) { EXPECT_EQ(fs::file_size(root / "cr/a.dat"), 4096U); });
}

TEST_F(Technician, TellsThatACardCannotBeChecked) {
  card.DamageBeyondRepair();
  card.Insert();
  ExpectWrong({"card", "check"}, "the card could not be checked");
  CardTests::CommandInFront const fsck("fsck", "kill -KILL $$\n");
  ExpectWrong({"card", "check"}, "the card could not be checked");
}

TEST_F(Technician, ChecksNoCardWhereThereIsNone) {
  ExpectWrong({"card", "check"}, "no card in the slot");
}

TEST_F(Technician, RefusesToCheckAMountedCard) {
  CardTests::CommandInFront const fsck("fsck", "touch /tmp/checked\n");
  card.Insert();
  Mount();
  ToolRun const run({"card", "check", "--repair"});
  EXPECT_EQ(run.status, Refused);
  EXPECT_TRUE(run.Shows("refused", "the card is mounted")) << run.output;
  EXPECT_TRUE(run.Shows("to do", "umount /mnt/sdcard"));
  EXPECT_FALSE(fs::exists("/tmp/checked"));
}

TEST_F(Technician, RefusesToCheckACardThatSomebodyUses) {
  card.Insert();
  Reader const reader("/dev/mmcblk1p1");
  ToolRun const run({"card", "check", "--repair"});
  EXPECT_EQ(run.status, Refused);
  EXPECT_THAT(run.output, HasSubstr(" (" + reader.Id() + "): it cannot be checked\n"));
  EXPECT_TRUE(run.Shows("to do", "kill " + reader.Id())) << run.output;
}

}  // namespace
