// What holds where times and file sizes have 64 bits although `long` has 32.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <limits>
#include <string>
#include <vector>

#include "DiskUtils/System.h"
#include "RTC/ClockFloor.h"
#include "RTC/Rtc.h"
#include "base/Date.h"
#include "base/UniqueFd.h"
#include "tests/support/CatalogueTest.h"
#include "tests/support/LogFile.h"
#include "tests/support/Scoped.h"

namespace {

using testing::ElementsAre;

static_assert(sizeof(long) == 4 && sizeof(time_t) == 8 && sizeof(off_t) == 8);

constexpr std::uint64_t kGiB = 1ULL << 30;
constexpr std::int64_t kLastOf32Bits = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kIn2060 = 2'840'140'800;
constexpr char const* kFormat = "%Y-%m-%d %H:%M:%S";

class WideTimes : public CatalogueTest {
 protected:
  /// Makes a file that occupies nothing, whatever its size.
  static std::string MakeHuge(std::string const& name, std::uint64_t size) {
    MakeRecording(name);
    Tarvik::UniqueFd const file(open(Where(name).c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(ftruncate(file.Get(), static_cast<off_t>(size)), 0);
    return kDirectory + name;
  }

  /// Sets the time of a file's content as the kernel knows it.
  static void SetTime(std::string const& name, std::int64_t seconds) {
    std::array<std::int64_t, 4> const times{seconds, 0, seconds, 0};
    ASSERT_EQ(syscall(SYS_utimensat_time64, AT_FDCWD, Where(name).c_str(), times.data(), 0), 0);
  }

  static void LetClockBeSet() {
    Machine::hooks().setClock = [](std::int64_t) { return Machine::Answer::Success(); };
  }

  Scoped::AtEnd const zone = Scoped::TimeZone("UTC");
  std::unique_ptr<FilesManager> const catalogue = NewCatalogue();
};

TEST_F(WideTimes, AFileOf3GiBIsDescribedCataloguedCountedAndDeleted) {
  std::string path = MakeHuge("huge.dat", 3 * kGiB);
  Ifile file(path, false);
  EXPECT_TRUE(file.Stat());
  EXPECT_EQ(file.size, 3'221'225'472);
  MakeHuge("small.dat", 7);
  EXPECT_TRUE(catalogue->LoadAndSort());
  EXPECT_THAT(Names(*catalogue), testing::UnorderedElementsAre("huge.dat", "small.dat"));
  EXPECT_EQ(catalogue->GetTotalFilesSize(true), 3 * kGiB + 7);
  std::string name = "huge.dat";
  EXPECT_TRUE(catalogue->RemoveFileByName(name));
  EXPECT_THAT(OnCard(), ElementsAre("small.dat"));
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 7U);
}

TEST_F(WideTimes, AFileOf3GiBIsAddedWhenItIsComplete) {
  MakeHuge("huge.dat", 3 * kGiB);
  EXPECT_TRUE(catalogue->Load());
  catalogue->RemoveAllFiles();
  MakeHuge("new.dat", 3 * kGiB);
  std::string name = "new.dat";
  EXPECT_TRUE(catalogue->AddFile(name));
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 3 * kGiB);
}

TEST_F(WideTimes, AFileOf3GiBIsRemovedForItsSize) {
  std::string path = MakeHuge("huge.dat", 3 * kGiB);
  Ifile file(path, false);
  EXPECT_TRUE(file.RemoveIfBiggerThan(3 * kGiB + 1));
  EXPECT_THAT(OnCard(), ElementsAre("huge.dat"));
  EXPECT_TRUE(file.RemoveIfBiggerThan(3 * kGiB));
  EXPECT_THAT(OnCard(), testing::IsEmpty());
}

TEST_F(WideTimes, AStreamWritesBeyond2GiB) {
  std::string path = MakeHuge("huge.dat", 3 * kGiB);
  Ifile file(path, false);
  ASSERT_TRUE(file.Open(true));
  ASSERT_TRUE(file.stream->seekp(0, std::ios::end));
  std::string text = "the end";
  file.Write(text.data(), static_cast<unsigned>(text.size()));
  EXPECT_TRUE(file.Sync());
  EXPECT_TRUE(file.Stat());
  EXPECT_EQ(file.size, static_cast<long long>(3 * kGiB + text.size()));
}

TEST_F(WideTimes, RecordingsAreSortedAndReclaimedAcrossTheLastSecondOf32Bits) {
  for (std::string const name : {"after.dat", "before.dat", "much_later.dat"}) MakeRecording(name);
  SetTime("before.dat", kLastOf32Bits);
  SetTime("after.dat", kLastOf32Bits + 1);
  SetTime("much_later.dat", kIn2060);
  EXPECT_TRUE(catalogue->LoadAndSort());
  EXPECT_THAT(Names(*catalogue), ElementsAre("before.dat", "after.dat", "much_later.dat"));
  EXPECT_EQ(catalogue->GetList().back()->time, kIn2060);
}

TEST_F(WideTimes, DatesGoOnAfterTheLastSecondOf32Bits) {
  EXPECT_EQ(Tarvik::Util::Date(kLastOf32Bits + 1, kFormat), "2038-01-19 03:14:08");
  EXPECT_EQ(Tarvik::Util::Date(kIn2060, kFormat), "2060-01-01 00:00:00");
  EXPECT_EQ(Tarvik::Util::Date(86400L, kFormat), "1970-01-02 00:00:00");
  Machine::hooks().now = kIn2060;
  EXPECT_EQ(Tarvik::Util::NewDate(kFormat), "2060-01-01 00:00:00");
}

// What a `long` takes on narrow boards compiles here, too.
TEST_F(WideTimes, DatesAreToldOfNumbersOfAnyType) {
  enum Day { kSecond = 86400 };
  auto const dates = [](auto const&... times) {
    return std::vector{Tarvik::Util::Date(times, "%F")...};
  };
  EXPECT_THAT(dates(86400, 86400U, 86400L, 86400UL, 86400LL, 86400ULL, 86400.5, std::size_t{86400},
                    kSecond, std::atomic<long>(86400), std::chrono::seconds(86400).count()),
              testing::Each("1970-01-02"));
  EXPECT_THAT(dates(short{1}, char{1}, true), testing::Each("1970-01-01"));
  EXPECT_EQ(Tarvik::Util::Date(4'000'000'000U, kFormat), "2096-10-02 07:06:40");
}

TEST_F(WideTimes, TheLogTellsTheTimeOfALineAndOfAFile) {
  LogFile::BeginAnew();
  LogFile::Enable(true, false);
  Machine::hooks().now = kIn2060 + 1;
  std::string path = std::string(kDirectory) + "a.gps";
  Ifile file(path, false);
  file.size = 5'000'000'000;
  file.time = kIn2060;
  file.PrintStat();
  auto const lines = LogFile::SplitLines(LogFile::Text());
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_EQ(lines[3], "[2060-01-01 00:00:01]Size: 5000000000");
  EXPECT_EQ(lines[4], "[2060-01-01 00:00:01]Time: 2060-01-01 00:00:00");
}

TEST_F(WideTimes, ClocksAreSetBeyondTheLastSecondOf32Bits) {
  LetClockBeSet();
  Machine::MakeFile("/dev/rtc0", "");
  rtc_time set{};
  Machine::hooks().ioctl = [&set](unsigned long request, void* argument) {
    if (request == RTC_SET_TIME) set = *static_cast<rtc_time*>(argument);
    return Machine::Answer::Success();
  };
  Capture::Output([] {
    Quellon::System system;
    std::int64_t seconds = kIn2060;
    EXPECT_TRUE(system.SetDate(seconds));
    EXPECT_TRUE(system.SetRTC(seconds));
    long shorter = 86400;
    EXPECT_TRUE(system.SetDate(shorter));
    EXPECT_TRUE(system.SetRTC(shorter));
  });
  EXPECT_THAT(Machine::Traced("clock"),
              ElementsAre("clock 2840140800", "clock 2840140800", "clock 2840140800", "clock 86400",
                          "clock 86400", "clock 86400"));
  EXPECT_EQ(set.tm_year, 70);
}

TEST_F(WideTimes, AClockThatReads2060SetsTheSystemClock) {
  LetClockBeSet();
  Quellon::RTC::Rtc clock("/dev/rtc0");
  clock.rtcTime = {};
  clock.rtcTime.tm_year = 160;
  clock.rtcTime.tm_mday = 1;
  EXPECT_TRUE(clock.SetSystemClock());
  EXPECT_THAT(Machine::Traced("clock"), ElementsAre("clock 2840140800"));
}

TEST_F(WideTimes, AFloorOfTheClockIsBelievedBeyondTheLastSecondOf32Bits) {
  LetClockBeSet();
  MakeRecording("later.dat");
  SetTime("later.dat", kLastOf32Bits + 1000);
  Machine::hooks().now = kLastOf32Bits;
  Quellon::RTC::ClockFloor floor("/root/clock.dat", kLastOf32Bits - 86400);
  auto const outcome = floor.Apply(kDirectory);
  EXPECT_EQ(outcome.result, Quellon::RTC::ClockFloor::Result::Raised);
  EXPECT_GT(outcome.to, kLastOf32Bits);
}

}  // namespace
