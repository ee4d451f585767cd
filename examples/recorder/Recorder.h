// A small recording service on top of the library, as a device maker would write it.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "DiskUtils/System.h"
#include "FileUtils/FilesManager.h"
#include "LoadsMeanwhile.h"
#include "Watchdog/Watchdog.h"
#include "base/ISemaphore.h"

struct Settings {
  std::size_t recordingBytes = std::size_t{8} << 20;
  std::chrono::milliseconds period{60000};  ///< from recording to recording
  unsigned long long minimumFreeBytes = 128ULL << 20;
  float share = 0.8F;  ///< of the card, for recordings
  int watchdogSeconds = 90;
};

/// Makes a recording every period, each with its positions beside it, and deletes the oldest for
/// want of room. Begins while the card's catalogue is still being loaded, unless the card is full.
/// Goes on without a card, and takes one in service that is put back.
class Recorder {
 public:
  explicit Recorder(Settings const& chosen);

  /// Records until `Stop`. Returns at once, too, when the machine is about to reboot for its card.
  /// A load that is still running then goes on until the process ends, which nothing need wait for:
  /// end it by std::quick_exit.
  void Run();

  /// Ends `Run`. May be called from a signal handler.
  void Stop() { stop.Notify(); }

 private:
  bool StartCard();
  Quellon::DiskUtils::Disk* InitDisk();
  void OpenCatalogue(Quellon::DiskUtils::Disk* disk);
  void GiveUpCard();
  void LeaveCard();
  bool CardIsBack();

  bool Record();
  [[nodiscard]] bool IsLoading() const { return load != nullptr && !load->IsOver(); }
  bool HasRoomMeanwhile();
  bool WaitForLoad();
  bool FinishLoad();
  bool MakeRoom();
  void RemoveOrphanedPositions();
  bool WriteFiles();
  bool Complete(Quellon::FileUtils::Ifile& file, std::size_t bytes);
  bool AddFile(std::string name);
  bool FindLastNumber();

  bool WaitForNextPeriod();
  void KickWatchdog();

  Settings settings;
  Quellon::System& system;
  Quellon::Watchdog watchdog;
  std::chrono::steady_clock::time_point lastKick;
  std::unique_ptr<Quellon::FileUtils::FilesManager> catalogue;  // null while there is no card
  std::unique_ptr<LoadsMeanwhile> load;  // null when the catalogue is complete
  int number = 0;
  bool cardWasOut = false;
  Tarvik::Interfaces::ISemaphore stop;
};
