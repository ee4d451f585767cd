#include "DiskUtils/CapacityProof.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <memory>
#include <random>
#include <ratio>
#include <utility>
#include <vector>

#include "base/UniqueFd.h"
#include "base/internal/OpenFile.h"
#include "base/internal/ReadAll.h"
#include "base/internal/Restart.h"
#include "base/internal/WriteAll.h"

namespace Quellon::DiskUtils {

using Tarvik::UniqueFd;
using ProofResult = CapacityProof::Result;

namespace {

constexpr std::uint64_t kMiB = 1ULL << 20;
constexpr std::size_t kSectorBytes = 512;
constexpr std::uint64_t kBlockBytes = 4096;  // whole blocks of file systems, as direct I/O wants
constexpr std::uint64_t kPieceBytes = kMiB;
constexpr std::uint64_t kFileBytes = 2047 * kMiB;  // what an off_t of 32 bits can tell
constexpr std::uint64_t kMostKept = 32 * kMiB;     // and a 32nd, by the file system for itself

using Sector = std::array<std::uint64_t, kSectorBytes / sizeof(std::uint64_t)>;

/// What is written or read at once, where direct I/O wants it.
struct alignas(kBlockBytes) Piece {
  std::array<Sector, kPieceBytes / kSectorBytes> sectors;
};

/// What the sectors of one run hold. The first word tells the sector's number to who knows the
/// run's seed, and each of the others follows from the one before.
class Pattern {
 public:
  explicit Pattern(std::uint64_t runSeed) : seed(runSeed) {}

  // A board of 32 bits makes such words faster than any card takes them.
  [[nodiscard]] Sector Of(std::uint64_t number) const noexcept {
    Sector words;
    std::uint64_t next = seed + number;
    for (auto& word : words) {
      word = next;
      next = next * 6364136223846793005 + 1442695040888963407;
    }
    return words;
  }

  /// The number of the sector, below `end`, that this is; nothing if it is none or damaged.
  [[nodiscard]] std::optional<std::uint64_t> NumberOf(Sector const& sector,
                                                      std::uint64_t end) const noexcept {
    std::uint64_t const number = sector[0] - seed;
    if (number < end && sector == Of(number)) return number;
    return std::nullopt;
  }

 private:
  std::uint64_t seed;
};

/// Space of a card, taken by files without names. Where an operation is false `errno` tells why.
class Room {
 public:
  bool Take(std::string const& directory, std::uint64_t bytes) {
    for (std::uint64_t size; bytes > 0; bytes -= size) {
      size = std::min(bytes, kFileBytes);
      files.emplace_back(Tarvik::RestartWhileInterrupted([&] {
        return Tarvik::OpenFile(directory.c_str(), O_TMPFILE | O_RDWR | O_DIRECT, S_IRUSR);
      }));
      UniqueFd const& file = files.back();
      auto const allocate = [&] { return fallocate(file.Get(), 0, 0, static_cast<off_t>(size)); };
      if (!file.IsOpen() || Tarvik::RestartWhileInterrupted(allocate) != 0) return false;
    }
    return true;
  }

  bool Write(std::uint64_t position, Piece const& piece, std::size_t size) {
    int const fd = Seek(position);
    errno = EIO;  // where the kernel takes less and does not say why
    return Tarvik::WriteAll(fd, {reinterpret_cast<char const*>(&piece), size}) == size;
  }

  bool Read(std::uint64_t position, Piece& piece, std::size_t size) {
    int const fd = Seek(position);
    errno = EIO;
    return Tarvik::ReadAll(fd, reinterpret_cast<char*>(&piece), size) == size;
  }

  /// Brings all that was written to the card, and out of the kernel's memory: a file system that
  /// keeps contents in its journal uses that for direct I/O, too.
  bool Flush() {
    return std::ranges::all_of(files, [](UniqueFd const& file) {
      if (Tarvik::RestartWhileInterrupted([&] { return fsync(file.Get()); }) != 0) return false;
      posix_fadvise(file.Get(), 0, 0, POSIX_FADV_DONTNEED);
      return true;
    });
  }

 private:
  int Seek(std::uint64_t position) {
    int const fd = files[static_cast<std::size_t>(position / kFileBytes)].Get();
    lseek(fd, static_cast<off_t>(position % kFileBytes), SEEK_SET);
    return fd;
  }

