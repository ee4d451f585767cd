#include "Watchdog/WatchdogGuard.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <string_view>
#include <utility>

#include "base/MutexLock.h"
#include "base/internal/OpenFile.h"
#include "base/internal/Restart.h"
#include "base/internal/WriteAll.h"

namespace Quellon {

using Tarvik::MutexLock;
using Tarvik::UniqueFd;

namespace {

constexpr char const* kNoWayOut = "/sys/class/watchdog/watchdog0/nowayout";

constexpr std::chrono::seconds kShortestKickPeriod(1);

constexpr std::string_view kKick = " ";  // any byte but the next
constexpr std::string_view kMagicClose = "V";

UniqueFd OpenFile(char const* path, int flags) noexcept {
  return UniqueFd(Tarvik::RestartWhileInterrupted([=] { return Tarvik::OpenFile(path, flags); }));
}

bool Ask(UniqueFd const& device, unsigned long request, void* argument) noexcept {
  return Tarvik::RestartWhileInterrupted([&] { return ioctl(device.Get(), request, argument); }) >=
         0;
}

bool Write(UniqueFd const& device, std::string_view text) noexcept {
  return Tarvik::WriteAll(device.Get(), text) == text.size();
}

// A device node may be there without a driver.
WatchdogGuard::Result WhyNotOpened(int error) noexcept {
  bool const isMissing = error == ENOENT || error == ENODEV || error == ENXIO;
  if (isMissing) return WatchdogGuard::Result::Missing;
  return error == EBUSY ? WatchdogGuard::Result::Busy : WatchdogGuard::Result::Failed;
}

// Of a driver that knows no such request, which is another answer than that it will not.
bool IsUnknownRequest(int error) noexcept {
  return error == ENOTTY || error == EOPNOTSUPP;
}

bool IsKeptFromStopping() noexcept {
  UniqueFd const file = OpenFile(kNoWayOut, O_RDONLY);
  char flag;
  auto const readFlag = [&] { return read(file.Get(), &flag, 1); };
  return Tarvik::RestartWhileInterrupted(readFlag) == 1 && flag == '1';
}

}  // namespace

WatchdogGuard::WatchdogGuard() = default;

WatchdogGuard::~WatchdogGuard() = default;

// The process is looked at before the lock is taken: a thread of the parent may have held it when
// this child was made, and nobody would give it back.
WatchdogGuard::Result WatchdogGuard::Open(int timeoutSeconds) {
  if (IsInherited()) return Result::Busy;
  if (timeoutSeconds < 1) {  // some drivers take 0, and restart the machine at once
    errno = EINVAL;
    return Result::Failed;
  }
  MutexLock const lock(mutex);
  if (!device.IsOpen()) {
    Result const opened = OpenDevice();
    if (opened != Result::Done) return opened;
  }
  SetTimeout(timeoutSeconds);
  KickDevice();  // for a driver that refused the timeout, and had run for a while
  return Result::Done;
}

WatchdogGuard::Result WatchdogGuard::Kick() {
  if (IsInherited()) return Result::NotOpen;
  MutexLock const lock(mutex);
  return device.IsOpen() ? KickDevice() : Result::NotOpen;
}

// A request to stop is answered, the magic close is not, and it would come into force only when the
// last of the processes that share the device has closed it. Both, as older drivers that were told
// to stop begin anew by a close without it.
WatchdogGuard::Result WatchdogGuard::Disarm() {
  if (IsInherited()) return Result::NotOpen;
  MutexLock const lock(mutex);
  if (!device.IsOpen()) return Result::NotOpen;
  int stop = WDIOS_DISABLECARD;
  bool const isStopped = Ask(device, WDIOC_SETOPTIONS, &stop);
  if (!isStopped && !IsUnknownRequest(errno)) return Result::Unstoppable;
  bool const hasMagicClose = (driver.options & WDIOF_MAGICCLOSE) != 0;
  if (hasMagicClose && !Write(device, kMagicClose) && !isStopped) return Result::Failed;
  device = UniqueFd();
  owner = 0;
  return Result::Done;
}

bool WatchdogGuard::IsOpen() const {
  return owner == getpid();
}

std::string WatchdogGuard::GetDriver() const {
  auto const* const end = std::find(std::begin(driver.identity), std::end(driver.identity), 0);
  return {std::begin(driver.identity), end};
}

unsigned WatchdogGuard::GetOptions() const {
  return driver.options;
}

int WatchdogGuard::GetTimeout() const {
  return timeout;
}

std::chrono::seconds WatchdogGuard::GetKickPeriod() const {
  return std::max(kShortestKickPeriod, std::chrono::seconds(timeout / 4));
}

bool WatchdogGuard::IsStoppedByClose() const {
  return (driver.options & WDIOF_MAGICCLOSE) == 0 && !IsKeptFromStopping();
}

char const* WatchdogGuard::Describe(Result result) noexcept {
  switch (result) {
    case Result::Done:
      return "done";
    case Result::Missing:
      return "there is no watchdog";
    case Result::Busy:
      return "the watchdog is held by another process";
    case Result::NotOpen:
      return "the watchdog is not open";
    case Result::Unstoppable:
      return "the watchdog cannot be stopped";
    case Result::Failed:
      break;
  }
  return "the watchdog failed";
}

bool WatchdogGuard::IsInherited() const {
  return owner != 0 && !IsOpen();
}

// A driver that fails to tell what it is has been armed all the same, and is better kicked than
// left alone. What knows no such question is no watchdog.
WatchdogGuard::Result WatchdogGuard::OpenDevice() {
  UniqueFd opened = OpenFile("/dev/watchdog", O_RDWR);
  if (!opened.IsOpen()) return WhyNotOpened(errno);
  driver = {};
  if (!Ask(opened, WDIOC_GETSUPPORT, &driver) && errno == ENOTTY) return Result::Missing;
  device = std::move(opened);
  owner = getpid();
  return Result::Done;
}

void WatchdogGuard::SetTimeout(int seconds) {
  Ask(device, WDIOC_SETTIMEOUT, &seconds);
  if (!Ask(device, WDIOC_GETTIMEOUT, &timeout)) timeout = 0;
}

WatchdogGuard::Result WatchdogGuard::KickDevice() {
  int unused = 0;
  bool const isTaken = Ask(device, WDIOC_KEEPALIVE, &unused) || Write(device, kKick);
  return isTaken ? Result::Done : Result::Failed;
}

}  // namespace Quellon
