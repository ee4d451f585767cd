#include "Watchdog/WatchdogGuard.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/watchdog.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "base/UniqueFd.h"
#include "tests/machine/FaultTable.h"
#include "tests/machine/Machine.h"
#include "tests/machine/Threads.h"
#include "tests/support/Capture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Gate.h"
#include "tests/support/LogFile.h"
#include "tests/support/Scoped.h"

namespace {

using FaultTable::kNoHarm;
using Machine::Answer;
using Machine::hooks;
using testing::ElementsAre;
using testing::IsEmpty;
using Guard = Quellon::WatchdogGuard;
using Result = Guard::Result;

constexpr char const* kDevice = "/dev/watchdog";
constexpr char const* kNoWayOut = "/sys/class/watchdog/watchdog0/nowayout";
constexpr unsigned kWithoutMagic = WDIOF_SETTIMEOUT | WDIOF_KEEPALIVEPING;
constexpr unsigned kUsual = kWithoutMagic | WDIOF_MAGICCLOSE;

using Events = std::vector<std::string>;

/// The timer of a driver, as it is at one moment.
struct Timer {
  bool isRunning = false;
  int timeout = 15;  ///< seconds, until another one is set
  int left = 0;      ///< seconds until it restarts the machine
  bool hasRestarted = false;
  int complaints = 0;     ///< of a close that did not stop it
  bool isToStop = false;  ///< when it is closed, by the magic character
};

/// A driver as the kernel makes one: armed when it is opened, stopped by a request, by a close
/// after the magic character, and without knowing that, by any close.
class Driver : public Timer {
 public:
  explicit Driver(unsigned canDo = kUsual, std::string name = "imx2+ watchdog")
      : options(canDo), identity(std::move(name)) {
    Machine::MakeFile(kDevice, "");
    hooks().fault = [this](Machine::Call const& call) { return OpenOrClose(call); };
    hooks().ioctl = [this](unsigned long request, void* argument) {
      return Request(request, argument);
    };
    hooks().write = [this](int fd, void const* data, std::size_t size) {
      return Write(fd, {static_cast<char const*>(data), size});
    };
  }
  Driver(Driver const&) = delete;
  Driver& operator=(Driver const&) = delete;
  /// A guard may end later.
  ~Driver() { hooks() = Machine::Hooks(); }

  /// What was asked of it since this was asked last.
  Events Asked() {
    std::lock_guard const lock(mutex);
    return std::exchange(events, {});
  }

  /// Time goes by.
  void Pass(int seconds) {
    left -= seconds;
    if (isRunning && left <= 0) hasRestarted = true;
  }

  /// What the kernel does when the last descriptor has gone, whoever had it.
  void Close() {
    isOpen = false;
    if (isRunning && !Stops()) ++complaints;
  }

  bool isOpen = false;
  int longest = 128;                ///< seconds
  bool isKept = false;              ///< "nowayout"
  std::set<unsigned long> unknown;  ///< requests it does not know
  int answerToUnknown = ENOTTY;
  std::function<int(unsigned long)> failing = [](unsigned long) { return 0; };
  int failingWrites = 0;                 ///< how many
  std::function<void()> kicked = [] {};  ///< what happens in the middle of a kick
  std::function<void()> closed = [] {};  ///< and after a close

 private:
  std::optional<Machine::Failure> OpenOrClose(Machine::Call const& call) {
    if (call.subject != kDevice) return std::nullopt;
    if (call.function == "open") {
      if (isOpen) return EBUSY;
      isOpen = isRunning = true;
      left = timeout;
      Note("open");
    }
    if (call.function == "close") {
      Close();
      Note("close");
      closed();
    }
    return std::nullopt;
  }

  bool Stops() {
    bool const may = isToStop || (options & WDIOF_MAGICCLOSE) == 0;
    if (may && !isKept) isRunning = false;
    return may && !isKept;
  }

  Answer Request(unsigned long request, void* argument) {
    EXPECT_TRUE(isOpen);
    auto& value = *static_cast<int*>(argument);
    if (request == WDIOC_KEEPALIVE) kicked();
    Note(Name(request, value));
    if (unknown.contains(request)) return Answer::Failure(answerToUnknown);
    if (int const error = failing(request)) return Answer::Failure(error);
    if (request == WDIOC_GETSUPPORT) Describe(*static_cast<watchdog_info*>(argument));
    if (request == WDIOC_GETTIMEOUT) value = timeout;
    if (request == WDIOC_SETTIMEOUT) return Set(value);
    if (request == WDIOC_KEEPALIVE) left = timeout;
    if (request == WDIOC_SETOPTIONS) {
      EXPECT_EQ(value, WDIOS_DISABLECARD);
      if (isKept) return Answer::Failure(EBUSY);
      isRunning = false;
    }
    return Answer::Success();
  }

  static std::string Name(unsigned long request, int value) {
    switch (request) {
      case WDIOC_GETSUPPORT:
        return "describe";
      case WDIOC_GETTIMEOUT:
        return "get";
      case WDIOC_SETTIMEOUT:
        return "set " + std::to_string(value);
      case WDIOC_KEEPALIVE:
        return "kick";
      case WDIOC_SETOPTIONS:
        return "stop";
      default:
        return "?";
    }
  }

  void Describe(watchdog_info& info) const {
    info.options = options;
    std::memcpy(info.identity, identity.data(), std::min(identity.size(), sizeof info.identity));
  }

  Answer Set(int seconds) {
    if (seconds > longest) return Answer::Failure(EINVAL);
    left = timeout = seconds;
    return Answer::Success();
  }

  std::optional<ssize_t> Write(int fd, std::string const& text) {
    if (Machine::DevicePath(fd) != kDevice) return std::nullopt;
    EXPECT_TRUE(isOpen);
    Note("write '" + text + "'");
    if (failingWrites > 0) {
      --failingWrites;
      errno = EIO;
      return -1;
    }
    isToStop = text.find('V') != std::string::npos;
    left = timeout;
    return static_cast<ssize_t>(text.size());
  }

  void Note(std::string const& event) {
    std::lock_guard const lock(mutex);
    events.push_back(event);
  }

  unsigned options;
  std::string identity;
  std::mutex mutex;
  Events events;
};

/// A pipe in the place of the device, which tells whether any process has it open.
class SharedDevice {
 public:
  SharedDevice() {
    Machine::MakeFile(kDevice, "");
    Machine::RemoveFile(kDevice);
    EXPECT_EQ(mkfifo(Machine::Real(kDevice).c_str(), 0600), 0);
    reader = Tarvik::UniqueFd(open(Machine::Real(kDevice).c_str(), O_RDONLY | O_NONBLOCK));
    hooks().ioctl = [](unsigned long, void*) { return Answer::Success(); };
  }

