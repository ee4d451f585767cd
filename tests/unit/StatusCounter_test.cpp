#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>

#include "DiskUtils/System.h"
#include "tests/machine/Allocation.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CounterFile.h"
#include "tests/support/Descriptors.h"

namespace {

using Machine::Answer;
using Machine::hooks;
using Machine::MakeFile;
using Machine::ReadFile;
using Machine::Trace;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char const* kFile = CounterFile::kPath;
std::string const kSomethingInItsPlace = std::string(kFile) + "/in-its-place";

bool FileExists() {
  return std::filesystem::exists(Machine::Real(kFile));
}

class StatusCounter : public testing::Test {
 protected:
  StatusCounter() { std::filesystem::create_directories(Machine::Real(kFile).parent_path()); }

  Quellon::System system;
  Descriptors::Watch descriptors;
};

TEST_F(StatusCounter, IsZeroWithoutAFileAndLeavesAnEmptyOneBehind) {
  EXPECT_EQ(Capture::Output([&] { EXPECT_EQ(system.ReadSDCardStatusCounter(), 0); }), "");
  ASSERT_TRUE(FileExists());
  EXPECT_EQ(ReadFile(kFile), "");
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

// Nor does the file become the standard output of a process without one, while it is open.
TEST_F(StatusCounter, IsReadAndSavedWithTheStandardDescriptorsOpen) {
  auto const areOpen = [] { return fcntl(STDIN_FILENO, F_GETFD) >= 0; };
  bool openOnceRead;
  bool openOnceSaved;
  {
    Descriptors::NoStandardOnes const none;
    system.ReadSDCardStatusCounter();
    openOnceRead = areOpen();
  }
  {
    Descriptors::NoStandardOnes const none;
    system.SaveSDCardStatusCounter(1);
    openOnceSaved = areOpen();
  }
  EXPECT_TRUE(openOnceRead);
  EXPECT_TRUE(openOnceSaved);
}

struct Content {
  char const* name;
  std::string text;
  int counter;
};

/// A count of 2, with blanks up to that length.
std::string OfLength(std::size_t length) {
  std::string const text = CounterFile::Text(2);
  return "{" + std::string(length - text.size(), ' ') + text.substr(1);
}

class StatusCounterStored : public StatusCounter, public testing::WithParamInterface<Content> {};

TEST_P(StatusCounterStored, IsReadAndTheFileLeftAsItWas) {
  MakeFile(kFile, GetParam().text);
  EXPECT_EQ(
      Capture::Output([&] { EXPECT_EQ(system.ReadSDCardStatusCounter(), GetParam().counter); }),
      "");
  EXPECT_EQ(ReadFile(kFile), GetParam().text);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Contents, StatusCounterStored,
    testing::Values(
        Content{"AnInteger", CounterFile::Text(2), 2},
        Content{"AmongOtherMembers", R"({"a":[1],"sdcard-status-conter":3,"z":null})", 3},
        Content{"Zero", CounterFile::Text(0), 0},
        Content{"TheLargestInteger", CounterFile::Text(2147483647), 2147483647},
        Content{"Negative", CounterFile::Text(-7), -7},
        Content{"AFloatingNumber", CounterFile::Text("2.0"), 2},
        Content{"OverSeveralLines", "{\n \"sdcard-status-conter\"\n:\n1\n}\n", 1},
        Content{"ATokenSplitOverLines", "{\"sdcard-status-con\nter\":1\n2}", 12},
        Content{"OnlyLineEnds", "\n\n", 0},
        Content{"OtherSpelling", R"({"sdcard-status-counter":2})", 0},
        Content{"OtherCase", R"({"SDCARD-STATUS-CONTER":2})", 0}, Content{"AnEmptyObject", "{}", 0},
        Content{"AnArray", "[" + CounterFile::Text(2) + "]", 0}, Content{"ANumber", "2", 0},
        Content{"AText", R"("sdcard-status-conter")", 0}, Content{"Null", "null", 0},
        Content{"TooLarge", CounterFile::Text(2147483648), -1},
        Content{"TextForTheNumber", CounterFile::Text("\"2\""), -1},
        Content{"NullForTheNumber", CounterFile::Text("null"), -1},
        Content{"AnObjectForTheNumber", CounterFile::Text("{}"), -1},
        Content{"OfTheGreatestLength", OfLength(65536), 2}, Content{"TooLong", OfLength(65537), -1},
        Content{"LongerThanAnyCount",
                R"({"sdcard-status-conter":2,"x":")" + std::string(1000000, 'x') + "\"}", -1},
        Content{"BehindALotOfLines", std::string(1000000, '\n') + CounterFile::Text(2), 2},
        Content{"CutShort", R"({"sdcard-status-con)", -1}, Content{"NoJson", "reboots: 2", -1},
        Content{"OnlyBlanks", "  ", -1}, Content{"Binary", std::string("\0\1\2", 3), -1},
        Content{"ZerosLeftByAPowerCut", std::string(26, '\0'), -1}),
    [](auto const& instance) { return instance.param.name; });

TEST_F(StatusCounter, IsMinusOneWhenTheFileCannotBeOpened) {
  MakeFile(kSomethingInItsPlace, "");
  EXPECT_EQ(Capture::Output([&] { EXPECT_EQ(system.ReadSDCardStatusCounter(), -1); }), "");
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(StatusCounter, IsMinusOneWhenItsFolderIsMissing) {
  Machine::RemoveFile("/root");
  EXPECT_EQ(system.ReadSDCardStatusCounter(), -1);
}

class StatusCounterInItsPlace : public StatusCounter, public testing::WithParamInterface<mode_t> {
 protected:
  StatusCounterInItsPlace() {
    auto const path = Machine::Real(kFile);
    dev_t const null = makedev(1, 3);
    int const made = mknod(path.c_str(), GetParam() | 0600, GetParam() == S_IFCHR ? null : 0);
    error = made == 0 ? 0 : errno;
    hooks().fault = [](Machine::Call const& call) -> std::optional<int> {
      if (call.function.find("open") == std::string::npos || call.subject != kFile)
        return std::nullopt;
      ADD_FAILURE() << call.function << " would wait, or find another count than was saved";
      return EACCES;
    };
  }
  void SetUp() override {
    if (error == EPERM) GTEST_SKIP() << "such a file cannot be made here";
    ASSERT_EQ(error, 0);
  }

 private:
  int error;
};

TEST_P(StatusCounterInItsPlace, IsNeitherReadNorWritten) {
  EXPECT_EQ(system.ReadSDCardStatusCounter(), -1);
  Capture::Output([&] { EXPECT_TRUE(system.SaveSDCardStatusCounter(1)); });
}

TEST_P(StatusCounterInItsPlace, IsRemovedWithTheCount) {
  Capture::Output([&] { EXPECT_TRUE(system.SaveSDCardStatusCounter(0)); });
  EXPECT_FALSE(FileExists());
}

INSTANTIATE_TEST_SUITE_P(PipeSocketAndDevice, StatusCounterInItsPlace,
                         testing::Values(S_IFIFO, S_IFSOCK, S_IFCHR), [](auto const& instance) {
                           return instance.param == S_IFIFO    ? "APipe"
                                  : instance.param == S_IFSOCK ? "ASocket"
                                                               : "ADevice";
                         });

TEST_F(StatusCounter, IsMinusOneWhenTheFileCannotBeRead) {
  MakeFile(kFile, CounterFile::Text(2));
  hooks().read = [](auto&&...) {
    errno = EIO;
    return -1;
  };
  int const counter = system.ReadSDCardStatusCounter();
  hooks().read = nullptr;
  EXPECT_EQ(counter, -1);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(StatusCounter, IsMinusOneWhicheverAllocationFailsWhileReading) {
  MakeFile(kFile, CounterFile::Text(2));
  Machine::ForEachFailure([this](Machine::Point const& point) {
    Machine::FailingAllocation const allocation(point);
    int const counter = system.ReadSDCardStatusCounter();
    bool const failed = Machine::FailingAllocation::Happened();
    EXPECT_EQ(counter, failed ? -1 : 2);
    return failed;
  });
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(StatusCounter, ReplacesTheWholeFileAndFlushesItToTheCard) {
  MakeFile(kFile, std::string(1000, 'x') + "\n");
  std::string flushed;
  hooks().sync = [&] { flushed = ReadFile(kFile); };
  std::string const output =
      Capture::Output([&] { EXPECT_TRUE(system.SaveSDCardStatusCounter(2)); });
  EXPECT_EQ(output, "Save sdcard status counter 2 to file\n");
  EXPECT_EQ(ReadFile(kFile), CounterFile::Text(2));
  EXPECT_EQ(flushed, ReadFile(kFile));
  EXPECT_THAT(Trace(), ElementsAre("sync"));
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(StatusCounter, ReadsBackWhatItSaved) {
  for (int const counter : {1, 3, 2147483647}) {
    Capture::Output([&] { EXPECT_TRUE(system.SaveSDCardStatusCounter(counter)); });
    EXPECT_EQ(system.ReadSDCardStatusCounter(), counter);
  }
}

TEST_F(StatusCounter, CountsAsSavedWhenTheFileCannotBeOpened) {
  MakeFile(kSomethingInItsPlace, "");
  std::string const output =
      Capture::Output([&] { EXPECT_TRUE(system.SaveSDCardStatusCounter(1)); });
  EXPECT_EQ(output, "Save sdcard status counter 1 to file\n");
  EXPECT_THAT(Trace(), IsEmpty());
}

TEST_F(StatusCounter, IsNotSavedWhenTheDiskIsFull) {
  hooks().write = [this](int fd, auto&&...) -> std::optional<ssize_t> {
    if (std::ranges::count(descriptors.Opened(), fd) == 0) return std::nullopt;
    errno = ENOSPC;
    return -1;
  };
  Capture::Output([&] { EXPECT_FALSE(system.SaveSDCardStatusCounter(1)); });
  EXPECT_EQ(ReadFile(kFile), "");
  EXPECT_THAT(Trace(), IsEmpty());
}

TEST_F(StatusCounter, IsNotSavedWhicheverAllocationFails) {
  hooks().sync = Machine::FailingAllocation::Stop;
  Machine::ForEachFailure([this](Machine::Point const& point) {
    Capture::Descriptor output(1);
    Machine::FailingAllocation const allocation(point);
    bool const saved = system.SaveSDCardStatusCounter(2);
    bool const failed = Machine::FailingAllocation::Happened();
    EXPECT_EQ(saved, !failed);
    EXPECT_EQ(output.Text(), "Save sdcard status counter 2 to file\n");
    return failed;
  });
  EXPECT_THAT(Trace(), ElementsAre("sync"));
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

class StatusCounterOfNothing : public StatusCounter, public testing::WithParamInterface<int> {};

TEST_P(StatusCounterOfNothing, RemovesTheFile) {
  MakeFile(kFile, CounterFile::Text(2));
  std::string const output =
      Capture::Output([&] { EXPECT_TRUE(system.SaveSDCardStatusCounter(GetParam())); });
  EXPECT_EQ(output, "Remove sdcard status file\n");
  EXPECT_FALSE(FileExists());
}

TEST_P(StatusCounterOfNothing, IsFineWithoutAFile) {
  std::string const output =
      Capture::Output([&] { EXPECT_TRUE(system.SaveSDCardStatusCounter(GetParam())); });
  EXPECT_EQ(output, "Remove sdcard status file\n");
  EXPECT_THAT(Trace(), IsEmpty());
  EXPECT_FALSE(FileExists());
}

TEST_P(StatusCounterOfNothing, FailsWhenTheFileCannotBeRemoved) {
  MakeFile(kFile, "");
  hooks().unlink = [](auto&&) { return Answer::Failure(EROFS); };
  std::string const output =
      Capture::Output([&] { EXPECT_FALSE(system.SaveSDCardStatusCounter(GetParam())); });
  EXPECT_EQ(output, "Remove sdcard status file\nUnable to remove sd card status file\n");
  EXPECT_THAT(Trace(), ElementsAre("unlink /root/system.dat"));
}

INSTANTIATE_TEST_SUITE_P(ZeroAndLess, StatusCounterOfNothing,
                         testing::Values(0, -1, -2147483647 - 1));

}  // namespace
