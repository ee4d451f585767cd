// The file-system check of the card's partition, by shell commands.
#pragma once

#include <string>

#include "base/Export.h"

namespace Quellon::DiskUtils {

/// Unmounts, checks and mounts one partition with the commands "umount", "fsck" and "mount", found
/// on the search path. Nothing is thrown for a command that fails; messages go to standard output.
/// While a command runs, SIGCHLD is not ignored, since a command's exit status would be lost
/// otherwise. Standard descriptors that are closed are opened on "/dev/null", and stay so. Not
/// locked: one thread at a time, and nothing else may use the partition meanwhile.
class QUELLON_EXPORT CheckDisk {
 public:
  /// Keeps copies of both paths: the mount directory and the partition's device node.
  CheckDisk(char* mountDirectory, char* device);
  /// The same; the number is ignored.
  CheckDisk(int, char* mountDirectory, char* device);
  CheckDisk(CheckDisk const&) = default;
  CheckDisk& operator=(CheckDisk const&) = default;
  virtual ~CheckDisk();

  /// Runs the unmount command until it succeeds, 4 times at most, 1 second apart, and prints
  /// whether it did. A command that a signal ends counts as one that succeeded.
  void UnMount();

  /// Runs the mount command (options noatime, nodiratime, data=writeback) in the same way.
  void Mount();

  /// Unmounts, runs "fsck -f -y", prints what its exit code says and mounts again, whatever the
  /// code. If the unmount failed fsck is run all the same, and refuses. Returns the code. Takes
  /// minutes on a large card. For code 2 it announces a reboot and waits 3 seconds, but does not
  /// reboot.
  int DiskCheck();

  // Binary interface: these fields keep their order.
  std::string mountPoint;  ///< such as "/mnt/sdcard/"
  std::string devicePath;  ///< such as "/dev/mmcblk1p1"
};

}  // namespace Quellon::DiskUtils
