#include "Reading.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "base/Date.h"
#include "base/UniqueFd.h"
#include "base/internal/OpenFile.h"
#include "base/internal/Restart.h"
#include "base/internal/UniqueDir.h"

namespace Quellon::Tool {

namespace {

std::string Fixed(double value, char const* unit) {
  std::array<char, 64> text{};
  static_cast<void>(std::snprintf(text.data(), text.size(), "%.1f %s", value, unit));
  return text.data();
}

}  // namespace

bool Exists(std::string const& path) {
  return access(path.c_str(), F_OK) == 0;
}

// A pipe or a device in a file's place must not keep the command waiting.
std::optional<std::string> ReadFile(std::string const& path, std::size_t limit) {
  Tarvik::UniqueFd const file(Tarvik::OpenFile(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
  if (!file.IsOpen()) return std::nullopt;
  std::string text;
  std::array<char, 4096> piece;
  while (text.size() < limit) {
    std::size_t const wanted = std::min(piece.size(), limit - text.size());
    ssize_t const length =
        Tarvik::RestartWhileInterrupted([&] { return read(file.Get(), piece.data(), wanted); });
    if (length < 0) return std::nullopt;
    if (length == 0) break;
    text.append(piece.data(), static_cast<std::size_t>(length));
  }
  return text;
}

std::optional<std::string> ReadLine(std::string const& path) {
  auto text = ReadFile(path);
  if (text) text->resize(std::min(text->size(), text->find('\n')));
  return text;
}

std::optional<long long> ReadNumber(std::string const& path) {
  auto const line = ReadLine(path);
  if (!line) return std::nullopt;
  bool const isHexadecimal = line->starts_with("0x");
  char const* const first = line->data() + (isHexadecimal ? 2 : 0);
  long long number = 0;
  auto const end = line->data() + line->size();
  auto const read = std::from_chars(first, end, number, isHexadecimal ? 16 : 10);
  if (read.ec == std::errc()) return number;
  errno = EINVAL;
  return std::nullopt;
}

std::string ReadLink(std::string const& path) {
  std::array<char, PATH_MAX> target;
  ssize_t const length = readlink(path.c_str(), target.data(), target.size());
  return {target.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

std::string Resolve(std::string const& path) {
  std::unique_ptr<char, decltype(&std::free)> const found(realpath(path.c_str(), nullptr),
                                                          &std::free);
  if (found != nullptr) return found.get();
  std::size_t const slash = path.rfind('/');
  if (slash == 0 || slash == std::string::npos) return path;
  return Resolve(path.substr(0, slash)) + path.substr(slash);
}

std::optional<std::vector<std::string>> NamesIn(std::string const& folder) {
  Tarvik::UniqueDir const directory(opendir(folder.c_str()));
  if (directory == nullptr) return std::nullopt;
  std::vector<std::string> names;
  for (errno = 0; dirent const* entry = readdir(directory.get()); errno = 0) {
    std::string const name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  if (errno != 0) return std::nullopt;
  return names;
}

std::optional<Space> SpaceOf(std::string const& path) {
  struct statvfs space {};
  if (statvfs(path.c_str(), &space) != 0) return std::nullopt;
  auto const unit = static_cast<double>(space.f_frsize != 0 ? space.f_frsize : space.f_bsize);
  return Space{static_cast<double>(space.f_blocks) * unit,
               static_cast<double>(space.f_bfree) * unit};
}

std::string ShowTime(std::time_t seconds) {
  return Tarvik::Util::Date(seconds, "%Y-%m-%d %H:%M:%S");
}

std::string ShowDuration(long long seconds) {
  if (seconds < 0) return "-" + ShowDuration(-seconds);
  struct Unit {
    long long seconds;
    char const* name;
  };
  constexpr std::array<Unit, 4> kUnits = {{{86400, " d"}, {3600, " h"}, {60, " min"}, {1, " s"}}};
  for (std::size_t i = 0; i + 1 < kUnits.size(); ++i) {
    if (seconds < kUnits[i].seconds) continue;
    auto const rest = seconds % kUnits[i].seconds / kUnits[i + 1].seconds;
    return std::to_string(seconds / kUnits[i].seconds) + kUnits[i].name + " " +
           std::to_string(rest) + kUnits[i + 1].name;
  }
  return std::to_string(seconds) + " s";
}

std::string ShowBytes(double bytes) {
  constexpr std::array<char const*, 4> kUnits = {"KiB", "MiB", "GiB", "TiB"};
  constexpr double kStep = 1024;
  if (bytes < kStep) return std::to_string(static_cast<long>(bytes)) + " B";
  std::size_t unit = 0;
  for (bytes /= kStep; bytes >= kStep && unit + 1 < kUnits.size(); ++unit) bytes /= kStep;
  return Fixed(bytes, kUnits[unit]);
}

std::string ShowShare(double part, double whole) {
  constexpr double kPerCent = 100;
  return Fixed(whole > 0 ? part / whole * kPerCent : 0, "%");
}

}  // namespace Quellon::Tool
