// What stands in for the service manager: the socket that it names to a service.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

#include "base/UniqueFd.h"

/// Listens by a name that begins with "@", which is in no file system, and is in the environment as
/// long as the object lives.
class NotifySocket {
 public:
  explicit NotifySocket(std::string const& name = "@quellon-test-" + std::to_string(getpid())) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::ranges::copy(name, std::begin(address.sun_path));
    address.sun_path[0] = '\0';
    auto const length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    bind(channel.Get(), reinterpret_cast<sockaddr const*>(&address), length);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
  }
  NotifySocket(NotifySocket const&) = delete;
  NotifySocket& operator=(NotifySocket const&) = delete;
  ~NotifySocket() { unsetenv("NOTIFY_SOCKET"); }

  /// What was told since the last time.
  std::vector<std::string> Take() {
    std::vector<std::string> told;
    std::array<char, 64> text;
    ssize_t length;
    while ((length = recv(channel.Get(), text.data(), text.size(), MSG_DONTWAIT)) >= 0) {
      told.emplace_back(text.data(), static_cast<std::size_t>(length));
    }
    return told;
  }

 private:
  Tarvik::UniqueFd channel{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};