  /// Waits until nobody has it open.
  void AwaitClose() const {
    pollfd writers{reader.Get(), 0, {}};
    EXPECT_EQ(poll(&writers, 1, -1), 1);
  }

  /// What was written to it since this was asked last, and then "open" or "closed".
  [[nodiscard]] std::string State() const {
    std::string text;
    ssize_t n;
    for (char byte; (n = read(reader.Get(), &byte, 1)) > 0;) text += byte;
    return text + (n < 0 && errno == EAGAIN ? "open" : "closed");
  }

 private:
  Tarvik::UniqueFd reader;
};

/// The two ends of a pipe.
struct Pipe {
  Pipe() {
    std::array<int, 2> ends;
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    reader = Tarvik::UniqueFd(ends[0]);
    writer = Tarvik::UniqueFd(ends[1]);
  }

  Tarvik::UniqueFd reader;
  Tarvik::UniqueFd writer;
};

/// Tells of keepers, and ends them with itself. They are children of this process, where an
/// emulator lets it adopt them.
class Keepers {
 public:
  Keepers() {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    fcntl(told.reader.Get(), F_SETFL, O_NONBLOCK);
    hooks().chdir = [this](std::string const& path) {
      pid_t const keeper = getpid();
      auto const result = static_cast<int>(syscall(SYS_chdir, path.c_str()));
      EXPECT_EQ(write(told.writer.Get(), &keeper, sizeof keeper), ssize_t{sizeof keeper});
      return Answer{result, errno};
    };
  }
  Keepers(Keepers const&) = delete;
  Keepers& operator=(Keepers const&) = delete;
  ~Keepers() {
    while (Next() != 0) {
    }
    while (!made.empty()) Kill(*made.begin());
    prctl(PR_SET_CHILD_SUBREAPER, 0);
  }

  /// The one that was made after the one before; 0 if none was.
  pid_t Next() {
    pid_t keeper = 0;
    if (read(told.reader.Get(), &keeper, sizeof keeper) > 0) made.insert(keeper);
    return keeper;
  }

  void Kill(pid_t keeper) {
    kill(keeper, SIGKILL);
    AwaitEnd(keeper);
  }

  void AwaitEnd(pid_t keeper) {
    made.erase(keeper);
    ChildProcess::Wait(keeper);
  }

