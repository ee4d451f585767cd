// A real ext4 card for the tests that run in a private root.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "base/UniqueFd.h"

namespace CardTests {

/// What the kernel reports of the card under "/sys/block/mmcblk1/device/".
struct CardIdentity {
  std::string cid = "035344534c33324780a1b2c3d4012100";
  std::string csd = "400e00325b590000edc87f800a404000";
  std::string serial = "0xa1b2c3d4";
  std::string manfid = "0x000003";
  std::string oemid = "0x5344";
  std::string name = "SL32G";
};

/// Runs a command line through the shell with its output thrown away; throws `std::runtime_error`
/// with the command when it does not succeed.
void RunQuietly(std::string const& command);

/// A file as a block device. The kernel lets go of the file by itself when nobody uses the device
/// any more, however its user ended.
class LoopDevice {
 public:
  /// `flags` are further ones of loop devices, such as `LO_FLAGS_READ_ONLY`.
  explicit LoopDevice(Tarvik::UniqueFd const& file, unsigned flags = 0);

  /// The kernel's name of the device, such as "loop3".
  [[nodiscard]] std::string Name() const { return "loop" + std::to_string(number); }
  [[nodiscard]] std::filesystem::path Node() const { return "/dev/" + Name(); }

  /// Makes another node for the device.
  void MakeNode(std::filesystem::path const& path) const;

 private:
  int number = -1;
  Tarvik::UniqueFd device;
};

/// An SD card: a file in memory, formatted as ext4 with a journal, that becomes a real block device
/// when it is inserted. What Linux shows of a card in the slot it then shows of this one: the nodes
/// "/dev/mmcblk1" and "/dev/mmcblk1p1", both the loop device behind it, the identity in sysfs, and
/// the kernel's own figures (size, read-only flag, lifetime writes) by links to the loop device's.
/// Failures throw `std::runtime_error`, or `std::system_error` where a system call failed.
///
/// `Format`, `Edit` and the `Damage` operations work on the card while it is out of the slot.
class Card {
 public:
  static constexpr std::uint64_t kDefaultBytes = 64U << 20U;

  explicit Card(std::uint64_t bytes = kDefaultBytes);
  Card(Card const&) = delete;
  Card& operator=(Card const&) = delete;
  ~Card();

  void Insert();

  /// Takes the card out of the slot: nodes and sysfs entries go. A file system of it that is still
  /// mounted stays as it is.
  void Remove();

  /// Moves the write-protect switch; felt from the next `Insert` on, as a real read-only device.
  void SetWriteProtected(bool on) { writeProtected = on; }

  /// Makes the kernel's read-only flag of an inserted card read `on`, whatever the device is.
  void ReportReadOnly(bool on);

  /// Makes the kernel meet an error in the mounted file system, which then does as it was told to
  /// when it was formatted or mounted.
  void MeetError();

  /// From now on, every write to the card is an error. There is no way back.
  void FailWrites();

  /// Formats the card as ext4 with further options of mkfs.ext4, such as "-O ^has_journal".
  void Format(std::string const& options = "");

  /// Shows the mounted card to `change`, as a card reader on somebody's desk would.
  void Edit(std::function<void(std::filesystem::path const& root)> const& change);

  /// Corrupts an inode so that the check finds and repairs it (exit code 1).
  void DamageRepairably();

  /// Gives the file system a feature that the checker does not know but the kernel can ignore: the
  /// check fails (exit code 12) and the card still mounts.
  void DamageCheckOnly();

  /// The same with a feature that the kernel cannot ignore: the check fails (exit code 8) and the
  /// card can no longer be mounted.
  void DamageBeyondRepair();

  /// A path by which other processes reach the whole content of the card while this object lives.
  [[nodiscard]] std::string ImagePath() const;

  CardIdentity identity;

 private:
  void MakeSysfsEntries(std::string const& loopName) const;
  void Debugfs(std::string const& request) const;

  Tarvik::UniqueFd image;
  std::optional<LoopDevice> slot;
  bool writeProtected = false;
};

/// The state of a card at the moment of construction, to be compared or put back later.
class CardSnapshot {
 public:
  explicit CardSnapshot(Card const& card);

  /// A path by which other processes reach the snapshot while this object lives.
  [[nodiscard]] std::string ImagePath() const;

 private:
  Tarvik::UniqueFd image;
};

/// A command found before the system's own of the same name, for as long as the object lives.
class CommandInFront {
 public:
  /// `script` is the text of a POSIX shell script without its first line.
  CommandInFront(std::string const& name, std::string const& script);
  CommandInFront(CommandInFront const&) = delete;
  CommandInFront& operator=(CommandInFront const&) = delete;
  ~CommandInFront();

 private:
  std::filesystem::path path;
};

/// While this object lives, everything written to the card before a check is gone after it, as on a
/// worn card that acknowledges writes and drops them: the real check runs, then the card's content
/// of now comes back. The card must not be mounted now.
class LossyCheck {
 public:
  explicit LossyCheck(Card const& card);

 private:
  CardSnapshot before;
  CommandInFront fsck;
};

}  // namespace CardTests
