#include "RTC/ClockFloor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "tests/machine/FaultTable.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Descriptors.h"
#include "tests/support/LogFile.h"
#include "tests/support/ModificationTime.h"

namespace {

namespace fs = std::filesystem;
using FaultTable::kNoHarm;
using Machine::Answer;
using Machine::hooks;
using Quellon::RTC::ClockFloor;
using testing::ElementsAre;
using testing::IsEmpty;
using Result = ClockFloor::Result;

constexpr char const* kFile = "/root/clock.dat";
constexpr char const* kNewFile = "/root/clock.dat.new";
constexpr char const* kRecordings = "/mnt/sdcard/cr/";
constexpr time_t kRelease = 1'000'000'000;  // 2001, so that 20 years on all fits into 32 bits
constexpr time_t kYear = 31'556'952;
constexpr time_t kTrusted = kRelease + 20 * kYear;  // the last second that is believed
constexpr time_t kPast = kRelease + kYear;
constexpr time_t kForever = std::numeric_limits<time_t>::max();

std::string Line(time_t seconds) {
  std::string const number = std::to_string(seconds);
  return number + " " + number + "\n";
}

/// The system clock stands still until it is set.
void ClockSays(time_t seconds) {
  hooks().now = seconds;
}

/// And so does the one that nobody sets, until time goes by.
void SteadyClockSays(time_t seconds) {
  hooks().monotonic = timespec{seconds, 0};
}

void MakeRecording(std::string const& name, time_t modified) {
  Machine::MakeFile(kRecordings + name, name);
  SetModificationTime(Machine::Real(kRecordings + name), modified);
}

std::string Told(ClockFloor::Outcome const& outcome) {
  return std::string(ClockFloor::Describe(outcome.result)) + ": " + std::to_string(outcome.from) +
         " to " + std::to_string(outcome.to);
}

std::string Kept(time_t now) {
  return Told({Result::Kept, now, now});
}

std::string Raised(time_t from, time_t to) {
  return Told({Result::Raised, from, to});
}

/// A device with its fixed storage and an empty card; its clock may be set.
class ClockFloorTest : public testing::Test {
 protected:
  ClockFloorTest() {
    fs::create_directories(Machine::Real("/root/"));
    fs::create_directories(Machine::Real(kRecordings));
    ClockSays(0);
    SteadyClockSays(1000);
    hooks().setClock = [](long seconds) {
      ClockSays(seconds);
      return Answer::Success();
    };
  }

  ~ClockFloorTest() override { hooks().monotonic.reset(); }  // googletest asks it, too

  /// What a new floor does to a clock that says so.
  static std::string Apply(time_t now, std::string const& recordings = {}) {
    ClockSays(now);
    return Told(ClockFloor(kFile, kRelease).Apply(recordings));
  }

  static Result SaveAt(ClockFloor& floor, time_t now) {
    ClockSays(now);
    return floor.Save();
  }

  static Result SaveHourlyAt(ClockFloor& floor, time_t now) {
    ClockSays(now);
    return floor.SaveHourly();
  }

