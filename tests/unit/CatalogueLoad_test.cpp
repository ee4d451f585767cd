// Loading the catalogue from its directory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <streambuf>
#include <string>
#include <vector>

#include "tests/support/CatalogueTest.h"
#include "tests/support/Descriptors.h"
#include "tests/support/DirectoryOrder.h"
#include "tests/support/ErrorRecord.h"
#include "tests/support/Scoped.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Machine::Answer;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::UnorderedElementsAre;

class CatalogueLoad : public CatalogueTest {
 protected:
  static void ExpectFailure(FilesManager& failing, std::string const& message) {
    EXPECT_FALSE(failing.Load());
    EXPECT_EQ(ErrorOf(failing), message + " in Load");
  }

  /// The recordings in the order in which the directory gives them.
  static std::vector<std::string> FilesInOrder() {
    auto names = DirectoryOrder(kDirectory);
    std::erase_if(names, [](auto const& name) { return name == "." || name == ".."; });
    return names;
  }

  Ifile& Find(std::string const& name) {
    for (Ifile* file : catalogue->GetList()) {
      if (file->name == name) return *file;
    }
    ADD_FAILURE() << name << " is not catalogued";
    std::abort();
  }

  std::unique_ptr<FilesManager> const catalogue = NewCatalogue();
};

TEST_F(CatalogueLoad, FailsWithoutACardThatMayBeUsed) {
  FilesManager without(nullptr, "", 0, 1.0F);
  ExpectFailure(without, "The disk is not available");
  card.available = false;
  ExpectFailure(*NewCatalogue(""), "The disk is not available");
}

TEST_F(CatalogueLoad, FailsWithoutAPath) {
  ExpectFailure(*NewCatalogue(""), "Empty path value");
}

TEST_F(CatalogueLoad, FailsForADirectoryThatCannotBeOpenedAlsoWithoutATrailingSlash) {
  ExpectFailure(*NewCatalogue("/mnt/sdcard/missing/"), "Could not open directory");
  ExpectFailure(*NewCatalogue("/mnt/sdcard/missing"), "Could not open directory");
  MakeRecording("file");
  ExpectFailure(*NewCatalogue(std::string(kDirectory) + "file"), "Could not open directory");
}

TEST_F(CatalogueLoad, FailsForAPathWithoutATrailingSlashAndLeavesTheDirectoryOpen) {
  auto const failing = NewCatalogue("/mnt/sdcard/cr");
  std::size_t const before = Descriptors::Open().size();
  ExpectFailure(*failing, "Incorrect path");
  EXPECT_EQ(Descriptors::Open().size(), before + 1);
}

TEST_F(CatalogueLoad, FailsForAPathWithoutAnySlash) {
  ExpectFailure(*NewCatalogue("."), "Incorrect path");
}

TEST_F(CatalogueLoad, LeavesTheCatalogueAsItIsWhenItFails) {
  MakeRecording("a.dat", 7);
  ASSERT_TRUE(catalogue->Load());
  for (std::string path : {"", "/mnt/sdcard/missing/", "/mnt/sdcard/cr"}) {
    EXPECT_FALSE(catalogue->Load(path));
    EXPECT_THAT(Names(*catalogue), ElementsAre("a.dat"));
    EXPECT_EQ(catalogue->GetTotalFilesSize(), 7U);
    EXPECT_EQ(catalogue->GetPath(), path);
  }
  EXPECT_FALSE(catalogue->LoadAndSort());
}

TEST_F(CatalogueLoad, ForgetsTheLastError) {
  std::string path = "/mnt/sdcard/missing/";
  EXPECT_FALSE(catalogue->Load(path));
  path = kDirectory;
  EXPECT_TRUE(catalogue->Load(path));
  EXPECT_FALSE(catalogue->HasError());
}

TEST_F(CatalogueLoad, TakesEveryFileWithItsNamesSizeAndTimeInTheOrderOfTheDirectory) {
  MakeRecording("c.dat", 3, 30);
  MakeRecording("a.b.log", 5, 20);
  MakeRecording(".hidden", 7, 10);
  EXPECT_TRUE(catalogue->Load());
  EXPECT_EQ(Names(*catalogue), FilesInOrder());
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 15U);
  EXPECT_EQ(Find("c.dat").path, std::string(kDirectory) + "c.dat");
  EXPECT_EQ(Find("c.dat").extension, ".dat");
  EXPECT_EQ(Find("c.dat").size, 3);
  EXPECT_EQ(Find("c.dat").time, 30);
  EXPECT_EQ(Find("a.b.log").extension, ".log");
  EXPECT_EQ(Find(".hidden").extension, ".hidden");
}

