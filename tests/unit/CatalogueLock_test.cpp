// Which operations take the catalogue's lock, how often, and what happens when it fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <optional>
#include <string>
#include <system_error>

#include "base/IError.h"
#include "tests/machine/Threads.h"
#include "tests/support/CatalogueTest.h"
#include "tests/support/LogFile.h"

namespace {

/// Where the lock under test lies: in the catalogue's own part of its object.
struct Watched {
  char const* begin = nullptr;
  char const* end = nullptr;
  int locked = 0;
  int held = 0;
  bool fails = false;
  bool isBusy = false;  // for whoever does not wait
};
Watched watched;

bool IsWatched(pthread_mutex_t const* mutex) {
  auto const* const place = reinterpret_cast<char const*>(mutex);
  return watched.begin <= place && place < watched.end;
}

class CatalogueLock : public CatalogueTest {
 protected:
  CatalogueLock() {
    for (char const* name : {"a.dat", "b.dat", "c.dat"}) MakeRecording(name, 4);
    Add(catalogue, {"a.dat", "b.dat"});
    WatchLockOf(catalogue);
    threads.lock = [](pthread_mutex_t const* mutex) -> std::optional<int> {
      if (!IsWatched(mutex)) return std::nullopt;
      if (watched.fails) return EINVAL;
      EXPECT_EQ(watched.held, 0) << "the lock is taken recursively";
      ++watched.locked;
      ++watched.held;
      return std::nullopt;
    };
    threads.tryLock = [](pthread_mutex_t const* mutex) -> std::optional<int> {
      if (!IsWatched(mutex)) return std::nullopt;
      if (watched.fails) return EINVAL;
      if (watched.isBusy) return EBUSY;
      ++watched.held;
      return std::nullopt;
    };
    threads.unlock = [](pthread_mutex_t const* mutex) {
      if (IsWatched(mutex)) --watched.held;
    };
  }
  ~CatalogueLock() override { watched = {}; }

  static void WatchLockOf(FilesManager& owner) {
    auto* const errors = static_cast<Tarvik::Interfaces::IError*>(&owner);
    watched = {reinterpret_cast<char*>(errors), reinterpret_cast<char*>(&owner + 1)};
  }

  /// Every write(2) from here on must happen while the lock is held. They are counted.
  static void ExpectHeldWhileWriting(int& writes) {
    Machine::hooks().write = [&writes](auto&&...) -> std::optional<ssize_t> {
      ++writes;
      EXPECT_EQ(watched.held, 1);
      return std::nullopt;
    };
  }

  /// How often `work` takes the lock; it frees it as often.
  template <typename Work>
  static int Locks(Work work) {
    watched.locked = 0;
    work();
    EXPECT_EQ(watched.held, 0);
    return watched.locked;
  }

