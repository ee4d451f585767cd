// Cards as they were bought or found, prepared for real, and brought into service.
#include "DiskUtils/CardPreparation.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "base/Logger.h"
#include "tests/card/BareCard.h"
#include "tests/card/CardFixture.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/OwnedSystem.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using CardTests::BareCard;
using CardTests::RunQuietly;
using CardTests::WriteRecording;
using Quellon::DiskUtils::CardContents;
using Preparation = Quellon::DiskUtils::CardPreparation;
using Permission = Preparation::Permission;
using Result = Preparation::Result;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char const* kPartition = "/dev/mmcblk1p1";

FoundCards::Card FoundCard(std::string const& name) {
  auto const all = FoundCards::All();
  return *std::ranges::find(all, name, &FoundCards::Card::name);
}

std::string Contents() {
  CardContents contents;
  Result const result = Preparation::Look(contents);
  return result == Result::Done ? contents.Describe() : Preparation::Describe(result);
}

std::string Prepare(Permission permission = Permission::KeepRecordings,
                    Preparation::Progress const& progress = {}) {
  Result result{};
  Capture::AllOutput([&] { result = Preparation::Prepare(permission, progress); });
  return Preparation::Describe(result);
}

class CardPreparation : public testing::Test {
 protected:
  CardPreparation() { Tarvik::Ilog::Logger::GetInstance()->consoleSink->enabled = false; }
  ~CardPreparation() override {
    while (umount2("/mnt/sdcard", MNT_DETACH) == 0) continue;
    Quellon::DiskUtils::Disk::deviceStatusList.clear();
    Machine::ForgetTrace();
  }

  /// A start of the service: whether it takes the card, and can record on it.
  static bool ComesIntoService() {
    auto const system = NewSystem();
    Capture::AllOutput([&] { system->InitDisk(); });
    if (system->disk == nullptr || !system->disk->available) return false;
    WriteRecording("/mnt/sdcard/cr/new.dat", 1'000'000, 2000);
    EXPECT_THAT(Machine::Traced("reboot"), testing::IsEmpty());
    Capture::AllOutput([&] { EXPECT_TRUE(system->disk->Umount()); });
    return true;
  }

  static std::string Superblock(std::string const& name) {
    return CardTests::RunProgram("dumpe2fs -h " + std::string(kPartition) +
                                 " 2>/dev/null | grep '^" + name + "'")
        .output;
  }
};

class CardPreparationAsFound : public CardPreparation,
                               public testing::WithParamInterface<FoundCards::Card> {};

