// The bench driver on a real card, and the RAM disk.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <fstream>

#include "SysUtil/Util.h"
#include "tests/card/CardFixture.h"
#include "tests/support/Capture.h"
#include "tests/support/LogFile.h"

namespace {

namespace fs = std::filesystem;
namespace SysUtil = Quellon::SysUtil;
using CardTests::IsMounted;
using CardTests::MountsOn;
using CardTests::WriteRecording;
using testing::ElementsAre;
using testing::EndsWith;
using testing::MatchesRegex;
using testing::StartsWith;

class Services : public CardTests::CardTest {};

TEST_F(Services, BenchDriverListsTheCardsRecordingsOldestFirst) {
  card.Edit([](fs::path const& root) {
    WriteRecording(root / "cr/b.dat", 10, 2000);
    WriteRecording(root / "cr/c.log", 10, 3000);
    WriteRecording(root / "cr/a.dat", 10, 1000);
  });
  card.Insert();
  Capture::Descriptor errors(2);
  auto const bench = CardTests::RunProgram(std::string(BENCH_DRIVER) + " these are ignored");

  EXPECT_EQ(bench.exitCode, 0);
  auto const line = [](std::string const& text) {
    return LogFile::kHeader + "\\[SYSTEM\\]" + text + "\n";
  };
  EXPECT_THAT(bench.output,
              MatchesRegex("Disk /mnt/sdcard/ free sapce 54MB from 54MB\n" +
                           line(" Min free space after correction [0-9]+B fraction 0.8") +
                           line(" Allocated disk space [0-9.]+MB") + line(R"(\[a.dat\])") +
                           line(R"(\[b.dat\])") + line(R"(\[c.log\])")));
  EXPECT_THAT(CardTests::TextOf("/var/log/quellon.log"),
              EndsWith(bench.output.substr(bench.output.find('\n') + 1)));
}

TEST_F(Services, RamdiskIsFreshAndEmptyEachTime) {
  Capture::Descriptor errors(2);
  Capture::Descriptor output(1);
  SysUtil::MountRamdisk();
  ASSERT_TRUE(IsMounted("/mnt/ramdisk"));
  std::ofstream("/mnt/ramdisk/file") << "gone after the next mount";
  SysUtil::MountRamdisk();

  EXPECT_EQ(MountsOn("/mnt/ramdisk").size(), 1U);
  EXPECT_TRUE(fs::is_empty("/mnt/ramdisk"));
  EXPECT_EQ(output.Text(), "");
}

TEST_F(Services, RamdiskHasItsSizeAndMode) {
  Capture::Descriptor errors(2);
  SysUtil::MountRamdisk();
  struct statvfs space {};
  struct stat root {};
  ASSERT_EQ(statvfs("/mnt/ramdisk", &space), 0);
  ASSERT_EQ(stat("/mnt/ramdisk", &root), 0);

  EXPECT_EQ(space.f_blocks * space.f_frsize, 192U << 20U);
  EXPECT_EQ(root.st_mode & 07777U, 01777U);
  EXPECT_THAT(MountsOn("/mnt/ramdisk"),
              ElementsAre(StartsWith("tmpfs /mnt/ramdisk tmpfs rw,nosuid,nodev,noatime")));
}

}  // namespace
