#include "tests/card/CardFixture.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "base/Logger.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CounterFile.h"
#include "tests/support/ModificationTime.h"

namespace CardTests {

namespace fs = std::filesystem;

ProgramResult RunProgram(std::string const& command) {
  Capture::Descriptor output(1);
  int const status = std::system(command.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output.Text()};
}

std::string TextOf(fs::path const& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void WriteRecording(fs::path const& path, std::uint64_t bytes, std::time_t modified) {
  fs::create_directories(path.parent_path());
  Tarvik::UniqueFd const file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  std::string const content(bytes, path.filename().string().front());
  bool const written =
      write(file.Get(), content.data(), content.size()) == static_cast<ssize_t>(bytes);
  if (!written || !SetModificationTime(path, modified) || fsync(file.Get()) != 0) {
    throw std::runtime_error("cannot write " + path.string());
  }
}

std::set<std::string> NamesIn(fs::path const& directory) {
  std::set<std::string> names;
  for (auto const& entry : fs::directory_iterator(directory)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

bool IsMounted(fs::path const& directory) {
  struct stat inside {};
  struct stat outside {};
  stat(directory.c_str(), &inside);
  stat((directory / "..").c_str(), &outside);
  return inside.st_dev != outside.st_dev;
}

std::vector<std::string> MountsOn(std::string const& directory) {
  std::vector<std::string> found;
  std::ifstream mounts("/proc/mounts");
  for (std::string line; std::getline(mounts, line);) {
    if (line.find(" " + directory + " ") != std::string::npos) found.push_back(line);
  }
  return found;
}

Tarvik::UniqueFd KeepBusy(std::string const& path) {
  return Tarvik::UniqueFd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
}

CardTest::CardTest() {
  Tarvik::Ilog::Logger::GetInstance()->consoleSink->enabled = false;
}

CardTest::~CardTest() {
  Boot();
  unlink(CounterFile::kPath);
  Quellon::DiskUtils::Disk::deviceStatusList.clear();
  Machine::ForgetTrace();
}

void CardTest::Boot() {
  mount(nullptr, "/", nullptr, MS_REMOUNT, nullptr);
  for (char const* place : {kMountPoint, "/mnt/ramdisk"}) {
    while (umount2(place, MNT_DETACH) == 0) continue;
  }
}

}  // namespace CardTests
