// The technician's command: its command line, the forms of its output, and what it must not do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/rtc.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "base/Json.h"
#include "base/UniqueFd.h"
#include "tests/machine/Failures.h"
#include "tests/machine/Machine.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/CounterFile.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FakeDevice.h"
#include "tests/support/FoundCards.h"
#include "tests/support/ToolRun.h"
#include "tools/quellon/Progress.h"

namespace {

namespace fs = std::filesystem;
namespace Json = Tarvik::Json;
using Machine::Answer;
using Machine::Call;
using Machine::hooks;
using Quellon::Tool::Fine;
using Quellon::Tool::Refused;
using Quellon::Tool::Unknown;
using Quellon::Tool::Usage;
using Quellon::Tool::Wrong;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class QuellonCommand : public testing::Test {
 protected:
  /// The processes of others cannot be looked at, as without root.
  static void LoseRoot() {
    hooks().fault = [](Call const& call) -> std::optional<Machine::Failure> {
      bool const isOthers = call.function == "opendir" && call.subject.starts_with("/proc/812/fd");
      bool const isRoots = call.subject.starts_with("/root/");
      return isOthers || isRoots ? std::optional<Machine::Failure>(EACCES) : std::nullopt;
    };
  }

  FakeDevice device;
};

TEST_F(QuellonCommand, HasHelpForItselfAndForEachCommand) {
  ToolRun const all({"--help"});
  EXPECT_EQ(all.status, Fine);
  EXPECT_THAT(all.output, StartsWith("usage: quellon COMMAND [ARGUMENT...]\n"));
  for (auto const& command : Quellon::Tool::Commands()) {
    std::string const name(command.name);
    EXPECT_TRUE(all.Shows("  " + name, std::string(command.summary))) << all.output;
    for (char const* option : {"--help", "-h"}) {
      ToolRun const one({name, option});
      EXPECT_EQ(one.status, Fine);
      EXPECT_THAT(one.output, StartsWith("usage: quellon " + name));
    }
  }
}

TEST_F(QuellonCommand, TellsItsVersion) {
  EXPECT_EQ(ToolRun({"--version"}).output, "quellon " QUELLON_VERSION "\n");
}

TEST_F(QuellonCommand, RefusesWhatItDoesNotKnow) {
  std::vector<Quellon::Tool::Arguments> const unknown = {
      {},
      {"nothing"},
      {"health", "--xml"},
      {"health", "--json", "--prometheus"},
      {"health", "--json", "file"},
      {"health", "--prometheus", "a", "b"},
      {"card", "eject"},
      {"card", "check", "--samples"},
      {"card", "prove", "all"},
      {"card", "prepare", "--repair"},
      {"catalogue", "a", "b"},
      {"catalogue", "--all"},
      {"watchdog", "--disarm"},
      {"clock", "2023-11-14 22:13:20"},
      {"clock", "--set", "yesterday"},
      {"clock", "--set", "2023-11-14 22:13:20 UTC"},
      {"clock", "--set", "2023-11-14 22:13:20", "UTC"},
      {"counter", "3"},
      {"log", "-n"},
      {"log", "-n", "many"},
      {"log", "-n", "3x"},
      {"log", "3"},
  };
  for (auto const& arguments : unknown) {
    ToolRun const run(arguments);
    EXPECT_EQ(run.status, Usage) << testing::PrintToString(arguments);
    EXPECT_THAT(run.output, HasSubstr("quellon"));
  }
  EXPECT_THAT(Machine::Trace(), IsEmpty());
}

TEST_F(QuellonCommand, ShowsHealthALineForEachSubject) {
  EXPECT_EQ(ToolRun({"health"}).output,
            "board          up for 1 d 0 h, 41 C\n"
            "card           in service\n"
            "catalogue      6, 3.0 KiB, 0.0 % of the card\n"
            "clock          2023-11-14 22:13:20, plausible\n"
            "watchdog       armed, held by quellon-recorder (812, quellon-recorder.service)\n"
            "restarts       0, no card has failed since the last good start\n");
}

TEST_F(QuellonCommand, ShowsTheCard) {
  EXPECT_EQ(ToolRun({"card"}).output,
            "name           SD32G\n"
            "manufacturer   0x000027\n"
            "OEM            0x5048\n"
            "serial         0xe0e7f40f\n"
            "CID            275048534433324760e0e7f40f012a01\n"
            "size           14.8 GiB\n"
            "mounted        /dev/mmcblk1p1, ext4\n"
            "file system    11.4 GiB\n"
            "free           3.8 GiB, 33.3 %\n"
            "written        716.8 MiB in its life\n"
            "errors         0\n"
            "used by        quellon-recorder (812, quellon-recorder.service)\n"
            "state          in service\n");
}

TEST_F(QuellonCommand, ShowsTheCatalogue) {
  EXPECT_EQ(ToolRun({"catalogue"}).output,
            "files          6, 3.0 KiB, 0.0 % of the card\n"
            "bytes          3030\n"
            "protected      3, 30 B, 0.0 % of the card\n"
            "  *.dat        3, 2.9 KiB, 0.0 % of the card\n"
            "  *.gps        3, 30 B, 0.0 % of the card\n"
            "oldest         2023-11-14 19:13:20, rec_000001.dat\n"
            "newest         2023-11-14 21:13:20, rec_000003.dat\n"
            "kept           2 h 0 min\n"
            "longest pause  1 h 0 min, before rec_000002.dat\n");
}

TEST_F(QuellonCommand, ShowsTheWatchdogWithoutOpeningIt) {
  hooks().fault = [](Call const& call) -> std::optional<Machine::Failure> {
    bool const isOpened = call.function == "open" && call.subject.starts_with("/dev/");
    EXPECT_FALSE(isOpened) << call.subject;
    return std::nullopt;
  };
  EXPECT_EQ(ToolRun({"watchdog"}).output,
            "driver         imx2+ watchdog\n"
            "armed          yes\n"
            "held by        quellon-recorder (812, quellon-recorder.service)\n"
            "timeout        1 min 30 s\n"
            "left           1 min 25 s\n"
            "may be stopped yes\n"
            "last start by  not the watchdog, as far as its driver tells\n");
}

// A name that only begins like that of the watchdog, of the card or of the log is another one's.
TEST_F(QuellonCommand, TakesNothingElseForTheWatchdogTheCardOrTheLog) {
  FakeDevice::StopService();
  FakeDevice::Start("90", "other", "");
  int fd = 3;
  for (char const* path :
       {"/dev/watchdog1", "/dev/watchdog01", "/dev/mmcblk10", "/dev/mmcblk1boot0", "/dev/mmcblk1p",
        "/dev/mmcblk1p1x", "/mnt/sdcard2/a", "/mnt/sdcards", "/var/log/quellon.log.old"}) {
    FakeDevice::Open("90", fd++, path);
  }
  EXPECT_TRUE(ToolRun({"watchdog"}).Shows("held by", "nobody"));
  EXPECT_TRUE(ToolRun({"card"}).Shows("used by", "nobody"));
}

TEST_F(QuellonCommand, KnowsEachWayToUseTheCardTheLogOrTheWatchdog) {
  for (char const* path :
       {"/mnt/sdcard", "/mnt/sdcard/cr/a.dat", "/mnt/sdcard/cr/a.dat (deleted)", "/dev/mmcblk1",
        "/dev/mmcblk1p1", "/dev/mmcblk1p12", "/dev/mmcblk1p1 (deleted)", "/var/log/quellon.log",
        "/var/log/quellon.log (deleted)", "/var/log/quellon.log.1"}) {
    FakeDevice::StopService();
    FakeDevice::Start("812", "quellon-recorder", "");
    FakeDevice::Open("812", 3, path);
    EXPECT_TRUE(ToolRun({"card"}).Shows("used by", "quellon-recorder (812)")) << path;
  }
  for (char const* path : {"/dev/watchdog", "/dev/watchdog0"}) {
    FakeDevice::StopService();
    FakeDevice::Start("812", "quellon-recorder", "");
    FakeDevice::Open("812", 3, path);
    EXPECT_TRUE(ToolRun({"watchdog"}).Shows("held by", "quellon-recorder (812)")) << path;
  }
}

// Which the kernel cuts to 15 characters; the first word of the command line may be any.
TEST_F(QuellonCommand, TellsTheWholeNameOfWhoUsesSomething) {
  using namespace std::string_literals;
  for (auto const& [name, called, shown] :
       {std::tuple{"quellon-recorde", "/usr/bin/quellon-recorder\0--size\0/quellon-recorded"s,
                   "quellon-recorder"},
        {"quellon-recorde", "quellon-recorder"s, "quellon-recorder"},
        {"quellon-recorde", "/usr/bin/python3\0quellon-recorder"s, "quellon-recorde"},
        {"quellon-recorde", ""s, "quellon-recorde"},
        {"sh", "sh: of somebody"s, "sh"}}) {
    FakeDevice::StopService();
    FakeDevice::Start("812", name, "");
    Machine::MakeFile("/proc/812/cmdline", called);
    FakeDevice::Open("812", 3, "/dev/watchdog");
    EXPECT_TRUE(ToolRun({"watchdog"}).Shows("held by", shown + " (812)"s)) << called;
  }
}

// As on boards that keep /var/log in memory. The kernel shows where a file really lies.
TEST_F(QuellonCommand, FindsAServiceWhoseLogLiesBehindALink) {
  FakeDevice::StopService();
  Machine::RemoveFile("/var/log");
  fs::create_directories(Machine::Real("/mnt/volatile/log"));
  fs::create_directory_symlink(Machine::Real("/mnt/volatile/log"), Machine::Real("/var/log"));
  FakeDevice::Start("813", "quellon-recorder", "quellon-recorder.service");
  FakeDevice::Open("813", 3, "/mnt/volatile/log/quellon.log");
  for (bool const isWritten : {false, true}) {
    if (isWritten) Machine::MakeFile("/mnt/volatile/log/quellon.log", "");
    ToolRun const run({"clock", "--set"});
    EXPECT_EQ(run.status, Refused) << run.output;
    EXPECT_TRUE(run.Shows("to do", "systemctl stop quellon-recorder.service")) << run.output;
  }
}

TEST_F(QuellonCommand, FindsACardWhoseMountPointLiesBehindALink) {
  fs::rename(Machine::Real("/mnt/sdcard"), Machine::Real("/mnt/elsewhere"));
  fs::create_directory_symlink(Machine::Real("/mnt/elsewhere"), Machine::Real("/mnt/sdcard"));
  FakeDevice::Mount("/dev/mmcblk1p1 /mnt/elsewhere ext4 rw");
  FakeDevice::StopService();
  FakeDevice::Start("99", "less", "");
  FakeDevice::Open("99", 3, "/mnt/elsewhere/cr/rec_000001.dat");
  ToolRun const run({"card"});
  EXPECT_TRUE(run.Shows("mounted", "/dev/mmcblk1p1, ext4")) << run.output;
  EXPECT_TRUE(run.Shows("used by", "less (99)")) << run.output;
}

// 10: who asks stands on the card himself.
TEST_F(QuellonCommand, NeverAdvisesToEndTheShellItWasCalledFrom) {
  FakeDevice::StopService();
  std::string const shell = std::to_string(getppid());
  FakeDevice::Start("77", "getty", "serial-getty@ttyS0.service");
  FakeDevice::Start(shell, "sh", "serial-getty@ttyS0.service");
  Machine::MakeFile("/proc/" + shell + "/stat", shell + " (a) b) S 77 1 1\n");
  Machine::MakeFile("/proc/77/stat", "77 (getty) S 1 1 1\n");
  Machine::MakeFile("/proc/self/cgroup", "0::/system.slice/serial-getty@ttyS0.service\n");
  for (auto const& standing : {shell, std::string("77")}) {
    fs::create_symlink("/mnt/sdcard/cr", Machine::Real("/proc/" + standing + "/cwd"));
    ToolRun const run({"clock", "--set"});
    EXPECT_EQ(run.status, Refused);
    EXPECT_TRUE(run.Shows("to do", "cd /")) << run.output;
    fs::remove(Machine::Real("/proc/" + standing + "/cwd"));
  }
  FakeDevice::Open(shell, 3, "/mnt/sdcard/cr/rec_000001.dat");
  FakeDevice::Start("9999", "tail", "serial-getty@ttyS0.service");
  FakeDevice::Open("9999", 3, "/mnt/sdcard/cr/rec_000001.dat");
  ToolRun const run({"clock", "--set"});
  EXPECT_TRUE(run.Shows("to do", "kill 9999")) << run.output;
}

TEST_F(QuellonCommand, ShowsTheClocks) {
  EXPECT_EQ(ToolRun({"clock"}).output,
            "system         2023-11-14 22:13:20\n"
            "battery-backed 2023-11-14 22:13:20\n"
            "difference     0 s\n"
            "verdict        plausible\n");
}

// The battery-backed clock holds local time.
TEST_F(QuellonCommand, ComparesTheClocksInTheZoneOfTheDevice) {
  auto const zone = Scoped::TimeZone("EAST-3");
  Machine::MakeFile("/sys/class/rtc/rtc0/since_epoch",
                    std::to_string(FakeDevice::kNow + 3 * 3600 - 30) + "\n");
  ToolRun const run({"clock"});
  EXPECT_TRUE(run.Shows("difference", "-30 s")) << run.output;
  EXPECT_EQ(run.status, Fine);
}

TEST_F(QuellonCommand, TakesAClockBefore2020ForOneThatWasReset) {
  Machine::RemoveFile("/var/log/quellon.log");
  hooks().now = 1577836799;
  EXPECT_TRUE(ToolRun({"clock"}).Shows("verdict", "reset"));
  hooks().now = 1577836800;
  EXPECT_TRUE(ToolRun({"clock"}).Shows("verdict", "plausible"));
}

TEST_F(QuellonCommand, ComplainsOfClocksThatDiffer) {
  Machine::MakeFile("/sys/class/rtc/rtc0/since_epoch", std::to_string(FakeDevice::kNow + 60));
  EXPECT_EQ(ToolRun({"clock"}).status, Fine);
  Machine::MakeFile("/sys/class/rtc/rtc0/since_epoch", std::to_string(FakeDevice::kNow + 61));
  EXPECT_TRUE(ToolRun({"clock"}).Shows("wrong", "the clocks differ"));
  Machine::MakeFile("/sys/class/rtc/rtc0/since_epoch", "946684800\n");
  EXPECT_TRUE(ToolRun({"clock"}).Shows("wrong", "the battery-backed clock was reset"));
}

TEST_F(QuellonCommand, ComplainsOfAClockThatIsBehindTheLog) {
  hooks().now = FakeDevice::kNow - 61;
  EXPECT_TRUE(ToolRun({"clock"}).Shows("wrong", "the system clock is behind the log"));
}

TEST_F(QuellonCommand, KnowsWhatTheCounterHolds) {
  struct {
    std::string text;
    char const* shown;
    Quellon::Tool::Status status;
  } const cases[] = {{"", "0", Fine},
                     {"[3]", "0", Fine},
                     {R"({"sdcard-status-counter":3})", "0", Fine},
                     {CounterFile::Text(1), "1", Wrong},
                     {CounterFile::Text(4), "4", Wrong},
                     {"no JSON", "-1", Wrong},
                     {CounterFile::Text("\"3\""), "-1", Wrong}};
  for (auto const& [text, shown, status] : cases) {
    Machine::MakeFile(CounterFile::kPath, text);
    ToolRun const run({"counter"});
    EXPECT_TRUE(run.Shows("restarts", shown)) << text << "\n" << run.output;
    EXPECT_EQ(run.status, status) << text;
  }
}

TEST_F(QuellonCommand, LooksForTheCounterWithoutMakingIt) {
  EXPECT_EQ(ToolRun({"counter"}).status, Fine);
  EXPECT_FALSE(fs::exists(Machine::Real(CounterFile::kPath)));
}

TEST_F(QuellonCommand, ClearsTheCounter) {
  Machine::MakeFile(CounterFile::kPath, CounterFile::Text(3));
  ToolRun const run({"counter", "--clear"});
  EXPECT_EQ(run.status, Fine);
  EXPECT_TRUE(run.Shows("restarts", "0")) << run.output;
  EXPECT_FALSE(fs::exists(Machine::Real(CounterFile::kPath)));
  EXPECT_EQ(ToolRun({"counter", "--clear"}).status, Fine) << "there is none";
}

TEST_F(QuellonCommand, TellsThatTheCounterCannotBeCleared) {
  Machine::MakeFile(CounterFile::kPath, CounterFile::Text(3));
  hooks().unlink = [](auto&&) { return Answer::Failure(EROFS); };
  ToolRun const run({"counter", "--clear"});
  EXPECT_EQ(run.status, Wrong);
  EXPECT_EQ(run.output, "quellon: /root/system.dat: Read-only file system\n");
}

class QuellonCommandSet : public QuellonCommand {
 protected:
  QuellonCommandSet() {
    FakeDevice::StopService();
    Machine::MakeFile("/dev/rtc0", "");
    hooks().setClock = [this](long seconds) {
      system = seconds;
      return Answer::Success();
    };
    hooks().ioctl = [this](unsigned long request, void* argument) -> std::optional<Answer> {
      if (request != RTC_SET_TIME) return std::nullopt;
      hour = static_cast<rtc_time*>(argument)->tm_hour;
      return Answer::Success();
    };
  }

