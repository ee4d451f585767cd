#include "tests/machine/Machine.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <stdexcept>

#include "tests/machine/Calls.h"

namespace Machine {

namespace {

namespace fs = std::filesystem;

/// A folder of the program's own that goes with it.
class PrivateFolder {
 public:
  PrivateFolder() {
    std::string name = Parent() / "quellon-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder");
    path = name;
    owner = getpid();
  }
  ~PrivateFolder();
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

// Static objects of other files may call the functions below before this file's are made, and a
// leak checker after they have gone: nothing is redirected then.
Profile const* chosen = nullptr;

PrivateFolder::~PrivateFolder() {
  chosen = nullptr;
  std::error_code ignored;
  if (getpid() == owner) fs::remove_all(path, ignored);
}

struct Recorder {
  std::mutex mutex;
  std::vector<std::string> trace;
};

Recorder& recorder() {
  static auto* const instance = new Recorder;  // needed to the very end
  return *instance;
}

thread_local int working = 0;

constexpr std::string_view kSleep = "sleep ";

// A folder's name ends with a slash, but it is found without one, too: a folder of the machine's
// own must never be mistaken for it.
bool IsBelow(std::string_view path, std::string_view root) {
  bool const isFolder = root.ends_with('/');
  std::string_view const name = root.substr(0, root.size() - (isFolder ? 1 : 0));
  if (!path.starts_with(name)) return false;
  return !isFolder || path.size() == name.size() || path[name.size()] == '/';
}

bool IsRedirected(std::string_view path) {
  if (path.starts_with("/proc/self/fd/")) return false;  // leads to what is open, wherever that is
  for (auto const& root : profile().redirected) {
    if (!IsBelow(path, root)) continue;
    // The machine's own processes are the device's, too, until a test makes one.
    return root != "/proc/" || fs::exists(Folder().path / "proc");
  }
  return false;
}

std::string Redirected(std::string_view path) {
  return Folder().path.string().append(path);
}

// Calls do not reach what a test would keep in the folder under any other path: they would find the
// machine's own file instead.
fs::path DevicesOwn(std::string const& path) {
  auto const leadsTo = [&path](std::string const& root) { return IsBelow(path, root); };
  if (std::ranges::any_of(Device().redirected, leadsTo)) return Redirected(path);
  throw std::invalid_argument("no path of the device: " + path);
}

}  // namespace

Profile const& Device() {
  static auto const* const device =
      new Profile{{"/dev/mmcblk1", "/dev/watchdog", "/dev/rtc0", "/sys/", "/root/", "/mnt/",
                   "/var/log/", "/proc/"}};
  return *device;
}

Profile const& PrivateRoot() {
  static auto const* const root = new Profile{.isReached = true};
  return *root;
}

Profile const& PassOn() {
  static auto const* const machine =
      new Profile{.redirected = {"/var/log/"}, .isReached = true, .sleeps = true};
  return *machine;
}

Profile const& profile() {
  static auto const* const none = new Profile;
  return chosen == nullptr ? *none : *chosen;
}

void Reset(Profile const& profile) {
  hooks() = Hooks();
  ForgetTrace();
  if (!profile.redirected.empty()) Folder().Empty();
  chosen = &profile;
}

Hooks& hooks() {
  static auto* const instance = new Hooks;  // needed to the very end
  return *instance;
}

Work::Work() {
  ++working;
}

Work::~Work() {
  --working;
}

bool IsWorking() {
  return working > 0;
}

void Append(std::string const& call) {
  Work const work;
  std::lock_guard const lock(recorder().mutex);
  recorder().trace.push_back(call);
}

std::vector<std::string> Trace() {
  std::lock_guard const lock(recorder().mutex);
  return recorder().trace;
}

std::vector<std::string> Traced(std::string const& prefix) {
  std::vector<std::string> found;
  std::ranges::copy_if(Trace(), std::back_inserter(found),
                       [&](auto const& call) { return call.starts_with(prefix); });
  return found;
}

void ForgetTrace() {
  std::lock_guard const lock(recorder().mutex);
  recorder().trace.clear();
}

std::string Sleep(std::chrono::nanoseconds duration) {
  return std::string(kSleep) + std::to_string(duration.count()) + " ns";
}

std::chrono::nanoseconds Slept() {
  std::chrono::nanoseconds sum{0};
  for (auto const& pause : Traced(std::string(kSleep))) {
    sum += std::chrono::nanoseconds(std::stoll(pause.substr(kSleep.size())));
  }
  return sum;
}

Place::Place(char const* path) : place(path) {
  if (path == nullptr || !IsRedirected(path)) return;
  Work const work;
  redirected = Redirected(path);
  place = redirected.c_str();
}

fs::path Real(std::string const& path) {
  return IsRedirected(path) ? Redirected(path) : path;
}

std::optional<std::string> DevicePath(int fd) {
  if (profile().redirected.empty()) return std::nullopt;
  std::array<char, 4096> path{};
  std::string const link = "/proc/self/fd/" + std::to_string(fd);
  static auto* const next = TheReal<ssize_t(char const*, char*, std::size_t)>("readlink");
  ssize_t const length = next(link.c_str(), path.data(), path.size());
  std::string const found(path.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  std::string const folder = Folder().path;
  if (!found.starts_with(folder)) return std::nullopt;
  return found.substr(folder.size());
}

void MakeFile(std::string const& path, std::string const& content) {
  fs::path const real = DevicesOwn(path);
  fs::create_directories(real.parent_path());
  std::ofstream(real, std::ios::binary) << content;
}

void RemoveFile(std::string const& path) {
  fs::remove_all(Redirected(path));
}

std::string ReadFile(std::string const& path) {
  std::ifstream file(DevicesOwn(path), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace Machine
