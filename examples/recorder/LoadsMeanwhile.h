// A catalogue that is loaded while its owner records.
#pragma once

#include <algorithm>
#include <chrono>
#include <future>
#include <iterator>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "FileUtils/FilesManager.h"

inline constexpr std::chrono::minutes kLongestLoad(30);

/// Loads a catalogue on a thread of its own, which takes 1 ms a file and more, from construction
/// on. Until `Finish`, the owner's thread may ask the catalogue whether there is room
/// (`CheckAvailableSpace(true)`), which then counts what has been found so far, and uses nothing
/// else of it. Nothing is deleted meanwhile. The catalogue must outlive the object, whose
/// destructor waits for the load: nothing ends one before it has come to the last name.
class LoadsMeanwhile {
 public:
  /// Where the system has no thread to give, `Finish` loads it.
  explicit LoadsMeanwhile(Quellon::FileUtils::FilesManager& loaded)
      : catalogue(loaded), load(std::async(std::launch::async | std::launch::deferred, [&loaded] {
          return loaded.LoadAndSort();
        })) {}

  /// A file that was completed meanwhile, in the place of `FilesManager::AddFile`.
  void Add(std::string name) { added.push_back(std::move(name)); }

  /// Whether the load has ended. Files that are added may still go into the catalogue.
  [[nodiscard]] bool IsOver() const {
    return load.wait_for(std::chrono::seconds::zero()) != std::future_status::timeout;
  }

  /// Whether it has not ended in `kLongestLoad`: it hangs, or has two million files.
  [[nodiscard]] bool Hangs() const { return !IsOver() && std::chrono::steady_clock::now() > end; }

  /// Completes the catalogue once the load is over: what was added is in it once, as the newest.
  /// Call it once, while none of its files is being written, and nothing but `GetGone` after it.
  /// False when the load has failed; the catalogue has the reason. Throws what the load threw, such
  /// as std::bad_alloc.
  bool Finish() {
    if (!load.get()) return false;
    TakeOutAdded();
    std::ranges::copy_if(added, std::back_inserter(gone),
                         [this](std::string& name) { return !catalogue.AddFile(name); });
    catalogue.GetTotalFilesSize(true);
    return true;
  }

  /// Of the files that were added, those that were gone by then.
  [[nodiscard]] std::vector<std::string> const& GetGone() const { return gone; }

 private:
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
  std::vector<std::string> gone;
  std::chrono::steady_clock::time_point end = std::chrono::steady_clock::now() + kLongestLoad;
  std::future<bool> load;
};
