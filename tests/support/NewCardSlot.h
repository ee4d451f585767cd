// A slot in which a card is prepared, for tests without a card.
#pragma once

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "tests/machine/Machine.h"
#include "tests/support/FoundCards.h"

/// A slot with a card as it was bought, of 32 GB, and what the commands and calls make of it. What
/// is on a file system is there while that is mounted.
class NewCardSlot {
 public:
  static constexpr char const* kCard = "/dev/mmcblk1";
  static constexpr char const* kPartition = "/dev/mmcblk1p1";
  static constexpr std::uint64_t kGibibyte = 1ULL << 30;

  NewCardSlot() {
    Machine::MakeFile(kCard, "");
    SetProperty("device/preferred_erase_size", "4194304");
    SetProperty("device/cid", "275048534433324760e0e7f40f012a01");
    SetProperty("ro", "0");
    SetSize(32 * kGibibyte);
    std::filesystem::create_directories(Machine::Real("/mnt/sdcard/"));
    Machine::hooks().system = [this](std::string const& command) { return Run(command); };
    Machine::hooks().mount = [this](auto&&...) { return Answer{Mount() ? 0 : -1, EINVAL}; };
    Machine::hooks().umount = [this](auto&&) {
      Unmount();
      return Answer::Success();
    };
  }
  NewCardSlot(NewCardSlot const&) = delete;
  NewCardSlot& operator=(NewCardSlot const&) = delete;
  ~NewCardSlot() { Machine::hooks() = Machine::Hooks(); }

  static void SetProperty(std::string const& name, std::string const& text) {
    Machine::MakeFile("/sys/block/mmcblk1/" + name, text + "\n");
    Machine::MakeFile("/sys/class/block/mmcblk1/" + name, text + "\n");
  }
  static void SetSize(std::uint64_t bytes) { SetProperty("size", std::to_string(bytes / 512)); }

  /// The bytes are put on what is there already.
  static void Put(std::vector<FoundCards::Piece> const& pieces) {
    std::fstream card(Machine::Real(kCard), std::ios::in | std::ios::out | std::ios::binary);
    for (auto const& [place, bytes] : pieces) {
      card.seekp(static_cast<std::streamoff>(place));
      card << bytes;
    }
  }

  static void Clear() { std::ofstream(Machine::Real(kCard), std::ios::binary | std::ios::trunc); }

  /// Commands that begin so end with that, and do nothing else.
  std::string failing = "none";
  int code = 1;
  std::function<void()> partitioned = [] {};  ///< what happens then
  unsigned long shift = 0;  ///< sectors by which the kernel mistakes the partition's place
  std::string onCard;       ///< of the test file, while it is not mounted
  std::function<void()> lose = [] {};  ///< what becomes of that meanwhile
  bool mounts = true;
  bool isMounted = false;

 private:
  static constexpr char const* kTestFile = "/mnt/sdcard/check.tmp";
  using Answer = Machine::Answer;

  Answer Run(std::string const& command) {
    if (command.starts_with(failing)) return {code << 8, 0};
    if (command.starts_with("echo")) Partition(std::stoul(command.substr(command.find('=') + 1)));
    if (command.starts_with("mkfs")) Format();
    if (command.starts_with("umount")) Unmount();
    if (command.starts_with("fsck")) lose();
    if (command.starts_with("mount")) Mount();
    return Answer::Success();
  }

  void Partition(unsigned long mebibytes) {
    start = mebibytes * 2048;
    Clear();
    Put({FoundCards::Mbr({{0x83, static_cast<std::uint32_t>(start)}})});
    Machine::MakeFile(kPartition, "");
    partitioned();
  }
  void Format() const {
    std::uint64_t const superblock = (start + shift) * 512 + 1024;
    Put({{superblock + 56, "\x53\xEF"},
         {superblock + 136, "being-prepared"},
         {superblock + 3072, "-"}});
  }
  bool Mount() {
    if (!mounts) return false;
    isMounted = true;
    if (!onCard.empty()) Machine::MakeFile(kTestFile, onCard);
    return true;
  }
  void Unmount() {
    if (!isMounted) return;
    isMounted = false;
    bool const isThere = std::filesystem::exists(Machine::Real(kTestFile));
    onCard = isThere ? Machine::ReadFile(kTestFile) : "";
    Machine::RemoveFile(kTestFile);
  }

  unsigned long start = 0;
};
