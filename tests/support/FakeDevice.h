// A whole device in good order, for tests of what looks at it.
#pragma once

#include <sys/sysmacros.h>

#include <filesystem>
#include <string>

#include "tests/machine/Machine.h"
#include "tests/support/FakeCard.h"
#include "tests/support/ModificationTime.h"
#include "tests/support/Scoped.h"

/// While one exists, the device has been up for a day: a good card is mounted and holds some
/// recordings, the clocks agree, and a service holds the watchdog and writes the log. Tests change
/// what they need to.
class FakeDevice {
 public:
  static constexpr long kNow = 1700000000;  // 2023-11-14 22:13:20 UTC
  static constexpr char const* kWatchdog = "/sys/class/watchdog/watchdog0/";

  FakeDevice() {
    Machine::hooks().now = kNow;
    card.device = makedev(179, 1);
    Mount("/dev/mmcblk1p1 /mnt/sdcard ext4 rw,noatime");
    Machine::MakeFile("/proc/uptime", "86400.25 86000.00\n");
    Machine::MakeFile("/sys/class/thermal/thermal_zone0/temp", "41250\n");
    Machine::MakeFile("/sys/class/rtc/rtc0/since_epoch", std::to_string(kNow) + "\n");
    Machine::MakeFile("/sys/fs/ext4/mmcblk1p1/errors_count", "0\n");
    SetWatchdog("identity", "imx2+ watchdog");
    SetWatchdog("state", "active");
    SetWatchdog("timeout", "90");
    SetWatchdog("timeleft", "85");
    SetWatchdog("nowayout", "0");
    SetWatchdog("options", "0x8180");
    SetWatchdog("bootstatus", "0");
    for (int number = 1; number <= 3; ++number) {
      Record("rec_00000" + std::to_string(number), kNow - 3600 * (4 - number));
    }
    Machine::MakeFile("/var/log/quellon.log", "[2023-11-14 22:13:20][REC] Recorded\n");
    SetModificationTime(Machine::Real("/var/log/quellon.log"), kNow);
    Start("812", "quellon-recorder", "quellon-recorder.service");
    Open("812", 3, "/dev/watchdog0");
    Open("812", 4, "/var/log/quellon.log");
  }

  /// A recording of 1000 bytes with its positions, both last modified then.
  static void Record(std::string const& stem, long modified) {
    for (auto const& [extension, size] : {std::pair{".dat", 1000}, {".gps", 10}}) {
      std::string const path = "/mnt/sdcard/cr/" + stem + extension;
      Machine::MakeFile(path, std::string(static_cast<std::size_t>(size), 'x'));
      SetModificationTime(Machine::Real(path), modified);
    }
  }

  /// The only line of the table of mounts beside that of the root.
  static void Mount(std::string const& line) {
    Machine::MakeFile("/proc/self/mounts", "/dev/root / ext4 rw 0 0\n" + line + " 0 0\n");
  }

  static void SetWatchdog(std::string const& property, std::string const& text) {
    Machine::MakeFile(kWatchdog + property, text + "\n");
  }

  /// A process, of a unit of systemd unless that is empty. The kernel cuts its name.
  static void Start(std::string const& id, std::string const& name, std::string const& unit) {
    std::string const folder = "/proc/" + id + "/";
    Machine::MakeFile(folder + "comm", name.substr(0, 15) + "\n");
    Machine::MakeFile(folder + "cmdline", "/usr/bin/" + name);
    Machine::MakeFile(folder + "cgroup",
                      unit.empty() ? "0::/\n" : "0::/system.slice/" + unit + "\n");
    std::filesystem::create_directories(Machine::Real(folder + "fd"));
  }

  /// Gives a process a descriptor.
  static void Open(std::string const& id, int fd, std::string const& path) {
    std::filesystem::create_symlink(path,
                                    Machine::Real("/proc/" + id + "/fd/" + std::to_string(fd)));
  }

  /// Ends the service.
  static void StopService() { Machine::RemoveFile("/proc/812"); }

  FakeCard card;

 private:
  Scoped::AtEnd const zone = Scoped::TimeZone("UTC0");
};
