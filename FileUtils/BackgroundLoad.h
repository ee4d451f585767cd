// A catalogue that is loaded while its owner records.
#pragma once

#include <atomic>
#include <chrono>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "FileUtils/FilesManager.h"
#include "base/Export.h"

namespace Quellon::FileUtils {

/// Loads a catalogue on a thread of its own, which takes 1 ms a file and more, from construction
/// on. Until `Finish`, the owner's thread may ask the catalogue whether there is room
/// (`CheckAvailableSpace(true)`), which then counts what has been found so far, and uses nothing
/// else of it. Nothing is deleted meanwhile. The catalogue must outlive the object, whose
/// destructor waits for the load: nothing ends one before it has come to the last name.
///
/// One thread uses an object, and a child made by fork(2) does not. Kernel interface: that of
/// `FilesManager::LoadAndSort`.
class QUELLON_EXPORT BackgroundLoad {
 public:
  /// Begins the load. Where the system has no thread to give, `Finish` loads it.
  explicit BackgroundLoad(FilesManager& loaded);
  BackgroundLoad(BackgroundLoad const&) = delete;
  BackgroundLoad& operator=(BackgroundLoad const&) = delete;
  /// Waits for the load.
  ~BackgroundLoad();

  /// A file that was completed meanwhile, in the place of `FilesManager::AddFile`.
  void Add(std::string name);

  /// Whether the load has ended. Files that are added may still go into the catalogue.
  [[nodiscard]] bool IsOver() const;

  /// Whether it has not ended in half an hour: it hangs, or has two million files. Who kicks a
  /// watchdog stops then.
  [[nodiscard]] bool Hangs() const;

  /// Completes the catalogue once the load is over: what was added is in it once, as the newest.
  /// Call it once, while none of its files is being written, and nothing but `GetGone` after it.
  /// False when the load has failed; the catalogue has the reason. Throws what the load threw, such
  /// as std::bad_alloc.
  bool Finish();

  /// Of the files that were added, those that were gone by then. Valid as long as the object.
  [[nodiscard]] std::vector<std::string> const& GetGone() const;

 private:
  void Load() noexcept;
  void TakeOutAdded();

  FilesManager& catalogue;
  std::vector<std::string> added;
  std::vector<std::string> gone;
  std::chrono::steady_clock::time_point end;
  std::atomic<bool> isOver = false;
  bool isLoaded = false;
  std::exception_ptr failure;
  std::thread loader;  // none where the system had none to give
};

}  // namespace Quellon::FileUtils
