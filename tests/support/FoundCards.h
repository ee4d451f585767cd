// Cards as they are bought or found, in bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace FoundCards {

constexpr std::uint64_t kBytes = 32U << 20U;
constexpr std::uint64_t kSector = 512;

/// Where the partitions of these cards begin, in sectors.
constexpr std::uint32_t kFirst = 2048;
constexpr std::uint32_t kSecond = 32768;
constexpr std::uint32_t kThird = 49152;
constexpr std::uint32_t kBeyond = 1U << 26U;

struct Piece {
  std::uint64_t place;
  std::string bytes;
};

struct Card {
  std::string name;
  std::vector<Piece> pieces;
  std::string description;
  bool mayHoldRecordings = false;
  std::string table = {};                       ///< as sfdisk(8) makes it, where a piece is not all
  std::vector<std::uint32_t> fileSystems = {};  ///< sectors where an ext4 with a recording begins
  std::string options = {};                     ///< of mkfs.ext4
};

inline void PrintTo(Card const& card, std::ostream* stream) {
  *stream << card.name;
}

/// A number as its bytes, the lowest first.
inline std::string Number(std::uint64_t number, std::size_t length) {
  std::string bytes;
  for (; bytes.size() < length; number >>= 8) bytes += static_cast<char>(number & 0xFF);
  return bytes;
}

struct Entry {
  unsigned type;
  std::uint32_t start;
  std::uint32_t sectors = 16384;
};

/// A table of up to four partitions, at a place of its own if it is one of logical partitions.
inline Piece Mbr(std::vector<Entry> const& entries, std::uint64_t sector = 0) {
  std::string table;
  for (auto const& entry : entries) {
    table += Number(0, 4) + Number(entry.type, 4) + Number(entry.start, 4);
    table += Number(entry.sectors, 4);
  }
  table.resize(64);
  return {sector * kSector + 446, table + "\x55\xAA"};
}

/// A boot sector with a text that tells its file system.
inline std::vector<Piece> Boot(std::uint64_t sector, std::uint64_t place, std::string const& text) {
  std::uint64_t const start = sector * kSector;
  return {{start, "\xEB\x58\x90"}, {start + place, text}, {start + 510, "\x55\xAA"}};
}

/// What a GPT's header says of its entries, and the entries: a type and where each begins.
inline std::vector<Piece> Gpt(std::vector<std::uint64_t> const& starts, std::uint64_t entries = 2,
                              std::uint64_t length = 128, std::uint64_t count = 128) {
  std::vector<Piece> pieces = {Mbr({{0xEE, 1}}),
                               {kSector, "EFI PART"},
                               {kSector + 72, Number(entries, 8)},
                               {kSector + 80, Number(count, 4) + Number(length, 4)}};
  std::uint64_t place = entries * kSector;
  for (std::uint64_t const start : starts) {
    pieces.push_back({place, std::string("\xAF") + std::string(31, '\x01') + Number(start, 8)});
    place += length;
  }
  return pieces;
}

/// The two bytes by which ext is known, and its state, in a file system at that sector.
inline Piece Ext(std::uint64_t sector) {
  return {sector * kSector + 1024 + 56, "\x53\xEF\x01"};
}

/// A copy of the superblock of an ext that begins at that sector, in that group of blocks, which
/// have 1024 bytes, shifted to the left.
inline std::vector<Piece> Copy(std::uint64_t sector, unsigned shift, unsigned group) {
  std::uint64_t const block = 1024ULL << shift;
  std::uint64_t const blocks = group * 8 * block + (shift == 0 ? 1 : 0);
  std::uint64_t const place = sector * kSector + blocks * block;
  return {{place + 24, Number(shift, 4) + Number(shift, 4)},
          {place + 56, "\x53\xEF\x01"},
          {place + 90, Number(group, 2) + "\x3C"}};
}

template <typename... Others>
std::vector<Piece> Together(std::vector<Piece> pieces, Others const&... others) {
  (pieces.insert(pieces.end(), others.begin(), others.end()), ...);
  return pieces;
}

inline std::string Garbage(std::size_t length) {
  std::string bytes(length, '\0');
  std::uint32_t state = 1;
  for (char& byte : bytes) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<char>(state >> 24U);
  }
  return bytes;
}

inline std::vector<Card> All() {
  std::vector<Piece> const fat = Boot(kFirst, 82, "FAT32   ");
  std::vector<Piece> const plain = {Mbr({{0x83, kFirst}})};
  return {
      {"blank", {}, "nothing"},
      {"erased", {{0, std::string(1U << 20U, '\xFF')}}, "nothing"},
      {"garbage in front", {{0, Garbage(1U << 20U)}}, "unknown data"},
      {"FAT32", Together({Mbr({{0x0C, kFirst}})}, fat), "MBR: FAT"},
      {"exFAT", Together({Mbr({{0x07, kFirst}})}, Boot(kFirst, 3, "EXFAT   ")), "MBR: exFAT"},
      {"FAT without a table", Boot(0, 54, "FAT16   "), "FAT"},
      {"GPT with FAT", Together(Gpt({kFirst}), fat), "GPT: FAT", false,
       "label: gpt\nstart=2048,size=16384\n"},
      {"GPT with several",
       Together(Gpt({kFirst, kSecond, kThird}), fat, Boot(kThird, 3, "NTFS    ")),
       "GPT: FAT, nothing, NTFS", false,
       "label: gpt\nstart=2048,size=16384\nstart=32768,size=16384\nstart=49152,size=8192\n"},
      {"old system",
       Together({Mbr({{0x0C, kFirst}, {0x83, kSecond}}), Ext(kSecond)}, fat),
       "MBR: FAT, ext",
       true,
       "",
       {kSecond}},
      {"ext4 without a table", {Ext(0)}, "ext", true, "", {0}},
      {"ext4 without a journal",
       Together(plain, std::vector{Ext(kFirst)}),
       "MBR: ext",
       true,
       "",
       {kFirst},
       "-O ^has_journal"},
      {"ext4 as a logical partition",
       {Mbr({{0x05, kFirst, 60000}}), Mbr({{0x82, 64, 32}, {0x05, kSecond - kFirst}}, kFirst),
        Mbr({{0x83, 2048}}, kSecond), Ext(kSecond + 2048)},
       "MBR: nothing, ext",
       true,
       "",
       {kSecond + 2048}},
      {"ext4 in a GPT",
       Together(Gpt({kSecond}), std::vector{Ext(kSecond)}),
       "GPT: ext",
       true,
       "label: gpt\nstart=32768,size=16384\n",
       {kSecond}},
      {"ext4 whose table is lost", {Ext(kFirst)}, "lost ext", true, "", {kFirst}},
      {"ext4 whose beginning is lost", Together(plain, Copy(kFirst, 0, 1)), "MBR: lost ext", true},
      {"partition without a file system", plain, "MBR: nothing"},
      {"swap", Together(plain, std::vector{Piece{kFirst * kSector + 4086, "SWAPSPACE2"}}),
       "MBR: swap"},
      {"NTFS", Together({Mbr({{0x07, kFirst}})}, Boot(kFirst, 3, "NTFS    ")), "MBR: NTFS"},
      {"LVM", Together(plain, std::vector{Piece{(kFirst + 1) * kSector, "LABELONE"}}), "MBR: LVM"},
      {"beyond the end", Together({Mbr({{0x0C, kFirst, kBeyond}, {0x83, kBeyond}})}, fat),
       "MBR: FAT, beyond the end of the card"},
  };
}

}  // namespace FoundCards
