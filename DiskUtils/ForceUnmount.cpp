#include "DiskUtils/internal/ForceUnmount.h"

#include <sys/mount.h>
#include <unistd.h>

#include <chrono>

#include "DiskUtils/internal/Complain.h"
#include "base/internal/Retry.h"

namespace Quellon::DiskUtils {

int ForceUnmount(char const* mountPoint, char const* complaint) {
  auto const unmountOrComplain = [=] {
    if (umount2(mountPoint, MNT_FORCE) == 0) return true;
    Complain(complaint);
    sync();
    return false;
  };
  if (Tarvik::Retry(9, std::chrono::milliseconds(100), unmountOrComplain) != 0) return 0;
  return umount2(mountPoint, MNT_FORCE);  // the tenth; nothing follows it, so nobody waits
}

}  // namespace Quellon::DiskUtils
