// What the kernel keeps in memory, brought to where it is safe from a power cut.
#pragma once

#include <unistd.h>

#include "base/UniqueFd.h"
#include "base/internal/OpenFile.h"
#include "base/internal/Restart.h"

namespace Tarvik {

/// fsync(2) of a file or directory, by a descriptor of its own. Waits for the storage. False, with
/// `errno` set, when it cannot be opened or is not known to be there.
inline bool BringToStorage(char const* path) noexcept {
  // O_NONBLOCK: a pipe of that name must not stop the caller; files and directories do not mind.
  // O_LARGEFILE: a 32-bit board's streams write recordings of 2 GiB and more, too.
  constexpr int kFlags = O_RDONLY | O_NONBLOCK | O_LARGEFILE;
  UniqueFd const fd(RestartWhileInterrupted([=] { return OpenFile(path, kFlags); }));
  return fd.IsOpen() && RestartWhileInterrupted([&fd] { return fsync(fd.Get()); }) == 0;
}

}  // namespace Tarvik
