// Deleting the oldest files, one by name, and all of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/IException.h"
#include "tests/support/RemovalTest.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class SpaceReclamation : public RemovalTest {
 protected:
  /// What removing the named files does instead of succeeding.
  static void Removing(std::map<std::string, std::function<bool()>> answers) {
    Machine::hooks().removeFile = [answers = std::move(answers)](Ifile& file) {
      auto const answer = answers.find(file.name);
      return answer != answers.end() ? answer->second() : Machine::Remove(file);
    };
  }
  static bool Fails() { return false; }
  static bool Throws() { throw Tarvik::IException("cannot be removed", EIO); }
  static bool ThrowsAnother() { throw std::runtime_error("cannot be removed"); }
  static bool ThrowsANumber() { throw 7; }

  /// What the library says while files cannot be removed or removing them throws.
  std::string SaidWhileNothingCanBeRemoved() {
    return Capture::AllOutput([this] {
      for (auto const& failure : {Fails, Throws}) {
        Machine::hooks().removeFile = [failure](Ifile&) { return failure(); };
        EXPECT_FALSE(RemoveByName("a.dat"));
      }
      Machine::hooks().removeFile = [](Ifile&) { return Throws(); };
      EXPECT_EQ(catalogue->DeleteOldFiles(1), 0U);
      Machine::hooks().removeFile = [](Ifile&) { return Fails(); };
      EXPECT_EQ(catalogue->DeleteOldFiles(1), 0U);
    });
  }

  bool RemoveByName(std::string name) { return catalogue->RemoveFileByName(name); }

  std::unique_ptr<FilesManager> const catalogue = NewCatalogue();
};

TEST_F(SpaceReclamation, DeletesTheOldestButNeitherLogsNorPositions) {
  Keep(*catalogue, {"a.log", "b.dat", "c.gps", "d.dat", "e.dat"});
  EXPECT_EQ(catalogue->DeleteOldFiles(2), 2U);
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.log", "c.gps", "e.dat"));
  EXPECT_THAT(OnCard(), ElementsAre("a.log", "c.gps", "e.dat"));
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 30U);
}

TEST_F(SpaceReclamation, DeletesInTheOrderOfTheCatalogueWithoutPauses) {
  Keep(*catalogue, {"c.dat", "a.dat", "b.dat"});
  EXPECT_EQ(catalogue->DeleteOldFiles(2), 2U);
  EXPECT_THAT(Machine::Trace(), ElementsAre("unlink /mnt/sdcard/cr/c.dat",  //
                                            "unlink /mnt/sdcard/cr/a.dat"));
}

TEST_F(SpaceReclamation, DeletesTheObjectsOfTheFilesItDeleted) {
  Keep(*catalogue, {"a.dat", "b.dat"});
  Ifile* const first = catalogue->GetList().front();
  Ifile* const second = catalogue->GetList().back();
  EXPECT_EQ(catalogue->DeleteOldFiles(1), 1U);
  EXPECT_FALSE(Machine::LiveFiles().contains(first));
  EXPECT_TRUE(Machine::LiveFiles().contains(second));
}

TEST_F(SpaceReclamation, DeletesNoMoreThanThereIs) {
  Keep(*catalogue, {"a.dat", "b.dat", "c.dat"});
  EXPECT_EQ(catalogue->DeleteOldFiles(10), 3U);
  EXPECT_THAT(OnCard(), IsEmpty());
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 0U);
  EXPECT_EQ(catalogue->DeleteOldFiles(std::numeric_limits<unsigned int>::max()), 0U);
}

TEST_F(SpaceReclamation, OfNoFilesChangesNothing) {
  EXPECT_EQ(catalogue->DeleteOldFiles(3), 0U);
  Keep(*catalogue, {"a.dat"});
  EXPECT_EQ(catalogue->DeleteOldFiles(0), 0U);
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.dat"));
  EXPECT_THAT(OnCard(), ElementsAre("a.dat"));
}

TEST_F(SpaceReclamation, ProtectsTheExactExtensionsOnly) {
  std::vector<std::string> const isProtected = {".gps", ".log", "a.b.log", "a.dat.gps"};
  std::vector<std::string> const others = {"a.LOG",  "b.Gps", "c.logs", "d.log.", "e.gps1",
                                           "f.glog", ".lo",   "h.gp",   "i.log "};
  Keep(*catalogue, others);
  Keep(*catalogue, isProtected);
  EXPECT_EQ(catalogue->RemoveAllFiles(), others.size());
  EXPECT_EQ(Names(*catalogue), isProtected);
  EXPECT_EQ(OnCard(), isProtected);
}

