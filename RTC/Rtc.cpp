#include "RTC/Rtc.h"

#include <sys/ioctl.h>

#include <cstdio>
#include <ctime>
#include <utility>

#include "base/UniqueFd.h"
#include "base/internal/CalendarLock.h"
#include "base/internal/OpenFile.h"
#include "base/internal/SystemClock.h"

namespace Quellon::RTC {

namespace {

// The two structures agree in their first nine fields, but the C library's is the larger one, so
// neither may be used in the place of the other.
tm ToCalendar(rtc_time const& time) {
  tm calendar{};
  calendar.tm_sec = time.tm_sec;
  calendar.tm_min = time.tm_min;
  calendar.tm_hour = time.tm_hour;
  calendar.tm_mday = time.tm_mday;
  calendar.tm_mon = time.tm_mon;
  calendar.tm_year = time.tm_year;
  calendar.tm_wday = time.tm_wday;
  calendar.tm_yday = time.tm_yday;
  calendar.tm_isdst = time.tm_isdst;
  return calendar;
}

rtc_time ToRtcTime(tm const& calendar) {
  return {calendar.tm_sec,  calendar.tm_min,  calendar.tm_hour, calendar.tm_mday, calendar.tm_mon,
          calendar.tm_year, calendar.tm_wday, calendar.tm_yday, calendar.tm_isdst};
}

tm LocalTime(time_t seconds) {
  Tarvik::CalendarLock const lock;
  tm calendar{};
  tzset();  // mktime looks for a new time zone, localtime_r does not
  localtime_r(&seconds, &calendar);
  return calendar;
}

// Puts right what the fields say, as mktime(3) does.
time_t SecondsOf(tm& calendar) {
  Tarvik::CalendarLock const lock;
  return mktime(&calendar);
}

}  // namespace

Rtc::Rtc(std::string path) : devicePath(std::move(path)), rtcTime{} {}

Rtc::~Rtc() = default;

bool Rtc::Load() {
  Tarvik::UniqueFd const device(Tarvik::OpenFile(devicePath.c_str(), O_RDWR));
  if (!device.IsOpen()) return false;
  rtcTime = {};
  return ioctl(device.Get(), RTC_RD_TIME, &rtcTime) == 0;
}

#if QUELLON_TIME64
bool Rtc::Set(long& seconds) {
  std::int64_t wide = seconds;
  return Set(wide);
}
#endif

bool Rtc::Set(time_t& seconds) {
  rtcTime = ToRtcTime(LocalTime(seconds));
  {
    Tarvik::UniqueFd const device(Tarvik::OpenFile(devicePath.c_str(), O_RDWR));
    if (!device.IsOpen() || ioctl(device.Get(), RTC_SET_TIME, &rtcTime) < 0) return false;
  }
  return SetSystemClock();
}

bool Rtc::SetSystemClock() {
  tm calendar = ToCalendar(rtcTime);
  time_t const seconds = SecondsOf(calendar);
  rtcTime = ToRtcTime(calendar);
  return Tarvik::SetSystemClock(seconds);
}

int Rtc::Print() {
  tm const system = LocalTime(time(nullptr));
  int const printed =
      std::printf("RTC: %d/%d/%d %02d:%02d:%02d\nSystem: %d/%d/%d %02d:%02d:%02d\n",
                  rtcTime.tm_mon + 1, rtcTime.tm_mday, rtcTime.tm_year + 1900, rtcTime.tm_hour,
                  rtcTime.tm_min, rtcTime.tm_sec, system.tm_mon + 1, system.tm_mday,
                  system.tm_year + 1900, system.tm_hour, system.tm_min, system.tm_sec);
  static_cast<void>(std::fflush(stdout));
  return printed;
}

}  // namespace Quellon::RTC
