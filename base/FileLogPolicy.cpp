#include "base/FileLogPolicy.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>

#include "base/WriteAll.h"

namespace Tarvik::Ilog {

namespace {

constexpr char const* kPath = "/var/log/quellon.log";
constexpr char const* kOlderPath = "/var/log/quellon.log.1";
constexpr std::size_t kLimit = std::size_t{1} << 20;

}  // namespace

bool FileLogPolicy::Write(std::string_view line) noexcept {
  bool const written = (file.IsOpen() || Open(0)) && MakeWay(line.size()) && Append(line);
  if (!written) Close();
  return written;
}

void FileLogPolicy::Close() noexcept {
  file = UniqueFd();
}

// O_NONBLOCK: a pipe somebody left under this name must not stop the caller; a regular file does
// not mind.
bool FileLogPolicy::Open(int flags) noexcept {
  constexpr mode_t kMode = 0644;
  file = UniqueFd(open(
      kPath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | flags, kMode));
  struct stat status {};
  if (!file.IsOpen() || fstat(file.Get(), &status) != 0) return false;
  size = status.st_size;
  return S_ISREG(status.st_mode);
}

// Where the rename fails the file is emptied instead, so that the log never fills the device.
bool FileLogPolicy::MakeWay(std::size_t length) noexcept {
  if (size == 0 || static_cast<std::size_t>(size) + length < kLimit) return true;
  static_cast<void>(rename(kPath, kOlderPath));
  return Open(O_TRUNC);
}

bool FileLogPolicy::Append(std::string_view line) noexcept {
  size += static_cast<off_t>(line.size());
  return WriteAll(file.Get(), line);
}

}  // namespace Tarvik::Ilog
