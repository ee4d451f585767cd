// An SD card as the kernel and the shell's commands show it, for tests without a card.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "DiskUtils/Disk.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"

/// While one exists, a good card is in the slot and mounted: device nodes, sysfs properties, a
/// mount point that the system calls and commands mount and unmount, space figures. The status
/// table begins empty. Tests change what they need to.
class FakeCard {
 public:
  static constexpr char const* kMountPoint = "/mnt/sdcard/";
  static constexpr char const* kPartition = "/dev/mmcblk1p1";
  static constexpr char const* kDevice = "mmcblk1";
  static constexpr char const* kTestFile = "/mnt/sdcard/check.tmp";
  static constexpr char const* kCid = "275048534433324760e0e7f40f012a01";

  FakeCard() {
    Quellon::DiskUtils::Disk::deviceStatusList.clear();
    InsertCard();
    SetHooks();
  }
  FakeCard(FakeCard const&) = delete;
  FakeCard& operator=(FakeCard const&) = delete;
  ~FakeCard() { Machine::hooks() = {}; }

  /// The library's object of the card in the slot, whatever that is; what it prints is hidden.
  static Quellon::DiskUtils::Disk MakeDisk() {
    Capture::Descriptor const hidden(1);
    return {kMountPoint, kPartition, kDevice};
  }

  /// A property such as "ro" or "device/cid".
  static void SetProperty(std::string const& name, std::string const& text) {
    Machine::MakeFile("/sys/block/mmcblk1/" + name, text);
  }
  static bool HasTestFile() { return std::filesystem::exists(Machine::Real(kTestFile)); }

  static Quellon::DiskUtils::Disk::DeviceStatus& Status() {
    return Quellon::DiskUtils::Disk::deviceStatusList[kMountPoint];
  }

  bool mounted = true;
  bool systemCallsWork = true;  ///< mount(2), umount(2) and umount2(2)
  int fsckCode = 0;
  std::function<void()> duringCheck;
  struct statvfs space {};
  std::optional<dev_t>
      device;  ///< the number of the card; else that of what really holds its files

 private:
  void InsertCard() {
    Machine::MakeFile("/dev/mmcblk1", "");
    Machine::MakeFile(kPartition, "");
    std::filesystem::create_directories(Machine::Real(kMountPoint));
    SetProperty("device/cid", std::string(kCid) + "\n");
    SetProperty("device/csd", "400e00325b590000ed5f7f800a400001\n");
    SetProperty("device/serial", "0xe0e7f40f\n");
    SetProperty("device/manfid", "0x000027\n");
    SetProperty("device/oemid", "0x5048\n");
    SetProperty("device/name", "SD32G\n");
    SetProperty("ro", "0\n");
    SetProperty("size", "31116288\n");
    SetProperty("stat", " 10 0 80 5 20 0 160 9 0 11 14 0 0 0 0 0 0\n");
    Machine::MakeFile("/sys/class/block/mmcblk1p1/ro", "0\n");
    Machine::MakeFile("/sys/fs/ext4/mmcblk1p1/lifetime_write_kbytes", "734003\n");
    space.f_bsize = 65536;
    space.f_frsize = 4096;
    space.f_blocks = 3000000;
    space.f_bfree = 1000000;
    space.f_bavail = 900000;
  }

  void SetHooks() {
    auto& hooks = Machine::hooks();
    hooks.mount = [this](auto&&...) { return Call(true); };
    hooks.umount = [this](auto&&...) { return Call(false); };
    hooks.umount2 = [this](auto&&...) { return Call(false); };
    hooks.system = [this](std::string const& command) { return Command(command); };
    hooks.stat = [this](std::string const& path, struct stat* status) {
      return Stat(path, status);
    };
    hooks.fstat = [this](int fd, struct stat* status) { return Fstat(fd, status); };
    hooks.statvfs = [this](auto&&, struct statvfs* result) {
      *result = space;
      return Machine::Answer::Success();
    };
  }

  Machine::Answer Call(bool mounts) {
    if (!systemCallsWork) return Machine::Answer::Failure(EBUSY);
    mounted = mounts;
    return Machine::Answer::Success();
  }

  Machine::Answer Command(std::string const& command) {
    if (command.starts_with("umount ")) mounted = false;
    if (command.starts_with("mount ")) mounted = true;
    if (!command.starts_with("fsck ")) return Machine::Answer::Success();
    if (duringCheck) duringCheck();
    return {fsckCode << 8, 0};
  }

  // The parent lies on device 1.
  [[nodiscard]] Machine::Answer Stat(std::string const& path, struct stat* status) const {
    int const result = fstatat(AT_FDCWD, Machine::Real(path).c_str(), status, 0);
    if (device && (path == kPartition || path == kMountPoint)) status->st_dev = *device;
    if (path == kPartition) status->st_rdev = status->st_dev;
    if (path.starts_with(kMountPoint) && !(path == kMountPoint && mounted)) status->st_dev = 1;
    return {result, errno};
  }

  // Its directories alone are asked.
  std::optional<Machine::Answer> Fstat(int fd, struct stat* status) const {
    if (!device) return std::nullopt;
    int const result = fstatat(fd, "", status, AT_EMPTY_PATH);
    if (S_ISDIR(status->st_mode)) status->st_dev = *device;
    return Machine::Answer{result, errno};
  }
};
