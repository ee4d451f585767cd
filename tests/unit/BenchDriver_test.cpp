// The bench driver that the library exports, and the program that is nothing else.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/rtc.h>
#include <spawn.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "DiskUtils/Disk.h"
#include "Testing/main.h"
#include "tests/machine/Machine.h"
#include "tests/machine/TheReal.h"
#include "tests/support/Capture.h"
#include "tests/support/CatalogueTest.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LogFile.h"
#include "tests/support/Scoped.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Machine::Answer;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr long kNow = 1614877509;
constexpr long kDay = 86400;

/// The `main` of the library, which this program's own one hides.
int LibraryMain() {
  return TheReal<int()>("main")();
}

void MakeRecording(std::string const& name, std::time_t time) {
  CatalogueTest::MakeRecording(name, 0, time);
}

/// A mounted card of 1 GiB with all of it free. Nothing else may ask stat(2) from here on.
void InsertCard() {
  Machine::MakeFile("/dev/mmcblk1", "");
  Machine::MakeFile("/dev/mmcblk1p1", "");
  Machine::hooks().stat = [](std::string const& path, struct stat* status) {
    status->st_dev = path.ends_with("..") ? 1 : 2;
    return Answer::Success();
  };
  Machine::hooks().statvfs = [](std::string const&, struct statvfs* space) {
    space->f_frsize = 4096;
    space->f_blocks = space->f_bfree = 1 << 18;
    return Answer::Success();
  };
}

TEST(BenchDriver, WithoutACardSaysSoAndReturnsZero) {
  std::string const output = Capture::Output([] { EXPECT_EQ(LibraryMain(), 0); });
  EXPECT_EQ(output, "Disk exception Disk not found\n");
  EXPECT_THAT(Machine::Trace(), IsEmpty());
}

TEST(BenchDriver, LoadsSortsAndLogsTheRecordingsOfTheCard) {
  MakeRecording("rec_0002.dat", 20);
  MakeRecording("rec_0003.gps", 30);
  MakeRecording("rec_0001.dat", 10);
  InsertCard();
  std::string const output = Capture::Output([] { EXPECT_EQ(LibraryMain(), 0); });
  Machine::hooks().stat = nullptr;
  using LogFile::kHeader;
  EXPECT_THAT(
      output,
      MatchesRegex(".*\nDisk /mnt/sdcard/ free sapce 1024MB from 1024MB\n" + kHeader +
                   "\\[SYSTEM\\] Min free space after correction 181462368B fraction 0\\.8\n" +
                   kHeader + "\\[SYSTEM\\] Allocated disk space 819\\.2MB\n" + kHeader +
                   "\\[SYSTEM\\]\\[rec_0001\\.dat\\]\n" + kHeader +
                   "\\[SYSTEM\\]\\[rec_0002\\.dat\\]\n" + kHeader +
                   "\\[SYSTEM\\]\\[rec_0003\\.gps\\]\n"));
  EXPECT_THAT(Machine::Trace(), SizeIs(5));
  EXPECT_THAT(Machine::Trace(), Each(Machine::Sleep(1ms)));
}

TEST(BenchDriver, StartsNoThreadAndDeletesNothing) {
  MakeRecording("rec_0001.dat", 10);
  InsertCard();
  auto const threads = [] {
    auto const tasks = fs::directory_iterator("/proc/self/task");
    return std::distance(begin(tasks), end(tasks));
  };
  auto const before = threads();
  Capture::Output([] { FilesManagerTest(); });
  Machine::hooks().stat = nullptr;
  EXPECT_EQ(threads(), before);
  EXPECT_TRUE(fs::exists(Machine::Real("/mnt/sdcard/cr/rec_0001.dat")));
}

TEST(BenchDriver, LeavesItsCardAndItsCatalogueToTheEndOfTheProcess) {
  MakeRecording("rec_0001.dat", 10);
  InsertCard();
  Machine::DeleteLiveFiles();
  int const destroyed = Machine::DestroyedDisks();
  Capture::Output([] { FilesManagerTest(); });
  EXPECT_EQ(Machine::LiveFiles().size(), 1U) << "a catalogue that goes deletes its objects";
  EXPECT_EQ(Machine::DestroyedDisks(), destroyed);
  Machine::DeleteLiveFiles();
}

