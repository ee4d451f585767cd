#include "DiskUtils/CapacityProof.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tests/machine/FaultTable.h"
#include "tests/machine/Machine.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Environment.h"
#include "tests/support/FakeCard.h"

namespace {

using FaultTable::kNoHarm;
using Machine::Answer;
using Machine::hooks;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Le;
using testing::Lt;
using testing::SizeIs;
using Proof = Quellon::DiskUtils::CapacityProof;
using Result = Proof::Result;

constexpr std::uint64_t kMiB = 1ULL << 20;
constexpr std::uint64_t kGiB = 1ULL << 30;
constexpr std::uint64_t kBlock = 4096;
constexpr std::uint64_t kSector = 512;
constexpr std::uint64_t kRoom = 3 * kMiB + kBlock;
constexpr std::uint64_t kKept = 32 * kMiB;  // of a large card, by the file system for itself

/// A mounted card of 64 GiB with so much room for a proof.
class RoomyCard : public FakeCard {
 public:
  explicit RoomyCard(std::uint64_t room = kRoom) {
    space.f_blocks = 64 * kGiB / kBlock;
    space.f_bfree = static_cast<fsblkcnt_t>((room + kKept) / kBlock);
    device = makedev(179, 1);
  }

  static Proof::Report Prove(std::uint64_t leave = 0) {
    return Proof(kMountPoint, leave).ProveAll();
  }
  static Proof::Report Sample(Proof::Progress const& progress = {}) {
    return Proof(kMountPoint).ProveSamples(progress);
  }
};

/// What takes the sectors in place of the files, and may put them elsewhere. What is forgotten
/// reads as zeros. The files take no space, whatever they are told.
class Medium {
 public:
  Medium() {
    hooks().fallocate = [this](int fd, int mode, off_t offset, off_t length) {
      EXPECT_EQ(mode, 0);
      EXPECT_EQ(offset, 0);
      start[fd] = std::accumulate(files.begin(), files.end(), std::uint64_t{0});
      files.push_back(static_cast<std::uint64_t>(length));
      return Answer::Success();
    };
    hooks().write = [this](int fd, void const* data, std::size_t size) {
      Note("write");
      return Transfer(fd, size, [=, this](std::uint64_t sector, std::size_t at) {
        if (auto const where = place(sector)) {
          std::memcpy(&kept[*where], static_cast<char const*>(data) + at, kSector);
        }
      });
    };
    hooks().read = [this](int fd, void* data, std::size_t size) {
      Note("read");
      return Transfer(fd, size, [=, this](std::uint64_t sector, std::size_t at) {
        auto const where = place(sector);
        std::memcpy(static_cast<char*>(data) + at, where ? &kept[*where] : &zeros, kSector);
      });
    };
    hooks().fsync = [this](int /*fd*/) {
      Note("flush");
      return Answer::Success();
    };
  }
  Medium(Medium const&) = delete;
  Medium& operator=(Medium const&) = delete;
  ~Medium() { hooks() = {}; }

  /// Where a sector lies; nothing if it is lost.
  std::function<std::optional<std::uint64_t>(std::uint64_t sector)> place = Same;
  std::vector<std::uint64_t> files;  ///< their lengths
  std::vector<std::string> events;   ///< without repetitions
  std::unordered_map<std::uint64_t, std::array<char, kSector>> kept;

  /// What is kept stays for the next run, whose files begin where those of this one did.
  void EndRun() {
    files.clear();
    start.clear();
    events.clear();
  }

  static std::optional<std::uint64_t> Same(std::uint64_t sector) { return sector; }

  /// What a card does that has so many bytes, and begins anew after them.
  static auto Wraps(std::uint64_t bytes) {
    return [=](std::uint64_t sector) { return std::optional(sector % (bytes / kSector)); };
  }

  /// And one that loses what comes after them.
  static auto Loses(std::uint64_t bytes) {
    return [=](std::uint64_t sector) {
      return sector < bytes / kSector ? std::optional(sector) : std::nullopt;
    };
  }

