// Unmounting by force.
#pragma once

namespace Quellon::DiskUtils {

/// Up to 10 forced attempts to unmount. Between failed attempts it prints `complaint` and the
/// system's error text by `Complain`, flushes file-system buffers and waits 100 ms. Returns the
/// result of the last umount2(2).
int ForceUnmount(char const* mountPoint, char const* complaint);

}  // namespace Quellon::DiskUtils
