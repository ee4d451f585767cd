// Owner of a directory stream.
#pragma once

#include <dirent.h>

#include <memory>

namespace Tarvik {

struct DirCloser {
  void operator()(DIR* directory) const noexcept { closedir(directory); }
};

/// Closes its directory stream when it goes; null when the directory could not be opened.
using UniqueDir = std::unique_ptr<DIR, DirCloser>;

}  // namespace Tarvik
