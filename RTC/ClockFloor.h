// The time before which the system clock cannot be right.
#pragma once

#include <ctime>
#include <string>

#include "base/Export.h"

namespace Quellon::RTC {

/// Keeps the system clock later than all that is known of the past. A clock without a battery
/// begins at 1970, and what is recorded then is the oldest after the next start, and the first to
/// be deleted. What time it really is nobody knows then, but it is later than
///
/// - the release of the library, or what the application says instead (`earliest`);
/// - the time that `Save` has kept in a file;
/// - the last modification of each recording on the card.
///
/// Use: one object for as long as the process lives. `Apply` after each `System::InitDisk`, whose
/// health report is to see the clock as it was, and before anything is recorded; `SaveHourly` now
/// and then, such as with each recording; `Save` at the end.
///
/// A clock that was wrong once must not stay wrong for ever, so not everything is believed:
///
/// - Neither the file nor a recording nor the clock, where it is to be saved, is believed beyond 20
///   years after `earliest`, nor in the last year that a time_t can hold, which on 32 bits begins
///   in January 2037.
/// - A clock that is later than the file was set by somebody who knew, and recordings do not move
///   it. They count where there is no file, or none to be believed, where the clock is not later
///   than the file, and where this object has set it, and nobody since.
/// - Whoever sets the clock after this object has, such as an NTP client, is believed at once, to a
///   later time or to an earlier one: neither the file nor recordings move it any more, unless it
///   is not later than `earliest`. A change of 2 seconds or less is not noticed.
/// - The file keeps the time that was saved last, also where that is an earlier one: whoever sets
///   back a clock that this object has not set is believed from the next `SaveHourly` on.
///
/// The real-time clock is not set: what is known is no more than a time that has passed, and the
/// next start is to see, and to tell, that the clock has no battery. Not locked: one thread at a
/// time. Logs nothing. Throws std::bad_alloc, else nothing. Kernel interface: clock_settime(2),
/// which needs CAP_SYS_TIME.
class QUELLON_EXPORT ClockFloor {
 public:
  /// What came of an operation.
  enum class Result {
    Kept,      ///< the clock is later than all that is known, and was left as it is
    Raised,    ///< the clock was set forward
    Refused,   ///< the clock is too early, and the kernel did not let it be set: see `errno`
    Saved,     ///< the time is in the file, and the file is on its storage
    NotDue,    ///< the time was saved, or that was tried, less than an hour ago
    Doubtful,  ///< the clock is not to be believed, and the file was left as it is
    NotSaved,  ///< the time is not known to be in the file: see `errno`
  };

  /// What `Apply` has done to the clock, in seconds since 1970.
  struct Outcome {
    Result result;  ///< `Kept`, `Raised` or `Refused`
    time_t from;    ///< what the clock said
    time_t to;      ///< what it was set to, or was to be set to; `from` if it was kept
  };

  /// When the sources of the library were released, or where its build was told a later time, by
  /// SOURCE_DATE_EPOCH, that.
  [[nodiscard]] static time_t ReleaseTime() noexcept;

  /// `file` is where the time is kept, on storage that is not the card; beside it, while it is
  /// written, lies another one whose name ends in ".new". `earliest` is the application's own time
  /// of release, in seconds since 1970. Touches neither file nor clock.
  explicit ClockFloor(std::string file = "/root/clock.dat", time_t earliest = ReleaseTime());

  /// Sets a clock that is not later than all that is known, to one second after it; never back.
  /// `recordings` is their directory, or empty where there is no card. It is looked at where the
  /// file does not say enough, which takes the time of an lstat(2) for each name. Files below a
  /// directory in it do not count, links do with their own times.
  Outcome Apply(std::string const& recordings = {});

  /// Keeps the time of the clock in the file, by an fsync(2) of a new one that takes its place, and
  /// of the directory: waits for the storage. After a failure the file is as it was or as it is to
  /// be. Results: `Saved`, `Doubtful`, `NotSaved`.
  Result Save();

  /// As `Save`, where the last try was an hour ago by the clock, or the clock was set back since;
  /// else does nothing, quickly. Results: those of `Save`, and `NotDue`.
  Result SaveHourly();

  /// A result as a text, for a log or a person. Never null; lives as long as the library.
  [[nodiscard]] static char const* Describe(Result result) noexcept;

 private:
  [[nodiscard]] bool IsBelievable(time_t seconds) const noexcept;
  [[nodiscard]] time_t ReadFile() const;
  [[nodiscard]] bool WriteFile(time_t seconds) const;
  [[nodiscard]] time_t NewestOf(std::string const& recordings) const;
  time_t LatestKnown(std::string const& recordings);

  std::string file;
  time_t earliest;
  time_t origin = 0;     ///< what a clock set forward said when steady time began; 0 before
  time_t lastSaved = 0;  ///< what is in the file, as far as is known, or was to be; 0 if nothing is
};

}  // namespace Quellon::RTC
