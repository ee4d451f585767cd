#include "base/ISemaphore.h"

#include <algorithm>
#include <ctime>

#include "base/internal/CLibrary.h"
#include "base/internal/Restart.h"

namespace Tarvik::Interfaces {

namespace {

constexpr std::chrono::hours kLongestWait(24 * 365);

// A year at most: later deadlines do not fit everywhere, and nobody sees the difference. None lies
// in the past, which may be before the clock's beginning.
timespec MonotonicDeadline(std::chrono::milliseconds limit) noexcept {
  using namespace std::chrono;
  limit = std::clamp(limit, milliseconds::zero(), milliseconds(kLongestWait));
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  auto const at = seconds(deadline.tv_sec) + nanoseconds(deadline.tv_nsec) + limit;
  deadline.tv_sec = static_cast<time_t>(duration_cast<seconds>(at).count());
  deadline.tv_nsec = static_cast<long>((at % seconds(1)).count());
  return deadline;
}

}  // namespace

ISemaphore::ISemaphore() noexcept {
  sem_init(&semaphore, 0, 0);
}

ISemaphore::~ISemaphore() {
  sem_destroy(&semaphore);
}

void ISemaphore::Notify() noexcept {
  sem_post(&semaphore);
}

void ISemaphore::Wait() noexcept {
  RestartWhileInterrupted([this] { return sem_wait(&semaphore); });
}

bool ISemaphore::TryWait() noexcept {
  return RestartWhileInterrupted([this] { return sem_trywait(&semaphore); }) == 0;
}

bool ISemaphore::WaitFor(std::chrono::milliseconds limit) noexcept {
  auto const deadline = MonotonicDeadline(limit);
  return RestartWhileInterrupted([&] { return WaitUntil(&semaphore, deadline); }) == 0;
}

}  // namespace Tarvik::Interfaces
