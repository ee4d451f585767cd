// The catalogue itself: construction, adding, order, totals, log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <string>

#include "tests/support/CatalogueTest.h"
#include "tests/support/ErrorRecord.h"
#include "tests/support/LogFile.h"

namespace {

using LogFile::kHeader;
using Machine::Answer;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

class Catalogue : public CatalogueTest {
 protected:
  /// The two lines a catalogue logs when it is made, without their headers.
  std::string Figures(unsigned long long minimumFree, float share) {
    std::string const output =
        Capture::Output([&] { FilesManager(&card, kDirectory, minimumFree, share); });
    EXPECT_THAT(output, MatchesRegex(kHeader + "[^\n]*\n" + kHeader + "[^\n]*\n"));
    std::string figures;
    for (auto const& line : LogFile::SplitLines(output)) {
      figures += line.substr(LogFile::kHeaderLength) + "\n";
    }
    return figures;
  }
};

TEST_F(Catalogue, StartsEmptyAndKnowsItsNames) {
  FilesManager catalogue(nullptr, kDirectory, 5, 0.5F);
  EXPECT_THAT(catalogue.GetList(), IsEmpty());
  EXPECT_EQ(catalogue.GetTotalFilesSize(), 0U);
  EXPECT_EQ(catalogue.GetPath(), kDirectory);
  EXPECT_FALSE(catalogue.HasError());
  EXPECT_EQ(catalogue.GetModuleName(), "Quellon::FileUtils");
  EXPECT_EQ(catalogue.GetClassName(), "FilesManager");
}

TEST_F(Catalogue, LogsTheCorrectedMinimumAndTheAllocatedSpace) {
  card.reserveBytes = 100;
  card.totalBytes = 16585293824;
  EXPECT_EQ(Figures(524287910, 0.9F),
            "[SYSTEM] Min free space after correction 524288000B fraction 0.9\n"
            "[SYSTEM] Allocated disk space 14235.3MB\n");
}

TEST_F(Catalogue, PrintsItsFiguresWithSixDigits) {
  card.totalBytes = 1LL << 41;
  EXPECT_EQ(Figures(0, 0.123456789F),
            "[SYSTEM] Min free space after correction 0B fraction 0.123457\n"
            "[SYSTEM] Allocated disk space 258908MB\n");
  card.totalBytes = 1LL << 50;
  EXPECT_THAT(Figures(0, 1.0F), HasSubstr("fraction 1\n[SYSTEM] Allocated disk space 1.07374e+09"));
}

TEST_F(Catalogue, RoundsItsPartOfTheReserveHalfAwayFromZero) {
  card.reserveBytes = 5;
  EXPECT_THAT(Figures(10, 0.5F), HasSubstr(" 13B"));
  card.reserveBytes = 3;
  EXPECT_THAT(Figures(10, 0.5F), HasSubstr(" 12B"));
  card.reserveBytes = -5;
  EXPECT_THAT(Figures(10, 0.5F), HasSubstr(" 7B"));
  card.reserveBytes = 4;
  EXPECT_THAT(Figures(10, 0.3F), HasSubstr(" 11B"));
}

TEST_F(Catalogue, TakesItsPartOfTheReserveInSinglePrecision) {
  card.reserveBytes = 16777217;  // the first whole number that a float cannot hold
  EXPECT_THAT(Figures(0, 1.0F), HasSubstr(" 16777216B"));
  card.reserveBytes = 1000000007;
  EXPECT_THAT(Figures(0, 0.8F), HasSubstr(" 800000000B"));
}

TEST_F(Catalogue, AllocatesItsSpaceInSinglePrecision) {
  card.totalBytes = 16585391616;  // in double precision 12653.6498
  EXPECT_THAT(Figures(0, 0.8F), HasSubstr(" 12653.7MB"));
}

TEST_F(Catalogue, KeepsASixtyFourBitMinimum) {
  card.reserveBytes = 1;
  EXPECT_THAT(Figures(std::numeric_limits<unsigned long long>::max() - 1, 1.0F),
              HasSubstr(" 18446744073709551615B"));
}

TEST_F(Catalogue, LogsNothingWithoutACardThatMayBeUsed) {
  card.available = false;
  EXPECT_THAT(Capture::Output([&] {
                FilesManager(&card, kDirectory, 7, 1.0F);
                FilesManager(nullptr, kDirectory, 7, 1.0F);
                FilesManager(static_cast<Disk*>(nullptr));
                FilesManager(&card, 7, 1.0F);
              }),
              IsEmpty());
}

TEST_F(Catalogue, OfACardAloneLogsTheFiguresOfTheWholeCardAndStaysWithoutIt) {
  card.reserveBytes = 3;
  card.totalBytes = 1048576;
  std::string const output = Capture::Output([&] {
    FilesManager catalogue(&card);
    EXPECT_EQ(catalogue.GetPath(), "");
    EXPECT_EQ(catalogue.GetTotalFilesSize(), 0U);
    EXPECT_EQ(catalogue.GetModuleName(), "Quellon::FileUtils");
    EXPECT_EQ(catalogue.GetClassName(), "FilesManager");
    EXPECT_FALSE(catalogue.Load());
    EXPECT_EQ(catalogue.GetError(), "The disk is not available");
    EXPECT_FALSE(catalogue.CheckAvailableSpace(false));
    EXPECT_EQ(catalogue.GetError(), "Disk not received");
  });
  EXPECT_THAT(output, HasSubstr("Min free space after correction 3B fraction 1\n"));
  EXPECT_THAT(output, HasSubstr("Allocated disk space 1MB\n"));
}

TEST_F(Catalogue, WithoutADirectoryLogsItsFiguresAndStaysWithoutACard) {
  card.reserveBytes = 10;
  card.totalBytes = 1048576;
  std::string const output = Capture::Output([&] {
    FilesManager catalogue(&card, 100, 0.5F);
    EXPECT_EQ(catalogue.GetPath(), "");
    std::string directory = kDirectory;
    EXPECT_FALSE(catalogue.Load(directory));
    EXPECT_EQ(catalogue.GetError(), "The disk is not available");
  });
  EXPECT_THAT(output, HasSubstr("Min free space after correction 105B fraction 0.5\n"));
  EXPECT_THAT(output, HasSubstr("Allocated disk space 0.5MB\n"));
}

TEST_F(Catalogue, AddsAFileWithItsNamesSizeAndTimeAtTheEnd) {
  MakeRecording("new.dat", 10, 5);
  MakeRecording("older.a.gps", 7, 3);
  auto const catalogue = NewCatalogue();
  Add(*catalogue, {"new.dat", "older.a.gps"});
  EXPECT_THAT(Names(*catalogue), ElementsAre("new.dat", "older.a.gps"));
  Ifile const& file = *catalogue->GetList().back();
  EXPECT_EQ(file.path, std::string(kDirectory) + "older.a.gps");
  EXPECT_EQ(file.extension, ".gps");
  EXPECT_EQ(file.size, 7);
  EXPECT_EQ(file.time, 3);
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 17U);
}