 private:
  Pipe told;
  std::set<pid_t> made;
};

class WatchdogGuard : public testing::Test {
 protected:
  Descriptors::Watch descriptors;
};

TEST_F(WatchdogGuard, OpensTheDeviceOnceAndHoldsItFromKickToKick) {
  Driver driver;
  Guard guard;
  EXPECT_EQ(guard.Open(60), Result::Done);
  EXPECT_THAT(driver.Asked(), ElementsAre("open", "describe", "set 60", "get", "kick"));
  EXPECT_EQ(guard.Kick(), Result::Done);
  EXPECT_EQ(guard.Kick(), Result::Done);
  EXPECT_THAT(driver.Asked(), ElementsAre("kick", "kick"));
  EXPECT_TRUE(guard.IsOpen());
  EXPECT_TRUE(driver.isRunning);
}

TEST_F(WatchdogGuard, OpensTheDeviceForReadingAndWritingAndKeepsItFromCommands) {
  Driver const driver;
  Guard guard;
  EXPECT_EQ(guard.Open(60), Result::Done);
  auto const opened = descriptors.Opened();
  ASSERT_EQ(opened.size(), 1U);
  EXPECT_TRUE(Descriptors::ClosesOnExec(opened[0]));
  EXPECT_EQ(fcntl(opened[0], F_GETFL) & O_ACCMODE, O_RDWR);
}

TEST_F(WatchdogGuard, GuardsAProcessWithoutStandardDescriptors) {
  ChildProcess::Run([] {
    std::vector<int> opened;
    Result kicked{};
    {
      Descriptors::NoStandardOnes const none;
      Descriptors::Watch const watch;
      Machine::MakeFile(kDevice, "");
      hooks().ioctl = [](unsigned long, void*) { return Answer::Success(); };
      Guard guard;
      guard.Open(60);
      opened = watch.Opened();
      kicked = guard.Kick();
    }
    EXPECT_THAT(opened, ElementsAre(testing::Gt(2)));
    EXPECT_EQ(kicked, Result::Done);
  });
}

TEST_F(WatchdogGuard, IsToBeKickedFourTimesInATimeoutButOnceASecondAtMost) {
  std::pair<int, int> const periods[] = {{1, 1}, {4, 1}, {7, 1}, {8, 2}, {60, 15}, {90, 22}};
  for (auto const& [timeout, period] : periods) {
    Driver const driver;
    Guard guard;
    EXPECT_EQ(guard.Open(timeout), Result::Done);
    EXPECT_EQ(guard.GetKickPeriod().count(), period) << timeout;
  }
}

TEST_F(WatchdogGuard, TouchesNothingAndKnowsNothingUntilItIsOpened) {
  Driver driver;
  Guard guard;
  EXPECT_FALSE(guard.IsOpen());
  EXPECT_EQ(guard.Kick(), Result::NotOpen);
  EXPECT_EQ(guard.Disarm(), Result::NotOpen);
  EXPECT_EQ(guard.GetDriver(), "");
  EXPECT_EQ(guard.GetOptions(), 0U);
  EXPECT_EQ(guard.GetTimeout(), 0);
  EXPECT_THAT(driver.Asked(), IsEmpty());
}

TEST_F(WatchdogGuard, TellsWhatTheDriverIsAndCanDo) {
  Driver const driver(WDIOF_MAGICCLOSE | WDIOF_CARDRESET, "Software Watchdog");
  Guard guard;
  guard.Open(60);
  EXPECT_EQ(guard.GetDriver(), "Software Watchdog");
  EXPECT_EQ(guard.GetOptions(), unsigned{WDIOF_MAGICCLOSE | WDIOF_CARDRESET});
}

TEST_F(WatchdogGuard, TellsANameThatFillsItsField) {
  std::string const name(32, 'w');
  Driver const driver(kUsual, name);
  Guard guard;
  guard.Open(60);
  EXPECT_EQ(guard.GetDriver(), name);
}

TEST_F(WatchdogGuard, TellsTheTimeoutThatTheDriverApplied) {
  Driver driver;
  Guard guard;
  driver.failing = [&](unsigned long request) {
    if (request == WDIOC_GETTIMEOUT) driver.timeout = 64;
    return 0;
  };
  guard.Open(60);
  EXPECT_EQ(guard.GetTimeout(), 64);
}

TEST_F(WatchdogGuard, GuardsWithTheDriversOwnTimeoutWhereAnotherIsRefused) {
  Driver driver;
  driver.longest = 20;
  Guard guard;
  EXPECT_EQ(guard.Open(21), Result::Done);
  EXPECT_EQ(guard.GetTimeout(), 15);
  EXPECT_THAT(driver.Asked(), ElementsAre("open", "describe", "set 21", "get", "kick"));
}

TEST_F(WatchdogGuard, TellsNoTimeoutThatCannotBeReadBack) {
  Driver driver;
  Guard guard;
  guard.Open(60);
  driver.unknown = {WDIOC_GETTIMEOUT};
  EXPECT_EQ(guard.Open(60), Result::Done);
  EXPECT_EQ(guard.GetTimeout(), 0);
}

TEST_F(WatchdogGuard, TakesAnyAnswerThatIsNotNegativeForASuccess) {
  Driver const driver;
  hooks().ioctl = [](unsigned long request, void* argument) {
    if (request == WDIOC_GETTIMEOUT) *static_cast<int*>(argument) = 33;
    return Answer{1, 0};
  };
  Guard guard;
  EXPECT_EQ(guard.Open(60), Result::Done);
  EXPECT_EQ(guard.GetTimeout(), 33);
}

TEST_F(WatchdogGuard, RefusesATimeoutBelowASecondAndLeavesTheDeviceAlone) {
  Driver driver;
  Guard guard;
  for (int const seconds : {0, -1}) {
    errno = 0;
    EXPECT_EQ(guard.Open(seconds), Result::Failed);
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_THAT(driver.Asked(), IsEmpty());
  EXPECT_EQ(guard.Open(1), Result::Done);
}

TEST_F(WatchdogGuard, SetsAnotherTimeoutWithoutClosingTheDevice) {
  Driver driver;
  Guard guard;
  guard.Open(60);
  driver.Asked();
  EXPECT_EQ(guard.Open(90), Result::Done);
  EXPECT_EQ(guard.GetTimeout(), 90);
  EXPECT_THAT(driver.Asked(), ElementsAre("set 90", "get", "kick"));
}

struct Refused {
  int error;
  Result result;
};
class WatchdogGuardRefused : public WatchdogGuard, public testing::WithParamInterface<Refused> {};

TEST_P(WatchdogGuardRefused, TellsWhyTheDeviceCannotBeOpened) {
  hooks().fault = [](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function == "open" && call.subject == kDevice) return GetParam().error;
    return std::nullopt;
  };
  Guard guard;
  EXPECT_EQ(guard.Open(60), GetParam().result);
  EXPECT_EQ(errno, GetParam().error);
  EXPECT_FALSE(guard.IsOpen());
  EXPECT_EQ(guard.Kick(), Result::NotOpen);
}

INSTANTIATE_TEST_SUITE_P(
    ByTheKernel, WatchdogGuardRefused,
    testing::Values(Refused{ENOENT, Result::Missing}, Refused{ENODEV, Result::Missing},
                    Refused{ENXIO, Result::Missing}, Refused{EBUSY, Result::Busy},
                    Refused{EACCES, Result::Failed}, Refused{EPERM, Result::Failed},
                    Refused{EMFILE, Result::Failed}));

TEST_F(WatchdogGuard, OpensADeviceThatAppearsLater) {
  Guard guard;
  EXPECT_EQ(guard.Open(60), Result::Missing);
  Driver const driver;
  EXPECT_EQ(guard.Open(60), Result::Done);
}

TEST_F(WatchdogGuard, FindsTheDeviceBusyWhereAnotherGuardHoldsIt) {
  Driver driver;
  Guard first;
  first.Open(60);
  driver.Asked();
  Guard second;
  EXPECT_EQ(second.Open(60), Result::Busy);
  EXPECT_THAT(driver.Asked(), IsEmpty());
}

TEST_F(WatchdogGuard, TakesAFileInThePlaceOfTheDeviceForNoWatchdogAndLeavesItAsItIs) {
  Machine::MakeFile(kDevice, "somebody's");
  // The kernel's answer for a file; an emulator of user space has another one.
  hooks().ioctl = [](unsigned long, void*) { return Answer::Failure(ENOTTY); };
  Guard guard;
  EXPECT_EQ(guard.Open(60), Result::Missing);
  EXPECT_FALSE(guard.IsOpen());
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
  EXPECT_EQ(Machine::ReadFile(kDevice), "somebody's");
}

TEST_F(WatchdogGuard, GuardsByADriverThatFailsToTellWhatItIs) {
  Driver driver;
  {
    Guard guard;
    guard.Open(60);
    driver.failing = [](unsigned long request) { return request == WDIOC_GETSUPPORT ? EIO : 0; };
    guard.Disarm();
    EXPECT_EQ(guard.Open(60), Result::Done);
    EXPECT_EQ(guard.GetDriver(), "");
    EXPECT_EQ(guard.GetOptions(), 0U);
    EXPECT_TRUE(guard.IsStoppedByClose());
    EXPECT_EQ(guard.Kick(), Result::Done);
  }
}

TEST_F(WatchdogGuard, KicksByAByteWhereTheDriverTakesNoRequestForIt) {
  Driver driver;
  driver.unknown = {WDIOC_KEEPALIVE};
  driver.answerToUnknown = EOPNOTSUPP;
  Guard guard;
  guard.Open(60);
  driver.Asked();
  EXPECT_EQ(guard.Kick(), Result::Done);
  EXPECT_THAT(driver.Asked(), ElementsAre("kick", "write ' '"));
}

TEST_F(WatchdogGuard, TellsAKickThatFailedAndStaysOpenForTheNext) {
  Driver driver;
  Guard guard;
  guard.Open(60);
  driver.failing = [](unsigned long) { return ENODEV; };
  driver.failingWrites = 1;
  EXPECT_EQ(guard.Kick(), Result::Failed);
  EXPECT_EQ(errno, EIO);
  EXPECT_TRUE(guard.IsOpen());
  driver.failing = [](unsigned long) { return 0; };
  EXPECT_EQ(guard.Kick(), Result::Done);
}

TEST_F(WatchdogGuard, DisarmsByARequestAndTheMagicClose) {
  Driver driver;
  Guard guard;
  guard.Open(60);
  driver.Asked();
  EXPECT_EQ(guard.Disarm(), Result::Done);
  EXPECT_THAT(driver.Asked(), ElementsAre("stop", "write 'V'", "close"));
  EXPECT_FALSE(driver.isRunning);
  EXPECT_EQ(driver.complaints, 0);
  EXPECT_FALSE(guard.IsOpen());
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(WatchdogGuard, SaysNothingMagicToADriverThatDoesNotKnowIt) {
  Driver driver(kWithoutMagic);
  Guard guard;
  guard.Open(60);
  driver.Asked();
  EXPECT_EQ(guard.Disarm(), Result::Done);
  EXPECT_THAT(driver.Asked(), ElementsAre("stop", "close"));
  EXPECT_FALSE(driver.isRunning);
}

TEST_F(WatchdogGuard, DisarmsByTheMagicCloseAloneADriverThatCannotBeAskedToStop) {
  for (int const answer : {ENOTTY, EOPNOTSUPP}) {
    Machine::Reset();
    Driver driver;
    driver.unknown = {WDIOC_SETOPTIONS};
    driver.answerToUnknown = answer;
    Guard guard;
    guard.Open(60);
    driver.Asked();
    EXPECT_EQ(guard.Disarm(), Result::Done);
    EXPECT_THAT(driver.Asked(), ElementsAre("stop", "write 'V'", "close"));
    EXPECT_FALSE(driver.isRunning);
    EXPECT_EQ(driver.complaints, 0);
  }
}

TEST_F(WatchdogGuard, TellsADriverThatMayNotStopAndGoesOnKickingIt) {
  Driver driver;
  driver.isKept = true;
  Guard guard;
  guard.Open(60);
  driver.Asked();
  EXPECT_EQ(guard.Disarm(), Result::Unstoppable);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_TRUE(guard.IsOpen());
  EXPECT_EQ(guard.Kick(), Result::Done);
  EXPECT_THAT(driver.Asked(), ElementsAre("stop", "kick"));
}

TEST_F(WatchdogGuard, TellsADriverThatCannotStopAndGoesOnKickingIt) {
  Driver driver;
  Guard guard;
  guard.Open(60);
  driver.failing = [](unsigned long request) { return request == WDIOC_SETOPTIONS ? EIO : 0; };
  driver.Asked();
  EXPECT_EQ(guard.Disarm(), Result::Unstoppable);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(guard.Kick(), Result::Done);
  EXPECT_THAT(driver.Asked(), ElementsAre("stop", "kick"));
  EXPECT_TRUE(driver.isRunning);
}

TEST_F(WatchdogGuard, StaysOpenWhereTheMagicCloseIsNotTakenAndMayBeToldAgain) {
  Driver driver;
  driver.unknown = {WDIOC_SETOPTIONS};
  Guard guard;
  guard.Open(60);
  driver.failingWrites = 1;
  EXPECT_EQ(guard.Disarm(), Result::Failed);
  EXPECT_EQ(errno, EIO);
  EXPECT_TRUE(guard.IsOpen());
  EXPECT_TRUE(driver.isRunning);
  EXPECT_EQ(guard.Disarm(), Result::Done);
  EXPECT_FALSE(driver.isRunning);
}

TEST_F(WatchdogGuard, NeedsNoMagicCloseOfADriverThatHasStopped) {
  Driver driver;
  Guard guard;
  guard.Open(60);
  driver.failingWrites = 1;
  EXPECT_EQ(guard.Disarm(), Result::Done);
  EXPECT_FALSE(guard.IsOpen());
}

TEST_F(WatchdogGuard, IsNotOpenOnceDisarmedAndMayBeOpenedAnew) {
  Driver driver;
  Guard guard;
  guard.Open(60);
  guard.Disarm();
  driver.Asked();
  EXPECT_EQ(guard.Kick(), Result::NotOpen);
  EXPECT_EQ(guard.Disarm(), Result::NotOpen);
  EXPECT_THAT(driver.Asked(), IsEmpty());
  EXPECT_EQ(guard.GetTimeout(), 60);
  EXPECT_EQ(guard.Open(30), Result::Done);
  EXPECT_TRUE(driver.isRunning);
}

TEST_F(WatchdogGuard, ClosesTheDeviceAtItsEndAndLeavesTheTimerRunning) {
  Driver driver;
  {
    Guard guard;
    guard.Open(60);
    driver.Asked();
    EXPECT_FALSE(guard.IsStoppedByClose());
  }
  EXPECT_THAT(driver.Asked(), ElementsAre("close"));
  EXPECT_TRUE(driver.isRunning);
  EXPECT_EQ(driver.complaints, 1);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(WatchdogGuard, TellsThatItsEndWouldStopADriverWithoutTheMagicClose) {
  Driver driver(WDIOF_SETTIMEOUT);
  {
    Guard guard;
    guard.Open(60);
    EXPECT_TRUE(guard.IsStoppedByClose());
    Machine::MakeFile(kNoWayOut, "0\n");
    EXPECT_TRUE(guard.IsStoppedByClose());
    Machine::MakeFile(kNoWayOut, "");
    EXPECT_TRUE(guard.IsStoppedByClose());
  }
  EXPECT_FALSE(driver.isRunning);
}

TEST_F(WatchdogGuard, TellsThatItsEndWouldNotStopADriverThatIsKeptFromStopping) {
  Driver driver(WDIOF_SETTIMEOUT);
  driver.isKept = true;
  Machine::MakeFile(kNoWayOut, "1\n");
  {
    Guard guard;
    guard.Open(60);
    EXPECT_FALSE(guard.IsStoppedByClose());
  }
  EXPECT_TRUE(driver.isRunning);
}

struct Kind {
  char const* name;
  unsigned options;
  void (*change)(Driver&);
};
void PrintTo(Kind const& kind, std::ostream* stream) {
  *stream << kind.name;
}
class WatchdogGuardOfAnyKind : public WatchdogGuard, public testing::WithParamInterface<Kind> {};

// Whatever the driver: it is held, kicked and not complained of; and it goes on at the guard's end,
// or that was told.
TEST_P(WatchdogGuardOfAnyKind, GuardsOrTellsThatItsEndWillNot) {
  Driver driver(GetParam().options);
  GetParam().change(driver);
  std::optional<Guard> guard(std::in_place);
  EXPECT_EQ(guard->Open(60), Result::Done);
  for (int kick = 0; kick < 3; ++kick) EXPECT_EQ(guard->Kick(), Result::Done);
  EXPECT_TRUE(driver.isRunning);
  EXPECT_EQ(driver.complaints, 0);
  EXPECT_EQ(guard->GetTimeout(), driver.timeout);
  bool const isStopped = guard->IsStoppedByClose();
  guard.reset();
  EXPECT_NE(driver.isRunning, isStopped);
}

TEST_P(WatchdogGuardOfAnyKind, IsDisarmedOrTellsThatItIsNot) {
  Driver driver(GetParam().options);
  GetParam().change(driver);
  Guard guard;
  EXPECT_EQ(guard.Open(60), Result::Done);
  Result const disarmed = guard.Disarm();
  EXPECT_EQ(disarmed, driver.isRunning ? Result::Unstoppable : Result::Done);
  EXPECT_EQ(guard.IsOpen(), driver.isRunning);
  EXPECT_EQ(driver.complaints, 0);
}

void BeKept(Driver& driver) {
  driver.isKept = true;
  Machine::MakeFile(kNoWayOut, "1\n");
}

auto SixKinds() {
  return testing::Values(Kind{"usual", kUsual, [](Driver&) {}},
                         Kind{"without the magic close", kWithoutMagic, [](Driver&) {}},
                         Kind{"never stopped", kUsual, BeKept},
                         Kind{"never stopped, without the magic close", WDIOF_SETTIMEOUT, BeKept},
                         Kind{"with a timeout of its own, kicked by writing", WDIOF_MAGICCLOSE,
                              [](Driver& driver) {
                                driver.unknown = {WDIOC_SETTIMEOUT, WDIOC_KEEPALIVE};
                                driver.answerToUnknown = EOPNOTSUPP;
                              }},
                         Kind{"without a request to stop", kUsual,
                              [](Driver& driver) { driver.unknown = {WDIOC_SETOPTIONS}; }});
}

INSTANTIATE_TEST_SUITE_P(SixDrivers, WatchdogGuardOfAnyKind, SixKinds());

/// How a service ends: what it does last. Nothing of it runs after that.
struct Death {
  char const* name;
  void (*die)();
  bool isOfAll = false;  ///< the machine's with it
};
void PrintTo(Death const& death, std::ostream* stream) {
  *stream << death.name;
}

void BeKilled() {
  raise(SIGKILL);
}

void BeStopped() {
  raise(SIGSTOP);
}

void Crash() {
  rlimit const none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  signal(SIGSEGV, SIG_DFL);
  raise(SIGSEGV);
}

void Hang() {
  Pipe const pipe;
  char byte;
  EXPECT_EQ(read(pipe.reader.Get(), &byte, 1), 0);  // never
}

/// A service in a process of its own, which guards a machine for three timeouts and then dies. Time
/// goes by for the driver alone.
class Service {
 public:
  Service(Kind const& kind, Death const& death, bool hasKeeper) : driver(kind.options) {
    kind.change(driver);
    Pipe const last;
    process = ChildProcess::Start([&] {
      Guard guard;
      guard.Open(60);
      if (hasKeeper) guard.KeepOpenAfterEnd();
      for (int kick = 0; kick < 12; ++kick) {
        driver.Pass(static_cast<int>(guard.GetKickPeriod().count()));
        guard.Kick();
      }
      Timer const timer = driver;
      EXPECT_EQ(write(last.writer.Get(), &timer, sizeof timer), ssize_t{sizeof timer});
      death.die();
      return 0;
    });
    EXPECT_EQ(read(last.reader.Get(), &static_cast<Timer&>(driver), sizeof(Timer)),
              ssize_t{sizeof(Timer)});
    siginfo_t info;
    if (death.die != Hang) waitid(P_PID, id_t(process), &info, WEXITED | WSTOPPED | WNOWAIT);
    keeper = keepers.Next();
    if (death.isOfAll && keeper > 0) kill(keeper, SIGSTOP);
    complaintsInLife = driver.complaints;
    if (device.State() == "closed") driver.Close();
  }
  Service(Service const&) = delete;
  Service& operator=(Service const&) = delete;
  ~Service() {
    kill(process, SIGKILL);
    ChildProcess::Wait(process);
  }

  int complaintsInLife = 0;
  pid_t keeper = 0;

 private:
  SharedDevice const device;

 public:
  Driver driver;  ///< as the service left it

 private:
  Keepers keepers;
  pid_t process = 0;
};

class WatchdogGuardAtADeath : public WatchdogGuard,
                              public testing::WithParamInterface<std::tuple<Kind, Death>> {};

TEST_P(WatchdogGuardAtADeath, RestartsTheMachineInTime) {
  auto const& [kind, death] = GetParam();
  Service service(kind, death, true);
  auto& driver = service.driver;
  EXPECT_EQ(service.complaintsInLife, 0);
  EXPECT_FALSE(driver.hasRestarted);
  driver.Pass(driver.timeout - 1);
  EXPECT_FALSE(driver.hasRestarted);
  driver.Pass(1);
  EXPECT_TRUE(driver.hasRestarted);
}

TEST_P(WatchdogGuardAtADeath, HasAKeeperOnlyWhereTheDriverWouldStop) {
  auto const& [kind, death] = GetParam();
  Service const service(kind, death, true);
  bool const stops = (kind.options & WDIOF_MAGICCLOSE) == 0 && !service.driver.isKept;
  EXPECT_EQ(service.keeper > 0, stops);
}

INSTANTIATE_TEST_SUITE_P(
    SixDriversAndFiveDeaths, WatchdogGuardAtADeath,
    testing::Combine(SixKinds(),
                     testing::Values(Death{"killed", BeKilled}, Death{"stopped", BeStopped},
                                     Death{"crashed", Crash}, Death{"hung", Hang},
                                     Death{"panic", BeStopped, true})));

TEST_F(WatchdogGuard, IsNoGuardAnyMoreWithoutAKeeperWhereTheDriverIsStoppedByAClose) {
  Service service({"", kWithoutMagic, [](Driver&) {}}, {"killed", BeKilled}, false);
  service.driver.Pass(1000);
  EXPECT_FALSE(service.driver.hasRestarted);
}

/// A guard whose driver is stopped by a close, and which has a keeper.
class Kept {
 public:
  Kept() {
    // A keeper has nothing else to write to.
    driver.closed = [test = getpid()] {
      if (getpid() == test) return;
      EXPECT_EQ(write(0, "told", 4), 4);
    };
    guard->Open(60);
    EXPECT_EQ(guard->KeepOpenAfterEnd(), Result::Done);
    keeper = keepers.Next();
    EXPECT_GT(keeper, 0);
    driver.Asked();
  }

  SharedDevice const device;
  Driver driver{kWithoutMagic};
  Keepers keepers;
  Descriptors::Watch const before;
  std::optional<Guard> guard{std::in_place};
  pid_t keeper = 0;
};

// Before the others: a process that became a keeper would end without a failure.
TEST_F(WatchdogGuard, GoesOnItselfBesideItsKeeper) {
  constexpr int kGoesOn = 7;
  pid_t const service = ChildProcess::Start([] {
    Driver const driver(kWithoutMagic);
    Guard guard;
    guard.Open(60);
    guard.KeepOpenAfterEnd();
    guard.Disarm();
    return kGoesOn;
  });
  EXPECT_EQ(WEXITSTATUS(ChildProcess::Wait(service)), kGoesOn);
}

TEST_F(WatchdogGuard, EndsItsKeeperBeforeItClosesTheDevice) {
  Kept kept;
  EXPECT_EQ(kept.guard->Disarm(), Result::Done);
  EXPECT_EQ(kept.device.State(), "toldclosed");
  kept.keepers.AwaitEnd(kept.keeper);
  EXPECT_THAT(kept.driver.Asked(), ElementsAre("stop", "close"));
  EXPECT_THAT(kept.before.Opened(), IsEmpty());
}

TEST_F(WatchdogGuard, LeavesItsKeeperBehindAtItsEnd) {
  Kept kept;
  kept.guard.reset();
  EXPECT_EQ(kept.device.State(), "open");
  kept.keepers.Kill(kept.keeper);
  kept.device.AwaitClose();
}

TEST_F(WatchdogGuard, HasAKeeperWithASessionANameAndNothingElse) {
  Kept const kept;
  std::string const process = "/proc/" + std::to_string(kept.keeper);
  std::set<std::string> open;
  for (auto const& entry : std::filesystem::directory_iterator(process + "/fd")) {
    open.insert(entry.path().filename());
  }
  EXPECT_THAT(open, ElementsAre("0", "1", "2"));
  EXPECT_EQ(std::filesystem::read_symlink(process + "/fd/0"), Machine::Real(kDevice));
  // Both ends of the channel, so that it does not end with the service.
  std::set<std::string> const channel{std::filesystem::read_symlink(process + "/fd/1"),
                                      std::filesystem::read_symlink(process + "/fd/2")};
  EXPECT_THAT(channel, testing::SizeIs(2));
  EXPECT_THAT(channel, testing::Each(testing::StartsWith("socket:")));
  EXPECT_EQ(getsid(kept.keeper), kept.keeper);
  std::string name;
  std::getline(std::ifstream(process + "/comm"), name);
  EXPECT_EQ(name, "watchdog-keeper");
  // Nor a folder of the service's, which may be on the card.
  EXPECT_EQ(std::filesystem::read_symlink(process + "/cwd"), "/");
}

TEST_F(WatchdogGuard, HasAKeeperThatNoSignalEndsButOne) {
  Kept kept;
  for (int const signal : {SIGHUP, SIGINT, SIGTERM, SIGUSR1}) kill(kept.keeper, signal);
  kept.guard->Disarm();
  EXPECT_EQ(kept.device.State(), "toldclosed");
  kept.keepers.AwaitEnd(kept.keeper);
}

TEST_F(WatchdogGuard, MakesOneKeeper) {
  Kept kept;
  EXPECT_EQ(kept.guard->KeepOpenAfterEnd(), Result::Done);
  EXPECT_EQ(kept.keepers.Next(), 0);
}

TEST_F(WatchdogGuard, MakesAnotherKeeperOnceItIsOpenedAnew) {
  Kept kept;
  kept.guard->Disarm();
  kept.keepers.AwaitEnd(kept.keeper);
  kept.guard->Open(60);
  EXPECT_EQ(kept.guard->KeepOpenAfterEnd(), Result::Done);
  EXPECT_GT(kept.keepers.Next(), 0);
}

TEST_F(WatchdogGuard, MakesAnotherKeeperWhereTheDeviceWasFree) {
  Kept kept;
  kept.keepers.Kill(kept.keeper);
  kept.guard.emplace();
  kept.guard->Open(60);
  EXPECT_EQ(kept.guard->KeepOpenAfterEnd(), Result::Done);
  EXPECT_GT(kept.keepers.Next(), 0);
}

TEST_F(WatchdogGuard, IsDisarmedThoughItsKeeperWasKilled) {
  Kept kept;
  kept.keepers.Kill(kept.keeper);
  EXPECT_EQ(kept.guard->Disarm(), Result::Done);
  EXPECT_EQ(kept.device.State(), "closed");
}

TEST_F(WatchdogGuard, KeepsItsKeeperWhereTheDriverDoesNotStop) {
  Kept kept;
  kept.driver.isKept = true;
  EXPECT_EQ(kept.guard->Disarm(), Result::Unstoppable);
  EXPECT_EQ(kill(kept.keeper, 0), 0);
  kept.guard.reset();
  EXPECT_EQ(kept.device.State(), "open");
}

TEST_F(WatchdogGuard, HasNoKeeperThatWouldHaveToBeWaitedFor) {
  Driver const driver(kWithoutMagic);
  Guard guard;
  guard.Open(60);
  EXPECT_EQ(guard.KeepOpenAfterEnd(), Result::Done);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  guard.Disarm();
}

TEST_F(WatchdogGuard, LeavesNoChildThoughASignalArrivesMeanwhile) {
  Driver const driver(kWithoutMagic);
  Guard guard;
  guard.Open(60);
  int interrupted = 0;
  hooks().fault = [&](auto const& call) -> std::optional<Machine::Failure> {
    if (call.function == "waitpid" && interrupted++ == 0) return EINTR;
    return std::nullopt;
  };
  EXPECT_EQ(guard.KeepOpenAfterEnd(), Result::Done);
  EXPECT_EQ(interrupted, 2);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  guard.Disarm();
}

TEST_F(WatchdogGuard, HasAKeeperInAProcessThatIgnoresItsChildren) {
  struct sigaction ignored {};
  ignored.sa_handler = SIG_IGN;
  auto const children = Scoped::SignalAction(SIGCHLD, ignored);
  Driver const driver(kWithoutMagic);
  Guard guard;
  guard.Open(60);
  EXPECT_EQ(guard.KeepOpenAfterEnd(), Result::Done);
  EXPECT_EQ(guard.Disarm(), Result::Done);
}

TEST_F(WatchdogGuard, HasAKeeperThatNothingIsPrintedTo) {
  ChildProcess::Run([] {
    std::vector<int> opened;
    {
      Descriptors::NoStandardOnes const none;
      Descriptors::Watch const watch;
      Machine::MakeFile(kDevice, "");
      hooks().ioctl = [](unsigned long, void*) { return Answer::Success(); };
      Guard guard;
      guard.Open(60);
      guard.KeepOpenAfterEnd();
      opened = watch.Opened();
      guard.Disarm();
    }
    EXPECT_THAT(opened, ElementsAre(0, 1, 2, testing::Gt(2), testing::Gt(2)));
  });
}

TEST_F(WatchdogGuard, HasNoKeeperWhereItIsNotOpen) {
  Driver const driver(kWithoutMagic);
  Keepers keepers;
  Guard guard;
  EXPECT_EQ(guard.KeepOpenAfterEnd(), Result::NotOpen);
  guard.Open(60);
  ChildProcess::Run([&] { EXPECT_EQ(guard.KeepOpenAfterEnd(), Result::NotOpen); });
  EXPECT_EQ(keepers.Next(), 0);
}

struct Lacking {
  char const* call;
  bool isChilds;
  int error;
};
class WatchdogGuardLacking : public WatchdogGuard, public testing::WithParamInterface<Lacking> {};

TEST_P(WatchdogGuardLacking, TellsThatThereIsNoKeeperAndGoesOn) {
  auto const lacking = GetParam();
  Driver const driver(kWithoutMagic);
  Keepers keepers;
  Guard guard;
  guard.Open(60);
  Descriptors::Watch const before;
  auto const faults = std::exchange(
      hooks().fault, [=, parent = getpid()](auto const& call) -> std::optional<Machine::Failure> {
        bool const isMeant =
            call.function == lacking.call && (getpid() != parent) == lacking.isChilds;
        if (isMeant) return EMFILE;
        return std::nullopt;
      });
  EXPECT_EQ(guard.KeepOpenAfterEnd(), Result::Failed);
  EXPECT_EQ(errno, lacking.error);
  EXPECT_EQ(keepers.Next(), 0);
  EXPECT_THAT(before.Opened(), IsEmpty());
  EXPECT_EQ(guard.Kick(), Result::Done);
  hooks().fault = faults;
  EXPECT_EQ(guard.KeepOpenAfterEnd(), Result::Done);
  EXPECT_GT(keepers.Next(), 0);
}

INSTANTIATE_TEST_SUITE_P(InTurn, WatchdogGuardLacking,
                         testing::Values(Lacking{"socketpair", false, EMFILE},
                                         Lacking{"fork", false, EAGAIN},
                                         Lacking{"fork", true, EAGAIN}));

TEST_F(WatchdogGuard, LogsNothingAndPrintsNothing) {
  LogFile::BeginAnew();
  Driver driver;
  std::string const output = Capture::AllOutput([] {
    Guard guard;
    EXPECT_EQ(guard.Open(60), Result::Done);
    EXPECT_EQ(guard.Kick(), Result::Done);
    EXPECT_EQ(guard.Disarm(), Result::Done);
    EXPECT_EQ(guard.Open(0), Result::Failed);
  });
  EXPECT_EQ(output, "");
  EXPECT_EQ(LogFile::Text(), "");
  Tarvik::Ilog::Logger::GetInstance()->Close();
}

TEST_F(WatchdogGuard, HasATextForEachResult) {
  EXPECT_STREQ(Guard::Describe(Result::Done), "done");
  EXPECT_STREQ(Guard::Describe(Result::Missing), "there is no watchdog");
  EXPECT_STREQ(Guard::Describe(Result::Busy), "the watchdog is held by another process");
  EXPECT_STREQ(Guard::Describe(Result::NotOpen), "the watchdog is not open");
  EXPECT_STREQ(Guard::Describe(Result::Unstoppable), "the watchdog cannot be stopped");
  EXPECT_STREQ(Guard::Describe(Result::Failed), "the watchdog failed");
}

TEST_F(WatchdogGuard, NeitherKicksNorDisarmsNorOpensInAChild) {
  Driver driver;
  Guard guard;
  guard.Open(60);
  driver.Asked();
  ChildProcess::Run([&] {
    EXPECT_FALSE(guard.IsOpen());
    EXPECT_EQ(guard.Kick(), Result::NotOpen);
    EXPECT_EQ(guard.Disarm(), Result::NotOpen);
    EXPECT_EQ(guard.Open(60), Result::Busy);
    EXPECT_THAT(driver.Asked(), IsEmpty());
  });
  EXPECT_TRUE(guard.IsOpen());
  EXPECT_EQ(guard.Kick(), Result::Done);
}

TEST_F(WatchdogGuard, OpensInAChildWhatWasNotOpenInItsParent) {
  Driver const driver;
  Guard guard;
  ChildProcess::Run([&] {
    EXPECT_EQ(guard.Open(60), Result::Done);
    EXPECT_EQ(guard.Kick(), Result::Done);
    EXPECT_EQ(guard.Disarm(), Result::Done);
  });
  EXPECT_FALSE(guard.IsOpen());
}

TEST_F(WatchdogGuard, StaysOpenWhenAChildHasEndedItsCopy) {
  SharedDevice const device;
  std::optional<Guard> guard(std::in_place);
  EXPECT_EQ(guard->Open(60), Result::Done);
  pid_t const child = ChildProcess::Start([&] {
    guard.reset();
    return 0;
  });
  EXPECT_EQ(ChildProcess::Wait(child), 0);
  EXPECT_EQ(device.State(), "open");
  EXPECT_EQ(guard->Kick(), Result::Done);
  guard.reset();
  EXPECT_EQ(device.State(), "closed");
}

TEST_F(WatchdogGuard, IsKeptOpenByAChildThatOutlivesItsProcess) {
  SharedDevice const device;
  std::array<int, 2> ends;
  ASSERT_EQ(pipe(ends.data()), 0);
  Tarvik::UniqueFd const reader(ends[0]);
  Tarvik::UniqueFd writer(ends[1]);
  std::optional<Guard> guard(std::in_place);
  guard->Open(60);
  pid_t const child = ChildProcess::Start([&] {
    ChildProcess::EndInTime();
    writer = Tarvik::UniqueFd();
    char byte;
    return static_cast<int>(read(reader.Get(), &byte, 1));  // until the parent closes its end
  });
  guard.reset();
  EXPECT_EQ(device.State(), "open");
  writer = Tarvik::UniqueFd();
  EXPECT_EQ(ChildProcess::Wait(child), 0);
  EXPECT_EQ(device.State(), "closed");
}

TEST_F(WatchdogGuard, LeavesNothingMagicBehindWhenItsProcessIsKilled) {
  SharedDevice const device;
  pid_t const child = ChildProcess::Start([] {
    Guard guard;
    guard.Open(60);
    return raise(SIGKILL);
  });
  int const status = ChildProcess::Wait(child);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(device.State(), "closed");
}

TEST_F(WatchdogGuard, DoesNotHoldUpAChildThatWasMadeInTheMiddleOfAKick) {
  Driver driver;
  Guard guard;
  guard.Open(60);
  Gate gate;
  driver.kicked = [&gate] { gate.Wait(); };
  std::thread kicking([&] { EXPECT_EQ(guard.Kick(), Result::Done); });
  gate.AwaitThread();
  pid_t const child = ChildProcess::Start([&] {
    ChildProcess::EndInTime();
    bool const isLeftAlone = guard.Kick() == Result::NotOpen && guard.Disarm() == Result::NotOpen &&
                             guard.Open(60) == Result::Busy;
    return isLeftAlone ? 0 : 1;
  });
  EXPECT_EQ(ChildProcess::Wait(child), 0);
  gate.Open();
  kicking.join();
}

TEST_F(WatchdogGuard, IsDisarmedByOneThreadAfterTheKickOfAnother) {
  Driver driver;
  Guard guard;
  guard.Open(60);
  driver.Asked();
  Gate gate;
  std::once_flag once;
  driver.kicked = [&] { gate.Wait(); };
  auto kicking = std::async(std::launch::async, [&] { return guard.Kick(); });
  gate.AwaitThread();
  std::atomic<pthread_t> disarmer = 0;
  {
    Machine::ThreadHooks locking;
    locking.lock = [&](pthread_mutex_t const*) -> std::optional<int> {
      if (pthread_self() == disarmer) std::call_once(once, [&] { gate.Open(); });
      return std::nullopt;
    };
    auto disarming = std::async(std::launch::async, [&] {
      disarmer = pthread_self();
      return guard.Disarm();
    });
    EXPECT_EQ(disarming.get(), Result::Done);
    std::call_once(once, [&] { gate.Open(); });
    EXPECT_EQ(kicking.get(), Result::Done);
  }
  EXPECT_THAT(driver.Asked(), ElementsAre("kick", "stop", "write 'V'", "close"));
}

TEST_F(WatchdogGuard, IsKickedOnlyWhileItIsOpenWhateverOtherThreadsDo) {
  Driver driver;
  Guard guard;
  std::atomic<bool> over = false;
  auto const kick = [&] {
    int kicks = 0;
    while (!over) kicks += guard.Kick() == Result::Done ? 1 : 0;
    return kicks;
  };
  auto one = std::async(std::launch::async, kick);
  auto other = std::async(std::launch::async, kick);
  for (int round = 0; round < 200; ++round) {
    EXPECT_EQ(guard.Open(60), Result::Done);
    std::this_thread::yield();
    EXPECT_EQ(guard.Disarm(), Result::Done);
  }
  over = true;
  one.get();
  other.get();
  EXPECT_FALSE(driver.isRunning);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(WatchdogGuard, ThrowsWhereItsLockFails) {
  Driver driver;
  Guard guard;
  guard.Open(60);
  driver.Asked();
  Machine::ThreadHooks locking;
  auto const* const first = reinterpret_cast<char const*>(&guard);
  locking.lock = [=](pthread_mutex_t const* mutex) -> std::optional<int> {
    auto const* const lock = reinterpret_cast<char const*>(mutex);
    if (lock < first || lock >= first + sizeof(Guard)) return std::nullopt;
    return EINVAL;
  };
  EXPECT_THROW(guard.Kick(), std::system_error);
  EXPECT_THROW(guard.Disarm(), std::system_error);
  EXPECT_THROW(guard.Open(60), std::system_error);
  EXPECT_THAT(driver.Asked(), IsEmpty());
}

/// A guard that is opened, kicked and disarmed.
class Guarding {
 public:
  Guarding() {
    Machine::MakeFile(kDevice, "");
    hooks().ioctl = [](unsigned long request, void* argument) {
      if (request == WDIOC_GETTIMEOUT) *static_cast<int*>(argument) = 60;
      if (request == WDIOC_GETSUPPORT) static_cast<watchdog_info*>(argument)->options = kUsual;
      return Answer::Success();
    };
  }

  void Run() {
    Guard guard;
    outcome = Guard::Describe(guard.Open(60));
    outcome += " " + std::to_string(guard.GetTimeout());
    outcome += ", " + std::string(Guard::Describe(guard.Kick()));
    outcome += ", " + std::string(Guard::Describe(guard.Disarm()));
  }
  std::string Outcome() {
    return outcome + ": " + std::to_string(std::ranges::count(Machine::ReadFile(kDevice), 'V'));
  }

 private:
  std::string outcome;
};

std::string Request(unsigned long number) {
  return "ioctl " + std::to_string(number) + " *";
}

// A failing kick is made up for by a byte; what is not told is taken for the worse.
TEST(WatchdogGuardWithEveryCallFailing, IsHeldAndKickedWhereverItCouldBeOpened) {
  std::string const closed = " 0, the watchdog is not open, the watchdog is not open: 0";
  std::string const kept = "done 60, done, the watchdog cannot be stopped: 0";
  FaultTable::Try<Guarding>(
      "done 60, done, done: 1",
      {{"* *: EINTR", kNoHarm},
       {"close *", kNoHarm},
       {"open *: EBUSY", Guard::Describe(Result::Busy) + closed},
       {"open *: ENOENT", Guard::Describe(Result::Missing) + closed},
       {"open *: ENODEV", Guard::Describe(Result::Missing) + closed},
       {"open *: ENXIO", Guard::Describe(Result::Missing) + closed},
       {"open *", Guard::Describe(Result::Failed) + closed},
       {Request(WDIOC_GETSUPPORT) + ": ENOTTY", Guard::Describe(Result::Missing) + closed},
       {Request(WDIOC_GETSUPPORT), "done 60, done, done: 0"},
       {Request(WDIOC_SETTIMEOUT), kNoHarm},
       {Request(WDIOC_GETTIMEOUT), "done 0, done, done: 1"},
       {Request(WDIOC_KEEPALIVE), kNoHarm},
       {Request(WDIOC_SETOPTIONS) + ": ENOTTY", kNoHarm},
       {Request(WDIOC_SETOPTIONS) + ": EOPNOTSUPP", kNoHarm},
       {Request(WDIOC_SETOPTIONS), kept},
       {"write *", "done 60, done, done: 0"}});
}

}  // namespace
