#include "bench/support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "base/UniqueFd.h"

namespace Bench {

namespace {

namespace fs = std::filesystem;

void Require(bool succeeded, std::string const& what) {
  if (!succeeded) throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

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
