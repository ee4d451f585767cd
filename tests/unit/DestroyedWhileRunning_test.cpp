// Objects of classes that do not join in their own destructors, destroyed while their threads run.
// Which Run() is called then is a race between the thread and the destructors: ThreadSanitizer
// complains of that alone, so these tests are not for it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <semaphore>
#include <string>
#include <vector>

#include "base/IThread.h"
#include "tests/support/CatalogueTest.h"
#include "tests/support/LogFile.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kRounds = 300;

/// Calls of the work below; not part of an object, which is gone while the last call goes on.
std::counting_semaphore<> calls(0);

class DestroyedWhileRunning : public CatalogueTest {
 protected:
  void SetUp() override {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the race between Run() and the destructors is what is tried here";
#endif
  }

  /// Starts an object and destroys it once its own work was called, again and again.
  template <typename Make>
  static void Try(Make make) {
    EXPECT_TRUE(LogFile::AnotherThreadGetsThrough([make] {
      for (int round = 0; round < kRounds; ++round) {
        auto const thread = make();
        while (calls.try_acquire()) continue;
        thread->Start();
        calls.acquire();
      }
    })) << "a destructor waits for ever";
  }
};

/// Has work of its own for its thread, and never ends it.
class Busy : public CatalogueTest::FilesManager {
  using FilesManager::FilesManager;
  void Run() override { calls.release(); }
};

TEST_F(DestroyedWhileRunning, ACatalogueWithWorkOfItsOwnRemovesNothing) {
  for (char const* name : {"a.dat", "b.dat"}) MakeRecording(name);
  Capture::Descriptor const hidden(1);
  Try([this] {
    std::unique_ptr<FilesManager> catalogue = std::make_unique<Busy>(&card, kDirectory, 0, 1.0F);
    Add(*catalogue, {"a.dat", "b.dat"});
    return catalogue;
  });
  EXPECT_THAT(OnCard(), ElementsAre("a.dat", "b.dat"));
  EXPECT_EQ(Machine::LiveFiles().size(), 0U);
}

/// The same without a catalogue.
class Worker : public Tarvik::Interfaces::IThread {
  void Run() override { calls.release(); }
};

TEST_F(DestroyedWhileRunning, AThreadOfAnyOtherClassEnds) {
  Try([] { return std::make_unique<Worker>(); });
}

/// Starts its thread before the object is complete.
class Eager : public CatalogueTest::FilesManager {
 public:
  explicit Eager(CatalogueTest::Disk* used)
      : FilesManager(used, CatalogueTest::kDirectory, 0, 1.0F) {
    std::string name = "a.dat";
    EXPECT_TRUE(AddFile(name));
    RemoveAllFilesAsync();
  }
};

class MoreThanEager : public Eager {
 public:
  using Eager::Eager;
  ~MoreThanEager() override { Join(); }
};

TEST_F(DestroyedWhileRunning, IsNotWhatAClassIsThatStartsInItsConstructor) {
  Capture::Descriptor const hidden(1);
  for (int round = 0; round < kRounds; ++round) {
    MakeRecording("a.dat");
    { MoreThanEager const catalogue(&card); }
    ASSERT_THAT(OnCard(), IsEmpty()) << "round " << round;
  }
}

}  // namespace
