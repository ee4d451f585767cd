#include "DiskUtils/CardContents.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <string_view>

#include "DiskUtils/internal/NewCard.h"
#include "base/internal/CLibrary.h"
#include "base/internal/Restart.h"

namespace Quellon::DiskUtils {

namespace {

using Kind = CardContents::Kind;
using Table = CardContents::Table;
using Bytes = std::span<unsigned char const>;

constexpr int kTableSectorBytes = 512;
using TableSector = std::array<unsigned char, kTableSectorBytes>;
using Beginning = std::array<unsigned char, 4096>;  // all signatures lie within

std::uint64_t NumberAt(Bytes bytes, std::size_t place, std::size_t length) {
  std::uint64_t number = 0;
  for (std::size_t i = length; i-- > 0;) number = number << 8 | bytes[place + i];
  return number;
}

bool HasText(Bytes bytes, std::size_t place, std::string_view text) {
  return std::ranges::equal(
      bytes.subspan(place, text.size()), text,
      [](unsigned char byte, char c) { return static_cast<char>(byte) == c; });
}

class Device {
 public:
  explicit Device(int descriptor) : fd(descriptor) { ioctl(fd, BLKSSZGET, &sectorBytes); }

  // How many bytes there are; the rest of `into` stays as it is.
  std::size_t Read(std::uint64_t sector, std::uint64_t offset, std::span<unsigned char> into) {
    auto const length = static_cast<std::uint64_t>(sectorBytes);
    if (sector > std::numeric_limits<Tarvik::FilePlace>::max() / length / 2) return 0;
    auto const place = static_cast<Tarvik::FilePlace>(sector * length + offset);
    std::size_t done = 0;
    while (done < into.size()) {
      ssize_t const found = Tarvik::RestartWhileInterrupted([&] {
        return Tarvik::ReadAt(fd, &into[done], into.size() - done,
                              place + static_cast<Tarvik::FilePlace>(done));
      });
      if (found < 0) isUnreadable = true;
      if (found <= 0) break;
      done += static_cast<std::size_t>(found);
    }
    return done;
  }

  bool isUnreadable = false;

