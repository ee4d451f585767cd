#include "base/FileLogPolicy.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <optional>
#include <utility>

#include "base/internal/OpenFile.h"
#include "base/internal/Retry.h"
#include "base/internal/WriteAll.h"

namespace Tarvik::Ilog {

namespace {

constexpr char const* kFolder = "/var/log/";
constexpr char const* kPath = "/var/log/quellon.log";
constexpr char const* kOlderPath = "/var/log/quellon.log.1";

// A process checks the file's size before it has written more than `kUncheckedShare` since the last
// check. At the lower mark it asks for the lock: with it, it begins a new file there, without it at
// the upper mark. What 15 processes may write after their checks, that much each, fits between that
// mark and the limit.
constexpr std::size_t kLimit = std::size_t{1} << 20;
constexpr std::size_t kUncheckedShare = 2048;
constexpr std::size_t kUpperMark = kLimit - 16 * kUncheckedShare;
constexpr std::size_t kLowerMark = kUpperMark - 16 * kUncheckedShare;
static_assert(FileLogPolicy::kLongestLine == kLowerMark);

constexpr int kLockAttempts = 20;
constexpr std::chrono::milliseconds kLockPause(1);
constexpr int kFragmentAttempts = 3;
constexpr std::chrono::milliseconds kFragmentPause(1);

// The lock that all processes which log share: with it only one at a time checks the file's place
// and size, and then writes. The process that has it may be stopped, so nobody waits long: one try,
// and then `attempts` more. Owns nothing when the lock could not be had.
UniqueFd LockFolder(int attempts) noexcept {
  UniqueFd folder(OpenFile(kFolder, O_RDONLY));
  auto const lock = [&] { return flock(folder.Get(), LOCK_EX | LOCK_NB) == 0; };
  bool const isLocked = folder.IsOpen() && (lock() || Retry(attempts, kLockPause, lock) != 0);
  return isLocked ? std::move(folder) : UniqueFd();
}

std::optional<std::size_t> SizeOf(UniqueFd const& file) noexcept {
  struct stat status {};
  if (fstat(file.Get(), &status) != 0) return std::nullopt;
  return static_cast<std::size_t>(status.st_size);
}

bool IsAtPath(struct stat const& opened) noexcept {
  struct stat named {};
  return lstat(kPath, &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino;
}

// Nothing where it cannot be read.
std::optional<char> LastByteOf(UniqueFd const& file) noexcept {
  char last{};
  bool const isRead =
      lseek(file.Get(), -1, SEEK_END) >= 0 && read(file.Get(), &last, sizeof last) == 1;
  return isRead ? std::optional(last) : std::nullopt;
}

// An empty file has room for every line.
bool HasRoom(std::size_t size, std::size_t length, std::size_t limit) noexcept {
  return size == 0 || size + length < limit;
}

}  // namespace

bool FileLogPolicy::Write(std::string_view line) noexcept {
  time_t const second = time(nullptr);
  UniqueFd lock;
  bool ready = true;
  bool const isDue = second != checkedAt || NeedsCheck(line.size());
  if (isDue && !HasRoomInPlace(line.size(), second)) {
    lock = LockFolder(0);
    if (!lock.IsOpen() && NeedsLock(line.size())) lock = LockFolder(kLockAttempts);
    // Without the lock the next line is checked, too.
    checkedAt = lock.IsOpen() ? second : -1;
    ready = CheckPlaceAndSize(line.size(), lock.IsOpen());
  }
  bool const written = ready && Append(line);
  if (lock.IsOpen()) flock(lock.Get(), LOCK_UN);  // a child forked meanwhile has a copy of it
  if (!written) Close();
  return written;
}

void FileLogPolicy::Close() noexcept {
  file = UniqueFd();
}

bool FileLogPolicy::NeedsCheck(std::size_t length) const noexcept {
  return !file.IsOpen() || uncheckedBytes + length > kUncheckedShare;
}

// The usual check. A second after the last one the file must be at its path; until then it is
// enough that it has a name, for what is written into a renamed file can be found. Below the lower
// mark no process begins a new file, with the lock or without it, so a line that fits there, and in
// the share, needs no lock.
bool FileLogPolicy::HasRoomInPlace(std::size_t length, time_t second) noexcept {
  struct stat opened {};
  if (length > kUncheckedShare || fstat(file.Get(), &opened) != 0) return false;
  bool const isThere = second == checkedAt ? opened.st_nlink > 0 : IsAtPath(opened);
  if (!isThere || !HasRoom(static_cast<std::size_t>(opened.st_size), length, kLowerMark))
    return false;
  checkedAt = second;
  uncheckedBytes = 0;
  return true;
}

// Without the lock two processes that open or rename the file at the same time could take each
// other's half-written line for a fragment, or the newer file for the older one; and the marks
// leave no room for a long line.
bool FileLogPolicy::NeedsLock(std::size_t length) const noexcept {
  std::size_t const size = SizeOf(file).value_or(kLimit);
  return length > kUncheckedShare || !HasRoom(size, length, kUpperMark) || !IsInPlace();
}

// Without the lock a process begins no new file below the upper mark.
bool FileLogPolicy::CheckPlaceAndSize(std::size_t length, bool isLocked) noexcept {
  uncheckedBytes = 0;
  return (IsInPlace() || Open(0)) && RotateIfFull(length, isLocked ? kLowerMark : kUpperMark);
}

bool FileLogPolicy::IsInPlace() const noexcept {
  struct stat opened {};
  return file.IsOpen() && fstat(file.Get(), &opened) == 0 && IsAtPath(opened);
}

// O_NONBLOCK: a pipe somebody left under this name must not stop the caller; a regular file does
// not mind.
bool FileLogPolicy::Open(int flags) noexcept {
  constexpr mode_t kMode = 0644;
  constexpr int kFlags = O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK;
  file = UniqueFd(OpenFile(kPath, kFlags | flags, kMode));
  struct stat status {};
  if (!file.IsOpen() || fstat(file.Get(), &status) != 0) return false;
  return S_ISREG(status.st_mode) && (status.st_size == 0 || EndFragment());
}

// What a power cut has left of a line must not become the beginning of another. A line that another
// process is just writing looks the same, but gets its end in a moment.
bool FileLogPolicy::EndFragment() noexcept {
  std::optional<char> last;
  Retry(kFragmentAttempts, kFragmentPause, [&] {
    last = LastByteOf(file);
    return !last || last == '\n';
  });
  return last && (last == '\n' || Append("\n"));
}

// Where the rename fails the file is emptied instead, so that the log never fills the device. After
// a rename that succeeded nothing is emptied: another process may have begun the new file already.
bool FileLogPolicy::RotateIfFull(std::size_t length, std::size_t limit) noexcept {
  auto const size = SizeOf(file);
  if (!size || HasRoom(*size, length, limit)) return size.has_value();
  bool const renamed = rename(kPath, kOlderPath) == 0;
  return Open(renamed ? 0 : O_TRUNC);
}

bool FileLogPolicy::Append(std::string_view line) noexcept {
  uncheckedBytes += line.size();
  std::size_t const written = WriteAll(file.Get(), line);
  if (written == line.size()) return true;
  RemoveFragment(written);
  return false;
}

// The part of a line that did fit on a full disk is cut off again, unless another process has
// appended a line to it already.
void FileLogPolicy::RemoveFragment(std::size_t fragment) noexcept {
  off_t const end = lseek(file.Get(), 0, SEEK_CUR);
  if (fragment == 0 || SizeOf(file) != static_cast<std::size_t>(end)) return;
  static_cast<void>(ftruncate(file.Get(), end - static_cast<off_t>(fragment)));
}

}  // namespace Tarvik::Ilog
