// A console that nobody reads.
#pragma once

#include <memory>

#include "base/Export.h"

namespace Tarvik {

/// While one exists, standard output and standard error stop nobody. A pipe, serial line or socket
/// that nobody drains, and a terminal that is halted, otherwise stop each thread that prints or
/// logs, also the one that kicks the watchdog. With a guard they do not block: a line of the log
/// waits for a full console for half a second, once. Then lines are dropped without waiting, and
/// counted, until the console takes something again; it is told "[CONSOLE] 12 lines dropped" before
/// the next line. The log file has all lines of the log. While the console flows, a line costs
/// nothing more.
///
/// Make one as the first thing in `main`, after `std::ios::sync_with_stdio` if that is called, and
/// have it end as the last: while it begins and while it ends no other thread prints by
/// `std::cout`, `std::cerr` or `std::clog`, nor does a function of the library that prints. In
/// between they may, as without a guard: several at once unless `sync_with_stdio(false)` was
/// called, and texts may come between the pieces of another thread's line. The log may always be
/// used.
///
/// Not to block belongs to an open file, which processes share: the shell has this one, too. So a
/// terminal or pipe is opened anew, and that put in the place of descriptors 1 and 2; other
/// processes notice nothing. What cannot be opened anew, such as a socket, is itself made
/// non-blocking until the guard ends, for those who share it as well: see `Result::Shared`. Files
/// and other devices are left alone. Commands inherit what the guard made: they do not wait either,
/// and what a full console does not take of theirs is lost. fsck(8) of util-linux then ends as
/// after an operational error.
///
/// Of what the application prints: `std::cout`, `std::cerr` and `std::clog` stay good. A text of
/// `std::cout` that ends a line or is flushed is waited for as a line of the log is, which takes a
/// poll(2) each, and counts as one line where it is lost. Texts of printf(3) are not waited for;
/// those that are lost are counted only if a line of the log was to flush them, and
/// `ferror(stdout)` stays set. Of more than 4 KiB at once, a part may be lost.
///
/// At its end the guard flushes standard output and puts back what was there before, unless the
/// application has put something else there meanwhile. A console that is full then stays as it is:
/// it must not stop the end of the process. In a child made by fork(2) the end puts nothing back.
///
/// One object a process. Logs and prints nothing of its own. The constructor throws std::bad_alloc,
/// having done nothing. Kernel interface: open(2) of "/proc/self/fd/", dup(2), fcntl(2).
class QUELLON_EXPORT ConsoleGuard {
 public:
  /// What was done about a descriptor.
  enum class Result {
    Done,       ///< it does not block
    Shared,     ///< it does not block, neither here nor for other processes that share it
    NotNeeded,  ///< nothing: it is a file, another device, or has O_NONBLOCK already
    Closed,     ///< nothing: the process has none
    Failed,     ///< nothing: no descriptor was left, and it blocks as before
  };

  /// Makes both non-blocking: see the class.
  ConsoleGuard();
  ConsoleGuard(ConsoleGuard const&) = delete;
  ConsoleGuard& operator=(ConsoleGuard const&) = delete;
  /// Puts back what was there before: see the class.
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
