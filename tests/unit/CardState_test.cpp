#include "DiskUtils/CardState.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/machine/FaultTable.h"
#include "tests/machine/Machine.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FakeCard.h"

namespace {

using FaultTable::kNoHarm;
using Machine::Answer;
using Machine::hooks;
using Quellon::DiskUtils::Disk;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using State = Quellon::DiskUtils::CardState;
using Finding = State::Finding;

constexpr char const* kStatistics = "/sys/block/mmcblk1/stat";
constexpr char const* kReadOnlyFlag = "/sys/class/block/mmcblk1p1/ro";
constexpr char const* kOptions = "/proc/fs/ext4/mmcblk1p1/options";
constexpr char const* kErrors = "/sys/fs/ext4/mmcblk1p1/errors_count";
constexpr char const* kWarnings = "/sys/fs/ext4/mmcblk1p1/warning_count";
constexpr char const* kController = "/sys/kernel/debug/mmc1/err_stats";

dev_t Card() {
  return makedev(179, 1);
}

/// What the kernel tells of a good card that is mounted. Tests change what they need to.
class Kernel {
 public:
  Kernel() {
    Set(kStatistics, "  10 0 80 5 20 0 160 9 0 11 14 3 0 24 1 7 2\n");
    Set(kReadOnlyFlag, "0\n");
    Set(kErrors, "2\n");
    Set(kWarnings, "1\n");
    Set(kController, "# Command Timeout Occurred:\t 4\n# Data CRC Errors Occurred:\t 0\n");
    Set(kOptions, "rw\nbarrier\nerrors=continue\ndata=writeback\n");
    hooks().stat = [this](std::string const& path, struct stat* status) {
      return Stat(path, *status);
    };
    hooks().fault = [this](Machine::Call const& call) { return Asked(call); };
    SetTime(milliseconds(0));
  }
  Kernel(Kernel const&) = delete;
  Kernel& operator=(Kernel const&) = delete;
  ~Kernel() { hooks() = Machine::Hooks(); }

  static void Set(char const* path, std::string const& text) { Machine::MakeFile(path, text); }

  /// Requests that were answered, reads or writes, and those that wait.
  static void SetRequests(int answered, int waiting) {
    Set(kStatistics, " " + std::to_string(answered) + " 0 80 5 0 0 0 0 " + std::to_string(waiting) +
                         " 11 14 0 0 0 0 0 0\n");
  }

  static void SetTime(milliseconds time) {
    hooks().monotonic = timespec{static_cast<time_t>(time.count() / 1000),
                                 static_cast<long>(time.count() % 1000) * 1'000'000};
  }

  /// What was asked since the last time, without what a test does.
  std::vector<std::string> Calls() { return std::exchange(calls, {}); }

  std::optional<dev_t> node = Card();   ///< nothing: there is no node
  std::optional<dev_t> place = Card();  ///< nothing: there is no mount directory
  std::set<std::string> gone;           ///< files that were removed while they were open

 private:
  [[nodiscard]] std::optional<Answer> Stat(std::string const& path, struct stat& status) const {
    bool const isNode = path == "/dev/mmcblk1p1";
    if (!isNode && path != "/mnt/sdcard/") return std::nullopt;
    auto const number = isNode ? node : place;
    if (!number) return Answer::Failure(ENOENT);
    (isNode ? status.st_rdev : status.st_dev) = *number;
    return Answer::Success();
  }

  std::optional<Machine::Failure> Asked(Machine::Call const& call) {
    if (call.function == "fopen") return std::nullopt;
    calls.push_back(call.function + " " + call.subject);
    if (call.function == "pread" && gone.contains(call.subject)) return ENODEV;
    return std::nullopt;
  }

