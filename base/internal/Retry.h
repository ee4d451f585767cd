// The one retry loop.
#pragma once

#include <chrono>
#include <thread>

namespace Tarvik {

/// Calls `attempt` until it returns true, `limit` times at most, and pauses after each failure,
/// the last one included. A signal does not shorten a pause. Returns the number of the attempt
/// that succeeded, counted from 1, or 0 if none did.
template <typename Attempt>
int Retry(int limit, std::chrono::milliseconds pause, Attempt attempt) {
  for (int number = 1; number <= limit; ++number) {
    if (attempt()) return number;
    std::this_thread::sleep_for(pause);
  }
  return 0;
}

}  // namespace Tarvik