TEST_F(SpaceReclamation, DoesNotTakeANameForAnExtension) {
  Capture::Output([&] {
    Keep(*catalogue, {"log", "gps"});
  });  // names without a dot are complained of
  EXPECT_EQ(catalogue->RemoveAllFiles(), 2U);
}

TEST_F(SpaceReclamation, DropsAFileThatCannotBeRemovedAndGoesOn) {
  Keep(*catalogue, {"a.dat", "b.dat", "c.dat"});
  Ifile* const stuck = catalogue->GetList().front();
  Removing({{"a.dat", Fails}});
  EXPECT_EQ(catalogue->DeleteOldFiles(1), 1U);
  EXPECT_THAT(Names(*catalogue), ElementsAre("c.dat"));
  EXPECT_THAT(OnCard(), ElementsAre("a.dat", "c.dat"));
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 20U) << "the total keeps its size";
  ASSERT_TRUE(Machine::LiveFiles().contains(stuck));
  EXPECT_EQ(stuck->name, "a.dat");
  EXPECT_FALSE(catalogue->HasError());
}

TEST_F(SpaceReclamation, DropsAFileAfterThreeAttemptsToRemoveIt) {
  Keep(*catalogue, {"a.dat"});
  Machine::hooks().unlink = [](std::string const&) { return Machine::Answer::Failure(EBUSY); };
  EXPECT_EQ(catalogue->DeleteOldFiles(1), 0U);
  EXPECT_THAT(catalogue->GetList(), IsEmpty());
  EXPECT_EQ(Machine::Traced("unlink").size(), 3U);
  EXPECT_EQ(Machine::Slept(), 150ms);
}

TEST_F(SpaceReclamation, DropsAFileThatVanishedAndKeepsItsSizeInTheTotal) {
  Keep(*catalogue, {"a.dat", "b.dat"});
  std::filesystem::remove(Where("a.dat"));
  EXPECT_EQ(catalogue->DeleteOldFiles(2), 1U);
  EXPECT_THAT(catalogue->GetList(), IsEmpty());
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 10U);
  EXPECT_EQ(catalogue->GetTotalFilesSize(true), 0U);
}

TEST_F(SpaceReclamation, KeepsAFileWhoseRemovalThrowsAndGoesOn) {
  Keep(*catalogue, {"a.dat", "b.dat", "c.dat", "d.dat"});
  Removing({{"a.dat", Throws}, {"b.dat", ThrowsAnother}});
  EXPECT_EQ(catalogue->DeleteOldFiles(1), 1U);
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.dat", "b.dat", "d.dat"));
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 30U);
  EXPECT_EQ(Machine::LiveFiles().size(), 3U);
  EXPECT_FALSE(catalogue->HasError());
}

TEST_F(SpaceReclamation, LetsAnythingButAnExceptionPassAndFreesItsLock) {
  Keep(*catalogue, {"a.dat"});
  Removing({{"a.dat", ThrowsANumber}});
  EXPECT_THROW(catalogue->DeleteOldFiles(1), int);
  EXPECT_THROW(RemoveByName("a.dat"), int);
  catalogue->Sort();
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.dat"));
}

TEST_F(SpaceReclamation, OfAllFilesLeavesTheProtectedAndThoseWhoseRemovalThrew) {
  Keep(*catalogue, {"a.dat", "b.log", "c.dat", "d.gps", "e.dat", "f.dat"});
  Removing({{"c.dat", Throws}, {"e.dat", Fails}});
  EXPECT_EQ(catalogue->RemoveAllFiles(), 2U);
  EXPECT_THAT(Names(*catalogue), ElementsAre("b.log", "c.dat", "d.gps"));
  EXPECT_THAT(OnCard(), ElementsAre("b.log", "c.dat", "d.gps", "e.dat"));
}

TEST_F(SpaceReclamation, DoesNotNeedACard) {
  Keep(*catalogue, {"a.dat"});
  card.available = false;
  EXPECT_EQ(catalogue->RemoveAllFiles(), 1U);
}

TEST_F(SpaceReclamation, RemovesALinkAndNotWhatItLeadsTo) {
  Machine::MakeFile("/mnt/sdcard/precious.dat", "kept");
  std::filesystem::create_symlink("../precious.dat", Where("link.dat"));
  Add(*catalogue, {"link.dat"});
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 15U);
  EXPECT_EQ(catalogue->DeleteOldFiles(1), 1U);
  EXPECT_THAT(OnCard(), IsEmpty());
  EXPECT_EQ(Machine::ReadFile("/mnt/sdcard/precious.dat"), "kept");
}

