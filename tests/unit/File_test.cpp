#include "FileUtils/File.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/FileAt.h"
#include "tests/support/ModificationTime.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Machine::Answer;
using Quellon::FileUtils::Ifile;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char const* kPath = "/mnt/sdcard/cr/clip.gps";

class File : public testing::Test {
 protected:
  static void MakeOfSize(std::size_t size) { Machine::MakeFile(kPath, std::string(size, 'x')); }
  static bool Exists() { return fs::exists(Machine::Real(kPath)); }
  std::unique_ptr<Ifile> const file = FileAt(kPath);
};

TEST(FileObject, IsEmptyAndHasAnUnopenedStreamWhenMadeWithoutAPath) {
  Ifile const file;
  EXPECT_THAT(file.path, IsEmpty());
  EXPECT_THAT(file.name, IsEmpty());
  EXPECT_THAT(file.extension, IsEmpty());
  EXPECT_THAT(file.label, IsEmpty());
  EXPECT_EQ(file.size, 0);
  EXPECT_EQ(file.time, 0);
  EXPECT_FALSE(file.marked);
  ASSERT_NE(file.stream, nullptr);
  EXPECT_FALSE(file.stream->is_open());
}

TEST(FileObject, TakesNameAndExtensionFromItsPathAndMakesNoStream) {
  auto const file = FileAt("/mnt/sdcard/cr/rec.2021.gps");
  EXPECT_EQ(file->path, "/mnt/sdcard/cr/rec.2021.gps");
  EXPECT_EQ(file->name, "rec.2021.gps");
  EXPECT_EQ(file->GetName(), "rec.2021.gps");
  EXPECT_EQ(file->extension, "gps");
  EXPECT_THAT(file->label, IsEmpty());
  EXPECT_EQ(file->size, 0);
  EXPECT_EQ(file->time, 0);
  EXPECT_FALSE(file->marked);
  EXPECT_EQ(file->stream, nullptr);
}

TEST(FileObject, CanBeMadeOfAnEmptyPath) {
  auto const closed = FileAt("");
  EXPECT_THAT(closed->name, IsEmpty());
  auto const opened = FileAt("", true);
  ASSERT_NE(opened->stream, nullptr);
  EXPECT_FALSE(opened->stream->is_open());
}

TEST(FileObject, TakesWhatFollowsTheLastSlashAsTheName) {
  Ifile file;
  EXPECT_EQ(file.ExtractFileNameFromPath("/mnt/sdcard/cr/clip.gps"), "clip.gps");
  EXPECT_EQ(file.ExtractFileNameFromPath("/clip"), "clip");
  EXPECT_EQ(file.ExtractFileNameFromPath("clip.gps"), "");
  EXPECT_EQ(file.ExtractFileNameFromPath("/mnt/sdcard/"), "");
  EXPECT_EQ(file.ExtractFileNameFromPath(""), "");
  EXPECT_THAT(file.name, IsEmpty());
}

TEST(FileObject, TakesWhatFollowsTheLastDotAsTheExtension) {
  Ifile file;
  EXPECT_EQ(file.ExtractFileExtension("rec.2021.gps"), "gps");
  EXPECT_EQ(file.ExtractFileExtension("a.b.log"), "log");
  EXPECT_EQ(file.ExtractFileExtension(".hidden"), "hidden");
  EXPECT_EQ(file.ExtractFileExtension("clip"), "");
  EXPECT_EQ(file.ExtractFileExtension("clip."), "");
  EXPECT_EQ(file.ExtractFileExtension(""), "");
  EXPECT_THAT(file.extension, IsEmpty());
}

TEST_F(File, ExistsWhenItsPathLeadsSomewhere) {
  EXPECT_FALSE(file->FileExists());
  fs::create_directories(Machine::Real(kPath));
  EXPECT_TRUE(file->FileExists());
}

TEST_F(File, ExistsThoughItMayNotBeRead) {
  MakeOfSize(1);
  int asked = 0;
  Machine::hooks().access = [&asked](std::string const&, int mode) {
    ++asked;
    return mode == F_OK ? Answer::Success() : Answer::Failure(EACCES);
  };
  std::string newPath = "/mnt/sdcard/cr/other";
  EXPECT_TRUE(file->FileExists());
  EXPECT_TRUE(file->Stat());
  EXPECT_TRUE(file->Rename(newPath));
  EXPECT_TRUE(file->Remove());
  EXPECT_EQ(asked, 4);
}

