#include "DiskUtils/CardPreparation.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CardText.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FoundCards.h"
#include "tests/support/LogFile.h"
#include "tests/support/NewCardSlot.h"

namespace {

namespace Found = FoundCards;
using namespace std::chrono_literals;
using CardText::kFsck;
using CardText::kMount;
using CardText::kMountCall;
using CardText::kUmount;
using Machine::Answer;
using Machine::hooks;
using Quellon::DiskUtils::CardContents;
using Preparation = Quellon::DiskUtils::CardPreparation;
using Permission = Preparation::Permission;
using Result = Preparation::Result;
using testing::AnyOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using Slot = NewCardSlot;
using Texts = std::vector<std::string>;

constexpr char const* kCard = NewCardSlot::kCard;
constexpr char const* kPartition = NewCardSlot::kPartition;
constexpr char const* kUnmountCall = "umount /mnt/sdcard/";
constexpr char const* kUnlink = "unlink /mnt/sdcard/check.tmp";
constexpr std::uint64_t kGibibyte = NewCardSlot::kGibibyte;

std::string Sfdisk(int start) {
  return "system echo start=" + std::to_string(start) +
         "MiB,type=83 | sfdisk --quiet --label dos --wipe always --wipe-partitions always "
         "/dev/mmcblk1";
}

std::string Mkfs(std::string const& journal) {
  return "system mkfs.ext4 -q -F -O has_journal " + journal +
         "-E lazy_itable_init=1,lazy_journal_init=0,nodiscard -M being-prepared -L storage "
         "/dev/mmcblk1p1";
}

class CardPreparation : public testing::Test {
 protected:
  /// What is printed is hidden, and goes to `output`.
  Result Prepare(Permission permission = Permission::KeepRecordings) {
    Result result{};
    output = Capture::AllOutput([&] {
      result = Preparation::Prepare(permission, [&](char const* step) { steps.push_back(step); });
    });
    return result;
  }

