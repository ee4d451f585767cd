#include "DiskUtils/CardContents.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/UniqueFd.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/FoundCards.h"

namespace {

namespace Found = FoundCards;
using Found::Gpt;
using Found::Mbr;
using Found::Number;
using Found::Piece;
using Found::Together;
using Machine::hooks;
using Quellon::DiskUtils::CardContents;
using testing::SizeIs;
using testing::StartsWith;
using Pieces = std::vector<Piece>;

/// A sparse file with those bytes, as large as a card.
Tarvik::UniqueFd MakeCard(Pieces const& pieces, off64_t bytes = Found::kBytes) {
  Machine::MakeFile("/dev/mmcblk1", "");
  std::string const path = Machine::Real("/dev/mmcblk1");
  Tarvik::UniqueFd card(open(path.c_str(), O_RDWR | O_LARGEFILE | O_CLOEXEC));
  EXPECT_EQ(ftruncate64(card.Get(), bytes), 0);
  for (auto const& [place, text] : pieces) {
    EXPECT_EQ(pwrite64(card.Get(), text.data(), text.size(), static_cast<off64_t>(place)),
              static_cast<ssize_t>(text.size()));
  }
  return card;
}

CardContents ContentsOf(Pieces const& pieces) {
  return CardContents::Read(MakeCard(pieces).Get());
}

std::string DescriptionOf(Pieces const& pieces) {
  return ContentsOf(pieces).Describe();
}

/// A superblock of a file system that was just made for a card; `kFirst` is its sector.
Pieces NewExt() {
  std::uint64_t const superblock = Found::kFirst * Found::kSector + 1024;
  return {Mbr({{0x83, Found::kFirst}}),
          Found::Ext(Found::kFirst),
          {superblock + 48, "\x66\x55\x44\x33"},  // when it was made
          {superblock + 54, "\xFF\xFF"},          // after how many mounts it is checked
          {superblock + 136, "being-prepared"}};
}

class CardContentsAsFound : public testing::TestWithParam<Found::Card> {};

TEST_P(CardContentsAsFound, AreDescribedAndTellWhetherThereMayBeRecordings) {
  auto const& card = GetParam();
  CardContents const contents = ContentsOf(card.pieces);
  EXPECT_EQ(contents.Describe(), card.description);
  EXPECT_EQ(contents.MayHoldRecordings(), card.mayHoldRecordings);
  EXPECT_FALSE(contents.isUnreadable);
}

INSTANTIATE_TEST_SUITE_P(InManyWays, CardContentsAsFound, testing::ValuesIn(Found::All()));

TEST(CardContents, AreFatOfAnyWidth) {
  EXPECT_EQ(DescriptionOf(Found::Boot(0, 82, "FAT32   ")), "FAT");
  for (char const* const name : {"FAT12   ", "FAT16   ", "FAT     "}) {
    EXPECT_EQ(DescriptionOf(Found::Boot(0, 54, name)), "FAT");
  }
  EXPECT_EQ(DescriptionOf(Found::Boot(0, 54, "FAT64   ")), "unknown data");
}

TEST(CardContents, AreUnknownDataFromAnyByteOnThatDiffers) {
  EXPECT_EQ(DescriptionOf({}), "nothing");
  for (std::uint64_t const place : {0U, 1U, 2048U, 4094U, 4095U}) {
    EXPECT_EQ(DescriptionOf({{place, "\x01"}}), "unknown data") << place;
  }
  EXPECT_EQ(DescriptionOf({{4096, "\x01"}}), "nothing");
}

TEST(CardContents, HaveATableOnlyIfThatHasPartitions) {
  EXPECT_EQ(ContentsOf({Mbr({})}).table, CardContents::Table::None);
  EXPECT_EQ(ContentsOf({Mbr({{0x83, Found::kFirst}})}).table, CardContents::Table::Mbr);
  EXPECT_EQ(ContentsOf(Gpt({Found::kFirst})).table, CardContents::Table::Gpt);
  EXPECT_EQ(DescriptionOf(Gpt({})), "GPT:");
}

TEST(CardContents, AreNotTakenForATableWhereAProgramStandsInItsPlace) {
  auto pieces = Together({Mbr({{0x83, Found::kFirst}})}, Found::Boot(0, 82, "FAT32   "));
  pieces.push_back({446 + 32, "\x90"});
  EXPECT_EQ(DescriptionOf(pieces), "FAT");
  pieces.back().bytes = "\x80";  // a partition to start from
  EXPECT_EQ(DescriptionOf(pieces), "FAT; MBR: nothing");
  pieces.push_back({511, "\xAB"});
  EXPECT_EQ(DescriptionOf(pieces), "FAT");
}

TEST(CardContents, AreExtAlsoWhereSomethingElseWasMadeInItsPlaceSince) {
  auto pieces = Found::Boot(0, 3, "EXFAT   ");
  pieces.push_back(Found::Ext(0));
  EXPECT_EQ(DescriptionOf(pieces), "ext");
  EXPECT_TRUE(ContentsOf(pieces).MayHoldRecordings());
}

TEST(CardContents, AreExtInFrontOfATableThatWasMadeSince) {
  Pieces const pieces = {Mbr({{0x0C, Found::kFirst}}), Found::Ext(0)};
  EXPECT_EQ(DescriptionOf(pieces), "ext; MBR: nothing");
  EXPECT_TRUE(ContentsOf(pieces).MayHoldRecordings());
}

TEST(CardContents, AreNewAsLongAsTheFileSystemWasNeverMounted) {
  EXPECT_EQ(DescriptionOf(NewExt()), "MBR: new ext");
  EXPECT_FALSE(ContentsOf(NewExt()).MayHoldRecordings());
  std::uint64_t const superblock = Found::kFirst * Found::kSector + 1024;
  for (Piece const& mounted : Pieces{{superblock + 44, "\x01"},
                                     {superblock + 47, "\x66"},
                                     {superblock + 52, "\x01"},
                                     {superblock + 136, "/mnt/sdcard"}}) {
    auto const pieces = Together(NewExt(), Pieces{mounted});
    EXPECT_EQ(DescriptionOf(pieces), "MBR: ext") << mounted.place - superblock;
    EXPECT_TRUE(ContentsOf(pieces).MayHoldRecordings());
  }
}

constexpr off64_t kGibibyte = 1LL << 30;

std::string DescriptionOfALarge(Pieces const& pieces) {
  return CardContents::Read(MakeCard(pieces, kGibibyte).Get()).Describe();
}

TEST(CardContents, AreAnExtThatHasLostItsTableWhereThatUsuallyLeadsTo) {
  for (std::uint64_t const start : {63U, 2048U, 8192U, 16384U, 32768U, 65536U}) {
    EXPECT_EQ(DescriptionOfALarge({Found::Ext(start)}), "lost ext") << start;
    EXPECT_EQ(DescriptionOfALarge(Found::Copy(start, 2, 1)), "lost ext") << start;
  }
  EXPECT_EQ(DescriptionOfALarge({Found::Ext(4096)}), "nothing");
}

TEST(CardContents, AreAnExtThatHasLostItsBeginningWhereACopyOfThatIs) {
  for (unsigned const shift : {0U, 1U, 2U}) {
    for (unsigned const group : {1U, 3U, 5U, 7U}) {
      EXPECT_EQ(DescriptionOfALarge(Found::Copy(0, shift, group)), "lost ext")
          << shift << ", " << group;
    }
  }
  EXPECT_EQ(DescriptionOfALarge(Found::Copy(0, 1, 9)), "nothing");
  EXPECT_EQ(DescriptionOfALarge(Found::Copy(0, 3, 1)), "nothing") << "no blocks are so large";
  auto const copy = Found::Copy(0, 1, 1);
  for (Piece const& other : Pieces{{copy[0].place, Number(2, 4)},
                                   {copy[1].place, Number(0, 1)},
                                   {copy[2].place, Number(3, 2)}}) {
    EXPECT_EQ(DescriptionOfALarge(Together(copy, Pieces{other})), "nothing");
  }
}

TEST(CardContents, AreAnExtThatHasLostItsBeginningInAPartitionOfAnyTable) {
  auto const lost = Found::Copy(Found::kSecond, 0, 1);
  for (auto const& [table, description] : std::vector<std::pair<Pieces, std::string>>{
           {{Mbr({{0x0C, Found::kFirst}, {0x83, Found::kSecond}})}, "MBR: nothing, lost ext"},
           {{Mbr({{0x05, Found::kFirst}}),
             Mbr({{0x83, Found::kSecond - Found::kFirst}}, Found::kFirst)},
            "MBR: lost ext"},
           {Gpt({Found::kSecond}), "GPT: lost ext"},
           {{Mbr({{0x83, Found::kBeyond}})}, "lost ext; MBR: beyond the end of the card"}}) {
    auto const contents = ContentsOf(Together(table, lost));
    EXPECT_EQ(contents.Describe(), description);
    EXPECT_TRUE(contents.MayHoldRecordings());
  }
}

TEST(CardContents, AreNoLostExtWhereAnotherFileSystemHasTakenItsPlace) {
  auto const remains = Together(Found::Copy(Found::kFirst, 0, 1), Pieces{Found::Ext(8192)});
  EXPECT_EQ(DescriptionOf(Together(Found::Boot(0, 54, "FAT16   "), remains)), "FAT");
  EXPECT_EQ(DescriptionOf(Together(NewExt(), remains)), "MBR: new ext");
  EXPECT_EQ(DescriptionOf(Together(Found::Boot(Found::kFirst, 3, "EXFAT   "),
                                   Pieces{Mbr({{0x07, Found::kFirst}})}, remains)),
            "MBR: exFAT");
}

TEST(CardContents, AreNotLookedForAnyFurtherOnACardThatCannotBeRead) {
  int asked = 0;
  hooks().pread = [&](auto&&...) -> std::optional<ssize_t> {
    ++asked;
    errno = EIO;
    return -1;
  };
  EXPECT_TRUE(ContentsOf({Mbr({{0x83, Found::kFirst}})}).MayHoldRecordings());
  EXPECT_EQ(asked, 2);
}

TEST(CardContents, AreHardlyLookedForBeyondTheEnd) {
  int beyond = 0;
  hooks().pread = [&](int, void*, std::size_t, off64_t place) -> std::optional<ssize_t> {
    beyond += place >= static_cast<off64_t>(Found::kBytes) ? 1 : 0;
    return std::nullopt;
  };
  EXPECT_EQ(DescriptionOf({}), "nothing");
  EXPECT_LT(beyond, 20);
}

// Of a card that has larger ones, a table counts in those.
TEST(CardContents, AreAtSectorsOfTheCardsOwnLength) {
  hooks().ioctl = [](unsigned long request, void* argument) {
    if (request == BLKSSZGET) *static_cast<int*>(argument) = 4096;
    return Machine::Answer::Success();
  };
  EXPECT_EQ(DescriptionOf({Mbr({{0x83, 256}}), Found::Ext(2048)}), "MBR: ext");
  EXPECT_EQ(DescriptionOfALarge({Found::Ext(63)}), "lost ext");
}

TEST(CardContents, AreFoundBeyondTwoGibibytes) {
  constexpr off64_t kCard = 19LL << 28;  // beyond 4 GiB, too
  constexpr std::uint32_t kFar = 9'000'000;
  auto const card = MakeCard({Mbr({{0x0C, Found::kFirst}, {0x83, kFar}}), Found::Ext(kFar)}, kCard);
  EXPECT_EQ(CardContents::Read(card.Get()).Describe(), "MBR: nothing, ext");
}

TEST(CardContents, OfAFileThatEndsInTheMiddleAreWhatIsThere) {
  auto const card = MakeCard({Mbr({{0x83, 1}, {0x83, 4}})}, 1536 + 57);
  EXPECT_EQ(CardContents::Read(card.Get()).Describe(), "MBR: nothing, beyond the end of the card");
}

TEST(CardContents, HaveLogicalPartitionsRelativeToTheirOwnTableAndTablesToTheFirst) {
  EXPECT_EQ(DescriptionOf({Mbr({{0x0C, 1}, {0x85, 1000}}), Mbr({{0x0C, 8}, {0x05, 100}}, 1000),
                           Mbr({{0x0C, 8}, {0x05, 200}}, 1100), Mbr({{0x83, 9}}, 1200),
                           Found::Ext(1209)}),
            "MBR: nothing, nothing, nothing, ext");
}

TEST(CardContents, HaveAGptAlsoWithPartitionsInFrontOfItAndBehind) {
  auto const pieces = Together(
      Gpt({Found::kSecond}),
      Pieces{Mbr({{0x0C, Found::kFirst}, {0xEE, 1}, {0x83, 9}}), Found::Ext(Found::kSecond)});
  EXPECT_EQ(DescriptionOf(pieces), "GPT: nothing, ext, nothing");
}

TEST(CardContents, EndWithAChainOfTablesThatLeadsInACircle) {
  auto const contents =
      ContentsOf({Mbr({{0x0F, Found::kFirst}}), Mbr({{0x82, 1}, {0x85, 0}}, Found::kFirst)});
  EXPECT_THAT(contents.partitions, SizeIs(128));
}

TEST(CardContents, EndWithTheLastTableOfAChain) {
  EXPECT_EQ(DescriptionOf({Mbr({{0x05, 1000}}), Mbr({{0x0C, 8}}, 1000), Mbr({{0x0C, 8}}, 1)}),
            "MBR: nothing");
}

TEST(CardContents, EndWithAChainOfTablesThatLeadsToNothing) {
  EXPECT_EQ(DescriptionOf({Mbr({{0x05, 0}})}), "MBR:");
  EXPECT_EQ(DescriptionOf({Mbr({{0x05, Found::kBeyond}})}), "MBR:");
}

TEST(CardContents, EndWithTheLastEntryOfAGptHoweverManyItSpeaksOf) {
  auto const pieces = Gpt(std::vector<std::uint64_t>(200, Found::kFirst), 2, 128, 0xFFFFFFFF);
  EXPECT_THAT(ContentsOf(pieces).partitions, SizeIs(128));
  auto const few = Gpt({Found::kFirst, Found::kSecond}, 2, 128, 1);
  EXPECT_THAT(ContentsOf(few).partitions, SizeIs(1));
}

TEST(CardContents, HaveEntriesOfAGptOfAnyLengthAndPlace) {
  auto const pieces =
      Together(Gpt({Found::kFirst, Found::kSecond}, 40, 256), Pieces{Found::Ext(Found::kSecond)});
  EXPECT_EQ(DescriptionOf(pieces), "GPT: nothing, ext");
}

// A type may begin with zeros, and an unused entry have a place.
TEST(CardContents, HaveEntriesOfAGptThatHaveAType) {
  auto pieces = Gpt({});
  pieces.push_back({1024 + 15, "\x01"});
  pieces.push_back({1024 + 32, Number(Found::kFirst, 8)});
  pieces.push_back({1024 + 128 + 32, Number(Found::kSecond, 8)});
  EXPECT_EQ(DescriptionOf(pieces), "GPT: nothing");
}

TEST(CardContents, OfAGptThatLeadsFarAwayAreBeyondTheEnd) {
  constexpr std::uint64_t kFarthest = ~std::uint64_t{0};
  EXPECT_EQ(DescriptionOf(Gpt({kFarthest, kFarthest / 1024, kFarthest / 2048})),
            "GPT: beyond the end of the card, beyond the end of the card, "
            "beyond the end of the card");
  auto pieces = Gpt({});
  pieces.push_back({512 + 72, Number(kFarthest, 8)});
  EXPECT_EQ(DescriptionOf(pieces), "GPT:");
}

TEST(CardContents, AreAnMbrWhereItAnnouncesAGptThatIsNotThere) {
  EXPECT_EQ(DescriptionOf({Mbr({{0xEE, 1}})}), "MBR:");
}

// The kernel shows the card's own partitions, and so does this.
TEST(CardContents, AreThoseOfTheNewTableWhereAnOldGptIsLeftBehindIt) {
  auto const pieces = Together(Gpt({Found::kSecond}), Pieces{Mbr({{0x0C, Found::kFirst}})});
  EXPECT_EQ(DescriptionOf(pieces), "MBR: nothing");
}

TEST(CardContents, MayBeRecordingsWhereSomethingCannotBeRead) {
  auto const card = MakeCard({Mbr({{0x0C, Found::kFirst}, {0x0C, Found::kSecond}})});
  hooks().pread = [](int, void*, std::size_t, off64_t place) -> std::optional<ssize_t> {
    if (place != Found::kFirst * Found::kSector) return std::nullopt;
    errno = EIO;
    return -1;
  };
  auto const contents = CardContents::Read(card.Get());
  EXPECT_TRUE(contents.isUnreadable);
  EXPECT_TRUE(contents.MayHoldRecordings());
  EXPECT_EQ(contents.Describe(), "not all of it readable: MBR: nothing, nothing");
}

TEST(CardContents, AreReadByteByByteIfNeedBeAndThoughSignalsArrive) {
  auto const card = MakeCard({Mbr({{0x83, Found::kFirst}}), Found::Ext(Found::kFirst)});
  bool isInterrupted = false;
  hooks().pread = [&](int fd, void* into, std::size_t, off64_t place) -> std::optional<ssize_t> {
    isInterrupted = !isInterrupted;
    iovec const one{into, 1};  // by another call than the one that asks
    if (!isInterrupted) return preadv(fd, &one, 1, static_cast<off_t>(place));
    errno = EINTR;
    return -1;
  };
  EXPECT_EQ(CardContents::Read(card.Get()).Describe(), "MBR: ext");
}

// Each partition is a device with a memory of its own.
TEST(CardContents, AreReadAnewFromTheCardItself) {
  std::vector<unsigned long> requests;
  hooks().ioctl = [&](unsigned long request, void*) {
    requests.push_back(request);
    return Machine::Answer::Success();
  };
  ContentsOf({});
  EXPECT_EQ(requests.front(), BLKFLSBUF);
}

TEST(CardContents, ArePrintedByNobody) {
  EXPECT_EQ(Capture::AllOutput([] { DescriptionOf(NewExt()); }), "");
}

}  // namespace
