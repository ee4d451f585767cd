// Whether there is room, and making it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/IException.h"
#include "tests/support/ErrorRecord.h"
#include "tests/support/Refusal.h"
#include "tests/support/RemovalTest.h"

namespace {

using namespace std::chrono_literals;
using Machine::Answer;
using testing::ElementsAre;
using testing::IsEmpty;

class MakeRoom : public RemovalTest {
 protected:
  /// Whether there is room on a card with these figures. `used` is what the catalogue uses.
  bool HasRoom(std::int64_t free, std::int64_t total, std::uint64_t minimumFree, float share,
               std::int64_t used = 0) {
    freeBytes = free;
    totalBytes = total;
    card.reserveBytes = 0;
    auto const catalogue = NewCatalogue(kDirectory, minimumFree, share);
    MakeRecording("a.dat");
    Machine::hooks().lstat = [used](std::string const&, struct stat* status) {
      status->st_size = static_cast<off_t>(used);
      return Answer::Success();
    };
    Add(*catalogue, {"a.dat"});
    Machine::hooks().lstat = nullptr;
    return catalogue->CheckAvailableSpace(true);
  }

  /// Measuring the card is part of the trace from now on.
  void TraceMeasuring() {
    Machine::hooks().statvfs = [measure = Machine::hooks().statvfs](std::string const& path,
                                                                    struct statvfs* space) {
      sync();  // leaves a mark of its own
      return measure(path, space);
    };
  }

  static void MeasuringFails() {
    Machine::hooks().statvfs = [](std::string const&, struct statvfs*) {
      return Answer::Failure(EIO);
    };
  }

  static void ExpectFailure(FilesManager& catalogue, std::string const& message) {
    EXPECT_FALSE(catalogue.MakeRoom());
    EXPECT_EQ(ErrorOf(catalogue), message + " in MakeRoom");
  }

  static constexpr std::int64_t kRoundedUp = 1073741889;  // as a float 63 more
  static constexpr char const* kGivenUp = "Unable to make room, after 100 retries";
};

TEST_F(MakeRoom, NeedsMoreFreeSpaceThanTheMinimum) {
  EXPECT_FALSE(HasRoom(999, 5000, 1000, 1.0F));
  EXPECT_FALSE(HasRoom(1000, 5000, 1000, 1.0F));
  EXPECT_TRUE(HasRoom(1001, 5000, 1000, 1.0F));
  EXPECT_FALSE(HasRoom(0, 5000, 0, 1.0F));
}

TEST_F(MakeRoom, CountsTheFreeSpaceInItsShare) {
  EXPECT_FALSE(HasRoom(2000, 5000, 1000, 0.5F));
  EXPECT_TRUE(HasRoom(2002, 5000, 1000, 0.5F));
}

TEST_F(MakeRoom, NeedsTheCatalogueToUseLessThanItsShare) {
  EXPECT_TRUE(HasRoom(5000, 5000, 0, 0.5F, 2499));
  EXPECT_FALSE(HasRoom(5000, 5000, 0, 0.5F, 2500));
  EXPECT_FALSE(HasRoom(5000, 5000, 0, 0.5F, 2501));
}

TEST_F(MakeRoom, ComparesTheFreeSpaceInSinglePrecision) {
  EXPECT_FALSE(HasRoom(16777217, 20000000, 16777216, 1.0F)) << "a float holds no 16777217";
  EXPECT_TRUE(HasRoom(16777218, 20000000, 16777216, 1.0F));
  EXPECT_TRUE(HasRoom(kRoundedUp, kRoundedUp, 12582913, 3.0F / 256)) << "12582912.8 if exact";
  EXPECT_FALSE(HasRoom(10, 20000000, 1, 0.1F)) << "the product is 1 only when it is rounded";
}

TEST_F(MakeRoom, ComparesTheUsedSpaceInSinglePrecision) {
  EXPECT_FALSE(HasRoom(100, 16777217, 0, 1.0F, 16777216));
  EXPECT_FALSE(HasRoom(100, 16777220, 0, 1.0F, 16777219)) << "as a float what is used is 1 more";
  EXPECT_TRUE(HasRoom(1000, kRoundedUp, 0, 3.0F / 256, 12582913)) << "12582912.8 if exact";
  EXPECT_FALSE(HasRoom(100, 10, 0, 0.1F, 1)) << "the product is 1 only when it is rounded";
}

TEST_F(MakeRoom, NeverFindsItWhereAProductIsNotANumber) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  for (float const share : {std::nanf(""), kInfinity}) {
    card.available = false;  // so that no minimum is computed from the share
    auto const catalogue = NewCatalogue(kDirectory, 0, share);
    card.available = true;
    freeBytes = 0;
    EXPECT_FALSE(catalogue->CheckAvailableSpace(true));
    freeBytes = 1;
    EXPECT_EQ(catalogue->CheckAvailableSpace(true), share == kInfinity);
  }
}

