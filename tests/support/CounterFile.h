// The file that counts the reboots for a failing card.
#pragma once

#include <string>

namespace CounterFile {

inline constexpr char const* kPath = "/root/system.dat";

/// What the file holds where `count`, a number or any other text of JSON, has been saved.
inline std::string Text(std::string const& count) {
  return R"({"sdcard-status-conter":)" + count + "}";
}
inline std::string Text(long long count) {
  return Text(std::to_string(count));
}

}  // namespace CounterFile
