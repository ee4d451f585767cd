// Process and memory utilities. They keep no state and may be called from any thread; lines that
// two threads print at a time may interleave.
#pragma once

#include <string>

#include "base/Export.h"

namespace Quellon::SysUtil {

/// Asks the kernel to drop its page cache, dentries and inodes ("/proc/sys/vm/drop_caches"). Dirty
/// pages stay: sync first. Up to 4 attempts, 100 ms apart; true when one of the first three was
/// taken. Needs root.
QUELLON_EXPORT bool ClearCache();

/// Runs `command` through the shell and returns all the bytes it wrote on its standard output, none
/// when it could not be started. Waits until the command has ended and nobody else has its output
/// open; signals that arrive meanwhile change nothing. The command's exit status is ignored.
QUELLON_EXPORT std::string ExecSystemCmdThroughPipe(std::string command);

/// The id of the first process, in the order of "/proc", whose program name contains
/// `processName`; the program name is what follows the last "/" of its first argument. An empty
/// name matches the first process that has a command line. The calling process can find itself.
/// Returns -1 when there is none.
QUELLON_EXPORT int GetProcIdByName(std::string processName);

/// Unmounts "/mnt/ramdisk" and mounts a new, empty tmpfs of 192 MiB there, mode 1777. Prints
/// "Ramdisk umount error: " or "Ramdisk mount error: " with a number on standard output when a
/// command could not be started; that a command failed is not reported. Needs root.
QUELLON_EXPORT void MountRamdisk();

/// Prints the open descriptors of this process, and then of its parent, on standard output.
QUELLON_EXPORT void DisplayOpenFiles();

}  // namespace Quellon::SysUtil
