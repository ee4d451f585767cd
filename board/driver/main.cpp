// The library on the board's command line: a sub-command for each thing a scenario asks of it.
//
//   driver COMMAND [ARGUMENT...]
//
// Prints what the library printed, then "driver: COMMAND yes" or "no". Exit code 0 means yes, 1 no,
// 2 that the command line is not understood.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "DiskUtils/CapacityProof.h"
#include "DiskUtils/CardPreparation.h"
#include "DiskUtils/CheckUnlessMountable.h"
#include "DiskUtils/System.h"
#include "FileUtils/FilesManager.h"
#include "RTC/ClockFloor.h"
#include "RTC/Rtc.h"
#include "SysUtil/Util.h"
#include "Watchdog/Watchdog.h"
#include "Watchdog/WatchdogGuard.h"
#include "base/ConsoleGuard.h"
#include "base/Logger.h"
#include "board/driver/WatchCard.h"

using Quellon::System;
using Quellon::WatchdogGuard;
using Quellon::DiskUtils::CapacityProof;
using Quellon::DiskUtils::CardContents;
using Quellon::DiskUtils::CardPreparation;
using Quellon::DiskUtils::Disk;
using Quellon::FileUtils::FilesManager;
using Quellon::FileUtils::Ifile;
using Quellon::RTC::ClockFloor;
using Tarvik::Ilog::LogLine;

