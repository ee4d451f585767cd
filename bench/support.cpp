#include "bench/support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "base/UniqueFd.h"
#include "tests/support/TheReal.h"

namespace Bench {

namespace {

namespace fs = std::filesystem;

std::atomic<int> pausesLeftOut = 0;

class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = "/dev/shm/quellon-bench-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no folder in /dev/shm");
    path = name;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
  fs::path path;
};

void Require(bool succeeded, std::string const& what) {
  if (!succeeded) throw std::system_error(errno, std::generic_category(), what);
}

constexpr std::string_view kLogs = "/var/log/";

bool IsLog(std::string_view path) {
  return path.starts_with(kLogs);
}

std::string Real(char const* path) {
  return IsLog(path) ? Folder() / std::string_view(path).substr(kLogs.size()) : path;
}

}  // namespace

fs::path const& Folder() {
  static TemporaryFolder const folder;
  return folder.path;
}

WithoutPauses::WithoutPauses() {
  ++pausesLeftOut;
}

WithoutPauses::~WithoutPauses() {
  --pausesLeftOut;
}

void Redirect(int descriptor, fs::path const& file) {
  Tarvik::UniqueFd const opened(
      open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  Require(opened.IsOpen() && dup2(opened.Get(), descriptor) >= 0, file);
}

std::vector<std::string> MakeRecordings(fs::path const& directory, std::size_t count,
                                        std::string const& extension, std::size_t bytes,
                                        long oldest) {
  fs::create_directories(directory);
  std::vector<std::string> names;
  names.reserve(count);
  for (std::size_t number = 0; number < count; ++number) {
    std::array<char, 32> name{};
    std::snprintf(name.data(), name.size(), "rec_%06zu", number);
    names.push_back(name.data() + extension);
    std::string const path = directory / names.back();
    Tarvik::UniqueFd const file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    timespec const modified{oldest + static_cast<long>(number), 0};
    std::array const times{modified, modified};
    Require(file.IsOpen() && ftruncate(file.Get(), static_cast<off_t>(bytes)) == 0 &&
                futimens(file.Get(), times.data()) == 0,
            path);
  }
  return names;
}

Quellon::DiskUtils::Disk Card() {
  std::ostringstream complaint;  // there is no such device, and that is said
  auto* const output = std::cout.rdbuf(complaint.rdbuf());
  Quellon::DiskUtils::Disk card(Folder().string() + "/", "/dev/none", "none");
  std::cout.rdbuf(output);
  card.available = true;
  return card;
}

}  // namespace Bench

// The library's calls come here because the program defines the functions itself.
extern "C" {

int open(char const* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  static auto* const next = TheReal<int(char const*, int, ...)>("open");
  return next(Bench::Real(path).c_str(), flags, mode);
}

int lstat(char const* __restrict path, struct stat* __restrict status) noexcept {
  static auto* const next = TheReal<int(char const*, struct stat*)>("lstat");
  // Asked for each file of a catalogue, whose own work is to be seen.
  return next(Bench::IsLog(path) ? Bench::Real(path).c_str() : path, status);
}

int rename(char const* from, char const* to) noexcept {
  static auto* const next = TheReal<int(char const*, char const*)>("rename");
  return next(Bench::Real(from).c_str(), Bench::Real(to).c_str());
}

int usleep(useconds_t microseconds) {
  if (Bench::pausesLeftOut > 0) return 0;
  static auto* const next = TheReal<int(useconds_t)>("usleep");
  return next(microseconds);
}

}  // extern "C"