TEST_F(Catalogue, AddsAFileWhateverTheStateOfTheCard) {
  MakeRecording("a.dat");
  FilesManager catalogue(nullptr, kDirectory, 0, 1.0F);
  Add(catalogue, {"a.dat"});
  EXPECT_THAT(Names(catalogue), ElementsAre("a.dat"));
}

TEST_F(Catalogue, DoesNotAddAMissingFileAndAbandonsItsObject) {
  auto const catalogue = NewCatalogue();
  std::string name = "missing.dat";
  std::size_t const before = Machine::LiveFiles().size();
  EXPECT_FALSE(catalogue->AddFile(name));
  EXPECT_EQ(ErrorOf(*catalogue), "File not found in AddFile");
  EXPECT_THAT(catalogue->GetList(), IsEmpty());
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 0U);
  EXPECT_EQ(Machine::LiveFiles().size(), before + 1);
}

TEST_F(Catalogue, DoesNotAddAFileTooLargeToBeSized) {
  MakeRecording("huge.dat");
  auto const catalogue = NewCatalogue();
  Machine::hooks().lstat = [](std::string const&, struct stat*) {
    return Answer::Failure(EOVERFLOW);
  };
  std::string name = "huge.dat";
  EXPECT_FALSE(catalogue->AddFile(name));
  EXPECT_EQ(catalogue->GetError(), "File not found");
}

TEST_F(Catalogue, ForgetsTheLastErrorWhenAFileIsAdded) {
  MakeRecording("a.dat");
  auto const catalogue = NewCatalogue();
  std::string name = "missing.dat";
  EXPECT_FALSE(catalogue->AddFile(name));
  Add(*catalogue, {"a.dat"});
  EXPECT_FALSE(catalogue->HasError());
}

TEST_F(Catalogue, PrintsTheLibrarysComplaintOfANameWithoutADotAndAddsIt) {
  MakeRecording("README", 4);
  auto const catalogue = NewCatalogue();
  EXPECT_THAT(Capture::Output([&] { Add(*catalogue, {"README"}); }),
              MatchesRegex("^[^[\n]*basic_string::substr[^\n]*\n$"));
  EXPECT_EQ(catalogue->GetList().front()->extension, "");
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 4U);
}

