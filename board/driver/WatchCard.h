// A service that watches the card on which it records.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iostream>
#include <string>
#include <thread>
#include <utility>

#include "DiskUtils/CardDirectory.h"
#include "DiskUtils/CardState.h"
#include "FileUtils/File.h"

inline double Seconds(std::chrono::steady_clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

/// Records a file of 100,000 bytes in each period, and gives up where one cannot be made.
inline void RecordOnTheCard(std::string const& partition, std::chrono::milliseconds period,
                            std::atomic<bool> const& isOver) {
  std::string text(100'000, 'r');
  for (int number = 1; !isOver; ++number) {
    Quellon::DiskUtils::CardDirectory const directory("/mnt/sdcard/cr/", partition);
    std::string path = directory.Path() + "watched_" + std::to_string(number) + ".dat";
    Quellon::FileUtils::Ifile file(path, false);
    file.Open(false);
    file.Write(text.data(), static_cast<unsigned int>(text.size()));
    if (!file.Sync()) break;
    std::this_thread::sleep_for(period);
  }
}

/// Records for that time and looks at the card ten times a second, on another thread. Each new
/// finding is a line "card SECONDS FINDING: FIGURES", in seconds since the machine's start; then
/// "look" tells how long the looks took.
/// Whether the card was good at the end.
inline bool WatchCard(std::string const& partition, std::chrono::seconds time,
                      std::chrono::milliseconds period) {
  using Clock = std::chrono::steady_clock;
  using Quellon::DiskUtils::CardState;
  auto const begin = Clock::now();
  CardState state("/mnt/sdcard/", partition, "mmcblk1");
  std::atomic<bool> isOver = false;
  std::thread recorder([&] { RecordOnTheCard(partition, period, isOver); });
  auto longest = Clock::duration::zero();
  auto all = Clock::duration::zero();
  int looks = 0;
  auto told = static_cast<CardState::Finding>(-1);
  for (auto now = Clock::now(); now < begin + time; now = Clock::now()) {
    auto const report = state.Look();
    auto const taken = Clock::now() - now;
    all += taken;
    longest = std::max(longest, taken);
    ++looks;
    if (report.finding != std::exchange(told, report.finding)) {
      std::cout << "card " << Seconds(now.time_since_epoch()) << ' '
                << CardState::Describe(report.finding) << ": " << report.errors << " errors, "
                << report.warnings << " warnings, " << report.controllerErrors
                << " of the controller" << std::endl;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  std::cout << "look " << Seconds(all) / looks * 1e6 << " us, longest " << Seconds(longest) * 1e6
            << " us" << std::endl;
  isOver = true;
  recorder.join();
  return told == CardState::Finding::Good;
}
