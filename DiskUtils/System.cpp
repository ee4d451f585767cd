#include "DiskUtils/System.h"

#include <sys/mount.h>
#include <sys/reboot.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <thread>

#include "DiskUtils/internal/CardSlot.h"
#include "DiskUtils/internal/Complain.h"
#include "DiskUtils/internal/ForceUnmount.h"
#include "RTC/Rtc.h"
#include "base/Logger.h"
#include "base/internal/OutputLine.h"
#include "base/internal/Shell.h"
#include "base/internal/SystemClock.h"

namespace Quellon {

namespace {

constexpr std::chrono::seconds kRootPause(1);
constexpr std::chrono::seconds kRebootGrace(20);

}  // namespace

System* System::instance = nullptr;

System* System::GetInstance() {
  if (instance == nullptr) instance = new System;
  return instance;
}

System::System() {
  Tarvik::OutputLine() << "start instance of system class ";
}

// The card object is left alone: the singleton lives as long as the process.
System::~System() = default;

int System::UnmountAll() {
  // An open log file keeps "/" busy. Close() does not wait: a line under way may never end.
  static_cast<void>(Tarvik::Ilog::Logger::GetInstance()->Close());
  if (chdir("/") != 0) DiskUtils::Complain("Unable to change dir to /");
  sync();
  if (umount("/") != 0) {
    std::this_thread::sleep_for(kRootPause);
    DiskUtils::ForceUnmount("/", "Unable to umount root SD");
  }
  // For the card force is used at once; only the root file system had a pause before it.
  int const result = umount(DiskUtils::kCardMountPoint);
  if (result == 0) return result;
  return DiskUtils::ForceUnmount(DiskUtils::kCardMountPoint, "Unable to umount storage SD");
}

int System::Reboot() {
  static_cast<void>(Tarvik::RunCommand("reboot"));
  std::this_thread::sleep_for(kRebootGrace);
  UnmountAll();
  return reboot(RB_AUTOBOOT);
}

#if QUELLON_TIME64
bool System::SetDate(long& seconds) {
  std::int64_t wide = seconds;
  return SetDate(wide);
}

bool System::SetRTC(long& seconds) {
  std::int64_t wide = seconds;
  return SetRTC(wide);
}
#endif

bool System::SetDate(time_t& seconds) {
  return Tarvik::SetSystemClock(seconds);
}

bool System::SetRTC(time_t& seconds) {
  RTC::Rtc clock("/dev/rtc0");
  // Set() has set the system clock already; setting it again is harmless, and kept.
  return clock.Set(seconds) && clock.SetSystemClock();
}

}  // namespace Quellon