  long system = 0;  ///< what the system clock was set to
  int hour = -1;    ///< what the battery-backed clock was set to
};

TEST_F(QuellonCommandSet, SetsBothClocksToATime) {
  EXPECT_EQ(ToolRun({"clock", "--set", "2023-11-14 23:13:20"}).status, Fine);
  EXPECT_EQ(system, FakeDevice::kNow + 3600);
  EXPECT_EQ(hour, 23);
}

TEST_F(QuellonCommandSet, SetsTheBatteryBackedClockFromTheSystemClock) {
  EXPECT_EQ(ToolRun({"clock", "--set"}).status, Fine);
  EXPECT_EQ(hour, 22);
}

TEST_F(QuellonCommandSet, TellsThatAClockCannotBeSet) {
  Machine::RemoveFile("/dev/rtc0");
  ToolRun const run({"clock", "--set"});
  EXPECT_EQ(run.status, Wrong);
  EXPECT_EQ(run.output, "quellon: /dev/rtc0: No such file or directory\n");
  EXPECT_EQ(system, 0);
}

TEST_F(QuellonCommandSet, RefusesATimeThatMakesNoSense) {
  for (char const* time : {"1969-12-31 23:59:59", "1970-01-01 00:00:00", "2019-12-31 23:59:59"}) {
    ToolRun const run({"clock", "--set", time});
    EXPECT_EQ(run.status, Refused) << time;
    EXPECT_TRUE(run.Shows(
        "refused", std::string(time) + " is before 2020: what is recorded then is deleted first"))
        << run.output;
  }
  ToolRun const none({"clock", "--set", "2023-02-29 12:00:00"});
  EXPECT_EQ(none.status, Refused);
  EXPECT_TRUE(none.Shows("refused", "2023-02-29 12:00:00 is in no calendar")) << none.output;
  EXPECT_THAT(Machine::Trace(), IsEmpty());
  EXPECT_EQ(hour, -1);
  EXPECT_EQ(ToolRun({"clock", "--set", "2024-02-29 12:00:00"}).status, Fine);
  EXPECT_EQ(ToolRun({"clock", "--set", "2020-01-01 00:00:00"}).status, Fine);
}

// Seconds of 32 bits end in 2038.
TEST_F(QuellonCommandSet, RefusesATimeThatTheDeviceCannotHold) {
  ToolRun const run({"clock", "--set", "2040-01-01 00:00:00"});
  bool const isHeld = sizeof(std::time_t) > 4;
  EXPECT_EQ(run.status, isHeld ? Fine : Refused);
  EXPECT_EQ(run.Shows("refused", "2040-01-01 00:00:00 is too late for this device"), !isHeld);
}

TEST_F(QuellonCommandSet, RefusesToCopyASystemClockThatWasReset) {
  hooks().now = 30;
  ToolRun const run({"clock", "--set"});
  EXPECT_EQ(run.status, Refused) << run.output;
  EXPECT_TRUE(run.Shows("refused", "the system clock was reset")) << run.output;
  EXPECT_TRUE(run.Shows("to do", "quellon clock --set 'YEAR-MONTH-DAY HOUR:MINUTE:SECOND'"));
  EXPECT_EQ(hour, -1);
}

TEST_F(QuellonCommandSet, RefusesWhileAServiceRuns) {
  FakeDevice::Start("813", "quellon-recorder", "quellon-recorder.service");
  FakeDevice::Open("813", 3, "/var/log/quellon.log");
  ToolRun const run({"clock", "--set"});
  EXPECT_EQ(run.status, Refused);
  EXPECT_TRUE(run.Shows("refused",
                        "in use by quellon-recorder (813, quellon-recorder.service): the times "
                        "of recordings would be out of order"))
      << run.output;
  EXPECT_TRUE(run.Shows("to do", "systemctl stop quellon-recorder.service"));
  EXPECT_EQ(hour, -1);
}

TEST_F(QuellonCommandSet, RefusesWhileSomebodyIsOnTheCard) {
  FakeDevice::Start("99", "sh", "");
  fs::create_symlink("/mnt/sdcard", Machine::Real("/proc/99/cwd"));
  ToolRun const run({"clock", "--set"});
  EXPECT_EQ(run.status, Refused);
  EXPECT_TRUE(run.Shows("to do", "kill 99")) << run.output;
}

TEST_F(QuellonCommandSet, RefusesWhereItCannotBeKnown) {
  FakeDevice::Start("812", "quellon-recorder", "quellon-recorder.service");
  LoseRoot();
  ToolRun const run({"clock", "--set"});
  EXPECT_EQ(run.status, Refused);
  EXPECT_TRUE(run.Shows("to do", "run it as root")) << run.output;
}

class QuellonCommandProve : public QuellonCommand {
 protected:
  QuellonCommandProve() {
    FakeDevice::StopService();
    device.card.space.f_blocks = 4096;  // 16 MiB, of which a 32nd is left free
    device.card.space.f_bfree = 4096;
  }

