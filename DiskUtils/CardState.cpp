#include "DiskUtils/CardState.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <numeric>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "base/internal/OpenFile.h"
#include "base/internal/Restart.h"

namespace Quellon::DiskUtils {

using Tarvik::RestartWhileInterrupted;
using Tarvik::UniqueFd;

namespace {

constexpr std::chrono::seconds kLongestSilence(3);  // what Linux waits for a card's write at most

UniqueFd Open(std::string const& path) noexcept {
  return UniqueFd(
      RestartWhileInterrupted([&path] { return Tarvik::OpenFile(path.c_str(), O_RDONLY); }));
}

// What a file of the kernel's says now; nothing, with `errno` set, when it cannot be read. Once the
// object that it describes has gone, that is ENODEV. None is longer.
std::optional<std::string> Read(UniqueFd const& file) {
  std::array<char, 4096> text;
  ssize_t const size =
      RestartWhileInterrupted([&] { return pread(file.Get(), text.data(), text.size(), 0); });
  if (size < 0) return std::nullopt;
  return std::string(text.data(), static_cast<std::size_t>(size));
}

// Calls `use` with each of the parts of `text` that this character separates.
template <typename Use>
void ForEach(std::string_view text, char separator, Use use) {
  while (!text.empty()) {
    std::size_t const end = std::min(text.find(separator), text.size());
    use(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

// The numbers in a text, each after a blank or at its beginning; other words explain them.
std::vector<std::uint64_t> Numbers(std::string_view text) {
  std::vector<std::uint64_t> numbers;
  ForEach(text, ' ', [&numbers](std::string_view word) {
    std::uint64_t number = 0;
    auto const [end, error] = std::from_chars(word.begin(), word.end(), number);
    if (error == std::errc()) numbers.push_back(number);
  });
  return numbers;
}

std::uint64_t Sum(std::vector<std::uint64_t> const& numbers) {
  return std::accumulate(numbers.begin(), numbers.end(), std::uint64_t{0});
}

std::optional<std::uint64_t> ReadSum(UniqueFd const& file) {
  auto const text = Read(file);
  if (!text) return std::nullopt;
  return Sum(Numbers(*text));
}

// The device that the node `path` stands for; 0 without one.
dev_t DeviceBehind(std::string const& path) noexcept {
  struct stat node {};
  return stat(path.c_str(), &node) == 0 ? node.st_rdev : 0;
}

// The device whose file system holds what `path` leads to. Of a mount point the kernel has that in
// memory.
std::optional<dev_t> DeviceOf(std::string const& path) noexcept {
  struct stat directory {};
  if (stat(path.c_str(), &directory) != 0) return std::nullopt;
  return directory.st_dev;
}

// By the options of an ext4 file system. What an error does to one whose option that is, kernels
// tell in different ways, and some not at all: as "ro", from 6.15 on as "emergency_ro".
bool IsReadOnlyBy(std::string_view options, bool hasMetErrors) {
  bool isReadOnly = false;
  ForEach(options, '\n', [&](std::string_view option) {
    isReadOnly |= option == "ro" || option == "emergency_ro" || option == "shutdown" ||
                  (option == "errors=remount-ro" && hasMetErrors);
  });
  return isReadOnly;
}

std::string NameIn(std::string const& path) {
  return path.substr(path.rfind('/') + 1);
}

// The controller's number is that of its slot's block device.
std::string ControllerOf(std::string const& device) {
  constexpr std::string_view kDevice = "mmcblk";
  return "mmc" + device.substr(std::min(device.size(), kDevice.size()));
}

}  // namespace

CardState::Counter::Counter(std::string const& path)
    : file(Open(path)), start(ReadSum(file).value_or(0)) {}

// What was set to 0 meanwhile has risen from there.
std::uint64_t CardState::Counter::Risen() const {
  std::uint64_t const now = ReadSum(file).value_or(start);
  return now < start ? now : now - start;
}

CardState::CardState(Disk const& disk)
    : CardState(disk.mountPoint, disk.devicePath, disk.blockDevice) {}

CardState::CardState(std::string mountPoint, std::string const& partition,
                     std::string const& device)
    : place(std::move(mountPoint)),
      card(DeviceBehind(partition)),
      statistics(Open("/sys/block/" + device + "/stat")),
      readOnlyFlag(Open("/sys/class/block/" + NameIn(partition) + "/ro")),
      options(Open("/proc/fs/ext4/" + NameIn(partition) + "/options")),
      errors("/sys/fs/ext4/" + NameIn(partition) + "/errors_count"),
      warnings("/sys/fs/ext4/" + NameIn(partition) + "/warning_count"),
      controllerErrors("/sys/kernel/debug/" + ControllerOf(device) + "/err_stats") {
  Report unused;
  LookAtRequests(unused);
}

CardState::Report CardState::Look() {
  Report report;
  if (!LookAtRequests(report)) {
    report.finding = Finding::Gone;
    return report;
  }
  if (!IsMounted()) {
    report.finding = Finding::NotMounted;
    return report;
  }
  report.errors = errors.Risen();
  report.warnings = warnings.Risen();
  report.controllerErrors = controllerErrors.Risen();
  if (report.errors + report.warnings + report.controllerErrors > 0) {
    report.finding = Finding::Errors;
  }
  if (IsReadOnly(report.errors > 0)) report.finding = Finding::ReadOnly;
  if (report.waiting >= kLongestSilence) report.finding = Finding::Stuck;
  return report;
}

char const* CardState::Describe(Finding finding) noexcept {
  switch (finding) {
    case Finding::Good:
      return "the card is good";
    case Finding::Errors:
      return "the card has met errors";
    case Finding::ReadOnly:
      return "the card is read-only";
    case Finding::Stuck:
      return "the card does not answer";
    case Finding::NotMounted:
      return "the card is not mounted";
    case Finding::Gone:
      break;
  }
  return "the card is gone";
}

// Requests wait since the last look if some waited then and some do now, and none was answered
// since. False when the card is gone.
bool CardState::LookAtRequests(Report& report) {
  auto const text = Read(statistics);
  if (!text) return statistics.IsOpen() && errno != ENODEV;
  // Reads, writes and, where the kernel is new enough, discards and flushes.
  constexpr std::array<std::size_t, 4> kAnswered = {0, 4, 11, 15};
  constexpr std::size_t kWaiting = 8;
  std::vector<std::uint64_t> counts = Numbers(*text);
  counts.resize(kAnswered.back() + 1);
  std::uint64_t answeredNow = 0;
  for (std::size_t const field : kAnswered) answeredNow += counts[field];
  report.requests = counts[kWaiting];
  bool const isWaitingStill = report.requests > 0 && isWaiting && answeredNow == answered;
  auto const now = std::chrono::steady_clock::now();
  if (!isWaitingStill) waitingSince = now;
  report.waiting = std::chrono::duration_cast<std::chrono::milliseconds>(now - waitingSince);
  isWaiting = report.requests > 0;
  answered = answeredNow;
  return true;
}

// The file system's own files are gone once it was unmounted, even if it was mounted again since.
bool CardState::IsMounted() const {
  if (DeviceOf(place) != card) return false;
  return Read(errors.file) || errno != ENODEV;
}

bool CardState::IsReadOnly(bool hasMetErrors) const {
  return ReadSum(readOnlyFlag).value_or(0) > 0 ||
         IsReadOnlyBy(Read(options).value_or(std::string()), hasMetErrors);
}

}  // namespace Quellon::DiskUtils
