// System calls that signals interrupt.
#pragma once

#include <cerrno>

namespace Tarvik {

/// Makes a system call until no signal interrupts it. Returns its result, which is negative when it
/// failed; `errno` is set then.
template <typename Call>
auto RestartWhileInterrupted(Call call) noexcept {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

}  // namespace Tarvik