  /// The card is not mounted, and may be.
  void LetItBeMounted() {
    FakeDevice::Mount("tmpfs /tmp tmpfs rw");
    hooks().mount = [this](auto&&...) {
      FakeDevice::Mount("/dev/mmcblk1p1 /mnt/sdcard ext4 rw");
      device.card.mounted = true;
      return Answer::Success();
    };
    hooks().umount = [this](auto&&) {
      FakeDevice::Mount("tmpfs /tmp tmpfs rw");
      device.card.mounted = false;
      return Answer::Success();
    };
  }

  /// A card with those bytes.
  static void PutIn(std::vector<FoundCards::Piece> const& pieces) {
    std::string bytes(10 << 20, '\0');
    for (auto const& [place, text] : pieces) {
      bytes.replace(static_cast<std::size_t>(place), text.size(), text);
    }
    Machine::MakeFile("/dev/mmcblk1", bytes);
  }
};

TEST_F(QuellonCommandProve, TellsHowFarItIsAndHowFastTheCardIs) {
  ToolRun const run({"card", "prove", "--erase"});
  EXPECT_EQ(run.status, Fine) << run.output;
  EXPECT_TRUE(run.Shows("room", "15.5 MiB")) << run.output;
  EXPECT_TRUE(run.Shows("as written", "15.5 MiB"));
  EXPECT_TRUE(run.Shows("verdict", "the card holds what was written"));
  EXPECT_TRUE(run.Shows("proved", "100 %, 0 s left"));
  std::size_t lines = 0;
  for (std::size_t at = 0; (at = run.output.find("proved ", at)) != std::string::npos; ++at)
    ++lines;
  EXPECT_EQ(lines, 10U) << run.output;
  EXPECT_THAT(Machine::Traced("mount"), IsEmpty()) << "it was mounted";
}

TEST_F(QuellonCommandProve, TakesSamplesWhenItIsAskedTo) {
  ToolRun const run({"card", "prove", "--samples", "--erase"});
  EXPECT_EQ(run.status, Fine) << run.output;
}

// Else the memory, or the board's own storage, would be told to be a good card.
TEST_F(QuellonCommandProve, RefusesToProveWhatIsNotTheCard) {
  auto const stat = hooks().stat;
  hooks().stat = [stat](std::string const& path, struct stat* status) {
    auto const answer = stat(path, status);
    if (path == "/dev/mmcblk1p1") status->st_rdev = makedev(179, 99);
    return answer;
  };
  ToolRun const run({"card", "prove", "--erase"});
  EXPECT_EQ(run.status, Refused);
  EXPECT_TRUE(run.Shows("refused", "what is mounted there is not the card")) << run.output;
  EXPECT_TRUE(run.Shows("to do", "umount /mnt/sdcard"));
}

TEST_F(QuellonCommandProve, RefusesToRiskRecordings) {
  ToolRun const run({"card", "prove"});
  EXPECT_EQ(run.status, Refused);
  EXPECT_TRUE(run.Shows("to do", "copy them; quellon card prove --erase")) << run.output;
}

TEST_F(QuellonCommandProve, RefusesToRiskWhatLiesElsewhereOnTheCard) {
  Machine::RemoveFile("/mnt/sdcard/cr");
  fs::create_directories(Machine::Real("/mnt/sdcard/lost+found"));
  fs::create_directories(Machine::Real("/mnt/sdcard/cr/a/b"));
  EXPECT_EQ(ToolRun({"card", "prove"}).status, Fine) << "folders alone are nothing to lose";
  for (char const* file : {"/mnt/sdcard/a.dat", "/mnt/sdcard/DCIM/100/.a", "/mnt/sdcard/cr/a/b/c",
                           "/mnt/sdcard/lost+found/#12"}) {
    Machine::MakeFile(file, "");
    EXPECT_EQ(ToolRun({"card", "prove"}).status, Refused) << file;
    Machine::RemoveFile(file);
  }
  fs::create_symlink("/nowhere", Machine::Real("/mnt/sdcard/cr/link"));
  EXPECT_EQ(ToolRun({"card", "prove"}).status, Refused);
}

TEST_F(QuellonCommandProve, RefusesToRiskWhatCannotBeRead) {
  Machine::RemoveFile("/mnt/sdcard/cr");
  fs::create_directories(Machine::Real("/mnt/sdcard/cr"));
  for (char const* function : {"opendir", "readdir", "lstat"}) {
    hooks().fault = [function](Call const& call) -> std::optional<Machine::Failure> {
      bool const fails = call.function == function && call.subject.starts_with("/mnt/sdcard/cr");
      return fails ? std::optional<Machine::Failure>(EIO) : std::nullopt;
    };
    ToolRun const run({"card", "prove"});
    hooks().fault = nullptr;
    EXPECT_EQ(run.status, Refused) << function;
    EXPECT_TRUE(
        run.Shows("refused", "there are files, or may be: a card that lies would lose them"))
        << run.output;
  }
}

TEST_F(QuellonCommandProve, RefusesToRiskWhatIsNestedTooDeep) {
  Machine::RemoveFile("/mnt/sdcard/cr");
  std::string folder = "/mnt/sdcard";
  for (int depth = 0; depth < 40; ++depth) folder += "/d";
  fs::create_directories(Machine::Real(folder));
  EXPECT_EQ(ToolRun({"card", "prove"}).status, Refused);
}

TEST_F(QuellonCommandProve, CleansUpAndSaysSoWhenItIsStopped) {
  LetItBeMounted();
  for (int const signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
    hooks().write = [signal](int, void const*, std::size_t size) -> std::optional<ssize_t> {
      if (size > 4096) raise(signal);
      return std::nullopt;
    };
    Machine::ForgetTrace();
    ToolRun const run({"card", "prove", "--erase"});
    EXPECT_EQ(run.status, Wrong) << strsignal(signal);
    EXPECT_TRUE(run.Shows("written", "1.0 MiB")) << run.output;
    EXPECT_TRUE(run.Shows("wrong", "stopped: what it wrote is gone")) << run.output;
    EXPECT_TRUE(run.Shows("mounted", "no"));
    EXPECT_THAT(Machine::Traced("umount"), ElementsAre("umount /mnt/sdcard/"));
    struct sigaction now {};
    sigaction(signal, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL) << strsignal(signal);
  }
}

// As nohup(1) has it.
TEST_F(QuellonCommandProve, GoesOnWhereASignalIsIgnored) {
  struct sigaction ignored {};
  struct sigaction before {};
  ignored.sa_handler = SIG_IGN;
  sigaction(SIGHUP, &ignored, &before);
  hooks().write = [](int, void const*, std::size_t) -> std::optional<ssize_t> {
    raise(SIGHUP);
    return std::nullopt;
  };
  EXPECT_EQ(ToolRun({"card", "prove", "--erase"}).status, Fine);
  sigaction(SIGHUP, &before, &ignored);
  EXPECT_EQ(ignored.sa_handler, SIG_IGN);
}

TEST_F(QuellonCommandProve, TellsThatTheCardStaysMounted) {
  LetItBeMounted();
  hooks().umount = [](auto&&) { return Answer::Failure(EBUSY); };
  ToolRun const run({"card", "prove", "--erase"});
  EXPECT_EQ(run.status, Wrong);
  EXPECT_TRUE(run.Shows("mounted", "yes"));
  EXPECT_TRUE(run.Shows("wrong", "the card is still mounted: Device or resource busy"))
      << run.output;
  EXPECT_TRUE(run.Shows("to do", "umount /mnt/sdcard"));
}

// A service that finds the card full deletes its oldest recordings.
TEST_F(QuellonCommandProve, StopsWhenSomebodyBeginsToUseTheCard) {
  std::chrono::milliseconds passed{};
  hooks().steady = [&] { return passed; };
  hooks().write = [&](int, void const*, std::size_t size) -> std::optional<ssize_t> {
    if (size <= 4096) return std::nullopt;
    passed += std::chrono::milliseconds(600);
    if (passed > std::chrono::seconds(1) && !fs::exists(Machine::Real("/proc/813"))) {
      FakeDevice::Start("813", "quellon-recorder", "quellon-recorder.service");
      FakeDevice::Open("813", 3, "/var/log/quellon.log");
    }
    return std::nullopt;
  };
  ToolRun const run({"card", "prove", "--erase"});
  hooks().steady = nullptr;
  EXPECT_EQ(run.status, Wrong);
  EXPECT_TRUE(
      run.Shows("wrong", "stopped: in use by quellon-recorder (813, quellon-recorder.service)"))
      << run.output;
  EXPECT_TRUE(run.Shows("to do", "systemctl stop quellon-recorder.service")) << run.output;
  EXPECT_TRUE(run.Shows("written", "2.0 MiB")) << run.output;
}

TEST_F(QuellonCommandProve, TellsHowAPreparationEndedThatWasInterrupted) {
  hooks().system = [](std::string const&) {
    raise(SIGTERM);
    return Answer{1 << 8, 0};
  };
  FakeDevice::Mount("tmpfs /tmp tmpfs rw");
  ToolRun const run({"card", "prepare"});
  EXPECT_TRUE(run.Shows("wrong", "the card could not be partitioned")) << run.output;
}

TEST_F(QuellonCommandProve, EndsACheckBeforeItStops) {
  FakeDevice::Mount("tmpfs /tmp tmpfs rw");
  hooks().system = [](std::string const&) {
    raise(SIGTERM);
    return Answer::Success();
  };
  ToolRun const run({"card", "check"});
  EXPECT_EQ(run.status, Fine);
  EXPECT_TRUE(run.Shows("verdict", "no errors")) << run.output;
}

TEST_F(QuellonCommandProve, TellsOfACommandThatIsMissing) {
  FakeDevice::Mount("tmpfs /tmp tmpfs rw");
  hooks().system = [](auto&&) { return Answer{127 << 8, 0}; };
  ToolRun const checked({"card", "check"});
  EXPECT_TRUE(checked.Shows("wrong", "the card could not be checked")) << checked.output;
  EXPECT_TRUE(checked.Shows("to do", "put fsck and fsck.ext4 on the device")) << checked.output;
  ToolRun const prepared({"card", "prepare"});
  EXPECT_TRUE(prepared.Shows("wrong", "a command is missing")) << prepared.output;
  EXPECT_TRUE(prepared.Shows("to do", "put sfdisk, mkfs.ext4 and fsck.ext4 on the device"));
}

TEST_F(QuellonCommandProve, RefusesToPrepareACardThatHasLostItsTable) {
  FakeDevice::Mount("tmpfs /tmp tmpfs rw");
  PutIn({FoundCards::Ext(FoundCards::kFirst)});
  Machine::RemoveFile("/dev/mmcblk1p1");
  ToolRun const run({"card", "prepare"});
  EXPECT_EQ(run.status, Refused) << run.output;
  EXPECT_TRUE(run.Shows("to do",
                        "have its partition table restored; or give up what it holds: quellon "
                        "card prepare --erase"))
      << run.output;
  ToolRun const card({"card"});
  EXPECT_TRUE(card.Shows("wrong", "the card has lost its partition table")) << card.output;
  EXPECT_TRUE(
      card.Shows("to do", "have it restored; quellon card prepare --erase gives up what it holds"));
}

TEST_F(QuellonCommandProve, RefusesToPrepareAFileSystemThatHasLostItsBeginning) {
  FakeDevice::Mount("tmpfs /tmp tmpfs rw");
  auto const lost = FoundCards::Copy(FoundCards::kFirst, 0, 1);
  PutIn(FoundCards::Together(lost, std::vector{FoundCards::Mbr({{0x83, FoundCards::kFirst}})}));
  ToolRun const run({"card", "prepare"});
  EXPECT_EQ(run.status, Refused);
  EXPECT_TRUE(run.Shows("to do",
                        "quellon card check --repair; or give up what it holds: quellon card "
                        "prepare --erase"))
      << run.output;
  ToolRun const card({"card"});
  EXPECT_TRUE(card.Shows("wrong", "the file system has lost its beginning")) << card.output;
  EXPECT_TRUE(card.Shows("to do", "quellon card check --repair")) << card.output;
}

TEST_F(QuellonCommandProve, RefusesWhileSomebodyUsesTheCard) {
  FakeDevice::Start("813", "quellon-recorder", "quellon-recorder.service");
  FakeDevice::Open("813", 3, "/mnt/sdcard/cr/rec_000001.dat");
  for (char const* work : {"check", "prove", "prepare"}) {
    ToolRun const run({"card", work});
    EXPECT_EQ(run.status, Refused) << work;
    EXPECT_TRUE(run.Shows("to do", "systemctl stop quellon-recorder.service")) << run.output;
  }
  EXPECT_THAT(Machine::Trace(), IsEmpty());
}

TEST_F(QuellonCommandProve, MountsACardMeanwhileThatIsNotMounted) {
  FakeDevice::Mount("tmpfs /tmp tmpfs rw");
  hooks().mount = [](auto&&...) {
    FakeDevice::Mount("/dev/mmcblk1p1 /mnt/sdcard ext4 rw");
    return Answer::Success();
  };
  EXPECT_EQ(ToolRun({"card", "prove", "--erase"}).status, Fine);
  EXPECT_THAT(Machine::Traced("mount"),
              ElementsAre("mount /dev/mmcblk1p1 /mnt/sdcard/ ext4 3080 "));
  EXPECT_THAT(Machine::Traced("umount"), ElementsAre("umount /mnt/sdcard/"));
}

TEST_F(QuellonCommandProve, TellsWhatACardIsThatCannotBeMounted) {
  FakeDevice::Mount("tmpfs /tmp tmpfs rw");
  hooks().mount = [](auto&&...) { return Answer::Failure(EINVAL); };
  ToolRun const run({"card", "prove"});
  EXPECT_EQ(run.status, Wrong);
  EXPECT_TRUE(run.Shows("wrong", "the card holds no ext4")) << run.output;
  EXPECT_THAT(Machine::Traced("umount"), IsEmpty());
}

TEST_F(QuellonCommandProve, TellsWhyACardCouldNotBeProved) {
  device.card.space.f_bfree = 0;
  ToolRun const full({"card", "prove", "--erase"});
  EXPECT_TRUE(full.Shows("to do", "make room, or quellon card prepare --erase")) << full.output;
  device.card.space.f_bfree = 4096;
  hooks().fsync = [](int) { return Answer::Failure(EIO); };
  ToolRun const failed({"card", "prove", "--erase"});
  EXPECT_TRUE(failed.Shows("wrong", "the card failed: Input/output error")) << failed.output;
}

TEST_F(QuellonCommandProve, RefusesToPrepareWhatMayHoldRecordings) {
  Machine::MakeFile("/dev/mmcblk1", std::string(1080, '\0') + "\x53\xEF" + std::string(9000, '\0'));
  ToolRun const run({"card", "prepare"});
  EXPECT_EQ(run.status, Refused);
  EXPECT_TRUE(run.Shows("to do", "copy them; quellon card prepare --erase")) << run.output;
}

TEST_F(QuellonCommandProve, TellsWhyACardCouldNotBePrepared) {
  hooks().system = [](auto&&) { return Answer{1 << 8, 0}; };
  ToolRun const unpartitioned({"card", "prepare"});
  EXPECT_EQ(unpartitioned.status, Wrong);
  EXPECT_TRUE(unpartitioned.Shows("to do", "dmesg; once more; replace the card if it comes again"))
      << unpartitioned.output;
  Machine::MakeFile("/sys/class/block/mmcblk1/ro", "1\n");
  EXPECT_TRUE(ToolRun({"card", "prepare"})
                  .Shows("to do", "release its switch; without one it is worn out: replace it"));
  hooks().fault = [](Call const& call) -> std::optional<Machine::Failure> {
    bool const isCard = call.function == "open" && call.subject == "/dev/mmcblk1";
    return isCard ? std::optional<Machine::Failure>(EIO) : std::nullopt;
  };
  EXPECT_THAT(ToolRun({"card", "prepare"}).output, HasSubstr(": Input/output error\n"));
  hooks().fault = nullptr;
  Machine::RemoveFile("/dev/mmcblk1");
  EXPECT_TRUE(ToolRun({"card", "prepare"}).Shows("to do", "put a card in"));
}

// On a terminal one line, written anew each second.
TEST(QuellonCommandProgress, IsOneLineOnATerminal) {
  int terminal = -1;
  int output = -1;
  ASSERT_EQ(openpty(&terminal, &output, nullptr, nullptr, nullptr), 0);
  Tarvik::UniqueFd const reader(terminal);
  Tarvik::UniqueFd writer(output);
  {
    auto const restore = Scoped::Descriptor(STDOUT_FILENO);
    dup2(output, STDOUT_FILENO);
    hooks().monotonic = timespec{100, 0};
    Quellon::Tool::Progress progress("proved");
    progress.Show(1, 4);  // too early
    hooks().monotonic = timespec{110, 0};
    progress.Show(1, 4);
    progress.Show(2, 4);  // in the same second
    hooks().monotonic = timespec{120, 0};
    progress.Show(2, 4);
  }
  hooks().monotonic.reset();
  writer = Tarvik::UniqueFd();  // ends what can be read
  EXPECT_EQ(ChildProcess::ReadAll(reader),
            "\rproved         25 %, 30 s left\x1b[K\rproved         50 %, 20 s left\x1b[K\r\n");
}

TEST_F(QuellonCommand, SaysWithoutRootWhatItCouldNotRead) {
  LoseRoot();
  ToolRun const run({"health"});
  EXPECT_EQ(run.status, Unknown);
  EXPECT_TRUE(run.Shows("not read", "/root/system.dat: Permission denied")) << run.output;
  EXPECT_TRUE(run.Shows("not read", "/proc/*/fd: who holds the watchdog; needs root"));
  EXPECT_TRUE(run.Shows("card", "in service"));
}

// Of two files the older one first, of each the last lines.
TEST_F(QuellonCommand, ShowsTheLastLinesOfTheLog) {
  Machine::MakeFile("/var/log/quellon.log.1",
                    "[2023-11-14 00:00:01]one\n[2023-11-14 00:00:02]two\n");
  Machine::MakeFile("/var/log/quellon.log",
                    "[2023-11-14 00:00:03][41C][ERROR]three\n"
                    "[2023-11-14 00:00:04][WARNING]four\n"
                    "[2023-11-14 00:00:05]no [ERROR]\n");
  std::string const writer = "written by     quellon-recorder (812, quellon-recorder.service)\n";
  EXPECT_EQ(ToolRun({"log", "-n", "4"}).output,
            "[2023-11-14 00:00:02]two\n"
            "[2023-11-14 00:00:03][41C][ERROR]three\n"
            "[2023-11-14 00:00:04][WARNING]four\n"
            "[2023-11-14 00:00:05]no [ERROR]\n" +
                writer);
  EXPECT_EQ(ToolRun({"log", "--errors"}).output,
            "[2023-11-14 00:00:03][41C][ERROR]three\n"
            "[2023-11-14 00:00:04][WARNING]four\n" +
                writer);
  EXPECT_EQ(ToolRun({"log", "--errors", "-n", "1"}).output,
            "[2023-11-14 00:00:04][WARNING]four\n" + writer);
}

TEST_F(QuellonCommand, TellsWhyTheLogCannotBeRead) {
  for (int const error : {ENOENT, EACCES}) {
    hooks().fault = [error](Call const& call) -> std::optional<Machine::Failure> {
      bool const isLog = call.function == "open" && call.subject == "/var/log/quellon.log";
      return isLog ? std::optional<Machine::Failure>(error) : std::nullopt;
    };
    ToolRun const run({"log"});
    EXPECT_EQ(run.Shows("wrong", "there is no log"), error == ENOENT) << run.output;
    EXPECT_EQ(run.Shows("not read", "/var/log/quellon.log: Permission denied"), error == EACCES);
    EXPECT_EQ(run.status, error == ENOENT ? Wrong : Unknown);
  }
}

TEST_F(QuellonCommand, ShowsTwentyLinesUnlessTold) {
  std::string text;
  for (int i = 1; i <= 30; ++i) text += "line " + std::to_string(i) + "\n";
  Machine::MakeFile("/var/log/quellon.log", text);
  EXPECT_THAT(ToolRun({"log"}).output, StartsWith("line 11\n"));
}

TEST_F(QuellonCommand, CountsWithoutAPauseAndDeletesNothing) {
  for (int i = 0; i < 2000; ++i) {
    Machine::MakeFile("/mnt/sdcard/cr/more_" + std::to_string(i) + ".dat", "x");
  }
  Machine::ForgetTrace();
  ToolRun const run({"catalogue", "/mnt/sdcard/cr"});
  EXPECT_THAT(run.output, StartsWith("files          2006, 4.9 KiB"));
  EXPECT_THAT(Machine::Trace(), IsEmpty());
}

// While a service unmounts the card, nothing of it may be open.
TEST_F(QuellonCommand, HoldsNoFolderWhileItLooksAtRecordings) {
  int looks = 0;
  hooks().lstat = [&](std::string const& path, struct stat*) -> std::optional<Answer> {
    if (!path.starts_with("/mnt/sdcard/cr/")) return std::nullopt;
    ++looks;
    for (int fd = 3; fd < 64; ++fd) {
      EXPECT_FALSE(Machine::DevicePath(fd).value_or("").starts_with("/mnt/sdcard"));
    }
    return std::nullopt;
  };
  EXPECT_EQ(ToolRun({"health"}).status, Fine);
  EXPECT_EQ(looks, 6);
}

TEST_F(QuellonCommand, GivesUpACatalogueThatTakesTooLongForItsHealth) {
  std::chrono::seconds passed{};
  hooks().steady = [&] { return passed; };
  hooks().lstat = [&](auto&&...) -> std::optional<Answer> {
    passed += std::chrono::seconds(3);
    return std::nullopt;
  };
  ToolRun const run({"health"});
  EXPECT_EQ(run.status, Unknown) << run.output;
  EXPECT_TRUE(run.Shows("catalogue", "unknown")) << run.output;
  EXPECT_TRUE(run.Shows("not read", "/mnt/sdcard/cr/: its files take longer than 10 s"))
      << run.output;
  EXPECT_THAT(ToolRun({"health", "--prometheus"}).output, Not(HasSubstr("quellon_catalogue")));
  EXPECT_EQ(ToolRun({"catalogue"}).status, Fine) << "who asks for it waits";
  hooks().steady = nullptr;
}

TEST_F(QuellonCommand, TellsOfRecordingsThatCannotBeRead) {
  for (int const error : {EIO, ENOENT}) {
    hooks().lstat = [error](std::string const& path, struct stat*) -> std::optional<Answer> {
      if (!path.ends_with("rec_000002.dat")) return std::nullopt;
      return Answer::Failure(error);
    };
    ToolRun const run({"catalogue"});
    EXPECT_THAT(run.output, StartsWith("files          5, ")) << "it may have been deleted";
    EXPECT_EQ(run.status, error == EIO ? Unknown : Fine) << run.output;
    EXPECT_EQ(run.Shows("not read", "/mnt/sdcard/cr/rec_000002.dat: Input/output error"),
              error == EIO);
  }
  hooks().lstat = nullptr;
  hooks().fault = [](Call const& call) -> std::optional<Machine::Failure> {
    bool const fails = call.function == "readdir" && call.subject.starts_with("/mnt/sdcard/cr");
    return fails ? std::optional<Machine::Failure>(EIO) : std::nullopt;
  };
  ToolRun const run({"catalogue"});
  EXPECT_EQ(run.status, Unknown) << run.output;
  EXPECT_TRUE(run.Shows("not read", "/mnt/sdcard/cr/: Input/output error")) << run.output;
}

TEST_F(QuellonCommand, TakesRecordingsOfTheSameSecondForOrdered) {
  FakeDevice::Record("rec_000004", FakeDevice::kNow - 3600);
  EXPECT_EQ(ToolRun({"catalogue"}).status, Fine);
}

TEST_F(QuellonCommand, IsNoUserOfTheCardItself) {
  std::string const own = std::to_string(getpid());
  FakeDevice::Start(own, "quellon", "");
  FakeDevice::Open(own, 3, "/mnt/sdcard/cr/rec_000001.dat");
  EXPECT_TRUE(
      ToolRun({"card"}).Shows("used by", "quellon-recorder (812, quellon-recorder.service)"));
}

TEST_F(QuellonCommand, KnowsThatNowayoutKeepsAWatchdogFromBeingStopped) {
  FakeDevice::SetWatchdog("options", "0x8080");
  FakeDevice::SetWatchdog("nowayout", "1");
  ToolRun const run({"watchdog"});
  EXPECT_EQ(run.status, Fine) << run.output;
  EXPECT_TRUE(run.Shows("may be stopped", "no")) << run.output;
}

TEST_F(QuellonCommand, LeavesFoldersOutOfTheCatalogueAndKeepsLinks) {
  fs::create_directory(Machine::Real("/mnt/sdcard/cr/folder.dat"));
  fs::create_symlink("/nowhere", Machine::Real("/mnt/sdcard/cr/link"));
  EXPECT_THAT(ToolRun({"catalogue"}).output, StartsWith("files          7, "));
}

TEST_F(QuellonCommand, TellsOfFilesThatAreTooLargeForTheBoard) {
  hooks().lstat = [](std::string const& path, struct stat*) -> std::optional<Answer> {
    if (!path.ends_with("rec_000001.dat")) return std::nullopt;
    return Answer::Failure(EOVERFLOW);
  };
  ToolRun const run({"catalogue"});
  EXPECT_TRUE(run.Shows("wrong", "1 files are too large to be counted")) << run.output;
}

TEST_F(QuellonCommand, TellsOfRecordingsFromBeforeTheClockWasSet) {
  FakeDevice::Record("rec_000000", 100);
  EXPECT_TRUE(ToolRun({"catalogue"})
                  .Shows("wrong", "1 recordings are dated before 2020: the clock was reset"));
}

TEST_F(QuellonCommand, TellsOfACardWithoutRecordings) {
  Machine::RemoveFile("/mnt/sdcard/cr");
  EXPECT_EQ(ToolRun({"catalogue"}).status, Unknown);
  fs::create_directory(Machine::Real("/mnt/sdcard/cr"));
  EXPECT_TRUE(ToolRun({"catalogue"}).Shows("wrong", "no recordings"));
}

TEST_F(QuellonCommand, TellsWhatIsOnACardThatIsNotMounted) {
  FakeDevice::Mount("tmpfs /tmp tmpfs rw");
  EXPECT_TRUE(ToolRun({"card"}).Shows("wrong", "the card holds no ext4"));
  Machine::MakeFile("/dev/mmcblk1", std::string(1080, '\0') + "\x53\xEF" + std::string(9000, '\0'));
  EXPECT_TRUE(ToolRun({"card"}).Shows("wrong", "the card is not mounted"));
  Machine::RemoveFile("/dev/mmcblk1p1");
  EXPECT_TRUE(ToolRun({"card"}).Shows("wrong", "the card has no partition"));
}

TEST_F(QuellonCommand, DoesNotReadTheCardForItsHealth) {
  FakeDevice::Mount("tmpfs /tmp tmpfs rw");
  hooks().fault = [](Call const& call) -> std::optional<Machine::Failure> {
    bool const isRead = call.function == "open" && call.subject.starts_with("/dev/mmcblk1");
    EXPECT_FALSE(isRead) << call.subject;
    return std::nullopt;
  };
  EXPECT_TRUE(ToolRun({"health"}).Shows("to do", "quellon card"));
}

TEST_F(QuellonCommand, TellsOfAFileSystemThatHasBecomeReadOnly) {
  for (char const* options : {"ro,noatime", "rw,emergency_ro", "rw,shutdown"}) {
    FakeDevice::Mount(std::string("/dev/mmcblk1p1 /mnt/sdcard ext4 ") + options);
    EXPECT_TRUE(ToolRun({"card"}).Shows("wrong", "the file system is read-only, the card is not"))
        << options;
    EXPECT_TRUE(ToolRun({"card"}).Shows("state", "failing")) << options;
  }
}

TEST_F(QuellonCommand, WritesJsonOfAllSubjects) {
  Machine::MakeFile(CounterFile::kPath, CounterFile::Text(3));
  ToolRun const run({"health", "--json"});
  EXPECT_EQ(run.status, Wrong);
  Json::Object health = Json::Deserialize(run.output).ToObject();
  Json::Object card = health["card"].ToObject();
  EXPECT_EQ(card["state"], 0);
  EXPECT_EQ(card["cid"], FakeCard::kCid);
  EXPECT_EQ(card["size_bytes"], 15931539456ULL);
  Json::Object watchdog = health["watchdog"].ToObject();
  EXPECT_EQ(watchdog["active"], true);
  Json::Object problem = health["problems"].ToArray()[0].ToObject();
  EXPECT_EQ(problem["subject"], "restarts");
  EXPECT_EQ(health["unread"].ToArray().Size(), 0U);
}

TEST_F(QuellonCommand, WritesMetricsOfAllSubjects) {
  std::string const metrics = ToolRun({"health", "--prometheus"}).output;
  for (char const* line :
       {"quellon_card_state 0\n", "quellon_watchdog_active 1\n", "quellon_clock_reset 0\n",
        "quellon_restarts_counted 0\n", "quellon_catalogue_newest_seconds 1699996400\n",
        "quellon_problems 0\n", "quellon_watchdog_info{driver=\"imx2+ watchdog\"} 1\n",
        "# TYPE quellon_card_state gauge\n"}) {
    EXPECT_THAT(metrics, HasSubstr(line));
  }
}

// What stands in a card's name is whatever its maker, or a fault, has put there.
TEST_F(QuellonCommand, WritesMetricsWhateverTheCardIsCalled) {
  FakeCard::SetProperty("device/name", "A\"B\\C\x01\x7F\xFF\tD\n");
  std::string const metrics = ToolRun({"health", "--prometheus"}).output;
  EXPECT_THAT(metrics, HasSubstr(R"({name="A\"B\\C????D",)"));
}

class QuellonCommandFile : public QuellonCommand {
 protected:
  QuellonCommandFile() { Machine::MakeFile("/mnt/metrics/quellon.prom", "old\n"); }

  static std::set<std::string> Names() {
    std::set<std::string> names;
    for (auto const& entry : fs::directory_iterator(Machine::Real("/mnt/metrics"))) {
      names.insert(entry.path().filename());
    }
    return names;
  }

  static ToolRun Write() {
    return ToolRun({"health", "--prometheus", "/mnt/metrics/quellon.prom"});
  }
};

TEST_F(QuellonCommandFile, IsReplacedAsAWhole) {
  std::string before;
  hooks().rename = [&before](auto&&...) -> std::optional<Answer> {
    before = Machine::ReadFile("/mnt/metrics/quellon.prom");
    return std::nullopt;
  };
  ToolRun const run = Write();
  EXPECT_EQ(run.output, "");
  EXPECT_EQ(run.status, Fine);
  EXPECT_EQ(before, "old\n");
  EXPECT_THAT(Machine::ReadFile("/mnt/metrics/quellon.prom"), HasSubstr("quellon_card_state 0\n"));
  EXPECT_THAT(Names(), ElementsAre("quellon.prom"));
  EXPECT_EQ(fs::status(Machine::Real("/mnt/metrics/quellon.prom")).permissions(), fs::perms(0644));
}

// Then the file tells what is wrong; only where there is none, the program does.
TEST_F(QuellonCommandFile, EndsWellOnceItIsWrittenWhateverIsWrong) {
  Machine::MakeFile(CounterFile::kPath, CounterFile::Text(3));
  EXPECT_EQ(Write().status, Fine);
  EXPECT_THAT(Machine::ReadFile("/mnt/metrics/quellon.prom"), HasSubstr("quellon_problems 1\n"));
}

TEST_F(QuellonCommandFile, IsWrittenIntoNoOtherFile) {
  for (bool const isSymbolic : {false, true}) {
    Machine::MakeFile("/mnt/other", "other\n");
    fs::path const next = Machine::Real("/mnt/metrics/quellon.prom.new");
    if (isSymbolic) {
      fs::create_symlink(Machine::Real("/mnt/other"), next);
    } else {
      fs::create_hard_link(Machine::Real("/mnt/other"), next);
    }
    EXPECT_EQ(Write().status, Fine);
    EXPECT_EQ(Machine::ReadFile("/mnt/other"), "other\n");
    EXPECT_THAT(Names(), ElementsAre("quellon.prom"));
  }
}

// Somebody who only tries it says "/dev/null", or "/dev/stdout", which is a link.
TEST_F(QuellonCommandFile, IsPutInThePlaceOfNothingButAFile) {
  fs::path const file = Machine::Real("/mnt/metrics/quellon.prom");
  for (bool const isLink : {false, true}) {
    fs::remove(file);
    if (isLink) {
      fs::create_symlink("/dev/stdout", file);
    } else {
      ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    }
    ToolRun const run = Write();
    EXPECT_EQ(run.status, Wrong);
    EXPECT_EQ(run.output, "quellon: /mnt/metrics/quellon.prom: File exists\n");
    EXPECT_FALSE(fs::is_regular_file(fs::symlink_status(file)));
    EXPECT_THAT(Names(), ElementsAre("quellon.prom"));
  }
}

TEST_F(QuellonCommandFile, StaysAsItIsWhereTheNextCannotBeWritten) {
  for (char const* function : {"write", "fsync", "rename"}) {
    hooks().fault = [function](Call const& call) -> std::optional<Machine::Failure> {
      bool const fails = call.function == function && call.subject.starts_with("/mnt/metrics/");
      return fails ? std::optional<Machine::Failure>(ENOSPC) : std::nullopt;
    };
    ToolRun const run = Write();
    hooks().fault = nullptr;
    EXPECT_EQ(run.status, Wrong);
    EXPECT_EQ(run.output, "quellon: /mnt/metrics/quellon.prom: No space left on device\n");
    EXPECT_EQ(Machine::ReadFile("/mnt/metrics/quellon.prom"), "old\n") << function;
    EXPECT_THAT(Names(), ElementsAre("quellon.prom")) << function;
  }
}

// What fails is told or makes no difference; nothing is changed, and nothing stays open.
TEST(QuellonCommandFaults, ChangeNothingWhateverCallFails) {
  FakeDevice const device;
  Machine::Hooks const undisturbed = hooks();
  Descriptors::Watch const descriptors;
  Machine::ForEachFailure([&](Machine::Point const& point) {
    hooks() = undisturbed;
    Machine::FailingCalls const failing({point});
    ToolRun const run({"health", "--json"});
    EXPECT_NO_THROW(Json::Deserialize(run.output)) << failing.Text();
    EXPECT_TRUE(run.status == Fine || run.status == Wrong || run.status == Unknown);
    EXPECT_THAT(Machine::Trace(), IsEmpty()) << failing.Text();
    EXPECT_THAT(descriptors.Opened(), IsEmpty()) << failing.Text();
    return Machine::Strike(failing.Result().happened);  // one way each
  });
}

}  // namespace