TEST_F(CatalogueLoad, SortsOldestFirstAndKeepsTheDirectorysOrderOfEqualTimes) {
  std::map<std::string, int> const times = {{"a", 2}, {"b", 1}, {"c", 2}, {"d", 1}, {"e", 0}};
  for (auto const& [name, time] : times) MakeRecording(name + ".dat", 0, time);
  std::vector<std::string> expected = FilesInOrder();
  std::stable_sort(expected.begin(), expected.end(), [&](auto const& a, auto const& b) {
    return times.at(a.substr(0, 1)) < times.at(b.substr(0, 1));
  });
  EXPECT_TRUE(catalogue->LoadAndSort());
  EXPECT_EQ(Names(*catalogue), expected);
}

TEST_F(CatalogueLoad, PausesOneMillisecondForEachEntryDotsAndDirectoriesIncluded) {
  MakeRecording("a.dat");
  fs::create_directory(Where("sub"));
  EXPECT_TRUE(catalogue->Load());
  EXPECT_THAT(Machine::Trace(), SizeIs(4));
  EXPECT_THAT(Machine::Trace(), Each(Machine::Sleep(1ms)));
}

TEST_F(CatalogueLoad, PausesBeforeItLooksAtAnEntry) {
  MakeRecording("a.dat");
  std::size_t looked = 0;
  Machine::hooks().lstat = [&looked](std::string const&, struct stat*) {
    EXPECT_THAT(Machine::Trace(), SizeIs(++looked));
    return Answer::Failure(ENOENT);
  };
  EXPECT_TRUE(catalogue->Load());
  EXPECT_EQ(looked, 3U);
}

TEST_F(CatalogueLoad, SkipsDirectoriesAndClosesWhatItOpened) {
  fs::create_directories(Where("one/two.dat"));
  MakeRecording("one/inside.dat", 9);
  EXPECT_EQ(Capture::Output([&] {
              std::size_t const before = Descriptors::Open().size();
              EXPECT_TRUE(catalogue->Load());
              EXPECT_EQ(Descriptors::Open().size(), before);
            }),
            "");
  EXPECT_THAT(catalogue->GetList(), IsEmpty());
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 0U);
}

TEST_F(CatalogueLoad, TakesLinksAndPipesAndDoesNotFollowLinks) {
  MakeRecording("target.dat", 5000);
  fs::create_symlink("target.dat", Where("link.dat"));
  fs::create_symlink("nowhere", Where("broken.dat"));
  fs::create_symlink("/", Where("root.dat"));
  ASSERT_EQ(mkfifo(Where("pipe.dat").c_str(), 0600), 0);
  EXPECT_TRUE(catalogue->Load());
  EXPECT_THAT(Names(*catalogue),
              UnorderedElementsAre("target.dat", "link.dat", "broken.dat", "root.dat", "pipe.dat"));
  EXPECT_EQ(Find("link.dat").size, 10);
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 5000U + 10 + 7 + 1);
}

TEST_F(CatalogueLoad, SkipsWhatCannotBeDescribed) {
  for (char const* name : {"a.dat", "gone.dat", "huge.dat"}) MakeRecording(name, 2);
  Machine::hooks().lstat = [](std::string const& path, struct stat* status) {
    if (path.ends_with("gone.dat")) return Answer::Failure(ENOENT);
    if (path.ends_with("huge.dat")) return Answer::Failure(EOVERFLOW);
    status->st_mode = path.ends_with("a.dat") ? S_IFREG : S_IFDIR;
    status->st_size = 2;
    return Answer::Success();
  };
  EXPECT_TRUE(catalogue->Load());
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.dat"));
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 2U);
}

/// A standard output that takes nothing, and throws for it, while one exists.
class BrokenOutput : std::streambuf {
  Scoped::AtEnd const output = Scoped::Output(this, std::ios::badbit);
};

TEST_F(CatalogueLoad, TakesANameWithoutADotThoughTheComplaintCannotBePrinted) {
  MakeRecording("README");
  MakeRecording("a.dat");
  {
    BrokenOutput const output;
    EXPECT_NO_THROW(EXPECT_TRUE(catalogue->Load()));
  }
  EXPECT_THAT(Names(*catalogue), UnorderedElementsAre("README", "a.dat"));
}

TEST_F(CatalogueLoad, PrintsTheComplaintOfANameInAFormatOfItsOwn) {
  MakeRecording("README");
  std::cout.width(200);
  std::string const output = Capture::Output([&] { EXPECT_TRUE(catalogue->Load()); });
  EXPECT_EQ(std::cout.width(0), 200);
  EXPECT_THAT(output, MatchesRegex("^basic_string::substr[^\n]*\n$"));
}

