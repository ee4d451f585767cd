#include "SysUtil/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <iterator>

#include "base/UniqueFd.h"

namespace Quellon::SysUtil {

bool NotifyServiceManager(std::string_view state) noexcept {
  char const* const place = std::getenv("NOTIFY_SOCKET");
  std::string_view const name = place == nullptr ? "" : place;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  errno = name.empty() ? ENOENT : ENAMETOOLONG;
  if (name.empty() || name.size() >= sizeof address.sun_path) return false;
  std::ranges::copy(name, std::begin(address.sun_path));
  if (name.front() == '@') address.sun_path[0] = '\0';  // a name that is in no file system
  auto const length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  Tarvik::UniqueFd const channel(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return channel.IsOpen() &&
         sendto(channel.Get(), state.data(), state.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                reinterpret_cast<sockaddr const*>(&address), length) >= 0;
}

}  // namespace Quellon::SysUtil
