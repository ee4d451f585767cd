#include "DiskUtils/CardWatch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "tests/machine/Machine.h"
#include "tests/machine/Threads.h"
#include "tests/support/FakeCard.h"
#include "tests/support/HeldLoad.h"
#include "tests/support/LogFile.h"

namespace {

using Quellon::DiskUtils::CardState;
using testing::ElementsAre;
using testing::IsEmpty;
using Finding = CardState::Finding;

class CardWatch : public testing::Test {
 protected:
  CardWatch() {
    // Pauses are over at once, unless the watch is to end.
    threads.waitSemaphoreUntil = [this](sem_t* over, auto&&...) {
      ++looks;
      return sem_trywait(over) == 0 ? 0 : ETIMEDOUT;
    };
  }

  void Note(CardState::Report const& report) {
    std::lock_guard const lock(mutex);
    told.push_back(report.finding);
  }
  std::vector<Finding> Told() {
    std::lock_guard const lock(mutex);
    return told;
  }
  void AwaitTwoLooks() {
    ASSERT_TRUE(ComesTrue([this, before = looks.load()] { return looks > before + 1; }));
  }

  FakeCard card;
  Machine::ThreadHooks threads;
  Quellon::DiskUtils::Disk disk = FakeCard::MakeDisk();
  std::atomic<int> looks = 0;
  std::mutex mutex;
  std::vector<Finding> told;
};

TEST_F(CardWatch, TellsNothingOfACardThatStaysGood) {
  Quellon::DiskUtils::CardWatch const watch(disk, [this](auto const& report) { Note(report); });
  AwaitTwoLooks();
  EXPECT_TRUE(watch.IsUsable());
  EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(CardWatch, TellsOnceWhatHasChangedAndWhetherTheCardCanBeWrittenTo) {
  Quellon::DiskUtils::CardWatch const watch(disk, [this](auto const& report) { Note(report); });
  AwaitTwoLooks();
  Machine::MakeFile("/sys/fs/ext4/mmcblk1p1/errors_count", "1\n");
  Machine::MakeFile("/sys/class/block/mmcblk1p1/ro", "1\n");
  AwaitTwoLooks();
  EXPECT_FALSE(watch.IsUsable());
  Machine::MakeFile("/sys/class/block/mmcblk1p1/ro", "0\n");
  AwaitTwoLooks();
  EXPECT_TRUE(watch.IsUsable());
  EXPECT_THAT(Told(), ElementsAre(Finding::ReadOnly, Finding::Good));
}

TEST_F(CardWatch, GoesOnWhereNobodyIsToldOrTellingFails) {
  LogFile::BeginAnew();
  Quellon::DiskUtils::CardWatch const untold(disk, {});
  Quellon::DiskUtils::CardWatch const failing(
      disk, [](auto&&) { throw std::runtime_error("nobody to tell"); });
  AwaitTwoLooks();
  Machine::MakeFile("/sys/class/block/mmcblk1p1/ro", "1\n");
  auto const areUsable = [&](bool usable) {
    return ComesTrue([&] { return untold.IsUsable() == usable && failing.IsUsable() == usable; });
  };
  EXPECT_TRUE(areUsable(false));
  Machine::MakeFile("/sys/class/block/mmcblk1p1/ro", "0\n");
  EXPECT_TRUE(areUsable(true));
  EXPECT_THAT(LogFile::Text(), testing::HasSubstr("[ERROR]CardWatch: nobody to tell\n"));
}

TEST_F(CardWatch, NeedsAThread) {
  threads.create = [] { return EAGAIN; };
  EXPECT_THROW(Quellon::DiskUtils::CardWatch(disk, [](auto&&) {}), std::system_error);
}

}  // namespace