TEST_F(File, StatTellsSizeAndModificationTime) {
  MakeOfSize(77);
  SetModificationTime(Machine::Real(kPath), 1614877509, 999999999);
  EXPECT_TRUE(file->Stat());
  EXPECT_EQ(file->size, 77);
  EXPECT_EQ(file->time, 1614877509);
}

TEST_F(File, StatKeepsTheSignOfAnImpossibleSize) {
  MakeOfSize(1);
  Machine::hooks().lstat = [](std::string const&, struct stat* status) {
    status->st_size = -5;
    status->st_mtime = -6;
    return Answer::Success();
  };
  EXPECT_TRUE(file->Stat());
  EXPECT_EQ(file->size, -5);
  EXPECT_EQ(file->time, -6);
}

TEST_F(File, StatChangesNothingWhenTheFileIsMissing) {
  file->size = 5;
  file->time = 6;
  Machine::hooks().lstat = [](std::string const&, struct stat*) {
    ADD_FAILURE() << "a missing file is not described";
    return Answer::Success();
  };
  EXPECT_FALSE(file->Stat());
  EXPECT_EQ(file->size, 5);
  EXPECT_EQ(file->time, 6);
}

TEST_F(File, StatDescribesASymbolicLinkAndNotWhereItLeads) {
  MakeOfSize(5000);
  std::string const link = "/mnt/sdcard/cr/link";
  fs::create_symlink("clip.gps", Machine::Real(link));
  auto const linked = FileAt(link);
  EXPECT_TRUE(linked->Stat());
  EXPECT_EQ(linked->size, 8);
}

TEST_F(File, StatTakesALinkThatLeadsNowhereForMissing) {
  MakeOfSize(0);
  std::string const link = "/mnt/sdcard/cr/link";
  fs::create_symlink("nowhere", Machine::Real(link));
  auto const linked = FileAt(link);
  EXPECT_FALSE(linked->FileExists());
  EXPECT_FALSE(linked->Stat());
}

// The plain interface of a 32-bit C library cannot tell such a size.
TEST_F(File, OfTwoGibibytesOrMoreIsSizedOnlyWhereTheSizeFits) {
  MakeOfSize(0);
  constexpr std::int64_t kThreeGibibytes = 3LL << 30;
  ASSERT_EQ(truncate64(Machine::Real(kPath).c_str(), kThreeGibibytes), 0);
  constexpr bool kFits = sizeof(off_t) == sizeof(std::int64_t);
  EXPECT_EQ(file->Stat(), kFits);
  EXPECT_EQ(file->size, kFits ? kThreeGibibytes : 0);
}

TEST_F(File, ThatCannotBeSizedIsNeitherDescribedNorRemoved) {
  MakeOfSize(10);
  file->size = 3;
  Machine::hooks().lstat = [](std::string const&, struct stat*) {
    return Answer::Failure(EOVERFLOW);
  };
  EXPECT_FALSE(file->Stat());
  EXPECT_EQ(file->size, 3);
  EXPECT_FALSE(file->RemoveIfBiggerThan(1));
  EXPECT_TRUE(Exists());
}

TEST_F(File, RemoveUnlinksTheFileAtOnce) {
  MakeOfSize(1);
  EXPECT_TRUE(file->Remove());
  EXPECT_FALSE(Exists());
  EXPECT_THAT(Machine::Trace(), ElementsAre(std::string("unlink ") + kPath));
}

TEST_F(File, RemoveFailsAtOnceWithoutAFile) {
  EXPECT_FALSE(file->Remove());
  EXPECT_THAT(Machine::Trace(), IsEmpty());
}

TEST_F(File, RemoveTriesThreeTimesAndPausesAfterEachFailure) {
  MakeOfSize(1);
  Machine::hooks().unlink = [](std::string const&) { return Answer::Failure(EBUSY); };
  EXPECT_FALSE(file->Remove());
  std::string const attempt = std::string("unlink ") + kPath;
  std::string const pause = Machine::Sleep(50ms);
  EXPECT_THAT(Machine::Trace(), ElementsAre(attempt, pause, attempt, pause, attempt, pause));
  EXPECT_TRUE(Exists());
}

TEST_F(File, RemoveStopsAtTheFirstSuccess) {
  MakeOfSize(1);
  int attempts = 0;
  Machine::hooks().unlink = [&attempts](std::string const&) {
    return ++attempts < 3 ? Answer::Failure(EINTR) : Answer::Success();
  };
  EXPECT_TRUE(file->Remove());
  EXPECT_EQ(attempts, 3);
  EXPECT_EQ(Machine::Slept(), 100ms);
}

