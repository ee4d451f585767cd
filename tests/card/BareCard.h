// A card as it was bought or found, with whatever table and partitions.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "tests/card/Card.h"
#include "tests/support/FoundCards.h"

namespace CardTests {

/// A card that becomes a real block device when it is inserted, with partitions of the kernel's.
/// The nodes of those are made after the table was read or written, as on a device. Failures throw
/// as those of `Card` do.
class BareCard {
 public:
  explicit BareCard(FoundCards::Card const& found = {});
  BareCard(BareCard const&) = delete;
  BareCard& operator=(BareCard const&) = delete;
  ~BareCard();

  void Insert(bool writeProtected = false);
  void Remove();

  /// All bytes of the card; what the kernel has not written yet is missing.
  [[nodiscard]] std::vector<char> Bytes() const;
  /// Makes these all bytes of a card that is out of the slot.
  void SetBytes(std::vector<char> const& bytes);

 private:
  [[nodiscard]] std::string ImagePath() const;
  void MakeFileSystem(std::uint64_t sector, std::string const& options) const;

  Tarvik::UniqueFd image;
  std::optional<LoopDevice> slot;
  std::optional<CommandInFront> makeNodes;
  std::optional<CommandInFront> sfdisk;
};

}  // namespace CardTests
