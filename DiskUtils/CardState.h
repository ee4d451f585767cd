// What the kernel knows of the card while it is in use.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "DiskUtils/Disk.h"
#include "base/Export.h"
#include "base/UniqueFd.h"

namespace Quellon::DiskUtils {

/// Watches the card that was mounted when the object was made: `Look` tells whether that very card
/// is still there, mounted, writable and without new errors. Nothing is written and nothing is read
/// from the card: it answers from what the kernel has in memory, so that it is cheap enough for
/// every second, and a card that hangs does not keep it.
///
/// Files of the kernel are held open from the start. Those of a card or a mount that has gone stay
/// gone: another card in the same slot, or the same one put back, is not taken for it. Make a new
/// object after each start of the card. Nothing that it holds keeps the card from being unmounted.
///
/// What the kernel does not tell, for it is old or has no debugfs, counts as good. Logs nothing.
/// Not locked: one thread at a time; not the one that writes, which a card that hangs keeps. Throws
/// only where memory runs out. Kernel interface: sysfs, "/proc/fs/ext4", debugfs.
class QUELLON_EXPORT CardState {
 public:
  /// The worst that is known, each worse than the one before it.
  enum class Finding {
    Good,        ///< as it was at the start
    Errors,      ///< the file system or the controller has met some; writing may go on
    ReadOnly,    ///< nothing can be written: the file system or the card was made read-only
    Stuck,       ///< requests wait, and for 3 seconds none was answered; it may recover
    NotMounted,  ///< the mount point leads elsewhere, or the card was unmounted in between
    Gone,        ///< the card was pulled, whether or not one is in the slot now
  };

  /// What a look found. Counts begin with 0 at the start, and are 0 where the kernel has none.
  struct Report {
    Finding finding = Finding::Good;      ///< the worst of all
    std::uint64_t errors = 0;             ///< of the ext4 file system
    std::uint64_t warnings = 0;           ///< of the same: among others, data not written
    std::uint64_t controllerErrors = 0;   ///< as timeouts; the controller may have tried again
    std::uint64_t requests = 0;           ///< that the card has been given and not yet answered
    std::chrono::milliseconds waiting{};  ///< for how long looks have seen none answered
  };

  /// Watches the card of `disk`, which may go before this object.
  explicit CardState(Disk const& disk);
  /// Watches the card that is mounted on `mountPoint`, such as "/mnt/sdcard/". `partition` is its
  /// device node ("/dev/mmcblk1p1"), `device` the card's kernel name ("mmcblk1").
  CardState(std::string mountPoint, std::string const& partition, std::string const& device);

  /// Looks at the card. Where it is gone or not mounted, only that is told. That requests wait is
  /// seen between two looks at the earliest: look every second or so.
  Report Look();

  /// A finding as a text, for a log or a person. Never null; lives as long as the library.
  [[nodiscard]] static char const* Describe(Finding finding) noexcept;

 private:
  /// A file of counts, and their sum at the start.
  struct Counter {
    explicit Counter(std::string const& path);
    [[nodiscard]] std::uint64_t Risen() const;

    Tarvik::UniqueFd file;
    std::uint64_t start;
  };

  bool LookAtRequests(Report& report);
  [[nodiscard]] bool IsMounted() const;
  [[nodiscard]] bool IsReadOnly(bool hasMetErrors) const;

  std::string place;
  dev_t card;  ///< the number of the partition, which its file system has, too
  Tarvik::UniqueFd statistics;
  Tarvik::UniqueFd readOnlyFlag;
  Tarvik::UniqueFd options;
  Counter errors;
  Counter warnings;
  Counter controllerErrors;
  std::uint64_t answered = 0;  ///< requests, by the last look
  bool isWaiting = false;      ///< whether some waited then
  std::chrono::steady_clock::time_point waitingSince;
};

}  // namespace Quellon::DiskUtils
