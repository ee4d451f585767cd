// The logger as tests see it: its file, its lines, and whether a sink is free.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/Logger.h"
#include "tests/machine/Machine.h"
#include "tests/support/Scoped.h"

namespace LogFile {

using FileSink = Tarvik::Ilog::LoggerBase<Tarvik::Ilog::FileLogPolicy>;
using ConsoleSink = Tarvik::Ilog::LoggerBase<Tarvik::Ilog::ConsoleLogPolicy>;

inline constexpr char const* kPath = "/var/log/quellon.log";
inline constexpr char const* kOlderPath = "/var/log/quellon.log.1";

/// The header of a line without a temperature: its length, and a pattern of it.
inline constexpr std::size_t kHeaderLength = 21;
inline std::string const kHeader = R"(\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\])";

/// Longer than anything that works takes on a busy machine.
inline constexpr auto kPatience = std::chrono::seconds(60);

/// What the log file holds.
inline std::string Text() {
  return Machine::ReadFile(kPath);
}

inline std::vector<std::string> SplitLines(std::string const& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

/// Switches the sinks of the process-wide logger.
inline void Enable(bool file, bool console) {
  auto& logger = *Tarvik::Ilog::Logger::GetInstance();
  logger.fileSink->enabled = file;
  logger.consoleSink->enabled = console;
}

/// While it lasts, nothing is logged; both sinks are enabled at its end.
[[nodiscard]] inline Scoped::AtEnd Silence() {
  Enable(false, false);
  return Scoped::AtEnd([] { Enable(true, true); });
}

/// Both sinks enabled, and the file sink of the process-wide logger on a new, empty file: it gives
/// its file up as after a failed write.
inline void BeginAnew() {
  Enable(true, false);
  Machine::hooks().write = [](int, void const*, std::size_t) { return -1; };
  Tarvik::Ilog::LogLine(Tarvik::Ilog::Info) << "lost";
  Machine::hooks().write = nullptr;
  Machine::MakeFile(kPath, "");
  Enable(true, true);
}

/// Whether another thread gets through `work` in time. One that does not is left behind: it goes on
/// when the test frees what it waits for.
template <typename Work>
bool AnotherThreadGetsThrough(Work work, std::chrono::milliseconds limit = kPatience) {
  auto const done = std::make_shared<std::promise<void>>();
  auto const reached = done->get_future();
  std::thread([done, work] {
    work();
    done->set_value();
  }).detach();
  return reached.wait_for(limit) == std::future_status::ready;
}

/// Whether another thread could begin a line.
template <typename Sink>
bool IsFree(Sink& sink) {
  return AnotherThreadGetsThrough([&sink] { sink.Flush(); });
}

/// Whether another thread could begin a line with the process-wide logger.
inline bool IsFree() {
  auto& logger = *Tarvik::Ilog::Logger::GetInstance();
  return IsFree(*logger.fileSink) && IsFree(*logger.consoleSink);
}

/// Whether a line of another thread takes the sink before long. In either case `release` then ends
/// what that thread waits for.
template <typename Sink, typename Release>
bool IsTakenBeforeLong(Sink& sink, Release release) {
  std::atomic<int> through = 0;
  std::vector<std::thread> probes;
  auto const isTaken = [&] {
    int const others = static_cast<int>(probes.size());
    probes.emplace_back([&] {
      sink.Flush();
      ++through;
    });
    auto const patience = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
    while (through == others && std::chrono::steady_clock::now() < patience) {
      std::this_thread::yield();
    }
    return through == others;
  };
  auto const deadline = std::chrono::steady_clock::now() + kPatience;
  bool taken = false;
  while (!taken && std::chrono::steady_clock::now() < deadline) taken = isTaken();
  release();
  for (auto& probe : probes) probe.join();
  return taken;
}

}  // namespace LogFile
