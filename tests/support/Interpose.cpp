#include "tests/support/Interpose.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include "tests/support/TheReal.h"

namespace Interpose {

namespace {

namespace fs = std::filesystem;

// Static objects of other files may call the functions below before this file's are made, and a
// leak checker after they have gone.
bool active = false;

/// A folder of the program's own that goes with it.
class PrivateFolder {
 public:
  PrivateFolder() {
    std::string name = Parent() / "quellon-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder");
    path = name;
    owner = getpid();
  }
  ~PrivateFolder() {
    active = false;
    std::error_code ignored;
    if (getpid() == owner) fs::remove_all(path, ignored);
  }
  void Empty() const {
    std::error_code ignored;
    for (auto const& entry : fs::directory_iterator(path)) fs::remove_all(entry, ignored);
  }
  fs::path path;

 private:
  // In memory if possible: some tests make and remove thousands of files.
  static fs::path Parent() {
    bool const free = std::getenv("TMPDIR") == nullptr && fs::is_directory("/dev/shm");
    return free ? fs::path("/dev/shm") : fs::temp_directory_path();
  }

  pid_t owner;
};

PrivateFolder& Folder() {
  static PrivateFolder folder;
  return folder;
}

struct Recorder {
  std::mutex mutex;
  std::vector<std::string> trace;
  std::chrono::nanoseconds slept{0};
};

Recorder& recorder() {
  static Recorder instance;
  return instance;
}

thread_local int working = 0;

struct Work {
  Work() { ++working; }
  Work(Work const&) = delete;
  Work& operator=(Work const&) = delete;
  ~Work() { --working; }
};

template <typename... Words>
void Record(Words const&... words) {
  Work const work;
  std::ostringstream text;
  std::size_t count = 0;
  ((text << (count++ == 0 ? "" : " ") << words), ...);
  std::lock_guard const lock(recorder().mutex);
  recorder().trace.push_back(text.str());
}

template <typename Subject, typename... Others>
std::optional<int> Fault(char const* function, Subject const& subject,
                         Others const&... /*others*/) {
  if (!active) return std::nullopt;
  auto const error = hooks().fault ? hooks().fault(function) : std::nullopt;
  if (error || !hooks().faultAt) return error;
  std::ostringstream text;
  text << subject;
  return hooks().faultAt(function, text.str());
}

int Give(Answer answer) {
  if (answer.result < 0) errno = answer.error;
  return answer.result;
}

/// The hook's answer if there is one, else what `otherwise` returns; a fault comes first.
template <typename Hook, typename Otherwise, typename... Arguments>
int Ask(char const* function, Hook const& hook, Otherwise otherwise,
        Arguments const&... arguments) {
  Work const work;
  if (auto const error = Fault(function, arguments...)) return Give(Answer::Failure(*error));
  if (active && hook) return Give(hook(arguments...));
  return otherwise();
}

int Refuse() {
  return Give(Answer::Failure(EPERM));
}

// With or without a slash at the end: a folder of the machine's own must never be mistaken for it.
bool LeadsToDevice(std::string const& path) {
  for (char const* const root :
       {"/dev/mmcblk1", "/dev/watchdog", "/dev/rtc0", "/sys/", "/root/", "/mnt/", "/var/log/"}) {
    if ((path + "/").starts_with(root)) return true;
  }
  return path.starts_with("/proc") && fs::exists(Folder().path / "proc");
}

void RecordSleep(std::chrono::nanoseconds duration) {
  Record("sleep", duration.count(), "ns");
  {
    std::lock_guard const lock(recorder().mutex);
    recorder().slept += duration;
  }
  if (hooks().sleep) hooks().sleep(duration);
}

// A 32-bit kernel opens no file of 2 GiB or more for who does not say that it knows of such files.
// The 64-bit one underneath an emulator does.
bool IsTooLarge(char const* path, int flags) {
  if (sizeof(off_t) > 4 || (flags & O_LARGEFILE) != 0) return false;
  static auto* const next = TheReal<int(char const*, struct stat*)>("stat");
  struct stat status {};
  return next(Real(path).c_str(), &status) != 0 && errno == EOVERFLOW;
}

}  // namespace

Hooks& hooks() {
  static Hooks instance;
  return instance;
}

bool IsWorking() {
  return working > 0;
}

std::vector<std::string> Trace() {
  std::lock_guard const lock(recorder().mutex);
  return recorder().trace;
}

std::vector<std::string> Traced(std::string const& prefix) {
  std::vector<std::string> found;
  for (auto const& entry : Trace()) {
    if (entry.starts_with(prefix)) found.push_back(entry);
  }
  return found;
}

std::string Sleep(std::chrono::nanoseconds duration) {
  return "sleep " + std::to_string(duration.count()) + " ns";
}

std::chrono::nanoseconds Slept() {
  std::lock_guard const lock(recorder().mutex);
  return recorder().slept;
}

fs::path Real(std::string const& path) {
  return active && LeadsToDevice(path) ? fs::path(Folder().path.string() + path) : fs::path(path);
}

void MakeFile(std::string const& path, std::string const& content) {
  fs::path const real = Folder().path.string() + path;
  fs::create_directories(real.parent_path());
  std::ofstream(real, std::ios::binary) << content;
}

void RemoveFile(std::string const& path) {
  fs::remove_all(Folder().path.string() + path);
}

