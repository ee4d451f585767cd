// Bringing the card into service, with a bounded number of reboots for a card that fails.
#include <chrono>
#include <exception>
#include <memory>
#include <thread>

#include "DiskUtils/System.h"
#include "DiskUtils/internal/CardSlot.h"
#include "base/internal/OutputLine.h"

namespace Quellon {

using Tarvik::OutputLine;

namespace {

constexpr int kRebootLimit = 3;
constexpr std::chrono::seconds kScanPause(1);

using DiskUtils::kCardDevice;
using DiskUtils::kCardMountPoint;
using DiskUtils::kCardPartition;

}  // namespace

DiskUtils::Disk* System::InitDisk() {
  delete disk;
  disk = nullptr;
  try {
    disk =
        std::make_unique<DiskUtils::Disk>(kCardMountPoint, kCardPartition, kCardDevice).release();
    disk->ScanDisk();
    if (disk->available) diskFault = false;
    std::this_thread::sleep_for(kScanPause);
  } catch (std::exception const& e) {
    if (RebootForFailingDisk(e.what())) return nullptr;
  }
  BuildDiskHealthReport();
  return disk;
}

// False when the system has to carry on without the card.
bool System::RebootForFailingDisk(char const* reason) {
  OutputLine() << "Exception disk (0): " << reason;
  int const counter = ReadSDCardStatusCounter();
  auto const printCounter = [](long long number, char const* end) {
    OutputLine() << "Found SD card status counter " << number << " on file" << end;
  };
  if (counter < 0) {
    printCounter(counter, ", passed limit");
    return false;
  }
  printCounter(counter, "");
  if (counter < kRebootLimit && SaveSDCardStatusCounter(counter + 1)) {
    OutputLine() << "Done save counter, trigger reboot...";
    Reboot();
    return true;
  }
  printCounter(counter + 1LL, ", passed limit");  // the number that would have been saved
  return false;
}

}  // namespace Quellon
