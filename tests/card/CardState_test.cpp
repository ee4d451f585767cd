// A card that fails while its recorder records.
#include "DiskUtils/CardState.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <string>

#include "DiskUtils/CardDirectory.h"
#include "FileUtils/File.h"
#include "tests/card/CardFixture.h"
#include "tests/support/Capture.h"

namespace {

namespace fs = std::filesystem;
using CardTests::CardTest;
using CardTests::RunQuietly;
using Quellon::DiskUtils::CardDirectory;
using Quellon::DiskUtils::Disk;
using Quellon::FileUtils::Ifile;
using std::chrono::steady_clock;
using State = Quellon::DiskUtils::CardState;
using Finding = State::Finding;

constexpr std::chrono::seconds kToldWithin(5);
constexpr char const* kRecordings = "/mnt/sdcard/cr/";
constexpr std::size_t kBytes = 100'000;

/// The empty mount directory has a folder for recordings, too: by their paths they would be made
/// there once the card is unmounted.
class CardState : public CardTest {
 protected:
  CardState() { fs::create_directories(kRecordings); }
  ~CardState() override {
    Boot();
    fs::remove_all(kRecordings);
  }

  /// Takes a card into service, and makes some recordings on it.
  void Start(std::string const& formatted = "") {
    if (!formatted.empty()) card.Format(formatted);
    card.Insert();
    Capture::Descriptor const hidden(1);
    disk = std::make_unique<Disk>(MakeDisk());
    fs::create_directories(kRecordings);
    state = std::make_unique<State>(*disk);
    for (int good = 0; good < 3; ++good) EXPECT_TRUE(Record());
    EXPECT_EQ(state->Look().finding, Finding::Good);
  }

  /// Makes one recording, as a service does: false where it is not on the card.
  bool Record() {
    CardDirectory const directory(kRecordings, kPartition);
    return Record(directory.Path());
  }

  bool Record(std::string const& directory) {
    std::string path = directory + "rec_" + std::to_string(++number) + ".dat";
    std::string text(kBytes, 'r');
    Ifile file(path, false);
    file.Open(false);
    file.Write(text.data(), kBytes);
    return file.Sync();
  }

  /// Records from the fault on, until something is told of the card.
  State::Report RecordFrom(std::function<void()> const& fault) {
    fault();
    auto const begin = steady_clock::now();
    State::Report report;
    do {
      Record();
      report = state->Look();
    } while (report.finding == Finding::Good && steady_clock::now() - begin < kToldWithin);
    return report;
  }

  /// What was written on the root file system, below the mount point.
  static auto OnTheRoot() {
    Boot();
    return CardTests::NamesIn(kRecordings);
  }