class BenchDriverClock : public testing::Test {
 protected:
  BenchDriverClock() { Machine::hooks().now = kNow; }

  /// A clock that stands at the start of 2020; what it is asked and set to is kept.
  void FitClock() {
    Machine::MakeFile("/dev/rtc0", "");
    Machine::hooks().ioctl = [this](unsigned long request, void* argument) {
      auto& time = *static_cast<rtc_time*>(argument);
      requests.push_back(request);
      if (request == RTC_RD_TIME) {
        time = {0, 0, 0, 1, 0, 120, 3, 0, 0};
      } else {
        tm calendar{};
        calendar.tm_year = time.tm_year;
        calendar.tm_mon = time.tm_mon;
        calendar.tm_mday = time.tm_mday;
        calendar.tm_hour = time.tm_hour;
        calendar.tm_min = time.tm_min;
        calendar.tm_sec = time.tm_sec;
        written.push_back(static_cast<long>(timegm(&calendar)));
      }
      return Answer::Success();
    };
  }

  Scoped::AtEnd const zone = Scoped::TimeZone("UTC");
  std::vector<unsigned long> requests;
  std::vector<long> written;
};

TEST_F(BenchDriverClock, PrintsMovesAndRestoresTheClock) {
  FitClock();
  Machine::hooks().setClock = [](long) { return Answer::Success(); };
  EXPECT_EQ(Capture::Output([] { TestRtc(); }),
            "RTC: 1/1/2020 00:00:00\nSystem: 3/4/2021 17:05:09\n"
            "RTC: 3/3/2021 17:05:09\nSystem: 3/4/2021 17:05:09\n"
            "RTC: 3/4/2021 17:05:09\nSystem: 3/4/2021 17:05:09\n");
  EXPECT_THAT(requests, ElementsAre(RTC_RD_TIME, RTC_SET_TIME, RTC_SET_TIME));
  EXPECT_THAT(written, ElementsAre(kNow - kDay, kNow));
  EXPECT_THAT(Machine::Trace(),
              ElementsAre("clock " + std::to_string(kNow - kDay), "clock " + std::to_string(kNow)));
}

TEST_F(BenchDriverClock, RestoresTheInstantItBeganAt) {
  FitClock();
  Machine::hooks().setClock = [](long seconds) {
    Machine::hooks().now = seconds + 5;  // time goes on
    return Answer::Success();
  };
  Capture::Output([] { TestRtc(); });
  EXPECT_THAT(written, ElementsAre(kNow - kDay, kNow));
}

TEST_F(BenchDriverClock, GoesOnWhenNothingCanBeSet) {
  FitClock();
  Capture::Output([] { TestRtc(); });
  EXPECT_THAT(written, ElementsAre(kNow - kDay, kNow));
}

TEST_F(BenchDriverClock, PrintsThreeTimesWithoutAClock) {
  EXPECT_THAT(Capture::Output([] { TestRtc(); }),
              MatchesRegex("(RTC: [^\n]*\nSystem: 3/4/2021 17:05:09\n){3}"));
  EXPECT_THAT(Machine::Trace(), IsEmpty());
}

// The program runs for itself, with nothing interposed, so only a machine without such a card may.
TEST(BenchDriverProgram, RunsTheLibrarysMainAndIgnoresItsArguments) {
#ifdef BENCH_DRIVER
  if (faccessat(AT_FDCWD, "/dev/mmcblk1", F_OK, 0) == 0) GTEST_SKIP() << "there is a real card";
  int status = -1;
  std::string const output = Capture::Output([&status] {
    std::string program = BENCH_DRIVER;
    std::string argument = "--help";
    char* const arguments[] = {program.data(), argument.data(), nullptr};
    pid_t child = 0;
    ASSERT_EQ(posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments, environ), 0);
    status = ChildProcess::Wait(child);
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(output, "Disk exception Disk not found\n");
#else
  GTEST_SKIP() << "built without the examples, or for another machine";
#endif
}

}  // namespace
