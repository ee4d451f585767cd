#include "DiskUtils/CardDirectory.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>

#include "FileUtils/File.h"
#include "tests/machine/FaultTable.h"
#include "tests/machine/Machine.h"
#include "tests/support/Descriptors.h"

namespace {

namespace fs = std::filesystem;
using FaultTable::kNoHarm;
using Machine::Answer;
using Machine::hooks;
using Quellon::FileUtils::Ifile;
using testing::IsEmpty;
using Directory = Quellon::DiskUtils::CardDirectory;

constexpr char const* kRecordings = "/mnt/sdcard/cr/";
constexpr char const* kPartition = "/dev/mmcblk1p1";

/// A directory on the card: the device node has the number of the folder's file system.
class Recordings {
 public:
  Recordings() {
    fs::create_directories(Machine::Real(kRecordings));
    Machine::MakeFile(kPartition, "");
    struct stat folder {};
    EXPECT_EQ(fstatat(AT_FDCWD, Machine::Real(kRecordings).c_str(), &folder, 0), 0);
    number = folder.st_dev;
    hooks().stat = [this](std::string const& path, struct stat* status) -> std::optional<Answer> {
      if (path != kPartition) return std::nullopt;
      *status = {};
      status->st_rdev = number;
      return Answer::Success();
    };
  }
  Recordings(Recordings const&) = delete;
  Recordings& operator=(Recordings const&) = delete;
  ~Recordings() { hooks() = Machine::Hooks(); }

  dev_t number = 0;  ///< of the partition
};

class CardDirectory : public testing::Test {
 protected:
  Descriptors::Watch descriptors;
  Recordings recordings;
};

/// Writes a recording by a path, and tells whether it is where the path leads.
bool Record(std::string path) {
  std::string text = "recording";
  Ifile file(path, false);
  file.Open(false);
  return file.stream->is_open() && file.Write(text.data(), 9) && file.Sync();
}

TEST_F(CardDirectory, LeadsRecordingsToTheCard) {
  Directory const directory(kRecordings, kPartition);
  ASSERT_TRUE(directory.IsOpen());
  EXPECT_TRUE(Record(directory.Path() + "rec_000001.dat"));
  EXPECT_EQ(Machine::ReadFile("/mnt/sdcard/cr/rec_000001.dat"), "recording");
}

TEST_F(CardDirectory, LeadsToTheCardAlsoOnceTheMountPointLeadsElsewhere) {
  Directory const directory(kRecordings, kPartition);
  fs::rename(Machine::Real("/mnt/sdcard"), Machine::Real("/mnt/unmounted"));
  fs::create_directories(Machine::Real(kRecordings));
  EXPECT_TRUE(Record(directory.Path() + "rec_000001.dat"));
  EXPECT_TRUE(fs::is_empty(Machine::Real(kRecordings)));
  EXPECT_EQ(Machine::ReadFile("/mnt/unmounted/cr/rec_000001.dat"), "recording");
}

TEST_F(CardDirectory, IsNotOpenWhereThePathLeadsToAnotherFileSystem) {
  ++recordings.number;
  errno = 0;
  Directory const directory(kRecordings, kPartition);
  EXPECT_FALSE(directory.IsOpen());
  EXPECT_EQ(errno, EXDEV);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(CardDirectory, LeadsNowhereWhereItIsNotOpen) {
  ++recordings.number;
  Directory const directory(kRecordings, kPartition);
  EXPECT_FALSE(Record(directory.Path() + "rec_000001.dat"));
  EXPECT_FALSE(fs::exists(directory.Path()));
  EXPECT_TRUE(fs::is_empty(Machine::Real(kRecordings)));
}

TEST_F(CardDirectory, MakesNothingOnceTheDirectoryWasRemoved) {
  Directory const directory(kRecordings, kPartition);
  fs::remove(Machine::Real(kRecordings));
  EXPECT_FALSE(Record(directory.Path() + "rec_000001.dat"));
}

TEST_F(CardDirectory, IsNotOpenWhereThereIsNone) {
  fs::remove(Machine::Real(kRecordings));
  EXPECT_FALSE(Directory(kRecordings, kPartition).IsOpen());
  EXPECT_EQ(errno, ENOENT);
  Machine::MakeFile("/mnt/sdcard/cr", "");
  EXPECT_FALSE(Directory("/mnt/sdcard/cr", kPartition).IsOpen());
  EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(CardDirectory, IsNotOpenWhereThereIsNoCard) {
  hooks().stat = nullptr;
  Machine::RemoveFile(kPartition);
  EXPECT_FALSE(Directory(kRecordings, kPartition).IsOpen());
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(CardDirectory, IsHeldFromCommandsAndClosedAtItsEnd) {
  {
    Directory const directory(kRecordings, kPartition);
    auto const opened = descriptors.Opened();
    ASSERT_EQ(opened.size(), 1U);
    EXPECT_TRUE(Descriptors::ClosesOnExec(opened[0]));
  }
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

/// A directory that is opened.
class Opened {
 public:
  void Run() { isOpen = Directory(kRecordings, kPartition).IsOpen(); }
  [[nodiscard]] std::string Outcome() const { return isOpen ? "open" : "not open"; }

 private:
  Recordings recordings;
  bool isOpen = false;
};

TEST(CardDirectoryFaults, LeaveNoDirectoryThatMightBeElsewhere) {
  FaultTable::Try<Opened>("open", {
                                      {"open *: EINTR", kNoHarm},
                                      {"close *", kNoHarm},
                                      {"*", "not open"},
                                  });
}

}  // namespace
