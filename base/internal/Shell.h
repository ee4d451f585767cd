// Commands, and what the shell says about them.
#pragma once

#include <csignal>
#include <cstdlib>

#include "base/internal/StandardDescriptors.h"

namespace Tarvik {

/// While one exists, the process's children wait until somebody asks for their status. A process
/// that ignores SIGCHLD, or has SA_NOCLDWAIT set for it, cannot learn how a command ended, nor can
/// commands that run commands of their own and inherit that. A handler stays in place. This is
/// so for the whole process: children of other threads that end meanwhile stay as zombies.
class KeptChildren {
 public:
  KeptChildren() noexcept {
    sigaction(SIGCHLD, nullptr, &before);
    struct sigaction kept = before;
    kept.sa_flags &= ~SA_NOCLDWAIT;
    if (kept.sa_handler == SIG_IGN) kept.sa_handler = SIG_DFL;
    isChanged = kept.sa_flags != before.sa_flags || kept.sa_handler != before.sa_handler;
    if (isChanged) sigaction(SIGCHLD, &kept, nullptr);
  }
  KeptChildren(KeptChildren const&) = delete;
  KeptChildren& operator=(KeptChildren const&) = delete;
  ~KeptChildren() {
    if (isChanged) sigaction(SIGCHLD, &before, nullptr);
  }

 private:
  struct sigaction before {};
  bool isChanged = false;
};

/// system(3), with standard descriptors that are open, without which fsck(8) checks nothing, and
/// with a status also where the process ignores SIGCHLD.
inline int RunCommand(char const* command) {
  OccupyStandardDescriptors();
  KeptChildren const children;
  return std::system(command);
}

/// The exit-status byte of a status as system(3) returns it. A command killed by a signal has a
/// zero byte, as one that succeeded; -1, no status at all, gives 255.
constexpr int ExitStatusByte(int status) noexcept {
  return (status >> 8) & 0xFF;
}

}  // namespace Tarvik
