// A catalogue is loaded while its owner goes on.
#include "FileUtils/BackgroundLoad.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "tests/machine/Threads.h"
#include "tests/support/CatalogueTest.h"
#include "tests/support/HeldLoad.h"

namespace {

using Machine::hooks;
using Quellon::FileUtils::BackgroundLoad;
using testing::ElementsAre;

class BackgroundLoadTest : public CatalogueTest {
 protected:
  std::unique_ptr<FilesManager> catalogue = NewCatalogue();

  /// Loads, adds these meanwhile and finishes.
  bool LoadWith(std::vector<std::string> const& added) {
    BackgroundLoad load(*catalogue);
    for (auto const& name : added) load.Add(name);
    EXPECT_TRUE(ComesTrue([&load] { return load.IsOver(); }));
    return load.Finish();
  }
};

TEST_F(BackgroundLoadTest, WhatTheLoadFoundTooIsCataloguedOnceAsTheNewestWithTheSizeItHasThen) {
  for (auto const* name : {"a.dat", "b.dat", "c.dat"}) MakeRecording(name, 10, 1'600'000'000);
  BackgroundLoad load(*catalogue);
  load.Add("b.dat");
  ASSERT_TRUE(ComesTrue([&load] { return load.IsOver(); }));
  ASSERT_THAT(Names(*catalogue), testing::UnorderedElementsAre("a.dat", "b.dat", "c.dat"));
  MakeRecording("b.dat", 25, 1'600'000'000);
  EXPECT_TRUE(load.Finish());
  EXPECT_THAT(Names(*catalogue), testing::UnorderedElementsAre("a.dat", "b.dat", "c.dat"));
  EXPECT_EQ(Names(*catalogue).back(), "b.dat");
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 45U);
}

TEST_F(BackgroundLoadTest, WhatWasAddedKeepsItsOrder) {
  for (auto const* name : {"z.dat", "z.gps", "a.dat"}) MakeRecording(name, 10);
  EXPECT_TRUE(LoadWith({"z.dat", "z.gps", "a.dat"}));
  EXPECT_THAT(Names(*catalogue), ElementsAre("z.dat", "z.gps", "a.dat"));
}

TEST_F(BackgroundLoadTest, AFileThatIsGoneDoesNotKeepTheOthersOut) {
  MakeRecording("b.dat");
  BackgroundLoad load(*catalogue);
  load.Add("a.dat");
  load.Add("b.dat");
  EXPECT_TRUE(load.Finish());
  EXPECT_THAT(load.GetGone(), ElementsAre("a.dat"));
  EXPECT_THAT(Names(*catalogue), ElementsAre("b.dat"));
}

TEST_F(BackgroundLoadTest, IsDoneAtItsEndWhereThereIsNoThread) {
  MakeRecording("a.dat");
  Machine::ThreadHooks threads;
  threads.create = [] { return EAGAIN; };
  BackgroundLoad load(*catalogue);
  EXPECT_TRUE(load.IsOver());
  EXPECT_FALSE(load.Hangs());
  EXPECT_TRUE(load.Finish());
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.dat"));
}

TEST_F(BackgroundLoadTest, AFileThatIsAddedTwiceIsInItOnce) {
  MakeRecording("a.dat");
  MakeRecording("b.dat");
  EXPECT_TRUE(LoadWith({"a.dat", "b.dat", "a.dat"}));
  EXPECT_THAT(Names(*catalogue), ElementsAre("b.dat", "a.dat"));
}

TEST_F(BackgroundLoadTest, AFailedLoadIsAFailure) {
  card.available = false;
  EXPECT_FALSE(LoadWith({}));
  EXPECT_EQ(catalogue->GetError(), "The disk is not available");
}

TEST_F(BackgroundLoadTest, WhatTheLoadThrewIsThrownToItsOwner) {
  hooks().sleep = [](auto) { throw std::bad_alloc(); };
  BackgroundLoad load(*catalogue);
  EXPECT_THROW(load.Finish(), std::bad_alloc);
}

TEST_F(BackgroundLoadTest, HangsWhenItHasNotEndedAfterHalfAnHour) {
  HeldLoad held;
  MakeRecording("a.dat");
  hooks().monotonic = timespec{1000, 0};
  BackgroundLoad load(*catalogue);
  held.Await();
  hooks().monotonic = timespec{1000 + 1800, 0};
  EXPECT_FALSE(load.Hangs());
  hooks().monotonic = timespec{1000 + 1801, 0};
  EXPECT_TRUE(load.Hangs());
  held.LetGo();
  hooks().monotonic.reset();
  ASSERT_TRUE(ComesTrue([&load] { return load.IsOver(); }));
}

}  // namespace
