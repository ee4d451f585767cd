// Owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace Tarvik {

/// Closes its descriptor when it goes. Holds -1 when it owns none.
class UniqueFd {
 public:
  explicit UniqueFd(int descriptor = -1) noexcept : fd(descriptor) {}
  UniqueFd(UniqueFd&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(fd, other.fd);
    return *this;
  }
  ~UniqueFd() {
    if (IsOpen()) close(fd);
  }

  [[nodiscard]] bool IsOpen() const noexcept { return fd >= 0; }
  [[nodiscard]] int Get() const noexcept { return fd; }

 private:
  int fd;
};

}  // namespace Tarvik
