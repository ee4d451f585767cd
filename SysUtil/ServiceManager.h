// What a service tells the system that started it.
#pragma once

#include <string_view>

#include "base/Export.h"

namespace Quellon::SysUtil {

/// Tells the service manager, such as systemd, a state by the protocol of sd_notify(3): "READY=1"
/// once the service is up, "WATCHDOG=1" while it lives. False when there is none to tell, as the
/// environment has no NOTIFY_SOCKET, or it could not be told, which `errno` says. Never waits: what
/// a manager does not take at once is lost, since the service must not hang with it. Tell "READY=1"
/// until it was taken: before that the service has not started for systemd. Any thread, while none
/// changes the environment. Kernel interface: unix(7).
QUELLON_EXPORT bool NotifyServiceManager(std::string_view state) noexcept;

}  // namespace Quellon::SysUtil
