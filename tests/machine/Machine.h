// A stand-in for the machine, as a test wants it. The test program itself defines calls of the C
// library, in the files below, so the libraries call these instead of the C library's own. A hook
// of the test decides what a call does, or else the profile. None can reboot the machine.
//
//   Files.cpp       paths, descriptors, streams, directories
//   System.cpp      mounting, commands, devices, restart
//   Time.cpp        pauses, clocks, the calendar
//   Threads.h       threads, locks and semaphores; linked where a program asks for it
//   Allocation.h    memory that runs out; the same
//   Objects.h       objects of the library itself; the same
//   Failures.h      every call and every allocation of a scenario failing in turn
#pragma once

#include <poll.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Quellon::FileUtils {
class Ifile;
}

namespace Machine {

/// What happens to calls that no hook answers.
struct Profile {
  /// Paths that lead into a private folder, each with all that lies below it.
  std::vector<std::string> redirected = {};
  /// Whether mounts, commands, the clock's time, the working directory and flushing the disks reach
  /// the machine. A command to reboot never does, nor reboot(2).
  bool isReached = false;
  /// Whether pauses are slept.
  bool sleeps = false;
};

/// The device in a folder: its paths lead there, pauses are recorded, and whatever would change
/// this machine is recorded and refused. For programs that may run anywhere.
Profile const& Device();

/// A card in a root of its own: all but restarts and pauses reach that.
Profile const& PrivateRoot();

/// This machine, but for the log, which is written in a folder. For benchmarks.
Profile const& PassOn();

/// Chooses a profile, and forgets hooks, trace and everything in the private folder. Until then,
/// nothing is redirected, and what would change the machine is refused.
void Reset(Profile const& profile = Device());

/// What a hook answers: the function's result, and `errno` where that is a failure.
struct Answer {
  int result = 0;
  int error = 0;

  static Answer Success() { return {0, 0}; }
  static Answer Failure(int error) { return {-1, error}; }
};

/// How a call fails.
struct Failure {
  enum Kind {
    Error,     ///< with an `errno`
    Short,     ///< less is read or written than was asked for
    ExitCode,  ///< of a command
  };

  Failure(int error) : kind(Error), value(error) {}
  Failure(Kind failureKind, int failureValue) : kind(failureKind), value(failureValue) {}

  Kind kind;
  int value;
};

/// A call and what it is about: a path, also that of a descriptor; a command, request or number of
/// seconds.
struct Call {
  std::string function;
  std::string subject;
};

/// A hook that gives no answer leaves the call to the profile.
template <typename... Arguments>
using Hook = std::function<std::optional<Answer>(Arguments...)>;

/// The result of reading or writing; `errno` is the hook's to set.
template <typename... Arguments>
using TransferHook = std::function<std::optional<ssize_t>(int fd, Arguments...)>;

/// A test's own answers, in force until `Reset`. They may be asked from any thread.
struct Hooks {
  /// Asked before every other hook whether and how a call fails. Calls on descriptors are asked
  /// about where the descriptor is the device's. Pauses fail half way, by a signal.
  std::function<std::optional<Failure>(Call const& call)> fault;

  Hook<std::string const& /*path*/, int /*mode*/> access;
  Hook<std::string const& /*path*/, struct stat*> stat;
  Hook<std::string const& /*path*/, struct stat*> lstat;
  Hook<int /*fd*/, struct stat*> fstat;
  Hook<std::string const& /*path*/, struct statvfs*> statvfs;
  Hook<std::string const& /*path*/> unlink;
  Hook<std::string const& /*from*/, std::string const& /*to*/> rename;
  Hook<std::string const& /*path*/> chdir;
  Hook<int /*fd*/> fsync;
  Hook<int /*fd*/, int /*mode*/, off_t /*offset*/, off_t /*length*/> fallocate;
  TransferHook<void* /*data*/, std::size_t> read;
  TransferHook<void* /*data*/, std::size_t, off64_t /*place*/> pread;  ///< and pread64
  TransferHook<void const* /*data*/, std::size_t> write;    ///< not asked for what the console gets
  TransferHook<void const* /*data*/, std::size_t> console;  ///< asked for what that gets
  TransferHook<iovec const* /*parts*/, int /*count*/> writev;

  /// Asked before anything is waited for.
  Hook<pollfd* /*asked*/, nfds_t /*count*/, int /*milliseconds*/> poll;

  Hook<std::string const& /*source*/, std::string const& /*target*/, std::string const& /*type*/,
       unsigned long /*flags*/, std::string const& /*data*/>
      mount;
  Hook<std::string const& /*target*/> umount;
  Hook<std::string const& /*target*/, int /*flags*/> umount2;
  Hook<int /*command*/> reboot;
  Hook<std::string const& /*command*/> system;
  std::function<FILE*(std::string const& command, std::string const& mode)> popen;
  Hook<unsigned long /*request*/, void* /*argument*/> ioctl;
  std::function<void()> sync;

  Hook<std::int64_t /*seconds*/> setClock;
  std::optional<std::int64_t> now;    ///< what time(2) says
  std::optional<timespec> monotonic;  ///< what the clock says that nobody sets
  /// The same, since it began, where one thread asks while another makes time go by.
  std::function<std::chrono::nanoseconds()> steady;
  std::function<void()> localTime;  ///< what happens while a calendar date is asked for
  std::function<void(std::chrono::nanoseconds)> sleep;  ///< instead of sleeping
  /// Asked with the length of a pause: what is left of it when a signal arrives, nothing if none
  /// does.
  std::function<std::optional<std::chrono::nanoseconds>(std::chrono::nanoseconds)> interrupt;

  /// @{ What functions of the library do instead; they may throw. See Objects.h.
  std::function<bool(Quellon::FileUtils::Ifile&)> removeFile;
  std::function<bool(int counter)> saveStatusCounter;
  std::function<void()> scanDisk;
  /// @}
  /// What happens first where a semaphore is raised, as each line of the log raises two.
  std::function<void(sem_t const*)> raiseSemaphore;
};

/// The hooks in force. Set them in a test; `Reset` takes them back.
Hooks& hooks();

/// What happened since `Reset`, in order, one text a call: "mount SOURCE TARGET TYPE FLAGS DATA",
/// "umount TARGET", "umount2 TARGET FLAGS", "reboot COMMAND", "system COMMAND", "popen COMMAND
/// MODE", "sync", "chdir PATH", "sleep NANOSECONDS ns", "clock SECONDS", "unlink PATH". With the
/// profile `PassOn` nothing is recorded.
std::vector<std::string> Trace();

/// The entries of the trace that begin with `prefix`.
std::vector<std::string> Traced(std::string const& prefix);

/// Forgets the trace alone.
void ForgetTrace();

/// The text a pause of that length leaves in the trace.
std::string Sleep(std::chrono::nanoseconds duration);

/// The sum of all pauses since `Reset`.
std::chrono::nanoseconds Slept();

/// Where a path of the device really lies.
std::filesystem::path Real(std::string const& path);

/// The device's path of what a descriptor is open on; nothing for anything else.
std::optional<std::string> DevicePath(int fd);

/// Makes a file of the device with its folders. Throws for a path that leads to the machine's own.
void MakeFile(std::string const& path, std::string const& content);

/// Removes a file of the device, or a folder with all it holds. Never reaches the machine's own.
void RemoveFile(std::string const& path);

/// The whole content of a file of the device. Throws for a path that leads to the machine's own.
std::string ReadFile(std::string const& path);

/// True while this thread works for the stand-in itself, so that the memory and calls it needs for
/// that are not taken for the library's.
bool IsWorking();

}  // namespace Machine