TEST_F(MakeRoom, MeasuresTheCardEachTime) {
  auto const catalogue = NewCatalogue(kDirectory, 500, 1.0F);
  freeBytes = 501;
  EXPECT_TRUE(catalogue->CheckAvailableSpace(false));
  EXPECT_EQ(card.freeBytes, 501);
  freeBytes = 500;
  EXPECT_FALSE(catalogue->CheckAvailableSpace(false));
  EXPECT_FALSE(catalogue->HasError()) << "no room is not an error";
}

TEST_F(MakeRoom, CheckedWithoutACardThrowsOrRecordsAsAsked) {
  auto const withdrawn = NewCatalogue();
  card.available = false;
  FilesManager without(nullptr, kDirectory, 0, 1.0F);
  for (FilesManager* const catalogue : {withdrawn.get(), &without}) {
    EXPECT_EQ(Refusal([&] { catalogue->CheckAvailableSpace(true); }), "Disk not available");
    EXPECT_FALSE(catalogue->HasError());
    EXPECT_FALSE(catalogue->CheckAvailableSpace(false));
    EXPECT_EQ(ErrorOf(*catalogue), "Disk not received in MakeRoom");
  }
}

TEST_F(MakeRoom, CheckForgetsTheLastErrorOnlyWhereItRecordsItsOwn) {
  auto const catalogue = NewCatalogue();
  std::string missing = "missing.dat";
  EXPECT_FALSE(catalogue->AddFile(missing));
  EXPECT_TRUE(catalogue->CheckAvailableSpace(true));
  EXPECT_EQ(catalogue->GetError(), "File not found");
  card.available = false;
  EXPECT_THROW(catalogue->CheckAvailableSpace(true), Tarvik::IException);
  EXPECT_EQ(catalogue->GetError(), "File not found");
  card.available = true;
  EXPECT_TRUE(catalogue->CheckAvailableSpace(false));
  EXPECT_FALSE(catalogue->HasError());
}

TEST_F(MakeRoom, CheckPassesOnThatTheCardCannotBeMeasured) {
  auto const catalogue = NewCatalogue();
  MeasuringFails();
  for (bool const throwIfNoDisk : {true, false}) {
    auto const failure = Thrown([&] { catalogue->CheckAvailableSpace(throwIfNoDisk); });
    EXPECT_STREQ(failure.value().what(), "Get space stat error");
    EXPECT_EQ(failure->code, EIO);
  }
  EXPECT_FALSE(catalogue->HasError());
}

TEST_F(MakeRoom, DeletesNothingWhenThereIsRoomAndForgetsTheLastError) {
  auto const catalogue = NewCatalogue();
  std::string missing = "missing.dat";
  EXPECT_FALSE(catalogue->AddFile(missing));
  Keep(*catalogue, {"a.dat"});
  EXPECT_FALSE(catalogue->AddFile(missing));
  EXPECT_TRUE(catalogue->MakeRoom());
  EXPECT_FALSE(catalogue->HasError());
  EXPECT_THAT(Machine::Trace(), IsEmpty());
}