std::string ReadFile(std::string const& path) {
  std::ifstream file(Folder().path.string() + path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void Reset() {
  hooks() = Hooks();
  Folder().Empty();
  std::lock_guard const lock(recorder().mutex);
  recorder().trace.clear();
  recorder().slept = {};
  active = true;
}

}  // namespace Interpose

using namespace Interpose;

extern "C" {

int mount(char const* source, char const* target, char const* type, unsigned long flags,
          void const* data) noexcept {
  char const* const options = static_cast<char const*>(data);
  Record("mount", source, target, type, flags, options);
  return Ask("mount", hooks().mount, Refuse, source, target, type, flags, options);
}

int umount(char const* target) noexcept {
  Record("umount", target);
  return Ask("umount", hooks().umount, Refuse, target);
}

int umount2(char const* target, int flags) noexcept {
  Record("umount2", target, flags);
  return Ask("umount2", hooks().umount2, Refuse, target, flags);
}

int reboot(int command) noexcept {
  Record("reboot", command);
  return Ask("reboot", hooks().reboot, Refuse, command);
}

int system(char const* command) {
  Record("system", command);
  return Ask("system", hooks().system, Refuse, command);
}

void sync() noexcept {
  if (hooks().sync) hooks().sync();
  Record("sync");
}

int clock_settime(clockid_t, timespec const* time) noexcept {
  Record("clock", time->tv_sec);
  return Ask("clock_settime", hooks().setClock, Refuse, time->tv_sec);
}

int chdir(char const* path) noexcept {
  Record("chdir", path);
  return Ask(
      "chdir", hooks().chdir, [] { return 0; }, path);
}

int nanosleep(timespec const* duration, timespec* remaining) {
  auto const wanted =
      std::chrono::seconds(duration->tv_sec) + std::chrono::nanoseconds(duration->tv_nsec);
  auto const left = hooks().interrupt ? hooks().interrupt(wanted) : std::nullopt;
  RecordSleep(wanted - left.value_or(std::chrono::nanoseconds(0)));
  if (!left) return 0;
  auto const seconds = std::chrono::floor<std::chrono::seconds>(*left);
  *remaining = {static_cast<time_t>(seconds.count()), static_cast<long>((*left - seconds).count())};
  return Give(Answer::Failure(EINTR));
}

int usleep(useconds_t microseconds) {
  RecordSleep(std::chrono::microseconds(microseconds));
  return 0;
}

time_t time(time_t* result) noexcept {
  time_t const now = active && hooks().now ? *hooks().now : [] {
    timespec clock{};
    clock_gettime(CLOCK_REALTIME, &clock);
    return clock.tv_sec;
  }();
  if (result != nullptr) *result = now;
  return now;
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  static auto* const next = TheReal<int(int, unsigned long, ...)>("ioctl");
  return Ask(
      "ioctl", hooks().ioctl, [&] { return next(fd, request, argument); }, request, argument);
}

int open(char const* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  Work const work;
  if (auto const error = Fault("open", path)) return Give(Answer::Failure(*error));
  if (IsTooLarge(path, flags)) return Give(Answer::Failure(EOVERFLOW));
  static auto* const next = TheReal<int(char const*, int, ...)>("open");
  return next(Real(path).c_str(), flags, mode);
}

FILE* fopen64(char const* path, char const* mode) {
  static auto* const next = TheReal<FILE*(char const*, char const*)>("fopen64");
  Work const work;
  if (auto const error = Fault("fopen", path)) {
    errno = *error;
    return nullptr;
  }
  return next(Real(path).c_str(), mode);
}

DIR* opendir(char const* path) {
  static auto* const next = TheReal<DIR*(char const*)>("opendir");
  Work const work;
  if (auto const error = Fault("opendir", path)) {
    errno = *error;
    return nullptr;
  }
  return next(Real(path).c_str());
}

int access(char const* path, int mode) noexcept {
  static auto* const next = TheReal<int(char const*, int)>("access");
  return Ask(
      "access", hooks().access, [&] { return next(Real(path).c_str(), mode); }, path, mode);
}

int stat(char const* __restrict path, struct stat* __restrict status) noexcept {
  static auto* const next = TheReal<int(char const*, struct stat*)>("stat");
  return Ask(
      "stat", hooks().stat, [&] { return next(Real(path).c_str(), status); }, path, status);
}

int lstat(char const* __restrict path, struct stat* __restrict status) noexcept {
  static auto* const next = TheReal<int(char const*, struct stat*)>("lstat");
  return Ask(
      "lstat", hooks().lstat, [&] { return next(Real(path).c_str(), status); }, path, status);
}

int statvfs(char const* __restrict path, struct statvfs* __restrict space) noexcept {
  static auto* const next = TheReal<int(char const*, struct statvfs*)>("statvfs");
  return Ask(
      "statvfs", hooks().statvfs, [&] { return next(Real(path).c_str(), space); }, path, space);
}

int unlink(char const* path) noexcept {
  Record("unlink", path);
  static auto* const next = TheReal<int(char const*)>("unlink");
  return Ask(
      "unlink", hooks().unlink, [&] { return next(Real(path).c_str()); }, path);
}

int rename(char const* from, char const* to) noexcept {
  static auto* const next = TheReal<int(char const*, char const*)>("rename");
  return Ask(
      "rename", hooks().rename, [&] { return next(Real(from).c_str(), Real(to).c_str()); }, from,
      to);
}

int mkdir(char const* path, mode_t mode) noexcept {
  static auto* const next = TheReal<int(char const*, mode_t)>("mkdir");
  Work const work;
  if (auto const error = Fault("mkdir", path)) return Give(Answer::Failure(*error));
  return next(Real(path).c_str(), mode);
}

ssize_t write(int fd, void const* data, std::size_t length) {
  static auto* const next = TheReal<ssize_t(int, void const*, std::size_t)>("write");
  if (active && hooks().write && fd > STDERR_FILENO) {
    if (auto const result = hooks().write(fd, data, length)) return *result;
  }
  return next(fd, data, length);
}

}  // extern "C"
