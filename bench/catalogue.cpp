// Loading a catalogue: the library, the system calls that name and describe the files, and what a
// program would do that keeps records of its own by std::filesystem.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "FileUtils/FilesManager.h"
#include "base/Logger.h"
#include "base/internal/UniqueDir.h"
#include "bench/support.h"

namespace {

namespace fs = std::filesystem;
using Quellon::FileUtils::FilesManager;
using Quellon::FileUtils::Ifile;

constexpr std::size_t kPausedEntries = 1000;

std::string Recordings(std::size_t count) {
  fs::path const directory = Bench::Folder() / std::to_string(count);
  if (!fs::exists(directory)) Bench::MakeRecordings(directory, count);
  return directory.string() + "/";
}

std::string Recordings(benchmark::State const& state) {
  return Recordings(static_cast<std::size_t>(state.range(0)));
}

// A reload leaves the objects of the earlier one to whoever holds them; here nobody does.
void DeleteAll(FilesManager& catalogue) {
  for (Ifile* file : catalogue.GetList()) delete file;
  catalogue.ClearList();
}

template <typename Load>
void Catalogue(benchmark::State& state, std::string const& directory, Load load) {
  auto card = Bench::Card();
  FilesManager catalogue(&card, directory, 0, 1.0F);
  for (auto _ : state) {
    load(catalogue);
    state.PauseTiming();
    DeleteAll(catalogue);
    state.ResumeTiming();
  }
}

void LibraryLoads(benchmark::State& state) {
  Bench::WithoutPauses const immediate;
  Catalogue(state, Recordings(state), [](auto& catalogue) { catalogue.Load(); });
}

void LibraryLoadsAndSorts(benchmark::State& state) {
  Bench::WithoutPauses const immediate;
  Catalogue(state, Recordings(state), [](auto& catalogue) { catalogue.LoadAndSort(); });
}

void LibraryLoadsWithPauses(benchmark::State& state) {
  Catalogue(state, Recordings(kPausedEntries), [](auto& catalogue) { catalogue.LoadAndSort(); });
}

// "." and ".." are entries too.
void Pauses(benchmark::State& state) {
  for (auto _ : state)
    for (std::size_t entry = 0; entry < kPausedEntries + 2; ++entry) usleep(1000);
}

void SystemCalls(benchmark::State& state) {
  std::string const path = Recordings(state);
  for (auto _ : state) {
    Tarvik::UniqueDir const directory(opendir(path.c_str()));
    std::string file = path;
    while (dirent const* entry = readdir(directory.get())) {
      struct stat status {};
      file.replace(path.size(), std::string::npos, entry->d_name);
      benchmark::DoNotOptimize(lstat(file.c_str(), &status));
    }
  }
}

struct Record {
  std::string path;
  std::string name;
  std::string extension;
  std::uintmax_t size;
  fs::file_time_type time;
};

std::vector<Record> RecordsOf(std::string const& directory) {
  std::vector<Record> records;
  for (auto const& entry : fs::directory_iterator(directory)) {
    if (entry.is_directory()) continue;
    fs::path const& path = entry.path();
    records.push_back(
        {path, path.filename(), path.extension(), entry.file_size(), entry.last_write_time()});
  }
  std::ranges::stable_sort(records, {}, &Record::time);
  return records;
}

void StandardLibrary(benchmark::State& state) {
  std::string const directory = Recordings(state);
  for (auto _ : state) {
    auto records = RecordsOf(directory);
    benchmark::DoNotOptimize(records.data());
    state.PauseTiming();
    records.clear();
    state.ResumeTiming();
  }
}

BENCHMARK(LibraryLoads)->Arg(2000)->Arg(6000)->Arg(20000)->Unit(benchmark::kMillisecond);
BENCHMARK(SystemCalls)->Arg(2000)->Arg(6000)->Arg(20000)->Unit(benchmark::kMillisecond);
BENCHMARK(LibraryLoadsAndSorts)->Arg(2000)->Arg(6000)->Arg(20000)->Unit(benchmark::kMillisecond);
BENCHMARK(StandardLibrary)->Arg(2000)->Arg(6000)->Arg(20000)->Unit(benchmark::kMillisecond);
BENCHMARK(LibraryLoadsWithPauses)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Pauses)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  Tarvik::Ilog::Logger::GetInstance()->consoleSink->enabled = false;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
