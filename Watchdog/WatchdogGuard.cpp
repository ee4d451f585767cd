#include "Watchdog/WatchdogGuard.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <string_view>
#include <utility>

#include "base/MutexLock.h"
#include "base/internal/CLibrary.h"
#include "base/internal/OpenFile.h"
#include "base/internal/Restart.h"
#include "base/internal/StandardDescriptors.h"
#include "base/internal/WriteAll.h"

namespace Quellon {

using Tarvik::MutexLock;
using Tarvik::UniqueFd;

namespace {

constexpr char const* kNoWayOut = "/sys/class/watchdog/watchdog0/nowayout";

constexpr std::chrono::seconds kShortestKickPeriod(1);

constexpr char const* kKeeperName = "watchdog-keeper";  // 15 characters, as many as a name may have

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

bool ReadByte(int fd, char& byte) noexcept {
  return Tarvik::RestartWhileInterrupted([&] { return read(fd, &byte, 1); }) == 1;
}

bool IsKeptFromStopping() noexcept {
  UniqueFd const file = OpenFile(kNoWayOut, O_RDONLY);
  char flag;
  return ReadByte(file.Get(), flag) && flag == '1';
}

// Between the guard that has the device open and the keeper. A process has one at most, since the
// kernel opens the device once; it is no member, as a guard's size is its users'.
UniqueFd keeperChannel;

// The keeper tells that it holds the device, and on a byte that it no longer does. It has the
// guard's end of the channel, too, so the guard's death is no end of what it reads. These are
// async-signal-safe calls alone: other threads of the copied process may have held any lock.
[[noreturn]] void HoldUntilTold(UniqueFd const& device, std::array<int, 2> const& ends) noexcept {
  if (fork() != 0) _exit(0);  // so that what goes on is nobody's child to be waited for
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, nullptr);
  prctl(PR_SET_NAME, kKeeperName);
  setsid();
  static_cast<void>(chdir("/"));
  constexpr int kHeld = 0;
  constexpr int kChannel = 1;
  dup2(device.Get(), kHeld);
  dup2(ends[1], kChannel);
  dup2(ends[0], kChannel + 1);
  Tarvik::CloseFrom(kChannel + 2);
  char byte = 0;
  Tarvik::WriteAll(kChannel, {&byte, 1});
  ReadByte(kChannel, byte);
  close(kHeld);
  Tarvik::WriteAll(kChannel, {&byte, 1});
  _exit(0);
}

// Whether there is a keeper that answers.
bool AwaitKeeper() noexcept {
  char byte;
  return ReadByte(keeperChannel.Get(), byte);
}

void EndKeeper() noexcept {
  if (!keeperChannel.IsOpen()) return;
  send(keeperChannel.Get(), "", 1, MSG_NOSIGNAL);
  AwaitKeeper();
  keeperChannel = UniqueFd();
}

// Standard descriptors come first: what is printed must not get into the channel. Where there is no
// keeper in the end, nobody has the other end of that.
bool MakeKeeper(UniqueFd const& device) noexcept {
  Tarvik::OccupyStandardDescriptors();
  std::array<int, 2> ends;
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) return false;
  keeperChannel = UniqueFd(ends[0]);
  UniqueFd keepersEnd(ends[1]);
  pid_t const child = fork();
  if (child == 0) HoldUntilTold(device, ends);
  if (child > 0) Tarvik::RestartWhileInterrupted([=] { return waitpid(child, nullptr, 0); });
  keepersEnd = UniqueFd();
  if (AwaitKeeper()) return true;
  keeperChannel = UniqueFd();
  errno = EAGAIN;
  return false;
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

WatchdogGuard::Result WatchdogGuard::KeepOpenAfterEnd() {
  if (IsInherited()) return Result::NotOpen;
  MutexLock const lock(mutex);
  if (!device.IsOpen()) return Result::NotOpen;
  if (keeperChannel.IsOpen() || !IsStoppedByClose()) return Result::Done;
  return MakeKeeper(device) ? Result::Done : Result::Failed;
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
  EndKeeper();
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
  keeperChannel = UniqueFd();  // one whose keeper is no more, or it would be busy
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