TEST_F(File, RemoveClosesTheStreamFirstAndKeepsIt) {
  MakeOfSize(1);
  auto const opened = FileAt(kPath, true);
  Machine::hooks().unlink = [&opened](std::string const&) {
    EXPECT_FALSE(opened->stream->is_open());
    return Answer::Failure(EBUSY);
  };
  EXPECT_FALSE(opened->Remove());
  EXPECT_NE(opened->stream, nullptr);
}

TEST_F(File, RemoveLeavesTheStreamOpenWhenTheFileIsMissing) {
  MakeOfSize(1);
  auto const opened = FileAt(kPath, true);
  fs::remove(Machine::Real(kPath));
  EXPECT_FALSE(opened->Remove());
  EXPECT_TRUE(opened->stream->is_open());
}

TEST_F(File, RemoveTakesALinkAndLeavesWhatItLeadsTo) {
  MakeOfSize(1);
  std::string const link = "/mnt/sdcard/cr/link";
  fs::create_symlink("clip.gps", Machine::Real(link));
  auto const linked = FileAt(link);
  EXPECT_TRUE(linked->Remove());
  EXPECT_FALSE(fs::is_symlink(Machine::Real(link)));
  EXPECT_TRUE(Exists());
}

TEST_F(File, RemoveIfBiggerThanRemovesAFileOfExactlyTheLimit) {
  MakeOfSize(100);
  EXPECT_TRUE(file->RemoveIfBiggerThan(100));
  EXPECT_FALSE(Exists());
}

TEST_F(File, RemoveIfBiggerThanKeepsASmallerFile) {
  MakeOfSize(99);
  EXPECT_TRUE(file->RemoveIfBiggerThan(100));
  EXPECT_TRUE(Exists());
  EXPECT_EQ(file->size, 99);
}

TEST_F(File, RemoveIfBiggerThanFailsWithoutAFile) {
  EXPECT_FALSE(file->RemoveIfBiggerThan(0));
}

TEST_F(File, RemoveIfBiggerThanFailsWhenTheFileCannotBeRemoved) {
  MakeOfSize(100);
  Machine::hooks().unlink = [](std::string const&) { return Answer::Failure(EROFS); };
  EXPECT_FALSE(file->RemoveIfBiggerThan(100));
}

TEST_F(File, RemoveIfBiggerThanComparesWithoutSign) {
  MakeOfSize(1);
  EXPECT_TRUE(file->RemoveIfBiggerThan(~0ULL));
  EXPECT_TRUE(Exists());
  Machine::hooks().lstat = [](std::string const&, struct stat* status) {
    status->st_size = -1;
    return Answer::Success();
  };
  EXPECT_TRUE(file->RemoveIfBiggerThan(1ULL << 63));
  EXPECT_FALSE(Exists());
}

TEST_F(File, RemoveIfBiggerThanWorksOnAPathToo) {
  std::string path = kPath;
  Ifile::RemoveIfBiggerThan(path, 1);  // nothing there, and nothing told
  MakeOfSize(99);
  Ifile::RemoveIfBiggerThan(path, 100);
  EXPECT_TRUE(Exists());
  MakeOfSize(100);
  Ifile::RemoveIfBiggerThan(path, 100);
  EXPECT_FALSE(Exists());
}

TEST_F(File, RemoveIfBiggerThanDoesNotOpenTheFile) {
  MakeOfSize(100);
  Machine::hooks().fault = [](Machine::Call const& call) -> std::optional<int> {
    EXPECT_THAT(call.function, testing::Not(testing::HasSubstr("open")));
    return std::nullopt;
  };
  std::string path = kPath;
  Ifile::RemoveIfBiggerThan(path, 100);
  EXPECT_FALSE(Exists());
}

TEST_F(File, RenameMovesTheFileAndRenewsPathNameAndExtension) {
  MakeOfSize(4);
  ASSERT_TRUE(file->Stat());
  file->time = 17;
  std::string newPath = "/mnt/sdcard/cr/other.b.log";
  EXPECT_TRUE(file->Rename(newPath));
  EXPECT_FALSE(Exists());
  EXPECT_EQ(fs::file_size(Machine::Real(newPath)), 4U);
  EXPECT_EQ(file->path, newPath);
  EXPECT_EQ(file->name, "other.b.log");
  EXPECT_EQ(file->extension, "log");
  EXPECT_EQ(file->size, 4);
  EXPECT_EQ(file->time, 17);
}

