#include "Testing/main.h"

#include <ctime>
#include <memory>

#include "DiskUtils/Disk.h"
#include "DiskUtils/internal/CardSlot.h"
#include "FileUtils/FilesManager.h"
#include "RTC/Rtc.h"
#include "base/internal/Abandon.h"

using Quellon::DiskUtils::Disk;
using Quellon::DiskUtils::kCardDevice;
using Quellon::DiskUtils::kCardMountPoint;
using Quellon::DiskUtils::kCardPartition;
using Quellon::FileUtils::FilesManager;
using Tarvik::Abandon;

namespace {

constexpr unsigned long long kMinimumFreeBytes = 134217728;
constexpr float kShare = 0.8F;
constexpr long kSecondsPerDay = 86400;

}  // namespace

void FilesManagerTest() {
  auto card = std::make_unique<Disk>(kCardMountPoint, kCardPartition, kCardDevice);
  Disk* const disk = Abandon(card.release());
  auto recordings =
      std::make_unique<FilesManager>(disk, "/mnt/sdcard/cr/", kMinimumFreeBytes, kShare);
  FilesManager* const catalogue = Abandon(recordings.release());
  catalogue->LoadAndSort();
  catalogue->Log();
}

void TestRtc() {
  Quellon::RTC::Rtc clock("/dev/rtc0");
  clock.Load();
  clock.Print();
  time_t now = time(nullptr);
  time_t yesterday = now - kSecondsPerDay;
  clock.Set(yesterday);
  clock.Print();
  clock.Set(now);
  clock.Print();
}

QUELLON_EXPORT int main() {
  FilesManagerTest();
  return 0;
}
