// Calls of glibc that musl lacks, or has by another name.
#pragma once

#include <semaphore.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <thread>
#include <utility>

namespace Tarvik {

constexpr std::chrono::milliseconds kSemaphorePause(10);

/// Waits for a semaphore until `deadline` of the monotonic clock, as sem_clockwait(3) does, by
/// looking again and again: a wait by the clock of the day may never end when that is set. -1 with
/// `errno` as there.
inline int PollSemaphore(sem_t* semaphore, timespec const& deadline) noexcept {
  while (sem_trywait(semaphore) != 0) {
    if (errno != EAGAIN) return -1;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (std::pair(now.tv_sec, now.tv_nsec) >= std::pair(deadline.tv_sec, deadline.tv_nsec)) {
      errno = ETIMEDOUT;
      return -1;
    }
    std::this_thread::sleep_for(kSemaphorePause);
  }
  return 0;
}

/// Closes all descriptors from `first` on, as closefrom(3) does, below the process's limit of open
/// files; async-signal-safe.
inline void CloseEach(int first) noexcept {
  for (long fd = sysconf(_SC_OPEN_MAX); fd-- > first;) close(static_cast<int>(fd));
}

#ifdef __GLIBC__

/// A place in a file or a device: beyond 2 GiB, too, where off_t has 32 bits.
using FilePlace = off64_t;

/// As pread(2).
inline ssize_t ReadAt(int fd, void* into, std::size_t length, FilePlace place) noexcept {
  return pread64(fd, into, length, place);
}

/// As sem_clockwait(3) with the monotonic clock.
inline int WaitUntil(sem_t* semaphore, timespec const& deadline) noexcept {
  return sem_clockwait(semaphore, CLOCK_MONOTONIC, &deadline);
}

/// As closefrom(3).
inline void CloseFrom(int first) noexcept {
  closefrom(first);
}

#else

using FilePlace = off_t;

inline ssize_t ReadAt(int fd, void* into, std::size_t length, FilePlace place) noexcept {
  return pread(fd, into, length, place);
}

inline int WaitUntil(sem_t* semaphore, timespec const& deadline) noexcept {
  return PollSemaphore(semaphore, deadline);
}

inline void CloseFrom(int first) noexcept {
  CloseEach(first);
}

#endif

}  // namespace Tarvik
