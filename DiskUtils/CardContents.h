// What a card in the slot holds, whoever made it.
#pragma once

#include <string>
#include <vector>

#include "base/Export.h"

namespace Quellon::DiskUtils {

/// What the first bytes of a card and of its partitions tell, read from the card itself: neither
/// what the kernel has made of its partition table nor other programs are asked. Where they tell
/// nothing, ext is looked for by the copies of its superblock, and where partitions usually begin.
struct QUELLON_EXPORT CardContents {
  /// How the card is divided.
  enum class Table { None, Mbr, Gpt };

  /// What the card as a whole or a partition of it holds.
  enum class Kind {
    Nothing,    ///< the same byte all over
    Unknown,    ///< bytes that none of the following begins with
    Fat,        ///< FAT12, FAT16 or FAT32
    ExFat,      ///< exFAT
    Ntfs,       ///< NTFS
    Swap,       ///< a swap area of Linux
    Lvm,        ///< a physical volume of LVM
    Ext,        ///< ext2, ext3 or ext4, also one that was only partly written over since
    NewExt,     ///< made by `CardPreparation` and never mounted since: nothing was stored on it
    BeyondEnd,  ///< nothing can be there: the partition begins where the card has ended
    LostExt,    ///< ext that has lost its beginning, or of the whole card, its partition table
  };

  /// Reads a block device, or a file with its contents, through an open descriptor, which stays the
  /// caller's; its position is not used. What the kernel remembers of the device is read anew. Logs
  /// and prints nothing. A table that leads in circles or to many places ends the search: no more
  /// than 128 entries of a GPT and 128 logical partitions are looked at.
  /// Kernel interface: `BLKFLSBUF`, for which the process needs CAP_SYS_ADMIN, and `BLKSSZGET`.
  static CardContents Read(int device);

  /// Whether something could be lost by making a new file system: there is ext on the card or on
  /// any partition, be it damaged, or not all of it could be read.
  [[nodiscard]] bool MayHoldRecordings() const;

  /// For a person, such as "MBR: FAT, ext" or "exFAT".
  [[nodiscard]] std::string Describe() const;

  Table table = Table::None;     ///< `None` also where the table has no entries
  Kind whole = Kind::Nothing;    ///< of the card as a whole, from its first byte
  std::vector<Kind> partitions;  ///< in the order of the table, logical ones in that of their chain
  bool isUnreadable = false;     ///< an error kept something from being read; the rest is told
};

}  // namespace Quellon::DiskUtils
