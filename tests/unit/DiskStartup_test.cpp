#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "DiskUtils/System.h"
#include "tests/machine/Allocation.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CardText.h"
#include "tests/support/CounterFile.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FakeCard.h"
#include "tests/support/OwnedSystem.h"

namespace {

using namespace std::chrono_literals;
using CardText::kNoCard;
using Machine::hooks;
using Machine::MakeFile;
using Machine::ReadFile;
using Machine::Sleep;
using Machine::Trace;
using Quellon::DiskUtils::Disk;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string const kRefusal =
    "Disk exception Disk not found\n"
    "Exception disk (0): The device is not available\n";
std::string Found(std::string const& number, std::string const& end = "") {
  return "Found SD card status counter " + number + " on file" + end + "\n";
}
std::string PassedLimit(std::string const& number) {
  return Found(number, ", passed limit");
}

class DiskStartup : public testing::Test {
 protected:
  DiskStartup() {
    hooks().reboot = [](int) { return Machine::Answer::Failure(EPERM); };
  }

  /// Starts up; what that prints.
  std::string Start() {
    return Capture::Output([this] { result = system->InitDisk(); });
  }

  static void StoreCounter(std::string const& number) {
    MakeFile(CounterFile::kPath, CounterFile::Text(number));
  }
  static void RemoveCard() { Machine::RemoveFile("/dev/mmcblk1"); }

  void ExpectNoReboot() {
    EXPECT_THAT(Machine::Traced("reboot"), IsEmpty());
    EXPECT_THAT(Machine::Traced("system reboot"), IsEmpty());
  }
  void ExpectNoReport() { EXPECT_EQ(system->GetHealthReport(), "{}"); }
  void ExpectState(int code) {
    EXPECT_THAT(system->GetHealthReport(), HasSubstr("\"zr\":" + std::to_string(code)));
  }

