// Every call of the C library that code under test makes about the device, failing one after the
// other. Defines some of the functions before the C library's, so include it in one source file of
// a test program only.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Interpose.h"
#include "tests/support/TheReal.h"

namespace FailingCalls {

/// How a call fails.
struct Failure {
  enum Kind { Error, Short, ExitCode } kind = Error;
  int value = 0;  ///< the `errno`, or a command's exit code; a short transfer has none

  [[nodiscard]] std::string Text() const {
    if (kind == Short) return "short";
    return kind == Error ? strerrorname_np(value) : "exit " + std::to_string(value);
  }
};

inline std::vector<Failure> Errors(std::vector<int> const& errors) {
  std::vector<Failure> failures;
  for (int const error : errors) failures.push_back({Failure::Error, error});
  return failures;
}

inline std::vector<Failure> With(Failure other, std::vector<Failure> failures) {
  failures.push_back(other);
  return failures;
}

/// What the manual pages list, and what the drivers of card, watchdog and clock give besides.
inline std::vector<Failure> const& FailuresOf(std::string const& function) {
  static auto const opening =
      Errors({EACCES, EBUSY,  EDQUOT,  EEXIST,     EFBIG,     EINTR,  EINVAL, EIO,   EISDIR,
              ELOOP,  EMFILE, ENFILE,  ENODEV,     ENOENT,    ENOMEM, ENOSPC, ENXIO, ENAMETOOLONG,
              EPERM,  EROFS,  ENOTDIR, EOPNOTSUPP, EOVERFLOW, EAGAIN, ETXTBSY});
  static auto const describing =
      Errors({EACCES, EBADF, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW});
  static auto const closing = Errors({EBADF, EINTR, EIO, ENOSPC, EDQUOT});
  static auto const writing =
      With({Failure::Short}, Errors({EAGAIN, EBADF, EDESTADDRREQ, EDQUOT, EFAULT, EFBIG, EINTR,
                                     EINVAL, EIO, ENOSPC, EPERM, EPIPE}));
  static auto const unmounting =
      Errors({EAGAIN, EBUSY, EFAULT, EINVAL, ENAMETOOLONG, ENOENT, ENOMEM, EPERM});
  static std::map<std::string, std::vector<Failure>> const failures = {
      {"access", Errors({EACCES, EFAULT, EINVAL, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR,
                         EPERM, EROFS, ETXTBSY})},
      {"stat", describing},
      {"lstat", describing},
      {"fstat", describing},
      {"statvfs", With({Failure::Error, EINTR}, With({Failure::Error, ENOSYS}, describing))},
      {"open", opening},
      {"fopen", opening},
      {"opendir", Errors({EACCES, EBADF, EIO, EMFILE, ENFILE, ENOENT, ENOMEM, ENOTDIR})},
      {"readdir", Errors({EBADF, EIO})},
      {"read", With({Failure::Short}, Errors({EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR}))},
      {"write", writing},
      {"writev", writing},
      {"fsync", Errors({EBADF, EDQUOT, EINTR, EINVAL, EIO, ENOSPC, EROFS})},
      {"close", closing},
      {"fclose", closing},
      {"unlink", Errors({EACCES, EBUSY, EFAULT, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM,
                         ENOTDIR, EPERM, EROFS})},
      {"rename",
       Errors({EACCES, EBUSY, EDQUOT, EEXIST, EFAULT, EINVAL, EIO, EISDIR, ELOOP, EMLINK,
               ENAMETOOLONG, ENOENT, ENOMEM, ENOSPC, ENOTDIR, ENOTEMPTY, EPERM, EROFS, EXDEV})},
      {"mkdir", Errors({EACCES, EDQUOT, EEXIST, EFAULT, EINVAL, EIO, ELOOP, EMLINK, ENAMETOOLONG,
                        ENOENT, ENOMEM, ENOSPC, ENOTDIR, EPERM, EROFS})},
      {"mount", Errors({EACCES, EBUSY, EFAULT, EINVAL, EIO, ELOOP, EMFILE, ENAMETOOLONG, ENODEV,
                        ENOENT, ENOMEM, ENOTBLK, ENOTDIR, ENXIO, EPERM, EROFS})},
      {"umount", unmounting},
      {"umount2", unmounting},
      {"chdir", Errors({EACCES, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR})},
      {"reboot", Errors({EFAULT, EINVAL, EPERM})},
      {"ioctl", Errors({EBADF, EBUSY, EFAULT, EINTR, EINVAL, EIO, ENODEV, ENOTTY, EOPNOTSUPP})},
      {"clock_settime", Errors({EACCES, EFAULT, EINVAL, ENODEV, ENOTSUP, EPERM})},
      {"nanosleep", Errors({EINTR})},
      {"system", With({Failure::ExitCode, 1},
                      With({Failure::ExitCode, 127}, Errors({EAGAIN, ECHILD, ENOMEM, ENOSYS})))}};
  return failures.at(function);
}

/// The private folder that stands for the device.
inline std::string const& Folder() {
  static std::string const mounts = Interpose::Real("/mnt/").string();
  static std::string const folder = mounts.substr(0, mounts.size() - std::strlen("/mnt/"));
  return folder;
}

/// The device's path of what a descriptor is open on; nothing for anything else.
inline std::optional<std::string> DevicePath(int fd) {
  std::array<char, 4096> path{};
  std::string const link = "/proc/self/fd/" + std::to_string(fd);
  ssize_t const length = readlink(link.c_str(), path.data(), path.size());
  std::string const found(path.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  if (!found.starts_with(Folder())) return std::nullopt;
  return found.substr(Folder().size());
}

/// While one exists, the call of that number, counted from 1, fails in the way of that number,
/// counted from 0. Only calls about the device count: its paths and whatever was opened by them,
/// commands, requests, pauses. Keeps the other hooks, which answer the calls that do not fail.
class Plan {
 public:
  Plan(int failingCall, std::size_t failingWay) : left(failingCall), way(failingWay) {
    auto& hooks = Interpose::hooks();
    hooks.faultAt = [this](std::string const& function, std::string const& subject) {
      auto const failure = Next(function, subject);
      if (failure && failure->kind == Failure::ExitCode) exitCode = failure->value;
      bool const fails = failure && failure->kind == Failure::Error;
      return fails ? std::optional(failure->value) : std::nullopt;
    };
    hooks.system = [this, answers = hooks.system](std::string const& command) {
      if (exitCode) return Interpose::Answer{*std::exchange(exitCode, std::nullopt) << 8, 0};
      return answers ? answers(command) : Interpose::Answer::Success();
    };
    hooks.interrupt = [this](std::chrono::nanoseconds pause) {
      return Next("nanosleep", "") ? std::optional(pause / 2) : std::nullopt;
    };
    hooks.write = [](int fd, void const* data, std::size_t length) -> std::optional<ssize_t> {
      auto const failure = NextOf("write", fd);
      if (!failure) return std::nullopt;
      if (failure->kind == Failure::Short) return syscall(SYS_write, fd, data, length / 2);
      errno = failure->value;
      return -1;
    };
    current = this;
  }
  Plan(Plan const&) = delete;
  Plan& operator=(Plan const&) = delete;
  ~Plan() {
    current = nullptr;
    Interpose::hooks() = {};
  }

  /// The call that failed and how, such as "access /dev/mmcblk1 (2): EIO" for the second such call;
  /// empty if there were fewer calls.
  [[nodiscard]] std::string const& Struck() const { return struck; }

  /// Whether the call that failed can fail in yet another way.
  [[nodiscard]] bool HasMoreWays() const { return moreWays; }

  std::optional<Failure> Next(std::string const& function, std::string const& subject) {
    if (left <= 0 || subject.starts_with(Folder())) return std::nullopt;  // a test's own call
    std::string const call = function + (subject.empty() ? "" : " ") + subject;
    int const number = ++calls[call];
    if (--left > 0) return std::nullopt;
    auto const& failures = FailuresOf(function);
    struck = call + " (" + std::to_string(number) + "): " + failures.at(way).Text();
    moreWays = way + 1 < failures.size();
    return failures[way];
  }

  /// The next failure of a function that is given a descriptor.
  static std::optional<Failure> NextOf(char const* function, int fd) {
    if (current == nullptr || Interpose::IsWorking()) return std::nullopt;
    auto const path = DevicePath(fd);
    return path ? current->Next(function, *path) : std::nullopt;
  }

 private:
  static inline Plan* current = nullptr;
  int left;
  std::size_t way;
  std::optional<int> exitCode;
  std::map<std::string, int> calls;
  std::string struck;
  bool moreWays = false;
};

inline ssize_t Fail(Failure const& failure) {
  errno = failure.value;
  return -1;
}

/// Makes the real call, whose success is then denied: a descriptor is gone also when its closing
/// reports a failure.
template <typename Result, typename Call>
Result DoAndDeny(char const* function, int fd, Result denied, Call call) {
  auto const failure = Plan::NextOf(function, fd);
  Result const result = call();
  if (!failure) return result;
  errno = failure->value;
  return denied;
}

}  // namespace FailingCalls

extern "C" {

ssize_t read(int fd, void* data, std::size_t length) {
  static auto* const next = TheReal<decltype(read)>("read");
  auto const failure = FailingCalls::Plan::NextOf("read", fd);
  if (!failure) return next(fd, data, length);
  return failure->kind == FailingCalls::Failure::Short ? next(fd, data, 1)
                                                       : FailingCalls::Fail(*failure);
}

ssize_t writev(int fd, iovec const* parts, int count) {
  static auto* const next = TheReal<decltype(writev)>("writev");
  auto const failure = FailingCalls::Plan::NextOf("writev", fd);
  if (!failure) return next(fd, parts, count);
  return failure->kind == FailingCalls::Failure::Short ? next(fd, parts, 1)
                                                       : FailingCalls::Fail(*failure);
}

int fsync(int fd) {
  static auto* const next = TheReal<int(int)>("fsync");
  return FailingCalls::DoAndDeny("fsync", fd, -1, [=] { return next(fd); });
}

int fstat(int fd, struct stat* status) noexcept {
  static auto* const next = TheReal<int(int, struct stat*)>("fstat");
  return FailingCalls::DoAndDeny("fstat", fd, -1, [=] { return next(fd, status); });
}

dirent* readdir(DIR* directory) {
  static auto* const next = TheReal<dirent*(DIR*)>("readdir");
  return FailingCalls::DoAndDeny<dirent*>("readdir", dirfd(directory), nullptr,
                                          [=] { return next(directory); });
}

int close(int fd) {
  static auto* const next = TheReal<int(int)>("close");
  return FailingCalls::DoAndDeny("close", fd, -1, [=] { return next(fd); });
}

int fclose(FILE* file) {
  static auto* const next = TheReal<int(FILE*)>("fclose");
  return FailingCalls::DoAndDeny("fclose", fileno(file), EOF, [=] { return next(file); });
}

}  // extern "C"
