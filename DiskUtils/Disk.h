// The SD card on which recordings are kept.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "DiskUtils/CheckDisk.h"
#include "DiskUtils/SDCardInfo.h"
#include "base/Export.h"

namespace Quellon::DiskUtils {

/// One SD card: its mount point, partition and block device, whether it may be used, its space and
/// its entry in the process-wide status table. Neither a Disk nor the table is locked: one thread
/// at a time may use a mount point, and nothing else the card while it is scanned or formatted.
class QUELLON_EXPORT Disk : public CheckDisk {
 public:
  /// What is known of the card on one mount point.
  struct DeviceStatus {
    // Binary interface: these fields keep their order.
    char cid[36];                    ///< the card's identification, NUL-terminated; may be empty
    bool present;                    ///< block device and partition node exist
    bool readOnly;                   ///< the kernel holds the card read-only
    std::int32_t fsckStatus;         ///< exit code of the last file-system check
    std::int32_t malfunction;        ///< 1 once a scan found that the card loses files; stays 1
    std::uint64_t sizeBytes;         ///< raw size of the card
    std::uint64_t lifetimeWritesKB;  ///< kilobytes ever written to the file system; 0: unknown
  };

  /// Finds the card, reads its identity, mounts it if it is not mounted and measures it.
  /// `mountDirectory` must end in "/" ("/mnt/sdcard/"), `partition` is a device node
  /// ("/dev/mmcblk1p1"), `device` a kernel name ("mmcblk1"). Never throws for a missing or failing
  /// card: the reason is printed on standard output and `available` stays false.
  Disk(std::string mountDirectory, std::string partition, std::string device);
  Disk(Disk const&) = default;
  Disk& operator=(Disk const&) = default;
  ~Disk() override;

  /// Mounts the partition as ext4 (no-exec, no-atime, no-dir-atime, data=writeback) by mount(2).
  /// True on success. Not the command of the same name in `CheckDisk`.
  bool Mount();

  /// Unmounts by umount(2), then by force: 10 attempts 100 ms apart. Each failure but the last is
  /// printed on standard error, or dropped if that would block. True on success.
  bool Umount();

  /// True when `mountPoint` is a mount point: it lies on another device than its parent.
  /// Throws IException "Stat error (1)" or "Stat error (2)" with the errno of stat(2).
  bool CheckDiskPresence();

  /// Looks for the card's device nodes, refreshes its identity and its status entry, and mounts it
  /// if nothing is mounted in its place. True when the nodes are there and something is mounted; a
  /// card that was pulled and put back without `Umount` passes, though what is mounted is gone.
  /// Changes `available` in neither case. Throws as `CheckDiskPresence` does.
  bool CheckDeviceStatus();

  /// Refreshes `totalBytes`, `freeBytes` and `reserveBytes` by statvfs(3). Throws IException "Get
  /// space stat error" with its errno.
  void LoadDiskInfo();

  /// Proves the card: writes "check.tmp" to it, checks the file system and looks whether the file
  /// is still there. Returns with `available` true when the card passed; throws IException
  /// otherwise. Once a card has lost the file, or could not take it, every card on this mount point
  /// is refused for the rest of the process's life. What has the file's name but is no regular file
  /// is removed first; if it cannot be, that counts as a file the card could not take. The file is
  /// not read back: neither wrong contents nor a failed write are noticed.
  /// Refreshes the status entry, but not the space figures. Takes as long as the check.
  void ScanDisk();

  /// Makes a new ext4 file system without a journal, labelled "storage", on the partition, and
  /// mounts it; `check` looks for bad blocks first. Everything on the card is lost. False, with a
  /// line on standard output, when the card is not available or the command could not be started;
  /// whether the command succeeded is not told. Changes neither `available` nor the status table.
  bool Fromat(bool check);

  /// Prints the card's identity on standard output.
  void PrintInfo();

  /// Always false. A placeholder for a read-only test by writing, kept for the interface.
  static bool testSDCardReadOnlySlow(std::string device);

  /// The first word of a file; empty, with a line on standard output, when it is not readable.
  static std::string readSysFSProperty(std::string path);

  /// The decimal number that `text` begins with, a negative one modulo 2^64; 0 if there is none.
  static unsigned long long StringToULong(std::string text);

  /// The decimal text of `value`.
  static std::string ULongToString(unsigned long long value);

  /// Kilobytes written to the mounted ext4 file system of a partition such as "mmcblk1p1" over its
  /// life; 0 when unknown.
  static unsigned long long getSDCardLifetimeWrites(std::string partition);

  /// The kernel's read-only flag of a block device such as "mmcblk1".
  static bool getSDCardReadOnlyFlag(std::string device);

  /// The raw size in bytes of a block device such as "mmcblk1"; 0 when unknown.
  static unsigned long long getSDCardTotalSize(std::string device);

  // Binary interface: these fields keep their order.
  float reserveRatio;          ///< part of the card that recordings leave alone
  std::string blockDevice;     ///< kernel name of the card, such as "mmcblk1"
  bool available = false;      ///< the card may be used
  SDCardInfoData sdCardInfo;   ///< the card's identity
  long long freeBytes = 0;     ///< free bytes of the file system, the superuser's included
  long long reserveBytes = 0;  ///< `totalBytes` times `reserveRatio`
  long long totalBytes = 0;    ///< bytes of the file system

  /// The status of every mount point asked about so far, until the process ends.
  static std::map<std::string, DeviceStatus> deviceStatusList;

 private:
  DeviceStatus& Status();
  void Acquire();
  void PrintSpace();
  bool WriteTestFile(std::string const& path);
  void RequireAvailable();
  void LoadLifetimeWrites();
};

}  // namespace Quellon::DiskUtils
