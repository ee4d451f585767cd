// Paths, descriptors, streams and directories.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "tests/machine/Calls.h"

using namespace Machine;

namespace {

// A 32-bit kernel opens no file of 2 GiB or more for who does not say that it knows of such files.
// The 64-bit one underneath an emulator does.
bool IsTooLarge(char const* place, int flags) {
  if (sizeof(off_t) > 4 || (flags & O_LARGEFILE) != 0) return false;
  static auto* const next = TheReal<int(char const*, struct stat*)>("stat");
  struct stat status {};
  return next(place, &status) != 0 && errno == EOVERFLOW;
}

/// Reads or writes as a hook or a fault says, else as `transfer` does with what part of it is to be
/// done: all, or where less is done than was asked for, that.
template <typename Called, typename Transfer, typename... Arguments>
ssize_t Transferred(char const* function, Called const& hook, Transfer transfer, int fd,
                    Arguments... arguments) {
  if (auto const failure = FailureOn(function, fd)) {
    bool const isShort = failure->kind == Failure::Short;
    return isShort ? transfer(true) : Fail<ssize_t>(failure->value);
  }
  if (hook) {
    if (auto const result = hook(fd, arguments...)) return *result;
  }
  return transfer(false);
}

}  // namespace

extern "C" {

int open(char const* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  if (auto const failure = FailureOf("open", path)) return Fail(failure->value);
  Place const place(path);
  if (IsTooLarge(place, flags)) return Fail(EOVERFLOW);
  static auto* const next = TheReal<int(char const*, int, ...)>("open");
  int const opened = next(place, flags, mode);
  // Older kernels have no direct I/O for what is in memory, as the private folder is.
  bool const isRefused = opened < 0 && errno == EINVAL && (flags & O_DIRECT) != 0;
  return isRefused && Real(path) != path ? next(place, flags & ~O_DIRECT, mode) : opened;
}

FILE* fopen64(char const* path, char const* mode) {
  if (auto const failure = FailureOf("fopen", path)) return Fail<FILE*>(failure->value, nullptr);
  static auto* const next = TheReal<decltype(fopen64)>("fopen64");
  return next(Place(path), mode);
}

DIR* opendir(char const* path) {
  if (auto const failure = FailureOf("opendir", path)) return Fail<DIR*>(failure->value, nullptr);
  static auto* const next = TheReal<decltype(opendir)>("opendir");
  return next(Place(path));
}

dirent* readdir(DIR* directory) {
  static auto* const next = TheReal<decltype(readdir)>("readdir");
  return DoAndDeny<dirent*>("readdir", dirfd(directory), nullptr, [=] { return next(directory); });
}

int close(int fd) {
  static auto* const next = TheReal<decltype(close)>("close");
  return DoAndDeny("close", fd, -1, [=] { return next(fd); });
}

int fclose(FILE* file) {
  static auto* const next = TheReal<decltype(fclose)>("fclose");
  return DoAndDeny("fclose", fileno(file), EOF, [=] { return next(file); });
}

ssize_t read(int fd, void* data, std::size_t length) {
  static auto* const next = TheReal<decltype(read)>("read");
  auto const transfer = [=](bool isShort) { return next(fd, data, isShort ? 1 : length); };
  return Transferred("read", hooks().read, transfer, fd, data, length);
}

ssize_t pread64(int fd, void* data, std::size_t length, off64_t place) {
  static auto* const next = TheReal<decltype(pread64)>("pread64");
  auto const transfer = [=](bool isShort) { return next(fd, data, isShort ? 1 : length, place); };
  return Transferred("pread", hooks().pread, transfer, fd, data, length, place);
}

#if !QUELLON_TIME64  // else the two are one
ssize_t pread(int fd, void* data, std::size_t length, off_t offset) {
  static auto* const next = TheReal<ssize_t(int, void*, std::size_t, off_t)>("pread");
  auto const transfer = [=](bool isShort) { return next(fd, data, isShort ? 1 : length, offset); };
  return Transferred("pread", hooks().pread, transfer, fd, data, length, off64_t{offset});
}
#endif

ssize_t write(int fd, void const* data, std::size_t length) {
  static auto* const next = TheReal<decltype(write)>("write");
  auto const transfer = [=](bool isShort) { return next(fd, data, isShort ? length / 2 : length); };
  if (fd <= STDERR_FILENO) {
    auto const result = hooks().console ? hooks().console(fd, data, length) : std::nullopt;
    return result ? *result : transfer(false);
  }
  return Transferred("write", hooks().write, transfer, fd, data, length);
}

ssize_t writev(int fd, iovec const* parts, int count) {
  static auto* const next = TheReal<decltype(writev)>("writev");
  auto const transfer = [=](bool isShort) { return next(fd, parts, isShort ? 1 : count); };
  return Transferred("writev", hooks().writev, transfer, fd, parts, count);
}

int poll(pollfd* asked, nfds_t count, int milliseconds) {
  static auto* const next = TheReal<decltype(poll)>("poll");
  auto const call = [=] { return next(asked, count, milliseconds); };
  return Answered(hooks().poll, call, asked, count, milliseconds);
}

int fsync(int fd) {
  static auto* const next = TheReal<decltype(fsync)>("fsync");
  auto const call = [=] { return next(fd); };
  return DoAndDeny("fsync", fd, -1, [=] { return Answered(hooks().fsync, call, fd); });
}

// The private folder may be in memory, all of which a mistake must not take.
int fallocate(int fd, int mode, off_t offset, off_t length) {
  constexpr off_t kMost = 64 << 20;
  static auto* const next = TheReal<decltype(fallocate)>("fallocate");
  if (auto const failure = FailureOn("fallocate", fd)) return Fail(failure->value);
  auto const call = [=] {
    bool const isRefused = !profile().isReached && length > kMost;
    return isRefused ? Fail(ENOSPC) : next(fd, mode, offset, length);
  };
  return Answered(hooks().fallocate, call, fd, mode, offset, length);
}

int fstat(int fd, struct stat* status) noexcept {
  static auto* const next = TheReal<int(int, struct stat*)>("fstat");
  auto const call = [=] { return next(fd, status); };
  return DoAndDeny("fstat", fd, -1, [=] { return Answered(hooks().fstat, call, fd, status); });
}

int access(char const* path, int mode) noexcept {
  static auto* const next = TheReal<int(char const*, int)>("access");
  return Outcome(
      "access", hooks().access, [&] { return next(Place(path), mode); }, path, mode);
}

int stat(char const* __restrict path, struct stat* __restrict status) noexcept {
  static auto* const next = TheReal<int(char const*, struct stat*)>("stat");
  return Outcome(
      "stat", hooks().stat, [&] { return next(Place(path), status); }, path, status);
}

int lstat(char const* __restrict path, struct stat* __restrict status) noexcept {
  static auto* const next = TheReal<int(char const*, struct stat*)>("lstat");
  return Outcome(
      "lstat", hooks().lstat, [&] { return next(Place(path), status); }, path, status);
}

int statvfs(char const* __restrict path, struct statvfs* __restrict space) noexcept {
  static auto* const next = TheReal<int(char const*, struct statvfs*)>("statvfs");
  return Outcome(
      "statvfs", hooks().statvfs, [&] { return next(Place(path), space); }, path, space);
}

int unlink(char const* path) noexcept {
  Record("unlink", path);
  static auto* const next = TheReal<int(char const*)>("unlink");
  return Outcome(
      "unlink", hooks().unlink, [&] { return next(Place(path)); }, path);
}

int rename(char const* from, char const* to) noexcept {
  static auto* const next = TheReal<int(char const*, char const*)>("rename");
  return Outcome(
      "rename", hooks().rename, [&] { return next(Place(from), Place(to)); }, from, to);
}

int mkdir(char const* path, mode_t mode) noexcept {
  static auto* const next = TheReal<int(char const*, mode_t)>("mkdir");
  if (auto const failure = FailureOf("mkdir", path)) return Fail(failure->value);
  return next(Place(path), mode);
}

int chdir(char const* path) noexcept {
  Record("chdir", path);
  static auto* const next = TheReal<int(char const*)>("chdir");
  return Outcome(
      "chdir", hooks().chdir, [&] { return profile().isReached ? next(path) : 0; }, path);
}

ssize_t readlink(char const* path, char* target, std::size_t size) noexcept {
  static auto* const next = TheReal<ssize_t(char const*, char*, std::size_t)>("readlink");
  if (auto const failure = FailureOf("readlink", path)) return Fail(failure->value);
  return next(Place(path), target, size);
}

// What lies in the private folder is told as the device's.
char* realpath(char const* __restrict path, char* __restrict resolved) noexcept {
  static auto* const next = TheReal<char*(char const*, char*)>("realpath");
  if (auto const failure = FailureOf("realpath", path)) {
    return Fail<char*>(failure->value, nullptr);
  }
  char* const found = next(Place(path), resolved);
  std::string const real = Real(path);
  std::string const folder = real.substr(0, real.size() - std::strlen(path));
  bool const isInFolder = found != nullptr && std::string_view(found).starts_with(folder);
  if (isInFolder)
    std::memmove(found, found + folder.size(), std::strlen(found + folder.size()) + 1);
  return found;
}

}  // extern "C"
