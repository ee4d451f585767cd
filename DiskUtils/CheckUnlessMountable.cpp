#include "DiskUtils/CheckUnlessMountable.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

#include "DiskUtils/CheckDisk.h"
#include "DiskUtils/internal/CardSlot.h"
#include "base/UniqueFd.h"
#include "base/internal/OpenFile.h"

namespace Quellon::DiskUtils {

namespace {

// Whether the first superblock of a partition is that of ext2, ext3 or ext4. A card of anything
// else is not to be checked: where it was ext4 once, the check would find an older superblock
// further behind, and bring that file system back over whatever is there now.
bool HasExtSuperblock(char const* partition) {
  constexpr off_t kPlaceOfMagic = 1024 + 56;
  constexpr std::array<unsigned char, 2> kMagicBytes = {0x53, 0xEF};
  std::array<unsigned char, 2> found{};  // stays so where less can be read
  Tarvik::UniqueFd const card(Tarvik::OpenFile(partition, O_RDONLY | O_NONBLOCK));
  return card.IsOpen() && pread(card.Get(), found.data(), found.size(), kPlaceOfMagic) >= 0 &&
         found == kMagicBytes;
}

// What mount(2) says of ext4 that a check may put right: of checksums that are wrong EBADMSG, of
// what contradicts itself EUCLEAN, of either in older kernels EINVAL, and of blocks that cannot be
// read EIO. Any other reason is not the card's contents: it is in use, write-protected, gone, or
// the system lacks memory, rights or the mount point.
bool IsDamage(int error) {
  return error == EBADMSG || error == EUCLEAN || error == EINVAL || error == EIO;
}

}  // namespace

void CheckUnlessMountable() {
  if (!HasExtSuperblock(kCardPartition)) return;
  unsigned long const flags = MS_NOEXEC | MS_NOATIME;
  if (mount(kCardPartition, kCardMountPoint, "ext4", flags, nullptr) == 0) {
    umount(kCardMountPoint);
    return;
  }
  if (!IsDamage(errno)) return;
  std::string place = kCardMountPoint;
  std::string partition = kCardPartition;
  CheckDisk(place.data(), partition.data()).DiskCheck();
  umount(kCardMountPoint);
}

}  // namespace Quellon::DiskUtils
