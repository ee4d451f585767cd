// One log line to a file and to the console: the library, spdlog, and the two system calls that
// nobody can do without. All write lines of the same text to files in memory.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <memory>
#include <string_view>

#include "base/Logger.h"
#include "base/UniqueFd.h"
#include "bench/support.h"

namespace {

constexpr char const* kName = "rec_000042.dat";
constexpr unsigned long long kSize = 16777216;
constexpr std::string_view kLine =
    "[2021-03-04 17:05:09][SYSTEM] recording rec_000042.dat size 16777216\n";

// Every repetition begins with empty files, so that none grows without bounds.
void EmptyFiles(benchmark::State const& /*state*/) {
  for (auto const& file : std::filesystem::directory_iterator(Bench::Folder()))
    std::filesystem::resize_file(file, 0);
}

void SystemCalls(benchmark::State& state) {
  Tarvik::UniqueFd const file(open((Bench::Folder() / "bare.log").c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  for (auto _ : state) {
    benchmark::DoNotOptimize(write(file.Get(), kLine.data(), kLine.size()));
    benchmark::DoNotOptimize(write(STDOUT_FILENO, kLine.data(), kLine.size()));
  }
  state.SetItemsProcessed(state.iterations());
}

void Library(benchmark::State& state) {
  using Tarvik::Ilog::LogLine;
  for (auto _ : state)
    LogLine(Tarvik::Ilog::Info) << "[SYSTEM] recording " << kName << " size " << kSize;
  state.SetItemsProcessed(state.iterations());
}

spdlog::logger& Peer() {
  static auto const logger = [] {
    std::string const path = Bench::Folder() / "spdlog.log";
    spdlog::sinks_init_list const sinks{std::make_shared<spdlog::sinks::basic_file_sink_mt>(path),
                                        std::make_shared<spdlog::sinks::stdout_sink_mt>()};
    auto made = std::make_unique<spdlog::logger>("peer", sinks);
    made->set_pattern("[%Y-%m-%d %H:%M:%S]%v");
    made->flush_on(spdlog::level::info);
    return made;
  }();
  return *logger;
}

void Spdlog(benchmark::State& state) {
  auto& logger = Peer();
  for (auto _ : state) logger.info("[SYSTEM] recording {} size {}", kName, kSize);
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(SystemCalls)->Setup(EmptyFiles)->UseRealTime();
BENCHMARK(Library)
    ->Setup(EmptyFiles)
    ->UseRealTime()
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->Threads(8);
BENCHMARK(Spdlog)->Setup(EmptyFiles)->UseRealTime()->Threads(1)->Threads(2)->Threads(4)->Threads(8);

}  // namespace

int main(int argc, char** argv) {
  Bench::Redirect(STDOUT_FILENO, Bench::Folder() / "console.log");
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
