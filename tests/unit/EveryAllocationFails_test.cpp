// Operations that promise not to throw, with each of their allocations failing in turn.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <exception>
#include <filesystem>
#include <iterator>
#include <new>
#include <string>

#include "DiskUtils/System.h"
#include "FileUtils/File.h"
#include "FileUtils/FilesManager.h"
#include "tests/machine/Allocation.h"
#include "tests/support/Capture.h"
#include "tests/support/CatalogueTest.h"
#include "tests/support/CounterFile.h"
#include "tests/support/Descriptors.h"
#include "tests/support/ErrorRecord.h"
#include "tests/support/FakeCard.h"
#include "tests/support/LogFile.h"
#include "tests/support/OwnedSystem.h"

namespace {

using Quellon::DiskUtils::Disk;
using Quellon::FileUtils::FilesManager;
using Quellon::FileUtils::Ifile;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

struct Start {
  Disk* result = nullptr;
  std::string output;
  bool threw = false;
  bool failed = false;
};

Start InitDisk(OwnedSystem& system, Machine::Point const& point) {
  Start start;
  Capture::Descriptor output(1);
  Capture::Descriptor const complaints(2);
  Machine::FailingAllocation const failing(point);
  try {
    start.result = system.InitDisk();
  } catch (std::bad_alloc const&) {
    start.threw = true;
  }
  start.failed = Machine::FailingAllocation::Happened();
  Machine::FailingAllocation::Stop();
  start.output = output.Text();
  return start;
}

// Only the report may throw: the card has been decided about by then.
TEST(EveryAllocationFails, WhileAGoodCardIsStarted) {
  Descriptors::Watch const descriptors;
  Machine::ForEachFailure([](Machine::Point const& point) {
    Machine::Reset();
    FakeCard const card;
    Machine::MakeFile(CounterFile::kPath, CounterFile::Text(3));
    auto const system = NewSystem();
    Start const start = InitDisk(*system, point);
    if (start.threw) {
      EXPECT_THAT(start.output, HasSubstr("= SD CARD ="));
    } else if (!start.failed) {
      EXPECT_TRUE(start.result->available);
    } else if (start.output.find("Exception disk (0): ") == std::string::npos) {
      EXPECT_TRUE(start.result->available);  // such as unknown lifetime writes
    } else if (start.result != nullptr) {
      EXPECT_FALSE(start.result->available);
    }
    EXPECT_TRUE(Machine::Traced("reboot").empty());
    return start.failed;
  });
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

// A count that cannot be read or saved for want of memory never leads to a reboot.
TEST(EveryAllocationFails, WhileAMissingCardIsStarted) {
  Descriptors::Watch const descriptors;
  Machine::ForEachFailure([](Machine::Point const& point) {
    Machine::Reset();
    FakeCard const card;
    Machine::RemoveFile("/dev/mmcblk1");
    Machine::MakeFile(CounterFile::kPath, CounterFile::Text(1));
    auto const system = NewSystem();
    Start const start = InitDisk(*system, point);
    bool const rebooted = !Machine::Traced("reboot").empty();
    EXPECT_EQ(start.result == nullptr && !start.threw, rebooted || system->disk == nullptr);
    if (rebooted) {
      EXPECT_EQ(Machine::ReadFile(CounterFile::kPath), CounterFile::Text(2));
    }
    return start.failed;
  });
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST(EveryAllocationFails, WhileAFileIsCopied) {
  Descriptors::Watch const descriptors;
  std::string const content(20000, 'y');
  Machine::ForEachFailure([&content](Machine::Point const& point) {
    Machine::Reset();
    LogFile::BeginAnew();
    Machine::MakeFile("/mnt/sdcard/from", content);
    std::string path = "/mnt/sdcard/from";
    Ifile file(path, false);
    Capture::Descriptor const console(1);
    bool copied = false;
    bool failed = false;
    {
      std::string const destination = "/mnt/sdcard/to";
      Machine::FailingAllocation const failing(point);
      EXPECT_NO_THROW(copied = file.CopyTo(destination));
      failed = Machine::FailingAllocation::Happened();
    }
    EXPECT_EQ(Machine::ReadFile("/mnt/sdcard/from"), content);
    EXPECT_THAT(content, StartsWith(Machine::ReadFile("/mnt/sdcard/to")));
    if (!failed) {
      EXPECT_TRUE(copied);
      EXPECT_EQ(Machine::ReadFile("/mnt/sdcard/to"), content);
    }
    Tarvik::Ilog::Logger::GetInstance()->Close();
    return failed;
  });
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST(EveryAllocationFails, WhileACardIsFormatted) {
  Machine::ForEachFailure([](Machine::Point const& point) {
    Machine::Reset();
    FakeCard const card;
    Disk disk = FakeCard::MakeDisk();
    Capture::Descriptor output(1);
    bool formatted = false;
    bool failed = false;
    {
      Machine::FailingAllocation const failing(point);
      EXPECT_NO_THROW(formatted = disk.Fromat(true));
      failed = Machine::FailingAllocation::Happened();
    }
    EXPECT_EQ(formatted, !failed);
    if (failed) {
      EXPECT_EQ(output.Text(), "ERROR: std::bad_alloc\n");
    }
    return failed;
  });
}

TEST(EveryAllocationFails, WhileACatalogueIsSorted) {
  Machine::ForEachFailure([](Machine::Point const& point) {
    FilesManager catalogue(nullptr, "", 0, 1.0F);
    auto& files = catalogue.GetList();
    for (std::time_t const time : {3, 1, 2}) files.emplace_back(new Ifile)->time = time;
    auto const newest = files.begin();
    Machine::FailingAllocation const failing(point);
    catalogue.Sort();
    bool const failed = Machine::FailingAllocation::Happened();
    Machine::FailingAllocation::Stop();
    EXPECT_TRUE(std::ranges::is_sorted(files, {}, &Ifile::time));
    EXPECT_EQ(std::next(newest), files.end()) << "a position stays with its file";
    return failed;
  });
}

class EveryAllocationFailsInACatalogue : public CatalogueTest {};

TEST_F(EveryAllocationFailsInACatalogue, WhileRoomIsMade) {
  freeBytes = 0;
  Machine::ForEachFailure([this](Machine::Point const& point) {
    MakeRecording("old.dat");
    MakeRecording("track.gps");
    auto const catalogue = NewCatalogue();
    Add(*catalogue, {"old.dat", "track.gps"});
    try {
      Machine::FailingAllocation const failing(point);
      EXPECT_FALSE(catalogue->MakeRoom());
    } catch (std::bad_alloc const&) {
      EXPECT_TRUE(Machine::FailingAllocation::Happened()) << "memory ran out by itself";
    }
    EXPECT_EQ(Names(*catalogue), OnCard());
    if (Machine::FailingAllocation::Happened()) return true;
    EXPECT_EQ(ErrorOf(*catalogue), "Unable to make room, after 100 retries in MakeRoom");
    return false;
  });
}

TEST(EveryAllocationFails, WhileAFailureIsLogged) {
  Machine::ForEachFailure([](Machine::Point const& point) {
    Machine::Reset();
    Machine::hooks().now = point.number;
    LogFile::BeginAnew();
    Capture::Descriptor const console(1);
    bool failed = false;
    {
      std::string const reason(5000, 'x');
      Machine::FailingAllocation const failing(point);
      Tarvik::Ilog::LogFailure("Ifile", reason.c_str());
      failed = Machine::FailingAllocation::Happened();
    }
    EXPECT_TRUE(LogFile::IsFree(*Tarvik::Ilog::Logger::GetInstance()->fileSink));
    return failed;
  });
}

}  // namespace
