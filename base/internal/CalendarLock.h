// Making calendar dates in a process that forks.
#pragma once

#include "base/Export.h"

namespace Tarvik {

/// Held around each use of the C library's time zone: localtime_r(3), mktime(3), tzset(3).
///
/// The C library locks the time zone meanwhile. Where a process forks then, that lock stays locked
/// in the child, where nobody unlocks it, and the child's first line of the log would wait for
/// ever. So fork(2) takes this lock first: no process forks while a thread in the library makes a
/// date. A signal handler may fork, too. In the middle of its own thread's date, fork does not take
/// the lock, since that thread goes on in both processes. In the middle of its own thread's fork it
/// uses the one that this has, and so do dates then; where this has none yet, it waits for it on
/// its own, a second at most. That holds among the handlers of pthread_atfork(3); a signal in the C
/// library's own part of a fork finds that library's locks taken, and nobody can help it.
class QUELLON_EXPORT CalendarLock {
 public:
  CalendarLock();
  CalendarLock(CalendarLock const&) = delete;
  CalendarLock& operator=(CalendarLock const&) = delete;
  ~CalendarLock();

 private:
  bool const isTaken;  // unless this thread has it for a fork
};

}  // namespace Tarvik
