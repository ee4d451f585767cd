// Where the logger's file sink writes.
#pragma once

#include <cstddef>
#include <ctime>
#include <string_view>

#include "base/Export.h"
#include "base/UniqueFd.h"

namespace Tarvik::Ilog {

/// Appends lines to "/var/log/quellon.log", which stays below 1 MiB: before that the file is
/// renamed to "quellon.log.1", replacing the older one, and a new one begun. The file is opened by
/// the first line, never through a symbolic link, and readable by all (mode 0644).
///
/// Other processes may log into the same file, and anybody may rename or delete it: within a second
/// or two lines are in the file at the path again, and no more than 2 KiB of each process are lost
/// with a deleted one. Lines of all processes stay whole, and the limit is kept, for up to 15
/// processes at a time; where the lock cannot be had for 20 ms, a line of more than 2 KiB may pass
/// it by its length. Not locked against threads: the sink calls it with its line lock held. Kernel
/// interface: O_APPEND, and flock(2) on "/var/log" while it opens the file, or begins a new one,
/// and writes the line that follows.
class QUELLON_EXPORT FileLogPolicy {
 public:
  /// The longest line in bytes that the file takes; the sink cuts longer ones.
  static constexpr std::size_t kLongestLine = std::size_t{960} * 1024;

  /// Hands one completed line, of `kLongestLine` bytes at most, to the kernel. False when the file
  /// could not be opened or written; it is closed then, nothing of the line is left in it, and the
  /// next call opens it anew.
  bool Write(std::string_view line) noexcept;

  /// Lets go of the file, so that its file system can be unmounted; the next line opens it again.
  void Close() noexcept;

 private:
  [[nodiscard]] bool NeedsCheck(std::size_t length) const noexcept;
  bool HasRoomInPlace(std::size_t length, std::time_t second) noexcept;
  [[nodiscard]] bool NeedsLock(std::size_t length) const noexcept;
  bool CheckPlaceAndSize(std::size_t length, bool isLocked) noexcept;
  [[nodiscard]] bool IsInPlace() const noexcept;
  bool Open(int flags) noexcept;
  bool EndFragment() noexcept;
  bool RotateIfFull(std::size_t length, std::size_t limit) noexcept;
  bool Append(std::string_view line) noexcept;
  void RemoveFragment(std::size_t fragment) noexcept;

  UniqueFd file;
  std::size_t uncheckedBytes = 0;  // written since the last check of the size
  std::time_t checkedAt = -1;      // second of the last check of the place
};

}  // namespace Tarvik::Ilog