TEST_F(SpaceReclamation, ByNameRemovesThatFileWhateverItsExtensionAndKeepsItsObject) {
  Keep(*catalogue, {"a.dat", "b.log", "c.dat"});
  Ifile* const file = *std::next(catalogue->GetList().begin());
  EXPECT_TRUE(RemoveByName("b.log"));
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.dat", "c.dat"));
  EXPECT_THAT(OnCard(), ElementsAre("a.dat", "c.dat"));
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 20U);
  ASSERT_TRUE(Machine::LiveFiles().contains(file));
  EXPECT_EQ(file->name, "b.log");
}

TEST_F(SpaceReclamation, ByNameNeedsTheExactName) {
  Keep(*catalogue, {"a.dat"});
  for (char const* name : {"", "a", "a.da", "A.dat", "a.dat ", "/mnt/sdcard/cr/a.dat"}) {
    EXPECT_FALSE(RemoveByName(name)) << name;
  }
  MakeRecording("b.dat");
  EXPECT_FALSE(RemoveByName("b.dat")) << "it is on the card, but not catalogued";
  EXPECT_THAT(OnCard(), ElementsAre("a.dat", "b.dat"));
  EXPECT_FALSE(catalogue->HasError());
}

TEST_F(SpaceReclamation, ByNameLeavesAnEarlierErrorAlone) {
  std::string missing = "missing.dat";
  EXPECT_FALSE(catalogue->AddFile(missing));
  EXPECT_FALSE(RemoveByName("a.dat"));
  EXPECT_EQ(catalogue->GetError(), "File not found");
}

TEST_F(SpaceReclamation, ByNameGoesOnToTheNextOfThatNameWhenRemovalFails) {
  Keep(*catalogue, {"a.dat", "b.dat", "a.dat"});
  Ifile* const first = catalogue->GetList().front();
  first->size = 1;
  Machine::hooks().removeFile = [first](Ifile& file) {
    return &file != first && Machine::Remove(file);
  };
  EXPECT_TRUE(RemoveByName("a.dat"));
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.dat", "b.dat"));
  EXPECT_EQ(catalogue->GetList().front(), first);
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 20U);
}

TEST_F(SpaceReclamation, ByNameRemovesOnlyTheFirstOfThatName) {
  Keep(*catalogue, {"a.dat", "b.dat", "a.dat"});
  EXPECT_TRUE(RemoveByName("a.dat"));
  EXPECT_THAT(Names(*catalogue), ElementsAre("b.dat", "a.dat"));
  EXPECT_FALSE(RemoveByName("a.dat")) << "its file has gone with the first";
  EXPECT_THAT(Names(*catalogue), ElementsAre("b.dat", "a.dat"));
}

TEST_F(SpaceReclamation, ByNameFailsAndKeepsTheFileWhenNoRemovalSucceeds) {
  Keep(*catalogue, {"a.dat", "a.dat"});
  Removing({{"a.dat", Fails}});
  EXPECT_FALSE(RemoveByName("a.dat"));
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.dat", "a.dat"));
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 20U);
  EXPECT_FALSE(catalogue->HasError());
}

TEST_F(SpaceReclamation, ByNameStopsWhenRemovalThrows) {
  Keep(*catalogue, {"a.dat", "a.dat"});
  int removals = 0;
  Machine::hooks().removeFile = [&removals](Ifile&) -> bool {
    ++removals;
    return Throws();
  };
  EXPECT_FALSE(RemoveByName("a.dat"));
  EXPECT_EQ(removals, 1);
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.dat", "a.dat"));
  EXPECT_FALSE(catalogue->HasError());
  catalogue->Sort();  // the lock is free again
}

TEST_F(SpaceReclamation, SaysNothingOfFilesThatCannotBeRemoved) {
  Keep(*catalogue, {"a.dat"});
  EXPECT_EQ(SaidWhileNothingCanBeRemoved(), "");
}

TEST_F(SpaceReclamation, ByNameLetsOtherExceptionsPassAndFreesItsLock) {
  Keep(*catalogue, {"a.dat"});
  Removing({{"a.dat", ThrowsAnother}});
  EXPECT_THROW(RemoveByName("a.dat"), std::runtime_error);
  catalogue->Sort();
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.dat"));
}

}  // namespace