  Slot slot;
  std::string output;
  Texts steps;
  Descriptors::Watch descriptors;
};

Texts const kSteps = {"looking at the card", "making the partition", "making the file system",
                      "testing the card"};

TEST_F(CardPreparation, PartitionsFormatsAndTestsANewCardAndLeavesItUnmounted) {
  EXPECT_EQ(Prepare(), Result::Done);
  EXPECT_THAT(Machine::Trace(), ElementsAre(Sfdisk(4), Mkfs("-J size=64 "), kMountCall, kUmount,
                                            kFsck, kMount, kUnlink, kUnmountCall));
  EXPECT_THAT(steps, ElementsAreArray(kSteps));
  EXPECT_FALSE(slot.isMounted);
  EXPECT_EQ(slot.onCard, "");
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(CardPreparation, PrintsWhatTheCheckPrintsAndLogsNothing) {
  LogFile::BeginAnew();
  Prepare();
  EXPECT_EQ(output, CardText::kChecked);
  EXPECT_EQ(LogFile::Text(), "");
  Tarvik::Ilog::Logger::GetInstance()->Close();
}

TEST_F(CardPreparation, NeedsNobodyWhoIsToldOfItsSteps) {
  Capture::AllOutput(
      [] { EXPECT_EQ(Preparation::Prepare(Permission::KeepRecordings), Result::Done); });
}

struct Size {
  std::uint64_t bytes;
  std::string eraseUnit;
  int start;
  std::string journal;
};
void PrintTo(Size const& size, std::ostream* stream) {
  *stream << size.bytes << " bytes, erased by " << size.eraseUnit;
}
class CardPreparationOfACard : public CardPreparation, public testing::WithParamInterface<Size> {};

TEST_P(CardPreparationOfACard, BeginsAtAMultipleOfWhatItErasesAndHasAShortJournal) {
  Slot::SetSize(GetParam().bytes);
  Slot::SetProperty("device/preferred_erase_size", GetParam().eraseUnit);
  EXPECT_EQ(Prepare(), Result::Done);
  EXPECT_THAT(Machine::Traced("system echo"), ElementsAre(Sfdisk(GetParam().start)));
  EXPECT_THAT(Machine::Traced("system mkfs"), ElementsAre(Mkfs(GetParam().journal)));
}

INSTANTIATE_TEST_SUITE_P(OfSeveralSizes, CardPreparationOfACard,
                         testing::Values(Size{32 * kGibibyte, "4194304", 4, "-J size=64 "},
                                         Size{32 * kGibibyte, "524288", 4, "-J size=64 "},
                                         Size{32 * kGibibyte, "3145728", 6, "-J size=64 "},
                                         Size{32 * kGibibyte, "unknown", 4, "-J size=64 "},
                                         Size{128 * kGibibyte, "16777216", 16, "-J size=64 "},
                                         Size{4 * kGibibyte, "4194304", 4, "-J size=64 "},
                                         Size{4 * kGibibyte - 512, "4194304", 4, ""},
                                         Size{256ULL << 20, "4194304", 4, ""},
                                         Size{255ULL << 20, "4194304", 1, ""},
                                         Size{16ULL << 20, "4194304", 1, ""}));

class CardPreparationOfAnyCard : public CardPreparation,
                                 public testing::WithParamInterface<Found::Card> {};

TEST_P(CardPreparationOfAnyCard, ErasesRecordingsOnlyWithTheSecondPermission) {
  Slot::Put(GetParam().pieces);
  if (GetParam().mayHoldRecordings) {
    EXPECT_EQ(Prepare(), Result::MayHoldRecordings);
    EXPECT_THAT(Machine::Trace(), IsEmpty());
    EXPECT_THAT(steps, ElementsAre("looking at the card"));
    EXPECT_EQ(Prepare(Permission::EraseRecordings), Result::Done);
  } else {
    EXPECT_EQ(Prepare(), Result::Done);
  }
}

INSTANTIATE_TEST_SUITE_P(AsFound, CardPreparationOfAnyCard, testing::ValuesIn(Found::All()));

TEST_F(CardPreparation, TellsWhatACardHoldsAndChangesNothing) {
  Slot::Put(Found::Boot(0, 3, "EXFAT   "));
  std::string const before = Machine::ReadFile(kCard);
  CardContents contents;
  EXPECT_EQ(Preparation::Look(contents), Result::Done);
  EXPECT_EQ(contents.Describe(), "exFAT");
  EXPECT_THAT(Machine::Trace(), IsEmpty());
  EXPECT_EQ(Machine::ReadFile(kCard), before);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

struct Refusal {
  int error;
  Result result;
};
void PrintTo(Refusal const& refusal, std::ostream* stream) {
  *stream << strerrorname_np(refusal.error);
}
class CardPreparationIsRefused : public CardPreparation,
                                 public testing::WithParamInterface<Refusal> {};

TEST_P(CardPreparationIsRefused, ForACardThatCannotBeOpened) {
  hooks().fault = [](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function != "open" || call.subject != kCard) return std::nullopt;
    return GetParam().error;
  };
  EXPECT_EQ(Prepare(), GetParam().result);
  EXPECT_EQ(Prepare(Permission::EraseRecordings), GetParam().result);
  EXPECT_EQ(errno, GetParam().error);
  EXPECT_THAT(Machine::Trace(), IsEmpty());
  CardContents contents;
  EXPECT_EQ(Preparation::Look(contents), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    ByTheKernel, CardPreparationIsRefused,
    testing::Values(Refusal{ENOENT, Result::Missing}, Refusal{ENODEV, Result::Missing},
                    Refusal{ENXIO, Result::Missing}, Refusal{ENOMEDIUM, Result::Missing},
                    Refusal{EBUSY, Result::InUse}, Refusal{EACCES, Result::Failed},
                    Refusal{EMFILE, Result::Failed}));

TEST_F(CardPreparation, IsNotStoppedByAPipeInTheCardsPlace) {
  std::string const place = Machine::Real(kCard);
  std::filesystem::remove(place);
  ASSERT_EQ(mkfifo(place.c_str(), 0600), 0);
  CardContents contents;
  EXPECT_EQ(Preparation::Look(contents), Result::Done);
  EXPECT_TRUE(contents.isUnreadable);
  EXPECT_EQ(Prepare(), Result::MayHoldRecordings);
  EXPECT_THAT(Machine::Trace(), IsEmpty());
}

TEST_F(CardPreparation, IsRefusedForAWriteProtectedCard) {
  Slot::SetProperty("ro", "1");
  EXPECT_EQ(Prepare(Permission::EraseRecordings), Result::WriteProtected);
  EXPECT_THAT(Machine::Trace(), IsEmpty());
}

TEST_F(CardPreparation, IsRefusedForACardThatCannotBeReadUnlessRecordingsMayBeErased) {
  hooks().pread = [](auto&&...) -> std::optional<ssize_t> {
    errno = EIO;
    return -1;
  };
  EXPECT_EQ(Prepare(), Result::MayHoldRecordings);
  EXPECT_THAT(Machine::Trace(), IsEmpty());
  EXPECT_EQ(Prepare(Permission::EraseRecordings), Result::NotPartitioned);
  EXPECT_THAT(Machine::Traced("system"), ElementsAre(Sfdisk(4)));
}

TEST_F(CardPreparation, IsDoneAgainAfterItWasLeftInTheMiddle) {
  slot.mounts = false;
  EXPECT_EQ(Prepare(), Result::NotMounted);
  slot.mounts = true;
  EXPECT_EQ(Prepare(), Result::Done);
}

TEST_F(CardPreparation, WaitsForThePartitionsNode) {
  int pauses = 0;
  hooks().fault = [&](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function == "nanosleep") ++pauses;
    if (call.function == "open" && call.subject == kPartition && pauses < 3) return ENOENT;
    return std::nullopt;
  };
  EXPECT_EQ(Prepare(), Result::Done);
  EXPECT_EQ(Machine::Slept(), 300ms);
}

TEST_F(CardPreparation, DoesNotWaitForThePartitionsNodeForEver) {
  hooks().fault = [&](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function == "open" && call.subject == kPartition) return EBUSY;
    return std::nullopt;
  };
  EXPECT_EQ(Prepare(), Result::NotPartitioned);
  EXPECT_EQ(Machine::Slept(), 5s);
  EXPECT_THAT(Machine::Traced("system"), ElementsAre(Sfdisk(4)));
}

TEST_F(CardPreparation, FailsWhereTheTableDoesNotBecomeTheCards) {
  slot.partitioned = [] { Slot::Clear(); };
  EXPECT_EQ(Prepare(), Result::NotPartitioned);
  EXPECT_EQ(Machine::Slept(), 5s);
  EXPECT_THAT(Machine::Traced("system"), ElementsAre(Sfdisk(4)));
}

TEST_F(CardPreparation, FailsWhereTheKernelGoesOnWithTheOldTable) {
  slot.shift = 2048;
  EXPECT_EQ(Prepare(), Result::NotPartitioned);
  EXPECT_THAT(Machine::Traced("system"), ElementsAre(Sfdisk(4), Mkfs("-J size=64 ")));
  EXPECT_THAT(Machine::Traced("mount"), IsEmpty());
}

TEST_F(CardPreparation, FormatsNoOtherCardThatIsPutInMeanwhile) {
  for (auto const& other : Found::All()) {
    bool const hasOnePartition = other.description.find(',') == std::string::npos;
    bool const isAlike = other.description.starts_with("MBR") && hasOnePartition;
    if (isAlike && !other.mayHoldRecordings) continue;  // it has nothing to lose
    Slot::SetProperty("device/cid", "275048534433324760e0e7f40f012a01");
    slot.partitioned = [&] {
      Slot::Clear();
      Slot::Put(other.pieces);
      Slot::SetProperty("device/cid", "035344534c33324780a1b2c3d4012100");
    };
    EXPECT_THAT(Prepare(), AnyOf(Result::NotPartitioned, Result::Exchanged)) << other.name;
    EXPECT_THAT(Machine::Traced("system mkfs"), IsEmpty());
    Slot::Clear();
  }
}

// Cheap cards share their numbers.
TEST_F(CardPreparation, FormatsNoFileSystemThatIsThereMeanwhileWhateverTheNumberOfItsCard) {
  for (std::uint32_t const place : {0U, Found::kFirst}) {
    slot.partitioned = [place] {
      Slot::Clear();
      Slot::Put({Found::Mbr({{0x83, Found::kFirst}}), Found::Ext(place)});
    };
    EXPECT_EQ(Prepare(), Result::NotPartitioned) << place;
    EXPECT_THAT(Machine::Traced("system mkfs"), IsEmpty()) << place;
    Slot::Clear();
  }
}

// Whoever is told of a step may ask somebody who takes his time. Nothing is done to another card,
// be it one without recordings.
TEST_F(CardPreparation, EndsWhenTheCardIsExchangedWhileSomebodyIsTold) {
  Texts const commands = {Sfdisk(4), Mkfs("-J size=64 ")};
  for (int step = 1; step < 4; ++step) {
    for (bool const isPulled : {false, true}) {
      Machine::ForgetTrace();
      Slot::SetProperty("device/cid", "275048534433324760e0e7f40f012a01");
      Result result{};
      Capture::AllOutput([&] {
        result = Preparation::Prepare(Permission::EraseRecordings, [&](std::string const& name) {
          if (name != kSteps[static_cast<std::size_t>(step)]) return;
          Slot::SetProperty("device/cid", "035344534c33324780a1b2c3d4012100");
          if (isPulled) Machine::RemoveFile("/sys/block/mmcblk1/device/cid");
        });
      });
      EXPECT_STREQ(Preparation::Describe(result), "the card was pulled or exchanged") << step;
      EXPECT_THAT(Machine::Trace(),
                  ElementsAreArray(commands.begin(), commands.begin() + step - 1));
    }
  }
}

TEST_F(CardPreparation, TakesRemainsOfWhatItMayEraseForNothing) {
  auto const remains = Found::Together(Found::Copy(2048 * 4, 0, 1), Found::Copy(2048, 0, 1));
  Slot::Put(remains);
  EXPECT_EQ(Prepare(), Result::MayHoldRecordings);
  slot.partitioned = [&] { Slot::Put(remains); };
  EXPECT_EQ(Prepare(Permission::EraseRecordings), Result::Done);
}

struct Fault {
  char const* command;
  int code;
  Result result;
  std::size_t steps;
};
void PrintTo(Fault const& fault, std::ostream* stream) {
  *stream << fault.command << fault.code;
}
class CardPreparationFails : public CardPreparation, public testing::WithParamInterface<Fault> {};

TEST_P(CardPreparationFails, WithTheFirstCommandThatFailsAndMayBeTriedAgain) {
  slot.failing = GetParam().command;
  slot.code = GetParam().code;
  EXPECT_EQ(Prepare(), GetParam().result);
  EXPECT_THAT(steps, ElementsAreArray(Texts(kSteps.begin(),
                                            kSteps.begin() + static_cast<int>(GetParam().steps))));
  EXPECT_FALSE(slot.isMounted);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
  slot.failing = "none";
  EXPECT_EQ(Prepare(), Result::Done);
}

INSTANTIATE_TEST_SUITE_P(AtAnyStep, CardPreparationFails,
                         testing::Values(Fault{"echo", 1, Result::NotPartitioned, 2},
                                         Fault{"echo", 127, Result::CommandMissing, 2},
                                         Fault{"mkfs", 1, Result::NotFormatted, 3},
                                         Fault{"mkfs", 127, Result::CommandMissing, 3},
                                         Fault{"fsck", 1, Result::CheckFailed, 4},
                                         Fault{"fsck", 8, Result::CheckFailed, 4},
                                         Fault{"fsck", 127, Result::CommandMissing, 4},
                                         Fault{"mount", 32, Result::NotKept, 4}));

TEST_F(CardPreparation, FailsWithACommandThatASignalEnded) {
  hooks().system = [](std::string const&) { return Answer{9, 0}; };
  EXPECT_EQ(Prepare(), Result::NotPartitioned);
}

TEST_F(CardPreparation, FailsForAFileSystemThatTheKernelRefuses) {
  slot.mounts = false;
  EXPECT_EQ(Prepare(), Result::NotMounted);
  EXPECT_THAT(Machine::Trace().back(), StartsWith("mount "));
}

TEST_F(CardPreparation, FailsForACardThatLosesTheTestFile) {
  slot.lose = [this] { slot.onCard.clear(); };
  EXPECT_EQ(Prepare(), Result::NotKept);
  EXPECT_EQ(Machine::Trace().back(), kUnmountCall);
}

TEST_F(CardPreparation, FailsForACardThatReturnsOtherBytes) {
  for (auto const& change : std::vector<std::function<void()>>{
           [this] { slot.onCard.back() ^= 1; }, [this] { slot.onCard.pop_back(); },
           [this] { slot.onCard += '\0'; }, [this] { slot.onCard[0] = '1'; }}) {
    slot.lose = change;
    EXPECT_EQ(Prepare(), Result::NotKept);
    EXPECT_FALSE(slot.isMounted);
    slot.onCard.clear();
  }
}

TEST_F(CardPreparation, WritesATestFileOfManyBlocks) {
  std::size_t length = 0;
  slot.lose = [&] { length = slot.onCard.size(); };
  Prepare();
  EXPECT_EQ(length, 49152U);
}

TEST_F(CardPreparation, EndsWithWhatTheCallersOwnFunctionThrows) {
  for (std::size_t last = 0; last < kSteps.size(); ++last) {
    std::size_t step = 0;
    Capture::AllOutput([&] {
      auto const prepare = [&] {
        Preparation::Prepare(Permission::KeepRecordings, [&](char const*) {
          if (step++ == last) throw std::runtime_error("stop");
        });
      };
      EXPECT_THROW(prepare(), std::runtime_error);
    });
    EXPECT_FALSE(slot.isMounted);
    EXPECT_THAT(descriptors.Opened(), IsEmpty());
  }
}

TEST_F(CardPreparation, HasATextForEachResult) {
  EXPECT_STREQ(Preparation::Describe(Result::Done), "done");
  EXPECT_STREQ(Preparation::Describe(Result::Missing), "there is no card");
  EXPECT_STREQ(Preparation::Describe(Result::WriteProtected), "the card is write-protected");
  EXPECT_STREQ(Preparation::Describe(Result::InUse), "the card is in use");
  EXPECT_STREQ(Preparation::Describe(Result::MayHoldRecordings), "the card may hold recordings");
  EXPECT_STREQ(Preparation::Describe(Result::NotPartitioned), "the card could not be partitioned");
  EXPECT_STREQ(Preparation::Describe(Result::NotFormatted), "the file system could not be made");
  EXPECT_STREQ(Preparation::Describe(Result::NotMounted), "the file system cannot be mounted");
  EXPECT_STREQ(Preparation::Describe(Result::CheckFailed), "the check of the file system failed");
  EXPECT_STREQ(Preparation::Describe(Result::NotKept), "the card does not keep what is written");
  EXPECT_STREQ(Preparation::Describe(Result::Failed), "the card cannot be opened");
  EXPECT_STREQ(Preparation::Describe(Result::Exchanged), "the card was pulled or exchanged");
  EXPECT_STREQ(Preparation::Describe(Result::CommandMissing), "a command is missing");
}

}  // namespace
