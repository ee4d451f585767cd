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

/// The processes, but for this one, with a descriptor or a working directory at a path that begins
/// with one of `places`.
Users UsersOf(std::vector<std::string_view> const& places);

/// Such as "recorder (812, quellon-recorder.service)", or "nobody".
std::string Show(Users const& users);

/// The command that ends the first of the users.
std::string HowToStop(Users const& users);

}  // namespace Quellon::Tool
