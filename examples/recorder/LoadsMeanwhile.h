// A catalogue that is loaded while its owner records.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "FileUtils/FilesManager.h"
#include "base/IThread.h"

inline constexpr std::chrono::minutes kLongestLoad(30);

/// Loads a catalogue on a thread of its own, which takes 1 ms a file and more, from construction
/// on. Until `Finish`, the owner's thread may ask the catalogue whether there is room
/// (`CheckAvailableSpace(true)`), which then counts what has been found so far, and uses nothing
/// else of it. Nothing is deleted meanwhile. The catalogue must outlive the object.
class LoadsMeanwhile : public Tarvik::Interfaces::IThread {
 public:
  explicit LoadsMeanwhile(Quellon::FileUtils::FilesManager& loaded) : catalogue(loaded) { Start(); }
  /// Waits for the load: nothing ends one before it has come to the last name.
  ~LoadsMeanwhile() override {
    Cancel();
    Join();
  }
  LoadsMeanwhile(LoadsMeanwhile const&) = delete;
  LoadsMeanwhile& operator=(LoadsMeanwhile const&) = delete;

  /// A file that was completed meanwhile, in the place of `FilesManager::AddFile`.
  void Add(std::string name) { added.push_back(std::move(name)); }

  /// Whether the load has ended. Files that are added may still go into the catalogue.
  [[nodiscard]] bool IsOver() const { return over; }

  /// Whether it has not ended in `kLongestLoad`: it hangs, or has two million files.
  [[nodiscard]] bool Hangs() const { return !over && std::chrono::steady_clock::now() > end; }

  /// Completes the catalogue once the load is over: what was added is in it once, as the newest.
  /// Call it while none of its files is being written. False when the load has failed, for which
  /// the catalogue has the reason, or when a file is gone.
  bool Finish() {
    if (!succeeded) return false;
    TakeOutAdded();
    bool const complete =
        std::ranges::all_of(added, [this](std::string& name) { return catalogue.AddFile(name); });
    catalogue.GetTotalFilesSize(true);
    return complete;
  }

 private:
  void Run() override {
    succeeded = catalogue.LoadAndSort();
    Cancel();
  }
  void RunAfter() override { over = true; }

  // The load may have found a file that was completed meanwhile, with the size it had then.
  void TakeOutAdded() {
    std::set<std::string> const names(added.begin(), added.end());
    std::erase_if(catalogue.GetList(), [&names](Quellon::FileUtils::Ifile* file) {
      if (!names.contains(file->name)) return false;
      std::unique_ptr<Quellon::FileUtils::Ifile> const owned(file);
      return true;
    });
  }

  Quellon::FileUtils::FilesManager& catalogue;
  std::vector<std::string> added;
  std::chrono::steady_clock::time_point end = std::chrono::steady_clock::now() + kLongestLoad;
  bool succeeded = false;  // read once `over` is set
  std::atomic<bool> over = false;
};
