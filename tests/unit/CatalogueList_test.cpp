// The list that a catalogue hands out is the catalogue: what its owner changes there counts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/RemovalTest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class CatalogueList : public RemovalTest {
 protected:
  /// Makes recordings and puts them at the end of the list, as its owner may.
  void Push(std::vector<std::string> const& names) {
    for (auto const& name : names) {
      MakeRecording(name, 10);
      auto file = std::make_unique<Ifile>();
      file->path = kDirectory + name;
      file->name = name;
      file->extension = name.substr(name.rfind('.'));
      EXPECT_TRUE(file->Stat());
      list.push_back(file.release());
    }
  }

  void EraseFirst() {
    delete list.front();
    list.pop_front();
  }

  void Clear() {
    while (!list.empty()) EraseFirst();
  }

  /// Every removal frees ten bytes of a card that has `free` of the hundred it needs.
  void FillCard(std::int64_t free) {
    freeBytes = free;
    RemovalFrees(10);
  }

  std::unique_ptr<FilesManager> const catalogue = NewCatalogue(kDirectory, 100, 1.0F);
  std::list<Ifile*>& list = catalogue->GetList();
};

TEST_F(CatalogueList, ItsAdditionsAreDeletedAsOldFiles) {
  Push({"a.dat", "b.log", "c.dat", "d.dat"});
  EXPECT_EQ(catalogue->DeleteOldFiles(2), 2U);
  EXPECT_THAT(OnCard(), ElementsAre("b.log", "d.dat"));
}

TEST_F(CatalogueList, ItsAdditionsAreRemovedWithAllFiles) {
  Keep(*catalogue, {"a.dat"});
  Push({"b.dat", "c.log", "d.dat"});
  EXPECT_EQ(catalogue->RemoveAllFiles(), 3U);
  EXPECT_THAT(OnCard(), ElementsAre("c.log"));
}

TEST_F(CatalogueList, ItsAdditionsAreRemovedByAPass) {
  Push({"a.dat", "b.gps"});
  catalogue->RemoveAllFilesAsync();
  catalogue->Join();
  EXPECT_THAT(OnCard(), ElementsAre("b.gps"));
}

TEST_F(CatalogueList, ItsAdditionsMakeRoom) {
  FillCard(80);
  Push({"a.dat", "b.dat", "c.dat", "d.dat", "e.dat"});
  catalogue->GetTotalFilesSize(true);
  EXPECT_TRUE(catalogue->MakeRoom());
  EXPECT_THAT(OnCard(), ElementsAre("e.dat"));
}

TEST_F(CatalogueList, ItsAdditionsTakeTheTotalToZeroAtMostAndNoMoreIsDeletedThanRoomIsNeeded) {
  FillCard(80);
  Push({"a.dat", "b.dat", "c.dat", "d.dat", "e.dat"});
  EXPECT_TRUE(catalogue->MakeRoom());
  EXPECT_THAT(OnCard(), ElementsAre("e.dat"));
  std::string name = "e.dat";
  EXPECT_TRUE(catalogue->RemoveFileByName(name));
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 0U);
}

TEST_F(CatalogueList, OnceItIsEmptiedNoPassIsStarted) {
  auto const counting = NewCatalogue<Counting>();
  Keep(*counting, {"a.dat"});
  delete counting->GetList().front();
  counting->GetList().clear();
  counting->RemoveAllFilesAsync();
  counting->Join();
  EXPECT_EQ(counting->passes, 0);
}

TEST_F(CatalogueList, MayLoseItsHeadBetweenTheAttemptsToMakeRoom) {
  Keep(*catalogue, {"a.log", "b.gps", "c.dat", "d.dat", "e.dat", "f.dat"});
  FillCard(70);
  auto const measure = Machine::hooks().statvfs;
  Machine::hooks().statvfs = [&](std::string const& path, struct statvfs* space) {
    if (freeBytes == 90) {
      Clear();
      Push({"g.log", "h.dat", "i.dat", "j.dat"});
    }
    return measure(path, space);
  };
  EXPECT_TRUE(catalogue->MakeRoom());
  EXPECT_THAT(Names(*catalogue), ElementsAre("g.log", "j.dat"));
  EXPECT_THAT(OnCard(), ElementsAre("a.log", "b.gps", "e.dat", "f.dat", "g.log", "j.dat"));
}

TEST_F(CatalogueList, MayBePutInAnotherOrderBetweenTheAttemptsToMakeRoom) {
  Keep(*catalogue, {"a.log", "b.dat", "c.dat", "d.dat", "e.dat", "f.dat"});
  FillCard(70);
  auto const measure = Machine::hooks().statvfs;
  Machine::hooks().statvfs = [&](std::string const& path, struct statvfs* space) {
    if (freeBytes == 90) {
      list.sort([](Ifile* one, Ifile* other) { return one->name > other->name; });
    }
    return measure(path, space);
  };
  EXPECT_TRUE(catalogue->MakeRoom());
  EXPECT_THAT(Names(*catalogue), ElementsAre("d.dat", "a.log"));
}

TEST_F(CatalogueList, MayHoldNullsWhichEveryOperationPasses) {
  for (std::string name : {"b.dat", "a.dat", "c.log"}) {
    list.push_back(nullptr);
    MakeRecording(name, 10, name.front());
    Add(*catalogue, {name});
  }
  list.push_back(nullptr);
  catalogue->ReverseList();
  EXPECT_EQ(catalogue->GetTotalFilesSize(true), 30U);
  std::string const log = Capture::Output([this] { catalogue->Log(); });
  EXPECT_THAT(log, HasSubstr("[SYSTEM][a.dat]"));
  EXPECT_EQ(std::ranges::count(log, '\n'), 3);
  std::string name = "missing.dat";
  EXPECT_FALSE(catalogue->RemoveFileByName(name));
  name = "b.dat";
  EXPECT_TRUE(catalogue->RemoveFileByName(name));
  EXPECT_EQ(catalogue->DeleteOldFiles(1), 1U);
  list.push_front(nullptr);
  catalogue->RemoveAllFilesAsync();
  catalogue->Join();
  EXPECT_THAT(OnCard(), ElementsAre("c.log"));
}

TEST_F(CatalogueList, LosesItsNullsWhenItIsSorted) {
  MakeRecording("b.dat", 0, 2);
  MakeRecording("a.dat", 0, 1);
  Add(*catalogue, {"b.dat", "a.dat"});
  list.insert(std::next(list.begin()), nullptr);
  list.push_front(nullptr);
  catalogue->Sort();
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.dat", "b.dat"));
}

TEST_F(CatalogueList, OfNullsAloneMakesNoRoom) {
  freeBytes = 0;
  list.push_back(nullptr);
  EXPECT_FALSE(catalogue->MakeRoom());
  EXPECT_EQ(catalogue->RemoveAllFiles(), 0U);
}

}  // namespace
