// What a service does before it has the library take its card into service.
#pragma once

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

#include "DiskUtils/CheckDisk.h"
#include "base/UniqueFd.h"

/// Whether the first superblock of a partition is that of ext2, ext3 or ext4. A card of anything
/// else is not to be checked: where it was ext4 once, the check would find an older superblock
/// further behind, and bring that file system back over whatever is there now.
inline bool HasExtSuperblock(std::string const& partition) {
  constexpr off_t kPlace = 1024 + 56;
  constexpr std::array<unsigned char, 2> kMagic = {0x53, 0xEF};
  std::array<unsigned char, 2> found{};  // stays so where less can be read
  Tarvik::UniqueFd const card(open(partition.c_str(), O_RDONLY | O_CLOEXEC));
  return card.IsOpen() && pread(card.Get(), found.data(), found.size(), kPlace) >= 0 &&
         found == kMagic;
}

/// Has the card checked if it holds ext4 that cannot be mounted. The library mounts a card before
/// it checks it, and refuses one that the kernel does not mount. A power cut between the sectors of
/// the superblock leaves such a card: its checksum is wrong, until a check has put it right.
///
/// Call it before `System::InitDisk`, which finds the card unmounted, as without this, and does all
/// that it does then. Any other card stays as it is: one that can be mounted, that is mounted
/// already, here or elsewhere, that is write-protected or that holds something else. A check takes
/// as long as `CheckDisk::DiskCheck`, and prints what that prints; its first unmount takes 3 s of
/// it. That something was repaired here is not told by the health summary. Kernel interface:
/// mount(2).
inline void CheckUnlessMountable() {
  std::string partition = "/dev/mmcblk1p1";
  std::string place = "/mnt/sdcard/";
  if (!HasExtSuperblock(partition)) return;
  if (mount(partition.c_str(), place.c_str(), "ext4", MS_NOEXEC | MS_NOATIME, nullptr) == 0) {
    umount(place.c_str());
    return;
  }
  bool const isMounted = errno == EBUSY;
  bool const isWriteProtected = errno == EACCES || errno == EROFS;
  if (isMounted || isWriteProtected) return;
  Quellon::DiskUtils::CheckDisk(place.data(), partition.data()).DiskCheck();
  umount(place.c_str());
}
