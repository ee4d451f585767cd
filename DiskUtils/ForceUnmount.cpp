#include "DiskUtils/internal/ForceUnmount.h"

#include <sys/mount.h>
#include <unistd.h>

#include <chrono>

#include "DiskUtils/internal/Complain.h"
#include "base/internal/Retry.h"

namespace Quellon::DiskUtils {

namespace {

constexpr int kForcedAttempts = 10;
constexpr std::chrono::milliseconds kForcedPause(100);

}  // namespace

int ForceUnmount(char const* mountPoint, char const* complaint) {
  auto const unmountOrComplain = [=] {
    if (umount2(mountPoint, MNT_FORCE) == 0) return true;
    Complain(complaint);
    sync();
    return false;
  };
  if (Tarvik::Retry(kForcedAttempts - 1, kForcedPause, unmountOrComplain) != 0) return 0;
  return umount2(mountPoint, MNT_FORCE);  // the last; nothing follows it, so nobody waits
}

}  // namespace Quellon::DiskUtils
