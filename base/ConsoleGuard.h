// A console that nobody reads.
#pragma once

#include <memory>

#include "base/Export.h"

namespace Tarvik {

/// Keeps standard output and standard error from stopping the process while one exists. A terminal
/// that was halted, a serial line, a pipe or a socket that nobody drains stops each thread that
/// prints or logs, also the one that kicks the watchdog. With this object they do not block: a line
/// of the log waits 500 ms for the console, then lines are dropped without waiting, and counted,
/// until the console takes something again. That is told it first: "[CONSOLE] 12 lines dropped".
/// The log file has all lines of the log. Make one as the first thing in `main`, after
/// `std::ios::sync_with_stdio`; it ends as the last.
///
/// What blocks by itself to be read later is another matter: O_NONBLOCK belongs to what processes
/// share. So a terminal or pipe is opened anew, "/proc/self/fd/1" and ".../2", and takes the place
/// of the old one; other processes notice nothing. A socket, or what cannot be opened anew, gets
/// the flag itself until this object ends, and so have it those who share it: see `Result::Shared`.
/// Files and other devices do not block, and are left alone.
///
/// Commands that the library starts inherit both. They never wait for the console either, and what
/// it does not take of theirs is lost; fsck(8) of util-linux then reports an operational error.
///
/// What the application prints itself: `std::cout`, `std::cerr` and `std::clog` stay good, and what
/// `std::cout` loses is counted, a text as one line. Where that stream lost something lately, or
/// the log had to wait, it waits as the log does. Texts of printf(3) are neither waited for nor
/// counted, and `ferror(stdout)` stays set after the first that is lost. A text of more than 4 KiB
/// in one piece may be cut.
///
/// The end flushes standard output and puts back what was there, unless the application has put
/// something else there since, or the console takes nothing then: the process must be able to end.
/// It does so in its own process only, not in a child made by fork(2). Made and destroyed while no
/// other thread prints by `std::cout` and the like; the log may be used. Kernel interface: open(2)
/// of
/// "/proc", dup(2), fcntl(2). Logs and prints nothing; the constructor throws std::bad_alloc, and
/// has done nothing then.
class QUELLON_EXPORT ConsoleGuard {
 public:
  /// What was done about a descriptor.
  enum class Result {
    Done,       ///< does not block any more
    Shared,     ///< the same, and so it is for other processes that share it
    NotNeeded,  ///< never did: a file, a device, or the application's own O_NONBLOCK
    Closed,     ///< the process was started without it
    Failed,     ///< blocks as before
  };

  ConsoleGuard();
  ConsoleGuard(ConsoleGuard const&) = delete;
  ConsoleGuard& operator=(ConsoleGuard const&) = delete;
  ~ConsoleGuard();

  /// What was done about standard output.
  [[nodiscard]] Result GetOutput() const noexcept;
  /// What was done about standard error.
  [[nodiscard]] Result GetErrors() const noexcept;

  /// A result as a text, for a log or a person. Never null; lives as long as the library.
  [[nodiscard]] static char const* Describe(Result result) noexcept;

 private:
  struct Parts;
  std::unique_ptr<Parts> const parts;
};

}  // namespace Tarvik
