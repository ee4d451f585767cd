// What a service does before it has the library take its card into service.
#pragma once

#include <string>

#include "DiskUtils/Disk.h"

/// Has the card checked if it is in the slot but cannot be mounted. The library mounts a card
/// before it checks it, and refuses one that the kernel does not mount. A power cut between the
/// sectors of the superblock leaves such a card: its checksum is wrong, until a check has put it
/// right.
///
/// Call it before `System::InitDisk`. A card that can be mounted is mounted and not checked: that
/// takes no time. Other cards are checked as `CheckDisk::DiskCheck` does it, which may take
/// minutes; one of another file system by the checker of that. Prints what `Disk` and the check
/// print.
inline void CheckUnlessMountable() {
  std::string const mountPoint = "/mnt/sdcard/";
  Quellon::DiskUtils::Disk card(mountPoint, "/dev/mmcblk1p1", "mmcblk1");
  auto const& status = Quellon::DiskUtils::Disk::deviceStatusList[mountPoint];
  if (card.available || !status.present || status.readOnly || status.malfunction == 1) return;
  card.DiskCheck();
}