TEST_F(MakeRoom, DeletesTwoFilesAtATimeAndMeasuresAfterEachStepWithoutPauses) {
  auto const catalogue = NewCatalogue(kDirectory, 100, 1.0F);
  Keep(*catalogue, {"a.dat", "b.log", "c.dat", "d.dat", "e.dat", "f.dat", "g.dat"});
  freeBytes = 70;
  RemovalFrees(10);
  TraceMeasuring();
  EXPECT_TRUE(catalogue->MakeRoom());
  auto const unlinked = [](std::string const& name) { return "unlink /mnt/sdcard/cr/" + name; };
  EXPECT_THAT(Machine::Trace(), ElementsAre("sync", unlinked("a.dat"), unlinked("c.dat"),  //
                                            "sync", unlinked("d.dat"), unlinked("e.dat"),  //
                                            "sync"));
  EXPECT_THAT(Names(*catalogue), ElementsAre("b.log", "f.dat", "g.dat"));
}

TEST_F(MakeRoom, GoesOnWithoutAPauseWhereOneFileAloneWasLeftToDelete) {
  auto const catalogue = NewCatalogue(kDirectory, 100, 1.0F);
  Keep(*catalogue, {"a.dat"});
  freeBytes = 95;
  RemovalFrees(10);
  EXPECT_TRUE(catalogue->MakeRoom());
  EXPECT_THAT(Machine::Trace(), ElementsAre("unlink /mnt/sdcard/cr/a.dat"));
}

TEST_F(MakeRoom, LeavesProtectedFilesWhereverTheyStandBetweenItsAttempts) {
  auto const catalogue = NewCatalogue(kDirectory, 60, 1.0F);
  Keep(*catalogue, {"a.log", "b.gps", "c.dat", "d.dat", "e.gps", "f.dat", "g.log", "h.dat"});
  freeBytes = 30;
  RemovalFrees(10);
  EXPECT_TRUE(catalogue->MakeRoom());
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.log", "b.gps", "e.gps", "g.log"));
}

TEST_F(MakeRoom, BeginsAtTheOldestAgainWhenTheListHasChangedBetweenItsAttempts) {
  auto const catalogue = NewCatalogue(kDirectory, 100, 1.0F);
  Keep(*catalogue, {"a.log", "b.gps", "c.dat", "d.dat", "e.dat", "f.dat", "g.dat"});
  freeBytes = 70;
  RemovalFrees(10);
  Machine::hooks().statvfs = [&, measure = Machine::hooks().statvfs](std::string const& path,
                                                                     struct statvfs* space) {
    if (freeBytes == 90) catalogue->ReverseList();
    return measure(path, space);
  };
  EXPECT_TRUE(catalogue->MakeRoom());
  EXPECT_THAT(Names(*catalogue), ElementsAre("e.dat", "b.gps", "a.log"));
}

TEST_F(MakeRoom, DeletesUntilTheCatalogueIsWithinItsShare) {
  auto const catalogue = NewCatalogue(kDirectory, 0, 0.5F);
  totalBytes = 70;  // so 35 may be used, if not quite
  Keep(*catalogue, {"a.dat", "b.dat", "c.dat", "d.dat"});
  EXPECT_TRUE(catalogue->MakeRoom());
  EXPECT_THAT(Names(*catalogue), ElementsAre("c.dat", "d.dat"));
}

TEST_F(MakeRoom, GivesUpAfterAHundredFruitlessAttemptsTenMillisecondsApart) {
  auto const catalogue = NewCatalogue();
  freeBytes = 0;
  TraceMeasuring();
  ExpectFailure(*catalogue, kGivenUp);
  std::vector<std::string> expected = {"sync"};
  for (int pause = 0; pause < 99; ++pause) {
    expected.push_back(Machine::Sleep(10ms));
    expected.push_back("sync");
  }
  EXPECT_EQ(Machine::Trace(), expected);
}

