#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>

#include "DiskUtils/System.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CardText.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FakeCard.h"
#include "tests/support/OwnedSystem.h"

namespace {

using CardText::kNoCard;
using CardText::kRule;
using CardText::kTitle;
using Machine::hooks;
using Quellon::DiskUtils::Disk;
using testing::MatchesRegex;

std::string const kBanner =
    "\n" + kRule + "SYSTEM DATE/TIME CHANGED, RTC RESET DUE POWER OFF\n" + kRule;
std::string const kGoodCard = kTitle +
                              " size [15931539456] B\n"
                              " usable size [12288000000] B \n"
                              " writen [0] kB\n"
                              " read only [0]\n"
                              " fcsk status [0]\n"
                              " cid [275048534433324760e0e7f40f012a01]\n" +
                              kRule;

class HealthReport : public testing::Test {
 protected:
  HealthReport() { system->disk = &disk; }
  ~HealthReport() override { system->disk = nullptr; }  // it is the test's

  std::string Build() {
    return Capture::Output([this] { system->BuildDiskHealthReport(); });
  }
  Tarvik::Json::Value Recorded(char const* key) { return system->healthStatus.status[key]; }
  int Integer(char const* key) {
    EXPECT_TRUE(Recorded(key).IsInt()) << key;
    return Recorded(key);
  }
  double Floating(char const* key) {
    EXPECT_TRUE(Recorded(key).IsDouble()) << key;
    return Recorded(key);
  }

  FakeCard card;
  std::unique_ptr<OwnedSystem> const system = NewSystem();
  Disk disk = FakeCard::MakeDisk();
};

TEST_F(HealthReport, PrintsNothingAndRecordsNothingWithoutADisk) {
  system->disk = nullptr;
  hooks().now = 0;
  EXPECT_EQ(Build(), "");
  EXPECT_EQ(system->GetHealthReport(), "{}");
}

TEST_F(HealthReport, PrintsAnAvailableCard) {
  EXPECT_EQ(Build(), kGoodCard);
}

TEST_F(HealthReport, PrintsEveryFigureOfTheStatusTable) {
  FakeCard::Status() = {"short", true, true, 12, 0, 32010928128, 1234567890123};
  disk.totalBytes = 987654321098;
  EXPECT_EQ(Build(), kTitle +
                         " size [32010928128] B\n usable size [987654321098] B \n"
                         " writen [1234567890123] kB\n read only [1]\n fcsk status [12]\n"
                         " cid [short]\n" +
                         kRule);
}

TEST_F(HealthReport, PrintsACardThatIsNotAvailableAsNotPresent) {
  disk.available = false;
  EXPECT_EQ(Build(), kNoCard);
}

// As the header tells applications to do it.
TEST_F(HealthReport, TellsOfAPulledCardOnceSomebodyHasLooked) {
  Build();
  Machine::RemoveFile(FakeCard::kPartition);
  Machine::RemoveFile("/dev/mmcblk1");
  EXPECT_EQ(Build(), kGoodCard);
  EXPECT_EQ(Integer("zr"), 0);

  if (!system->disk->CheckDeviceStatus()) system->disk->available = false;
  EXPECT_EQ(Integer("zr"), 0) << "a snapshot";
  EXPECT_EQ(Build(), kNoCard);
  EXPECT_EQ(Integer("zr"), 3);
  EXPECT_EQ(Recorded("zi").ToString(), FakeCard::kCid);
}

TEST_F(HealthReport, RecordsEveryKeyAsJson) {
  FakeCard::Status().lifetimeWritesKB = 1572864;
  FakeCard::Status().sizeBytes = 32010928128;
  FakeCard::Status().fsckStatus = 1;
  Build();
  EXPECT_THAT(system->GetHealthReport(),
              MatchesRegex(R"re(\{"f":"30\.4\|B140 \([A-Z][a-z][a-z] [ 0-9][0-9] [0-9]{4} )re"
                           R"re([0-9][0-9]:[0-9][0-9]:[0-9][0-9]\)","zf":1,)re"
                           R"re("zi":"275048534433324760e0e7f40f012a01","zl":1\.5,"zr":0,)re"
                           R"re("zs":29\.8125\})re"));
}

TEST_F(HealthReport, RecordsSizeAndWritesInGibibytes) {
  FakeCard::Status().sizeBytes = 32010928128;
  FakeCard::Status().lifetimeWritesKB = 1;
  Build();
  EXPECT_EQ(Floating("zs"), 29.8125);
  EXPECT_EQ(Floating("zl"), 1.0 / 1048576);
}

