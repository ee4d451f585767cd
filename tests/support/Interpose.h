// The C library as a test wants it. The test program defines the functions below itself, so the
// libraries under test call these instead of the C library's own. Unless a test says otherwise,
// fixed paths of the device lead into a private folder, sleeps are recorded and not slept, and
// whatever would change the machine (mount, unmount, reboot, shell commands, setting the clock) is
// recorded and refused.
#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Interpose {

/// What a hook answers: the function's result, and `errno` where that is a failure.
struct Answer {
  int result = 0;
  int error = 0;

  static Answer Success() { return {0, 0}; }
  static Answer Failure(int error) { return {-1, error}; }
};

/// A test's own answers, in force until `Reset`. An empty hook leaves the default in place. Hooks
/// may be called from any thread.
struct Hooks {
  std::function<Answer(std::string const& source, std::string const& target,
                       std::string const& type, unsigned long flags, std::string const& data)>
      mount;
  std::function<Answer(std::string const& target)> umount;
  std::function<Answer(std::string const& target, int flags)> umount2;
  std::function<Answer(int command)> reboot;
  std::function<Answer(std::string const& command)> system;
  std::function<Answer(long seconds)> setClock;
  std::function<Answer(unsigned long request, void* argument)> ioctl;
  std::function<Answer(std::string const& path, int mode)> access;
  std::function<Answer(std::string const& path, struct stat* status)> stat;
  std::function<Answer(std::string const& path, struct stat* status)> lstat;
  std::function<Answer(std::string const& path, struct statvfs* space)> statvfs;
  std::function<Answer(std::string const& path)> unlink;
  std::function<Answer(std::string const& from, std::string const& to)> rename;
  std::function<Answer(std::string const& path)> chdir;
  /// Not asked for what goes to the console.
  std::function<std::optional<ssize_t>(int fd, void const* data, std::size_t length)> write;
  std::function<void(std::chrono::nanoseconds)> sleep;
  /// Asked with the length of a pause: what is left of it when a signal arrives, nothing if none
  /// does. The part slept is recorded.
  std::function<std::optional<std::chrono::nanoseconds>(std::chrono::nanoseconds)> interrupt;
  std::function<void()> sync;
  std::optional<long> now;  ///< what time(2) says

  /// Asked before everything else, with the function's name: an `errno` makes the call fail.
  std::function<std::optional<int>(std::string const& function)> fault;
  /// The same, told also what the call is about: its path, command, request or number of seconds.
  std::function<std::optional<int>(std::string const& function, std::string const& subject)>
      faultAt;
};

/// The hooks in force. Set them in a test; `Reset` takes them back.
Hooks& hooks();

/// What happened since `Reset`, in order, one text a call: "mount SOURCE TARGET TYPE FLAGS DATA",
/// "umount TARGET", "umount2 TARGET FLAGS", "reboot COMMAND", "system COMMAND", "sync", "chdir
/// PATH", "sleep NANOSECONDS ns", "clock SECONDS", "unlink PATH".
std::vector<std::string> Trace();

/// The entries of the trace that begin with `prefix`.
std::vector<std::string> Traced(std::string const& prefix);

/// The text a pause of that length leaves in the trace.
std::string Sleep(std::chrono::nanoseconds duration);

/// The sum of all pauses since `Reset`.
std::chrono::nanoseconds Slept();

/// Where a path of the device really lies: "/dev/", "/sys/", "/root/", "/mnt/", "/var/log/" and
/// "/proc/" (where a test has made the entry) lead into the private folder.
std::filesystem::path Real(std::string const& path);

/// Makes a file of the device with its folders.
void MakeFile(std::string const& path, std::string const& content);

/// Removes a file of the device, or a folder with all it holds. Never reaches the machine's own.
void RemoveFile(std::string const& path);

/// The whole content of a file of the device.
std::string ReadFile(std::string const& path);

/// True while an interposed function does work of its own, so that memory it needs is not taken for
/// the library's.
bool IsWorking();

/// Removes hooks, trace and everything in the private folder.
void Reset();

}  // namespace Interpose
