// What brings the SD card into service and takes the machine down.
#pragma once

#include <cstdint>
#include <string>

#include "DiskUtils/Disk.h"
#include "DiskUtils/HealthStatus.h"
#include "base/Export.h"

namespace Quellon {

/// The device's system services. Messages go to standard output, and the errors of failed unmounts
/// to standard error, or dropped if that would block. Not locked: one thread at a time;
/// `GetInstance` is called on one thread before any other calls it.
class QUELLON_EXPORT System {
 public:
  /// The one instance, made by the first call and never destroyed.
  static System* GetInstance();

  System();
  System(System const&) = delete;
  System& operator=(System const&) = delete;
  virtual ~System();

  /// Brings the card on "/mnt/sdcard/" (partition "/dev/mmcblk1p1") into service: a new `Disk`, a
  /// scan, the health report. A card that fails makes the machine reboot, three times in a row at
  /// most; after that the system goes on without it. A good card does not clear the count: save 0
  /// with `SaveSDCardStatusCounter` once the service has started well.
  ///
  /// Returns the card, usable if its `available` is true, owned by the System and replaced by the
  /// next call; null when a reboot was asked for or there was no memory for a `Disk`. Exceptions
  /// that are no std::exception pass. Takes seconds, with a large card minutes: a watchdog that is
  /// armed already must be kicked by another thread meanwhile, or have a longer timeout.
  DiskUtils::Disk* InitDisk();

  /// How many reboots in a row a failing card has caused, from "/root/system.dat", which is made,
  /// empty, when missing. 0 when nothing is stored; -1 when the file cannot be read, is no JSON or
  /// no regular file: a pipe or a device of that name is never opened.
  int ReadSDCardStatusCounter();

  /// Stores the count, or removes the file when `counter` is 0 or less. False when the file could
  /// not be removed or written; true, though, when it could not even be opened, so that a system
  /// that cannot save still reboots for its card.
  bool SaveSDCardStatusCounter(int counter);

  /// Prints the card's report and records it in `healthStatus`; `InitDisk` ends with one. It tells
  /// what is known of the card, and does not look at it: one that was pulled is in service (0)
  /// until somebody has looked. To have the summary up to date:
  ///
  ///     if (!system->disk->CheckDeviceStatus()) system->disk->available = false;
  ///     system->BuildDiskHealthReport();
  ///
  /// A card that is put in later is brought into service by `Umount` of the one that went and by
  /// `InitDisk`. Does nothing while `disk` is null.
  void BuildDiskHealthReport();

  /// The health summary as JSON text, as the last report recorded it; "{}" before the first one.
  [[nodiscard]] std::string GetHealthReport() const;

  /// Flushes and unmounts the root file system and the card, by force if need be, which takes
  /// seconds. Waits neither for the log nor for standard error. Meant for the end: afterwards the
  /// working directory is "/" and the log file closed. While a thread is in the middle of a line
  /// the log file stays open, and the root file system then cannot become read-only. Returns the
  /// result of the last unmount call.
  /// Kernel interface: umount(2), umount2(2).
  int UnmountAll();

  /// Restarts the machine: asks the "reboot" command, gives it 20 seconds, then unmounts all and
  /// has the kernel do it. Returns, with the result of reboot(2), only if that failed.
  int Reboot();

  /// Sets the system clock to `seconds` since the epoch. True when it was set.
  bool SetDate(long& seconds);
#if QUELLON_TIME64
  /// The same beyond the times of a `long`.
  bool SetDate(std::int64_t& seconds);
#endif

  /// Sets the real-time clock "/dev/rtc0" and the system clock. True when both were set.
  bool SetRTC(long& seconds);
#if QUELLON_TIME64
  /// The same beyond the times of a `long`.
  bool SetRTC(std::int64_t& seconds);
#endif

  // Binary interface: these fields keep their order.
  HealthStatus healthStatus;        ///< as the last report recorded it
  DiskUtils::Disk* disk = nullptr;  ///< the card; owned, null until `InitDisk` has made one
  bool diskFault = true;            ///< false once a scan has left the card available

  static System* instance;  ///< what `GetInstance` gives; null before its first call

 private:
  bool RebootForFailingDisk(char const* reason);
  void CheckClock();
  void PrintDiskReport(DiskUtils::Disk::DeviceStatus const& card) const;
  void RecordHealth(DiskUtils::Disk::DeviceStatus const& card);
};

}  // namespace Quellon
