// What a service does before it has its card taken into service.
#pragma once

#include "base/Export.h"

namespace Quellon::DiskUtils {

/// Has the card checked if it holds ext4 that cannot be mounted, as it is damaged.
/// `System::InitDisk` mounts a card before it checks it, and refuses one that the kernel does not
/// mount. A power cut between the sectors of the superblock leaves such a card: its checksum is
/// wrong, until a check has put it right.
///
/// Call it before `System::InitDisk`, which finds the card unmounted, as without this, and does all
/// that it does then. Any other card stays as it is: one that can be mounted, that is mounted
/// already, here or elsewhere, that is write-protected or that holds something else; and so it does
/// where mount(2) fails for a reason that is not the card's contents. A check takes as long as
/// `CheckDisk::DiskCheck`, and prints what that prints; its first unmount takes 3 s of it. That
/// something was repaired here is not told by the health summary. Needs root. Throws what the check
/// throws. Kernel interface: mount(2).
QUELLON_EXPORT void CheckUnlessMountable();

}  // namespace Quellon::DiskUtils
