// Owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace Tarvik {

/// Closes its descriptor when it goes. Holds -1 when it owns none.
class UniqueFd {
 public:
  /// Takes over `descriptor`.
  explicit UniqueFd(int descriptor = -1) noexcept : fd(descriptor) {}
  /// Takes over the other's descriptor.
  UniqueFd(UniqueFd&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
  /// Takes over the other's descriptor; the other gets this one's, and closes it at its end.
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(fd, other.fd);
    return *this;
  }
  ~UniqueFd() {
    if (IsOpen()) close(fd);
  }

  /// Whether it owns a descriptor.
  [[nodiscard]] bool IsOpen() const noexcept { return fd >= 0; }
  /// The descriptor, which stays owned; -1 without one.
  [[nodiscard]] int Get() const noexcept { return fd; }

 private:
  int fd;
};

}  // namespace Tarvik