 private:
  int fd;
  int sectorBytes = kTableSectorBytes;  // of what tables count in; a file has those of most cards
};

// Places in the superblock of ext, from the beginning of the file system.
constexpr std::size_t kSuperblock = 1024;
constexpr std::size_t kMountTime = kSuperblock + 44;
constexpr std::size_t kMountCount = kSuperblock + 52;
constexpr std::size_t kMagic = kSuperblock + 56;
constexpr std::size_t kLastMounted = kSuperblock + 136;
constexpr std::size_t kBlockShift = 24;  // in a copy, as is the next
constexpr std::size_t kGroup = 90;
constexpr std::uint64_t kExtMagic = 0xEF53;

// A mount writes its time and count to the card before anything else, and past the journal.
bool IsNew(Bytes bytes) {
  bool const isMarked = HasText(bytes, kLastMounted, kNewMark);
  return isMarked && NumberAt(bytes, kMountTime, 4) == 0 && NumberAt(bytes, kMountCount, 2) == 0;
}

constexpr struct {
  std::size_t place;
  std::string_view text;
  Kind kind;
} kSignatures[] = {{3, "EXFAT   ", Kind::ExFat},     {3, "NTFS    ", Kind::Ntfs},
                   {82, "FAT32   ", Kind::Fat},      {54, "FAT12   ", Kind::Fat},
                   {54, "FAT16   ", Kind::Fat},      {54, "FAT     ", Kind::Fat},
                   {4086, "SWAPSPACE2", Kind::Swap}, {512, "LABELONE", Kind::Lvm}};

// Ext comes first: who formats a card that held it may leave its superblock where it was.
Kind KindOf(Bytes bytes) {
  if (NumberAt(bytes, kMagic, 2) == kExtMagic) return IsNew(bytes) ? Kind::NewExt : Kind::Ext;
  for (auto const& signature : kSignatures) {
    if (HasText(bytes, signature.place, signature.text)) return signature.kind;
  }
  bool const isUniform = std::memcmp(&bytes[0], &bytes[1], bytes.size() - 1) == 0;
  return isUniform ? Kind::Nothing : Kind::Unknown;
}

Kind KindAt(Device& device, std::uint64_t sector, std::uint64_t offset = 0) {
  Beginning bytes{};
  bool const isThere = device.Read(sector, offset, bytes) > 0;
  return isThere || device.isUnreadable ? KindOf(bytes) : Kind::BeyondEnd;
}

// Whether a file system that began there has left copies of its superblock, in the first of those
// groups of blocks that have one. A group has as many blocks as a block has bits; blocks of 1 KiB
// are counted from the second one.
bool HasCopies(Device& device, std::uint64_t sector, std::uint64_t offset) {
  for (std::uint64_t shift = 0; shift < 3; ++shift) {
    std::uint64_t const block = std::uint64_t{1024} << shift;
    for (std::uint64_t group = 1; group < 9; group += 2) {
      TableSector copy{};
      std::uint64_t const place = group * 8 * block * block + (shift == 0 ? block : 0);
      if (device.Read(sector, offset + place, copy) == 0) break;
      bool const isCopy = NumberAt(copy, kMagic - kSuperblock, 2) == kExtMagic &&
                          NumberAt(copy, kBlockShift, 4) == shift &&
                          NumberAt(copy, kGroup, 2) == group;
      if (isCopy) return true;
    }
  }
  return false;
}

bool TellsNothing(Kind kind) {
  return kind == Kind::Nothing || kind == Kind::Unknown;
}

// A card that fails is not asked for more.
Kind PartitionAt(Device& device, std::uint64_t sector, std::uint64_t offset = 0) {
  Kind const kind = KindAt(device, sector, offset);
  bool const mayBeLost = TellsNothing(kind) && !device.isUnreadable;
  return mayBeLost && HasCopies(device, sector, offset) ? Kind::LostExt : kind;
}

// Looks where tools have put a first partition since there are such: the table may be lost.
bool HasLostExt(Device& device) {
  constexpr std::uint64_t kStarts[] = {0, 63, 2048, 8192, 16384, 32768, 65536};
  return std::ranges::any_of(kStarts, [&](std::uint64_t start) {
    Kind const kind = PartitionAt(device, 0, start * kTableSectorBytes);
    return kind == Kind::Ext || kind == Kind::LostExt;
  });
}

struct Entry {
  std::uint64_t type;
  std::uint64_t start;  // a sector, counted from what the entry says
};
using Entries = std::array<Entry, 4>;

constexpr std::uint64_t kUnused = 0;
constexpr std::uint64_t kProtective = 0xEE;  // a GPT follows

bool IsExtended(Entry const& entry) {
  return entry.type == 0x05 || entry.type == 0x0F || entry.type == 0x85;
}

// The entries of a sector; unused ones if it is no table. A boot sector of FAT has the same two
// bytes at its end, and a program where a table has its entries.
Entries EntriesAt(Device& device, std::uint64_t sector) {
  constexpr std::size_t kFirst = 446;
  constexpr std::size_t kLength = 16;
  TableSector bytes{};
  device.Read(sector, 0, bytes);
  Entries entries{};
  bool isTable = NumberAt(bytes, 510, 2) == 0xAA55;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    Bytes const entry = Bytes(bytes).subspan(kFirst + i * kLength, kLength);
    isTable = isTable && (entry[0] & 0x7F) == 0;  // bootable or not
    entries[i] = {entry[4], NumberAt(entry, 8, 4)};
  }
  return isTable ? entries : Entries{};
}

constexpr unsigned kMostPartitions = 128;  // of a GPT, and logical ones

// Each logical partition has a table of its own, with a place relative to that, and with the place
// of the next table, relative to the first.
void ReadLogical(Device& device, std::uint64_t first, std::vector<Kind>& partitions) {
  std::uint64_t sector = first;
  for (unsigned tables = 0; tables < kMostPartitions && sector != 0; ++tables) {
    std::uint64_t next = 0;
    for (Entry const& entry : EntriesAt(device, sector)) {
      if (entry.type == kUnused) continue;
      if (IsExtended(entry)) {
        next = first + entry.start;
      } else {
        partitions.push_back(PartitionAt(device, sector + entry.start));
      }
    }
    sector = next;
  }
}

bool ReadGpt(Device& device, std::vector<Kind>& partitions) {
  TableSector header{};
  device.Read(1, 0, header);
  if (!HasText(header, 0, "EFI PART")) return false;
  std::uint64_t const first = NumberAt(header, 72, 8);
  std::uint64_t const length = NumberAt(header, 84, 4);
  auto const count = std::min<std::uint64_t>(NumberAt(header, 80, 4), kMostPartitions);
  for (std::uint64_t i = 0; i < count; ++i) {
    std::array<unsigned char, 40> entry{};
    device.Read(first, i * length, entry);
    bool const isUsed = NumberAt(entry, 0, 8) != 0 || NumberAt(entry, 8, 8) != 0;  // has a type
    if (isUsed) partitions.push_back(PartitionAt(device, NumberAt(entry, 32, 8)));
  }
  return true;
}

char const* NameOf(Kind kind) {
  switch (kind) {
    case Kind::Nothing:
      return "nothing";
    case Kind::Unknown:
      return "unknown data";
    case Kind::Fat:
      return "FAT";
    case Kind::ExFat:
      return "exFAT";
    case Kind::Ntfs:
      return "NTFS";
    case Kind::Swap:
      return "swap";
    case Kind::Lvm:
      return "LVM";
    case Kind::Ext:
      return "ext";
    case Kind::NewExt:
      return "new ext";
    case Kind::BeyondEnd:
      return "beyond the end of the card";
    case Kind::LostExt:
      break;
  }
  return "lost ext";
}

bool IsNamed(Kind kind) {
  return kind != Kind::Nothing && kind != Kind::Unknown;
}

}  // namespace

