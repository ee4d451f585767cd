// What holds only where `long`, `time_t` and `off_t` are 32 bits wide, as on the board.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <limits>
#include <string>

#include "DiskUtils/System.h"
#include "base/Date.h"
#include "base/UniqueFd.h"
#include "tests/support/CatalogueTest.h"
#include "tests/support/LogFile.h"
#include "tests/support/Scoped.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;

static_assert(sizeof(long) == 4 && sizeof(time_t) == 4 && sizeof(off_t) == 4);

constexpr std::uint64_t kTwoGiB = 1ULL << 31;
constexpr long kLastSecond = std::numeric_limits<long>::max();
constexpr char const* kFormat = "%Y-%m-%d %H:%M:%S";

class ThirtyTwoBit : public CatalogueTest {
 protected:
  /// Makes a file that occupies nothing, whatever its size.
  static std::string MakeHuge(std::string const& name, std::uint64_t size) {
    MakeRecording(name);
    Tarvik::UniqueFd const file(open64(Where(name).c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(ftruncate64(file.Get(), static_cast<off64_t>(size)), 0);
    return kDirectory + name;
  }

  static bool Exists(std::string const& name) { return access(Where(name).c_str(), F_OK) == 0; }

  Scoped::AtEnd const zone = Scoped::TimeZone("UTC");
  std::unique_ptr<FilesManager> const catalogue = NewCatalogue();
};

TEST_F(ThirtyTwoBit, AFileOfTwoGiBIsNeitherDescribedNorRemovedForItsSize) {
  std::string path = MakeHuge("huge.dat", kTwoGiB);
  Ifile file(path, false);
  EXPECT_TRUE(file.FileExists());
  EXPECT_FALSE(file.Stat());
  EXPECT_EQ(errno, EOVERFLOW);
  EXPECT_EQ(file.size, 0);
  EXPECT_FALSE(file.RemoveIfBiggerThan(1));
  Ifile::RemoveIfBiggerThan(path, 1);
  EXPECT_TRUE(Exists("huge.dat"));
}

TEST_F(ThirtyTwoBit, AFileOneByteSmallerIsDescribedAndRemoved) {
  std::string path = MakeHuge("large.dat", kTwoGiB - 1);
  Ifile file(path, false);
  EXPECT_TRUE(file.Stat());
  EXPECT_EQ(file.size, 2147483647);
  EXPECT_TRUE(file.RemoveIfBiggerThan(kTwoGiB));
  EXPECT_TRUE(Exists("large.dat"));
  EXPECT_TRUE(file.RemoveIfBiggerThan(kTwoGiB - 1));
  EXPECT_FALSE(Exists("large.dat"));
}

TEST_F(ThirtyTwoBit, AFileOfTwoGiBIsBroughtToTheCard) {
  std::string path = MakeHuge("huge.dat", kTwoGiB);
  Ifile file(path, true);
  ASSERT_TRUE(file.stream->is_open());
  EXPECT_TRUE(file.Sync());
}

TEST_F(ThirtyTwoBit, ACatalogueKnowsNoFileOfTwoGiBAndAddsUpTheOthersIn64Bits) {
  MakeHuge("huge.dat", kTwoGiB);
  for (std::string const name : {"a", "b", "c"}) MakeHuge(name + ".dat", kTwoGiB - 1);
  EXPECT_TRUE(catalogue->LoadAndSort());
  EXPECT_THAT(Names(*catalogue), testing::UnorderedElementsAre("a.dat", "b.dat", "c.dat"));
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 3 * (kTwoGiB - 1));
  EXPECT_EQ(catalogue->GetTotalFilesSize(true), 3 * (kTwoGiB - 1));
  std::string huge = "huge.dat";
  EXPECT_FALSE(catalogue->AddFile(huge));
  EXPECT_EQ(catalogue->GetError(), "File not found");
  EXPECT_FALSE(catalogue->RemoveFileByName(huge));
  EXPECT_EQ(catalogue->RemoveAllFiles(), 3U);
  EXPECT_EQ(catalogue->GetTotalFilesSize(true), 0U);
  EXPECT_THAT(OnCard(), ElementsAre("huge.dat"));
}

TEST_F(ThirtyTwoBit, TimesToTheLastSecondAreKnownAndSorted) {
  MakeRecording("last.dat", 0, kLastSecond);
  MakeRecording("first.dat", 0, std::numeric_limits<long>::min());
  EXPECT_TRUE(catalogue->LoadAndSort());
  EXPECT_THAT(Names(*catalogue), ElementsAre("first.dat", "last.dat"));
  EXPECT_EQ(catalogue->GetList().back()->time, kLastSecond);
}

TEST_F(ThirtyTwoBit, AFileOfALaterTimeIsNotDescribed) {
  MakeRecording("later.dat");
  std::array<std::int64_t, 4> const times{kLastSecond + 1LL, 0, kLastSecond + 1LL, 0};
  if (syscall(SYS_utimensat_time64, AT_FDCWD, Where("later.dat").c_str(), times.data(), 0) != 0) {
    GTEST_SKIP() << "no such times here";
  }
  std::string path = std::string(kDirectory) + "later.dat";
  EXPECT_FALSE(Ifile(path, false).Stat());
  EXPECT_TRUE(catalogue->Load());
  EXPECT_THAT(Names(*catalogue), testing::IsEmpty());
}

TEST_F(ThirtyTwoBit, ANameWithoutADotIsComplainedOfWithTheLargestPosition) {
  MakeRecording("README");
  EXPECT_EQ(Capture::Output([this] { EXPECT_TRUE(catalogue->Load()); }),
            "basic_string::substr: __pos (which is 4294967295) > this->size() (which is 6)\n");
}

TEST_F(ThirtyTwoBit, DatesReachFromTheFirstSecondToTheLast) {
  EXPECT_EQ(Tarvik::Util::Date(std::numeric_limits<long>::min(), kFormat), "1901-12-13 20:45:52");
  EXPECT_EQ(Tarvik::Util::Date(-1, kFormat), "1969-12-31 23:59:59");
  EXPECT_EQ(Tarvik::Util::Date(kLastSecond, kFormat), "2038-01-19 03:14:07");
}

TEST_F(ThirtyTwoBit, ATimeInTheLogIsADateAndASizeANumber) {
  LogFile::BeginAnew();
  LogFile::Enable(true, false);
  std::string path = std::string(kDirectory) + "a.gps";
  Ifile file(path, false);
  file.size = 5'000'000'000;
  file.time = std::numeric_limits<time_t>::max();
  file.PrintStat();
  auto const lines = LogFile::SplitLines(LogFile::Text());
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_THAT(lines[3], EndsWith("]Size: 5000000000"));
  EXPECT_THAT(lines[4], EndsWith("]Time: 2038-01-19 03:14:07"));
}

TEST_F(ThirtyTwoBit, ACardIsMeasuredIn64Bits) {
  Machine::hooks().statvfs = [](std::string const&, struct statvfs* space) {
    space->f_frsize = 65536;
    space->f_blocks = std::numeric_limits<fsblkcnt_t>::max();
    space->f_bfree = std::numeric_limits<fsblkcnt_t>::max() - 1;
    return Machine::Answer::Success();
  };
  card.LoadDiskInfo();
  EXPECT_EQ(card.totalBytes, 4294967295LL * 65536);
  EXPECT_EQ(card.freeBytes, 4294967294LL * 65536);
}

TEST_F(ThirtyTwoBit, NumbersOfSysfsAre64BitsWide) {
  EXPECT_EQ(Disk::StringToULong("4294967296"), 4294967296ULL);
  EXPECT_EQ(Disk::StringToULong("-1"), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(Disk::ULongToString(18446744073709551615ULL), "18446744073709551615");
  Machine::MakeFile("/sys/class/block/mmcblk1/size", "4294967296\n");
  EXPECT_EQ(Disk::getSDCardTotalSize("mmcblk1"), 1ULL << 41);
}

TEST_F(ThirtyTwoBit, TheClockIsSetToTheLastSecond) {
  Machine::hooks().setClock = [](long) { return Machine::Answer::Success(); };
  Capture::Output([] {
    Quellon::System system;
    long seconds = kLastSecond;
    EXPECT_TRUE(system.SetDate(seconds));
  });
  EXPECT_THAT(Machine::Traced("clock"), ElementsAre("clock 2147483647"));
}

}  // namespace
