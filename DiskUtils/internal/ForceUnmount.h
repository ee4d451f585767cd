// Unmounting what does not want to be unmounted.
#pragma once

namespace Quellon::DiskUtils {

/// Up to 10 forced attempts to unmount. Between failed attempts `complaint` and the system's error
/// text go to standard error, unless that takes nothing just now; file-system buffers are flushed
/// and 100 ms pass. Returns the result of the last umount2(2).
int ForceUnmount(char const* mountPoint, char const* complaint);

}  // namespace Quellon::DiskUtils
