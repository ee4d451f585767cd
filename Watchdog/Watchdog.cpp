#include "Watchdog/Watchdog.h"

#include <linux/watchdog.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdint>

#include "base/Logger.h"
#include "base/internal/OpenFile.h"

namespace Quellon {

using Tarvik::Ilog::Info;
using Tarvik::Ilog::LogLine;

namespace {

constexpr int kDefaultTimeoutSeconds = 90;

}  // namespace

Watchdog::Watchdog() : Watchdog(kDefaultTimeoutSeconds) {}

// The line of the log may throw, and then nobody is there to close the device.
Watchdog::Watchdog(int timeoutSeconds) : timeout(timeoutSeconds) {
  try {
    Init();
  } catch (...) {
    Watchdog::Close();
    throw;
  }
}

Watchdog::~Watchdog() {
  Watchdog::Close();
}

// Drivers let the device be opened once at a time: one that a failure left open is closed first.
bool Watchdog::Open() {
  Close();
  fd = Tarvik::OpenFile("/dev/watchdog", O_RDWR);
  return fd >= 0;
}

// 0 stands for closed: no device gets this number, see OpenFile.
bool Watchdog::Close() {
  if (fd < 1) return false;
  close(fd);
  fd = 0;
  return true;
}

bool Watchdog::Init() {
  if (!Open()) return false;
  if (ioctl(fd, WDIOC_SETTIMEOUT, &timeout) < 0) return false;
  int applied = 0;
  static_cast<void>(ioctl(fd, WDIOC_GETTIMEOUT, &applied));
  LogLine(Info) << "[WTD] Watchdog timeout have been set to " << applied << " seconds";
  Close();
  return true;
}

bool Watchdog::Reset() {
  if (fd < 1 && !Open()) {
    LogLine(Info) << "[WTD] Watchdog could not be open";
    return false;
  }
  std::int32_t const kick = 1;
  if (write(fd, &kick, sizeof kick) < static_cast<ssize_t>(sizeof kick)) return false;
  Close();
  LogLine(Info) << "[WTD] Watchdog have been reset";
  return true;
}

}  // namespace Quellon