  std::vector<std::string> calls;
};

State MakeState() {
  return {"/mnt/sdcard/", "/dev/mmcblk1p1", "mmcblk1"};
}

class CardState : public testing::Test {
 protected:
  Descriptors::Watch descriptors;
  Kernel kernel;
};

TEST_F(CardState, IsGoodWhateverHadHappenedBeforeTheStart) {
  State state = MakeState();
  State::Report const report = state.Look();
  EXPECT_EQ(report.finding, Finding::Good);
  EXPECT_EQ(report.errors, 0U);
  EXPECT_EQ(report.warnings, 0U);
  EXPECT_EQ(report.controllerErrors, 0U);
  EXPECT_EQ(report.requests, 0U);
  EXPECT_EQ(report.waiting.count(), 0);
}

TEST_F(CardState, WatchesTheCardOfADisk) {
  FakeCard card;
  Disk const disk = FakeCard::MakeDisk();
  Kernel unused;
  unused.place = 7;
  EXPECT_EQ(State(disk).Look().finding, Finding::NotMounted);
  unused.place = Card();
  EXPECT_EQ(State(disk).Look().finding, Finding::Good);
  unused.gone = {kStatistics};
  EXPECT_EQ(State(disk).Look().finding, Finding::Gone);
}

TEST_F(CardState, IsGoneOnceTheCardsOwnFilesAre) {
  State state = MakeState();
  kernel.gone = {kStatistics};
  EXPECT_EQ(state.Look().finding, Finding::Gone);
}

TEST_F(CardState, IsGoneAlsoWhileAnotherCardIsInTheSlot) {
  State state = MakeState();
  Machine::RemoveFile("/sys/block/mmcblk1");
  kernel.gone = {std::string(kStatistics) + " (deleted)"};
  Kernel::SetRequests(0, 0);
  EXPECT_EQ(state.Look().finding, Finding::Gone);
  EXPECT_EQ(MakeState().Look().finding, Finding::Good);
}

TEST_F(CardState, IsGoneWhereThereWasNoCardAtTheStart) {
  Machine::RemoveFile("/sys/block/mmcblk1");
  State state = MakeState();
  Kernel::SetRequests(0, 0);
  EXPECT_EQ(state.Look().finding, Finding::Gone);
}

TEST_F(CardState, IsNotMountedOnceTheMountPointLeadsElsewhere) {
  State state = MakeState();
  kernel.place = makedev(179, 24);
  EXPECT_EQ(state.Look().finding, Finding::NotMounted);
  kernel.place = std::nullopt;
  EXPECT_EQ(state.Look().finding, Finding::NotMounted);
}

TEST_F(CardState, IsNotMountedOnceItWasUnmountedEvenIfItIsMountedAnew) {
  State state = MakeState();
  kernel.gone = {kErrors};
  EXPECT_EQ(state.Look().finding, Finding::NotMounted);
}

TEST_F(CardState, IsNotMountedWhereTheNodeWasMissingAtTheStart) {
  kernel.node = std::nullopt;
  State state = MakeState();
  kernel.node = Card();
  EXPECT_EQ(state.Look().finding, Finding::NotMounted);
  kernel.place = std::nullopt;
  EXPECT_EQ(state.Look().finding, Finding::NotMounted);
}

TEST_F(CardState, TellsErrorsOfTheFileSystem) {
  State state = MakeState();
  Kernel::Set(kErrors, "5\n");
  State::Report const report = state.Look();
  EXPECT_EQ(report.finding, Finding::Errors);
  EXPECT_EQ(report.errors, 3U);
  EXPECT_EQ(report.warnings + report.controllerErrors, 0U);
}

TEST_F(CardState, TellsWarningsOfTheFileSystem) {
  State state = MakeState();
  Kernel::Set(kWarnings, "2\n");
  State::Report const report = state.Look();
  EXPECT_EQ(report.finding, Finding::Errors);
  EXPECT_EQ(report.warnings, 1U);
  EXPECT_EQ(report.errors + report.controllerErrors, 0U);
}

TEST_F(CardState, TellsTheSumOfTheControllersErrors) {
  State state = MakeState();
  Kernel::Set(kController, "# Command Timeout Occurred:\t 6\n# Data CRC Errors Occurred:\t 5\n");
  State::Report const report = state.Look();
  EXPECT_EQ(report.finding, Finding::Errors);
  EXPECT_EQ(report.controllerErrors, 7U);
  EXPECT_EQ(report.errors + report.warnings, 0U);
}

TEST_F(CardState, TellsErrorsOfTheFileSystemAndTheControllerAtOnce) {
  State state = MakeState();
  Kernel::Set(kErrors, "3\n");
  Kernel::Set(kController, "# Command Timeout Occurred:\t 5\n");
  State::Report const report = state.Look();
  EXPECT_EQ(report.finding, Finding::Errors);
  EXPECT_EQ(report.errors, 1U);
  EXPECT_EQ(report.controllerErrors, 1U);
}

TEST_F(CardState, CountsFromZeroWhatSomebodyHasSetToZero) {
  State state = MakeState();
  Kernel::Set(kController, "# Command Timeout Occurred:\t 0\n");
  EXPECT_EQ(state.Look().finding, Finding::Good);
  Kernel::Set(kController, "# Command Timeout Occurred:\t 1\n");
  EXPECT_EQ(state.Look().controllerErrors, 1U);
}

TEST_F(CardState, KnowsTheControllerByTheNumberOfItsDevice) {
  Machine::RemoveFile(kController);
  Kernel::Set("/sys/kernel/debug/mmc12/err_stats", "# Request Timedout:\t 0\n");
  Kernel::Set("/sys/block/mmcblk12/stat", "0\n");
  State state("/mnt/sdcard/", "/dev/mmcblk1p1", "mmcblk12");
  Kernel::Set("/sys/kernel/debug/mmc12/err_stats", "# Request Timedout:\t 9\n");
  EXPECT_EQ(state.Look().controllerErrors, 9U);
}

TEST_F(CardState, IsGoodWhereTheKernelHasNoFurtherFigures) {
  for (char const* path : {kReadOnlyFlag, kErrors, kWarnings, kController, kOptions}) {
    Machine::RemoveFile(path);
  }
  Kernel::Set(kStatistics, "1 0 8 5 0 0 0 0 0 11 14\n");  // of older kernels, which say no more
  State state("/mnt/sdcard/", "/dev/mmcblk1p1", "mmcblk1");
  EXPECT_EQ(state.Look().finding, Finding::Good);
  Machine::MakeFile("/sys/block/sda/stat", "1\n");
  EXPECT_EQ(State("/mnt/sdcard/", "/dev/mmcblk1p1", "sda").Look().finding, Finding::Good);
}

TEST_F(CardState, IsReadOnlyOnceTheDeviceIs) {
  State state = MakeState();
  Kernel::Set(kReadOnlyFlag, "1\n");
  EXPECT_EQ(state.Look().finding, Finding::ReadOnly);
}

class CardStateOptions : public CardState, public testing::WithParamInterface<char const*> {};

TEST_P(CardStateOptions, MakeTheCardReadOnly) {
  State state = MakeState();
  EXPECT_EQ(state.Look().finding, Finding::Good);
  Kernel::Set(kOptions, GetParam());
  EXPECT_EQ(state.Look().finding, Finding::ReadOnly);
}

INSTANTIATE_TEST_SUITE_P(OfTheFileSystem, CardStateOptions,
                         testing::Values("ro\nbarrier\n", "rw\nbarrier\nemergency_ro\n",
                                         "rw\nbarrier\nemergency_ro\nshutdown\n", "rw\nshutdown\n",
                                         "ro"));

TEST_F(CardState, IsReadOnlyAfterAnErrorWhereErrorsMakeItSoAndTheKernelDoesNotSay) {
  Kernel::Set(kOptions, "rw\nbarrier\nerrors=remount-ro\ndata=writeback\n");
  State state = MakeState();
  EXPECT_EQ(state.Look().finding, Finding::Good);
  Kernel::Set(kWarnings, "2\n");
  EXPECT_EQ(state.Look().finding, Finding::Errors);
  Kernel::Set(kErrors, "3\n");
  EXPECT_EQ(state.Look().finding, Finding::ReadOnly);
}

TEST_F(CardState, IsStuckWhenRequestsHaveWaitedForThreeSeconds) {
  State state = MakeState();
  Kernel::SetRequests(100, 2);
  EXPECT_EQ(state.Look().finding, Finding::Good);
  Kernel::SetTime(milliseconds(2999));
  State::Report report = state.Look();
  EXPECT_EQ(report.finding, Finding::Good);
  EXPECT_EQ(report.requests, 2U);
  EXPECT_EQ(report.waiting.count(), 2999);
  Kernel::SetTime(milliseconds(3000));
  report = state.Look();
  EXPECT_EQ(report.finding, Finding::Stuck);
  EXPECT_EQ(report.waiting.count(), 3000);
}

TEST_F(CardState, CountsTheStartAsALook) {
  Kernel::SetRequests(100, 2);
  State state = MakeState();
  Kernel::SetTime(milliseconds(3000));
  EXPECT_EQ(state.Look().finding, Finding::Stuck);
}

TEST_F(CardState, IsNotStuckWhileRequestsAreAnswered) {
  State state = MakeState();
  for (int second = 1; second < 10; ++second) {
    Kernel::SetTime(milliseconds(1000 * second));
    Kernel::SetRequests(100 + second, 2);
    State::Report const report = state.Look();
    EXPECT_EQ(report.finding, Finding::Good);
    EXPECT_EQ(report.waiting.count(), 0);
  }
}

TEST_F(CardState, CountsReadsWritesDiscardsAndFlushesAsAnswers) {
  std::vector<std::string> const statistics = {
      "0 0 0 0 0 0 0 0 1 0 0 0 0 0 0 0 0", "1 0 0 0 0 0 0 0 1 0 0 0 0 0 0 0 0",
      "1 0 0 0 1 0 0 0 1 0 0 0 0 0 0 0 0", "1 0 0 0 1 0 0 0 1 0 0 1 0 0 0 0 0",
      "1 0 0 0 1 0 0 0 1 0 0 1 0 0 0 1 0"};
  Kernel::Set(kStatistics, statistics[0]);
  State state = MakeState();
  int second = 0;
  for (auto const& text : {statistics[1], statistics[2], statistics[3], statistics[4]}) {
    Kernel::SetTime(milliseconds(5000 * ++second));
    Kernel::Set(kStatistics, text);
    EXPECT_EQ(state.Look().finding, Finding::Good) << text;
  }
  Kernel::SetTime(milliseconds(5000 * ++second));
  EXPECT_EQ(state.Look().finding, Finding::Stuck);
}

TEST_F(CardState, IsNotStuckByARequestThatHasJustBegun) {
  State state = MakeState();
  Kernel::SetRequests(100, 0);
  state.Look();
  Kernel::SetTime(milliseconds(60000));
  Kernel::SetRequests(100, 1);
  EXPECT_EQ(state.Look().finding, Finding::Good);
}

TEST_F(CardState, IsNotStuckOnceNothingWaitsAnyMore) {
  Kernel::SetRequests(100, 2);
  State state = MakeState();
  Kernel::SetRequests(100, 0);
  Kernel::SetTime(milliseconds(5000));
  State::Report const report = state.Look();
  EXPECT_EQ(report.finding, Finding::Good);
  EXPECT_EQ(report.waiting.count(), 0);
}

TEST_F(CardState, IsGoodAgainOnceTheCardAnswers) {
  Kernel::SetRequests(100, 2);
  State state = MakeState();
  Kernel::SetTime(milliseconds(4000));
  EXPECT_EQ(state.Look().finding, Finding::Stuck);
  Kernel::SetRequests(102, 0);
  EXPECT_EQ(state.Look().finding, Finding::Good);
}

TEST_F(CardState, TellsTheWorstOfAll) {
  Kernel::SetRequests(100, 1);
  State state = MakeState();
  Kernel::Set(kErrors, "3\n");
  EXPECT_EQ(state.Look().finding, Finding::Errors);
  Kernel::Set(kOptions, "ro\n");
  EXPECT_EQ(state.Look().finding, Finding::ReadOnly);
  EXPECT_EQ(state.Look().errors, 1U);
  Kernel::SetTime(milliseconds(3000));
  EXPECT_EQ(state.Look().finding, Finding::Stuck);
  kernel.place = 1;
  EXPECT_EQ(state.Look().finding, Finding::NotMounted);
  kernel.gone = {kStatistics};
  EXPECT_EQ(state.Look().finding, Finding::Gone);
}

TEST_F(CardState, AsksTheKernelEightTimesALookAndNothingOfTheCard) {
  State state = MakeState();
  kernel.Calls();
  state.Look();
  auto const asked = [](char const* path) { return std::string("pread ") + path; };
  EXPECT_THAT(kernel.Calls(), ElementsAre(asked(kStatistics), "stat /mnt/sdcard/", asked(kErrors),
                                          asked(kErrors), asked(kWarnings), asked(kController),
                                          asked(kReadOnlyFlag), asked(kOptions)));
}

TEST_F(CardState, HoldsItsFilesFromCommandsAndClosesThemAtItsEnd) {
  {
    State const state = MakeState();
    auto const opened = descriptors.Opened();
    EXPECT_EQ(opened.size(), 6U);
    for (int const fd : opened) EXPECT_TRUE(Descriptors::ClosesOnExec(fd));
  }
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(CardState, DescribesEachFinding) {
  EXPECT_STREQ(State::Describe(Finding::Good), "the card is good");
  EXPECT_STREQ(State::Describe(Finding::Errors), "the card has met errors");
  EXPECT_STREQ(State::Describe(Finding::ReadOnly), "the card is read-only");
  EXPECT_STREQ(State::Describe(Finding::Stuck), "the card does not answer");
  EXPECT_STREQ(State::Describe(Finding::NotMounted), "the card is not mounted");
  EXPECT_STREQ(State::Describe(Finding::Gone), "the card is gone");
}

/// A card that meets an error once its errors have been counted, and is looked at.
class CardWithAnError {
 public:
  CardWithAnError() {
    hooks().pread = [this](int fd, void* data, std::size_t, off_t) -> std::optional<ssize_t> {
      if (Machine::DevicePath(fd) != kErrors || std::exchange(isCounted, true)) return std::nullopt;
      std::memcpy(data, "2\n", 2);
      return 2;
    };
    Kernel::Set(kErrors, "3\n");
  }

  void Run() {
    State state = MakeState();
    report = state.Look();
  }

  [[nodiscard]] std::string Outcome() const {
    return State::Describe(report.finding) + std::string(", ") + std::to_string(report.errors);
  }

 private:
  Kernel kernel;
  bool isCounted = false;
  State::Report report;
};

TEST(CardStateFaults, HideAnErrorOrAreToldAsACardThatIsMissing) {
  FaultTable::Try<CardWithAnError>(
      "the card has met errors, 1",
      {
          {"open *: EINTR", kNoHarm},
          {"pread *: EINTR", kNoHarm},
          {"stat /dev/mmcblk1p1 *", "the card is not mounted, 0"},
          {"stat /mnt/sdcard/ *", "the card is not mounted, 0"},
          {"open /sys/block/mmcblk1/stat *", "the card is gone, 0"},
          {"pread /sys/block/mmcblk1/stat (2): ENODEV", "the card is gone, 0"},
          {"open /sys/fs/ext4/mmcblk1p1/errors_count *", "the card is good, 0"},
          {"pread /sys/fs/ext4/mmcblk1p1/errors_count (1): short", "the card is good, 0"},
          {"pread /sys/fs/ext4/mmcblk1p1/errors_count (1): *", "the card has met errors, 3"},
          {"pread /sys/fs/ext4/mmcblk1p1/errors_count (2): ENODEV", "the card is not mounted, 0"},
          {"pread /sys/fs/ext4/mmcblk1p1/errors_count (2): *", kNoHarm},
          {"pread /sys/fs/ext4/mmcblk1p1/errors_count (3): short", kNoHarm},
          {"pread /sys/fs/ext4/mmcblk1p1/errors_count (3): *", "the card is good, 0"},
      });
}

}  // namespace