TEST_F(MakeRoom, GivesUpOverProtectedFilesAndThoseWhoseRemovalThrows) {
  auto const catalogue = NewCatalogue();
  Keep(*catalogue, {"a.log", "b.gps", "c.dat"});
  freeBytes = 0;
  Machine::hooks().removeFile = [](Ifile&) -> bool {
    throw std::runtime_error("cannot be removed");
  };
  ExpectFailure(*catalogue, kGivenUp);
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.log", "b.gps", "c.dat"));
  EXPECT_EQ(Machine::Slept(), 990ms);
}

TEST_F(MakeRoom, SpendsNoneOfItsAttemptsOnThoseThatDeletedAFile) {
  auto const catalogue = NewCatalogue();
  freeBytes = 0;
  int pauses = 0;
  Machine::hooks().sleep = [&](std::chrono::nanoseconds) {
    if (++pauses == 50) Keep(*catalogue, {"a.dat", "b.dat", "c.dat"});
  };
  ExpectFailure(*catalogue, kGivenUp);
  EXPECT_EQ(pauses, 99);
  EXPECT_THAT(OnCard(), IsEmpty());
}

TEST_F(MakeRoom, SucceedsWhenRoomAppearsInTheLastPause) {
  auto const catalogue = NewCatalogue();
  freeBytes = 0;
  int pauses = 0;
  Machine::hooks().sleep = [&](std::chrono::nanoseconds) {
    if (++pauses == 99) freeBytes = 1;
  };
  EXPECT_TRUE(catalogue->MakeRoom());
  EXPECT_FALSE(catalogue->HasError());
}

TEST_F(MakeRoom, CountsAnAttemptThatOnlyDroppedFilesAsFruitless) {
  auto const catalogue = NewCatalogue();
  Keep(*catalogue, {"a.dat"});
  freeBytes = 0;
  Machine::hooks().removeFile = [](Ifile&) { return false; };
  ExpectFailure(*catalogue, kGivenUp);
  EXPECT_EQ(Machine::Slept(), 990ms);
  EXPECT_THAT(catalogue->GetList(), IsEmpty());
}

TEST_F(MakeRoom, FailsWithoutACard) {
  auto const withdrawn = NewCatalogue();
  card.available = false;
  ExpectFailure(*withdrawn, "Disk not available");
  FilesManager without(nullptr, kDirectory, 0, 1.0F);
  ExpectFailure(without, "Disk not available");
  EXPECT_THAT(Machine::Trace(), IsEmpty());
}

TEST_F(MakeRoom, FailsWhenTheCardGoesInBetween) {
  auto const catalogue = NewCatalogue();
  freeBytes = 0;
  Machine::hooks().sleep = [&](std::chrono::nanoseconds) { card.available = false; };
  ExpectFailure(*catalogue, "Disk not available");
  EXPECT_EQ(Machine::Slept(), 10ms);
}

TEST_F(MakeRoom, FailsWhenTheCardCannotBeMeasured) {
  auto const catalogue = NewCatalogue();
  Keep(*catalogue, {"a.dat"});
  MeasuringFails();
  ExpectFailure(*catalogue, "Get space stat error");
  EXPECT_THAT(OnCard(), ElementsAre("a.dat"));
}

TEST_F(MakeRoom, FailsWhenTheCardCannotBeMeasuredAgain) {
  auto const catalogue = NewCatalogue();
  Keep(*catalogue, {"a.dat", "b.dat", "c.dat"});
  freeBytes = 0;
  Machine::hooks().unlink = [](std::string const&) {
    MeasuringFails();
    return Answer::Success();
  };
  ExpectFailure(*catalogue, "Get space stat error");
  EXPECT_THAT(Names(*catalogue), ElementsAre("c.dat"));
}

TEST_F(MakeRoom, LetsOtherExceptionsPass) {
  auto const catalogue = NewCatalogue();
  Keep(*catalogue, {"a.dat"});
  freeBytes = 0;
  Machine::hooks().removeFile = [](Ifile&) -> bool { throw 7; };
  EXPECT_THROW(catalogue->MakeRoom(), int);
  EXPECT_FALSE(catalogue->HasError());
}

}  // namespace
