// What is where on the device, beside the card (DiskUtils/internal/CardSlot.h). The libraries keep
// these to themselves, each in its one source.
#pragma once

#include <ctime>

namespace Quellon::Tool {

inline constexpr char const* kRecordings = "/mnt/sdcard/cr/";
inline constexpr char const* kLog = "/var/log/quellon.log";
inline constexpr char const* kOlderLog = "/var/log/quellon.log.1";
inline constexpr char const* kClock = "/dev/rtc0";
inline constexpr char const* kWatchdog = "/dev/watchdog";
inline constexpr char const* kNumberedWatchdog = "/dev/watchdog0";  // the same
inline constexpr char const* kWatchdogProperties = "/sys/class/watchdog/watchdog0/";

/// 2020. No device of this kind is older: a clock before it was reset.
inline constexpr std::time_t kFirstPlausible = 1577836800;

}  // namespace Quellon::Tool
