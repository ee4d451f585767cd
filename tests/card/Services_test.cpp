// The bench driver and the process and memory utilities, against a real kernel.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <fstream>

#include "SysUtil/Util.h"
#include "tests/card/CardFixture.h"
#include "tests/support/Capture.h"

namespace CardTests {
namespace {

namespace fs = std::filesystem;
namespace SysUtil = Quellon::SysUtil;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

class ServicesTest : public CardTest {};

/// The lines of the mount table for the RAM disk.
std::vector<std::string> RamdiskMounts() {
  std::vector<std::string> found;
  std::ifstream mounts("/proc/mounts");
  for (std::string line; std::getline(mounts, line);)
    if (line.find(" /mnt/ramdisk ") != std::string::npos) found.push_back(line);
  return found;
}

}  // namespace

TEST_F(ServicesTest, BenchDriverListsTheCardsRecordingsOldestFirst) {
  card.Edit([](fs::path const& root) {
    WriteRecording(root / "cr/b.dat", 10, 2000);
    WriteRecording(root / "cr/c.log", 10, 3000);
    WriteRecording(root / "cr/a.dat", 10, 1000);
  });
  card.Insert();
  Capture::Descriptor errors(2);
  ProgramResult const bench = RunProgram(std::string(BENCH_DRIVER) + " these are ignored");

  EXPECT_EQ(bench.exitCode, 0);
  auto const line = [](std::string const& text) {
    return R"(\[....-..-.. ..:..:..\]\[SYSTEM\])" + text + "\n";
  };
  EXPECT_THAT(bench.output,
              MatchesRegex("Disk /mnt/sdcard/ free sapce 54MB from 54MB\n" +
                           line(" Min free space after correction [0-9]+B fraction 0.8") +
                           line(" Allocated disk space [0-9.]+MB") + line(R"(\[a.dat\])") +
                           line(R"(\[b.dat\])") + line(R"(\[c.log\])")));
  EXPECT_THAT(TextOf("/var/log/quellon.log"),
              EndsWith(bench.output.substr(bench.output.find('\n') + 1)));
}

TEST_F(ServicesTest, RamdiskIsFreshAndEmptyEachTime) {
  Capture::Descriptor errors(2);
  Capture::Descriptor output(1);
  SysUtil::MountRamdisk();
  ASSERT_TRUE(IsMounted("/mnt/ramdisk"));
  std::ofstream("/mnt/ramdisk/file") << "gone after the next mount";
  SysUtil::MountRamdisk();

  EXPECT_EQ(RamdiskMounts().size(), 1U);
  EXPECT_TRUE(fs::is_empty("/mnt/ramdisk"));
  EXPECT_EQ(output.Text(), "");
}

TEST_F(ServicesTest, RamdiskHasItsSizeAndMode) {
  Capture::Descriptor errors(2);
  SysUtil::MountRamdisk();
  struct statvfs space {};
  struct stat root {};
  ASSERT_EQ(statvfs("/mnt/ramdisk", &space), 0);
  ASSERT_EQ(stat("/mnt/ramdisk", &root), 0);

  EXPECT_EQ(space.f_blocks * space.f_frsize, 192U << 20U);
  EXPECT_EQ(root.st_mode & 07777U, 01777U);
  EXPECT_THAT(RamdiskMounts(),
              ElementsAre(StartsWith("tmpfs /mnt/ramdisk tmpfs rw,nosuid,nodev,noatime")));
}

}  // namespace CardTests
