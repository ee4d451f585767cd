// Files that were last modified when a test says.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <ctime>
#include <filesystem>

/// Sets when the file of that path of the machine, or a link itself, was last modified, in seconds
/// since the epoch. When it was read stays. False where that cannot be done.
inline bool SetModificationTime(std::filesystem::path const& path, std::time_t seconds,
                                long nanoseconds = 0) {
  std::array<timespec, 2> const times{timespec{0, UTIME_OMIT}, timespec{seconds, nanoseconds}};
  return utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) == 0;
}
