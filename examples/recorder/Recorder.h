// A small recording service on top of the library, as a device maker would write it.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "DiskUtils/CardWatch.h"
#include "DiskUtils/System.h"
#include "FileUtils/BackgroundLoad.h"
#include "FileUtils/FilesManager.h"
#include "RTC/ClockFloor.h"
#include "Watchdog/WatchdogGuard.h"
#include "base/ISemaphore.h"
#include "base/UniqueFd.h"

struct Settings {
  std::size_t recordingBytes = std::size_t{8} << 20;
  std::size_t bytesPerSecond = 0;       ///< that come in; 0: as fast as the card takes them
  unsigned periodMilliseconds = 60000;  ///< to the next; with a rate, from beginning to beginning
  unsigned long long minimumFreeBytes = 128ULL << 20;
  float share = 0.8F;  ///< of the card, for recordings
  int watchdogSeconds = 90;
};

/// Makes a recording every period, each with its positions beside it, and deletes the oldest for
/// want of room. Begins while the card's catalogue is still being loaded, unless the card is full.
/// What fails is told, and costs that recording alone, until the card itself has failed. Goes on
/// without a card, and takes one in service that is put back.
class Recorder {
 public:
  explicit Recorder(Settings const& chosen);

  /// Whether no other process has said so here; to be asked before anything is done. Holds until
  /// the process ends.
  bool IsAlone();

  /// Records until `Stop`. Returns at once, too, when the machine is about to reboot for its card.
  /// A load that is still running then goes on until the process ends, which nothing need wait for:
  /// end it by std::quick_exit.
  void Run();

  /// Whether a load is running, which may print.
  [[nodiscard]] bool IsLoading() const { return load != nullptr && !load->IsOver(); }

  /// Ends `Run`. May be called from a signal handler.
  void Stop() { stop.Notify(); }

 private:
  bool StartCard();
  void TellOfCard(Quellon::DiskUtils::CardState::Report const& report);
  void GiveUpCard();
  bool CardIsBack();

  void RecordOrGiveUp();
  bool Record();
  bool OpenCatalogue();
  bool ForgetCatalogue();
  bool Fail(char const* what, std::string const& where);
  bool WaitForLoad();
  bool FinishLoad();
  bool MakeRoom();
  void RemoveOrphanedPositions();
  bool WriteFiles();
  bool WriteSteadily(Quellon::FileUtils::Ifile& file, std::size_t& written);
  bool CouldNotWrite(Quellon::FileUtils::Ifile& file);
  bool Complete(Quellon::FileUtils::Ifile& file, std::size_t bytes);
  bool AddFile(std::string name);
  bool FindLastNumber();

  bool WaitUntil(std::chrono::steady_clock::time_point end);
  bool Pause(std::chrono::milliseconds length);
  void KickWatchdog();
  void TellOfWatchdog();

  Settings settings;
  Tarvik::UniqueFd lock;
  Quellon::System& system;
  Quellon::WatchdogGuard watchdog;
  Quellon::WatchdogGuard::Result watchdogState = Quellon::WatchdogGuard::Result::NotOpen;
  std::chrono::steady_clock::time_point nextKick;
  std::unique_ptr<Quellon::FileUtils::FilesManager> catalogue;  // null until it is opened
  std::unique_ptr<Quellon::FileUtils::BackgroundLoad> load;  // null when the catalogue is complete
  std::unique_ptr<Quellon::DiskUtils::CardWatch> watch;      // null while there is no card
  Quellon::RTC::ClockFloor clockFloor;
  int number = 0;
  int failures = 0;                      // that the card is at fault for, of recordings in a row
  bool isCardAtFault = false;            // for what failed of the last recording
  std::atomic<bool> cardWasOut = false;  // of its slot; the watch may say so
  bool isStopping = false;
  Tarvik::Interfaces::ISemaphore stop;
};