TEST_F(Catalogue, PrintsTheLibrarysComplaintOfANameWithoutADotBeforeItMissesTheFile) {
  auto const catalogue = NewCatalogue();
  std::string name = "README";
  EXPECT_THAT(Capture::Output([&] { EXPECT_FALSE(catalogue->AddFile(name)); }),
              MatchesRegex("^[^[\n]*basic_string::substr[^\n]*\n$"));
  EXPECT_EQ(catalogue->GetError(), "File not found");
}

TEST_F(Catalogue, SortsOldestFirstAndKeepsTheOrderOfEqualTimes) {
  MakeRecording("x.dat", 0, 2);
  MakeRecording("b.dat", 0, 1);
  MakeRecording("a.dat", 0, 1);
  MakeRecording("before.dat", 0, -1);
  auto const catalogue = NewCatalogue();
  Add(*catalogue, {"x.dat", "b.dat", "before.dat", "a.dat"});
  catalogue->Sort();
  EXPECT_THAT(Names(*catalogue), ElementsAre("before.dat", "b.dat", "a.dat", "x.dat"));
}

TEST_F(Catalogue, ComparesTimesStrictlyAndWithSign) {
  Ifile before;
  Ifile after;
  before.time = -1;
  after.time = 1;
  EXPECT_TRUE(FilesManager::CBSort(&before, &after));
  EXPECT_FALSE(FilesManager::CBSort(&after, &before));
  EXPECT_FALSE(FilesManager::CBSort(&after, &after));
}

TEST_F(Catalogue, ReversesItsOrder) {
  for (char const* name : {"a.dat", "b.dat", "c.dat"}) MakeRecording(name);
  auto const catalogue = NewCatalogue();
  Add(*catalogue, {"a.dat", "b.dat", "c.dat"});
  catalogue->ReverseList();
  EXPECT_THAT(Names(*catalogue), ElementsAre("c.dat", "b.dat", "a.dat"));
}

TEST_F(Catalogue, ClearsItsListButNeitherTheObjectsNorTheTotal) {
  MakeRecording("a.dat", 12);
  auto const catalogue = NewCatalogue();
  Add(*catalogue, {"a.dat"});
  Ifile* const file = catalogue->GetList().front();
  catalogue->ClearList();
  EXPECT_THAT(catalogue->GetList(), IsEmpty());
  EXPECT_TRUE(Machine::LiveFiles().contains(file));
  EXPECT_EQ(file->name, "a.dat");
  EXPECT_THAT(OnCard(), ElementsAre("a.dat"));
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 12U);
  EXPECT_EQ(catalogue->GetTotalFilesSize(true), 0U);
}

TEST_F(Catalogue, SumsAnewWhenAskedToOrWhenTheTotalIsZero) {
  MakeRecording("a.dat", 12);
  auto const catalogue = NewCatalogue();
  Add(*catalogue, {"a.dat"});
  Ifile& file = *catalogue->GetList().front();
  file.size = 20;
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 12U);
  EXPECT_EQ(catalogue->GetTotalFilesSize(false), 12U);
  EXPECT_EQ(catalogue->GetTotalFilesSize(true), 20U);
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 20U);
  file.size = 0;
  EXPECT_EQ(catalogue->GetTotalFilesSize(true), 0U);
  file.size = 3;
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 3U);
}

TEST_F(Catalogue, GivesACopyOfItsPathAndTheListItself) {
  auto const catalogue = NewCatalogue();
  catalogue->GetPath() += "changed";
  EXPECT_EQ(catalogue->GetPath(), kDirectory);
  EXPECT_EQ(&catalogue->GetList(), &catalogue->GetList());
}

TEST_F(Catalogue, LogsALineForEachFileInItsOrder) {
  MakeRecording("rec_0002.dat", 0, 2);
  MakeRecording("rec_0001.dat", 0, 1);
  auto const catalogue = NewCatalogue();
  EXPECT_THAT(Capture::Output([&] { catalogue->Log(); }), IsEmpty());
  Add(*catalogue, {"rec_0002.dat", "rec_0001.dat"});
  EXPECT_THAT(Capture::Output([&] { catalogue->Log(); }),
              MatchesRegex(kHeader + "\\[SYSTEM\\]\\[rec_0002\\.dat\\]\n" + kHeader +
                           "\\[SYSTEM\\]\\[rec_0001\\.dat\\]\n"));
}

TEST_F(Catalogue, DeletesItsObjectsButNotTheirFilesWhenItGoes) {
  for (char const* name : {"a.dat", "b.log"}) MakeRecording(name);
  {
    auto const catalogue = NewCatalogue();
    Add(*catalogue, {"a.dat", "b.log"});
    catalogue->GetList().push_back(nullptr);
    EXPECT_EQ(Machine::LiveFiles().size(), 2U);
  }
  EXPECT_EQ(Machine::LiveFiles().size(), 0U);
  EXPECT_THAT(OnCard(), ElementsAre("a.dat", "b.log"));
}

}  // namespace
