// The work that recurs, for what counts instructions: one kind of it, named by the argument, is
// repeated 1,000 times. What prepares it does not count.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "FileUtils/FilesManager.h"
#include "base/ConsoleGuard.h"
#include "base/Logger.h"
#include "base/UniqueFd.h"
#include "base/internal/UniqueDir.h"
#include "bench/support.h"

namespace {

using Quellon::FileUtils::FilesManager;
using Tarvik::Ilog::LogLine;

constexpr unsigned long long kTimes = 1000;
constexpr char const* kName = "rec_000042.dat";

void Require(bool done) {
  if (!done) throw std::runtime_error("the work was not done");
}

void LogLines() {
  for (std::size_t i = 0; i < kTimes; ++i)
    LogLine(Tarvik::Ilog::Info) << "[SYSTEM] recording " << kName << " size " << kTimes;
}

/// As many recordings as fill the card many times over.
class FullCatalogue {
 public:
  FullCatalogue() {
    auto const bytes = static_cast<std::size_t>(card.totalBytes);
    for (auto const& name : Bench::MakeRecordings(directory, kTimes, ".dat", bytes))
      paths.push_back(directory / name);
  }
  void Load() { Require(catalogue.LoadAndSort() && catalogue.GetList().size() == kTimes); }
  void MakeRoom() { Require(catalogue.MakeRoom() && catalogue.GetList().empty()); }
  [[nodiscard]] std::string Directory() const { return directory.string() + "/"; }
  [[nodiscard]] std::vector<std::string> const& Paths() const { return paths; }

 private:
  static Quellon::DiskUtils::Disk MeasuredCard() {
    auto card = Bench::Card();
    card.LoadDiskInfo();
    return card;
  }

  std::filesystem::path directory = Bench::Folder() / "cr";
  std::vector<std::string> paths;  // oldest first
  Quellon::DiskUtils::Disk card = MeasuredCard();
  FilesManager catalogue{&card, directory.string() + "/", 0, 1.0F};
};

/// Processor time of this thread in nanoseconds.
long long Now() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

/// Says how long each of the 1,000 took; nobody is interested in that where callgrind counts.
template <typename Work>
void Count(Work work) {
  auto const start = Now();
  CALLGRIND_TOGGLE_COLLECT;
  work();
  CALLGRIND_TOGGLE_COLLECT;
  std::cerr << (Now() - start) / static_cast<long long>(kTimes) << '\n';
}

void CountLogLines() {
  LogLines();
  Count(LogLines);
}

// The same where a guard keeps the console from stopping the program. A pipe takes them all.
void CountGuardedLogLines() {
  constexpr int kRoom = 1 << 20;
  std::array<int, 2> ends;
  Require(pipe2(ends.data(), O_CLOEXEC) == 0);
  Tarvik::UniqueFd const reader(ends[0]);
  Tarvik::UniqueFd const writer(ends[1]);
  Require(fcntl(writer.Get(), F_SETPIPE_SZ, kRoom) >= kRoom);
  Require(dup2(writer.Get(), STDOUT_FILENO) >= 0);
  Tarvik::ConsoleGuard const guard;
  Require(guard.GetOutput() == Tarvik::ConsoleGuard::Result::Done);
  CountLogLines();
}

void CountCataloguedFiles() {
  FullCatalogue catalogue;
  Count([&] { catalogue.Load(); });
}

void CountDeletedFiles() {
  FullCatalogue catalogue;
  catalogue.Load();
  Count([&] { catalogue.MakeRoom(); });
}

// The system calls that the same work takes at the least.

void CountBareLines() {
  constexpr std::string_view kLine =
      "[2023-11-14 22:13:20][SYSTEM] recording rec_000042.dat size 1000\n";
  Tarvik::UniqueFd const file(open((Bench::Folder() / "bare.log").c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  Count([&] {
    for (std::size_t i = 0; i < kTimes; ++i) {
      Require(write(file.Get(), kLine.data(), kLine.size()) > 0);
      Require(write(STDOUT_FILENO, kLine.data(), kLine.size()) > 0);
    }
  });
}

void CountBareEntries() {
  FullCatalogue const files;
  std::string path = files.Directory();
  std::size_t const length = path.size();
  Count([&] {
    Tarvik::UniqueDir const directory(opendir(path.c_str()));
    struct stat status {};
    while (dirent const* entry = readdir(directory.get()))
      Require(lstat(path.replace(length, std::string::npos, entry->d_name).c_str(), &status) == 0);
  });
}

void CountBareDeletions() {
  FullCatalogue const files;
  auto const& paths = files.Paths();
  struct statvfs space {};
  Count([&] {
    for (std::size_t i = 0; i < kTimes; ++i) {
      if (i % 2 == 0) Require(statvfs(Bench::Folder().c_str(), &space) == 0);
      Require(access(paths[i].c_str(), F_OK) == 0);
      Require(unlink(paths[i].c_str()) == 0);
    }
  });
}

struct Work {
  std::string_view name;
  void (*count)();
};

constexpr std::array kWork = {
    Work{"log_line", CountLogLines},
    Work{"guarded_log_line", CountGuardedLogLines},
    Work{"catalogued_file", CountCataloguedFiles},
    Work{"deleted_file", CountDeletedFiles},
    Work{"bare_log_line", CountBareLines},
    Work{"bare_catalogued_file", CountBareEntries},
    Work{"bare_deleted_file", CountBareDeletions},
};

}  // namespace

int main(int argc, char** argv) {
  std::string_view const name = argc > 1 ? argv[1] : "";
  auto const* const work = std::ranges::find(kWork, name, &Work::name);
  if (work == kWork.end()) return EXIT_FAILURE;
  Bench::WithoutPauses const immediate;
  Bench::StopClock();
  Bench::Redirect(STDOUT_FILENO, Bench::Folder() / "console.log");
  work->count();
}
