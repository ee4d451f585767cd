#include "CardFacts.h"

#include <sstream>

#include "Device.h"
#include "Reading.h"

namespace Quellon::Tool {

namespace {

constexpr std::size_t kLargestTable = std::size_t{1} << 20;
constexpr char const* kMountPoint = "/mnt/sdcard";  // as the kernel writes it, without a slash

// Kernels from 6.15 on tell an error that has ended writing in words of their own.
bool HasReadOnly(std::string const& options) {
  std::istringstream stream(options);
  for (std::string option; std::getline(stream, option, ',');) {
    if (option == "ro" || option == "emergency_ro" || option == "shutdown") return true;
  }
  return false;
}

}  // namespace

// The last line is what covers the others.
std::optional<Mounted> MountedCard() {
  std::optional<Mounted> found;
  std::string const mountPoint = Resolve(kMountPoint);
  std::istringstream table(ReadFile("/proc/self/mounts", kLargestTable).value_or(""));
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::string device;
    std::string place;
    std::string type;
    std::string options;
    words >> device >> place >> type >> options;
    if (place == mountPoint) found = Mounted{device, type, HasReadOnly(options)};
  }
  return found;
}

std::vector<std::string_view> const& PlacesOfTheCard() {
  static std::vector<std::string_view> const places = {kMountPoint, "/dev/mmcblk1", kLog,
                                                       kOlderLog};
  return places;
}

}  // namespace Quellon::Tool
