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

// A process looks at the file's size before it writes more than its share unseen. With its turn it
// begins a new file at the lower mark, without it at the upper one, and what 15 of them may write
// after they have looked fits between that and the limit.
constexpr std::size_t kLimit = std::size_t{1} << 20;
constexpr std::size_t kUnseenShare = 2048;
constexpr std::size_t kUpperMark = kLimit - 16 * kUnseenShare;
constexpr std::size_t kMark = kUpperMark - 16 * kUnseenShare;
static_assert(FileLogPolicy::kLongestLine == kMark);

constexpr int kPatience = 20;  // milliseconds

// Only one process at a time judges the file's place and size, and then writes. Nobody waits long
// for another one, which may be stopped: `attempts` milliseconds at most.
UniqueFd TakeTurn(int attempts) noexcept {
  UniqueFd folder(OpenFile(kFolder, O_RDONLY | O_DIRECTORY));
  auto const take = [&] { return flock(folder.Get(), LOCK_EX | LOCK_NB) == 0; };
  bool const taken =
      folder.IsOpen() && (take() || Retry(attempts, std::chrono::milliseconds(1), take) != 0);
  return taken ? std::move(folder) : UniqueFd();
}

std::optional<std::size_t> SizeOf(UniqueFd const& file) noexcept {
  struct stat status {};
  if (fstat(file.Get(), &status) != 0) return std::nullopt;
  return static_cast<std::size_t>(status.st_size);
}

// An empty file has room for every line.
bool HasRoom(std::size_t size, std::size_t length, std::size_t limit) noexcept {
  return size == 0 || size + length < limit;
}

}  // namespace

bool FileLogPolicy::Write(std::string_view line) noexcept {
  UniqueFd turn;
  bool ready = true;
  if (NeedsLook(line.size())) {
    turn = TakeTurn(0);
    if (!turn.IsOpen() && NeedsTurn(line.size())) turn = TakeTurn(kPatience);
    ready = Look(line.size(), turn.IsOpen());
  }
  bool const written = ready && Append(line);
  if (turn.IsOpen()) flock(turn.Get(), LOCK_UN);  // a child forked meanwhile has a copy of it
  if (!written) Close();
  return written;
}

void FileLogPolicy::Close() noexcept {
  file = UniqueFd();
}

bool FileLogPolicy::NeedsLook(std::size_t length) const noexcept {
  return !file.IsOpen() || unwatched + length > kUnseenShare || time(nullptr) != lookedAt;
}

// Two that open or rename the file at the same time could take a line under way for a fragment, or
// the newer file for the older one; and the marks leave no room for a long line.
bool FileLogPolicy::NeedsTurn(std::size_t length) const noexcept {
  auto const size = SizeOf(file);
  return length > kUnseenShare || !size || !HasRoom(*size, length, kUpperMark) || !IsInPlace();
}

// Without its turn a process leaves the older file alone up to the upper mark, which takes a
// look with each line.
bool FileLogPolicy::Look(std::size_t length, bool hasTurn) noexcept {
  lookedAt = time(nullptr);
  unwatched = hasTurn ? 0 : kUnseenShare;
  return (IsInPlace() || Open(0)) && MakeWay(length, hasTurn ? kMark : kUpperMark);
}

bool FileLogPolicy::IsInPlace() const noexcept {
  struct stat opened {};
  struct stat named {};
  return file.IsOpen() && fstat(file.Get(), &opened) == 0 && lstat(kPath, &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
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

// What a power cut has left of a line must not become the beginning of another. What another
// process is writing at the moment looks alike, but not for long.
bool FileLogPolicy::EndFragment() noexcept {
  char last = 0;
  auto const readLast = [&] {
    return lseek(file.Get(), -1, SEEK_END) >= 0 && read(file.Get(), &last, 1) == 1;
  };
  bool known = true;
  Retry(3, std::chrono::milliseconds(1), [&] { return !(known = readLast()) || last == '\n'; });
  return known && (last == '\n' || Append("\n"));
}

// Where the rename fails the file is emptied instead, so that the log never fills the device. Only
// there: behind a rename another process may have begun the new file already.
bool FileLogPolicy::MakeWay(std::size_t length, std::size_t limit) noexcept {
  auto const size = SizeOf(file);
  if (!size || HasRoom(*size, length, limit)) return size.has_value();
  bool const renamed = rename(kPath, kOlderPath) == 0;
  return Open(renamed ? 0 : O_TRUNC);
}

bool FileLogPolicy::Append(std::string_view line) noexcept {
  unwatched += line.size();
  std::size_t const written = WriteAll(file.Get(), line);
  if (written == line.size()) return true;
  TakeBack(written);
  return false;
}

// A line that did not fit on the disk leaves nothing, unless another one follows it already.
void FileLogPolicy::TakeBack(std::size_t fragment) noexcept {
  off_t const end = lseek(file.Get(), 0, SEEK_CUR);
  auto const size = SizeOf(file);
  if (fragment == 0 || !size || static_cast<off_t>(*size) != end) return;
  static_cast<void>(ftruncate(file.Get(), end - static_cast<off_t>(fragment)));
}

}  // namespace Tarvik::Ilog
