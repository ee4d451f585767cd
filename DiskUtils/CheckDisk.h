// The file-system check of the card's partition, by shell commands.
#pragma once

#include <string>

#include "base/Export.h"

namespace Quellon::DiskUtils {

/// Unmounts, checks and mounts one partition with the commands "umount", "fsck" and "mount", found
/// on the search path. Nothing is thrown for a command that fails; messages go to standard output.
/// Where the process ignores SIGCHLD it does not while a command runs, and standard descriptors
/// that are closed become "/dev/null" for good. Not locked: one thread at a time, and nothing else
/// may use the partition meanwhile.
class QUELLON_EXPORT CheckDisk {
 public:
  /// Keeps copies of both paths: the mount directory and the partition's device node.
  CheckDisk(char* mountDirectory, char* device);
  /// The same; the number is ignored.
  CheckDisk(int, char* mountDirectory, char* device);
  CheckDisk(CheckDisk const&) = default;
  CheckDisk& operator=(CheckDisk const&) = default;
  virtual ~CheckDisk();

  /// Runs the unmount command until it succeeds, 4 times at most, 1 second apart, and prints which
  /// it was. A command that a signal ends counts as one that succeeded.
  void UnMount();

  /// Runs the mount command (options noatime, nodiratime, data=writeback) in the same way.
  void Mount();

  /// Unmounts, runs "fsck -f -y", prints what its exit code says and mounts again, whatever the
  /// code. A file system that could not be unmounted is handed to the check all the same, which
  /// refuses it. Returns the code. Takes minutes on a large card; 3 seconds more for code 2, whose
  /// reboot is announced but left to others.
  int DiskCheck();

  // Binary interface: these fields keep their order.
  std::string mountPoint;  ///< such as "/mnt/sdcard/"
  std::string devicePath;  ///< such as "/dev/mmcblk1p1"
};

}  // namespace Quellon::DiskUtils
