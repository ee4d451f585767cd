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

// A process looks at the file's size before it writes more than its share unseen. What 15 of them
// may write between their looks fits between the two marks.
constexpr std::size_t kLimit = std::size_t{1} << 20;
constexpr std::size_t kUnseenShare = 4096;
constexpr std::size_t kMark = kLimit - 16 * kUnseenShare;
static_assert(FileLogPolicy::kLongestLine == kMark);

// Only one process at a time judges the file's place and size, and then writes. Nobody waits long
// for another one, which may be stopped, and only for a line that the marks leave no room for.
UniqueFd TakeTurn(std::size_t length) noexcept {
  UniqueFd folder(OpenFile(kFolder, O_RDONLY | O_DIRECTORY));
  auto const take = [&] { return flock(folder.Get(), LOCK_EX | LOCK_NB) == 0; };
  bool const taken =
      folder.IsOpen() &&
      (take() || (length > kUnseenShare && Retry(20, std::chrono::milliseconds(1), take)));
  return taken ? std::move(folder) : UniqueFd();
}

std::optional<std::size_t> SizeOf(UniqueFd const& file) noexcept {
  struct stat status {};
  if (fstat(file.Get(), &status) != 0) return std::nullopt;
  return static_cast<std::size_t>(status.st_size);
}

}  // namespace

bool FileLogPolicy::Write(std::string_view line) noexcept {
  UniqueFd turn;
  bool ready = true;
  if (NeedsLook(line.size())) {
    turn = TakeTurn(line.size());
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

// Without its turn a process leaves the older file alone for as long as the limit allows, which
// takes a look with each line.
bool FileLogPolicy::Look(std::size_t length, bool hasTurn) noexcept {
  lookedAt = time(nullptr);
  unwatched = hasTurn ? 0 : kUnseenShare;
  return (IsInPlace() || Open(0)) && MakeWay(length, hasTurn ? kMark : kLimit);
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

// What a power cut has left of a line must not become the beginning of another.
bool FileLogPolicy::EndFragment() noexcept {
  char last = 0;
  bool const known = lseek(file.Get(), -1, SEEK_END) >= 0 && read(file.Get(), &last, 1) == 1;
  return known && (last == '\n' || Append("\n"));
}

// Where the rename fails the file is emptied instead, so that the log never fills the device.
bool FileLogPolicy::MakeWay(std::size_t length, std::size_t limit) noexcept {
  auto const size = SizeOf(file);
  if (!size || *size == 0 || *size + length < limit) return size.has_value();
  static_cast<void>(rename(kPath, kOlderPath));
  return Open(O_TRUNC);
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
