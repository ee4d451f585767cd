// What the shell says about a command.
#pragma once

namespace Tarvik {

/// The exit-status byte of a status as system(3) returns it. A command killed by a signal has a
/// zero byte, as one that succeeded; -1, no status at all, gives 255.
constexpr int ExitStatusByte(int status) noexcept {
  return (status >> 8) & 0xFF;
}

}  // namespace Tarvik
