#include "RTC/ClockFloor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <utility>

#include "base/UniqueFd.h"
#include "base/internal/BringToStorage.h"
#include "base/internal/OpenFile.h"
#include "base/internal/Restart.h"
#include "base/internal/SystemClock.h"
#include "base/internal/UniqueDir.h"
#include "base/internal/WriteAll.h"

namespace Quellon::RTC {

using Tarvik::BringToStorage;
using Tarvik::RestartWhileInterrupted;
using Tarvik::UniqueFd;

namespace {

constexpr time_t kHour = 3600;
constexpr time_t kYear = 31'556'952;
constexpr time_t kTrust = 20 * kYear;  // longer than a device lives without a new release
// A clock that is set leaves a year before times are over, on 32 bits in 2038.
constexpr time_t kLatest = std::numeric_limits<time_t>::max() - kYear;

constexpr time_t kSlack = 2;  // that two clocks of whole seconds, read in turn, may differ by

// By the clock that nobody sets. Whoever corrects the other one little by little corrects both.
time_t SteadySeconds() noexcept {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

// Twice, so that a damaged number is not taken for another one.
std::string TextOf(time_t seconds) {
  std::string const number = std::to_string(seconds);
  return number + " " + number + "\n";
}

// O_NONBLOCK: a pipe in the file's place must not stop the caller.
UniqueFd Open(std::string const& path, int flags) {
  constexpr mode_t kMode = 0644;
  return UniqueFd(RestartWhileInterrupted(
      [&] { return Tarvik::OpenFile(path.c_str(), flags | O_NONBLOCK, kMode); }));
}

bool WriteNew(std::string const& path, std::string_view text) {
  UniqueFd const fd = Open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW);
  return fd.IsOpen() && Tarvik::WriteAll(fd.Get(), text) == text.size();
}

std::string DirectoryOf(std::string const& path) {
  return path.substr(0, path.rfind('/') + 1) + ".";
}

}  // namespace

time_t ClockFloor::ReleaseTime() noexcept {
  return time_t{QUELLON_RELEASE_TIME};  // does not compile where it is too late for 32 bits
}

ClockFloor::ClockFloor(std::string path, time_t release)
    : file(std::move(path)), earliest(std::clamp<time_t>(release, 0, kLatest)) {}

ClockFloor::Outcome ClockFloor::Apply(std::string const& recordings) {
  time_t const known = LatestKnown(recordings);
  time_t const now = time(nullptr);  // a look at many recordings takes its time
  if (now > known) return {Result::Kept, now, now};
  if (!Tarvik::SetSystemClock(known + 1)) return {Result::Refused, now, known + 1};
  origin = known + 1 - SteadySeconds();
  return {Result::Raised, now, known + 1};
}

time_t ClockFloor::LatestKnown(std::string const& recordings) {
  lastSaved = ReadFile();
  time_t const known = std::max(earliest, lastSaved);
  time_t const now = time(nullptr);
  bool const wasRaised = origin != 0;
  bool const isOurs = wasRaised && std::abs(now - SteadySeconds() - origin) <= kSlack;
  if (wasRaised && !isOurs && now > earliest) return earliest;  // somebody knew better
  bool const isConfirmed = lastSaved != 0 && now > known && !isOurs;
  return isConfirmed || recordings.empty() ? known : std::max(known, NewestOf(recordings));
}

time_t ClockFloor::NewestOf(std::string const& recordings) const {
  Tarvik::UniqueDir const directory(opendir(recordings.c_str()));
  if (directory == nullptr) return 0;
  time_t newest = 0;
  std::string path = recordings + "/";
  std::size_t const length = path.size();
  while (dirent const* const entry = readdir(directory.get())) {
    path.replace(length, std::string::npos, entry->d_name);
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || S_ISDIR(status.st_mode)) continue;
    if (IsBelievable(status.st_mtime)) newest = std::max(newest, status.st_mtime);
  }
  return newest;
}

ClockFloor::Result ClockFloor::Save() {
  time_t const now = time(nullptr);
  if (!IsBelievable(now)) return Result::Doubtful;
  lastSaved = now;
  return WriteFile(now) ? Result::Saved : Result::NotSaved;
}

ClockFloor::Result ClockFloor::SaveHourly() {
  time_t const now = time(nullptr);
  bool const isDue = now < lastSaved || now - lastSaved >= kHour;
  return isDue ? Save() : Result::NotDue;
}

bool ClockFloor::IsBelievable(time_t seconds) const noexcept {
  return seconds > earliest && seconds - earliest <= std::min(kTrust, kLatest - earliest);
}

// The time in the file, or 0 where there is none to be believed.
time_t ClockFloor::ReadFile() const {
  UniqueFd const fd = Open(file, O_RDONLY);
  std::array<char, 64> bytes;  // more than the file has
  ssize_t const length =
      RestartWhileInterrupted([&] { return read(fd.Get(), bytes.data(), bytes.size()); });
  if (length < 0) return 0;
  std::string_view const text(bytes.data(), static_cast<std::size_t>(length));
  time_t seconds = 0;
  std::from_chars(text.begin(), text.end(), seconds);
  return text == TextOf(seconds) && IsBelievable(seconds) ? seconds : 0;
}

bool ClockFloor::WriteFile(time_t seconds) const {
  std::string const next = file + ".new";
  bool const isWritten = WriteNew(next, TextOf(seconds)) && BringToStorage(next.c_str()) &&
                         std::rename(next.c_str(), file.c_str()) == 0;
  if (isWritten) return BringToStorage(DirectoryOf(file).c_str());
  int const error = errno;
  unlink(next.c_str());
  errno = error;
  return false;
}

char const* ClockFloor::Describe(Result result) noexcept {
  switch (result) {
    case Result::Kept:
      return "the clock is later than all that is known";
    case Result::Raised:
      return "the clock was set forward";
    case Result::Refused:
      return "the clock could not be set";
    case Result::Saved:
      return "the time was saved";
    case Result::NotDue:
      return "the time was saved less than an hour ago";
    case Result::Doubtful:
      return "the time is not to be believed";
    case Result::NotSaved:
      break;
  }
  return "the time could not be saved";
}

}  // namespace Quellon::RTC
