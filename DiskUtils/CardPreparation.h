// Making a usable card of one as it was bought or found.
#pragma once

#include <functional>

#include "DiskUtils/CardContents.h"
#include "base/Export.h"

namespace Quellon::DiskUtils {

/// Prepares the card in the slot ("/dev/mmcblk1"): one partition, ext4 with a journal, checked and
/// proved by a test file. `System::InitDisk` refuses a card that is not so, and `Disk::Fromat`
/// formats only one that it has taken. What the card held is lost; so it is done when somebody asks
/// for it, and never by the library itself.
///
/// Runs the commands "sfdisk", "mkfs.ext4", "umount", "fsck" and "mount", found on the search path,
/// with what that says of children and standard descriptors in `CheckDisk`. Prints what `CheckDisk`
/// prints, and nothing else of its own. One thread at a time, and nothing else may use the card
/// meanwhile. Needs root. Throws std::bad_alloc where memory runs out, and what the caller's own
/// function throws; what was mounted is unmounted then.
class QUELLON_EXPORT CardPreparation {
 public:
  /// What may be lost.
  enum class Permission {
    KeepRecordings,   ///< whatever a card holds that is no ext file system
    EraseRecordings,  ///< that, too: a second permission, for which somebody was asked again
  };

  /// What came of it.
  enum class Result {
    Done,               ///< prepared; not mounted, unless somebody uses it already
    Missing,            ///< there is no card in the slot
    WriteProtected,     ///< the kernel holds the card read-only
    InUse,              ///< mounted, used for swapping or claimed otherwise, or a partition of it
    MayHoldRecordings,  ///< it has ext, or cannot be read, and the second permission is missing
    NotPartitioned,     ///< no new table, or the kernel goes on with the old one
    NotFormatted,       ///< the file system could not be made
    NotMounted,         ///< it cannot be mounted
    CheckFailed,        ///< it was to be checked, and is not without errors, or could not be
    NotKept,            ///< the test file could not be written, or was another one after the check
    Failed,             ///< the card cannot be opened for another reason, which `errno` tells
    Exchanged,          ///< the card is not the one that was looked at, or was pulled
    CommandMissing,     ///< "sfdisk", "mkfs.ext4" or "fsck" is not on the search path
  };

  /// Called with the name of each step before it begins, for a watchdog and for a display: "looking
  /// at the card", "making the partition", "making the file system", "testing the card". On the
  /// caller's thread. May be empty.
  using Progress = std::function<void(char const* step)>;

  /// Tells what the card holds, in use or not, and changes nothing. `contents` is set when the
  /// result is `Done`; else that tells why the card cannot be opened.
  static Result Look(CardContents& contents);

  /// Prepares the card. Nothing is changed when the result is `Missing`, `WriteProtected`, `InUse`,
  /// `MayHoldRecordings` or `Failed`; after any other the card's contents may be gone, and it may
  /// be asked for again, as after a power cut: what was begun counts as no recordings, but for
  /// remains of an ext that was to be erased, or of the new one, which need the second permission.
  /// From the test on the card is one that `System::InitDisk` takes.
  ///
  /// Before each step, once `progress` has returned, the card's identity (CID) is compared: one
  /// that takes the place of the one that was looked at is neither partitioned nor formatted. One
  /// that the library has mounted is in use: `Disk::Umount` comes first. Takes seconds, none of the
  /// steps longer than the card takes to write 64 MiB, and some seconds where a command fails. A
  /// partition whose device node comes late is waited for, 5 s at most.
  static Result Prepare(Permission permission, Progress const& progress = {});

  /// A result as a text, for a log or a person. Never null; lives as long as the library.
  [[nodiscard]] static char const* Describe(Result result) noexcept;
};

}  // namespace Quellon::DiskUtils
