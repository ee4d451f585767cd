// What docs/operations.md tells applications of a pulled card and of files that others deleted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <memory>
#include <string>

#include "DiskUtils/System.h"
#include "tests/support/CatalogueTest.h"
#include "tests/support/ErrorRecord.h"
#include "tests/support/FakeCard.h"
#include "tests/support/OwnedSystem.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

// As it stands on the page.
void LookIntoTheSlot(Quellon::System& system) {
  if (!system.disk->CheckDeviceStatus()) system.disk->available = false;
  system.BuildDiskHealthReport();
}

class PageAdvicePulledCard : public testing::Test {
 protected:
  PageAdvicePulledCard() {
    Capture::Output([this] { system->InitDisk(); });
    Machine::RemoveFile("/dev/mmcblk1");
    Machine::RemoveFile(FakeCard::kPartition);
  }

  std::string Summary() { return system->GetHealthReport(); }

  FakeCard card;
  std::unique_ptr<OwnedSystem> const system = NewSystem();
};

TEST_F(PageAdvicePulledCard, IsInServiceForTheHealthSummaryUntilSomebodyLooks) {
  Capture::Output([this] { system->BuildDiskHealthReport(); });
  EXPECT_THAT(Summary(), HasSubstr(R"("zr":0)"));
}

TEST_F(PageAdvicePulledCard, IsAbsentForTheHealthSummaryAfterALook) {
  std::string const report = Capture::Output([this] { LookIntoTheSlot(*system); });
  EXPECT_THAT(Summary(), HasSubstr(R"("zr":3)"));
  EXPECT_THAT(Summary(), HasSubstr(FakeCard::kCid));
  EXPECT_THAT(report, HasSubstr("NOT PRESENT"));
}

TEST(PageAdvice, LeavesACardThatStaysInService) {
  FakeCard const card;
  Capture::Output([] {
    OwnedSystem system;
    system.InitDisk();
    LookIntoTheSlot(system);
    EXPECT_THAT(system.GetHealthReport(), HasSubstr(R"("zr":0)"));
  });
}

// Of five recordings on a card for six, the three oldest were deleted by others; one came after.
class PageAdviceDeletedByOthers : public CatalogueTest {
 protected:
  PageAdviceDeletedByOthers() {
    totalBytes = 60;
    for (char const* name : {"a.dat", "b.dat", "c.dat", "d.dat", "e.dat"}) Make(name);
    catalogue = NewCatalogue();
    EXPECT_TRUE(catalogue->LoadAndSort());
    for (char const* name : {"a.dat", "b.dat", "c.dat"}) std::filesystem::remove(Where(name));
    Make("f.dat");
    Add(*catalogue, {"f.dat"});
  }

  static void Make(char const* name) { MakeRecording(name, 10, name[0]); }

  std::unique_ptr<FilesManager> catalogue;
};

TEST_F(PageAdviceDeletedByOthers, RecordingsTakeTheNextOldestWithThem) {
  EXPECT_TRUE(catalogue->MakeRoom());
  EXPECT_THAT(OnCard(), ElementsAre("f.dat"));
}

TEST_F(PageAdviceDeletedByOthers, RecordingsAreCountedInANewSumToo) {
  EXPECT_EQ(catalogue->GetTotalFilesSize(true), 60U);
  EXPECT_TRUE(catalogue->MakeRoom());
  EXPECT_THAT(OnCard(), ElementsAre("f.dat"));
}

TEST_F(PageAdviceDeletedByOthers, RecordingsTakeNothingWithThemOnceTheDirectoryWasLoadedAgain) {
  EXPECT_TRUE(catalogue->LoadAndSort());
  EXPECT_TRUE(catalogue->MakeRoom());
  EXPECT_THAT(OnCard(), ElementsAre("d.dat", "e.dat", "f.dat"));
}

// Nine recordings of 10 bytes on a card for 100, 5 of which are the reserve.
class PageAdviceShare : public CatalogueTest, public testing::WithParamInterface<float> {
 protected:
  /// What comes of making room with that many bytes free: the error, if any.
  std::string MakeRoomWithFreeBytes(std::int64_t bytes) {
    totalBytes = 100;
    freeBytes = bytes;
    card.reserveBytes = 5;
    for (char const digit : std::string("123456789")) MakeRecording({digit, '.', 'd'}, 10, digit);
    auto const catalogue = NewCatalogue(kDirectory, 1, GetParam());
    EXPECT_TRUE(catalogue->LoadAndSort());
    bool const made = catalogue->MakeRoom();
    EXPECT_EQ(made, !catalogue->HasError());
    return ErrorOf(*catalogue);
  }

  static constexpr char const* kGivenUp = "Unable to make room, after 100 retries in MakeRoom";
};

class PageAdviceNoShare : public PageAdviceShare {};

TEST_P(PageAdviceNoShare, HasEveryRecordingDeleted) {
  EXPECT_EQ(MakeRoomWithFreeBytes(100), kGivenUp);
  EXPECT_THAT(OnCard(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(OutsideOfFractions, PageAdviceNoShare,
                         testing::Values(0.0F, -0.5F, std::numeric_limits<float>::quiet_NaN()));

class PageAdviceShareAboveOne : public PageAdviceShare {};

TEST_P(PageAdviceShareAboveOne, LimitsNothingAndLeavesTheReserve) {
  EXPECT_EQ(MakeRoomWithFreeBytes(6), "");
  EXPECT_THAT(OnCard(), SizeIs(9));
  EXPECT_EQ(MakeRoomWithFreeBytes(5), kGivenUp);
}

INSTANTIATE_TEST_SUITE_P(MeantAsPerCent, PageAdviceShareAboveOne, testing::Values(80.0F));

}  // namespace
