// Processes that have something of the device open.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Quellon::Tool {

struct User {
  std::string id;    ///< of the process
  std::string name;  ///< of its program
  std::string unit;  ///< of systemd, such as "quellon-recorder.service"; empty where there is none
};

struct Users {
  std::vector<User> found;
  bool isComplete = true;  ///< false when some process could not be looked at, as without root
};

/// The processes, but for this one, with a descriptor or a working directory at one of `places`, in
/// a folder that is one, or at a partition of a card that is one. Links on the way to a place do
/// not matter.
Users UsersOf(std::vector<std::string_view> const& places);

/// Who holds the watchdog.
Users WatchdogHolders();

/// Such as "recorder (812, quellon-recorder.service)", or "nobody".
std::string Show(Users const& users);

/// The command that ends the first of the users. Never the one from which this program was called,
/// nor its unit: whoever sits there leaves the card.
std::string HowToStop(Users const& users);

}  // namespace Quellon::Tool