TEST_F(CatalogueLoad, PrintsTheLibrarysComplaintOfANameWithoutADotAndTakesIt) {
  MakeRecording("README", 4);
  EXPECT_THAT(Capture::Output([&] { EXPECT_TRUE(catalogue->Load()); }),
              MatchesRegex("^[^[\n]*basic_string::substr[^\n]*size\\(\\) \\(which is 6\\)\n$"));
  EXPECT_EQ(Find("README").extension, "");
  EXPECT_EQ(Find("README").size, 4);
}

TEST_F(CatalogueLoad, TakesNamesOfAnyBytes) {
  std::set<std::string> names = {"a\nb.dat",
                                 " .dat",
                                 "-rf.dat",
                                 "$(x);'\".dat",
                                 "..dat",
                                 "...",
                                 std::string(251, 'n') + ".dat"};
  std::string bytes = ".";
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/' && byte != '.') bytes.push_back(static_cast<char>(byte));
    if (bytes.size() == 128 || byte == 255) {
      names.insert(bytes);
      bytes = ".";
    }
  }
  for (auto const& name : names) MakeRecording(name, 1);
  EXPECT_TRUE(catalogue->Load());
  auto const found = Names(*catalogue);
  EXPECT_EQ(std::set<std::string>(found.begin(), found.end()), names);
  EXPECT_EQ(catalogue->GetTotalFilesSize(), names.size());
  catalogue->ClearList();
  Add(*catalogue, {names.begin(), names.end()});
  for (std::string name : names) EXPECT_TRUE(catalogue->RemoveFileByName(name)) << name;
  EXPECT_THAT(OnCard(), IsEmpty());
}

TEST_F(CatalogueLoad, GivesEachEntryAStreamOfItsOwnThatIsNotOpen) {
  MakeRecording("a.dat", 1);
  MakeRecording("b.dat", 2);
  EXPECT_TRUE(catalogue->Load());
  for (Ifile* file : catalogue->GetList()) {
    ASSERT_NE(file->stream, nullptr);
    EXPECT_TRUE(file->stream->good());
    EXPECT_FALSE(file->stream->is_open());
    EXPECT_TRUE(file->Open(true));
    *file->stream << file->name << std::flush;
    EXPECT_TRUE(file->stream->good());
  }
  EXPECT_EQ(fs::file_size(Where("a.dat")), 6U);
  EXPECT_EQ(fs::file_size(Where("b.dat")), 7U);
}

TEST_F(CatalogueLoad, AgainAbandonsTheObjectsOfTheFirstTime) {
  MakeRecording("a.dat", 5);
  ASSERT_TRUE(catalogue->Load());
  Ifile* const first = catalogue->GetList().front();
  fs::remove(Where("a.dat"));
  MakeRecording("b.dat", 3);
  EXPECT_TRUE(catalogue->Load());
  EXPECT_THAT(Names(*catalogue), ElementsAre("b.dat"));
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 3U);
  ASSERT_TRUE(Machine::LiveFiles().contains(first));
  EXPECT_EQ(first->name, "a.dat");
  EXPECT_EQ(first->size, 5);
}

TEST_F(CatalogueLoad, OfAnotherDirectoryKeepsThatOne) {
  Machine::MakeFile("/mnt/sdcard/other/x.dat", "12");
  std::string other = "/mnt/sdcard/other/";
  EXPECT_TRUE(catalogue->Load(other));
  EXPECT_EQ(catalogue->GetPath(), other);
  EXPECT_THAT(Names(*catalogue), ElementsAre("x.dat"));
  EXPECT_TRUE(catalogue->Load());
  EXPECT_EQ(Find("x.dat").path, "/mnt/sdcard/other/x.dat");
}

TEST_F(CatalogueLoad, MeasuresSizesBeyondFourGibibytes) {
  MakeRecording("a.dat");
  MakeRecording("b.dat");
  constexpr auto kLargest = static_cast<off_t>(sizeof(off_t) == 4 ? 0x7fffffff : 5LL << 30);
  Machine::hooks().lstat = [](std::string const& path, struct stat* status) {
    status->st_mode = path.ends_with(".dat") ? S_IFREG : S_IFDIR;
    status->st_size = kLargest;
    return Answer::Success();
  };
  EXPECT_TRUE(catalogue->Load());
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 2 * static_cast<unsigned long long>(kLargest));
  EXPECT_EQ(Find("a.dat").size, static_cast<std::int64_t>(kLargest));
}

}  // namespace