  static std::vector<std::string> NamesOnStorage() {
    std::vector<std::string> names;
    for (auto const& entry : fs::directory_iterator(Machine::Real("/root/"))) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  ClockFloor clockFloor{kFile, kRelease};
  Descriptors::Watch descriptors;
};

using ClockFloorApplied = ClockFloorTest;
using ClockFloorSaved = ClockFloorTest;

TEST_F(ClockFloorApplied, TouchesNothingBeforeIt) {
  hooks().fault = [](Machine::Call const& call) -> std::optional<Machine::Failure> {
    ADD_FAILURE() << call.function << " " << call.subject;
    return std::nullopt;
  };
  ClockFloor const made;
  EXPECT_THAT(Machine::Trace(), IsEmpty());
}

TEST_F(ClockFloorApplied, LeavesAClockThatIsLaterThanTheRelease) {
  EXPECT_EQ(Apply(kRelease + 1), Kept(kRelease + 1));
  EXPECT_EQ(Apply(kForever), Kept(kForever));
  EXPECT_THAT(Machine::Trace(), IsEmpty());
}

TEST_F(ClockFloorApplied, SetsAClockThatIsNotASecondAfterTheRelease) {
  for (time_t const early : {kRelease, kRelease - 1, time_t{0}, time_t{-1}}) {
    EXPECT_EQ(Apply(early), Raised(early, kRelease + 1));
    EXPECT_EQ(hooks().now, kRelease + 1);
  }
}

TEST_F(ClockFloorApplied, SetsAClockOnceASecondAfterTheTimeInTheFile) {
  Machine::MakeFile(kFile, Line(kPast));
  EXPECT_EQ(Apply(kPast + 1), Kept(kPast + 1));
  for (time_t const early : {kPast, kPast - 1, kRelease, time_t{42}}) {
    Machine::ForgetTrace();
    EXPECT_EQ(Apply(early), Raised(early, kPast + 1));
    EXPECT_THAT(Machine::Trace(), ElementsAre("clock " + std::to_string(kPast + 1)));
  }
}

TEST_F(ClockFloorApplied, SetsAClockASecondAfterTheNewestRecording) {
  MakeRecording("rec_000001.dat", kPast - 5);
  MakeRecording("rec_000002.dat", kPast);
  MakeRecording("rec_000003.gps", kPast - 1);
  for (char const* const directory : {"/mnt/sdcard/cr/", "/mnt/sdcard/cr"}) {
    EXPECT_EQ(Apply(kPast + 1, directory), Kept(kPast + 1));
    for (time_t const early : {kPast, kPast - 1, time_t{42}}) {
      EXPECT_EQ(Apply(early, directory), Raised(early, kPast + 1));
    }
  }
}

TEST_F(ClockFloorApplied, TakesTheLatestOfAllThatIsKnown) {
  Machine::MakeFile(kFile, Line(kPast));
  MakeRecording("rec_000001.dat", kPast + 7);
  EXPECT_EQ(Apply(42, kRecordings), Raised(42, kPast + 8));
  Machine::MakeFile(kFile, Line(kPast + 10));
  EXPECT_EQ(Apply(42, kRecordings), Raised(42, kPast + 11));
}

TEST_F(ClockFloorApplied, CountsLinksWithTheirOwnTimesAndNoDirectories) {
  Machine::MakeFile("/mnt/sdcard/elsewhere.dat", "");
  SetModificationTime(Machine::Real("/mnt/sdcard/elsewhere.dat"), kPast + 100);
  fs::create_symlink("../elsewhere.dat", Machine::Real(kRecordings) / "link.dat");
  SetModificationTime(Machine::Real(kRecordings) / "link.dat", kPast);
  fs::create_directories(Machine::Real(kRecordings) / "below");
  MakeRecording("below/rec_000001.dat", kPast + 100);
  for (char const* const directory : {"below", ".", ".."}) {
    SetModificationTime(Machine::Real(kRecordings) / directory, kPast + 200);
  }
  EXPECT_EQ(Apply(42, kRecordings), Raised(42, kPast + 1));
}

TEST_F(ClockFloorApplied, GoesOnWithoutADirectoryAndWithoutWhatCannotBeLookedAt) {
  EXPECT_EQ(Apply(42, "/mnt/sdcard/nothing/"), Raised(42, kRelease + 1));
  MakeRecording("good.dat", kPast);
  MakeRecording("worse.dat", kPast + 100);
  hooks().lstat = [](std::string const& path, struct stat*) -> std::optional<Answer> {
    if (path.ends_with("/worse.dat")) return Answer::Failure(EOVERFLOW);
    return std::nullopt;
  };
  EXPECT_EQ(Apply(42, kRecordings), Raised(42, kPast + 1));
}

TEST_F(ClockFloorApplied, LooksAtNoRecordingWhereTheFileConfirmsTheClock) {
  Machine::MakeFile(kFile, Line(kPast));
  MakeRecording("future.dat", kPast + kYear);
  hooks().lstat = [](std::string const& path, struct stat*) -> std::optional<Answer> {
    ADD_FAILURE() << path;
    return std::nullopt;
  };
  EXPECT_EQ(Apply(kPast + 1, kRecordings), Kept(kPast + 1));
}

TEST_F(ClockFloorApplied, BelievesRecordingsWhereTheClockIsNotLaterThanTheFile) {
  Machine::MakeFile(kFile, Line(kPast));
  MakeRecording("newest.dat", kPast + kYear);
  EXPECT_EQ(Apply(kPast, kRecordings), Raised(kPast, kPast + kYear + 1));
}

TEST_F(ClockFloorApplied, BelievesRecordingsWhereThereIsNoFile) {
  MakeRecording("newest.dat", kPast + kYear);
  EXPECT_EQ(Apply(kPast, kRecordings), Raised(kPast, kPast + kYear + 1));
}

TEST_F(ClockFloorApplied, BelievesRecordingsOfACardThatComesAfterTheClockWasSet) {
  Machine::MakeFile(kFile, Line(kPast));
  MakeRecording("newest.dat", kPast + 500);
  EXPECT_EQ(Told(clockFloor.Apply()), Raised(0, kPast + 1));
  EXPECT_EQ(Told(clockFloor.Apply(kRecordings)), Raised(kPast + 1, kPast + 501));
  MakeRecording("anothers.dat", kPast + 900);
  ClockSays(kPast + 560);
  SteadyClockSays(1059);
  EXPECT_EQ(Told(clockFloor.Apply(kRecordings)), Raised(kPast + 560, kPast + 901));
}

TEST_F(ClockFloorApplied, BelievesWhoeverSetsTheClockBackAfterIt) {
  MakeRecording("wild.dat", kPast + kYear);
  EXPECT_EQ(Told(clockFloor.Apply(kRecordings)), Raised(0, kPast + kYear + 1));
  EXPECT_EQ(SaveHourlyAt(clockFloor, kPast + kYear + 60), Result::Saved);
  EXPECT_EQ(SaveHourlyAt(clockFloor, kPast), Result::Saved);
  ClockSays(kPast + 1);
  EXPECT_EQ(Told(clockFloor.Apply(kRecordings)), Kept(kPast + 1));
  EXPECT_EQ(Apply(kPast + 2, kRecordings), Kept(kPast + 2)) << "the next start";
}

TEST_F(ClockFloorApplied, BelievesWhoeverSetsTheClockLaterAfterIt) {
  Machine::MakeFile(kFile, Line(kPast));
  EXPECT_EQ(Told(clockFloor.Apply()), Raised(0, kPast + 1));
  MakeRecording("wild.dat", kPast + 2 * kYear);
  ClockSays(kPast + kYear);
  SteadyClockSays(1060);
  EXPECT_EQ(Told(clockFloor.Apply(kRecordings)), Kept(kPast + kYear));
}

TEST_F(ClockFloorApplied, BelievesAtOnceWhoeverSetsTheClockEarlierAfterItThanItsFileAndRecordings) {
  MakeRecording("wild.dat", kPast + kYear);
  EXPECT_EQ(Told(clockFloor.Apply(kRecordings)), Raised(0, kPast + kYear + 1));
  EXPECT_EQ(clockFloor.Save(), Result::Saved);
  for (time_t const right : {kPast, kRelease + 1}) {
    ClockSays(right);
    EXPECT_EQ(Told(clockFloor.Apply(kRecordings)), Kept(right));
  }
  ClockSays(kRelease);
  EXPECT_EQ(Told(clockFloor.Apply(kRecordings)), Raised(kRelease, kPast + kYear + 2)) << "not that";
}

TEST_F(ClockFloorApplied, TakesAClockThatGoesOnAsItWasSetForItsOwn) {
  Machine::MakeFile(kFile, Line(kPast));
  MakeRecording("newer.dat", kPast + kYear);
  for (time_t const apart : {-3, -2, 0, 2, 3}) {
    ClockFloor set(kFile, kRelease);
    ClockSays(0);
    SteadyClockSays(1000);
    EXPECT_EQ(Told(set.Apply()), Raised(0, kPast + 1));
    time_t const now = kPast + 1 + 86400 + apart;
    ClockSays(now);
    SteadyClockSays(1000 + 86400);
    EXPECT_EQ(Told(set.Apply(kRecordings)),
              std::abs(apart) == 3 ? Kept(now) : Raised(now, kPast + kYear + 1))
        << apart;
  }
}

TEST_F(ClockFloorApplied, BelievesNothingBeyondTwentyYearsAfterTheRelease) {
  MakeRecording("good.dat", kPast);
  MakeRecording("last.dat", kTrusted);
  MakeRecording("wild.dat", kTrusted + 1);
  EXPECT_EQ(Apply(42, kRecordings), Raised(42, kTrusted + 1));
  Machine::RemoveFile(std::string(kRecordings) + "last.dat");
  EXPECT_EQ(Apply(42, kRecordings), Raised(42, kPast + 1));
  Machine::MakeFile(kFile, Line(kTrusted + 1));
  EXPECT_EQ(Apply(42), Raised(42, kRelease + 1));
  EXPECT_EQ(Apply(kPast - 1, kRecordings), Raised(kPast - 1, kPast + 1)) << "as without a file";
  Machine::MakeFile(kFile, Line(kTrusted));
  EXPECT_EQ(Apply(42), Raised(42, kTrusted + 1));
}

TEST_F(ClockFloorApplied, LeavesAYearOfTheTimesThereAre) {
  constexpr time_t kLast = kForever - kYear;
  Machine::MakeFile(kFile, Line(kLast));
  ClockSays(0);
  EXPECT_EQ(Told(ClockFloor(kFile, kLast - 1).Apply()), Raised(0, kLast + 1));
  Machine::MakeFile(kFile, Line(kLast + 1));
  ClockSays(0);
  EXPECT_EQ(Told(ClockFloor(kFile, kLast - 1).Apply()), Raised(0, kLast));
  for (time_t const release : {kForever, kLast + 1, kLast}) {
    ClockSays(0);
    ClockFloor last(kFile, release);
    EXPECT_EQ(Told(last.Apply()), Raised(0, kLast + 1));
    EXPECT_EQ(last.Save(), Result::Doubtful);
  }
}

TEST_F(ClockFloorApplied, TakesAReleaseBeforeTheEpochForTheEpoch) {
  EXPECT_EQ(Told(ClockFloor(kFile, std::numeric_limits<time_t>::min()).Apply()), Raised(0, 1));
  ClockSays(2);
  EXPECT_EQ(Told(ClockFloor(kFile, -1).Apply()), Kept(2));
  for (char const* const empty : {kRecordings, "/mnt/sdcard/nothing/"}) {
    ClockSays(0);
    EXPECT_EQ(Told(ClockFloor(kFile, -1).Apply(empty)), Raised(0, 1));
  }
}

TEST_F(ClockFloorApplied, NeverSetsTheClockBackHoweverLongItLooked) {
  MakeRecording("a.dat", kPast);
  MakeRecording("b.dat", kPast);
  ClockSays(kPast);
  hooks().lstat = [](std::string const&, struct stat*) -> std::optional<Answer> {
    hooks().now = *hooks().now + 30;
    return std::nullopt;
  };
  auto const outcome = clockFloor.Apply(kRecordings);
  EXPECT_EQ(Told(outcome), Kept(outcome.from));
  EXPECT_GE(outcome.from, kPast + 60);
  EXPECT_THAT(Machine::Trace(), IsEmpty());
}

TEST_F(ClockFloorApplied, TellsWhereTheKernelRefuses) {
  hooks().setClock = [](long) { return Answer::Failure(EPERM); };
  Machine::MakeFile(kFile, Line(kPast));
  EXPECT_EQ(Told(clockFloor.Apply()), Told({Result::Refused, 0, kPast + 1}));
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(clockFloor.Save(), Result::Doubtful) << "1970 is not saved";
  EXPECT_EQ(Machine::ReadFile(kFile), Line(kPast));
}

TEST_F(ClockFloorApplied, OpensNoRealTimeClockAndNothingForWriting) {
  Machine::MakeFile("/dev/rtc0", "");
  Machine::MakeFile(kFile, Line(kPast));
  MakeRecording("a.dat", kPast);
  hooks().fault = [](Machine::Call const& call) -> std::optional<Machine::Failure> {
    EXPECT_THAT(call.function, testing::Not(testing::AnyOf("ioctl", "write", "rename", "unlink")));
    EXPECT_NE(call.subject, "/dev/rtc0");
    return std::nullopt;
  };
  EXPECT_EQ(Told(clockFloor.Apply(kRecordings)), Raised(0, kPast + 1));
  EXPECT_EQ(Machine::ReadFile(kFile), Line(kPast));
}

/// A file that `Save` has not written.
class ClockFloorOfADamagedFile : public ClockFloorTest,
                                 public testing::WithParamInterface<std::string> {};

TEST_P(ClockFloorOfADamagedFile, IsThatOfTheRelease) {
  Machine::MakeFile(kFile, GetParam());
  EXPECT_EQ(Apply(42), Raised(42, kRelease + 1));
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Texts, ClockFloorOfADamagedFile,
                         testing::Values("", "\n", " ", std::string(22, '\0'), "no time",
                                         "1031556952", "1031556952\n", "1031556952 1031556952",
                                         "1031556952 1031556952\r\n", "1031556952 1031556952 \n",
                                         " 1031556952 1031556952\n", "1031556952 1031556953\n",
                                         "1031556952  1031556952\n", "+1031556952 +1031556952\n",
                                         "01031556952 01031556952\n", "-1031556952 -1031556952\n",
                                         "0 0\n", "1000000000 1000000000\n",
                                         "99999999999999999999 99999999999999999999\n",
                                         "1031556952 1031556952\n" + std::string(100, '\n'),
                                         "1031556952 1031556952\n1031556952 1031556952\n"));

TEST_F(ClockFloorApplied, IgnoresEveryTornFileAndEveryWrongByte) {
  std::string const whole = Line(kPast);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    Machine::MakeFile(kFile, whole.substr(0, length));
    EXPECT_EQ(Apply(42), Raised(42, kRelease + 1)) << length;
  }
  for (std::size_t place = 0; place < whole.size(); ++place) {
    for (int bit = 0; bit < 8; ++bit) {
      std::string damaged = whole;
      damaged[place] = static_cast<char>(damaged[place] ^ (1 << bit));
      Machine::MakeFile(kFile, damaged);
      EXPECT_EQ(Apply(42), Raised(42, kRelease + 1)) << damaged;
    }
  }
  Machine::MakeFile(kFile, whole);
  EXPECT_EQ(Apply(42), Raised(42, kPast + 1));
}

TEST_F(ClockFloorApplied, IsNotStoppedByWhatIsNoFile) {
  auto const place = Machine::Real(kFile);
  fs::create_directories(place);
  EXPECT_EQ(Apply(42), Raised(42, kRelease + 1));
  fs::remove(place);
  ASSERT_EQ(mkfifo(place.c_str(), 0600), 0);
  EXPECT_EQ(Apply(42), Raised(42, kRelease + 1));
  Machine::RemoveFile("/root");
  EXPECT_EQ(Apply(42), Raised(42, kRelease + 1));
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(ClockFloorApplied, KeepsItsFileFromCommandsAndFromBeingAStandardDescriptor) {
  Machine::MakeFile(kFile, Line(kPast));
  ChildProcess::Run([] {
    std::vector<int> opened;
    bool closesOnExec = true;
    {
      Descriptors::NoStandardOnes const none;
      Descriptors::Watch const watch;
      auto const look = [&] {
        for (int const fd : watch.Opened()) {
          opened.push_back(fd);
          closesOnExec = closesOnExec && Descriptors::ClosesOnExec(fd);
        }
      };
      hooks().read = [&](int, void*, std::size_t) {
        look();
        return std::nullopt;
      };
      hooks().write = [&](int, void const*, std::size_t) {
        look();
        return std::nullopt;
      };
      ClockFloor floor(kFile, kRelease);
      floor.Apply();
      ClockSays(kPast);
      floor.Save();
    }
    EXPECT_EQ(opened.size(), 2U);
    EXPECT_THAT(opened, testing::Each(testing::Gt(2)));
    EXPECT_TRUE(closesOnExec);
  });
}

TEST_F(ClockFloorSaved, IsFoundByTheNextStart) {
  EXPECT_EQ(SaveAt(clockFloor, kPast), Result::Saved);
  EXPECT_EQ(Machine::ReadFile(kFile), "1031556952 1031556952\n");
  EXPECT_THAT(NamesOnStorage(), ElementsAre("clock.dat"));
  EXPECT_EQ(Apply(42), Raised(42, kPast + 1));
}

TEST_F(ClockFloorSaved, LiesBesideTheCounterOfRebootsUnlessTold) {
  ClockFloor usual;
  ClockSays(ClockFloor::ReleaseTime() + 1);
  EXPECT_EQ(usual.Save(), Result::Saved);
  EXPECT_EQ(Machine::ReadFile("/root/clock.dat"), Line(ClockFloor::ReleaseTime() + 1));
}

TEST_F(ClockFloorSaved, TakesTheOldFilesPlaceOnlyWhenItIsOnItsStorage) {
  Machine::MakeFile(kFile, Line(kPast));
  std::vector<std::string> steps;
  hooks().fsync = [&](int fd) {
    steps.push_back("fsync " + *Machine::DevicePath(fd));
    return std::nullopt;
  };
  hooks().rename = [&](std::string const& from, std::string const& to) {
    EXPECT_EQ(Machine::ReadFile(kNewFile), Line(kPast + 1));
    EXPECT_EQ(Machine::ReadFile(kFile), Line(kPast));
    steps.push_back("rename " + from + " " + to);
    return std::nullopt;
  };
  EXPECT_EQ(SaveAt(clockFloor, kPast + 1), Result::Saved);
  EXPECT_THAT(steps, ElementsAre("fsync /root/clock.dat.new",
                                 "rename /root/clock.dat.new /root/clock.dat", "fsync /root"));
}

TEST_F(ClockFloorSaved, IsForItsOwnerToWriteAndAllToRead) {
  mode_t const before = umask(0);
  SaveAt(clockFloor, kPast);
  umask(before);
  EXPECT_EQ(fs::status(Machine::Real(kFile)).permissions(), fs::perms(0644));
}

TEST_F(ClockFloorSaved, IsNoTimeThatANextStartWouldNotBelieve) {
  Machine::MakeFile(kFile, Line(kPast));
  for (time_t const doubtful : {time_t{0}, kRelease - 1, kRelease, kTrusted + 1, kForever}) {
    EXPECT_EQ(SaveAt(clockFloor, doubtful), Result::Doubtful) << doubtful;
  }
  EXPECT_EQ(SaveHourlyAt(clockFloor, kRelease), Result::Doubtful);
  EXPECT_EQ(Machine::ReadFile(kFile), Line(kPast));
  EXPECT_EQ(SaveAt(clockFloor, kRelease + 1), Result::Saved);
  EXPECT_EQ(SaveAt(clockFloor, kTrusted), Result::Saved);
}

TEST_F(ClockFloorSaved, IsAnEarlierTimeToo) {
  SaveAt(clockFloor, kPast + kYear);
  EXPECT_EQ(SaveAt(clockFloor, kPast), Result::Saved);
  EXPECT_EQ(Machine::ReadFile(kFile), Line(kPast));
}

TEST_F(ClockFloorSaved, HourlyIsOnceAnHour) {
  EXPECT_EQ(SaveHourlyAt(clockFloor, kPast), Result::Saved);
  EXPECT_EQ(SaveHourlyAt(clockFloor, kPast), Result::NotDue);
  EXPECT_EQ(SaveHourlyAt(clockFloor, kPast + 3599), Result::NotDue);
  EXPECT_EQ(Machine::ReadFile(kFile), Line(kPast));
  EXPECT_EQ(SaveHourlyAt(clockFloor, kPast + 3600), Result::Saved);
  EXPECT_EQ(Machine::ReadFile(kFile), Line(kPast + 3600));
}

TEST_F(ClockFloorSaved, HourlyIsAtOnceWhereTheClockWasSetBack) {
  SaveHourlyAt(clockFloor, kPast);
  EXPECT_EQ(SaveHourlyAt(clockFloor, kPast - 1), Result::Saved);
  EXPECT_EQ(Machine::ReadFile(kFile), Line(kPast - 1));
}

TEST_F(ClockFloorSaved, HourlyIsNotOnceAStart) {
  Machine::MakeFile(kFile, Line(kPast));
  ClockSays(kPast + 60);
  clockFloor.Apply();
  EXPECT_EQ(clockFloor.SaveHourly(), Result::NotDue);
  EXPECT_EQ(SaveHourlyAt(clockFloor, kPast + 3600), Result::Saved);
}

TEST_F(ClockFloorSaved, HourlyIsTriedOnceAnHourWhereItFails) {
  int tries = 0;
  hooks().rename = [&tries](auto&&...) {
    ++tries;
    return Answer::Failure(ENOSPC);
  };
  EXPECT_EQ(SaveHourlyAt(clockFloor, kPast), Result::NotSaved);
  EXPECT_EQ(SaveHourlyAt(clockFloor, kPast + 3599), Result::NotDue);
  EXPECT_EQ(SaveHourlyAt(clockFloor, kPast + 3600), Result::NotSaved);
  EXPECT_EQ(tries, 2);
}

TEST_F(ClockFloorSaved, InVainLeavesTheOldFileAndNoneBeside) {
  struct Case {
    char const* function;
    int error;
  };
  for (auto const& [function, error] :
       {Case{"open", EROFS}, Case{"open", EACCES}, Case{"write", ENOSPC}, Case{"write", EDQUOT},
        Case{"fsync", EIO}, Case{"rename", ENOSPC}}) {
    Machine::MakeFile(kFile, Line(kPast));
    hooks().fault = [function = function,
                     error = error](Machine::Call const& call) -> std::optional<Machine::Failure> {
      if (call.function == function) return error;
      return std::nullopt;
    };
    EXPECT_EQ(SaveAt(clockFloor, kPast + 1), Result::NotSaved) << function;
    EXPECT_EQ(errno, error) << function;
    hooks().fault = nullptr;
    EXPECT_EQ(Machine::ReadFile(kFile), Line(kPast)) << function;
    EXPECT_THAT(NamesOnStorage(), ElementsAre("clock.dat")) << function;
  }
}

TEST_F(ClockFloorSaved, IsToldInVainWhereOnlyItsDirectoryIsNotOnTheStorage) {
  hooks().fsync = [](int fd) -> std::optional<Answer> {
    if (Machine::DevicePath(fd) == "/root") return Answer::Failure(EIO);
    return std::nullopt;
  };
  EXPECT_EQ(SaveAt(clockFloor, kPast), Result::NotSaved);
  EXPECT_EQ(Machine::ReadFile(kFile), Line(kPast));
}

TEST_F(ClockFloorSaved, TakesNothingForItsNewFileThatIsNone) {
  auto const place = Machine::Real(kNewFile);
  Machine::MakeFile("/root/others", "theirs");
  fs::create_symlink("others", place);
  EXPECT_EQ(SaveAt(clockFloor, kPast), Result::NotSaved);
  EXPECT_EQ(Machine::ReadFile("/root/others"), "theirs");
  ASSERT_EQ(mkfifo(place.c_str(), 0600), 0) << "the link was removed";
  EXPECT_EQ(SaveAt(clockFloor, kPast), Result::NotSaved);
  EXPECT_EQ(SaveAt(clockFloor, kPast), Result::Saved) << "and so was the pipe";
}

TEST_F(ClockFloorSaved, ReplacesANewFileThatAPowerCutLeft) {
  Machine::MakeFile(kNewFile, "a longer text than what a time takes in the file");
  EXPECT_EQ(SaveAt(clockFloor, kPast), Result::Saved);
  EXPECT_EQ(Machine::ReadFile(kFile), Line(kPast));
  EXPECT_THAT(NamesOnStorage(), ElementsAre("clock.dat"));
}

TEST_F(ClockFloorSaved, MayLieInTheWorkingDirectory) {
  std::vector<std::string> opened;
  hooks().fault = [&](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function != "open") return std::nullopt;
    opened.push_back(call.subject);
    return EACCES;
  };
  ClockFloor here("clock.dat", kRelease);
  EXPECT_EQ(SaveAt(here, kPast), Result::NotSaved);
  EXPECT_THAT(opened, ElementsAre("clock.dat.new"));
}

TEST_F(ClockFloorSaved, LogsNothingAndPrintsNothing) {
  LogFile::BeginAnew();
  std::string const output = Capture::AllOutput([&] {
    EXPECT_EQ(clockFloor.Apply(kRecordings).result, Result::Raised);
    EXPECT_EQ(clockFloor.Save(), Result::Saved);
    Machine::RemoveFile("/root");
    EXPECT_EQ(clockFloor.Save(), Result::NotSaved);
  });
  EXPECT_EQ(output, "");
  EXPECT_EQ(LogFile::Text(), "");
  Tarvik::Ilog::Logger::GetInstance()->Close();
}

TEST(ClockFloorResult, HasATextForEach) {
  EXPECT_STREQ(ClockFloor::Describe(Result::Kept), "the clock is later than all that is known");
  EXPECT_STREQ(ClockFloor::Describe(Result::Raised), "the clock was set forward");
  EXPECT_STREQ(ClockFloor::Describe(Result::Refused), "the clock could not be set");
  EXPECT_STREQ(ClockFloor::Describe(Result::Saved), "the time was saved");
  EXPECT_STREQ(ClockFloor::Describe(Result::NotDue), "the time was saved less than an hour ago");
  EXPECT_STREQ(ClockFloor::Describe(Result::Doubtful), "the time is not to be believed");
  EXPECT_STREQ(ClockFloor::Describe(Result::NotSaved), "the time could not be saved");
}

// The day of the last release, from the changelog, unless the build was told a
// later time.
TEST(ClockFloorReleaseTime, IsThatOfTheSourcesAndNotOfTheBuild) {
  using namespace std::chrono;
  int date[3] = {};
  ASSERT_EQ(std::sscanf(QUELLON_LAST_RELEASE, "%d-%d-%d", &date[0], &date[1], &date[2]), 3);
  sys_days const day = year(date[0]) / date[1] / date[2];
  auto const released = static_cast<long>(sys_seconds(day).time_since_epoch().count());
  long const told = std::strtol(QUELLON_SOURCE_DATE_EPOCH, nullptr, 10);
  EXPECT_EQ(ClockFloor::ReleaseTime(), std::max(released, told));
}

/// A lost clock that is set and saved; with a file to be believed, and a
/// recording that is newer.
class Floor {
 public:
  Floor() {
    Machine::MakeFile(kFile, Line(kPast));
    MakeRecording("newer.dat", kPast + 100);
    ClockSays(42);
    hooks().setClock = [](long seconds) {
      ClockSays(seconds);
      return Answer::Success();
    };
  }

