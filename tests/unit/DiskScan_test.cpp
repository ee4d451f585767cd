#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>

#include "DiskUtils/Disk.h"
#include "base/IException.h"
#include "base/UniqueFd.h"
#include "tests/machine/Allocation.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CardText.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FakeCard.h"

namespace {

namespace fs = std::filesystem;
using CardText::kChecked;
using Machine::Answer;
using Machine::hooks;
using Machine::ReadFile;
using Machine::Trace;
using Quellon::DiskUtils::Disk;
using testing::ElementsAre;
using testing::IsEmpty;

class DiskScan : public testing::Test {
 protected:
  /// Scans; the exception's text, or "passed".
  std::string Scan() {
    Capture::Descriptor captured(1);
    std::string result = "passed";
    try {
      disk.ScanDisk();
    } catch (Tarvik::IException const& exception) {
      result = exception.what();
      code = exception.code;
    }
    output = captured.Text();
    return result;
  }

  FakeCard card;
  Disk disk = FakeCard::MakeDisk();
  std::string output;
  int code = 0;
};

TEST_F(DiskScan, PassesAGoodCardInAFixedOrder) {
  disk.available = true;
  EXPECT_EQ(Scan(), "passed");
  EXPECT_EQ(output, kChecked);
  EXPECT_TRUE(disk.available);
  EXPECT_THAT(Trace(), ElementsAre("sync", CardText::kUmount, CardText::kFsck, CardText::kMount,
                                   "unlink /mnt/sdcard/check.tmp"));
  EXPECT_FALSE(FakeCard::HasTestFile());
}

TEST_F(DiskScan, RecordsWhatItFoundInTheStatusTable) {
  card.fsckCode = 1;
  FakeCard::SetProperty("device/cid", "another\n");
  Scan();
  EXPECT_EQ(FakeCard::Status().fsckStatus, 1);
  EXPECT_EQ(FakeCard::Status().lifetimeWritesKB, 734003U);
  EXPECT_EQ(FakeCard::Status().malfunction, 0);
  EXPECT_STREQ(FakeCard::Status().cid, "another");
}

TEST_F(DiskScan, PassesWhateverTheCheckReturnsAsLongAsTheFileSurvives) {
  for (int const result : {1, 2, 4, 12, 255}) {
    card.fsckCode = result;
    EXPECT_EQ(Scan(), "passed");
    EXPECT_EQ(FakeCard::Status().fsckStatus, result);
    EXPECT_TRUE(disk.available);
  }
}

TEST_F(DiskScan, WritesAndFlushesTheTestFileBeforeTheCheck) {
  std::string flushed;
  std::string checked;
  hooks().sync = [&] { flushed = ReadFile(FakeCard::kTestFile); };
  card.duringCheck = [&] {
    checked = ReadFile(FakeCard::kTestFile);
    EXPECT_FALSE(disk.available);
  };
  Scan();
  EXPECT_EQ(flushed, "velmor");
  EXPECT_EQ(checked, "velmor");
}

TEST_F(DiskScan, ClosesTheTestFileBeforeItFlushesTheCard) {
  int flushes = 0;
  Capture::Output([&] {
    Descriptors::Watch const descriptors;
    hooks().sync = [&] {
      ++flushes;
      EXPECT_THAT(descriptors.Opened(), IsEmpty());
    };
    disk.ScanDisk();
  });
  EXPECT_EQ(flushes, 1);
}

TEST_F(DiskScan, FindsATestFileThatItMayNotOpen) {
  hooks().access = [](std::string const& path, int) {
    return path != FakeCard::kTestFile ? Answer::Success() : Answer::Failure(EACCES);
  };
  EXPECT_EQ(Scan(), "passed");
}

TEST_F(DiskScan, OverwritesATestFileThatAnEarlierScanLeft) {
  Machine::MakeFile(FakeCard::kTestFile, "something longer than velmor");
  card.duringCheck = [] { EXPECT_EQ(ReadFile(FakeCard::kTestFile), "velmor"); };
  EXPECT_EQ(Scan(), "passed");
  EXPECT_FALSE(FakeCard::HasTestFile());
}

TEST_F(DiskScan, NeverReadsTheTestFileBack) {
  card.duringCheck = [] { Machine::MakeFile(FakeCard::kTestFile, "garbled"); };
  EXPECT_EQ(Scan(), "passed");
}

TEST_F(DiskScan, RefusesADiskThatIsNotAvailableWithoutTouchingTheCard) {
  disk.available = false;
  EXPECT_EQ(Scan(), "The device is not available");
  EXPECT_EQ(code, 0);
  EXPECT_EQ(output, "");
  EXPECT_THAT(Trace(), IsEmpty());
  EXPECT_FALSE(FakeCard::HasTestFile());
}

TEST_F(DiskScan, RefusesACardThatIsNotPresentAndLeavesItAvailable) {
  FakeCard::Status().present = false;
  EXPECT_EQ(Scan(), "The device is not available");
  EXPECT_TRUE(disk.available);
  EXPECT_THAT(Trace(), IsEmpty());
}

TEST_F(DiskScan, MakesAStatusEntryWhereThereIsNone) {
  Disk::deviceStatusList.clear();
  EXPECT_EQ(Scan(), "The device is not available");
  EXPECT_EQ(Disk::deviceStatusList.count(FakeCard::kMountPoint), 1U);
}

TEST_F(DiskScan, CallsACardThatLosesTheTestFileAMalfunction) {
  card.fsckCode = 1;
  card.duringCheck = [] { Machine::RemoveFile(FakeCard::kTestFile); };
  EXPECT_EQ(Scan(), "disk malfunction");
  EXPECT_EQ(code, 0);
  EXPECT_FALSE(disk.available);
  EXPECT_EQ(FakeCard::Status().malfunction, 1);
  EXPECT_EQ(FakeCard::Status().fsckStatus, 1);
  EXPECT_EQ(FakeCard::Status().lifetimeWritesKB, 0U);
  EXPECT_THAT(Machine::Traced("unlink"), IsEmpty());
}

TEST_F(DiskScan, ChecksACardThatCannotTakeTheTestFileAndCallsItAMalfunction) {
  Machine::RemoveFile(FakeCard::kMountPoint);
  card.duringCheck = [] { fs::create_directories(Machine::Real("/mnt/sdcard/")); };
  EXPECT_EQ(Scan(), "disk malfunction");
  EXPECT_EQ(output, kChecked);
  EXPECT_EQ(Trace().front(), CardText::kUmount);  // nothing written, nothing flushed
}

// As on a file system that is mounted read-only, or of a file that may not be changed.
TEST_F(DiskScan, CallsACardAMalfunctionThatKeepsAnOldTestFileAndTakesNoNewOne) {
  Machine::MakeFile(FakeCard::kTestFile, "old");
  hooks().fault = [](Machine::Call const& call) {
    bool const fails = call.function == "fopen" && call.subject == FakeCard::kTestFile;
    return fails ? std::optional(EROFS) : std::nullopt;
  };
  EXPECT_EQ(Scan(), "disk malfunction");
  EXPECT_EQ(output, kChecked);
  EXPECT_FALSE(disk.available);
  EXPECT_EQ(FakeCard::Status().malfunction, 1);
  EXPECT_EQ(ReadFile(FakeCard::kTestFile), "old");
}

constexpr char const* kOutside = "/mnt/outside";

/// What somebody may put in the place of the test file.
struct Thing {
  char const* name;
  void (*make)(std::string const& path);
};

class DiskScanInPlaceOfTheTestFile : public DiskScan, public testing::WithParamInterface<Thing> {
 protected:
  DiskScanInPlaceOfTheTestFile() {
    Machine::MakeFile(kOutside, "outside");
    hooks().fault = [this](Machine::Call const& call) {
      if (call.function == "fopen" && call.subject == FakeCard::kTestFile) ++opened;
      return std::optional<int>();
    };
  }