CardContents CardContents::Read(int device) {
  ioctl(device, BLKFLSBUF, 0);  // a partition is another device, with a memory of its own
  Device card(device);
  CardContents contents;
  contents.whole = KindAt(card, 0);
  for (Entry const& entry : EntriesAt(card, 0)) {
    if (entry.type == kUnused) continue;
    contents.table = std::max(contents.table, Table::Mbr);
    if (entry.type == kProtective) {
      if (ReadGpt(card, contents.partitions)) contents.table = Table::Gpt;
    } else if (IsExtended(entry)) {
      ReadLogical(card, entry.start, contents.partitions);
    } else {
      contents.partitions.push_back(PartitionAt(card, entry.start));
    }
  }
  auto const mayBeLost = [](Kind kind) { return TellsNothing(kind) || kind == Kind::BeyondEnd; };
  bool const isSearched = mayBeLost(contents.whole) && !card.isUnreadable &&
                          std::ranges::all_of(contents.partitions, mayBeLost);
  if (isSearched && HasLostExt(card)) contents.whole = Kind::LostExt;
  contents.isUnreadable = card.isUnreadable;
  return contents;
}

bool CardContents::MayHoldRecordings() const {
  auto const isExt = [](Kind kind) { return kind == Kind::Ext || kind == Kind::LostExt; };
  return isUnreadable || isExt(whole) || std::ranges::any_of(partitions, isExt);
}

std::string CardContents::Describe() const {
  std::string text = isUnreadable ? "not all of it readable: " : "";
  if (table == Table::None) return text + NameOf(whole);
  if (IsNamed(whole)) text += std::string(NameOf(whole)) + "; ";
  text += table == Table::Gpt ? "GPT:" : "MBR:";
  char const* separator = " ";
  for (Kind const partition : partitions) {
    text += std::string(separator) + NameOf(partition);
    separator = ", ";
  }
  return text;
}

}  // namespace Quellon::DiskUtils
