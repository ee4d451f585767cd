// The card's health report: on standard output for people, as JSON for other services.
#include <cstdio>
#include <ctime>

#include "DiskUtils/System.h"
#include "base/internal/OutputLine.h"

namespace Quellon {

namespace Json = Tarvik::Json;
using DiskUtils::Disk;
using Tarvik::OutputLine;

namespace {

constexpr char const* kRule = "==================================================================";
constexpr char const* kFirmware = "30.4|B140 (" __DATE__ " " __TIME__ ")";
constexpr time_t kLastSecondOfALostClock = 9999;  // a clock without power starts at 0
constexpr double kBytesPerGiB = 1ULL << 30;
constexpr double kKilobytesPerGiB = 1ULL << 20;

// An unknown count is the integer 0, so that readers can tell it from a measured one.
Json::Value InGiB(std::uint64_t count, double perGiB) {
  if (count == 0) return 0;
  return static_cast<double>(count) / perGiB;
}

int StateCode(Disk const& disk, Disk::DeviceStatus const& card) {
  if (disk.available) return 0;
  if (card.malfunction == 1) return 1;
  return card.readOnly ? 2 : 3;
}

}  // namespace

void System::BuildDiskHealthReport() {
  if (disk == nullptr) return;
  CheckClock();
  Disk::DeviceStatus const card = Disk::deviceStatusList[disk->mountPoint];
  PrintDiskReport(card);
  RecordHealth(card);
}

std::string System::GetHealthReport() const {
  return healthStatus.ToText();
}

// A clock near the epoch has lost its time with the power.
void System::CheckClock() {
  if (time(nullptr) > kLastSecondOfALostClock) return;
  healthStatus.status["rtc-have-been-reset"] = 1;
  OutputLine() << "";
  OutputLine() << kRule;
  OutputLine() << "SYSTEM DATE/TIME CHANGED, RTC RESET DUE POWER OFF";
  OutputLine() << kRule;
}

void System::PrintDiskReport(Disk::DeviceStatus const& card) const {
  std::puts("============================ SD CARD =============================");
  if (disk->available) {
    std::printf(
        " size [%lld] B\n usable size [%lld] B \n writen [%lld] kB\n"
        " read only [%d]\n fcsk status [%d]\n cid [%s]\n",
        static_cast<long long>(card.sizeBytes), disk->totalBytes,
        static_cast<long long>(card.lifetimeWritesKB), static_cast<int>(card.readOnly),
        static_cast<int>(card.fsckStatus), card.cid);
  } else {
    std::puts("NOT PRESENT");
  }
  std::puts(kRule);
  static_cast<void>(std::fflush(stdout));  // a command's output may follow, or a reboot
}

void System::RecordHealth(Disk::DeviceStatus const& card) {
  Json::Object& status = healthStatus.status;
  status["zf"] = card.fsckStatus;
  status["zi"] = card.cid;
  status["zr"] = StateCode(*disk, card);
  status["zs"] = InGiB(card.sizeBytes, kBytesPerGiB);
  status["zl"] = InGiB(card.lifetimeWritesKB, kKilobytesPerGiB);
  status["f"] = kFirmware;
}

}  // namespace Quellon