  Machine::ThreadHooks threads;
  std::unique_ptr<FilesManager> const owner = NewCatalogue();
  FilesManager& catalogue = *owner;
};

TEST_F(CatalogueLock, IsTakenOnceForAWholeOperation) {
  std::string name = "b.dat";
  EXPECT_EQ(Locks([&] { catalogue.Sort(); }), 1);
  EXPECT_EQ(Locks([&] { catalogue.ReverseList(); }), 1);
  EXPECT_EQ(Locks([&] { Capture::Output([&] { catalogue.Log(); }); }), 1);
  EXPECT_EQ(Locks([&] { catalogue.GetTotalFilesSize(true); }), 1);
  EXPECT_EQ(Locks([&] { EXPECT_TRUE(catalogue.RemoveFileByName(name)); }), 1);
  EXPECT_EQ(Locks([&] { EXPECT_FALSE(catalogue.RemoveFileByName(name)); }), 1);
  EXPECT_EQ(Locks([&] { EXPECT_EQ(catalogue.DeleteOldFiles(9), 1U); }), 1);
  EXPECT_EQ(Locks([&] { catalogue.ClearList(); }), 1);
}

TEST_F(CatalogueLock, IsTakenByLoadToEmptyTheListAndForEachInsertion) {
  EXPECT_EQ(Locks([&] { EXPECT_TRUE(catalogue.Load()); }), 4);
  EXPECT_EQ(Locks([&] { EXPECT_TRUE(catalogue.LoadAndSort()); }), 5);
}

TEST_F(CatalogueLock, IsTakenByAddFileForTheInsertionOnly) {
  std::string name = "c.dat";
  EXPECT_EQ(Locks([&] { EXPECT_TRUE(catalogue.AddFile(name)); }), 1);
  name = "missing.dat";
  EXPECT_EQ(Locks([&] { EXPECT_FALSE(catalogue.AddFile(name)); }), 0);
}

TEST_F(CatalogueLock, IsNotTakenToReadWithoutIt) {
  EXPECT_EQ(Locks([&] {
              EXPECT_EQ(catalogue.GetTotalFilesSize(), 8U);
              catalogue.GetPath();
              catalogue.GetList();
              catalogue.CheckAvailableSpace(false);
              EXPECT_EQ(catalogue.DeleteOldFiles(0), 0U);
            }),
            0);
}

TEST_F(CatalogueLock, IsTakenToSumATotalOfZero) {
  catalogue.ClearList();
  catalogue.GetTotalFilesSize(true);
  EXPECT_EQ(Locks([&] { EXPECT_EQ(catalogue.GetTotalFilesSize(), 0U); }), 1);
}

TEST_F(CatalogueLock, IsNotTakenToDeleteFromAnEmptyCatalogue) {
  catalogue.ClearList();
  EXPECT_EQ(Locks([&] {
              EXPECT_EQ(catalogue.DeleteOldFiles(5), 0U);
              EXPECT_EQ(catalogue.RemoveAllFiles(), 0U);
              catalogue.RemoveAllFilesAsync();
            }),
            0);
}

TEST_F(CatalogueLock, IsNotTakenToDeleteFromAListThatItsOwnerEmptied) {
  auto& list = catalogue.GetList();
  for (Ifile* file : list) delete file;
  list.clear();
  EXPECT_EQ(Locks([&] { EXPECT_EQ(catalogue.RemoveAllFiles(), 0U); }), 0);
}

// Nobody knows then how many files there are, if any.
TEST_F(CatalogueLock, IsWaitedForToDeleteFromAListThatIsInUse) {
  watched.isBusy = true;
  EXPECT_EQ(Locks([&] { EXPECT_EQ(catalogue.DeleteOldFiles(1), 1U); }), 1);
  EXPECT_EQ(Locks([&] { EXPECT_EQ(catalogue.RemoveAllFiles(), 1U); }), 1);
  EXPECT_EQ(Locks([&] { EXPECT_EQ(catalogue.RemoveAllFiles(), 0U); }), 1);
}

TEST_F(CatalogueLock, IsNotWaitedForToStartAPass) {
  watched.isBusy = true;
  EXPECT_EQ(Locks([&] {
              catalogue.RemoveAllFilesAsync();
              catalogue.Join();
            }),
            1)
      << "that of the pass itself";
  EXPECT_THAT(OnCard(), testing::ElementsAre("c.dat"));
}

TEST_F(CatalogueLock, IsFreeWhileMakeRoomMeasuresAndWaits) {
  catalogue.ClearList();
  freeBytes = 0;
  auto const measure = Machine::hooks().statvfs;
  Machine::hooks().statvfs = [&](std::string const& path, struct statvfs* space) {
    EXPECT_EQ(watched.held, 0);
    return measure(path, space);
  };
  Machine::hooks().sleep = [](auto) { EXPECT_EQ(watched.held, 0); };
  EXPECT_FALSE(catalogue.MakeRoom());
}

TEST_F(CatalogueLock, IsHeldWhileFilesAreRemoved) {
  int removals = 0;
  Machine::hooks().unlink = [&removals](std::string const&) {
    ++removals;
    EXPECT_EQ(watched.held, 1);
    return Machine::Answer::Success();
  };
  std::string name = "a.dat";
  EXPECT_TRUE(catalogue.RemoveFileByName(name));
  EXPECT_EQ(catalogue.RemoveAllFiles(), 1U);
  EXPECT_EQ(removals, 2);
}

TEST_F(CatalogueLock, IsHeldWhileTheListIsLogged) {
  LogFile::BeginAnew();
  int written = 0;
  ExpectHeldWhileWriting(written);
  Capture::Output([this] { catalogue.Log(); });
  EXPECT_EQ(written, 2) << "one line for each file";
}

TEST_F(CatalogueLock, IsTakenOnceByACatalogueThatGoesAndHeldWhileItDeletesItsObjects) {
  auto leaving = NewCatalogue();
  Add(*leaving, {"a.dat", "b.dat"});
  char text[] = "closing writes this";
  for (Ifile* file : leaving->GetList()) {
    file->Open(true);
    file->Write(text, sizeof text);
  }
  WatchLockOf(*leaving);
  int written = 0;
  ExpectHeldWhileWriting(written);
  EXPECT_EQ(Locks([&] { leaving.reset(); }), 1);
  EXPECT_EQ(written, 2);
}

TEST_F(CatalogueLock, ThatFailsIsReportedByTheStandardLibrary) {
  watched.fails = true;
  std::string name = "a.dat";
  EXPECT_THROW(catalogue.Sort(), std::system_error);
  EXPECT_THROW(catalogue.ReverseList(), std::system_error);
  EXPECT_THROW(catalogue.ClearList(), std::system_error);
  EXPECT_THROW(catalogue.Log(), std::system_error);
  EXPECT_THROW(catalogue.GetTotalFilesSize(true), std::system_error);
  EXPECT_THROW(catalogue.Load(), std::system_error);
  EXPECT_THROW(catalogue.AddFile(name), std::system_error);
  EXPECT_THROW(catalogue.DeleteOldFiles(1), std::system_error);
  EXPECT_THROW(catalogue.RemoveFileByName(name), std::system_error);
  EXPECT_THROW(catalogue.RemoveAllFiles(), std::system_error);
  freeBytes = 0;
  EXPECT_THROW(catalogue.MakeRoom(), std::system_error);
  EXPECT_FALSE(catalogue.HasError());
  watched.fails = false;
  EXPECT_THAT(OnCard(), testing::ElementsAre("a.dat", "b.dat", "c.dat"));
}

}  // namespace
