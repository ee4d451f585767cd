// The card as the kernel shows it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Quellon::Tool {

/// A line of the table of mounts.
struct Mounted {
  std::string device;
  std::string type;
  bool isReadOnly = false;
};

/// What is mounted in the card's place; nothing where nothing is.
std::optional<Mounted> MountedCard();

/// Paths by which a process uses the card, or the log as the device's service does.
std::vector<std::string_view> const& PlacesOfTheCard();

}  // namespace Quellon::Tool