  std::unique_ptr<Disk> disk;
  std::unique_ptr<State> state;
  int number = 0;
};

TEST_F(CardState, IsGoodForAsLongAsTheCardIs) {
  Start();
  for (int recording = 0; recording < 20; ++recording) {
    EXPECT_TRUE(Record());
    State::Report const report = state->Look();
    EXPECT_EQ(report.finding, Finding::Good);
    EXPECT_EQ(report.errors + report.warnings + report.controllerErrors, 0U);
  }
  EXPECT_TRUE(OnTheRoot().empty());
}

TEST_F(CardState, IsReadOnlyAfterAnErrorThatMakesTheFileSystemSo) {
  Start("-e remount-ro");
  State::Report const report = RecordFrom([this] { card.MeetError(); });
  EXPECT_EQ(report.finding, Finding::ReadOnly);
  EXPECT_EQ(report.errors, 1U);
  EXPECT_TRUE(OnTheRoot().empty());
}

TEST_F(CardState, HasMetAnErrorThatDoesNotStopTheRecorder) {
  Start("-e continue");
  State::Report const report = RecordFrom([this] { card.MeetError(); });
  EXPECT_EQ(report.finding, Finding::Errors);
  EXPECT_EQ(report.errors, 1U);
  EXPECT_TRUE(Record());
  EXPECT_EQ(state->Look().errors, 1U);
}

TEST_F(CardState, HasMetErrorsOnceWritesFail) {
  Start();
  State::Report const report = RecordFrom([this] { card.FailWrites(); });
  EXPECT_GE(report.finding, Finding::Errors);
  EXPECT_LE(report.finding, Finding::ReadOnly);
  EXPECT_GT(report.errors + report.warnings, 0U);
  EXPECT_TRUE(OnTheRoot().empty());
}

TEST_F(CardState, IsReadOnlyOnceTheDeviceIsSet) {
  Start();
  auto const report = RecordFrom([] { RunQuietly("blockdev --setro /dev/mmcblk1p1"); });
  RunQuietly("blockdev --setrw /dev/mmcblk1p1");
  EXPECT_EQ(report.finding, Finding::ReadOnly);
  EXPECT_TRUE(OnTheRoot().empty());
}

TEST_F(CardState, IsReadOnlyOnceSomebodyRemountsIt) {
  Start();
  auto const report = RecordFrom([] { RunQuietly("mount -o remount,ro /mnt/sdcard"); });
  EXPECT_EQ(report.finding, Finding::ReadOnly);
  EXPECT_TRUE(OnTheRoot().empty());
}

TEST_F(CardState, IsNotMountedOnceSomebodyUnmountsIt) {
  Start();
  auto const report = RecordFrom([] { ASSERT_EQ(umount(kMountPoint), 0); });
  EXPECT_EQ(report.finding, Finding::NotMounted);
  EXPECT_TRUE(OnTheRoot().empty());
}

TEST_F(CardState, IsNotMountedOnceItWasMountedAnew) {
  Start();
  ASSERT_EQ(umount(kMountPoint), 0);
  ASSERT_TRUE(disk->Mount());
  EXPECT_EQ(state->Look().finding, Finding::NotMounted);
  EXPECT_EQ(State(*disk).Look().finding, Finding::Good);
}

TEST_F(CardState, IsNotMountedOnceItIsUnmountedLazilyWhileARecordingIsMade) {
  Start();
  CardDirectory const directory(kRecordings, kPartition);
  ASSERT_EQ(umount2(kMountPoint, MNT_DETACH), 0);
  EXPECT_TRUE(Record(directory.Path()));
  EXPECT_EQ(CardTests::NamesIn(directory.Path()).size(), 4U);
  EXPECT_EQ(state->Look().finding, Finding::NotMounted);
  EXPECT_TRUE(OnTheRoot().empty());
}

TEST_F(CardState, IsNotMountedOnceSomethingIsMountedOverIt) {
  Start();
  auto const report = RecordFrom([] {
    ASSERT_EQ(mount("over", kMountPoint, "tmpfs", 0, nullptr), 0);
    fs::create_directories(kRecordings);
  });
  EXPECT_EQ(report.finding, Finding::NotMounted);
  EXPECT_TRUE(CardTests::NamesIn(kRecordings).empty());
  EXPECT_TRUE(OnTheRoot().empty());
}

TEST_F(CardState, HasMetErrorsOnceItsControllerHas) {
  fs::path const counts = "/sys/kernel/debug/mmc1/err_stats";
  fs::create_directories(counts.parent_path());
  std::ofstream(counts) << "# Command Timeout Occurred:\t 0\n";
  Start();
  auto const report =
      RecordFrom([&] { std::ofstream(counts) << "# Command Timeout Occurred:\t 2\n"; });
  fs::remove_all("/sys/kernel/debug");
  EXPECT_EQ(report.finding, Finding::Errors);
  EXPECT_EQ(report.controllerErrors, 2U);
}

TEST_F(CardState, IsGoodWhileTheCardIsFullAndRecordingsAreToldNotToBeOnIt) {
  Start();
  RunQuietly("head -c 100M /dev/zero >/mnt/sdcard/all; true");
  EXPECT_FALSE(Record());
  EXPECT_EQ(state->Look().finding, Finding::Good);
}

TEST_F(CardState, IsGoodWhereTheDirectoryIsMissingAndNothingIsRecordedElsewhere) {
  Start();
  fs::rename(kRecordings, "/mnt/sdcard/renamed");
  EXPECT_FALSE(Record());
  EXPECT_EQ(state->Look().finding, Finding::Good);
  EXPECT_EQ(CardTests::NamesIn("/mnt/sdcard/renamed").size(), 3U);
  EXPECT_TRUE(OnTheRoot().empty());
}

// What all the tests that look at the root file system would find.
TEST_F(CardState, RecordingsByTheirPathsAreOnTheRootOnceTheCardIsUnmounted) {
  Start();
  ASSERT_EQ(umount(kMountPoint), 0);
  EXPECT_TRUE(Record(kRecordings));
  EXPECT_EQ(OnTheRoot().size(), 1U);
}

// The usual look: on a busy machine some wait for their turn.
TEST_F(CardState, TakesAFractionOfAMillisecondALook) {
  Start();
  std::array<steady_clock::duration, 201> looks{};
  for (auto& look : looks) {
    auto const begin = steady_clock::now();
    state->Look();
    look = steady_clock::now() - begin;
  }
  auto const usual = looks.begin() + looks.size() / 2;
  std::ranges::nth_element(looks, usual);
  std::chrono::duration<double, std::micro> const microseconds = *usual;
  std::cout << "a look takes " << microseconds.count() << " us" << std::endl;
  EXPECT_LT(*usual, std::chrono::milliseconds(1));
}

}  // namespace
