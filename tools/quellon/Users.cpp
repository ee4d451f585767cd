#include "Users.h"

#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "Device.h"
#include "Reading.h"
#include "base/internal/UniqueDir.h"

namespace Quellon::Tool {

namespace {

bool IsNumber(std::string_view name) {
  return !name.empty() &&
         std::ranges::all_of(name, [](char digit) { return digit >= '0' && digit <= '9'; });
}

// "0::/system.slice/NAME.service"; other lines are of older groups.
std::string UnitOf(std::string const& process) {
  std::string const groups = ReadFile(process + "/cgroup").value_or("");
  constexpr std::string_view kService = ".service";
  std::size_t const end = groups.find(kService);
  if (end == std::string::npos) return {};
  std::size_t const begin = groups.rfind('/', end) + 1;
  return groups.substr(begin, end + kService.size() - begin);
}

// The kernel cuts it: the rest is in what the program was called by, unless that is another name.
std::string NameOf(std::string const& process) {
  constexpr std::size_t kLongest = 15;
  std::string const name = ReadLine(process + "/comm").value_or("?");
  std::string called = ReadFile(process + "/cmdline").value_or("");
  called.resize(std::min(called.find('\0'), called.size()));
  called.erase(0, called.rfind('/') + 1);
  return name.size() == kLongest && called.starts_with(name) ? called : name;
}

// What follows the name of a card in that of a partition: "p1".
bool IsPartition(std::string_view rest) {
  return rest.starts_with('p') && IsNumber(rest.substr(1));
}

// Whole names are compared: "/dev/watchdog1" is not "/dev/watchdog".
bool Belongs(std::string_view path, std::string_view place) {
  if (!path.starts_with(place)) return false;
  std::string_view const rest = path.substr(place.size());
  bool const isCard = place.starts_with("/dev/mmcblk");
  return rest.empty() || rest.starts_with('/') || (isCard && IsPartition(rest));
}

/// What one process has open, looked through.
class Look {
 public:
  explicit Look(std::vector<std::string_view> const& wanted) {
    for (std::string_view const place : wanted) places.push_back(Resolve(std::string(place)));
  }

  bool Finds(std::string const& process) {
    if (IsThere(process + "/cwd")) return true;
    Tarvik::UniqueDir const descriptors(opendir((process + "/fd").c_str()));
    // A process that has ended meanwhile uses nothing; one of somebody else may.
    if (descriptors == nullptr) isComplete = isComplete && !Exists(process);
    if (descriptors == nullptr) return false;
    while (dirent const* entry = readdir(descriptors.get())) {
      if (IsThere(process + "/fd/" + entry->d_name)) return true;
    }
    return false;
  }

  bool isComplete = true;

 private:
  [[nodiscard]] bool IsThere(std::string const& link) const {
    constexpr std::string_view kDeleted = " (deleted)";
    std::string target = ReadLink(link);
    if (target.ends_with(kDeleted)) target.resize(target.size() - kDeleted.size());
    return std::ranges::any_of(places, [&](auto const& place) { return Belongs(target, place); });
  }

  std::vector<std::string> places;
};

// The processes that this one was called by, from the nearest on. "ID (NAME) STATE PARENT ...", and
// a name may have brackets.
std::vector<std::string> Callers() {
  constexpr std::size_t kMost = 64;
  std::vector<std::string> ids;
  std::string id = std::to_string(getppid());
  while (IsNumber(id) && id != "0" && ids.size() < kMost) {
    ids.push_back(id);
    std::string const status = ReadFile("/proc/" + id + "/stat").value_or("");
    std::istringstream words(status.substr(status.rfind(')') + 1));
    std::string state;
    id.clear();
    words >> state >> id;
  }
  return ids;
}

}  // namespace

Users UsersOf(std::vector<std::string_view> const& places) {
  Users users;
  Look look(places);
  Tarvik::UniqueDir const processes(opendir("/proc"));
  std::string const own = std::to_string(getpid());
  while (dirent const* entry = processes == nullptr ? nullptr : readdir(processes.get())) {
    std::string const id = entry->d_name;
    std::string const process = "/proc/" + id;
    if (!IsNumber(id) || id == own || !look.Finds(process)) continue;
    users.found.push_back({id, NameOf(process), UnitOf(process)});
  }
  users.isComplete = processes != nullptr && look.isComplete;
  return users;
}

Users WatchdogHolders() {
  return UsersOf({kWatchdog, kNumberedWatchdog});
}

std::string Show(Users const& users) {
  std::string text;
  for (User const& user : users.found) {
    text += (text.empty() ? "" : ", ") + user.name + " (" + user.id +
            (user.unit.empty() ? "" : ", " + user.unit) + ")";
  }
  if (!text.empty()) return text;
  return users.isComplete ? "nobody" : "unknown: not all processes can be looked at";
}

std::string HowToStop(Users const& users) {
  std::vector<std::string> const callers = Callers();
  auto const isOther = [&](User const& user) { return std::ranges::count(callers, user.id) == 0; };
  auto const first = std::ranges::find_if(users.found, isOther);
  if (first == users.found.end()) return "cd /";
  bool const isService = !first->unit.empty() && first->unit != UnitOf("/proc/self");
  return isService ? "systemctl stop " + first->unit : "kill " + first->id;
}

}  // namespace Quellon::Tool
