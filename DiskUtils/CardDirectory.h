// A directory of the card, for files that must not lie anywhere else.
#pragma once

#include <string>

#include "base/Export.h"
#include "base/UniqueFd.h"

namespace Quellon::DiskUtils {

/// Holds a directory of the mounted card open, so that what is made by its `Path` is made on that
/// card, whatever happens to the mount point meanwhile. A path that begins with the mount point
/// leads to the root file system once the card is unmounted, and a recording fills that instead.
///
///     CardDirectory const directory("/mnt/sdcard/cr/", "/dev/mmcblk1p1");
///     std::string path = directory.Path() + "rec_000001.dat";
///     Ifile recording(path, false);
///
/// As long as it is held the card cannot be unmounted: make one for each recording, after a look at
/// the card, and end it before `Disk::Umount`. Opening may wait for the card. Links are followed:
/// the directory's own may lead elsewhere, which is found out; one in it, of a file's name, is
/// followed by whoever opens that. The descriptor is close-on-exec. May be read from any thread.
/// Logs nothing. Kernel interface: procfs.
class QUELLON_EXPORT CardDirectory {
 public:
  /// Opens `directory`, which must be on the file system of the device node `partition`. If that
  /// fails, `errno` tells why: it or the node is missing (ENOENT), it is on another file system
  /// (EXDEV), or as open(2), stat(2) and fstat(2) say.
  CardDirectory(std::string const& directory, std::string const& partition) noexcept;

  /// Whether it is open, and therefore on the card.
  [[nodiscard]] bool IsOpen() const noexcept { return descriptor.IsOpen(); }

  /// The way into the directory while this object lives, by this process alone. It ends in "/".
  /// Without a directory it leads nowhere: nothing can be made there.
  [[nodiscard]] std::string Path() const;

 private:
  Tarvik::UniqueFd descriptor;
};

}  // namespace Quellon::DiskUtils