  void Run() {
    ClockFloor floor(kFile, kRelease);
    outcome = Told(floor.Apply(kRecordings));
    outcome += "; " + std::string(ClockFloor::Describe(floor.Save()));
  }
  std::string Outcome() { return outcome + "; " + Machine::ReadFile(kFile); }

 private:
  std::string outcome;
};

std::string FloorOutcome(time_t to, Result saved, time_t inFile) {
  return Raised(42, to) + "; " + ClockFloor::Describe(saved) + "; " + Line(inFile);
}

// What cannot be looked at does not count; what cannot be saved leaves the old
// file.
TEST(ClockFloorWithEveryCallFailing, IsWhatCanBeSeenAndLeavesAFileThatIsWhole) {
  time_t const raised = kPast + 101;
  std::string const undisturbed = FloorOutcome(raised, Result::Saved, raised);
  std::string const notSaved = FloorOutcome(raised, Result::NotSaved, kPast);
  std::string const byFile = FloorOutcome(kPast + 1, Result::Saved, kPast + 1);
  FaultTable::Try<Floor>(
      undisturbed,
      {{"* *: EINTR", kNoHarm},
       {"write *: short", kNoHarm},
       {"close *", kNoHarm},
       {"open /root/clock.dat (1): *", kNoHarm},
       {"read *", kNoHarm},
       {"opendir *", byFile},
       {"readdir * (4): *", kNoHarm},  // after the folder, its parent and the recording
       {"readdir *", byFile},
       {"lstat *newer.dat *", byFile},
       {"clock_settime *", Told({Result::Refused, 42, raised}) + "; " +
                               ClockFloor::Describe(Result::Doubtful) + "; " + Line(kPast)},
       {"open /root/. *", FloorOutcome(raised, Result::NotSaved, raised)},
       {"fsync /root (1): *", FloorOutcome(raised, Result::NotSaved, raised)},
       {"open *new *", notSaved},
       {"write *", notSaved},
       {"fsync *new *", notSaved},
       {"rename *", notSaved}});
}

}  // namespace
