// The owner and a remove-all pass use the catalogue at the same time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <random>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/RemovalTest.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class CatalogueThreads : public RemovalTest {
 protected:
  /// Holds every removal until it is let go.
  class Barrier {
   public:
    Barrier() {
      Machine::hooks().removeFile = [this](Ifile& file) {
        reached.release();
        opened.wait(false);
        return Machine::Remove(file);
      };
    }
    void AwaitRemoval() { reached.acquire(); }
    void Open() {
      opened = true;
      opened.notify_all();
    }

   private:
    std::counting_semaphore<> reached{0};
    std::atomic<bool> opened = false;
  };

  /// Whether `work`, begun on another thread, waits for something.
  static bool Waits(std::future<void> const& work) {
    return work.wait_for(50ms) == std::future_status::timeout;
  }

  std::unique_ptr<FilesManager> catalogue = NewCatalogue();
};

TEST_F(CatalogueThreads, PassRemovesAllButTheProtectedOnAThreadOfItsOwn) {
  Keep(*catalogue, {"a.dat", "b.log", "c.dat", "d.gps"});
  std::vector<std::thread::id> ids;
  Machine::hooks().removeFile = [&ids](Ifile& file) {
    ids.push_back(std::this_thread::get_id());
    return Machine::Remove(file);
  };
  catalogue->RemoveAllFilesAsync();
  catalogue->Join();
  EXPECT_THAT(Names(*catalogue), ElementsAre("b.log", "d.gps"));
  EXPECT_THAT(OnCard(), ElementsAre("b.log", "d.gps"));
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 20U);
  EXPECT_THAT(ids, SizeIs(2));
  EXPECT_THAT(ids, testing::Not(testing::Contains(std::this_thread::get_id())));
}

TEST_F(CatalogueThreads, APassMayBeRunWithoutAThread) {
  Keep(*catalogue, {"a.dat", "b.log", "c.dat"});
  catalogue->Run();
  EXPECT_THAT(OnCard(), ElementsAre("b.log"));
}

TEST_F(CatalogueThreads, StartOfAPassDoesNotWaitForIt) {
  Keep(*catalogue, {"a.dat", "b.dat"});
  Barrier barrier;
  catalogue->RemoveAllFilesAsync();
  barrier.AwaitRemoval();
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 20U) << "the total is read without waiting";
  auto sorting = std::async(std::launch::async, [this] { catalogue->Sort(); });
  EXPECT_TRUE(Waits(sorting)) << "the pass holds the list";
  barrier.Open();
  sorting.get();
  EXPECT_THAT(catalogue->GetList(), IsEmpty());
}

TEST_F(CatalogueThreads, NoneIsStartedForAnEmptyCatalogue) {
  auto const empty = NewCatalogue<Counting>();
  empty->RemoveAllFilesAsync();
  empty->Join();
  EXPECT_EQ(empty->passes, 0);
}

TEST_F(CatalogueThreads, OnePassIsRunForAStartAndASecondStartDuringItIsNone) {
  auto const counting = NewCatalogue<Counting>();
  Keep(*counting, {"a.log", "b.dat"});
  Barrier barrier;
  counting->RemoveAllFilesAsync();
  barrier.AwaitRemoval();
  counting->RemoveAllFilesAsync();
  barrier.Open();
  counting->Join();
  EXPECT_EQ(counting->passes, 1);
}

TEST_F(CatalogueThreads, AStartAtTheVeryEndOfAPassIsNotLost) {
  auto const counting = NewCatalogue<Counting>();
  for (char const* name : {"a.dat", "b.dat"}) MakeRecording(name);
  Add(*counting, {"a.dat"});
  counting->afterPass = [&] {
    if (counting->passes > 1) return;
    Add(*counting, {"b.dat"});
    counting->RemoveAllFilesAsync();
  };
  counting->RemoveAllFilesAsync();
  counting->Join();
  EXPECT_EQ(counting->passes, 2);
  EXPECT_THAT(OnCard(), IsEmpty());
}

TEST_F(CatalogueThreads, APassCanBeRunAgainAndAgain) {
  for (int round = 0; round < 300; ++round) {
    Keep(*catalogue, {"a.dat", "b.dat"});
    catalogue->RemoveAllFilesAsync();
    catalogue->Join();
    ASSERT_THAT(OnCard(), IsEmpty()) << "round " << round;
  }
  EXPECT_EQ(Machine::LiveFiles().size(), 0U);
}