TEST_F(File, RenameTakesAPathThatTheApplicationKeepsInAnotherField) {
  for (std::string Ifile::*const field : {&Ifile::path, &Ifile::name, &Ifile::extension}) {
    std::string const newPath = "/mnt/sdcard/cr/other.b.log";
    MakeOfSize(4);
    auto const renamed = FileAt(kPath);
    if (field != &Ifile::path) (*renamed).*field = newPath;
    std::string const expected = (*renamed).*field;
    EXPECT_TRUE(renamed->Rename((*renamed).*field));
    EXPECT_EQ(renamed->path, expected);
    EXPECT_EQ(renamed->name, expected.substr(expected.rfind('/') + 1));
    EXPECT_EQ(renamed->extension, expected.substr(expected.rfind('.') + 1));
    EXPECT_TRUE(renamed->FileExists());
  }
}

TEST_F(File, RenameTakesAPathOfThreeCharactersButNoShorterOne) {
  MakeOfSize(1);
  std::vector<std::string> renamed;
  Machine::hooks().rename = [&renamed](std::string const& from, std::string const& to) {
    renamed.push_back(from + " " + to);
    return Answer::Success();
  };
  std::string tooShort = "/a";
  EXPECT_FALSE(file->Rename(tooShort));
  EXPECT_EQ(file->path, kPath);
  std::string longEnough = "/ab";
  EXPECT_TRUE(file->Rename(longEnough));
  EXPECT_EQ(file->path, "/ab");
  EXPECT_EQ(file->name, "ab");
  EXPECT_THAT(renamed, ElementsAre(std::string(kPath) + " /ab"));
}

TEST_F(File, RenameRefusesWhileTheStreamIsOpen) {
  MakeOfSize(1);
  auto const opened = FileAt(kPath, true);
  std::string newPath = "/mnt/sdcard/cr/other";
  EXPECT_FALSE(opened->Rename(newPath));
  EXPECT_TRUE(Exists());
  opened->Close();
  EXPECT_TRUE(opened->Rename(newPath));
  EXPECT_FALSE(Exists());
}

TEST_F(File, RenameFailsWithoutAFileAndAsksForNothing) {
  Machine::hooks().rename = [](std::string const&, std::string const&) {
    ADD_FAILURE() << "there is nothing to rename";
    return Answer::Success();
  };
  std::string newPath = "/mnt/sdcard/cr/other";
  EXPECT_FALSE(file->Rename(newPath));
}

TEST_F(File, RenameThatFailsChangesNothing) {
  MakeOfSize(1);
  Machine::hooks().rename = [](std::string const&, std::string const&) {
    return Answer::Failure(EXDEV);
  };
  std::string newPath = "/mnt/sdcard/cr/other.log";
  EXPECT_FALSE(file->Rename(newPath));
  EXPECT_EQ(file->path, kPath);
  EXPECT_EQ(file->name, "clip.gps");
  EXPECT_EQ(file->extension, "gps");
}

TEST_F(File, FailsWithoutAWord) {
  std::string newPath = "/mnt/sdcard/cr/other.log";
  auto const everythingFails = [&] {
    EXPECT_FALSE(file->Stat());
    EXPECT_FALSE(file->Remove());
    EXPECT_FALSE(file->Rename(newPath));
  };
  EXPECT_EQ(Capture::AllOutput(everythingFails), "");
  MakeOfSize(1);
  auto& hooks = Machine::hooks();
  hooks.lstat = [](auto&&...) { return Answer::Failure(EOVERFLOW); };
  hooks.unlink = [](auto&&) { return Answer::Failure(EROFS); };
  hooks.rename = [](auto&&...) { return Answer::Failure(EXDEV); };
  EXPECT_EQ(Capture::AllOutput(everythingFails), "");
}

TEST_F(File, CanBeRenamedToAStringOfItsOwn) {
  MakeOfSize(1);
  file->label = "/mnt/sdcard/cr/new.dat";
  EXPECT_TRUE(file->Rename(file->label));
  EXPECT_TRUE(file->Rename(file->path));
  EXPECT_EQ(file->path, "/mnt/sdcard/cr/new.dat");
  EXPECT_EQ(file->name, "new.dat");
}

}  // namespace
