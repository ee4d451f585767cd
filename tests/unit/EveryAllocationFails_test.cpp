// Operations that promise not to throw, with each of their allocations failing in turn.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <exception>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <new>
#include <string>

#include "DiskUtils/System.h"
#include "FileUtils/File.h"
#include "FileUtils/FilesManager.h"
#include "tests/support/Capture.h"
#include "tests/support/CatalogueTest.h"
#include "tests/support/CounterFile.h"
#include "tests/support/Descriptors.h"
#include "tests/support/ErrorRecord.h"
#include "tests/support/FailingAllocation.h"
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

/// Does `work` with its first, second, third ... allocation failing, until none does. `work` is
/// given a function that ends the failing.
template <typename Work>
void Try(Work work) {
  int number = 0;
  for (bool failed = true; failed;) {
    SCOPED_TRACE("allocation " + std::to_string(++number));
    failed = work(number);
  }
  testing::Test::RecordProperty("allocations_tried", number - 1);
  std::cout << "[  FAULTS  ] " << number - 1 << " allocations tried" << std::endl;
  EXPECT_GT(number, 1);
}

struct Start {
  Disk* result = nullptr;
  std::string output;
  bool threw = false;
  bool failed = false;
};

Start InitDisk(OwnedSystem& system, int allocation) {
  Start start;
  Capture::Descriptor output(1);
  Capture::Descriptor const complaints(2);
  FailingAllocation const failing(allocation);
  try {
    start.result = system.InitDisk();
  } catch (std::bad_alloc const&) {
    start.threw = true;
  }
  start.failed = FailingAllocation::Happened();
  FailingAllocation::Stop();
  start.output = output.Text();
  return start;
}

// Only the report may throw: the card has been decided about by then.
TEST(EveryAllocationFails, WhileAGoodCardIsStarted) {
  Descriptors::Watch const descriptors;
  Try([](int number) {
    Interpose::Reset();
    FakeCard const card;
    Interpose::MakeFile(CounterFile::kPath, CounterFile::Text(3));
    auto const system = NewSystem();
    Start const start = InitDisk(*system, number);
    if (start.threw) {
      EXPECT_THAT(start.output, HasSubstr("= SD CARD ="));
    } else if (!start.failed) {
      EXPECT_TRUE(start.result->available);
    } else if (start.output.find("Exception disk (0): ") == std::string::npos) {
      EXPECT_TRUE(start.result->available);  // such as unknown lifetime writes
    } else if (start.result != nullptr) {
      EXPECT_FALSE(start.result->available);
    }
    EXPECT_TRUE(Interpose::Traced("reboot").empty());
    return start.failed;
  });
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

// A count that cannot be read or saved for want of memory never leads to a reboot.
TEST(EveryAllocationFails, WhileAMissingCardIsStarted) {
  Descriptors::Watch const descriptors;
  Try([](int number) {
    Interpose::Reset();
    FakeCard const card;
    Interpose::RemoveFile("/dev/mmcblk1");
    Interpose::MakeFile(CounterFile::kPath, CounterFile::Text(1));
    auto const system = NewSystem();
    Start const start = InitDisk(*system, number);
    bool const rebooted = !Interpose::Traced("reboot").empty();
    EXPECT_EQ(start.result == nullptr && !start.threw, rebooted || system->disk == nullptr);
    if (rebooted) {
      EXPECT_EQ(Interpose::ReadFile(CounterFile::kPath), CounterFile::Text(2));
    }
    return start.failed;
  });
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST(EveryAllocationFails, WhileAFileIsCopied) {
  Descriptors::Watch const descriptors;
  std::string const content(20000, 'y');
  Try([&content](int number) {
    Interpose::Reset();
    LogFile::BeginAnew();
    Interpose::MakeFile("/mnt/sdcard/from", content);
    std::string path = "/mnt/sdcard/from";
    Ifile file(path, false);
    Capture::Descriptor const console(1);
    bool copied = false;
    bool failed = false;
    {
      std::string const destination = "/mnt/sdcard/to";
      FailingAllocation const failing(number);
      EXPECT_NO_THROW(copied = file.CopyTo(destination));
      failed = FailingAllocation::Happened();
    }
    EXPECT_EQ(Interpose::ReadFile("/mnt/sdcard/from"), content);
    EXPECT_THAT(content, StartsWith(Interpose::ReadFile("/mnt/sdcard/to")));
    if (!failed) {
      EXPECT_TRUE(copied);
      EXPECT_EQ(Interpose::ReadFile("/mnt/sdcard/to"), content);
    }
    Tarvik::Ilog::Logger::GetInstance()->Close();
    return failed;
  });
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST(EveryAllocationFails, WhileACardIsFormatted) {
  Try([](int number) {
    Interpose::Reset();
    FakeCard const card;
    Disk disk = FakeCard::MakeDisk();
    Capture::Descriptor output(1);
    bool formatted = false;
    bool failed = false;
    {
      FailingAllocation const failing(number);
      EXPECT_NO_THROW(formatted = disk.Fromat(true));
      failed = FailingAllocation::Happened();
    }
    EXPECT_EQ(formatted, !failed);
    if (failed) {
      EXPECT_EQ(output.Text(), "ERROR: std::bad_alloc\n");
    }
    return failed;
  });
}

TEST(EveryAllocationFails, WhileACatalogueIsSorted) {
  Try([](int allocation) {
    FilesManager catalogue(nullptr, "", 0, 1.0F);
    auto& files = catalogue.GetList();
    for (std::time_t const time : {3, 1, 2}) files.emplace_back(new Ifile)->time = time;
    auto const newest = files.begin();
    FailingAllocation const failing(allocation);
    catalogue.Sort();
    bool const failed = FailingAllocation::Happened();
    FailingAllocation::Stop();
    EXPECT_TRUE(std::ranges::is_sorted(files, {}, &Ifile::time));
    EXPECT_EQ(std::next(newest), files.end()) << "a position stays with its file";
    return failed;
  });
}

class EveryAllocationFailsInACatalogue : public CatalogueTest {};

TEST_F(EveryAllocationFailsInACatalogue, WhileRoomIsMade) {
  freeBytes = 0;
  Try([this](int allocation) {
    MakeRecording("old.dat");
    MakeRecording("track.gps");
    auto const catalogue = NewCatalogue();
    Add(*catalogue, {"old.dat", "track.gps"});
    try {
      FailingAllocation const failing(allocation);
      EXPECT_FALSE(catalogue->MakeRoom());
    } catch (std::bad_alloc const&) {
      EXPECT_TRUE(FailingAllocation::Happened()) << "memory ran out by itself";
    }
    EXPECT_EQ(Names(*catalogue), OnCard());
    if (FailingAllocation::Happened()) return true;
    EXPECT_EQ(ErrorOf(*catalogue), "Unable to make room, after 100 retries in MakeRoom");
    return false;
  });
}

TEST(EveryAllocationFails, WhileAFailureIsLogged) {
  Try([](int number) {
    Interpose::Reset();
    Interpose::hooks().now = number;
    LogFile::BeginAnew();
    Capture::Descriptor const console(1);
    bool failed = false;
    {
      std::string const reason(5000, 'x');
      FailingAllocation const failing(number);
      Tarvik::Ilog::LogFailure("Ifile", reason.c_str());
      failed = FailingAllocation::Happened();
    }
    EXPECT_TRUE(LogFile::IsFree(*Tarvik::Ilog::Logger::GetInstance()->fileSink));
    return failed;
  });
}

}  // namespace
