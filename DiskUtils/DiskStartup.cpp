// Bringing the card into service, with a bounded number of reboots for a card that fails.
#include <chrono>
#include <exception>
#include <iostream>
#include <memory>
#include <thread>

#include "DiskUtils/System.h"

namespace Quellon {

namespace {

constexpr int kRebootLimit = 3;

}  // namespace

DiskUtils::Disk* System::InitDisk() {
  delete disk;
  disk = nullptr;
  try {
    disk = std::make_unique<DiskUtils::Disk>("/mnt/sdcard/", "/dev/mmcblk1p1", "mmcblk1").release();
    disk->ScanDisk();
    if (disk->available) diskFault = false;
    std::this_thread::sleep_for(std::chrono::seconds(1));
  } catch (std::exception const& e) {
    if (RebootForFailingDisk(e.what())) return nullptr;
  }
  BuildDiskHealthReport();
  return disk;
}

// False when the system has to carry on without the card.
bool System::RebootForFailingDisk(char const* reason) {
  std::cout << "Exception disk (0): " << reason << std::endl;
  int const counter = ReadSDCardStatusCounter();
  auto const printCounter = [](long long number, char const* end) {
    std::cout << "Found SD card status counter " << number << " on file" << end << std::endl;
  };
  if (counter < 0) {
    printCounter(counter, ", passed limit");
    return false;
  }
  printCounter(counter, "");
  if (counter < kRebootLimit && SaveSDCardStatusCounter(counter + 1)) {
    std::cout << "Done save counter, trigger reboot..." << std::endl;
    Reboot();
    return true;
  }
  printCounter(counter + 1LL, ", passed limit");  // the number that would have been saved
  return false;
}

}  // namespace Quellon
