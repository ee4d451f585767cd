// What a service does with a card before it is taken into service.
#include "DiskUtils/CheckUnlessMountable.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/card/CardFixture.h"
#include "tests/support/Capture.h"

namespace {

namespace fs = std::filesystem;
using CardTests::RunQuietly;
using CardTests::TextOf;
using testing::IsEmpty;

class CheckUnlessMountable : public CardTests::CardTest {
 protected:
  /// What a card in the slot holds, as a sum of all its bytes.
  static std::string Sum() {
    RunQuietly("sync; md5sum < /dev/mmcblk1p1 > /tmp/sum");
    return TextOf("/tmp/sum");
  }

  /// Runs it with a check that leaves a trace.
  static bool Checks() {
    fs::remove("/tmp/checked");
    CardTests::CommandInFront const fsck("fsck", "touch /tmp/checked\nexec /sbin/fsck \"$@\"\n");
    Capture::Output([] { Quellon::DiskUtils::CheckUnlessMountable(); });
    return fs::exists("/tmp/checked");
  }

  /// What a power cut between the two sectors of the superblock leaves: a wrong checksum.
  void TearSuperblock() const {
    RunQuietly("printf '\\377\\377\\377\\377' | dd bs=1 seek=$((1024 + 1020)) conv=notrunc of=" +
               card.ImagePath());
  }
};

TEST_F(CheckUnlessMountable, MendsACardWithATornSuperblockAndLeavesItUnmounted) {
  card.Edit([](fs::path const& root) { std::ofstream(root / "recording") << "complete"; });
  TearSuperblock();
  card.Insert();

  EXPECT_TRUE(Checks());
  EXPECT_THAT(CardTests::MountsOn("/mnt/sdcard"), IsEmpty());
  EXPECT_TRUE(MakeDisk().CheckDiskPresence());
  EXPECT_EQ(TextOf("/mnt/sdcard/recording"), "complete");
}

TEST_F(CheckUnlessMountable, DoesNotCheckAGoodCardNorLeavesItMounted) {
  card.Insert();
  EXPECT_FALSE(Checks());
  EXPECT_THAT(CardTests::MountsOn("/mnt/sdcard"), IsEmpty());
}

TEST_F(CheckUnlessMountable, LeavesACardAloneThatIsMountedAlready) {
  card.Insert();
  MakeDisk();
  auto const mounted = CardTests::MountsOn("/mnt/sdcard");
  ASSERT_FALSE(mounted.empty());
  EXPECT_FALSE(Checks());
  EXPECT_EQ(CardTests::MountsOn("/mnt/sdcard"), mounted);
}

TEST_F(CheckUnlessMountable, LeavesACardAloneThatIsMountedElsewhere) {
  card.Insert();
  fs::create_directory("/tmp/elsewhere");
  RunQuietly("mount -o ro /dev/mmcblk1p1 /tmp/elsewhere");
  EXPECT_FALSE(Checks());
  EXPECT_THAT(CardTests::MountsOn("/mnt/sdcard"), IsEmpty());
  RunQuietly("umount /tmp/elsewhere");
}

TEST_F(CheckUnlessMountable, LeavesAWriteProtectedCardAlone) {
  card.SetWriteProtected(true);
  card.Insert();
  EXPECT_FALSE(Checks());
  EXPECT_THAT(CardTests::MountsOn("/mnt/sdcard"), IsEmpty());
}

TEST_F(CheckUnlessMountable, ChangesNothingOnACardThatHoldsSomethingElseNow) {
  RunQuietly("dd if=/dev/urandom bs=1M count=8 conv=notrunc of=" + card.ImagePath());
  card.Insert();
  std::string const before = Sum();

  EXPECT_FALSE(Checks());
  EXPECT_EQ(Sum(), before);
}

TEST_F(CheckUnlessMountable, DoesNothingWithoutACard) {
  EXPECT_FALSE(Checks());
}

}  // namespace