TEST_F(CatalogueThreads, TheDestructorWaitsForAPassBeforeItReleasesAnything) {
  Keep(*catalogue, {"a.dat", "b.dat", "c.log"});
  Barrier barrier;
  catalogue->RemoveAllFilesAsync();
  barrier.AwaitRemoval();
  auto destruction = std::async(std::launch::async, [this] { catalogue.reset(); });
  EXPECT_TRUE(Waits(destruction));
  EXPECT_EQ(Machine::LiveFiles().size(), 3U);
  barrier.Open();
  destruction.get();
  EXPECT_THAT(OnCard(), ElementsAre("c.log")) << "the pass was not cut short";
  EXPECT_EQ(Machine::LiveFiles().size(), 0U);
}

TEST_F(CatalogueThreads, ACatalogueMayGoRightAfterAStart) {
  for (int round = 0; round < 300; ++round) {
    catalogue = NewCatalogue();
    Keep(*catalogue, {"a.dat", "b.dat"});
    catalogue->RemoveAllFilesAsync();
    catalogue.reset();
    ASSERT_THAT(OnCard(), IsEmpty()) << "round " << round;
  }
  EXPECT_EQ(Machine::LiveFiles().size(), 0U);
}

TEST_F(CatalogueThreads, APassThatFailsIsLoggedAndHarmsNoLaterOne) {
  Keep(*catalogue, {"a.dat"});
  Machine::hooks().removeFile = [](Ifile&) -> bool { throw 7; };
  EXPECT_THAT(Capture::Output([this] {
                catalogue->RemoveAllFilesAsync();
                catalogue->Join();
              }),
              HasSubstr("[ERROR]IThread: unknown exception\n"));
  Machine::hooks().removeFile = nullptr;
  catalogue->RemoveAllFilesAsync();
  catalogue->Join();
  EXPECT_THAT(OnCard(), IsEmpty());
}

/// What an owner may do at any time, at random but always the same.
class Owner {
 public:
  using FilesManager = Quellon::FileUtils::FilesManager;

  explicit Owner(FilesManager& used) : catalogue(used) {}

  void DoSomething() {
    switch (random() % 9) {
      case 0:
        return catalogue.Sort();
      case 1:
        return catalogue.ReverseList();
      case 2:
        return catalogue.Log();
      case 3:
        return void(catalogue.GetTotalFilesSize());
      case 4:
        return void(catalogue.GetTotalFilesSize(true));
      case 5:
        return void(catalogue.MakeRoom());
      case 6:
        return void(catalogue.DeleteOldFiles(1));
      case 7:
        return catalogue.RemoveAllFilesAsync();
      default:
        RemoveByName();
    }
  }

  int abandoned = 0;  ///< objects of the files removed by name

 private:
  void RemoveByName() {
    std::string name = "rec_" + std::to_string(random() % 300) + ".dat";
    if (catalogue.RemoveFileByName(name)) ++abandoned;
  }

  FilesManager& catalogue;
  std::minstd_rand random{7};
};

TEST_F(CatalogueThreads, OwnerAndPassesNeverDisturbEachOther) {
  Capture::Descriptor const hidden(1);
  Owner owner(*catalogue);
  std::vector<std::string> isProtected;
  for (int number = 0; number < 300; ++number) {
    bool const log = number % 10 == 0;
    std::string const name = "rec_" + std::to_string(number) + (log ? ".log" : ".dat");
    if (log) isProtected.push_back(name);
    Keep(*catalogue, {name});
    for (int deed = 0; deed < 3; ++deed) owner.DoSomething();
  }
  catalogue->Join();
  catalogue->RemoveAllFiles();
  std::sort(isProtected.begin(), isProtected.end());
  EXPECT_EQ(OnCard(), isProtected);
  EXPECT_EQ(catalogue->GetTotalFilesSize(), 10 * isProtected.size());
  EXPECT_EQ(catalogue->GetTotalFilesSize(true), 10 * isProtected.size());
  EXPECT_EQ(Machine::LiveFiles().size(),
            isProtected.size() + static_cast<std::size_t>(owner.abandoned));
}

TEST_F(CatalogueThreads, ADirectoryMayBeLoadedDuringAPass) {
  MakeRecording("kept.log");
  for (int round = 0; round < 30; ++round) {
    for (char const* name : {"a.dat", "b.dat", "c.dat", "d.dat", "e.dat"}) MakeRecording(name);
    ASSERT_TRUE(catalogue->Load());
    catalogue->RemoveAllFilesAsync();
  }
  catalogue->Join();
  ASSERT_TRUE(catalogue->Load());
  catalogue->RemoveAllFiles();
  EXPECT_THAT(OnCard(), ElementsAre("kept.log"));
}

}  // namespace
