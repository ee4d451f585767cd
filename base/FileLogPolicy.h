// Where the logger's file sink writes.
#pragma once

#include <cstdint>
#include <string_view>

#include "base/Export.h"
#include "base/UniqueFd.h"

namespace Tarvik::Ilog {

/// Appends lines to "/var/log/quellon.log". Before a line would take the file to 1 MiB the file
/// is renamed to "quellon.log.1", replacing the older one, and a new one begun. The file is opened
/// by the first line, never through a symbolic link, and readable by all (mode 0644).
/// Not locked: the sink calls it with its line lock held.
class QUELLON_EXPORT FileLogPolicy {
 public:
  /// Hands one completed line to the kernel. False when the file could not be opened or written;
  /// it is closed then, and the next call opens it anew.
  bool Write(std::string_view line) noexcept;

  /// Lets go of the file, so that its file system can be unmounted; the next line opens it again.
  void Close() noexcept;

 private:
  bool Open(int flags) noexcept;
  bool Append(std::string_view line) noexcept;
  bool MakeWay(std::size_t length) noexcept;

  UniqueFd file;
  std::int64_t size = 0;
};

}  // namespace Tarvik::Ilog