  std::vector<UniqueFd> files;
};

/// What of the room is written and read: its beginning, then a block in each stride, and the last.
struct Plan {
  std::uint64_t room;
  std::uint64_t beginning;
  std::uint64_t stride;

  static Plan OfAll(std::uint64_t room) { return {room, room, room}; }

  // A card that begins anew after some bytes takes places so far apart for one. In any two strides
  // there is a sample, and the beginning has two, so that a sample lies so far from a block of the
  // beginning, whatever the distance. The beginning costs about as much as the samples.
  static Plan OfSamples(std::uint64_t room) {
    std::uint64_t stride = kPieceBytes;
    while (stride * stride < room * kBlockBytes) stride *= 2;
    return {room, std::min(2 * stride, room), stride};
  }

  /// Calls `visit` with position and size of each piece, until one is not `Proved`. For the same
  /// seed the samples are the same.
  template <typename Visit>
  ProofResult ForEachPiece(std::uint64_t seed, Visit visit) const {
    std::mt19937_64 chance(seed);
    ProofResult result = ProofResult::Proved;
    auto const go = [&](std::uint64_t position, std::uint64_t size) {
      result = visit(position, static_cast<std::size_t>(size));
      return result == ProofResult::Proved;
    };
    for (std::uint64_t next = 0; next < beginning; next += kPieceBytes) {
      if (!go(next, std::min(kPieceBytes, beginning - next))) return result;
    }
    for (std::uint64_t next = beginning; next + stride <= room; next += stride) {
      std::uint64_t const block = chance() % (stride / kBlockBytes);
      if (!go(next + block * kBlockBytes, kBlockBytes)) return result;
    }
    if (beginning < room) go(room - kBlockBytes, kBlockBytes);
    return result;
  }
};

ProofResult WhyFailed(int error) noexcept {
  switch (error) {
    case ENOSPC:
    case EDQUOT:
      return ProofResult::NoRoom;
    case EROFS:
      return ProofResult::ReadOnly;
    case ENOENT:
    case ENOTDIR:
    case ENODEV:
    case ENXIO:
      return ProofResult::Missing;
    case EINVAL:
    case EOPNOTSUPP:
    case EISDIR:  // of kernels that do not know files without names
      return ProofResult::Unsupported;
    default:
      return ProofResult::Failed;
  }
}

ProofResult Fail(CapacityProof::Report& report) noexcept {
  report.error = errno;
  return WhyFailed(report.error);
}

using Clock = std::chrono::steady_clock;

std::uint64_t Rate(std::uint64_t bytes, Clock::time_point start) {
  auto const time = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
  auto const microseconds = static_cast<std::uint64_t>(time.count());
  if (microseconds == 0) return 0;
  return bytes * std::micro::den / microseconds;
}

// Far from all others: a clock that begins anew with the machine may tell nearly the same again.
std::uint64_t NewSeed() {
  auto const now = std::chrono::system_clock::now().time_since_epoch().count();
  return std::mt19937_64(static_cast<std::uint64_t>(now))();
}

/// Writes and reads what a plan says, and fills in the report.
class Run {
 public:
  Run(Plan const& planned, CapacityProof::Progress const& told, CapacityProof::Report& filled)
      : plan(planned), progress(told), report(filled) {
    plan.ForEachPiece(seed, [this](std::uint64_t /*position*/, std::size_t size) {
      all += 2 * size;
      return ProofResult::Proved;
    });
  }

  ProofResult In(Room& room) {
    ProofResult const written = Write(room);
    if (written != ProofResult::Proved) return written;
    ProofResult const read = Read(room);
    return report.firstWrong ? ProofResult::Wrong : read;
  }

 private:
  ProofResult Write(Room& room) {
    auto const start = Clock::now();
    auto const write = [&](std::uint64_t position, std::size_t size) {
      for (std::size_t i = 0; i < size / kSectorBytes; ++i) {
        piece->sectors[i] = pattern.Of(position / kSectorBytes + i);
      }
      if (!room.Write(position, *piece, size)) return Fail(report);
      report.writtenBytes += size;
      return GoOn(size);
    };
    ProofResult result = plan.ForEachPiece(seed, write);
    if (result == ProofResult::Proved && !room.Flush()) result = Fail(report);
    report.writtenPerSecond = Rate(report.writtenBytes, start);
    return result;
  }

