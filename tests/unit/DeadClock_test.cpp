// A device whose clock begins at 1970 with most of its starts, whose power is cut at any moment,
// and whose fixed storage loses things: no recording may be deleted before an older one.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "RTC/ClockFloor.h"
#include "tests/support/CatalogueTest.h"
#include "tests/support/Environment.h"

namespace {

using Machine::hooks;
using Quellon::RTC::ClockFloor;

constexpr char const* kFile = "/root/clock.dat";
constexpr time_t kRelease = 1'000'000'000;
constexpr time_t kBought = kRelease + 30 * 86400;
/// What a device does against its lost clock.
struct Means {
  bool floor = true;       ///< its clock is set to the floor
  bool recordings = true;  ///< which the recordings raise
  bool file = true;        ///< as the fixed storage does
};

class DeadClock : public CatalogueTest {
 protected:
  DeadClock() {
    seed = Environment::Number("QUELLON_SEED", std::random_device()());
    std::cout << "QUELLON_SEED=" << seed << std::endl;
    std::filesystem::create_directories(Machine::Real("/root/"));
    totalBytes = kMostRecordings * kBytes;
    hooks().setClock = [this](long seconds) {
      SetClock(seconds);
      return Machine::Answer::Success();
    };
  }

  /// Returns how often a recording was deleted before an older one.
  int Live(int starts, Means const& means = {}) {
    chance.seed(seed);
    for (int start = 0; start < starts; ++start) {
      truth += Any(60, 3 * 86400);
      // Now and then somebody has set the clock, and the power stayed on.
      bool const isRight = Any(0, 9) == 0;
      SetClock(isRight ? truth : Any(0, 60));
      if (means.file) DamageStorage();
      Start(means);
    }
    std::cout << deletions << " recordings deleted, in " << outOfOrder
              << " cases before an older one" << std::endl;
    EXPECT_GT(deletions, 5 * starts) << "too little was recorded";
    return outOfOrder;
  }

 private:
  static constexpr int kMostRecordings = 16;
  static constexpr int kBytes = 10;

  long Any(long least, long most) {
    return std::uniform_int_distribution<long>(least, most)(chance);
  }

  void SetClock(time_t seconds) {
    behind = truth - seconds;
    hooks().now = seconds;
  }

  void Pass(long seconds) {
    truth += seconds;
    hooks().now = truth - behind;
  }

  void Start(Means const& means) {
    ClockFloor floor(kFile, kRelease);
    if (means.floor) floor.Apply(means.recordings ? kDirectory : "");
    auto const catalogue = NewCatalogue();
    EXPECT_TRUE(catalogue->LoadAndSort());
    for (long left = Any(0, 30); left > 0; --left) {
      MakeRoomInOrder(*catalogue);
      bool const isCut = left == 1;
      Record(*catalogue, isCut);
      if (means.file && !isCut) SaveOnStorageThatMayFail(floor);
    }
    if (means.file && Any(0, 3) == 0) floor.Save();  // an orderly stop
  }

  // The power may be cut before a recording counts, which is on the card in part all the same.
  void Record(FilesManager& catalogue, bool isCut) {
    std::string name = "rec_" + std::to_string(1'000'000 + ++number).substr(1) + ".dat";
    Pass(Any(20, 300));
    MakeRecording(name, isCut ? kBytes / 2 : kBytes, static_cast<time_t>(*hooks().now));
    EXPECT_TRUE(isCut || catalogue.AddFile(name));
  }

  void MakeRoomInOrder(FilesManager& catalogue) {
    auto const before = OnCard();
    EXPECT_TRUE(catalogue.MakeRoom());
    auto const after = OnCard();
    std::size_t const deleted = before.size() - after.size();
    deletions += static_cast<int>(deleted);
    // Names are numbers: what is left must be the end of what there was.
    if (!std::equal(after.rbegin(), after.rend(), before.rbegin())) ++outOfOrder;
  }

  void SaveOnStorageThatMayFail(ClockFloor& floor) {
    if (Any(0, 9) == 0) {
      std::array<char const*, 4> const calls = {"open", "write", "fsync", "rename"};
      hooks().fault = [failing = std::string(calls[static_cast<std::size_t>(Any(0, 3))])](
                          Machine::Call const& call) -> std::optional<Machine::Failure> {
        if (call.function == failing && call.subject.starts_with("/root/")) return ENOSPC;
        return std::nullopt;
      };
    }
    floor.SaveHourly();
    hooks().fault = nullptr;
  }

  // As a power cut or a worn storage leaves it.
  void DamageStorage() {
    if (!std::filesystem::exists(Machine::Real(kFile))) return;
    std::string text = Machine::ReadFile(kFile);
    if (Any(0, 3) == 0) older = text;
    auto const place = [&] {
      return static_cast<std::size_t>(
          Any(0, static_cast<long>(std::max<std::size_t>(text.size(), 1)) - 1));
    };
    switch (Any(0, 11)) {
      case 0:
        Machine::RemoveFile(kFile);
        break;
      case 1:
        Machine::MakeFile(kFile, text.substr(0, place()));
        break;
      case 2:
        Machine::MakeFile(kFile, std::string(text.size(), '\0'));
        break;
      case 3:
        if (text.empty()) break;
        text[place()] = static_cast<char>(Any(0, 255));
        Machine::MakeFile(kFile, text);
        break;
      case 4:
        Machine::MakeFile(kFile, older);  // what was saved last has not come to the storage
        break;
      case 5:
        Machine::MakeFile(std::string(kFile) + ".new", text.substr(0, place()));
        break;
      default:
        break;
    }
  }

  std::uint32_t seed = 0;
  std::mt19937 chance;
  time_t truth = kBought;
  time_t behind = 0;  // the clock, in seconds
  int number = 0;
  int deletions = 0;
  int outOfOrder = 0;
  std::string older;
};

TEST_F(DeadClock, HasNothingDeletedOutOfOrderInAHundredStarts) {
  EXPECT_EQ(Live(100), 0);
}

TEST_F(DeadClock, HasNothingDeletedOutOfOrderByTheRecordingsAlone) {
  EXPECT_EQ(Live(100, {.file = false}), 0);
}

// The controls: what is left out is missed.
TEST_F(DeadClock, HasTheNewestDeletedFirstWithoutAFloor) {
  EXPECT_GT(Live(30, {.floor = false}), 0);
}

TEST_F(DeadClock, HasNewerOnesDeletedFirstWhereOnlyTheFileIsAsked) {
  EXPECT_GT(Live(30, {.recordings = false}), 0);
}

}  // namespace