TEST_P(CardPreparationAsFound, LeadsToACardInService) {
  BareCard card(GetParam());
  card.Insert();
  EXPECT_EQ(Contents(), GetParam().description);
  auto const start = std::chrono::steady_clock::now();
  if (GetParam().mayHoldRecordings) {
    auto const before = card.Bytes();
    EXPECT_EQ(Prepare(), "the card may hold recordings");
    EXPECT_TRUE(card.Bytes() == before);
    EXPECT_EQ(Prepare(Permission::EraseRecordings), "done");
  } else {
    EXPECT_EQ(Prepare(), "done");
  }
  EXPECT_THAT(CardTests::MountsOn("/mnt/sdcard"), testing::IsEmpty());
  EXPECT_EQ(Contents(), "MBR: ext");
  EXPECT_TRUE(ComesIntoService());
  EXPECT_THAT(Superblock("Filesystem volume name"), HasSubstr("storage"));
  EXPECT_THAT(Superblock("Filesystem features"), HasSubstr("has_journal"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 60s);
  EXPECT_EQ(Prepare(), "the card may hold recordings");
}

INSTANTIATE_TEST_SUITE_P(AsFound, CardPreparationAsFound, testing::ValuesIn(FoundCards::All()));

TEST_F(CardPreparation, IsRefusedForACardThatIsMountedAnywhere) {
  BareCard card(FoundCard("ext4 without a table"));
  card.Insert();
  fs::create_directories("/tmp/elsewhere");
  RunQuietly("mount /dev/mmcblk1 /tmp/elsewhere");
  EXPECT_EQ(Prepare(Permission::EraseRecordings), "the card is in use");
  RunQuietly("umount /tmp/elsewhere");
  EXPECT_EQ(Prepare(Permission::EraseRecordings), "done");
}

TEST_F(CardPreparation, IsRefusedForACardOfWhichAnyPartitionIsMounted) {
  BareCard card(FoundCard("old system"));
  card.Insert();
  fs::create_directories("/tmp/elsewhere");
  RunQuietly("mount /dev/mmcblk1p2 /tmp/elsewhere");
  auto const before = card.Bytes();
  EXPECT_EQ(Prepare(Permission::EraseRecordings), "the card is in use");
  EXPECT_TRUE(card.Bytes() == before);
  RunQuietly("umount /tmp/elsewhere");
  EXPECT_EQ(Prepare(Permission::EraseRecordings), "done");
}

TEST_F(CardPreparation, IsRefusedForACardOfWhichAPartitionIsHeldByAnother) {
  BareCard card(FoundCard("FAT32"));
  card.Insert();
  {
    Tarvik::UniqueFd const holder(open(kPartition, O_RDONLY | O_EXCL | O_CLOEXEC));
    ASSERT_TRUE(holder.IsOpen());
    EXPECT_EQ(Prepare(Permission::EraseRecordings), "the card is in use");
    EXPECT_EQ(Contents(), "MBR: FAT");
  }
  EXPECT_EQ(Prepare(), "done");
}

TEST_F(CardPreparation, IsRefusedForAWriteProtectedCardAndForNone) {
  BareCard card;
  EXPECT_EQ(Prepare(), "there is no card");
  EXPECT_EQ(Contents(), "there is no card");
  card.Insert(true);
  EXPECT_EQ(Prepare(Permission::EraseRecordings), "the card is write-protected");
  card.Remove();
  card.Insert();
  EXPECT_EQ(Prepare(), "done");
}

TEST_F(CardPreparation, FailsWithoutTheCommandsAndMayBeTriedAgain) {
  BareCard card;
  card.Insert();
  {
    CardTests::CommandInFront const none("mkfs.ext4", "exit 127\n");
    EXPECT_EQ(Prepare(), "a command is missing");
  }
  EXPECT_EQ(Contents(), "MBR: nothing");
  {
    CardTests::CommandInFront const broken("fsck", "exit 4\n");
    EXPECT_EQ(Prepare(), "the check of the file system failed");
  }
  // It was mounted by then, and is what a start takes.
  EXPECT_TRUE(ComesIntoService());
}

TEST_F(CardPreparation, TellsAFileSystemThatWasOnlyMadeFromOneThatWasUsed) {
  BareCard card;
  card.Insert();
  std::vector<std::string> seen;
  CardTests::CommandInFront const late("fsck", "exit 4\n");
  Prepare(Permission::KeepRecordings, [&](std::string const& step) {
    if (step == "testing the card") seen.push_back(Contents());
  });
  seen.push_back(Contents());
  EXPECT_THAT(seen, testing::ElementsAre("MBR: new ext", "MBR: ext"));
}

// As after a power cut with the file system mounted: the superblock is what counts, whatever the
// journal still holds.
TEST_F(CardPreparation, TellsAFileSystemThatIsInUseFromTheMomentItIsMounted) {
  BareCard card;
  card.Insert();
  std::vector<char> cut;
  CardTests::CommandInFront const late("fsck", "exit 4\n");
  Prepare(Permission::KeepRecordings, [&](std::string const& step) {
    if (step != "testing the card") return;
    RunQuietly("mount /dev/mmcblk1p1 /mnt/sdcard");
    cut = card.Bytes();
    RunQuietly("umount /mnt/sdcard");
  });
  card.Remove();
  card.SetBytes(cut);
  card.Insert();
  EXPECT_EQ(Contents(), "MBR: ext");
  EXPECT_EQ(Prepare(), "the card may hold recordings");
}

// A card with a cache has any of the blocks written before a cut. Whatever a cut leaves while the
// card is partitioned and the file system made, it is enough to ask again.
TEST_F(CardPreparation, IsDoneByAskingAgainAfterAPowerCut) {
  constexpr std::size_t kBlock = 4096;
  constexpr int kCuts = 6;
  std::mt19937 chance(1);
  BareCard card(FoundCard("FAT32"));
  std::vector<std::vector<char>> states;
  card.Insert();
  Prepare(Permission::KeepRecordings, [&](char const*) { states.push_back(card.Bytes()); });
  card.Remove();
  ASSERT_EQ(states.size(), 4U);  // the first two are one
  std::set<std::string> left;
  for (int cut = 0; cut < kCuts; ++cut) {
    auto const& older = states[1 + static_cast<std::size_t>(cut) % 2];
    auto const& newer = states[2 + static_cast<std::size_t>(cut) % 2];
    auto bytes = older;
    for (std::size_t place = 0; place < bytes.size(); place += kBlock) {
      auto const at = static_cast<std::ptrdiff_t>(place);
      bool const isWritten = chance() % 2 == 0;
      if (isWritten) std::copy_n(newer.begin() + at, kBlock, bytes.begin() + at);
    }
    card.SetBytes(bytes);
    card.Insert();
    std::string const contents = *left.insert(Contents()).first;
    // Copies of the superblock alone look like those of a card in use.
    bool const isLost = contents == "MBR: lost ext";
    EXPECT_EQ(Prepare(), isLost ? "the card may hold recordings" : "done") << contents;
    if (isLost) {
      EXPECT_EQ(Prepare(Permission::EraseRecordings), "done");
    }
    EXPECT_TRUE(ComesIntoService()) << contents;
    card.Remove();
  }
  EXPECT_THAT(left, testing::IsSupersetOf({"MBR: FAT", "MBR: new ext"}));
}

}  // namespace
