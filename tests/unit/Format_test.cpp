#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>

#include "DiskUtils/Disk.h"
#include "tests/machine/Allocation.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CardText.h"
#include "tests/support/FakeCard.h"

namespace {

using CardText::kMountCall;
using Machine::Answer;
using Machine::hooks;
using Machine::Trace;
using Quellon::DiskUtils::Disk;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char const* kCommand = "mkfs.ext4 -v -F -O ^has_journal  -L storage /dev/mmcblk1p1";
constexpr char const* kCheckingCommand =
    "mkfs.ext4 -v -F -O ^has_journal -c -L storage /dev/mmcblk1p1";

std::string Success(std::string const& command) {
  return "Try format partition: " + command + "\nDone format partition /dev/mmcblk1p1 ext4\n";
}

class Format : public testing::Test {
 protected:
  /// Formats, which must return `expected`, and returns what that prints.
  std::string Output(bool expected, bool check = false) {
    return Capture::Output([&] { EXPECT_EQ(disk.Fromat(check), expected); });
  }

  FakeCard card;
  Disk disk = FakeCard::MakeDisk();
};

TEST_F(Format, UnmountsFormatsAndMountsTheCard) {
  EXPECT_EQ(Output(true), Success(kCommand));
  EXPECT_THAT(Trace(),
              ElementsAre("umount /mnt/sdcard/", std::string("system ") + kCommand, kMountCall));
}

TEST_F(Format, LooksForBadBlocksWhenAsked) {
  EXPECT_EQ(Output(true, true), Success(kCheckingCommand));
  EXPECT_THAT(Machine::Traced("system"), ElementsAre(std::string("system ") + kCheckingCommand));
}

TEST_F(Format, PrintsTheCommandBeforeRunningIt) {
  hooks().system = [](auto&&) {
    std::puts("mkfs speaks");
    return Answer::Success();
  };
  EXPECT_EQ(Output(true, true), "Try format partition: " + std::string(kCheckingCommand) +
                                    "\nmkfs speaks\nDone format partition /dev/mmcblk1p1 ext4\n");
}

TEST_F(Format, RefusesADiskThatIsNotAvailable) {
  disk.available = false;
  EXPECT_EQ(Output(false), "ERROR: The device is not available\n");
  EXPECT_THAT(Trace(), IsEmpty());
}

TEST_F(Format, RefusesACardThatIsNotPresent) {
  FakeCard::Status().present = false;
  EXPECT_EQ(Output(false), "ERROR: The device is not available\n");
  EXPECT_THAT(Trace(), IsEmpty());
  EXPECT_TRUE(disk.available);
}

TEST_F(Format, MakesAStatusEntryWhereThereIsNone) {
  Disk::deviceStatusList.clear();
  EXPECT_EQ(Output(false), "ERROR: The device is not available\n");
  EXPECT_EQ(Disk::deviceStatusList.count(FakeCard::kMountPoint), 1U);
}

TEST_F(Format, FailsWhenTheCommandCannotBeStarted) {
  for (int const result : {-1, -256}) {
    hooks().system = [result](auto&&) { return Answer{result, ENOMEM}; };
    EXPECT_EQ(Output(false),
              "Try format partition: " + std::string(kCommand) + "\nERROR: Unable to format\n");
  }
  EXPECT_THAT(Machine::Traced("mount"), IsEmpty());
}

TEST_F(Format, TellsNothingOfACommandThatFailed) {
  hooks().system = [](auto&&) { return Answer{127 << 8, 0}; };
  EXPECT_EQ(Output(true), Success(kCommand));
  EXPECT_EQ(Trace().back(), kMountCall);
}

TEST_F(Format, GoesOnThoughNeitherUnmountingNorMountingWorks) {
  card.systemCallsWork = false;
  std::string output;
  Capture::ErrorOutput([&] { output = Output(true); });
  EXPECT_EQ(output, Success(kCommand));
  EXPECT_THAT(Machine::Traced("umount2"), testing::SizeIs(10));
}

TEST_F(Format, ChangesNeitherAvailabilityNorTheStatusTable) {
  FakeCard::Status().fsckStatus = 4;
  FakeCard::Status().malfunction = 1;
  Output(true);
  EXPECT_TRUE(disk.available);
  EXPECT_EQ(FakeCard::Status().fsckStatus, 4);
  EXPECT_EQ(FakeCard::Status().malfunction, 1);
  EXPECT_TRUE(FakeCard::Status().present);
}

TEST_F(Format, ReportsAFailedAllocationAsAnyOtherError) {
  std::optional<Machine::FailingAllocation> allocation;
  hooks().umount = [&](auto&&) {
    allocation.emplace(1);
    return Answer::Success();
  };
  EXPECT_EQ(Output(false), "ERROR: std::bad_alloc\n");
}

}  // namespace
