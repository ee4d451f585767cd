// Whether a card holds as much as it says.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "base/Export.h"

namespace Quellon::DiskUtils {

/// Proves that the free space of a mounted card holds what is written to it. A forged card tells of
/// a capacity that it has not: what is written beyond what it has is lost, or lands where something
/// else lies. The free space is filled with sectors that each tell their own position and this run.
/// Only when all are written and flushed are they read, the first one first: a card that remembers
/// the last few MiB alone is found out, too. Nothing is read from the kernel's memory (direct I/O).
///
/// On a forged card this destroys recordings: what is written to a place that the card has not may
/// land anywhere, also where a recording or the file system itself lies. Recording does that to
/// such a card sooner or later, the proof does it at once. It is meant for a card that holds
/// nothing of value, such as a new one. On a good card nothing but free space is written. After
/// `Wrong` neither the card nor what is on it is to be trusted.
///
/// Nothing else should use the card meanwhile. A catalogue that makes room takes the card for full
/// and deletes its oldest recordings, unless more is left than it keeps free and what is recorded.
///
/// The space is taken by files without names: nobody sees them, and the kernel gives it back when
/// the run ends, whatever ends it. After a power cut the next mount does, or without a journal the
/// next check. Each of them has 2047 MiB, as the board's plain file interface goes no further, and
/// a descriptor, close-on-exec and above the standard ones. A 32nd of the card, 32 MiB at most, is
/// left in any case, since a file system keeps some for itself. With the mount option
/// `data=journal` the kernel answers for what its journal still holds.
///
/// A process with a limit for the size of its files (RLIMIT_FSIZE) is ended by the signal SIGXFSZ,
/// unless it ignores that, which is the program's to decide: then the run fails with EFBIG.
///
/// An object may be used by several threads; runs at once share the free space. A run stays on its
/// caller's thread, takes as long as the card needs, and memory of 1 MiB. Logs nothing. Throws
/// std::bad_alloc, and what the progress throws; the space is free again then, too. Kernel
/// interface: stat(2), statvfs(3), open(2) with O_TMPFILE and O_DIRECT, fallocate(2), fsync(2),
/// posix_fadvise(2).
class QUELLON_EXPORT CapacityProof {
 public:
  /// What came of a run.
  enum class Result {
    Proved,       ///< all that was written was read as it was written
    Wrong,        ///< something else was read: the card lies about its capacity, or is worn out
    NoRoom,       ///< nothing is free beyond what is to be left, or others took it meanwhile
    Cancelled,    ///< by the progress, before anything wrong was found
    ReadOnly,     ///< the card cannot be written, or the kernel stopped writing to it
    Missing,      ///< no card is mounted there, or it has gone
    Unsupported,  ///< the file system has no device, no files without names, or no direct I/O
    Failed,       ///< the card failed to write or to read, or another call did
  };

  /// What a run saw. Positions are bytes from the beginning of the space that it took, which on a
  /// new card is in the card's order, but for gaps where the file system keeps what is its own.
  struct Report {
    Result result = Result::Proved;  ///< what came of it
    int error = 0;                   ///< `errno` of the call that failed; 0 if none did
    std::uint64_t roomBytes = 0;     ///< that were to be taken; they are free again
    std::uint64_t writtenBytes = 0;  ///< that were written: of samples, fewer than were taken
    std::uint64_t provedBytes = 0;   ///< that were read as they were written
    std::uint64_t wrongBytes = 0;    ///< that were not, in sectors of 512
    std::optional<std::uint64_t> firstWrong;  ///< position of the first wrong sector
    /// The position whose content that sector holds; nothing if it is of none, or damaged. If a
    /// card begins anew after some bytes, the distance of the two is so much, or a multiple, but
    /// for the gaps in between.
    std::optional<std::uint64_t> origin;
    std::uint64_t writtenPerSecond = 0;  ///< bytes, the flush and the progress included
    std::uint64_t readPerSecond = 0;     ///< bytes, the progress included
  };

  /// Told after each MiB, or sample, how many bytes are written or read, of how many that are to
  /// be, each of them counted twice. Returns whether to go on. May kick a watchdog.
  using Progress = std::function<bool(std::uint64_t done, std::uint64_t all)>;

  /// Touches nothing. `mountDirectory` is where the card is mounted, such as "/mnt/sdcard/"; at
  /// least `bytesLeft` of it stay free.
  explicit CapacityProof(std::string mountDirectory, std::uint64_t bytesLeft = 0);

  /// Writes and reads all of the free space.
  [[nodiscard]] Report ProveAll(Progress const& progress = {}) const;

  /// Writes and reads the beginning of the free space, and of the rest a block of 4 KiB here and
  /// there: 32 MiB and 2,000 blocks of a card of 32 GiB, four times as much of 512 GiB. The
  /// beginning is as long as the blocks are apart at most. So whatever the number of bytes after
  /// which a card begins anew, a block lands in the beginning; and of one that loses what is beyond
  /// its capacity, most are lost. Left to `ProveAll` are single bad places, a card that loses only
  /// what is too much for it, wherever that is, and one that remembers more than is written here.
  /// The rates are those of samples.
  [[nodiscard]] Report ProveSamples(Progress const& progress = {}) const;

  /// A result as a text, for a log or a person. Never null; lives as long as the library.
  [[nodiscard]] static char const* Describe(Result result) noexcept;

 private:
  std::string directory;
  std::uint64_t bytesToLeave;
};

}  // namespace Quellon::DiskUtils