  FakeCard card;
  std::unique_ptr<OwnedSystem> const system = NewSystem();
  Disk* result = nullptr;
};

TEST_F(DiskStartup, BringsAGoodCardIntoService) {
  Descriptors::Watch const descriptors;
  std::string const output = Start();
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result, system->disk);
  EXPECT_TRUE(result->available);
  EXPECT_EQ(result->mountPoint, "/mnt/sdcard/");
  EXPECT_EQ(result->devicePath, "/dev/mmcblk1p1");
  EXPECT_EQ(result->blockDevice, "mmcblk1");
  EXPECT_FALSE(system->diskFault);
  ExpectState(0);
  EXPECT_EQ(output,
            "Disk /mnt/sdcard/ free sapce 3906MB from 11718MB\n" + CardText::kChecked +
                CardText::kTitle +
                " size [15931539456] B\n usable size [12288000000] B \n writen [734003] kB\n"
                " read only [0]\n fcsk status [0]\n cid [275048534433324760e0e7f40f012a01]\n" +
                CardText::kRule);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(DiskStartup, WaitsASecondAfterTheScan) {
  Start();
  EXPECT_THAT(Trace(), ElementsAre("sync", CardText::kUmount, CardText::kFsck, CardText::kMount,
                                   "unlink /mnt/sdcard/check.tmp", Sleep(1s)));
}

TEST_F(DiskStartup, TakesTheFaultBackBeforeItsPauseAndReportsAfterIt) {
  int pauses = 0;
  hooks().sleep = [&](auto) {
    ++pauses;
    EXPECT_FALSE(system->diskFault);
    ExpectNoReport();
  };
  EXPECT_THAT(Start(), testing::EndsWith(CardText::kRule));
  EXPECT_EQ(pauses, 1);
  ExpectState(0);
}

TEST_F(DiskStartup, LeavesTheCounterAsItWasAfterAGoodStart) {
  StoreCounter("2");
  Start();
  EXPECT_EQ(ReadFile(CounterFile::kPath), CounterFile::Text("2"));
}

TEST_F(DiskStartup, WaitsASecondAndKeepsTheFaultWhenAScanLeavesTheCardUnavailable) {
  hooks().scanDisk = [this] { system->disk->available = false; };
  Start();
  EXPECT_NE(result, nullptr);
  EXPECT_TRUE(system->diskFault);
  EXPECT_THAT(Trace(), ElementsAre(Sleep(1s)));
  ExpectState(3);
}

TEST_F(DiskStartup, RebootsForAFailingCardWithoutACounterFile) {
  RemoveCard();
  std::filesystem::create_directories(Machine::Real("/root/"));
  hooks().system = [](std::string const&) {
    EXPECT_EQ(write(1, "*", 1), 1);  // nothing may be left for a console that goes down
    return Machine::Answer::Success();
  };
  EXPECT_EQ(Start(), kRefusal + Found("0") +
                         "Save sdcard status counter 1 to file\n"
                         "Done save counter, trigger reboot...\n*");
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(ReadFile(CounterFile::kPath), CounterFile::Text("1"));
  EXPECT_THAT(Trace(), ElementsAre("sync", "system reboot", Sleep(20s), "chdir /", "sync",
                                   "umount /", "umount /mnt/sdcard/", "reboot 19088743"));
  EXPECT_TRUE(system->diskFault);
  ExpectNoReport();
}

TEST_F(DiskStartup, RebootsThreeTimesInARowAndThenGivesUp) {
  RemoveCard();
  std::filesystem::create_directories(Machine::Real("/root/"));
  for (char const* const saved : {"1", "2", "3"}) {
    Start();
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(ReadFile(CounterFile::kPath), CounterFile::Text(saved));
  }
  ExpectNoReport();
  EXPECT_THAT(Machine::Traced("reboot"), testing::SizeIs(3));
  EXPECT_EQ(Start(), kRefusal + Found("3") + PassedLimit("4") + kNoCard);
  EXPECT_NE(result, nullptr);
  EXPECT_THAT(Machine::Traced("reboot"), testing::SizeIs(3));
}

TEST_F(DiskStartup, CarriesOnWithTheReportWhenTheLimitIsPassed) {
  RemoveCard();
  StoreCounter("3");
  EXPECT_EQ(Start(), kRefusal + Found("3") + PassedLimit("4") + kNoCard);
  EXPECT_EQ(result, system->disk);
  ASSERT_NE(result, nullptr);
  EXPECT_FALSE(result->available);
  EXPECT_EQ(ReadFile(CounterFile::kPath), CounterFile::Text("3"));
  ExpectNoReboot();
  EXPECT_THAT(Machine::Traced("sleep"), IsEmpty());
  ExpectState(3);
}

TEST_F(DiskStartup, NeverRebootsForACounterBeyondTheLimit) {
  RemoveCard();
  StoreCounter("2147483647");
  EXPECT_EQ(Start(), kRefusal + Found("2147483647") + PassedLimit("2147483648") + kNoCard);
  ExpectNoReboot();
}

TEST_F(DiskStartup, NeverRebootsForANegativeCounter) {
  RemoveCard();
  StoreCounter("-5");
  EXPECT_EQ(Start(), kRefusal + PassedLimit("-5") + kNoCard);
  EXPECT_NE(result, nullptr);
  ExpectNoReboot();
}

TEST_F(DiskStartup, NeverRebootsWhenTheCounterCannotBeRead) {
  RemoveCard();
  MakeFile(std::string(CounterFile::kPath) + "/in-its-place", "");
  EXPECT_EQ(Start(), kRefusal + PassedLimit("-1") + kNoCard);
  EXPECT_NE(result, nullptr);
  ExpectNoReboot();
}

TEST_F(DiskStartup, RebootsThoughTheCounterFileCannotBeOpenedForWriting) {
  RemoveCard();
  hooks().fault = [opened = 0](Machine::Call const& call) mutable -> std::optional<int> {
    if (call.function == "fopen" && ++opened == 2) return EROFS;
    return std::nullopt;
  };
  std::filesystem::create_directories(Machine::Real("/root/"));
  Start();
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(ReadFile(CounterFile::kPath), "");
  EXPECT_EQ(Trace().back(), "reboot 19088743");
}

TEST_F(DiskStartup, CarriesOnWhenTheCounterCannotBeSaved) {
  RemoveCard();
  StoreCounter("1");
  hooks().saveStatusCounter = [](int) { return false; };
  EXPECT_EQ(Start(), kRefusal + Found("1") + PassedLimit("2") + kNoCard);
  EXPECT_NE(result, nullptr);
  ExpectNoReboot();
  ExpectState(3);
}

TEST_F(DiskStartup, ReportsAMalfunction) {
  StoreCounter("3");
  card.duringCheck = [] { Machine::RemoveFile(FakeCard::kTestFile); };
  EXPECT_THAT(Start(), HasSubstr("Exception disk (0): disk malfunction\n"));
  ExpectState(1);
}

TEST_F(DiskStartup, ReportsAReadOnlyCard) {
  StoreCounter("3");
  FakeCard::SetProperty("ro", "1");
  EXPECT_THAT(Start(), HasSubstr("Exception disk (0): The device is not available\n"));
  ExpectState(2);
}

TEST_F(DiskStartup, TreatsACardThatCannotBeRepresentedAsAFailingOne) {
  StoreCounter("3");
  Capture::Descriptor output(1);
  {
    Machine::FailingAllocation const allocation(1);
    result = system->InitDisk();
    EXPECT_TRUE(Machine::FailingAllocation::Happened());
  }
  EXPECT_EQ(output.Text(), "Exception disk (0): std::bad_alloc\n" + Found("3") + PassedLimit("4"));
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(system->disk, nullptr);
  EXPECT_THAT(Disk::deviceStatusList, IsEmpty());
  ExpectNoReport();
}

TEST_F(DiskStartup, LetsExceptionsOutsideTheStandardFamilyPass) {
  StoreCounter("0");
  hooks().scanDisk = [] { throw 42; };
  std::string const output = Capture::Output([this] { EXPECT_THROW(system->InitDisk(), int); });
  EXPECT_EQ(output, "Disk /mnt/sdcard/ free sapce 3906MB from 11718MB\n");
  EXPECT_NE(system->disk, nullptr);
  EXPECT_TRUE(system->diskFault);
  EXPECT_EQ(ReadFile(CounterFile::kPath), CounterFile::Text("0"));
  ExpectNoReboot();
}

TEST_F(DiskStartup, DeletesTheFirstDiskBeforeItBuildsTheSecond) {
  struct WatchedDisk : Disk {
    explicit WatchedDisk(std::vector<std::string>& list)
        : Disk(FakeCard::kMountPoint, FakeCard::kPartition, FakeCard::kDevice), events(list) {}
    ~WatchedDisk() override { events.emplace_back("deleted"); }
    std::vector<std::string>& events;
  };
  std::vector<std::string> events;
  Capture::Output([&] { system->disk = std::make_unique<WatchedDisk>(events).release(); });
  hooks().access = [&](std::string const& path, int /*mode*/) {
    events.push_back(path);
    return Machine::Answer::Success();
  };
  Start();
  ASSERT_GE(events.size(), 2U);
  EXPECT_EQ(events[0], "deleted");
  EXPECT_EQ(events[1], "/dev/mmcblk1");
  EXPECT_EQ(std::ranges::count(events, "deleted"), 1);
}

TEST_F(DiskStartup, HoldsNoDiskWhileItBuildsTheNext) {
  Start();
  hooks().access = [this](auto&&...) {
    EXPECT_EQ(system->disk, nullptr);
    return Machine::Answer::Failure(ENOENT);
  };
  StoreCounter("3");
  Start();
  EXPECT_FALSE(system->disk->available);
}

TEST_F(DiskStartup, NeverSetsTheFaultAgain) {
  Start();
  RemoveCard();
  StoreCounter("3");
  Start();
  EXPECT_FALSE(system->diskFault);
  ExpectState(3);
}

TEST_F(DiskStartup, BringsACardBackThatWasMissing) {
  RemoveCard();
  StoreCounter("3");
  Start();
  MakeFile("/dev/mmcblk1", "");
  Start();
  EXPECT_TRUE(result->available);
  EXPECT_FALSE(system->diskFault);
  EXPECT_EQ(ReadFile(CounterFile::kPath), CounterFile::Text("3"));
  ExpectState(0);
}

}  // namespace
