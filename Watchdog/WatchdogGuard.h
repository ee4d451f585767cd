// The hardware watchdog, held open.
#pragma once

#include <linux/watchdog.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <string>

#include "base/Export.h"
#include "base/Mutex.h"
#include "base/ThreadSafety.h"
#include "base/UniqueFd.h"

namespace Quellon {

/// Guards the machine by "/dev/watchdog", which it opens once and holds. `Watchdog` closes the
/// device after each kick: the kernel complains of that each time, and a driver without the magic
/// close is stopped by it. Use one of the two, and one object a process.
///
/// Once open, the owner must call `Kick` well within the timeout, or the machine restarts. Only
/// `Disarm` stops the timer on purpose. Its end closes the device as the end of the process does,
/// whatever that ends by: the timer goes on, the kernel says once "watchdog did not stop!", and the
/// machine restarts when the timeout is over, unless somebody opens the device anew and kicks it.
/// A driver that `IsStoppedByClose` is stopped by it instead, and nothing guards the machine then:
/// load it with its parameter "nowayout", or have it held by `KeepOpenAfterEnd`.
///
/// The device is close-on-exec and never becomes standard input, output or error. A child made by
/// fork(2) shares it: there the guard counts as not open, and neither kicks nor disarms. Nothing
/// happens to the driver when the child ends; but as long as it lives it keeps the device open, so
/// where the parent ends first the timer goes on, and nobody else can open the device.
///
/// `Kick`, `Disarm` and `IsOpen` may be called from any thread at any time, `Open` too; what `Open`
/// learns of the driver is read while it does not run. Logs nothing and waits for nothing but the
/// driver and each other. Throws std::system_error where a lock fails, else nothing. Kernel
/// interface: watchdog API; opening and arming need root.
class QUELLON_EXPORT WatchdogGuard {
 public:
  /// What came of an operation.
  enum class Result {
    Done,     ///< as asked
    Missing,  ///< there is no watchdog: no driver is loaded, or the path leads to something else
    Busy,     ///< somebody holds the device: the init system, another service, a parent process
    NotOpen,  ///< nothing was opened, or it is a parent process that has it open
    Unstoppable,  ///< the driver refuses to stop, as by "nowayout": open and armed as before
    Failed,       ///< for another reason, which `errno` tells
  };

  /// Touches no device.
  WatchdogGuard();
  WatchdogGuard(WatchdogGuard const&) = delete;
  WatchdogGuard& operator=(WatchdogGuard const&) = delete;
  /// Closes the device and does not disarm it: see the class. Not while another thread uses it.
  ~WatchdogGuard();

  /// Opens the device, by which the driver is armed, sets its timeout and kicks it. On a guard that
  /// is open it sets the timeout anew, and closes nothing. A driver that refuses this timeout keeps
  /// its own, and that is no failure: see `GetTimeout`. `timeoutSeconds` is 1 or more. Results:
  /// `Done`, `Missing`, `Busy`, `Failed`; not open after these three.
  Result Open(int timeoutSeconds);

  /// Begins the timeout anew, by `WDIOC_KEEPALIVE`, or where the driver does not take that, by a
  /// byte written to it. Results: `Done`, `NotOpen`, `Failed`; after the last the device is still
  /// open, for the next kick.
  Result Kick();

  /// Has the device held open when this process has ended, by another one, "watchdog-keeper", where
  /// that end would stop the timer: see `IsStoppedByClose`. Then whatever the service dies of, the
  /// machine restarts when the timeout is over. That is the price, too: a service that is started
  /// again finds the device `Busy`, and cannot prevent it. `Disarm` ends the keeper, and waits for
  /// that; the guard's destructor does not end it.
  ///
  /// Call it once the guard is open, and early: the keeper is a copy of this process, made by
  /// fork(2), and keeps the memory that the process changes later as it was. It runs none of its
  /// code, and has nothing open but the device; but a file that is mapped by then keeps its file
  /// system from being unmounted. It is in a session of its own, is no child to be waited for, and
  /// takes no signal but SIGKILL. Who kills a whole control group, as systemd does,
  /// ends it as well: see docs/operations.md.
  ///
  /// Results: `Done`, also where such a process is not needed or is there already; `NotOpen`;
  /// `Failed`, where the system has no process or descriptor for it: open and kicked as before.
  Result KeepOpenAfterEnd();

  /// Stops the timer and closes the device, so that the machine may go on without a guard. The
  /// driver is asked to stop, and if it has the magic close, is told "V". Results: `Done`,
  /// `NotOpen`, `Unstoppable`, `Failed`. After the last two it is still open and must be kicked.
  /// A driver that cannot be asked to stop is trusted to stop by the close.
  Result Disarm();

  /// Whether this process has the device open.
  [[nodiscard]] bool IsOpen() const;

  /// @{ Of the driver that was opened last, also once it is closed.
  /// Its name, as it tells it, such as "imx2+ watchdog"; empty when unknown.
  [[nodiscard]] std::string GetDriver() const;
  /// What it can do: flags of <linux/watchdog.h>, such as `WDIOF_MAGICCLOSE`; 0 when unknown. One
  /// with `WDIOF_ALARMONLY` does not restart the machine.
  [[nodiscard]] unsigned GetOptions() const;
  /// The timeout that it applied, in seconds, which may differ from what was asked for; 0 when
  /// unknown.
  [[nodiscard]] int GetTimeout() const;
  /// How often to kick it: each quarter of the timeout, where half would do, which leaves time for
  /// a card that keeps its writer waiting. A second at least, also when the timeout is unknown.
  [[nodiscard]] std::chrono::seconds GetKickPeriod() const;
  /// Whether the end of this process, however it comes, would stop the timer: it has no magic
  /// close, and the kernel does not say "nowayout" of it in "/sys/class/watchdog/watchdog0/". Reads
  /// that file.
  [[nodiscard]] bool IsStoppedByClose() const;
  /// @}

  /// A result as a text, for a log or a person. Never null; lives as long as the library.
  [[nodiscard]] static char const* Describe(Result result) noexcept;

 private:
  [[nodiscard]] bool IsInherited() const;
  Result OpenDevice() QUELLON_REQUIRES(mutex);
  void SetTimeout(int seconds) QUELLON_REQUIRES(mutex);
  Result KickDevice() QUELLON_REQUIRES(mutex);

  Tarvik::Mutex mutex;  ///< held while the device is asked something
  Tarvik::UniqueFd device QUELLON_GUARDED_BY(mutex);
  std::atomic<pid_t> owner = 0;  ///< the process that opened the device; 0 when it is closed
  watchdog_info driver{};        ///< set by `Open` alone, as is the next
  int timeout = 0;
};

}  // namespace Quellon