namespace {

using Arguments = std::vector<std::string>;

struct Command {
  std::string_view name;
  std::string_view arguments;  // one word for each
  bool (*run)(Arguments const&);
};

constexpr char const* kRecordings = "/mnt/sdcard/cr/";

Disk MountedCard() {
  return {"/mnt/sdcard/", "/dev/mmcblk1p1", "mmcblk1"};
}

bool CheckUnlessMounted(Arguments const& /*none*/) {
  Quellon::DiskUtils::CheckUnlessMountable();
  return true;
}

bool InitDisk(Arguments const& /*none*/) {
  auto* const system = System::GetInstance();
  auto const* const disk = system->InitDisk();
  std::cout << "health " << system->GetHealthReport() << std::endl;
  return disk != nullptr && disk->available;
}

bool SaveCounter(Arguments const& arguments) {
  return System::GetInstance()->SaveSDCardStatusCounter(std::atoi(arguments[0].c_str()));
}

// Each file as "file NAME SIZE", oldest first, then the sum of their sizes.
bool List(Arguments const& /*none*/) {
  Disk card = MountedCard();
  FilesManager catalogue(&card, kRecordings, 0, 1.0F);
  if (!catalogue.LoadAndSort()) return false;
  for (Ifile const* file : catalogue.GetList()) {
    std::cout << "file " << file->name << ' ' << file->size << '\n';
  }
  std::cout << "total " << catalogue.GetTotalFilesSize() << std::endl;
  return true;
}

bool MakeRoom(Arguments const& arguments) {
  Disk card = MountedCard();
  FilesManager catalogue(&card, kRecordings, std::strtoull(arguments[0].c_str(), nullptr, 10),
                         std::strtof(arguments[1].c_str(), nullptr));
  if (!catalogue.LoadAndSort()) return false;
  bool const room = catalogue.MakeRoom();
  if (!room) std::cout << "error " << catalogue.GetError() << std::endl;
  return room;
}

bool AddFile(Arguments const& arguments) {
  Disk card = MountedCard();
  FilesManager catalogue(&card, kRecordings, 0, 1.0F);
  std::string name = arguments[0];
  bool const added = catalogue.AddFile(name);
  if (!added) std::cout << "error " << catalogue.GetError() << std::endl;
  return added;
}

bool Stat(Arguments const& arguments) {
  std::string path = arguments[0];
  Ifile file(path, false);
  bool const described = file.Stat();
  std::cout << "size " << file.size << std::endl;
  return described;
}

bool RemoveIfBigger(Arguments const& arguments) {
  std::string path = arguments[0];
  return Ifile(path, false).RemoveIfBiggerThan(std::strtoull(arguments[1].c_str(), nullptr, 10));
}

bool Format(Arguments const& arguments) {
  return MountedCard().Fromat(arguments[0] == "scan");
}

bool ShowCard(Arguments const& /*none*/) {
  CardContents card;
  auto const result = CardPreparation::Look(card);
  bool const isSeen = result == CardPreparation::Result::Done;
  std::cout << "card " << (isSeen ? card.Describe() : CardPreparation::Describe(result))
            << std::endl;
  return isSeen;
}

bool Prepare(Arguments const& arguments) {
  using Permission = CardPreparation::Permission;
  bool const erases = arguments[0] == "erase";
  auto const permission = erases ? Permission::EraseRecordings : Permission::KeepRecordings;
  auto const result = CardPreparation::Prepare(
      permission, [](char const* step) { std::cout << "step " << step << std::endl; });
  std::cout << "prepare " << CardPreparation::Describe(result) << std::endl;
  return result == CardPreparation::Result::Done;
}

// Of the mounted card. Positions are -1 where there is none.
bool ProveCapacity(Arguments const& arguments) {
  CapacityProof const proof("/mnt/sdcard/", std::strtoull(arguments[1].c_str(), nullptr, 10));
  auto const report = arguments[0] == "all" ? proof.ProveAll() : proof.ProveSamples();
  auto const position = [](auto const& bytes) {
    return bytes ? static_cast<long long>(*bytes) : -1LL;
  };
  std::cout << "proof " << CapacityProof::Describe(report.result) << ", error " << report.error
            << "\nroom " << report.roomBytes << "\nproved " << report.provedBytes << "\nwrong "
            << report.wrongBytes << "\nfirst " << position(report.firstWrong) << "\norigin "
            << position(report.origin) << "\nrates " << report.writtenPerSecond << ' '
            << report.readPerSecond << std::endl;
  return report.result == CapacityProof::Result::Proved;
}

bool Reboot(Arguments const& /*none*/) {
  return System::GetInstance()->Reboot() == 0;
}

bool SetDate(Arguments const& arguments) {
  auto seconds = static_cast<std::time_t>(std::atoll(arguments[0].c_str()));
  return System::GetInstance()->SetDate(seconds);
}

bool SetRtc(Arguments const& arguments) {
  auto seconds = static_cast<std::time_t>(std::atoll(arguments[0].c_str()));
  return System::GetInstance()->SetRTC(seconds);
}

bool LoadRtc(Arguments const& /*none*/) {
  Quellon::RTC::Rtc clock("/dev/rtc0");
  bool const loaded = clock.Load() && clock.SetSystemClock();
  clock.Print();
  return loaded;
}

bool RaiseClock(Arguments const& arguments) {
  auto const [result, from, to] = ClockFloor().Apply(arguments[0]);
  std::cout << "clock " << from << " to " << to << ", " << ClockFloor::Describe(result)
            << std::endl;
  return result == ClockFloor::Result::Raised;
}

bool SaveClock(Arguments const& /*none*/) {
  return ClockFloor().Save() == ClockFloor::Result::Saved;
}

// Arms the watchdog and kicks it so often, four times in a timeout.
bool KickWatchdog(Arguments const& arguments) {
  Quellon::Watchdog watchdog(std::atoi(arguments[0].c_str()));
  bool alive = watchdog.fd == 0;
  for (int kicks = std::atoi(arguments[1].c_str()); alive && kicks > 0; --kicks) {
    std::this_thread::sleep_for(std::chrono::milliseconds(watchdog.timeout * 250));
    alive = watchdog.Reset();
  }
  return alive;
}

bool OpenGuard(WatchdogGuard& guard, std::string const& timeout) {
  auto const opened = guard.Open(std::atoi(timeout.c_str()));
  std::cout << "open " << WatchdogGuard::Describe(opened) << std::endl;
  return opened == WatchdogGuard::Result::Done;
}

// Holds the watchdog and kicks it so often, four times in a timeout; ends without disarming it.
bool Guard(Arguments const& arguments) {
  WatchdogGuard guard;
  bool alive = OpenGuard(guard, arguments[0]);
  guard.KeepOpenAfterEnd();
  std::cout << "guard by " << guard.GetDriver() << ", " << guard.GetTimeout() << " s, "
            << (guard.IsStoppedByClose() ? "stopped" : "not stopped") << " by a close" << std::endl;
  for (int kicks = std::atoi(arguments[1].c_str()); alive && kicks > 0; --kicks) {
    std::this_thread::sleep_for(std::chrono::milliseconds(guard.GetTimeout() * 250));
    alive = guard.Kick() == WatchdogGuard::Result::Done;
  }
  return alive;
}

bool Disarm(Arguments const& arguments) {
  WatchdogGuard guard;
  if (!OpenGuard(guard, arguments[0])) return false;
  auto const disarmed = guard.Disarm();
  std::cout << "disarm " << WatchdogGuard::Describe(disarmed) << std::endl;
  return disarmed == WatchdogGuard::Result::Done;
}

bool Watch(Arguments const& arguments) {
  return WatchCard(arguments[0], std::chrono::seconds(std::atoi(arguments[1].c_str())),
                   std::chrono::milliseconds(std::atoi(arguments[2].c_str())));
}

// Logs lines of 3000 characters, and kicks the watchdog after each, twice in a timeout.
bool LogAndKick(Arguments const& arguments) {
  std::optional<Tarvik::ConsoleGuard> console;
  if (arguments[2] == "guarded") console.emplace();
  WatchdogGuard guard;
  if (guard.Open(std::atoi(arguments[0].c_str())) != WatchdogGuard::Result::Done) return false;
  for (int line = 1; line <= std::atoi(arguments[1].c_str()); ++line) {
    LogLine(Tarvik::Ilog::Info) << "line " << line << std::string(3000, ' ') << '.';
    guard.Kick();
    std::this_thread::sleep_for(std::chrono::milliseconds(guard.GetTimeout() * 500));
  }
  return guard.Disarm() == WatchdogGuard::Result::Done;
}

bool ClearCache(Arguments const& /*none*/) {
  return Quellon::SysUtil::ClearCache();
}

bool FindProcess(Arguments const& arguments) {
  int const process = Quellon::SysUtil::GetProcIdByName(arguments[0]);
  std::cout << "process " << process << std::endl;
  return process > 0;
}

bool MountRamdisk(Arguments const& /*none*/) {
  Quellon::SysUtil::MountRamdisk();
  return true;
}

bool OpenFiles(Arguments const& /*none*/) {
  Quellon::SysUtil::DisplayOpenFiles();
  return true;
}

constexpr std::array kCommands = {
    Command{"check-unless-mountable", "", CheckUnlessMounted},
    Command{"init-disk", "", InitDisk},
    Command{"save-counter", "COUNTER", SaveCounter},
    Command{"list", "", List},
    Command{"make-room", "MINIMUM-FREE SHARE", MakeRoom},
    Command{"add-file", "NAME", AddFile},
    Command{"stat", "PATH", Stat},
    Command{"remove-if-bigger", "PATH LIMIT", RemoveIfBigger},
    Command{"format", "scan|plain", Format},
    Command{"card", "", ShowCard},
    Command{"prepare", "keep|erase", Prepare},
    Command{"prove-capacity", "all|samples BYTES-TO-LEAVE", ProveCapacity},
    Command{"reboot", "", Reboot},
    Command{"set-date", "SECONDS", SetDate},
    Command{"set-rtc", "SECONDS", SetRtc},
    Command{"load-rtc", "", LoadRtc},
    Command{"raise-clock", "RECORDINGS", RaiseClock},
    Command{"save-clock", "", SaveClock},
    Command{"watchdog", "TIMEOUT KICKS", KickWatchdog},
    Command{"guard", "TIMEOUT KICKS", Guard},
    Command{"disarm", "TIMEOUT", Disarm},
    Command{"watch-card", "PARTITION SECONDS PERIOD", Watch},
    Command{"log-and-kick", "TIMEOUT LINES guarded|plain", LogAndKick},
    Command{"clear-cache", "", ClearCache},
    Command{"find-process", "NAME", FindProcess},
    Command{"ramdisk", "", MountRamdisk},
    Command{"open-files", "", OpenFiles},
};

std::size_t Words(std::string_view text) {
  return text.empty() ? 0 : 1 + static_cast<std::size_t>(std::ranges::count(text, ' '));
}

int Usage() {
  for (auto const& command : kCommands) {
    std::cerr << "driver " << command.name << ' ' << command.arguments << '\n';
  }
  return 2;
}

}  // namespace

int main(int count, char** words) {
  Arguments arguments(words + std::min(count, 2), words + count);
  std::string_view const name = count > 1 ? words[1] : "";
  auto const* const command = std::ranges::find(kCommands, name, &Command::name);
  if (command == kCommands.end() || arguments.size() != Words(command->arguments)) return Usage();
  bool const done = command->run(arguments);
  std::cout << "driver: " << name << (done ? " yes" : " no") << std::endl;
  return done ? EXIT_SUCCESS : EXIT_FAILURE;
}