  ProofResult Read(Room& room) {
    auto const start = Clock::now();
    auto const read = [&](std::uint64_t position, std::size_t size) {
      if (!room.Read(position, *piece, size)) return Fail(report);
      for (std::size_t i = 0; i < size / kSectorBytes; ++i) {
        Judge(piece->sectors[i], position / kSectorBytes + i);
      }
      return GoOn(size);
    };
    ProofResult const result = plan.ForEachPiece(seed, read);
    report.readPerSecond = Rate(report.provedBytes + report.wrongBytes, start);
    return result;
  }

  void Judge(Sector const& sector, std::uint64_t number) {
    auto const origin = pattern.NumberOf(sector, plan.room / kSectorBytes);
    if (origin == number) {
      report.provedBytes += kSectorBytes;
      return;
    }
    if (report.wrongBytes == 0) {
      report.firstWrong = number * kSectorBytes;
      if (origin) report.origin = *origin * kSectorBytes;
    }
    report.wrongBytes += kSectorBytes;
  }

  ProofResult GoOn(std::size_t size) {
    done += size;
    return !progress || progress(done, all) ? ProofResult::Proved : ProofResult::Cancelled;
  }

  Plan plan;
  CapacityProof::Progress const& progress;
  CapacityProof::Report& report;
  std::uint64_t const seed = NewSeed();
  Pattern const pattern{seed};
  std::unique_ptr<Piece> const piece = std::make_unique<Piece>();
  std::uint64_t done = 0;
  std::uint64_t all = 0;
};

ProofResult Measure(std::string const& directory, std::uint64_t bytesToLeave,
                    CapacityProof::Report& report) {
  struct stat here {};
  struct stat above {};
  bool const found =
      stat(directory.c_str(), &here) == 0 && stat((directory + '/' + "..").c_str(), &above) == 0;
  if (!found) return Fail(report);
  if (here.st_dev == above.st_dev) return ProofResult::Missing;  // nothing is mounted
  // What has no device of its own is held in memory, or elsewhere: it would prove no card.
  if (major(here.st_dev) == 0) return ProofResult::Unsupported;
  struct statvfs space {};
  auto const measure = [&] { return statvfs(directory.c_str(), &space); };
  if (Tarvik::RestartWhileInterrupted(measure) != 0) return Fail(report);
  // Older kernels leave f_frsize, the unit of the counts, at 0; it is the block size then.
  std::uint64_t const unit = space.f_frsize != 0 ? space.f_frsize : space.f_bsize;
  std::uint64_t const free = space.f_bfree * unit;
  std::uint64_t const left =
      std::max(bytesToLeave, std::min(space.f_blocks * unit / 32, kMostKept));
  report.roomBytes = (free - std::min(free, left)) / kBlockBytes * kBlockBytes;
  return report.roomBytes == 0 ? ProofResult::NoRoom : ProofResult::Proved;
}

CapacityProof::Report Prove(std::string const& directory, std::uint64_t bytesToLeave,
                            Plan (*planOf)(std::uint64_t room),
                            CapacityProof::Progress const& progress) {
  CapacityProof::Report report;
  report.result = Measure(directory, bytesToLeave, report);
  if (report.result != ProofResult::Proved) return report;
  Room room;
  report.result = room.Take(directory, report.roomBytes)
                      ? Run(planOf(report.roomBytes), progress, report).In(room)
                      : Fail(report);
  return report;
}

}  // namespace

CapacityProof::CapacityProof(std::string mountDirectory, std::uint64_t bytesLeft)
    : directory(std::move(mountDirectory)), bytesToLeave(bytesLeft) {}

CapacityProof::Report CapacityProof::ProveAll(Progress const& progress) const {
  return Prove(directory, bytesToLeave, Plan::OfAll, progress);
}

CapacityProof::Report CapacityProof::ProveSamples(Progress const& progress) const {
  return Prove(directory, bytesToLeave, Plan::OfSamples, progress);
}

char const* CapacityProof::Describe(Result result) noexcept {
  switch (result) {
    case Result::Proved:
      return "the card holds what was written";
    case Result::Wrong:
      return "the card does not hold what was written";
    case Result::NoRoom:
      return "there is no room for a proof";
    case Result::Cancelled:
      return "the proof was cancelled";
    case Result::ReadOnly:
      return "the card is read-only";
    case Result::Missing:
      return "there is no card";
    case Result::Unsupported:
      return "the file system is none to prove a card by";
    case Result::Failed:
      break;
  }
  return "the card failed";
}

}  // namespace Quellon::DiskUtils
