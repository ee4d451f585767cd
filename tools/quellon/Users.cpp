#include "Users.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>

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

/// What one process has open, looked through.
class Look {
 public:
  explicit Look(std::vector<std::string_view> const& wanted) : places(wanted) {}

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
    std::string const target = ReadLink(link);
    return std::ranges::any_of(places, [&](auto place) { return target.starts_with(place); });
  }

  std::vector<std::string_view> const& places;
};

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
    users.found.push_back({id, ReadLine(process + "/comm").value_or("?"), UnitOf(process)});
  }
  users.isComplete = processes != nullptr && look.isComplete;
  return users;
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
  User const& first = users.found.front();
  return first.unit.empty() ? "kill " + first.id : "systemctl stop " + first.unit;
}

}  // namespace Quellon::Tool