 private:
  template <typename Each>
  std::optional<ssize_t> Transfer(int fd, std::size_t size, Each each) {
    if (!start.contains(fd)) return std::nullopt;
    off_t const offset = lseek(fd, static_cast<off_t>(size), SEEK_CUR) - static_cast<off_t>(size);
    EXPECT_GE(offset, 0);
    std::uint64_t const sector = (start[fd] + static_cast<std::uint64_t>(offset)) / kSector;
    for (std::size_t at = 0; at < size; at += std::size_t{kSector}) each(sector + at / kSector, at);
    return static_cast<ssize_t>(size);
  }

  void Note(char const* event) {
    if (events.empty() || events.back() != event) events.emplace_back(event);
  }

  std::map<int, std::uint64_t> start;  ///< of each descriptor's file
  std::array<char, kSector> const zeros{};
};

class CapacityProof : public testing::Test {
 protected:
  RoomyCard card;
};

TEST_F(CapacityProof, HoldsOfACardThatKeepsWhatIsWritten) {
  auto const report = RoomyCard::Prove();
  EXPECT_EQ(report.result, Result::Proved);
  EXPECT_EQ(report.error, 0);
  EXPECT_EQ(report.roomBytes, kRoom);
  EXPECT_EQ(report.writtenBytes, kRoom);
  EXPECT_EQ(report.provedBytes, kRoom);
  EXPECT_EQ(report.wrongBytes, 0);
  EXPECT_EQ(report.firstWrong, std::nullopt);
  EXPECT_EQ(report.origin, std::nullopt);
}

TEST_F(CapacityProof, TellsHowFastTheCardIs) {
  hooks().monotonic = timespec{100, 0};
  Proof const proof(FakeCard::kMountPoint);
  auto report = proof.ProveAll([](std::uint64_t done, std::uint64_t /*all*/) {
    hooks().monotonic->tv_sec += done <= kRoom ? 2 : 1;
    return true;
  });
  EXPECT_EQ(report.writtenPerSecond, kRoom / 8);  // in four pieces
  EXPECT_EQ(report.readPerSecond, kRoom / 4);
  report = proof.ProveAll();  // in no time
  EXPECT_EQ(report.result, Result::Proved);
  EXPECT_EQ(report.writtenPerSecond, 0);
}

TEST_F(CapacityProof, TellsHowFastACardIsThatLies) {
  Medium medium;
  medium.place = Medium::Loses(kMiB);
  hooks().monotonic = timespec{100, 0};
  auto const report = Proof(FakeCard::kMountPoint).ProveAll([](auto&&...) {
    hooks().monotonic->tv_sec += 1;
    return true;
  });
  EXPECT_EQ(report.result, Result::Wrong);
  EXPECT_EQ(report.readPerSecond, kRoom / 4);
}

TEST_F(CapacityProof, ReadsOnlyWhenAllIsWrittenAndFlushed) {
  Medium medium;
  RoomyCard::Prove();
  EXPECT_THAT(medium.events, ElementsAre("write", "flush", "read"));
}

TEST_F(CapacityProof, WritesToFilesThatNobodySeesOrInherits) {
  int written = 0;
  hooks().write = [&](int fd, auto&&...) {
    ++written;
    EXPECT_TRUE(Descriptors::ClosesOnExec(fd));
    EXPECT_THAT(Machine::DevicePath(fd).value_or(""), HasSubstr("(deleted)"));
    EXPECT_TRUE(std::filesystem::is_empty(Machine::Real(FakeCard::kMountPoint)));
    return std::nullopt;
  };
  RoomyCard::Prove();
  EXPECT_EQ(written, 4);
}

// What is in the kernel's memory would prove nothing.
TEST_F(CapacityProof, AsksForDirectIO) {
  std::vector<int> flags;
  hooks().fallocate = [&](int fd, auto&&...) {
    flags.push_back(fcntl(fd, F_GETFL));
    return std::nullopt;
  };
  RoomyCard::Prove();
  EXPECT_THAT(flags, SizeIs(1));
  int const plain = open(Machine::Real(FakeCard::kMountPoint).c_str(),
                         O_TMPFILE | O_RDWR | O_DIRECT | O_CLOEXEC, 0600);
  if (plain < 0) GTEST_SKIP() << "the folder in memory has none";
  close(plain);
  EXPECT_THAT(flags, Each(testing::Truly([](int each) { return (each & O_DIRECT) != 0; })));
}

TEST_F(CapacityProof, LeavesNothingOpen) {
  Descriptors::Watch const descriptors;
  RoomyCard::Prove();
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(CapacityProof, LeavesAsMuchAsItIsTold) {
  EXPECT_EQ(RoomyCard::Prove(kKept + kMiB).roomBytes, kRoom - kMiB);
  EXPECT_EQ(RoomyCard::Prove(kKept + kMiB + 1).roomBytes, kRoom - kMiB - kBlock);
}

TEST_F(CapacityProof, LeavesWhatTheFileSystemKeepsForItself) {
  EXPECT_EQ(RoomyCard::Prove(kKept).roomBytes, kRoom);
  card.space.f_blocks = 64 * kMiB / kBlock;
  card.space.f_bfree = 5 * kMiB / kBlock;
  EXPECT_EQ(RoomyCard::Prove().roomBytes, 3 * kMiB);
}

TEST_F(CapacityProof, CountsInBlocksWhereAnOldKernelTellsNoOtherUnit) {
  card.space.f_frsize = 0;
  card.space.f_bsize = kBlock;
  EXPECT_EQ(RoomyCard::Prove().roomBytes, kRoom);
}

TEST_F(CapacityProof, NeedsRoom) {
  card.space.f_bfree = kKept / kBlock;
  auto const report = RoomyCard::Prove();
  EXPECT_EQ(report.result, Result::NoRoom);
  EXPECT_EQ(report.roomBytes, 0);
  EXPECT_EQ(report.writtenBytes, 0);
  card.space.f_bfree = 0;
  EXPECT_EQ(RoomyCard::Prove().roomBytes, 0);
}

// Else the device's own storage would be filled.
TEST_F(CapacityProof, NeedsAMountedCard) {
  card.mounted = false;
  EXPECT_EQ(RoomyCard::Prove().result, Result::Missing);
  Machine::RemoveFile(FakeCard::kMountPoint);
  auto const report = RoomyCard::Prove();
  EXPECT_EQ(report.result, Result::Missing);
  EXPECT_EQ(report.error, ENOENT);
}

TEST_F(CapacityProof, IsNoneOfWhatHasNoDeviceOfItsOwn) {
  Medium const medium;
  card.device = makedev(0, 42);  // as the kernel numbers what it holds in memory
  auto const report = RoomyCard::Prove();
  EXPECT_EQ(report.result, Result::Unsupported);
  EXPECT_EQ(report.error, 0);
  EXPECT_THAT(medium.events, IsEmpty());
}

TEST_F(CapacityProof, TellsWhereACardBeginsAnew) {
  Medium medium;
  medium.place = Medium::Wraps(2 * kMiB + kSector);
  auto const report = RoomyCard::Prove();
  EXPECT_EQ(report.result, Result::Wrong);
  EXPECT_EQ(report.writtenBytes, kRoom);
  EXPECT_EQ(report.provedBytes, 2 * kMiB + kSector);
  EXPECT_EQ(report.wrongBytes, kRoom - report.provedBytes);
  EXPECT_EQ(report.firstWrong, 0);
  EXPECT_EQ(report.origin, 2 * kMiB + kSector);
}

TEST_F(CapacityProof, TellsFromWhereACardLosesAll) {
  Medium medium;
  medium.place = Medium::Loses(kMiB + kSector);
  auto const report = RoomyCard::Prove();
  EXPECT_EQ(report.result, Result::Wrong);
  EXPECT_EQ(report.provedBytes, kMiB + kSector);
  EXPECT_EQ(report.firstWrong, kMiB + kSector);
  EXPECT_EQ(report.origin, std::nullopt);
}

TEST_F(CapacityProof, TellsTheFirstOfSeveralWrongPlaces) {
  Medium medium;
  medium.place = [](std::uint64_t sector) {
    return std::optional(sector == 9 ? 70 : sector / 2 * 2);
  };
  auto const report = RoomyCard::Prove();
  EXPECT_EQ(report.firstWrong, 0);
  EXPECT_EQ(report.origin, kSector);
  EXPECT_EQ(report.provedBytes + report.wrongBytes, kRoom);
}

TEST_F(CapacityProof, IsNotDeceivedByWhatAnEarlierOneWrote) {
  Medium medium;
  EXPECT_EQ(RoomyCard::Prove().result, Result::Proved);
  medium.EndRun();
  auto const earlier = medium.kept;
  hooks().fsync = [&](int /*fd*/) {
    medium.kept = earlier;
    return Answer::Success();
  };
  auto const report = RoomyCard::Prove();
  EXPECT_EQ(report.result, Result::Wrong);
  EXPECT_EQ(report.provedBytes, 0);
  EXPECT_EQ(report.origin, std::nullopt);
}

TEST_F(CapacityProof, WritesNoWordTwiceThatACardCouldPack) {
  Medium medium;
  EXPECT_EQ(RoomyCard::Prove().result, Result::Proved);
  std::set<std::uint64_t> words;
  for (std::uint64_t const sector : {1234U, 1235U}) {
    for (std::size_t at = 0; at < kSector; at += sizeof(std::uint64_t)) {
      std::uint64_t word = 0;
      std::memcpy(&word, medium.kept[sector].data() + at, sizeof word);
      words.insert(word);
    }
  }
  EXPECT_EQ(words.size(), 2 * kSector / sizeof(std::uint64_t));
}

TEST_F(CapacityProof, NoticesASingleBitAnywhere) {
  Medium medium;
  for (std::size_t const byte : {0U, 7U, 8U, 300U, 511U}) {
    hooks().fsync = [&](int /*fd*/) {
      medium.kept[1234].at(byte) ^= 0x10;
      return Answer::Success();
    };
    auto const report = RoomyCard::Prove();
    medium.EndRun();
    EXPECT_EQ(report.wrongBytes, kSector) << byte;
    EXPECT_EQ(report.firstWrong, 1234 * kSector) << byte;
    EXPECT_EQ(report.origin, std::nullopt) << byte;
  }
}

using Told = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

TEST_F(CapacityProof, TellsHowFarItIs) {
  Told told;
  Proof const proof(FakeCard::kMountPoint);
  auto const report = proof.ProveAll([&](std::uint64_t done, std::uint64_t all) {
    told.emplace_back(done, all);
    return true;
  });
  EXPECT_EQ(report.result, Result::Proved);
  std::uint64_t const all = 2 * kRoom;
  EXPECT_THAT(told, ElementsAre(std::pair(kMiB, all), std::pair(2 * kMiB, all),
                                std::pair(3 * kMiB, all), std::pair(kRoom, all),
                                std::pair(kRoom + kMiB, all), std::pair(kRoom + 2 * kMiB, all),
                                std::pair(kRoom + 3 * kMiB, all), std::pair(all, all)));
}

TEST(CapacityProofOfWholePieces, HasNoEmptyOne) {
  RoomyCard const card(2 * kMiB);
  int told = 0;
  auto const report = Proof(FakeCard::kMountPoint).ProveAll([&](auto&&...) { return ++told > 0; });
  EXPECT_EQ(report.result, Result::Proved);
  EXPECT_EQ(told, 4);
}

/// A report of a proof that is cancelled when so much is done.
Proof::Report CancelledAt(std::uint64_t most) {
  Proof const proof(FakeCard::kMountPoint);
  return proof.ProveAll([=](std::uint64_t done, std::uint64_t /*all*/) { return done < most; });
}

TEST_F(CapacityProof, IsCancelledWhileItWrites) {
  Descriptors::Watch const descriptors;
  auto const report = CancelledAt(2 * kMiB);
  EXPECT_EQ(report.result, Result::Cancelled);
  EXPECT_EQ(report.writtenBytes, 2 * kMiB);
  EXPECT_EQ(report.provedBytes, 0);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(CapacityProof, IsCancelledWhileItReads) {
  auto const report = CancelledAt(kRoom + kMiB);
  EXPECT_EQ(report.result, Result::Cancelled);
  EXPECT_EQ(report.writtenBytes, kRoom);
  EXPECT_EQ(report.provedBytes, kMiB);
}

TEST_F(CapacityProof, KeepsWhatWasFoundWhereItIsCancelledOrFailsLater) {
  Medium medium;
  medium.place = Medium::Loses(0);
  auto report = CancelledAt(kRoom + kMiB);
  EXPECT_EQ(report.result, Result::Wrong);
  EXPECT_EQ(report.wrongBytes, kMiB);
  int reads = 0;
  hooks().read = [&, next = hooks().read](int fd, void* data, std::size_t size) {
    if (++reads == 1) return next(fd, data, size);
    errno = EIO;
    return std::optional<ssize_t>(-1);
  };
  report = RoomyCard::Prove();
  EXPECT_EQ(report.result, Result::Wrong);
  EXPECT_EQ(report.wrongBytes, kMiB);
  EXPECT_EQ(report.error, EIO);
}

TEST_F(CapacityProof, ClosesItsFilesWhereTheProgressThrows) {
  Descriptors::Watch const descriptors;
  Proof const proof(FakeCard::kMountPoint);
  auto const throws = [](auto&&...) -> bool { throw std::runtime_error("enough"); };
  EXPECT_THROW(static_cast<void>(proof.ProveAll(throws)), std::runtime_error);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(CapacityProof, TakesAnEndOfItsFileForAFailure) {
  hooks().read = [](auto&&...) { return 0; };
  auto report = RoomyCard::Prove();
  EXPECT_EQ(report.result, Result::Failed);
  EXPECT_EQ(report.error, EIO);
  hooks().write = [](auto&&...) { return 0; };
  errno = 0;
  report = RoomyCard::Prove();
  EXPECT_EQ(report.result, Result::Failed);
  EXPECT_EQ(report.error, EIO);
  EXPECT_EQ(report.writtenBytes, 0);
}

// The plain file interface of the board reaches no further.
TEST(CapacityProofOfALargeCard, TakesFilesOfLessThanTwoGiB) {
  RoomyCard const card(5 * kGiB);
  Medium medium;
  auto const report = RoomyCard::Sample();
  EXPECT_EQ(report.result, Result::Proved);
  EXPECT_EQ(report.roomBytes, 5 * kGiB);
  EXPECT_THAT(medium.files, ElementsAre(2047 * kMiB, 2047 * kMiB, 5 * kGiB - 4094 * kMiB));
}

TEST(CapacityProofOfALargeCard, IsMadeOfSamplesOfAllParts) {
  RoomyCard const card(5 * kGiB);
  Medium medium;
  Told told;
  auto const report = RoomyCard::Sample([&](std::uint64_t done, std::uint64_t all) {
    told.emplace_back(done, all);
    return true;
  });
  // A beginning of 16 MiB, a block in each 8 MiB of the rest, and the last.
  EXPECT_EQ(report.writtenBytes, 16 * kMiB + (638 + 1) * kBlock);
  EXPECT_EQ(report.provedBytes, report.writtenBytes);
  EXPECT_EQ(told.back(), std::pair(2 * report.writtenBytes, 2 * report.writtenBytes));
  std::set<std::uint64_t> parts;
  for (auto const& [sector, content] : medium.kept) parts.insert(sector * kSector / (8 * kMiB));
  EXPECT_THAT(parts, SizeIs(5 * kGiB / (8 * kMiB)));
  EXPECT_TRUE(medium.kept.contains(5 * kGiB / kSector - 1));
}

TEST(CapacityProofOfALargeCard, HasOtherSamplesEachTime) {
  RoomyCard const card(kGiB);
  Medium medium;
  RoomyCard::Sample();
  std::size_t const once = medium.kept.size();
  medium.EndRun();
  RoomyCard::Sample();
  EXPECT_GT(medium.kept.size(), once + 400 * kBlock / kSector);
}

// As what is written at the beginning is longer than the samples are apart, wherever they are.
TEST(CapacityProofOfALargeCard, FindsByItsSamplesWhereverACardBeginsAnew) {
  constexpr std::uint64_t kLarge = 600 * kMiB;
  constexpr std::uint64_t kMost = kLarge - 4 * kMiB;
  auto const seed = Environment::Number("QUELLON_SEED", std::random_device()());
  SCOPED_TRACE("QUELLON_SEED=" + std::to_string(seed));
  std::mt19937 chance(seed);
  std::vector<std::uint64_t> capacities = {kSector, kMiB, kLarge / 2, kLarge / 3, kMost};
  std::uniform_int_distribution<std::uint64_t> sectors(1, kMost / kSector);
  while (capacities.size() < 12) capacities.push_back(sectors(chance) * kSector);
  for (std::uint64_t const capacity : capacities) {
    RoomyCard const card(kLarge);
    Medium medium;
    medium.place = Medium::Wraps(capacity);
    auto const report = RoomyCard::Sample();
    EXPECT_EQ(report.result, Result::Wrong) << capacity;
    EXPECT_EQ((*report.origin - *report.firstWrong) % capacity, 0) << capacity;
  }
}

TEST(CapacityProofOfALargeCard, FindsByItsSamplesThatACardLosesWhatIsTooMuch) {
  for (std::uint64_t const capacity :
       {std::uint64_t{0}, 100 * kMiB, kGiB - 2 * kMiB, kGiB - kSector}) {
    RoomyCard const card(kGiB);
    Medium medium;
    medium.place = Medium::Loses(capacity);
    EXPECT_EQ(RoomyCard::Sample().result, Result::Wrong) << capacity;
  }
}

TEST(CapacityProofOfALargeCard, WritesASmallOneWhollyForSamples) {
  RoomyCard const card(kMiB + kBlock);
  auto const report = RoomyCard::Sample();
  EXPECT_EQ(report.result, Result::Proved);
  EXPECT_EQ(report.writtenBytes, kMiB + kBlock);
}

TEST(CapacityProofResults, AreDescribed) {
  EXPECT_STREQ(Proof::Describe(Result::Proved), "the card holds what was written");
  EXPECT_STREQ(Proof::Describe(Result::Wrong), "the card does not hold what was written");
  EXPECT_STREQ(Proof::Describe(Result::NoRoom), "there is no room for a proof");
  EXPECT_STREQ(Proof::Describe(Result::Cancelled), "the proof was cancelled");
  EXPECT_STREQ(Proof::Describe(Result::ReadOnly), "the card is read-only");
  EXPECT_STREQ(Proof::Describe(Result::Missing), "there is no card");
  EXPECT_STREQ(Proof::Describe(Result::Unsupported), "the file system is none to prove a card by");
  EXPECT_STREQ(Proof::Describe(Result::Failed), "the card failed");
}

/// A proof of two pieces.
class Proving {
 public:
  void Run() { report = RoomyCard::Prove(); }
  [[nodiscard]] std::string Outcome() const {
    return std::string(Proof::Describe(report.result)) + (report.error != 0 ? ", and why" : "");
  }

 private:
  RoomyCard card{kMiB + kBlock};
  Proof::Report report;
};

TEST(CapacityProofWithEveryCallFailing, TellsWhy) {
  FaultTable::Try<Proving>(
      "the card holds what was written",
      {{"* *: EINTR", kNoHarm},
       {"* *: short", kNoHarm},
       {"close *", kNoHarm},
       {"* *: ENOSPC", "there is no room for a proof, and why"},
       {"* *: EDQUOT", "there is no room for a proof, and why"},
       {"* *: EROFS", "the card is read-only, and why"},
       {"* *: ENOENT", "there is no card, and why"},
       {"* *: ENOTDIR", "there is no card, and why"},
       {"* *: ENODEV", "there is no card, and why"},
       {"* *: ENXIO", "there is no card, and why"},
       {"* *: EINVAL", "the file system is none to prove a card by, and why"},
       {"* *: EOPNOTSUPP", "the file system is none to prove a card by, and why"},
       {"* *: EISDIR", "the file system is none to prove a card by, and why"},
       {"* *", "the card failed, and why"}});
}

}  // namespace
