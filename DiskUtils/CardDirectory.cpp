#include "DiskUtils/CardDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "base/internal/OpenFile.h"
#include "base/internal/Restart.h"

namespace Quellon::DiskUtils {

using Tarvik::UniqueFd;

namespace {

// Looks at what is open, and not at the path, which may lead elsewhere by now.
bool IsOn(std::string const& partition, UniqueFd const& opened) noexcept {
  struct stat node {};
  struct stat directory {};
  if (stat(partition.c_str(), &node) != 0 || fstat(opened.Get(), &directory) != 0) return false;
  errno = EXDEV;
  return directory.st_dev == node.st_rdev;
}

}  // namespace

CardDirectory::CardDirectory(std::string const& directory, std::string const& partition) noexcept {
  constexpr int kFlags = O_RDONLY | O_DIRECTORY;
  UniqueFd opened(Tarvik::RestartWhileInterrupted(
      [&directory] { return Tarvik::OpenFile(directory.c_str(), kFlags); }));
  if (opened.IsOpen() && IsOn(partition, opened)) descriptor = std::move(opened);
}

std::string CardDirectory::Path() const {
  return "/proc/self/fd/" + std::to_string(descriptor.Get()) + "/";
}

}  // namespace Quellon::DiskUtils
