// What a technician sees of each problem in the field: the rows of docs/field.md that need no real
// card. The others are in the card ring, under the same name.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "tests/machine/Machine.h"
#include "tests/support/CounterFile.h"
#include "tests/support/FakeDevice.h"
#include "tests/support/ToolRun.h"

namespace {

using Quellon::Tool::Fine;
using Quellon::Tool::Wrong;

class Technician : public testing::Test {
 protected:
  /// The command says that this is wrong.
  static void ExpectWrong(Quellon::Tool::Arguments const& command, std::string const& what,
                          std::string const& remedy) {
    ToolRun const run(command);
    EXPECT_EQ(run.status, Wrong) << run.output;
    EXPECT_TRUE(run.Shows("wrong", what)) << run.output;
    EXPECT_TRUE(run.Shows("to do", remedy)) << run.output;
  }

  FakeDevice device;
};

TEST_F(Technician, FindsNothingWrongWithAGoodDevice) {
  for (char const* command :
       {"health", "card", "catalogue", "watchdog", "clock", "counter", "log"}) {
    ToolRun const run({command});
    EXPECT_EQ(run.status, Fine) << command << "\n" << run.output;
    EXPECT_EQ(run.output.find("wrong"), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find("not read"), std::string::npos) << run.output;
  }
}

TEST_F(Technician, FindsNoCard) {
  Machine::RemoveFile("/sys/block/mmcblk1");
  FakeDevice::Mount("tmpfs /tmp tmpfs rw");
  ExpectWrong({"card"}, "no card in the slot", "put one in; if there is one, clean it");
}

TEST_F(Technician, FindsACardThatWasPulled) {
  Machine::RemoveFile("/sys/block/mmcblk1");
  ExpectWrong({"card"}, "the card was pulled while it was mounted", "restart the service");
}

// The old one stays mounted, and the new one has nodes of the same names.
TEST_F(Technician, FindsAnotherCardInTheSlotThanIsMounted) {
  auto const stat = Machine::hooks().stat;
  Machine::hooks().stat = [stat](std::string const& path, struct stat* status) {
    auto const answer = stat(path, status);
    if (path == "/dev/mmcblk1p1") status->st_rdev = makedev(179, 99);
    return answer;
  };
  ExpectWrong({"card"}, "the card was pulled while it was mounted, and another put in",
              "restart the service");
  ToolRun const run({"health", "--prometheus"});
  EXPECT_THAT(run.output, testing::HasSubstr("quellon_card_state 3\n"));
}

TEST_F(Technician, FindsAWriteProtectedCard) {
  FakeCard::SetProperty("ro", "1\n");
  FakeDevice::Mount("tmpfs /tmp tmpfs rw");
  ExpectWrong({"card"}, "the card is write-protected",
              "release its switch; without one it is worn out: replace it");
}

// What is read of the card is nothing but zeros.
TEST_F(Technician, FindsACardThatHoldsLessThanItSays) {
  FakeDevice::StopService();
  Machine::RemoveFile("/mnt/sdcard/cr");
  device.card.space.f_blocks = 4096;
  device.card.space.f_bfree = 4096;
  Machine::hooks().read = [](int fd, void* data, std::size_t size) -> std::optional<ssize_t> {
    if (size <= 4096) return std::nullopt;  // of the kernel's small files
    std::memset(data, 0, size);
    lseek(fd, static_cast<off_t>(size), SEEK_CUR);
    return static_cast<ssize_t>(size);
  };
  ExpectWrong({"card", "prove"}, "the card does not hold what was written",
              "replace the card: it holds less than it says, or is worn out");
}

TEST_F(Technician, FindsACardFullOfProtectedFiles) {
  device.card.space.f_blocks = 20;
  device.card.space.f_frsize = 1;
  Machine::MakeFile("/mnt/sdcard/cr/trace.log", std::string(11, 'x'));
  ExpectWrong({"catalogue"}, "protected files fill the card: they are never deleted by age",
              "copy *.log and *.gps elsewhere and delete them");
}

TEST_F(Technician, FindsACardThatFails) {
  Machine::MakeFile("/sys/fs/ext4/mmcblk1p1/errors_count", "3\n");
  ExpectWrong({"card"}, "the file system has met errors",
              "save the recordings; quellon card check --repair; if it comes again, replace the "
              "card");
}

TEST_F(Technician, FindsThatTheRestartsAreUsedUp) {
  Machine::MakeFile(CounterFile::kPath, CounterFile::Text(3));
  ExpectWrong({"counter"}, "the restarts for a failing card are used up",
              "put in a good card, quellon counter --clear, restart the service");
}

TEST_F(Technician, FindsThatTheClockWasReset) {
  Machine::hooks().now = 30;
  ExpectWrong({"clock"}, "the system clock is reset",
              "quellon clock --set 'YEAR-MONTH-DAY HOUR:MINUTE:SECOND'");
}

TEST_F(Technician, FindsThatNothingGuardsTheBoard) {
  FakeDevice::SetWatchdog("state", "inactive");
  ExpectWrong({"watchdog"}, "nothing guards the board: the watchdog is not armed",
              "start the service");
}

TEST_F(Technician, FindsAWatchdogThatIsStoppedByClose) {
  FakeDevice::SetWatchdog("options", "0x8080");
  ExpectWrong({"watchdog"}, "the end of the service stops the watchdog",
              "load its driver with nowayout=1");
}

TEST_F(Technician, FindsThatTheWatchdogHasRestartedTheBoard) {
  FakeDevice::SetWatchdog("bootstatus", "32");
  ExpectWrong({"watchdog"}, "the watchdog has restarted the board",
              "quellon log: what the service did before");
}

TEST_F(Technician, FindsRecordingsOutOfOrder) {
  FakeDevice::Record("rec_000004", FakeDevice::kNow - 9000);
  ExpectWrong({"catalogue"}, "the times of recordings go back at rec_000004.dat",
              "quellon clock; the oldest by time is deleted first, whatever its name");
}

TEST_F(Technician, FindsWhereRecordingsAreMissing) {
  FakeDevice::Record("rec_000004", FakeDevice::kNow + 3600);
  ToolRun const run({"catalogue"});
  EXPECT_TRUE(run.Shows("longest pause", "2 h 0 min, before rec_000004.dat")) << run.output;
}

TEST_F(Technician, FindsForHowLongRecordingsAreKept) {
  ToolRun const run({"catalogue"});
  EXPECT_TRUE(run.Shows("kept", "2 h 0 min")) << run.output;
}

TEST_F(Technician, FindsThatNobodyWritesTheLog) {
  FakeDevice::StopService();
  ExpectWrong({"log"}, "nobody writes the log",
              "start the service; if it runs, see whether /var/log is full or read-only");
}

TEST_F(Technician, FindsWhoUsesTheCard) {
  FakeDevice::Start("99", "less", "");
  FakeDevice::Open("99", 3, "/mnt/sdcard/cr/rec_000001.dat");
  ToolRun const run({"card"});
  EXPECT_THAT(run.output, testing::HasSubstr("less (99)"));
  EXPECT_THAT(run.output, testing::HasSubstr("quellon-recorder (812, quellon-recorder.service)"));
}

}  // namespace
