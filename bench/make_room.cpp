// Making room: the library, and the system calls alone that measure the card and delete as many
// files in the same order. Each makes room once on a fresh folder of recordings, half of the 2,000
// or a small part of the 20,000 being too many.
#include <benchmark/benchmark.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "FileUtils/FilesManager.h"
#include "base/Logger.h"
#include "bench/support.h"

namespace {

namespace fs = std::filesystem;
using Quellon::FileUtils::FilesManager;

constexpr std::size_t kDeleted = 1000;
constexpr std::size_t kProtected = 10'000;
constexpr long kLongAgo = 1'000'000'000;

/// Recordings of which the oldest have to go: what they claim to hold is so much that the rest
/// fills the share of the card that the catalogue may use.
class FullCard {
 public:
  explicit FullCard(std::size_t recordings, std::size_t protectedFiles = 0)
      : card(Bench::Card()), directory(Bench::Folder() / "cr") {
    card.LoadDiskInfo();
    auto const bytes = static_cast<std::size_t>(card.totalBytes) / 2 / recordings;
    share = static_cast<float>(bytes * (recordings - kDeleted) + bytes / 2) /
            static_cast<float>(card.totalBytes);
    Bench::MakeRecordings(directory, protectedFiles, ".gps", 0, kLongAgo);
    names = Bench::MakeRecordings(directory, recordings, ".dat", bytes);
  }
  FullCard(FullCard const&) = delete;
  FullCard& operator=(FullCard const&) = delete;
  ~FullCard() { fs::remove_all(directory); }

  [[nodiscard]] bool HasRoom(std::size_t recordings) const {
    return !fs::exists(directory / names[kDeleted - 1]) &&
           fs::exists(directory / names[kDeleted]) && recordings == names.size() - kDeleted;
  }

  Quellon::DiskUtils::Disk card;
  fs::path directory;
  std::vector<std::string> names;  ///< of the recordings, oldest first
  float share = 0;
};

/// The processor time of this thread in seconds: other programs do not count.
double Now() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void SetTimeOfOneDeletion(benchmark::State& state, double start) {
  state.SetIterationTime((Now() - start) / kDeleted);
}

void MakeRoom(benchmark::State& state, std::size_t protectedFiles) {
  Bench::WithoutPauses const immediate;
  auto const recordings = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    FullCard full(recordings, protectedFiles);
    FilesManager catalogue(&full.card, full.directory.string() + "/", 0, full.share);
    catalogue.LoadAndSort();
    double const start = Now();
    bool const done = catalogue.MakeRoom();
    SetTimeOfOneDeletion(state, start);
    if (!done || !full.HasRoom(catalogue.GetList().size() - protectedFiles))
      state.SkipWithError("not the recordings that had to go");
  }
}

void Library(benchmark::State& state) {
  MakeRoom(state, 0);
}

void LibraryAmongProtectedFiles(benchmark::State& state) {
  MakeRoom(state, kProtected);
}

// The paths are there before, as they are in a catalogue.
void SystemCalls(benchmark::State& state) {
  for (auto _ : state) {
    FullCard const full(static_cast<std::size_t>(state.range(0)));
    std::vector<std::string> paths;
    for (std::size_t i = 0; i < kDeleted; ++i) paths.push_back(full.directory / full.names[i]);
    std::string const mountPoint = full.card.mountPoint;
    struct statvfs space {};
    double const start = Now();
    for (std::size_t i = 0; i < kDeleted; ++i) {
      if (i % 2 == 0) benchmark::DoNotOptimize(statvfs(mountPoint.c_str(), &space));
      benchmark::DoNotOptimize(access(paths[i].c_str(), F_OK));
      benchmark::DoNotOptimize(unlink(paths[i].c_str()));
    }
    benchmark::DoNotOptimize(statvfs(mountPoint.c_str(), &space));
    SetTimeOfOneDeletion(state, start);
  }
}

BENCHMARK(SystemCalls)->Arg(2000)->Arg(6000)->Arg(20000)->Iterations(1)->UseManualTime();
BENCHMARK(Library)->Arg(2000)->Arg(6000)->Arg(20000)->Iterations(1)->UseManualTime();
BENCHMARK(LibraryAmongProtectedFiles)->Arg(2000)->Iterations(1)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
  Tarvik::Ilog::Logger::GetInstance()->consoleSink->enabled = false;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