TEST_F(HealthReport, RecordsUnknownCountsAsTheIntegerZero) {
  FakeCard::Status().sizeBytes = 0;
  FakeCard::Status().lifetimeWritesKB = 0;
  Build();
  EXPECT_EQ(Integer("zs"), 0);
  EXPECT_EQ(Integer("zl"), 0);
}

TEST_F(HealthReport, RecordsCountsBeyond63BitsAsPositive) {
  FakeCard::Status().sizeBytes = 1ULL << 63;
  FakeCard::Status().lifetimeWritesKB = 1ULL << 63;
  Build();
  EXPECT_EQ(Floating("zs"), 8589934592.0);
  EXPECT_EQ(Floating("zl"), 8796093022208.0);
}

struct State {
  bool available;
  int malfunction;
  bool readOnly;
  int code;
};

class HealthReportStateCode : public HealthReport, public testing::WithParamInterface<State> {};

TEST_P(HealthReportStateCode, TellsWhyTheCardIsNotInService) {
  disk.available = GetParam().available;
  FakeCard::Status().malfunction = GetParam().malfunction;
  FakeCard::Status().readOnly = GetParam().readOnly;
  Build();
  EXPECT_EQ(Integer("zr"), GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(AllStates, HealthReportStateCode,
                         testing::Values(State{true, 0, false, 0}, State{true, 1, true, 0},
                                         State{false, 1, false, 1}, State{false, 1, true, 1},
                                         State{false, 0, true, 2}, State{false, 2, true, 2},
                                         State{false, 0, false, 3}, State{false, 2, false, 3}));

TEST_F(HealthReport, MakesAZeroedEntryForAnUnknownMountPoint) {
  Disk::deviceStatusList.clear();
  disk.available = false;
  EXPECT_EQ(Build(), kNoCard);
  EXPECT_EQ(Disk::deviceStatusList.count(FakeCard::kMountPoint), 1U);
  EXPECT_EQ(Integer("zf"), 0);
  EXPECT_EQ(Recorded("zi").ToString(), "");
  EXPECT_EQ(Integer("zr"), 3);
  EXPECT_EQ(Integer("zs"), 0);
  EXPECT_EQ(Integer("zl"), 0);
}

TEST_F(HealthReport, AnnouncesAClockWithinTheFirst9999Seconds) {
  for (long const now : {-1L, 0L, 9999L}) {
    hooks().now = now;
    system->healthStatus.status = {};
    EXPECT_EQ(Build(), kBanner + kGoodCard) << now;
    EXPECT_EQ(Integer("rtc-have-been-reset"), 1);
  }
}

TEST_F(HealthReport, TrustsAClockFromSecond10000On) {
  hooks().now = 10000;
  EXPECT_EQ(Build(), kGoodCard);
  EXPECT_FALSE(system->healthStatus.status.HasKey("rtc-have-been-reset"));
  EXPECT_EQ(system->healthStatus.status.Size(), 6U);
}

TEST_F(HealthReport, KeepsOneSetOfKeysAndTheClocksResetOnceItWasSeen) {
  hooks().now = 9999;
  Build();
  hooks().now = 1614877509;
  FakeCard::Status().fsckStatus = 4;
  FakeCard::Status().sizeBytes = 0;
  EXPECT_EQ(Build().substr(0, kTitle.size()), kTitle);
  EXPECT_EQ(system->healthStatus.status.Size(), 7U);
  EXPECT_EQ(Integer("rtc-have-been-reset"), 1);
  EXPECT_EQ(Integer("zf"), 4);
  EXPECT_EQ(Integer("zs"), 0);
}

TEST_F(HealthReport, ReachesAPipeInOrderWithWhateverIsWrittenAfterIt) {
  hooks().now = 0;
  auto const [output, status] = ChildProcess::ThroughPipe([this] {
    std::cout << "before\n";
    system->BuildDiskHealthReport();
    EXPECT_EQ(write(STDOUT_FILENO, "after\n", 6), 6);
  });
  EXPECT_EQ(output, "before\n" + kBanner + kGoodCard + "after\n");
  EXPECT_EQ(status, 0);
}

TEST_F(HealthReport, ReachesAPipeInOrderThoughTheStreamsAreNotInStep) {
  hooks().now = 0;
  auto const [output, status] = ChildProcess::ThroughPipe([this] {
    std::ios::sync_with_stdio(false);
    system->BuildDiskHealthReport();
  });
  EXPECT_EQ(output, kBanner + kGoodCard);
  EXPECT_EQ(status, 0);
}

}  // namespace