  static void Put() { GetParam().make(Machine::Real(FakeCard::kTestFile)); }

  int opened = 0;
};

TEST_P(DiskScanInPlaceOfTheTestFile, IsNotOpenedWhereItCannotBeRemoved) {
  Put();
  hooks().unlink = [](auto&&) { return Answer::Failure(EPERM); };
  EXPECT_EQ(Scan(), "disk malfunction");
  EXPECT_EQ(output, kChecked);
  EXPECT_EQ(opened, 0);
  EXPECT_EQ(Trace().front(), "unlink /mnt/sdcard/check.tmp");
  EXPECT_EQ(Trace()[1], CardText::kUmount);  // nothing was flushed
  EXPECT_EQ(FakeCard::Status().malfunction, 1);
  EXPECT_EQ(ReadFile(kOutside), "outside");
  EXPECT_FALSE(fs::exists(Machine::Real("/mnt/nowhere")));
}

TEST_P(DiskScanInPlaceOfTheTestFile, IsNotOpenedWhenItsRemovalIsOnlyPretended) {
  Put();
  hooks().unlink = [](auto&&) { return Answer::Success(); };
  EXPECT_EQ(Scan(), "disk malfunction");
  EXPECT_EQ(opened, 0);
}

TEST_P(DiskScanInPlaceOfTheTestFile, IsAMalfunctionThoughTheCheckLeavesAFileThere) {
  Put();
  hooks().unlink = [](auto&&) { return Answer::Failure(EPERM); };
  card.duringCheck = [] {
    Machine::RemoveFile(FakeCard::kTestFile);
    Machine::MakeFile(FakeCard::kTestFile, "");
  };
  EXPECT_EQ(Scan(), "disk malfunction");
}

TEST_P(DiskScanInPlaceOfTheTestFile, IsNotTakenForItAfterTheCheck) {
  card.duringCheck = [] {
    Machine::RemoveFile(FakeCard::kTestFile);
    Put();
  };
  EXPECT_EQ(Scan(), "disk malfunction");
  EXPECT_EQ(opened, 1);
}

TEST_P(DiskScanInPlaceOfTheTestFile, IsNotOpenedWhileNobodyCanTellWhatItIs) {
  Put();
  hooks().lstat = [](auto&&...) { return Answer::Failure(EIO); };
  EXPECT_EQ(Scan(), "disk malfunction");
  EXPECT_EQ(opened, 0);
}

TEST_P(DiskScanInPlaceOfTheTestFile, IsRemovedUnlessItIsADirectory) {
  Put();
  bool const isDirectory = std::string(GetParam().name) == "ADirectory";
  EXPECT_EQ(Scan(), isDirectory ? "disk malfunction" : "passed");
  EXPECT_EQ(opened, isDirectory ? 0 : 1);
  EXPECT_EQ(FakeCard::HasTestFile(), isDirectory);
  EXPECT_EQ(ReadFile(kOutside), "outside");
}

void MakeSocket(std::string const& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  path.copy(address.sun_path, path.size());
  Tarvik::UniqueFd const listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Things, DiskScanInPlaceOfTheTestFile,
    testing::Values(
        Thing{"APipe", [](std::string const& path) { mkfifo(path.c_str(), 0600); }},
        Thing{"ASocket", MakeSocket},
        Thing{"ADirectory", [](std::string const& path) { fs::create_directory(path); }},
        Thing{"ALink",
              [](std::string const& path) { fs::create_symlink(Machine::Real(kOutside), path); }},
        Thing{"ALinkToADirectory",
              [](std::string const& path) { fs::create_directory_symlink("/", path); }},
        Thing{"ALinkThatLeadsNowhere",
              [](std::string const& path) {
                fs::create_symlink(Machine::Real("/mnt/nowhere"), path);
              }}),
    [](auto const& instance) { return instance.param.name; });

TEST_F(DiskScan, HasLaterDisksRefuseTheCardForGood) {
  card.duringCheck = [] { Machine::RemoveFile(FakeCard::kTestFile); };
  Scan();
  card.duringCheck = nullptr;
  EXPECT_EQ(Capture::Output([] {
              Disk const later(FakeCard::kMountPoint, FakeCard::kPartition, FakeCard::kDevice);
              EXPECT_FALSE(later.available);
            }),
            "Disk exception Disk malfunction status had been set to read-only\n");
}

TEST_F(DiskScan, NeverTakesAMalfunctionBack) {
  FakeCard::Status().malfunction = 1;
  EXPECT_EQ(Scan(), "passed");
  EXPECT_EQ(FakeCard::Status().malfunction, 1);
}

TEST_F(DiskScan, MissesACardThatWentDuringTheCheck) {
  card.fsckCode = 8;
  card.duringCheck = [] { Machine::RemoveFile(FakeCard::kPartition); };
  EXPECT_EQ(Scan(), "Disk not present");
  EXPECT_EQ(code, 0);
  EXPECT_FALSE(disk.available);
  EXPECT_FALSE(FakeCard::Status().present);
  EXPECT_EQ(FakeCard::Status().fsckStatus, 8);
  EXPECT_EQ(FakeCard::Status().malfunction, 0);
  EXPECT_TRUE(FakeCard::HasTestFile());
}

TEST_F(DiskScan, MountsByTheKernelWhatTheCommandLeftUnmounted) {
  card.duringCheck = [this] {
    hooks().system = [](auto&&) { return Answer::Success(); };
    card.mounted = false;
  };
  EXPECT_EQ(Scan(), "passed");
  EXPECT_THAT(Machine::Traced("mount /dev"), testing::SizeIs(1));
}

TEST_F(DiskScan, RemovesTheTestFileOfACardThatTurnedReadOnlyAndRefusesIt) {
  FakeCard::SetProperty("ro", "1\n");
  EXPECT_EQ(Scan(), "disk read only");
  EXPECT_EQ(code, 0);
  EXPECT_FALSE(disk.available);
  EXPECT_TRUE(FakeCard::Status().readOnly);
  EXPECT_FALSE(FakeCard::HasTestFile());
  EXPECT_EQ(FakeCard::Status().lifetimeWritesKB, 0U);
}

TEST_F(DiskScan, PassesThoughTheTestFileCannotBeRemoved) {
  hooks().unlink = [](auto&&) { return Answer::Failure(EROFS); };
  EXPECT_EQ(Scan(), "passed");
  EXPECT_TRUE(FakeCard::HasTestFile());
}

TEST_F(DiskScan, LetsTheStatErrorsOfThePresenceTestPass) {
  card.duringCheck = [] { Machine::RemoveFile(FakeCard::kMountPoint); };
  EXPECT_EQ(Scan(), "Stat error (1)");
  EXPECT_EQ(code, ENOENT);
  EXPECT_FALSE(disk.available);
}

TEST_F(DiskScan, RecordsZeroLifetimeWritesWhenTheyAreUnknown) {
  FakeCard::Status().lifetimeWritesKB = 7;
  Machine::RemoveFile("/sys/fs");
  EXPECT_EQ(Scan(), "passed");
  EXPECT_EQ(output,
            kChecked + "ERR: [/sys/fs/ext4/mmcblk1p1/lifetime_write_kbytes] does not exist !\n");
  EXPECT_EQ(FakeCard::Status().lifetimeWritesKB, 0U);
}

TEST_F(DiskScan, NamesThePartitionByWhatFollowsTheLastSlashOrBackslash) {
  for (char const* const path :
       {"mmcblk1p1", "\\dev\\mmcblk1p1", "/dev\\mmcblk1p1", "\\dev/mmcblk1p1", "/dev/mmcblk1p1"}) {
    hooks().access = [](auto&&...) { return Answer::Success(); };
    FakeCard::Status().lifetimeWritesKB = 0;
    disk.devicePath = path;
    EXPECT_EQ(Scan(), "passed");
    EXPECT_EQ(FakeCard::Status().lifetimeWritesKB, 734003U) << path;
  }
}

TEST_F(DiskScan, LeavesTheSpaceFiguresAsTheyWere) {
  card.space.f_blocks = 1;
  Scan();
  EXPECT_EQ(disk.totalBytes, 12288000000);
}

// Until the file is flushed every failed allocation is one of the path, which passes, or of the
// writing.
TEST_F(DiskScan, GivesUpWhicheverAllocationFailsWhileWritingTheTestFile) {
  hooks().sync = Machine::FailingAllocation::Stop;
  constexpr int kEarlierResult = 4;
  Descriptors::Watch const descriptors;
  Machine::ForEachFailure([&](Machine::Point const& point) {
    disk.available = true;
    FakeCard::Status().fsckStatus = kEarlierResult;
    Capture::Descriptor captured(1);
    Machine::FailingAllocation const allocation(point.number + 1);
    std::string result = "passed";
    try {
      disk.ScanDisk();
    } catch (std::exception const& exception) {
      result = exception.what();
    }
    bool const failed = Machine::FailingAllocation::Happened();
    EXPECT_EQ(result, failed ? "Could not write test file" : "passed");
    EXPECT_EQ(disk.available, !failed);
    EXPECT_EQ(FakeCard::Status().fsckStatus, failed ? kEarlierResult : 0);
    EXPECT_EQ(Machine::Traced("system").empty(), failed);
    return failed;
  });
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(DiskScan, RecordsZeroLifetimeWritesWhenReadingThemThrows) {
  FakeCard::Status().lifetimeWritesKB = 7;
  std::optional<Machine::FailingAllocation> allocation;
  hooks().unlink = [&](auto&&) {
    allocation.emplace(2);
    return Answer::Success();
  };
  EXPECT_EQ(Scan(), "passed");
  EXPECT_TRUE(Machine::FailingAllocation::Happened());
  EXPECT_TRUE(disk.available);
  EXPECT_EQ(FakeCard::Status().lifetimeWritesKB, 0U);
}

}  // namespace
