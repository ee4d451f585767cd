#include "Testing/main.h"

#include <ctime>
#include <memory>

#include "DiskUtils/Disk.h"
#include "DiskUtils/internal/CardSlot.h"
#include "FileUtils/FilesManager.h"
#include "RTC/Rtc.h"

using Quellon::DiskUtils::Disk;
using Quellon::DiskUtils::kCardDevice;
using Quellon::DiskUtils::kCardMountPoint;
using Quellon::DiskUtils::kCardPartition;
using Quellon::FileUtils::FilesManager;

namespace {

constexpr unsigned long long kMinimumFreeBytes = 134217728;
constexpr float kShare = 0.8F;
constexpr long kSecondsPerDay = 86400;

}  // namespace

void FilesManagerTest() {
  // Left to the end of the process on purpose.
  Disk* const disk = std::make_unique<Disk>(kCardMountPoint, kCardPartition, kCardDevice).release();
  FilesManager* const catalogue =
      std::make_unique<FilesManager>(disk, "/mnt/sdcard/cr/", kMinimumFreeBytes, kShare).release();
  catalogue->LoadAndSort();
  catalogue->Log();
}

void TestRtc() {
  Quellon::RTC::Rtc clock("/dev/rtc0");
  clock.Load();
  clock.Print();
  long now = time(nullptr);
  long yesterday = now - kSecondsPerDay;
  clock.Set(yesterday);
  clock.Print();
  clock.Set(now);
  clock.Print();
}

QUELLON_EXPORT int main() {
  FilesManagerTest();
  return 0;
}
