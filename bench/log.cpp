// One log line to a file and to the console: the library, spdlog, and the two system calls that
// nobody can do without. All write lines of the same text to files in memory.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string_view>
#include <thread>
#include <vector>

#include "base/Logger.h"
#include "base/UniqueFd.h"
#include "bench/support.h"

namespace {

constexpr char const* kName = "rec_000042.dat";
constexpr unsigned long long kSize = 16777216;
constexpr int kLinesTogether = 8000;
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
}

void LogByLibrary() {
  Tarvik::Ilog::LogLine(Tarvik::Ilog::Info) << "[SYSTEM] recording " << kName << " size " << kSize;
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

void LogBySpdlog() {
  Peer().info("[SYSTEM] recording {} size {}", kName, kSize);
}

template <auto log>
void Alone(benchmark::State& state) {
  for (auto _ : state) log();
}

// The time from the first thread's start to the last one's end, for each line of them all.
template <auto log>
void Together(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  auto const threads = static_cast<int>(state.range(0));
  auto const logShare = [threads] {
    for (int line = 0; line < kLinesTogether / threads; ++line) log();
  };
  for (auto _ : state) {
    auto const start = Clock::now();
    {
      std::vector<std::jthread> workers;
      for (int thread = 0; thread < threads; ++thread) workers.emplace_back(logShare);
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count() /
                           kLinesTogether);
  }
}

void Threads(benchmark::internal::Benchmark* benchmark) {
  benchmark->Setup(EmptyFiles)->UseManualTime()->Iterations(1);
  for (int threads : {1, 2, 4, 8}) benchmark->Arg(threads);
}

BENCHMARK(SystemCalls)->Setup(EmptyFiles);
BENCHMARK(Alone<LogByLibrary>)->Name("Library")->Setup(EmptyFiles);
BENCHMARK(Alone<LogBySpdlog>)->Name("Spdlog")->Setup(EmptyFiles);
BENCHMARK(Together<LogByLibrary>)->Name("LibraryThreads")->Apply(Threads);
BENCHMARK(Together<LogBySpdlog>)->Name("SpdlogThreads")->Apply(Threads);

}  // namespace

int main(int argc, char** argv) {
  Bench::Redirect(STDOUT_FILENO, Bench::Folder() / "console.log");
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
